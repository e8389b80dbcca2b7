// What CRLs and OCSP answers say, and why some do not count.
#include "integration/FailureReport.h"
#include "support/OCSPBuilder.h"

#include <pkx509/FixedPaths.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <utility>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using namespace std::string_literals;

constexpr std::int64_t kDayInSeconds = 86400;
constexpr int kKeyCompromise = 1;  // RFC 5280, 5.3.1
constexpr int kCertificateHold = 6;
const std::vector<Who> kBoth{Who::kClassic};
const std::vector<Who> kAllThree{Who::kClassic, Who::kOpenSSL};

class FailureReportRevocation : public FailureReport {
 protected:
  /// A CA and a certificate of its, for one row.
  struct Pair {
    Issued ca;
    Issued leaf;
  };
  Pair pair(const std::string& name, const CertificateOptions& leaf = {}) const {
    Issued ca = issuer(name);
    Issued below = leafOf(ca, leaf);
    return {std::move(ca), std::move(below)};
  }
  static CertificateOptions pointingTo(const std::string& uri) {
    return {.crlDistributionPoints = {{.fullNames = {"URI:" + uri}}}};
  }
  static Failure failureOf(const std::string& name, const Pair& pair, const Told& told,
                           const std::vector<Who>& also = {}) {
    Failure failure{.name = name, .leaf = pair.leaf, .untrusted = {pair.ca}, .told = told};
    failure.told.about = pair.leaf;
    failure.also = also;
    return failure;
  }
  std::string url(const std::string& path) const { return places.server().url(path); }
};

TEST_F(FailureReportRevocation, Revoked) {
  const When date = -26h;
  const auto listing = [&](const Pair& one, int reason) -> CRLOptions {
    return {.issuer = &one.ca,
            .number = Serial("0412"),
            .revoked = {{.serial = one.leaf, .date = date, .reason = reason}}};
  };
  const Pair filed = pair("Filed");
  const Said file = install(listing(filed, kKeyCompromise));
  const Pair held = pair("Held");
  const Said hold = install(listing(held, kCertificateHold));
  const Pair fetched = pair("Fetched", pointingTo(url("/fetched.crl")));
  const Said served = serve("/fetched.crl", listing(fetched, kKeyCompromise));
  const Pair above = pair("Above");
  installGood(above.ca);
  const Said roots = install(
      {.issuer = &root, .number = Serial(7), .revoked = {{.serial = above.ca, .date = date}}});
  const ReportDetails compromised{
      {"revocationDate", valueOf(date)}, {"reason", "keyCompromise"}, {"crlNumber", "1042"}};
  Failure intermediate =
      failureOf("an intermediate", above,
                {.rule = Rule::kRevoked,
                 .outcome = Outcome::kPermanent,
                 .code = X509_V_ERR_CERT_REVOKED,
                 .depth = 1,
                 .values = roots.values +
                           ReportDetails{{"revocationDate", valueOf(date)}, {"crlNumber", "7"}},
                 .origin = roots.origin,
                 .inLine = {"#7", nameOf(root)}},
                kAllThree);
  intermediate.told.about = above.ca;
  expect({
      failureOf("by a file", filed,
                {.rule = Rule::kRevoked,
                 .outcome = Outcome::kPermanent,
                 .code = X509_V_ERR_CERT_REVOKED,
                 .values = file.values + compromised,
                 .origin = file.origin,
                 .inLine = {"#1042", nameOf(filed.ca), "keyCompromise"}},
                kAllThree),
      failureOf("on hold", held,
                {.rule = Rule::kOnHold,
                 .outcome = Outcome::kTemporary,
                 .code = X509_V_ERR_CERT_REVOKED,
                 .values = hold.values + ReportDetails{{"reason", "certificateHold"}},
                 .origin = hold.origin,
                 .inLine = {"#1042", nameOf(held.ca)}},
                kAllThree),
      failureOf("by URI", fetched,
                {.rule = Rule::kRevoked,
                 .outcome = Outcome::kPermanent,
                 .code = X509_V_ERR_CERT_REVOKED,
                 .values = served.values + compromised,
                 .origin = served.origin,
                 .inLine = {"#1042", nameOf(fetched.ca), "keyCompromise"}}),
      failureOf("by URI, from the cache", fetched,
                {.rule = Rule::kRevoked,
                 .outcome = Outcome::kPermanent,
                 .code = X509_V_ERR_CERT_REVOKED,
                 .values = served.values + compromised,
                 .origin = inCache(served).origin,
                 .inLine = {"#1042", nameOf(fetched.ca), "keyCompromise"}},
                kAllThree),
      intermediate,
  });
}

