// Verifications against the responder of the openssl command.
#include "integration/OCSPFixture.h"
#include "support/OCSPResponder.h"

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;

class OCSPResponders : public OCSPIntegration {};

TEST_F(OCSPResponders, Index_DecidesGoodRevokedAndUnknown) {
  OCSPResponder responder({.ca = &root});
  const Issued good = person({responder.url()});
  const Issued unknown = person({responder.url("/ocsp")});
  std::vector<OCSPEntry> index = {{.serial = good}};
  std::vector<Issued> revoked;
  for (const int reason : {kAbsent, 0, 1, 2, 3, 4, 5, 6, 8}) {
    revoked.push_back(person({responder.url()}));
    index.push_back({.serial = revoked.back(), .revoked = true, .reason = reason});
  }
  responder.setIndex(index);

  EXPECT_EQ(verdict(good), 0) << log.text();
  EXPECT_EQ(log.text(), "");
  for (const Issued& one : revoked) {
    log.clear();
    EXPECT_EQ(verdict(one), kRevoked);
    EXPECT_EQ(log.text(), kMisplaced + verdictLine(one, kRevoked));
  }
  log.clear();
  EXPECT_EQ(verdict(unknown), kNoCRL);
  EXPECT_EQ(log.text(), verdictLine(unknown, kNoCRL));
  world.publish({.issuer = &root});
  EXPECT_EQ(verdict(unknown), 0);

  // The header goes out with a slash of its own before the path.
  ASSERT_TRUE(responder.waitForRequests(revoked.size() + 3));
  const std::vector<std::string> requests = responder.requests();
  EXPECT_EQ(requests.front(), "POST // HTTP/1.0");
  EXPECT_EQ(requests.back(), "POST //ocsp HTTP/1.0");
}

TEST_F(OCSPResponders, Certificate_ChangesItsStateBetweenVerifications) {
  OCSPResponder responder({.ca = &root});
  const Issued leaf = person({responder.url()});
  world.publish({.issuer = &root});
  responder.setIndex({{.serial = leaf}});
  EXPECT_EQ(verdict(leaf), 0);
  responder.setIndex({{.serial = leaf, .revoked = true, .reason = CRL_REASON_KEY_COMPROMISE}});
  EXPECT_EQ(verdict(leaf), kRevoked);
  responder.stop();
  log.clear();
  EXPECT_EQ(verdict(leaf), 0);  // the CRL knows nothing of it
  EXPECT_EQ(log.text(), unreachableLine(responder.url()));
}

struct SignerRow {
  const char* name;
  const Issued* signer;
  int answer;  ///< of the client
  bool byKey = false;
  bool certificates = true;
  bool badSignature = false;
};

TEST_F(OCSPResponders, Signer_DecidesWhetherTheAnswerCounts) {
  const auto responder = [&](const CertificateOptions& changed) {
    CertificateOptions options = changed;
    options.subject = "O=Test,CN=Responder";
    if (options.issuer == nullptr) options.issuer = &root;
    return issue(options);
  };
  const Issued authorised = responder({.extensions = {{"extendedKeyUsage", "OCSPSigning"}}});
  const Issued plain = responder({});
  const Issued expired = responder({.notBefore = -48h, .notAfter = -24h});
  const Issued strangerCA = issueCA("O=Test,CN=Stranger");
  const Issued strangers = responder({.issuer = &strangerCA});
  const Issued nameless = responder({.subjectKeyId = KeyId::Absent});
  const SignerRow rows[] = {
      {"issuer by name", nullptr, 0},
      {"issuer by key", nullptr, 0, true},
      {"issuer, not sent", nullptr, 0, false, false},
      {"issuer by key, not sent", nullptr, 0, true, false},
      {"issuer with another signature", nullptr, 117, false, true, true},
      {"delegated", &authorised, 0},
      {"delegated by key", &authorised, 0, true},
      {"delegated with another signature", &authorised, 117, false, true, true},
      // Meant so: any certificate that validates may answer.
      {"without id-kp-OCSPSigning", &plain, 0},
      {"expired", &expired, 101},
      {"a stranger's", &strangers, 101},
      {"a stranger", &strangerCA, 101, true},
      {"not sent", &authorised, 118, false, false},
      {"by key, not sent", &authorised, 118, true, false},
      {"by key without the extension", &nameless, 118, true},
  };
  for (const SignerRow& row : rows) {
    SCOPED_TRACE(row.name);
    world.source->crls.clear();
    OCSPResponder server({.ca = &root,
                          .signer = row.signer,
                          .index = {},
                          .nextUpdate = 5min,
                          .byKey = row.byKey,
                          .certificates = row.certificates,
                          .badSignature = row.badSignature});
    const Issued leaf = person({server.url()});
    server.setIndex({{.serial = leaf}});
    {
      Asking asking(world, {leaf, root});
      EXPECT_EQ(asking.ask(server.url()), row.answer) << log.text();
    }
    log.clear();
    EXPECT_EQ(verdict(leaf), row.answer == 0 ? 0 : kNoCRL);
    const std::string unhandled =
        "Verifier::checkRevocationStatus: Unhandled return value from checkOCSP: " +
        std::to_string(row.answer);
    EXPECT_EQ(log.count(unhandled), row.answer == 0 ? 0U : 1U) << log.text();
    if (row.answer == 0) {
      EXPECT_EQ(log.text(), "");
    } else {
      world.publish({.issuer = &root});
      EXPECT_EQ(verdict(leaf), 0) << "the CRLs decide";
      world.source->crls.clear();
      world.publish({.issuer = &root, .revoked = {{.serial = leaf}}});
      EXPECT_EQ(verdict(leaf), kRevoked) << "the CRLs decide";
    }
  }
}

TEST_F(OCSPResponders, TwoLevels_EachIsAskedOfItsOwnIssuersResponder) {
  OCSPResponder ofRoot({.ca = &root});
  const Issued inter =
      naming({ofRoot.url()}, {.subject = "O=Test,CN=Inter", .issuer = &root, .ca = true});
  const Issued signer = issue({.subject = "O=Test,CN=Signer", .issuer = &inter});
  OCSPResponder ofInter({.ca = &inter, .signer = &signer});
  const Issued leaf = naming({ofInter.url()}, {.subject = "O=Test,CN=Leaf", .issuer = &inter});
  ofRoot.setIndex({{.serial = inter}});
  ofInter.setIndex({{.serial = leaf}});
  // The intermediate comes along with the certificate and is nowhere else.
  const auto check = [&](int& depth) {
    Verifier verifier(world.store, handle(leaf), stackOf({inter}), false);
    const int result = verifier.isValid();
    depth = X509_STORE_CTX_get_error_depth(verifier);
    return result;
  };
  int depth = -1;
  EXPECT_EQ(check(depth), 0) << log.text();
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(world.source->crlQueries, 0);

  ofRoot.setIndex({{.serial = inter, .revoked = true}});
  EXPECT_EQ(check(depth), kRevoked);
  EXPECT_EQ(depth, 1);
  EXPECT_EQ(log.text(), kMisplaced + verdictLine(inter, kRevoked));

  ofInter.setIndex({{.serial = leaf, .revoked = true}});
  log.clear();
  EXPECT_EQ(check(depth), kRevoked);
  EXPECT_EQ(depth, 0);
  EXPECT_EQ(log.text(), kMisplaced + verdictLine(leaf, kRevoked));
}

}  // namespace
}  // namespace Velantrix::Test
