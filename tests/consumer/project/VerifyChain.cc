// usage: verify-chain TRUST-DIRECTORY UNTRUSTED-FILE CRL-DIRECTORY CERTIFICATE-FILE EXPECTED-CODE
//
// Prints the verdict and succeeds when it is the expected one. A program as anybody would write it
// against the installed headers; the same file is built through the CMake package and through
// pkg-config.
#include <pkx509/HashDirLookup.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/Verifier.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>
#include <velantrix/Logger.h>
#include <velantrix/StackOfCertificate.h>

#include <openssl/x509_vfy.h>

#include <exception>
#include <iostream>
#include <list>
#include <string>

using namespace Velantrix::Crypto::PKX509;

namespace {

class ToStandardError : public Velantrix::Logger {
 public:
  ToStandardError() { Velantrix::Logger::install(this); }
  ~ToStandardError() override { Velantrix::Logger::install(nullptr); }

 protected:
  void line(int /*priority*/, const std::string& text) override { std::cerr << text << '\n'; }
};

std::list<RefCertificate> certificatesIn(const std::string& file) {
  std::list<RefCertificate> certificates;
  CertificateFactory::read(Velantrix::File::Path(file), certificates);
  return certificates;
}

int verdict(const std::string& trust, const std::string& untrustedFile, const std::string& crls,
            const std::string& file) {
  const std::list<RefCertificate> untrusted = certificatesIn(untrustedFile);
  const std::list<RefCertificate> certificates = certificatesIn(file);
  if (certificates.empty()) {
    throw Velantrix::Exception("no certificate in " + file, Velantrix::Exception::kFailure, nullptr,
                               0);
  }

  RefObjectStore store(trust, X509_FILETYPE_PEM);
  store->add(RefLookupMethod(new HashDirLookupMethod(crls)));
  store->add(untrusted);
  Verifier verifier(store, certificates.front(), RefStackOfCertificate(untrusted), false);
  return verifier.isValid();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) return 2;
  const ToStandardError logger;
  try {
    const int code = verdict(argv[1], argv[2], argv[3], argv[4]);
    std::cout << code << ": " << X509_verify_cert_error_string(code) << '\n';
    return code == std::stoi(argv[5]) ? 0 : 1;
  } catch (const Velantrix::Exception& e) {
    std::cout << "Velantrix::Exception: " << e.asString() << '\n';
  } catch (const std::exception& e) {
    std::cout << "std::exception: " << e.what() << '\n';
  }
  return 1;
}
