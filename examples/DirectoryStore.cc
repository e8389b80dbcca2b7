// usage: directory-store CERTIFICATE-FILE LDAP-URI CA-DIRECTORY CRL-DIRECTORY
//
// Verifies a certificate against a store that draws on three sources: trusted certificates in a
// hash directory, an LDAP directory, and CRLs in another hash directory. The exit status is 0 when
// the certificate is valid, 1 otherwise.
#include <pkx509/HashDirLookup.h>
#include <pkx509/LDAPLookup.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/Verifier.h>
#include <velantrix/CertificateFactory.h>

#include <openssl/x509_vfy.h>

#include <exception>
#include <iostream>
#include <list>
#include <string>

using namespace Velantrix::Crypto::PKX509;
using Velantrix::LDAPConnection;

namespace {

// A store for one verification. Whoever can write to the LDAP directory is trusted as if he could
// write to the directory of trusted certificates: a root that OpenSSL finds there is a trust
// anchor.
RefObjectStore makeStore(const std::string& ldapURI, const std::string& caDirectory,
                         const std::string& crlDirectory) {
  RefObjectStore store(caDirectory, X509_FILETYPE_PEM);
  store->add(RefLookupMethod(new HashDirLookupMethod(crlDirectory)));
  auto* const directory = new LDAPLookupMethod({LDAPConnection::RefServer(ldapURI), "", ""});
  const RefLookupMethod method(directory);  // owns it
  directory->store(store);                  // what OpenSSL is given stays in this store
  store->add(method);
  return store;
}

int verdict(const std::string& file, const RefObjectStore& store) {
  std::list<RefCertificate> certificates;
  CertificateFactory::read(Velantrix::File::Path(file), certificates);
  if (certificates.empty()) return X509_V_ERR_UNSPECIFIED;
  Verifier verifier(store, certificates.front(), false);
  verifier.maxNetworkTime(20);  // seconds, for LDAP, OCSP and CRLs by URI together
  return verifier.isValid();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::cerr << "usage: directory-store CERTIFICATE-FILE LDAP-URI CA-DIRECTORY CRL-DIRECTORY\n";
    return 1;
  }
  // A server that does not answer is an exception, like a file that cannot be read: there is no
  // verdict, and that means not valid.
  try {
    const int code = verdict(argv[1], makeStore(argv[2], argv[3], argv[4]));
    std::cout << argv[1] << ": " << X509_verify_cert_error_string(code) << '\n';
    return code == X509_V_OK ? 0 : 1;
  } catch (const std::exception& error) {
    std::cerr << argv[1] << ": " << error.what() << '\n';
    return 1;
  }
}
