#include "foundation/run/Counters.h"
#include "report/CertificateFacts.h"
#include "report/Evidence.h"
#include "report/FindingMaker.h"
#include "report/PathFindings.h"
#include "report/RevocationFindings.h"
#include "report/SourceFindings.h"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <iterator>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

using Report = VerificationReport;
using Finding = Report::Finding;
using Source = Report::Source;

// What texts come to. Numbers and times are not counted.
std::size_t sizeOf(const Report::Subject& subject) {
  return subject.subject().size() + subject.issuer().size() + subject.serial().size();
}
std::size_t sizeOf(const Report::Origin& origin) {
  return origin.place().size() + origin.file().size();
}
std::size_t sizeOf(const Report::Link& link) {
  std::size_t size = sizeOf(link.certificate()) + link.fingerprint().size() + sizeOf(link.origin());
  for (const auto& statement : link.revocation().decidedBy()) {
    size += statement.issuer.size() + statement.number.size() + sizeOf(statement.origin);
  }
  return size + link.revocation().reason().size();
}
std::size_t sizeOf(const Finding& finding) {  // without those below it
  std::size_t size = sizeOf(finding.certificate()) + sizeOf(finding.origin());
  for (const Report::Detail& detail : finding.details()) {
    const auto* const text = std::get_if<std::string>(&detail.value);
    size += detail.name.size() + (text == nullptr ? 0 : text->size());
  }
  return size;
}
std::size_t sizeOf(const Source& source) { return source.origin().size() + source.reason().size(); }

std::size_t findingsIn(const std::vector<Finding>& findings) {
  std::size_t count = findings.size();
  for (const Finding& one : findings) count += findingsIn(one.nested());
  return count;
}

// What a part of a report has room for.
class TextRoom {
 public:
  explicit TextRoom(std::size_t size) noexcept : left_(size) {}

  bool take(std::size_t size) noexcept {
    if (size > left_) return false;
    left_ -= size;
    return true;
  }
  std::size_t left() const noexcept { return left_; }

 private:
  std::size_t left_;
};

class FindingsInBounds {
 public:
  explicit FindingsInBounds(TextRoom& room) noexcept : room_(room) {}

  std::vector<Finding> cut(const std::vector<Finding>& findings) {
    std::vector<Finding> kept;
    for (const Finding& one : findings) {
      if (count_ >= Report::kMaximumFindings || !room_.take(sizeOf(one))) {
        leftOut_ += 1 + findingsIn(one.nested());
        continue;
      }
      ++count_;
      kept.push_back(one.nested().empty() ? one : withNested(one, cut(one.nested())));
    }
    return kept;
  }
  std::size_t leftOut() const noexcept { return leftOut_; }

 private:
  static Finding withNested(const Finding& finding, std::vector<Finding> nested) {
    return Finding({.rule = finding.rule(),
                    .depth = finding.depth(),
                    .certificate = finding.certificate(),
                    .code = finding.code(),
                    .details = finding.details(),
                    .origin = finding.origin(),
                    .nested = std::move(nested)});
  }

  TextRoom& room_;
  std::size_t count_ = 0;
  std::size_t leftOut_ = 0;
};

Source sourceOf(const SourceRecord::Use& use, const Time& now) {
  using std::chrono::duration_cast;
  using std::chrono::microseconds;
  Source::Content content{.kind = use.kind,
                          .wanted = use.wanted,
                          .origin = reportText(use.origin.text()),
                          .fromMemory = use.fromMemory,
                          .result = use.result,
                          .found = use.found,
                          .reason = reportText(reasonOf(use.facts)),
                          .httpStatus = use.facts.httpStatus,
                          .errorNumber = use.facts.errorNumber,
                          .bytes = use.facts.bytes};
  content.microseconds = static_cast<std::uint64_t>(duration_cast<microseconds>(use.taken).count());
  if (use.facts.stored) content.age = now.seconds() - use.facts.stored->seconds();
  return Source(std::move(content));
}

class Builder {
 public:
  Builder(const Evidence& evidence, const Surroundings& surroundings)
      : evidence_(evidence),
        surroundings_(surroundings),
        revocation_(evidence.revocation),
        failedDepth_(evidence.failedDepth) {
    for (const Objection& one : evidence.objections) takeRevocation(one);
  }

  std::vector<Finding> onlyFindings() {
    findings();
    return std::move(findings_);
  }

  Outcome outcome() {
    findings();
    content_.code = evidence_.code;
    content_.findings = std::move(findings_);
    return Report(std::move(content_)).outcome();
  }

