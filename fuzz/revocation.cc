// What a stranger can say about revocation: the octets are an OCSP answer, and a CRL, wherever one is
// looked for.
//
// What has to hold: what is not signed by a key of the fixture, or is not of its time, decides nothing;
// what is read is the same when it is read again; a scope that a list has by fewer points it has by
// more; and what is written down of it is not much longer than it is.
#include "Fixture.h"
#include "Fuzz.h"
#include "revocation/CRLScope.h"
#include "unit/revocation/Surroundings.h"

#include <openssl/asn1t.h>
#include <openssl/ocsp.h>

namespace Velantrix::Fuzz::RevocationTarget {
namespace {

using namespace Crypto::PKX509;
using namespace Crypto::PKX509::Revocation;
using Crypto::ErrorScope;
using Crypto::Owned;
using Through = CRLScope::Through;

constexpr char kPlace[] = "http://crl.example/";
constexpr char kResponder[] = "http://ocsp.example/";

Time at(const char* text) { return Time::then(Test::When(text).time(), true); }

// The leaf, as OCSP answers and CRLs name it, that says where these are.
Issued subject(const std::vector<Test::DistributionPoint>& points) {
  Test::CertificateOptions options = certificateOptions("CN=Leaf", 7, 2);
  options.extensions = {{"authorityInfoAccess", std::string("OCSP;URI:") + kResponder}};
  options.crlDistributionPoints = points;
  options.freshestCRL = {{.fullNames = {std::string("URI:") + kPlace + "delta"}}};
  return Test::issue(options);
}

struct World {
  const Moment moment{at("20260601000000Z"), at("20260601000000Z")};
  const Moment later{at("21260601000000Z"), at("21260601000000Z")};
  const RevocationSettings settings = {};
  const Issued plain = subject({});
  const Issued pointed =
      subject({{.fullNames = {std::string("URI:") + kPlace, "dirName:CN=Root,CN=List"}},
               {.relativeName = "CN=CRL 2+O=x"},
               {.reasons = 0x2a, .crlIssuers = {"dirName:CN=Other"}}});
  const RefCertificate issuer = Test::handle(root());
  const OCSPQuestion question{Test::handle(plain), issuer};
};

const World& world() {
  static const auto* const made = new World;
  return *made;
}

bool isSignedBy(const OCSP_BASICRESP* answer, EVP_PKEY* key) {
  const ErrorScope errors;
  return ASN1_item_verify(ASN1_ITEM_rptr(OCSP_RESPDATA), OCSP_resp_get0_tbs_sigalg(answer),
                          OCSP_resp_get0_signature(answer),
                          const_cast<OCSP_RESPDATA*>(OCSP_resp_get0_respdata(answer)), key) == 1;
}

// By OpenSSL alone: by the root, or by somebody whom it has certified.
bool isGenuine(const std::string& body, const RefCertificate& delegate) {
  const ErrorScope errors;
  const auto* position = reinterpret_cast<const unsigned char*>(body.data());
  const Owned<OCSP_RESPONSE> response(
      d2i_OCSP_RESPONSE(nullptr, &position, static_cast<long>(body.size())));
  if (response == nullptr) return false;
  const Owned<OCSP_BASICRESP> basic(OCSP_response_get1_basic(response.get()));
  if (basic == nullptr) return false;
  EVP_PKEY* const key = root().key.get();
  if (delegate.empty()) return isSignedBy(basic.get(), key);
  return X509_verify(delegate, key) == 1 && isSignedBy(basic.get(), X509_get0_pubkey(delegate));
}

void checkSize(const Statement& statement, const std::string& detail, std::size_t size) {
  const std::size_t most = 4096 + 16 * size;
  PKX509_ASSERT(statement.issuer.size() <= most);
  PKX509_ASSERT(statement.number.size() <= most);
  PKX509_ASSERT(detail.size() <= most);
}

OCSPReading read(const std::string& body, const Moment& moment) {
  OCSPReading reading;
  PKX509_ASSERT(accepted([&] {
    reading = world().question.read({.object = body, .from = {}, .fetched = {}}, world().settings,
                                    moment);
  }));
  checkSize(reading.statement, reading.detail, body.size());
  return reading;
}

void judgeAnswer(const std::string& body) {
  const OCSPReading reading = read(body, world().moment);
  const OCSPReading again = read(body, world().moment);
  PKX509_ASSERT(again.refused == reading.refused && again.detail == reading.detail);
  PKX509_ASSERT(again.status == reading.status);
  PKX509_ASSERT(read(body, world().later).refused);
  if (reading.refused) return;
  PKX509_ASSERT(isGenuine(body, reading.delegate));
  const bool revoked = reading.status == OCSPReading::Status::kRevoked;
  PKX509_ASSERT(revoked == reading.revoked.date.has_value());
  PKX509_ASSERT(revoked || !reading.revoked.reason);
}

void checkScope(const RefCertificateRevocationList& crl, const Issued& certificate) {
  const CRLScope scope(Test::handle(certificate));
  const auto through = [&](Through points) {
    const CRLScope::Verdict verdict = scope.of(*crl.get(), points);
    PKX509_ASSERT(verdict.refused.has_value() == (verdict.interim_reasons_mask == 0));
    PKX509_ASSERT((verdict.interim_reasons_mask & ~kAllReasons) == 0);
    return verdict.interim_reasons_mask;
  };
  const unsigned int named = through(Through::kNamed);
  const unsigned int either = through(Through::kNamedElseAssumed);
  const unsigned int both = through(Through::kNamedAndAssumed);
  PKX509_ASSERT((both & either) == either && (both & named) == named);
  PKX509_ASSERT(either == (named != 0 ? named : both));
  const DistinguishedName& issuer = crl->crlInfo().issuer();
  if (issuer != world().issuer->subject() && issuer != DistinguishedName("CN=Other")) {
    PKX509_ASSERT(both == 0);
  }
}

void judgeList(const RefCertificateRevocationList& crl) {
  const char* rule = nullptr;
  PKX509_ASSERT(accepted([&] { rule = crl->brokenRule(); }));
  PKX509_ASSERT(accepted([&] { PKX509_ASSERT(crl->brokenRule() == rule); }));
  for (const Issued& certificate : {world().plain, world().pointed, leaf(), root()}) {
    PKX509_ASSERT(accepted([&] { checkScope(crl, certificate); }));
  }
}

// All of it is offered for everything that is looked for; the list may be missing.
void decide(const std::string& body, const RefCertificateRevocationList& crl,
            const Issued& certificate) {
  Test::Surroundings around(root());
  around.moment = world().moment;
  around.sources.responders[kResponder] = [&](const std::string&) { return body; };
  if (!crl.empty()) {
    around.sources.byIssuer.push_back(crl);
    for (const std::string place : {kPlace, "http://crl.example/delta"}) {
      around.sources.byURI.emplace(place, crl);
    }
  }
  const VerificationRun run(nullptr);
  Revocation::Outcome outcome;
  PKX509_ASSERT(ran([&] { outcome = around.decide({certificate, root()}).at(0); }));
  ERR_clear_error();
  PKX509_ASSERT(outcome.setAside.size() <= Revocation::Outcome::kMaximumSetAside);
  for (const auto& one : outcome.setAside) checkSize(one.statement, one.detail, body.size());
  PKX509_ASSERT((outcome.status == Status::kUndetermined) == outcome.decidedBy.empty());
  PKX509_ASSERT((outcome.status == Status::kRevoked) == (outcome.code == X509_V_ERR_CERT_REVOKED));
  PKX509_ASSERT((outcome.status == Status::kGood) == (outcome.code == X509_V_OK));
  if (outcome.decidedBy.empty()) return;
  if (outcome.decidedBy.front().kind == Statement::Kind::kOCSP) {
    const OCSPReading reading = read(body, world().moment);
    PKX509_ASSERT(!reading.refused && isGenuine(body, reading.delegate));
  } else {
    PKX509_ASSERT(crl->isSignedBy(root().key.get()) && crl->brokenRule() == nullptr);
    PKX509_ASSERT(!crl->hasUnhandledCriticalExtension());
  }
}

}  // namespace

PKX509_FUZZ_TARGET(revocation) {
  begin();
  const std::string body = text(data, size);
  judgeAnswer(body);
  RefCertificateRevocationList crl;
  accepted([&] { crl = CertificateRevocationListFactory::read(buffer(data, size)); });
  if (!crl.empty()) judgeList(crl);
  decide(body, crl, world().plain);
  decide(body, crl, world().pointed);
  return 0;
}

}  // namespace Velantrix::Fuzz::RevocationTarget
