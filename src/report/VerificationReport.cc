#include "report/Line.h"
#include "report/ReportContent.h"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

using Report = VerificationReport;

}  // namespace

std::string_view nameOf(Outcome outcome) noexcept {
  switch (outcome) {
    case Outcome::kValid:
      return "valid";
    case Outcome::kTemporary:
      return "temporary";
    case Outcome::kLocal:
      return "local";
    case Outcome::kPermanent:
      break;
  }
  return "permanent";
}

Report::Origin::Origin(Kind kind, std::string place, std::string file)
    : kind_(kind), place_(std::move(place)), file_(std::move(file)) {}

Report::Subject::Subject(std::string subject, std::string issuer, std::string serial)
    : subject_(std::move(subject)), issuer_(std::move(issuer)), serial_(std::move(serial)) {}

Report::Finding::Finding(Content content)
    : content_(std::make_shared<const Content>(std::move(content))) {}

Rule Report::Finding::rule() const noexcept { return content_->rule; }
int Report::Finding::depth() const noexcept { return content_->depth; }
const Report::Subject& Report::Finding::certificate() const noexcept {
  return content_->certificate;
}
int Report::Finding::code() const noexcept { return content_->code; }
const std::vector<Report::Detail>& Report::Finding::details() const noexcept {
  return content_->details;
}
const Report::Origin& Report::Finding::origin() const noexcept { return content_->origin; }
const std::vector<Report::Finding>& Report::Finding::nested() const noexcept {
  return content_->nested;
}

const Report::Value* Report::Finding::find(std::string_view name) const noexcept {
  const std::vector<Detail>& all = content_->details;
  const auto found =
      std::find_if(all.begin(), all.end(), [name](const Detail& one) { return one.name == name; });
  return found == all.end() ? nullptr : &found->value;
}

Report::RevocationResult::RevocationResult() : RevocationResult(Content()) {}
Report::RevocationResult::RevocationResult(Content content)
    : content_(std::make_shared<const Content>(std::move(content))) {}

Report::RevocationResult::Status Report::RevocationResult::status() const noexcept {
  return content_->status;
}
const std::vector<Report::RevocationResult::Statement>& Report::RevocationResult::decidedBy()
    const noexcept {
  return content_->decidedBy;
}
const std::optional<Time>& Report::RevocationResult::date() const noexcept {
  return content_->date;
}
const std::string& Report::RevocationResult::reason() const noexcept { return content_->reason; }

Report::Link::Link(Content content)
    : content_(std::make_shared<const Content>(std::move(content))) {}

const Report::Subject& Report::Link::certificate() const noexcept {
  return content_->certificate->subject;
}
const std::string& Report::Link::fingerprint() const noexcept {
  return content_->certificate->fingerprint;
}
const std::optional<Time>& Report::Link::notBefore() const noexcept {
  return content_->certificate->notBefore;
}
const std::optional<Time>& Report::Link::notAfter() const noexcept {
  return content_->certificate->notAfter;
}
const Report::Origin& Report::Link::origin() const noexcept { return content_->origin; }
const Report::RevocationResult& Report::Link::revocation() const noexcept {
  return content_->revocation;
}

Report::Source::Source(Content content)
    : content_(std::make_shared<const Content>(std::move(content))) {}

Report::Source::Kind Report::Source::kind() const noexcept { return content_->kind; }
Report::Source::Wanted Report::Source::wanted() const noexcept { return content_->wanted; }
const std::string& Report::Source::origin() const noexcept { return content_->origin; }
bool Report::Source::fromMemory() const noexcept { return content_->fromMemory; }
Report::Source::Result Report::Source::result() const noexcept { return content_->result; }
std::size_t Report::Source::found() const noexcept { return content_->found; }
const std::string& Report::Source::reason() const noexcept { return content_->reason; }
int Report::Source::httpStatus() const noexcept { return content_->httpStatus; }
int Report::Source::errorNumber() const noexcept { return content_->errorNumber; }
std::uint64_t Report::Source::bytes() const noexcept { return content_->bytes; }
std::uint64_t Report::Source::microseconds() const noexcept { return content_->microseconds; }
const std::optional<std::int64_t>& Report::Source::age() const noexcept { return content_->age; }

Report::VerificationReport()
    : VerificationReport([] {
        Content nothing;
        nothing.code = X509_V_ERR_UNSPECIFIED;
        nothing.findings.emplace_back(Finding::Content{.rule = Rule::kNotVerified});
        return nothing;
      }()) {}

Report::VerificationReport(Content content)
    : content_(std::make_shared<const Content>(std::move(content))) {}

int Report::code() const noexcept { return content_->code; }

Outcome Report::outcome() const noexcept {
  if (valid()) return Outcome::kValid;
  if (content_->findings.empty()) return Outcome::kPermanent;
  const Outcome outcome = content_->findings.front().outcome();
  return outcome == Outcome::kValid ? Outcome::kPermanent : outcome;
}

const Time& Report::checkTime() const noexcept { return content_->checkTime; }
const std::vector<Report::Link>& Report::path() const noexcept { return content_->path; }
std::size_t Report::pathLeftOut() const noexcept { return content_->pathLeftOut; }
const std::vector<Report::Finding>& Report::findings() const noexcept { return content_->findings; }
std::size_t Report::findingsLeftOut() const noexcept { return content_->findingsLeftOut; }
const std::vector<Report::Source>& Report::sources() const noexcept { return content_->sources; }
std::size_t Report::sourcesLeftOut() const noexcept { return content_->sourcesLeftOut; }
const Report::Totals& Report::totals() const noexcept { return content_->totals; }

std::string Report::line() const { return lineOf(*this); }

}  // namespace Velantrix::Crypto::PKX509