TEST_F(FailureReportRevocation, CRLsThatDoNotCount) {
  const auto old = [](const Issued& ca) -> CRLOptions {
    return {.issuer = &ca, .lastUpdate = -96h, .nextUpdate = -48h, .number = Serial("29")};
  };
  const Pair stale = pair("Stale");
  const Said expired = install(old(stale.ca));
  const Pair staleThere = pair("Stale There", pointingTo(url("/stale.crl")));
  const Said expiredThere = serve("/stale.crl", old(staleThere.ca));
  const Pair future = pair("Future");
  const Said early = install({.issuer = &future.ca, .lastUpdate = 48h, .nextUpdate = 96h});
  const Pair forged = pair("Forged");
  const Said broken = install({.issuer = &forged.ca, .number = Serial("29"), .badSignature = true});
  const Pair scoped = pair("Scoped");
  const Said elsewhere =
      install({.issuer = &scoped.ca, .number = Serial("29"), .idp = Scope{.onlyCA = true}});
  const Pair partial = pair("Partial");
  const Said some = install({.issuer = &partial.ca, .idp = Scope{.onlySomeReasons = 0x7f & ~0x20}});
  const Pair delta = pair("Delta");
  const Said alone =
      install({.issuer = &delta.ca, .number = Serial("29"), .deltaBase = Serial("28")});
  const Pair strange = pair("Strange");
  const Said critical =
      install({.issuer = &strange.ca, .rawExtensions = {{"1.2.3.4", true, "\x05\0"s}}});
  const Pair missing = pair("Missing");
  const ReportDetails two{{"crlNumber", "41"},
                          {"checkTime", Time::now()},
                          {"secondsFromCheckTime", -2 * kDayInSeconds}};
  expect({
      failureOf("expired in the directory", stale,
                {.rule = Rule::kCRLExpired,
                 .outcome = Outcome::kTemporary,
                 .code = X509_V_ERR_CRL_HAS_EXPIRED,
                 .values = expired.values + two,
                 .origin = expired.origin,
                 .inLine = {"#41", nameOf(stale.ca), "2 days"}}),
      failureOf("expired from a URI", staleThere,
                {.rule = Rule::kCRLExpired,
                 .outcome = Outcome::kTemporary,
                 .code = X509_V_ERR_CRL_HAS_EXPIRED,
                 .values = expiredThere.values + two,
                 .origin = expiredThere.origin,
                 .inLine = {"#41", nameOf(staleThere.ca), "2 days"}}),
      failureOf(
          "of the future", future,
          {.rule = Rule::kCRLNotYetValid,
           .outcome = Outcome::kTemporary,
           .code = X509_V_ERR_UNABLE_TO_GET_CRL,
           .values = early.values + ReportDetails{{"secondsFromCheckTime", 2 * kDayInSeconds}},
           .origin = early.origin,
           .inLine = {" day"}}),
      failureOf("wrong signature", forged,
                {.rule = Rule::kCRLSignature,
                 .outcome = Outcome::kTemporary,
                 .code = X509_V_ERR_CRL_SIGNATURE_FAILURE,
                 .values = broken.values +
                           ReportDetails{{"crlNumber", "41"}, {"signer", nameOf(forged.ca)}},
                 .origin = broken.origin,
                 .inLine = {"#41", nameOf(forged.ca)}},
                kAllThree),
      failureOf("out of scope", scoped,
                {.rule = Rule::kCRLScope,
                 .outcome = Outcome::kTemporary,
                 .code = X509_V_ERR_DIFFERENT_CRL_SCOPE,
                 .values = elsewhere.values + ReportDetails{{"crlNumber", "41"}},
                 .origin = elsewhere.origin,
                 .inLine = {"#41", nameOf(scoped.ca)}}),
      failureOf("reasons not covered", partial,
                {.rule = Rule::kCRLReasons,
                 .outcome = Outcome::kTemporary,
                 .code = X509_V_ERR_UNABLE_TO_GET_CRL,
                 .values = {{"missingReasons", "cACompromise aACompromise"}},
                 .origin = some.origin,
                 .inLine = {"cACompromise", nameOf(partial.ca)}}),
      failureOf(
          "delta without base", delta,
          {.rule = Rule::kCRLNoBase,
           .outcome = Outcome::kTemporary,
           .code = X509_V_ERR_UNABLE_TO_GET_CRL,
           .values = alone.values + ReportDetails{{"crlNumber", "41"}, {"baseCRLNumber", "40"}},
           .origin = alone.origin,
           .inLine = {"#41", "40", nameOf(delta.ca)}},
          kBoth),
      failureOf("critical extension", strange,
                {.rule = Rule::kCRLCriticalExtension,
                 .outcome = Outcome::kTemporary,
                 .code = X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION,
                 .values = critical.values,
                 .origin = critical.origin,
                 .inLine = {nameOf(strange.ca)}}),
      failureOf("missing", missing,
                {.rule = Rule::kCRLMissing,
                 .outcome = Outcome::kTemporary,
                 .code = X509_V_ERR_UNABLE_TO_GET_CRL,
                 .values = {{"crlIssuer", nameOf(missing.ca)}, {"directory", kCRLDirectory}},
                 .inLine = {nameOf(missing.ca), kCRLDirectory}},
                kAllThree),
  });
  // Without any source that could have had it.
  fs::remove_all(kCRLDirectory);
  Failure unsourced = failureOf("no source", missing,
                                {.rule = Rule::kRevocationUnsourced,
                                 .outcome = Outcome::kLocal,
                                 .code = X509_V_ERR_UNABLE_TO_GET_CRL,
                                 .depth = 1,
                                 .values = {{"crlIssuer", nameOf(root)}},
                                 .inLine = {nameOf(root), kCRLDirectory}});
  unsourced.told.about = missing.ca;
  expect({unsourced});
  fs::create_directory(kCRLDirectory);
}