  Report build() {
    findings();
    content_.code = evidence_.code;
    content_.checkTime = surroundings_.checked;
    content_.totals = evidence_.totals;
    // Strangers make texts long: of the path, findings and sources none keeps the others out. What one
    // leaves goes to the next.
    TextRoom forPath(Report::kMaximumSize / 4);
    path(forPath);
    TextRoom forFindings(Report::kMaximumSize / 2 + forPath.left());
    FindingsInBounds bounds(forFindings);
    content_.findings = bounds.cut(findings_);
    content_.findingsLeftOut = bounds.leftOut() + nested_.leftOut;
    TextRoom forSources(Report::kMaximumSize / 4 + forFindings.left());
    sources(forSources);
    return Report(std::move(content_));
  }

 private:
  void takeRevocation(const Objection& objection);
  bool isTaken(const Objection& objection) const noexcept {
    return isAboutRevocation(objection.code) && objection.depth >= 0 &&
           static_cast<std::size_t>(objection.depth) < surroundings_.path.size();
  }
  void findings();
  void interventions();
  void revocation();
  void objections();
  void guardAgainstForgery();
  void path(TextRoom& room);
  void sources(TextRoom& room);
  Finding thrown() const;
  Rule ruleOfBroken() const;
  Finding plain(Rule rule, int code) const {
    FindingMaker maker(rule, code);
    if (!surroundings_.path.empty()) maker.about(surroundings_.path.front(), 0);
    return std::move(maker).make();
  }
  Finding finding(Rule intervention) const {
    FindingMaker maker(intervention, evidence_.code);
    if (const std::vector<Objection>& all = objectionsKnown(); !all.empty()) {
      const Objection& last = all.back();
      maker.about(last.certificate, last.depth);
    } else if (!surroundings_.path.empty()) {
      maker.about(surroundings_.path.front(), 0);
    }
    return std::move(maker).make();
  }
  Finding fellShort() const {
    FindingMaker maker(Rule::kBudgetSpent, evidence_.code);
    if (!surroundings_.path.empty()) maker.about(surroundings_.path.front(), 0);
    for (const std::string_view resource : evidence_.spent) {
      maker.add(DetailName::kResource, resource);
    }
    return std::move(maker).make();
  }
  // A callback of the program's may have left none.
  const std::vector<Objection>& objectionsKnown() const noexcept {
    const bool hidden =
        evidence_.callbackDecides && evidence_.objections.empty() && evidence_.code == X509_V_OK;
    return hidden ? surroundings_.again : evidence_.objections;
  }

  const Evidence& evidence_;
  const Surroundings& surroundings_;
  std::vector<Revocation::Outcome> revocation_;  // by depth, OpenSSL's check included
  std::optional<int> failedDepth_;
  Report::Content content_;
  std::vector<Finding> findings_;
  NestedFindings nested_;
};

// OpenSSL's own check of a certificate's revocation tells what it stumbled over.
void Builder::takeRevocation(const Objection& objection) {
  if (!isTaken(objection)) return;
  const auto depth = static_cast<std::size_t>(objection.depth);
  if (revocation_.size() <= depth) revocation_.resize(depth + 1);
  objected(objection, evidence_.signer, revocation_[depth]);
  if (objection.code == evidence_.code) failedDepth_ = objection.depth;
}

// The decisive one first.
void Builder::findings() {
  if (evidence_.earlierStands) {
    FindingMaker maker(Rule::kEarlierFailure, evidence_.code);
    if (!surroundings_.path.empty()) maker.about(surroundings_.path.front(), 0);
    if (evidence_.earlier) maker.below(*evidence_.earlier);
    findings_.push_back(std::move(maker).make());
  } else if (evidence_.thrown) {
    findings_.push_back(thrown());
  } else if (evidence_.refusal != nullptr) {
    FindingMaker maker(Rule::kNestedTooDeep, evidence_.code);
    findings_.push_back(std::move(maker.add(DetailName::kText, evidence_.refusal)).make());
  }
  const auto passedOver = static_cast<std::ptrdiff_t>(findings_.size());
  interventions();
  const auto intervened = findings_.size();
  objections();
  revocation();
  // What the program let pass did not decide where something else did.
  if (evidence_.code != X509_V_OK && intervened > static_cast<std::size_t>(passedOver) &&
      findings_[intervened - 1].outcome() == Outcome::kValid && findings_.size() > intervened) {
    std::rotate(findings_.begin() + passedOver, findings_.begin() + passedOver + 1,
                findings_.end());
  }
  if (evidence_.fellShort) {
    findings_.insert(findings_.begin(), fellShort());
  } else if (evidence_.code != X509_V_OK && !evidence_.spent.empty() && !findings_.empty()) {
    // What was not looked for any more may be what is missing.
    findings_.insert(findings_.begin() + 1, fellShort());
  }
  if (findings_.empty() && evidence_.code != X509_V_OK) {
    FindingMaker maker(ruleOf(evidence_.code), evidence_.code);
    if (!surroundings_.path.empty()) maker.about(surroundings_.path.front(), 0);
    maker.add(DetailName::kText, X509_verify_cert_error_string(evidence_.code));
    findings_.push_back(std::move(maker).make());
  }
  guardAgainstForgery();
}

