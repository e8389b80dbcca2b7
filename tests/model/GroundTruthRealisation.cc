#include "model/GroundTruthRealisation.h"

#include "foundation/run/VerificationRun.h"
#include "model/Chance.h"
#include "model/GroundTruthOpenSSL.h"
#include "model/GroundTruthSources.h"

#include <cctype>
#include <stdexcept>

namespace Velantrix::Test::Truth {

namespace {

namespace Revocation = Crypto::PKX509::Revocation;

const std::string kNull("\x05\0", 2);
// An identifier that nobody handles (of the documentation arc).
const RawExtension kUnknownCritical{"2.999.1", true, kNull};

/// The same name (RFC 5280, 7.1).
std::string inCapitals(std::string name) {
  for (char& c : name) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return name;
}

void must(int result) {
  if (result <= 0) throw std::runtime_error("GroundTruthRealisation");
}

/// The same list as version 1, whatever it holds: the one that does not say its version.
Owned<X509_CRL> asVersion1(X509_CRL* crl, EVP_PKEY* key) {
  const Owned<X509_CRL> other(X509_CRL_new());
  must(X509_CRL_set_issuer_name(other.get(), X509_CRL_get_issuer(crl)));
  must(X509_CRL_set1_lastUpdate(other.get(), X509_CRL_get0_lastUpdate(crl)));
  if (X509_CRL_get0_nextUpdate(crl) != nullptr) {
    must(X509_CRL_set1_nextUpdate(other.get(), X509_CRL_get0_nextUpdate(crl)));
  }
  const STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(crl);
  for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
    must(X509_CRL_add0_revoked(other.get(), X509_REVOKED_dup(sk_X509_REVOKED_value(entries, i))));
  }
  for (int i = 0; i < X509_CRL_get_ext_count(crl); ++i) {
    must(X509_CRL_add_ext(other.get(), X509_CRL_get_ext(crl, i), -1));
  }
  must(X509_CRL_sign(other.get(), key, EVP_sha256()));
  return crlFromDer(der(other.get()));
}

}  // namespace

const Issued& Realisation::issued(int index) {
  const auto known = issued_.find(index);
  if (known != issued_.end()) return known->second;
  const Certificate& described = at(world_.certificates, index);
  CertificateOptions options;
  options.subject = described.subject;
  if (described.parent != kNobody) options.issuer = &issued(described.parent);
  options.serial = described.serial;
  options.notBefore = when(described.from);
  options.notAfter = when(described.until);
  options.ca = described.ca;
  options.keyUsage = described.keyUsage;
  options.crlDistributionPoints = described.points;
  options.freshestCRL = described.freshest;
  std::string responders;
  for (const std::string& uri : described.responders) {
    responders += (responders.empty() ? "OCSP;URI:" : ",OCSP;URI:") + uri;
  }
  if (!responders.empty()) options.extensions.push_back({"authorityInfoAccess", responders});
  if (described.ocspSigning) options.extensions.push_back({"extendedKeyUsage", "OCSPSigning"});
  if (described.noCheck) options.rawExtensions.push_back({"1.3.6.1.5.5.7.48.1.5", false, kNull});
  if (described.noRevAvail) options.rawExtensions.push_back({"2.5.29.56", false, kNull});
  options.key = keyOf<kKeys>(described.key);
  if (described.forger != kNobody) options.signer = keyOf<kKeys>(described.forger);
  return issued_[index] = issue(options);
}

RefCertificate Realisation::certificate(int index) {
  RefCertificate& known = certificates_[index];
  if (!known) known = handle(issued(index));
  return known;
}

