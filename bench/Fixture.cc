#include "Fixture.h"

#include "support/Handles.h"

#include <pkx509/ConformingVerifier.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/Verifier.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

namespace Velantrix::Bench {

using namespace Crypto::PKX509;
using Crypto::Owned;

FoundCRLs::FoundCRLs() : LookupMethod("FoundCRLs") {}

void FoundCRLs::getBySubject(const DistinguishedName& issuer,
                             std::list<RefCertificateRevocationList>& out) {
  for (const RefCertificateRevocationList& crl : crls) {
    if (crl->crlInfo().issuer() == issuer) out.push_back(crl);
  }
}

Chain::Chain(Test::KeyKind kind, std::size_t crlEntries)
    : root(Test::issue({.subject = "CN=Root,O=Bench", .ca = true, .keyKind = kind})),
      intermediate(Test::issue(
          {.subject = "CN=Intermediate,O=Bench", .issuer = &root, .ca = true, .keyKind = kind})),
      leaf(Test::issue(
          {.subject = "CN=Leaf,O=Bench", .issuer = &intermediate, .serial = 7, .keyKind = kind})),
      rootCRL(Test::makeCRL({.issuer = &root})),
      untrusted_(sk_X509_new_null()) {
  Test::CRLOptions options{.issuer = &intermediate};
  options.revoked.reserve(crlEntries);
  for (std::size_t i = 0; i < crlEntries; ++i) {
    // Entries of 38 octets, as in the long lists that there are: five of the serial number, and a reason.
    char serial[16];
    static_cast<void>(std::snprintf(serial, sizeof serial, "%010zX", 0x1000000000 + i * 7919));
    options.revoked.push_back({.serial = serial, .reason = CRL_REASON_SUPERSEDED});
  }
  intermediateCRL = Test::makeCRL(options);
  leafDer = Test::der(leaf.get());
  sk_X509_push(untrusted_.get(), intermediate.reference().release());
  Test::addToDirectory(directory.path(), root.get());
  Test::addToDirectory(directory.path(), rootCRL.get());
  Test::addToDirectory(directory.path(), intermediateCRL.get());
}

LibraryChain::LibraryChain(const Chain& chain)
    : store(chain.directory.path().string(), X509_FILETYPE_PEM), leaf(Test::handle(chain.leaf)) {
  store->add(RefLookupMethod(new FoundCRLs));
  renewCRLs(chain);
  intermediates = {Test::handle(chain.intermediate)};
  store->add(intermediates);
  untrusted = RefStackOfCertificate(intermediates);
}

void LibraryChain::renewCRLs(const Chain& chain) const {
  auto& found = static_cast<FoundCRLs&>(*store->methods().front());
  found.crls = {CertificateRevocationListFactory()(chain.rootCRL.get(), false),
                CertificateRevocationListFactory()(chain.intermediateCRL.get(), false)};
}

void settle(const Chain& chain) {
  namespace fs = std::filesystem;
  for (const auto& file : fs::directory_iterator(chain.directory.path())) {
    while (fs::file_time_type::clock::now() - file.last_write_time() < std::chrono::seconds(2)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  }
}

bool freshVerify(const Chain& chain, const LibraryChain& objects, const RefCertificate& leaf,
                 Verify verify) {
  const std::string directory = chain.directory.path().string();
  RefObjectStore store(directory, X509_FILETYPE_PEM);
  store->add(RefLookupMethod(new HashDirLookupMethod(directory)));
  store->add(objects.intermediates);
  return verify(store, leaf, objects.untrusted);
}

Owned<X509_STORE> openSSLStore(const Chain& chain) {
  Owned<X509_STORE> store(X509_STORE_new());
  X509_STORE_add_cert(store.get(), chain.root.get());
  X509_STORE_add_crl(store.get(), chain.rootCRL.get());
  X509_STORE_add_crl(store.get(), chain.intermediateCRL.get());
  X509_STORE_set_flags(store.get(), Verifier::Config::kDefaultFlags);
  return store;
}

bool openSSLVerify(X509_STORE* store, X509* leaf, STACK_OF(X509) * untrusted) {
  const Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
  X509_STORE_CTX_init(context.get(), store, leaf, untrusted);
  X509_VERIFY_PARAM_add0_policy(X509_STORE_CTX_get0_param(context.get()),
                                OBJ_txt2obj("2.5.29.32.0", 1));
  return X509_verify_cert(context.get()) == 1;
}

bool libraryVerify(const RefObjectStore& store, const RefCertificate& leaf,
                   const RefStackOfCertificate& untrusted) {
  Verifier verifier(store, leaf, untrusted, false);
  return verifier.isValid() == X509_V_OK;
}

bool conformingVerify(const RefObjectStore& store, const RefCertificate& leaf,
                      const RefStackOfCertificate& untrusted) {
  return ConformingVerifier(store, leaf, untrusted).isValid() == X509_V_OK;
}

bool libraryReport(const RefObjectStore& store, const RefCertificate& leaf,
                   const RefStackOfCertificate& untrusted) {
  Verifier verifier(store, leaf, untrusted, false);
  return verifier.isValid() == X509_V_OK && verifier.report().valid();
}

bool conformingReport(const RefObjectStore& store, const RefCertificate& leaf,
                      const RefStackOfCertificate& untrusted) {
  ConformingVerifier verifier(store, leaf, untrusted);
  return verifier.isValid() == X509_V_OK && verifier.report().valid();
}

}  // namespace Velantrix::Bench