// Where somebody else than the library has decided. What a callback makes of an objection is known from
// the verdict, and from what OpenSSL objects to when it is asked again.
void Builder::interventions() {
  using Intervention = Evidence::Intervention;
  Intervention intervention = evidence_.intervention;
  if (evidence_.callbackDecides && intervention == Intervention::kNone) {
    const std::vector<Objection>& again = surroundings_.again;
    const bool objects = isAboutRevocation(evidence_.code) ||
                         std::any_of(again.begin(), again.end(), [this](const Objection& one) {
                           return one.code == evidence_.code;
                         });
    if (evidence_.code == X509_V_OK && !again.empty()) {
      intervention = Intervention::kCallbackAccepted;
    } else if (evidence_.code != X509_V_OK && !objects) {
      intervention = Intervention::kCallbackRefused;
    }
  }
  switch (intervention) {
    case Intervention::kNone:
      break;
    case Intervention::kCallbackAccepted:
      findings_.push_back(finding(Rule::kCallbackAccepted));
      break;
    case Intervention::kCallbackRefused:
      findings_.push_back(finding(Rule::kCallbackRefused));
      break;
    case Intervention::kOverrideAccepted:
      findings_.push_back(finding(Rule::kOverrideAccepted));
      break;
    case Intervention::kOverrideRefused:
      findings_.push_back(finding(Rule::kOverrideRefused));
      break;
  }
}

void Builder::objections() {
  std::vector<Finding> made;
  const std::vector<Objection>& all = objectionsKnown();
  for (auto one = all.rbegin(); one != all.rend(); ++one) {
    if (!isTaken(*one)) made.push_back(pathFinding(*one, evidence_, surroundings_));
  }
  // The verdict's own before those that were passed over on the way to it.
  const auto decisive = std::find_if(made.begin(), made.end(), [this](const Finding& one) {
    return one.code() == evidence_.code;
  });
  if (decisive != made.end()) std::rotate(made.begin(), decisive, std::next(decisive));
  findings_.insert(findings_.end(), made.begin(), made.end());
}

// What decided before the rest, from the trust anchor down.
void Builder::revocation() {
  if (surroundings_.path.empty() && !revocation_.empty()) {
    // Something was asked for no certificate's sake.
    const RefCertificate none;
    findings_ =
        revocationFindings({none, -1, revocation_.front()}, evidence_, surroundings_, nested_);
    return;
  }
  const auto count = std::min(revocation_.size(), surroundings_.path.size());
  const auto add = [this](std::size_t depth) {
    const Checked checked{surroundings_.path[depth], static_cast<int>(depth), revocation_[depth]};
    for (Finding& one : revocationFindings(checked, evidence_, surroundings_, nested_)) {
      findings_.push_back(std::move(one));
    }
  };
  const std::size_t failed = failedDepth_ ? static_cast<std::size_t>(*failedDepth_) : count;
  if (failed < count) add(failed);
  for (std::size_t depth = count; depth-- > 0;) {
    const Revocation::Outcome& outcome = revocation_[depth];
    const bool reached = outcome.status != Revocation::Status::kUndetermined || outcome.code != 0 ||
                         !outcome.setAside.empty();
    if (depth != failed && reached) add(depth);
  }
}

// Whoever forges a certificate, or sends one that will never do, earns no retries by naming hosts that do
// not answer.
void Builder::guardAgainstForgery() {
  if (evidence_.code == X509_V_OK || findings_.empty()) return;
  const Finding& decisive = findings_.front();
  if (decisive.outcome() == Outcome::kPermanent) return;
  // What was thrown may have kept an issuer from being found as well, and so may what was left out.
  const bool leftOut = evidence_.fellShort && !evidence_.callbackDecides;
  const bool sourceIsToBlame = evidence_.thrown || leftOut ||
                               decisive.rule() == Rule::kIssuerSourceFailed ||
                               decisive.rule() == Rule::kTrustDirectoryMissing ||
                               decisive.rule() == Rule::kTrustDirectoryEmpty ||
                               decisive.rule() == Rule::kTrustFileUnreadable;
  const Objection* hidden = nullptr;
  for (const Objection& one : surroundings_.again) {
    const bool aboutIssuer = isAboutTheIssuer(one.code);
    if (factsOf(ruleOf(one.code)).outcome == Outcome::kTemporary) continue;
    if (aboutIssuer && (sourceIsToBlame || hidden != nullptr)) continue;
    hidden = &one;
    if (!aboutIssuer) break;
  }
  if (hidden == nullptr) return;
  findings_.insert(findings_.begin(), pathFinding(*hidden, evidence_, surroundings_));
}

