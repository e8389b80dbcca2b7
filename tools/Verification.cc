#include "Verification.h"

#include "Responders.h"

#include <pkx509/ConformingVerifier.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/Verifier.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>
#include <velantrix/StackOfCertificate.h>

#include <openssl/x509_vfy.h>

#include <iterator>
#include <memory>

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

namespace {

// The untrusted certificates are known to this store only: a Verifier's search for a CRL's issuer
// looks there, and must not meet the certificates that came with somebody else's. A
// ConformingVerifier takes them from the stack that it is given.
RefObjectStore makeStore(const VerificationSettings& settings,
                         const std::list<RefCertificate>& untrusted) {
  RefObjectStore store(settings.caDirectory, X509_FILETYPE_PEM);
  for (const std::string& directory : settings.crlDirectories) {
    store->add(RefLookupMethod(new HashDirLookupMethod(directory)));
  }
  if (settings.ldap) {
    auto* const directory = new LDAPLookupMethod(*settings.ldap);
    const RefLookupMethod method(directory);  // owns it
    directory->store(store);
    store->add(method);
  }
  if (settings.classic) store->add(untrusted);
  return store;
}

Verifier::Config configOf(const VerificationSettings& settings) {
  Verifier::Config config;
  if (!settings.policies.empty()) config.policies = settings.policies;
  const int defaults =
      settings.classic ? Verifier::Config::kDefaultFlags : ConformingVerifier::kDefaultFlags;
  config.flags =
      (defaults | static_cast<int>(settings.setFlags)) & ~static_cast<int>(settings.clearedFlags);
  return config;
}

std::unique_ptr<Verifier> makeVerifier(const VerificationSettings& settings,
                                       const RefCertificate& certificate,
                                       const std::list<RefCertificate>& untrusted) {
  const RefObjectStore store = makeStore(settings, untrusted);
  const RefStackOfCertificate stack(untrusted);
  Verifier::Config config = configOf(settings);
  if (settings.classic) {
    return std::make_unique<Verifier>(store, certificate, stack, config,
                                      settings.openSSLRevocation);
  }
  auto verifier =
      std::make_unique<ConformingVerifier>(store, certificate, stack, config, settings.revocation);
  verifier->addressPolicy(settings.addresses);
  return verifier;
}

void applyParameters(const VerificationSettings& settings, Verifier& verifier) {
  verifier.deadline(settings.deadline);
  X509_VERIFY_PARAM* const param = X509_STORE_CTX_get0_param(verifier);  // borrowed
  if (settings.at) X509_VERIFY_PARAM_set_time(param, *settings.at);
  if (X509_VERIFY_PARAM_clear_flags(param, settings.clearedFlags) != 1) {
    throw Exception("X509_VERIFY_PARAM_clear_flags", Exception::kFailure, "Verification", __LINE__);
  }
}

std::vector<Report::Link> chainOf(X509_STORE_CTX* context) {
  std::vector<Report::Link> links;
  const STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context);  // borrowed, may be null
  for (int i = 0; i < sk_X509_num(chain); ++i) {
    const RefCertificate certificate = CertificateFactory()(sk_X509_value(chain, i), false);
    links.push_back({certificate->subject().asString(), certificate->issuer().asString(),
                     certificate->serialNumber().asString()});
  }
  return links;
}

// With CRL_CHECK alone a Verifier's check is about the one certificate, and its OCSP client is not
// told of the issuer, without which nobody can be asked.
bool leavesResponderOut(const VerificationSettings& settings, const Verifier& verifier,
                        const RefCertificate& certificate) {
  const unsigned long flags = X509_VERIFY_PARAM_get_flags(X509_STORE_CTX_get0_param(verifier));
  constexpr unsigned long kBoth = X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;
  if (!settings.classic || settings.openSSLRevocation) return false;
  if ((flags & kBoth) != X509_V_FLAG_CRL_CHECK) return false;
  try {
    return !respondersNamedBy(certificate).empty();
  } catch (const Exception&) {
    return false;  // the verdict was reached without that extension
  }
}

}  // namespace

Report verify(const VerificationSettings& settings, const std::list<RefCertificate>& certificates) {
  std::list<RefCertificate> untrusted(std::next(certificates.begin()), certificates.end());
  untrusted.insert(untrusted.end(), settings.untrusted.begin(), settings.untrusted.end());

  const std::unique_ptr<Verifier> owner = makeVerifier(settings, certificates.front(), untrusted);
  Verifier& verifier = *owner;
  applyParameters(settings, verifier);

  Report report;
  report.verifier = settings.classic ? Report::kClassic : Report::kConforming;
  report.code = verifier.isValid();
  report.found = verifier.report();
  report.text = X509_verify_cert_error_string(report.code);
  if (!report.valid()) report.depth = X509_STORE_CTX_get_error_depth(verifier);
  report.chain = chainOf(verifier);
  if (leavesResponderOut(settings, verifier, certificates.front())) {
    report.notes.emplace_back(
        "its OCSP responder is asked only with the flag CRL_CHECK_ALL; CRLs decide");
  }
  for (const Verifier::FetchNote& note : verifier.fetchNotes()) {
    report.retrieval.push_back({note.what, note.uri, note.reason});
  }
  return report;
}

}  // namespace Velantrix::Tool