TEST_F(FailureReportRevocation, CRLIssuers) {
  // A key of its own for lists, which is revoked.
  const Pair split = pair("Split");
  const Issued retired = issuer("Split");
  const Said byRetired = install({.issuer = &retired, .number = Serial("29")});
  const Said roots = install(
      {.issuer = &root, .number = Serial(7), .revoked = {{.serial = retired, .reason = 1}}});
  // One whose own list says that it is revoked.
  const Pair ring = pair("Ring");
  const Issued inside = issuer("Ring", {.issuer = &ring.ca});
  const Said byInside =
      install({.issuer = &inside, .number = Serial("29"), .revoked = {{.serial = inside}}});
  // Somebody else's lists, as the distribution point has it.
  const Issued lists = issuer("Lists");
  const Issued unknown = issueCA("O=Elsewhere,CN=Lists");
  const auto naming = [&](const std::string& path, const Issued& issuer) -> CertificateOptions {
    const std::string name =
        &issuer == &lists ? "dirName:O=Test,CN=Lists" : "dirName:O=Elsewhere,CN=Lists";
    return {.crlDistributionPoints = {{.fullNames = {"URI:" + url(path)}, .crlIssuers = {name}}}};
  };
  const auto indirect = [&](const Issued& issuer, const std::string& path) -> CRLOptions {
    return {.issuer = &issuer,
            .number = Serial("29"),
            .idp = Scope{.fullNames = {"URI:" + url(path)}, .indirect = true}};
  };
  const Pair orphaned = pair("Orphaned", naming("/orphaned.crl", unknown));
  const Said byUnknown = serve("/orphaned.crl", indirect(unknown, "/orphaned.crl"));
  const Pair unasked = pair("Unasked", pointingTo(url("/unasked.crl")));
  const Said byOther = serve("/unasked.crl", indirect(lists, "/unasked.crl"));
  const ReportDetails number{{"crlNumber", "41"}};

  Failure revoked = failureOf("revoked issuer", split,
                              {.rule = Rule::kCRLIssuerRevoked,
                               .outcome = Outcome::kTemporary,
                               .code = X509_V_ERR_UNABLE_TO_GET_CRL,
                               .values = byRetired.values + number +
                                         ReportDetails{{"signer", nameOf(retired)},
                                                       {"signerSerial", Serial(retired).hex()}},
                               .origin = byRetired.origin,
                               .inLine = {"#41", nameOf(retired)},
                               .below = {Rule::kRevoked}});
  revoked.untrusted.push_back(retired);
  Failure circle = failureOf(
      "circle", ring,
      {.rule = Rule::kCRLIssuerUndetermined,
       .outcome = Outcome::kTemporary,
       .code = X509_V_ERR_UNABLE_TO_GET_CRL,
       .values = byInside.values + number +
                 ReportDetails{{"signer", nameOf(inside)}, {"signerSerial", Serial(inside).hex()}},
       .origin = byInside.origin,
       .inLine = {"#41", nameOf(inside), "crl-circle"},
       .below = {Rule::kCRLCircle}});
  Failure itself{.name = "circle, the issuer itself", .leaf = inside, .untrusted = {ring.ca}};
  itself.told = {.rule = Rule::kCRLCircle,
                 .outcome = Outcome::kTemporary,
                 .code = X509_V_ERR_UNABLE_TO_GET_CRL,
                 .about = inside,
                 .values = byInside.values + number,
                 .origin = byInside.origin,
                 .inLine = {"#41", nameOf(inside)}};
  circle.untrusted.push_back(inside);
  Failure other = failureOf("indirect, of somebody whom the certificate does not name", unasked,
                            {.rule = Rule::kCRLScope,
                             .outcome = Outcome::kTemporary,
                             .code = X509_V_ERR_DIFFERENT_CRL_SCOPE,
                             .values = byOther.values + number,
                             .origin = byOther.origin,
                             .inLine = {"#41", nameOf(lists), "needed is one of "}});
  other.untrusted.push_back(lists);
  expect({revoked, circle, itself,
          failureOf("indirect, and nobody knows its issuer", orphaned,
                    {.rule = Rule::kCRLIssuerUnknown,
                     .outcome = Outcome::kTemporary,
                     .code = X509_V_ERR_UNABLE_TO_GET_CRL,
                     .values = byUnknown.values + number,
                     .origin = byUnknown.origin,
                     .inLine = {"#41", nameOf(unknown)}}),
          other});
}

