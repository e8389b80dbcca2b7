#include "report/SourceFindings.h"

#include <openssl/x509_vfy.h>

#include <chrono>
#include <system_error>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

using Source = SourceRecord::Source;
using Use = SourceRecord::Use;

bool failed(const Use& use) noexcept {
  return use.result == Source::Result::kFailed || use.result == Source::Result::kRefused ||
         use.result == Source::Result::kCut;
}

VerificationReport::Origin::Kind originKind(const Use& use) noexcept {
  using Kind = VerificationReport::Origin::Kind;
  switch (use.kind) {
    case Source::Kind::kDirectory:
      return use.wanted == Source::Wanted::kCRLs ? Kind::kMachineCRLs : Kind::kTrustDirectory;
    case Source::Kind::kLookupMethod:
      return Kind::kLookupMethod;
    case Source::Kind::kLDAP:
      return Kind::kLDAP;
    case Source::Kind::kCache:
      return Kind::kCache;
    case Source::Kind::kCRLServer:
    case Source::Kind::kOCSPResponder:
      break;
  }
  return Kind::kNetwork;
}

std::string_view placeName(const Use& use) noexcept {
  switch (use.kind) {
    case Source::Kind::kDirectory:
      return DetailName::kDirectory;
    case Source::Kind::kLookupMethod:
      return DetailName::kLookupMethod;
    case Source::Kind::kLDAP:
    case Source::Kind::kCache:
    case Source::Kind::kCRLServer:
    case Source::Kind::kOCSPResponder:
      break;
  }
  return DetailName::kURI;
}

}  // namespace

// What our own bounds refuse is no such source: a stranger can reach these on purpose.
const Use* failedIssuerSource(const SourceRecord& sources) {
  for (const Use& use : sources.uses()) {
    if (use.wanted == Source::Wanted::kCertificates && use.about == nullptr && failed(use) &&
        use.result != Source::Result::kRefused) {
      return &use;
    }
  }
  return nullptr;
}

std::vector<const Use*> failedFor(const X509* certificate, const SourceRecord& sources) {
  std::vector<const Use*> all;
  for (const Use& use : sources.uses()) {
    if (use.about == certificate && failed(use)) all.push_back(&use);
  }
  return all;
}

std::string reasonOf(const UseFacts& facts) {
  if (!facts.reason.empty() || facts.errorNumber == 0) return facts.reason;
  return std::generic_category().message(facts.errorNumber);
}

Rule ruleOf(const Use& use) noexcept {
  switch (use.facts.failure) {
    case UseFacts::Failure::kAddressRefused:
      return Rule::kAddressRefused;
    case UseFacts::Failure::kScheme:
      return Rule::kSchemeNotSpoken;
    case UseFacts::Failure::kClientIdentity:
      return Rule::kClientIdentity;
    case UseFacts::Failure::kBudget:
      return Rule::kBudgetSpent;
    case UseFacts::Failure::kNotVouched:
      return Rule::kCertificateSignature;
    case UseFacts::Failure::kUnreadable:
    case UseFacts::Failure::kMalformed:
    case UseFacts::Failure::kNoAnswer:
    case UseFacts::Failure::kOther:
      break;
  }
  switch (use.kind) {
    case Source::Kind::kOCSPResponder:
      return use.facts.failure == UseFacts::Failure::kMalformed ? Rule::kOCSPMalformed
                                                                : Rule::kOCSPUnreachable;
    case Source::Kind::kCRLServer:
      return use.facts.failure == UseFacts::Failure::kMalformed ? Rule::kCRLMalformed
                                                                : Rule::kCRLUnreachable;
    case Source::Kind::kCache:
      return Rule::kCacheUnusable;
    case Source::Kind::kDirectory:
      if (use.wanted == Source::Wanted::kCRLs) return Rule::kCRLFileUnreadable;
      return use.facts.file.empty() ? Rule::kTrustDirectoryMissing : Rule::kTrustFileUnreadable;
    case Source::Kind::kLookupMethod:
    case Source::Kind::kLDAP:
      break;
  }
  return use.wanted == Source::Wanted::kCRLs ? Rule::kCRLSourceFailed : Rule::kIssuerSourceFailed;
}

void addUse(FindingMaker& maker, const Use& use) {
  using std::chrono::duration_cast;
  using std::chrono::milliseconds;
  const UseFacts& facts = use.facts;
  maker.add(placeName(use), use.origin.text());
  maker.add(DetailName::kFile, facts.file);
  maker.add(DetailName::kError, reasonOf(facts));
  maker.add(DetailName::kResource, facts.resource);
  maker.addUnlessZero(DetailName::kHTTPStatus, facts.httpStatus);
  maker.addUnlessZero(DetailName::kErrorNumber, facts.errorNumber);
  maker.addUnlessZero(DetailName::kBytes, static_cast<std::int64_t>(facts.bytes));
  maker.addUnlessZero(DetailName::kMilliseconds, duration_cast<milliseconds>(use.taken).count());
  maker.from({originKind(use), use.origin.text(), facts.file});
}

VerificationReport::Finding sourceFinding(const Use& failed, const RefCertificate& certificate,
                                          int depth, int code) {
  FindingMaker maker(ruleOf(failed), code);
  maker.about(certificate, depth);
  addUse(maker, failed);
  return std::move(maker).make();
}

}  // namespace Velantrix::Crypto::PKX509
