// usage: own-lookup-method CERTIFICATE-FILE TRUSTED-FILE|CRL-FILE...
//
// A lookup method of one's own: it keeps certificates and CRLs in memory, where a real one would
// ask a data base, and a verification draws on it as on any other source. The exit status is 0 when
// the certificate is valid, 1 otherwise.
#include <pkx509/LookupMethod.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/Verifier.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/CertificateRevocationList.h>

#include <openssl/x509_vfy.h>

#include <exception>
#include <iostream>
#include <list>
#include <new>
#include <string>

using namespace Velantrix::Crypto::PKX509;
using Velantrix::File::Path;

namespace {

std::list<RefCertificate> certificatesIn(const std::string& file) {
  std::list<RefCertificate> certificates;
  CertificateFactory::read(Path(file), certificates);
  return certificates;
}

class InMemory : public LookupMethod {
 public:
  InMemory() : LookupMethod("InMemory") {}

  // Takes the certificates of a file, or else its CRL.
  void load(const std::string& file) {
    std::list<RefCertificate> certificates = certificatesIn(file);
    certificates_.splice(certificates_.end(), certificates);
    const RefCertificateRevocationList crl = CertificateRevocationListFactory::read(Path(file));
    if (crl) crls_.push_back(crl);
  }

  // The other forms of getBySubject are hidden by those below otherwise.
  using LookupMethod::getBySubject;

  // OpenSSL asks here while it builds a path. What it gets is trusted: a self-signed certificate is
  // a trust anchor. It takes one answer and finds others with that name, of which a CA that has
  // changed its key has two, in its store; so all of them are added there.
  RefObject getBySubject(Object::Type type, const DistinguishedName& subject) override {
    RefObject first;
    if (type != Object::TypeCertificate) return first;
    for (const RefCertificate& certificate : certificates_) {
      if (certificate->subject() != subject) continue;
      if (X509_STORE_add_cert(askingStore(), certificate) != 1) throw std::bad_alloc();
      if (!first) first = RefObject(certificate);
    }
    return first;
  }

  // The store asks here for the issuers of CRLs,
  void getBySubject(const DistinguishedName& subject, std::list<RefCertificate>& out) override {
    for (const RefCertificate& certificate : certificates_) {
      if (certificate->subject() == subject) out.push_back(certificate);
    }
  }

  // and here for CRLs. All that there are, delta CRLs included: the verifier chooses.
  void getBySubject(const DistinguishedName& issuer,
                    std::list<RefCertificateRevocationList>& out) override {
    for (const RefCertificateRevocationList& crl : crls_) {
      if (crl->crlInfo().issuer() == issuer) out.push_back(crl);
    }
  }

 private:
  std::list<RefCertificate> certificates_;
  std::list<RefCertificateRevocationList> crls_;
};

int verdict(const std::string& file, const std::list<std::string>& sources) {
  const std::list<RefCertificate> certificates = certificatesIn(file);
  if (certificates.empty()) return X509_V_ERR_UNSPECIFIED;

  auto* const memory = new InMemory;
  const RefLookupMethod method(memory);  // owns it
  for (const std::string& source : sources) memory->load(source);

  RefObjectStore store("", X509_FILETYPE_PEM);  // no directory beside it
  store->add(method);
  Verifier verifier(store, certificates.front(), false);
  return verifier.isValid();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 1;
  // What keeps the library from a verdict is an exception, which means "not valid".
  try {
    const int code = verdict(argv[1], std::list<std::string>(argv + 2, argv + argc));
    std::cout << argv[1] << ": " << X509_verify_cert_error_string(code) << '\n';
    return code == X509_V_OK ? 0 : 1;
  } catch (const std::exception& error) {
    std::cout << argv[1] << ": " << error.what() << '\n';
  }
  return 1;
}