TEST_F(FailureReportRevocation, OCSPAnswers) {
  const Issued stranger = issueCA("O=Elsewhere,CN=Responder", &root);
  std::list<Pair> pairs;  // whose CAs answers borrow
  std::vector<Failure> failures;
  const auto asked = [&](const std::string& name, OCSPAnswer answer, Told told,
                         const std::vector<Who>& also = {}) {
    const std::string path = "/" + std::to_string(pairs.size());
    pairs.push_back(pair("Asked " + std::to_string(pairs.size()),
                         {.extensions = {{"authorityInfoAccess", "OCSP;URI:" + url(path)}}}));
    const Issued& ca = pairs.back().ca;
    places.put(path, [answer, &ca](const std::string& request) {
      OCSPAnswer own = answer;
      if (own.signer == nullptr) own.signer = &ca;
      return Scripts::response(ocspAnswer(own, httpBody(request)));
    });
    told.values.push_back({"uri", url(path)});
    told.origin = {ReportOrigin::Kind::kNetwork, url(path)};
    failures.push_back(failureOf(name, pairs.back(), told, also));
    return &ca;
  };
  OCSPSingle revoked{.status = V_OCSP_CERTSTATUS_REVOKED, .reason = kKeyCompromise};
  const Issued* const ca = asked("revoked", {.singles = {revoked}},
                                 {.rule = Rule::kRevoked,
                                  .outcome = Outcome::kPermanent,
                                  .code = X509_V_ERR_CERT_REVOKED,
                                  .values = {{"revocationDate", valueOf(revoked.revoked)},
                                             {"reason", "keyCompromise"},
                                             {"thisUpdate", valueOf(revoked.thisUpdate)},
                                             {"nextUpdate", valueOf(*revoked.nextUpdate)}},
                                  .inLine = {"keyCompromise"}},
                                 kBoth);
  failures.back().told.values.push_back({"responder", nameOf(*ca)});
  OCSPSingle held = revoked;
  held.reason = kCertificateHold;
  asked("on hold", {.singles = {held}},
        {.rule = Rule::kOnHold,
         .outcome = Outcome::kTemporary,
         .code = X509_V_ERR_CERT_REVOKED,
         .values = {{"reason", "certificateHold"}}},
        kBoth);
  OCSPSingle old{.thisUpdate = -96h, .nextUpdate = -48h};
  const Issued* const late = asked("old", {.singles = {old}},
                                   {.rule = Rule::kOCSPExpired,
                                    .outcome = Outcome::kTemporary,
                                    .code = X509_V_ERR_UNABLE_TO_GET_CRL,
                                    .values = {{"thisUpdate", valueOf(old.thisUpdate)},
                                               {"nextUpdate", valueOf(*old.nextUpdate)},
                                               {"secondsFromCheckTime", -2 * kDayInSeconds}},
                                    .inLine = {"2 days"}});
  failures.back().told.values.push_back({"responder", nameOf(*late)});
  asked("by somebody else", {.signer = &stranger},
        {.rule = Rule::kOCSPResponderUnauthorised,
         .outcome = Outcome::kTemporary,
         .code = X509_V_ERR_UNABLE_TO_GET_CRL,
         .values = {{"responder", nameOf(stranger)},
                    {"signer", nameOf(stranger)},
                    {"signerSerial", Serial(stranger).hex()}},
         .inLine = {nameOf(stranger)}});
  asked("wrong signature", {.badSignature = true},
        {.rule = Rule::kOCSPSignature,
         .outcome = Outcome::kTemporary,
         .code = X509_V_ERR_UNABLE_TO_GET_CRL});
  asked("try later", {.status = OCSP_RESPONSE_STATUS_TRYLATER},
        {.rule = Rule::kOCSPNotSuccessful,
         .outcome = Outcome::kTemporary,
         .code = X509_V_ERR_UNABLE_TO_GET_CRL,
         .inLine = {"trylater"}},
        kBoth);
  asked("not known to it", {.singles = {{.status = V_OCSP_CERTSTATUS_UNKNOWN}}},
        {.rule = Rule::kOCSPUnknown,
         .outcome = Outcome::kTemporary,
         .code = X509_V_ERR_UNABLE_TO_GET_CRL});
  asked("of another question", {.nonce = OCSPNonce::Other},
        {.rule = Rule::kOCSPNonce,
         .outcome = Outcome::kTemporary,
         .code = X509_V_ERR_UNABLE_TO_GET_CRL},
        kBoth);
  asked("malformed", {},
        {.rule = Rule::kOCSPMalformed,
         .outcome = Outcome::kTemporary,
         .code = X509_V_ERR_UNABLE_TO_GET_CRL},
        kBoth);
  places.put("/" + std::to_string(pairs.size() - 1),
             Scripts::response("<html>Please log in</html>"));
  expect(failures);
}

}  // namespace
}  // namespace Velantrix::Test