RefCertificateRevocationList Realisation::list(int index) {
  RefCertificateRevocationList& known = lists_[index];
  if (known) return known;
  const List& described = at(world_.lists, index);
  CRLOptions options;
  options.issuer = &issued(described.authority == kNobody ? kRoot : described.authority);
  if (described.authority == kNobody) options.authorityKeyId = KeyId::Absent;
  options.issuerName = described.otherSpelling ? inCapitals(described.issuer) : described.issuer;
  options.lastUpdate = when(described.thisUpdate);
  options.nextUpdate.reset();
  if (described.nextUpdate) options.nextUpdate = when(*described.nextUpdate);
  options.number.reset();
  if (described.number) options.number = Serial(*described.number);
  if (described.base) options.deltaBase = Serial(*described.base);
  const std::string* issuer = &described.issuer;
  for (const Entry& entry : described.entries) {
    Revoked revoked{.serial = entry.serial, .date = when(entry.date), .reason = entry.reason};
    // An entry's issuer is that of the entry before it, unless it says otherwise (5.3.3).
    if (entry.issuer != *issuer) revoked.certificateIssuer = entry.issuer;
    issuer = &entry.issuer;
    if (entry.unknownCritical) revoked.extensions.push_back(kUnknownCritical);
    options.revoked.push_back(revoked);
  }
  options.idp = described.scope;
  options.freshestCRL = described.freshest;
  if (described.unknownCritical) options.rawExtensions.push_back(kUnknownCritical);
  options.signer = keyOf<kKeys>(described.key);
  options.badSignature = described.badSignature;
  Owned<X509_CRL> made = makeCRL(options);
  if (described.version1) made = asVersion1(made.get(), options.signer.get());
  return known = handle(std::move(made));
}

std::string Realisation::answer(const Answer& description, const std::string& request) {
  OCSPAnswer options;
  if (description.fails) {
    options.status = OCSP_RESPONSE_STATUS_TRYLATER;
    return ocspAnswer(options, request);
  }
  options.signer = &issued(description.signer);
  if (description.key != kNobody) options.key = keyOf<kKeys>(description.key);
  options.singles.clear();
  for (const Single& single : description.singles) {
    OCSPSingle one{.status = single.status};
    one.revoked = when(single.thisUpdate - kHour);
    one.thisUpdate = when(single.thisUpdate);
    one.nextUpdate.reset();
    if (single.nextUpdate) one.nextUpdate = when(*single.nextUpdate);
    one.certificate = &issued(single.certificate);
    one.issuer = &issued(single.issuer);
    if (single.sha256) one.digest = EVP_sha256();
    options.singles.push_back(one);
  }
  options.nonce = description.nonce;
  options.byKey = description.byKey;
  options.certificates = description.carries;
  options.badSignature = description.badSignature;
  if (description.unknownCritical) options.extensions.push_back(kUnknownCritical);
  options.producedAt = when(description.producedAt);
  return ocspAnswer(options, request);
}

bool Realisation::signedBy(X509* issuer, X509* certificate) {
  const auto [known, isNew] = signatures_.try_emplace({issuer, certificate}, false);
  if (isNew) known->second = X509_verify(certificate, X509_get0_pubkey(issuer)) == 1;
  return known->second;
}

void Realisation::forget() {
  issued_.erase(issued_.lower_bound(static_cast<int>(world_.born)), issued_.end());
  certificates_.erase(certificates_.lower_bound(static_cast<int>(world_.born)),
                      certificates_.end());
  lists_.erase(lists_.lower_bound(static_cast<int>(world_.made)), lists_.end());
  signatures_.clear();
}

std::vector<Revocation::Outcome> Realisation::decide(const Offer& offer) {
  // As a verification has it, with the bounds that go with it.
  const Crypto::PKX509::VerificationRun run(certificate(world_.path.front()));
  Sources sources(*this, offer);
  Paths paths(*this, offer);
  Crypto::PKX509::RevocationSettings settings;
  if (offer.operatorsResponder) {
    settings.ocspResponders.push_back(certificate(*offer.operatorsResponder));
  }
  const Revocation::Moment moment{.checked = Time::then(timeOf(offer.checked), true),
                                  .now = Time::then(timeOf(0), true)};
  const Revocation::RevocationCheck::Scope scope{
      .wholePath = offer.wholePath, .useDeltas = offer.useDeltas, .useOCSP = offer.useOCSP};
  std::vector<RefCertificate> path;
  for (const int index : world_.path) path.push_back(certificate(index));
  Revocation::RevocationCheck check(sources, paths, settings, moment, scope);
  std::vector<Revocation::Outcome> outcomes = check.decide(path);
  fellShort_ = run.fellShort();
  return outcomes;
}

}  // namespace Velantrix::Test::Truth