Finding Builder::thrown() const {
  const Evidence::Thrown& what = *evidence_.thrown;
  // Whoever asks a source and throws has left it behind as the last one.
  const std::vector<SourceRecord::Use>& uses = evidence_.sources.uses();
  const bool sourceFailed = !uses.empty() && uses.back().result == Source::Result::kFailed;
  const auto ruleFor = [&] {
    switch (what.kind) {
      case Evidence::Thrown::Kind::kMemory:
        return Rule::kOutOfResources;
      case Evidence::Thrown::Kind::kClientIdentity:
        return Rule::kClientIdentity;
      case Evidence::Thrown::Kind::kLibrary:
        return sourceFailed ? ruleOf(uses.back()) : ruleOfBroken();
      case Evidence::Thrown::Kind::kOther:
        break;
    }
    return Rule::kException;
  };
  FindingMaker maker(ruleFor(), evidence_.code);
  const std::size_t depth = failedDepth_ ? static_cast<std::size_t>(*failedDepth_) : 0;
  if (depth < surroundings_.path.size()) {
    maker.about(surroundings_.path[depth], static_cast<int>(depth));
  }
  if (what.kind == Evidence::Thrown::Kind::kLibrary && sourceFailed) addUse(maker, uses.back());
  return std::move(maker.add(DetailName::kText, what.text)).make();
}

// Of what cannot be read: the CRL that was looked at, or the certificate.
Rule Builder::ruleOfBroken() const {
  const auto failed = static_cast<std::size_t>(failedDepth_.value_or(-1));
  if (failed >= revocation_.size() || revocation_[failed].setAside.empty()) {
    return Rule::kExtensionInvalid;
  }
  const Revocation::SetAside& last = revocation_[failed].setAside.back();
  return ruleOf(last.reason, last.statement.kind);
}

void Builder::path(TextRoom& room) {
  const std::vector<RefCertificate>& path = surroundings_.path;
  NameTexts texts;
  for (std::size_t i = 0; i < path.size(); ++i) {
    Report::Link::Content link;
    link.certificate = factsAbout(path[i], texts);
    if (i < surroundings_.origins.size()) link.origin = surroundings_.origins[i];
    if (i < revocation_.size()) {
      const Revocation::Outcome& outcome = revocation_[i];
      const bool reached = outcome.status != Revocation::Status::kUndetermined || outcome.code != 0;
      if (reached) link.revocation = resultOf(outcome, evidence_.origins, texts);
    }
    Report::Link made(std::move(link));
    if (!room.take(sizeOf(made))) {
      content_.pathLeftOut = path.size() - i;
      return;
    }
    content_.path.push_back(std::move(made));
  }
}

void Builder::sources(TextRoom& room) {
  const Time now = Time::now();
  content_.sourcesLeftOut = evidence_.sources.leftOut();
  for (const SourceRecord::Use& use : evidence_.sources.summedUp()) {
    Source made = sourceOf(use, now);
    if (content_.sources.size() < Report::kMaximumSources && room.take(sizeOf(made))) {
      content_.sources.push_back(std::move(made));
    } else {
      ++content_.sourcesLeftOut;
    }
  }
}

}  // namespace

VerificationReport keyUsageReport(const RefCertificate& certificate) {
  Evidence evidence;
  evidence.verified = true;
  evidence.code = X509_V_ERR_UNSPECIFIED;
  evidence.objections = {{certificate, 0, X509_V_ERR_KEYUSAGE_NO_DIGITAL_SIGNATURE}};
  return makeReport(evidence, {.path = {certificate},
                               .origins = {{Report::Origin::Kind::kCaller, {}}},
                               .checked = Time::now()});
}

std::vector<Finding> findingsOf(const LeftBehind& nested, const Evidence& around) {
  Evidence evidence = nested.evidence;
  evidence.sources = around.sources;
  evidence.origins = around.origins;
  return Builder(evidence, nested.surroundings).onlyFindings();
}

Outcome outcomeOf(const Evidence& evidence, const Surroundings& surroundings) {
  return Builder(evidence, surroundings).outcome();
}

void countVerification(Outcome outcome) noexcept {
  using Counter = Statistics::Counter;
  switch (outcome) {
    case Outcome::kValid:
      return count(Counter::kVerificationsValid);
    case Outcome::kTemporary:
      return count(Counter::kVerificationsTemporary);
    case Outcome::kLocal:
      return count(Counter::kVerificationsLocal);
    case Outcome::kPermanent:
      break;
  }
  count(Counter::kVerificationsPermanent);
}

VerificationReport makeReport(const Evidence& evidence, const Surroundings& surroundings) {
  if (!evidence.verified) return VerificationReport();
  return Builder(evidence, surroundings).build();
}

}  // namespace Velantrix::Crypto::PKX509
