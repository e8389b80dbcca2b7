// usage: daemon-start-up CERTIFICATE-FILE...
//
// What a daemon without a trust store of its own does: it gets the process-wide verifier ready
// while it still has one thread, and then asks it about each certificate that it is to encrypt to.
// The exit status is 0 when all of them can be used, 1 otherwise.
//
// Trusted certificates, intermediate ones included, come from /opsadmin/etc/cert/server/ca and CRLs
// from /opsadmin/etc/cert/server/crl.
#include <pkx509/SimpleVerifier.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Logger.h>

#include <openssl/x509v3.h>

#include <exception>
#include <iostream>
#include <list>
#include <string>

using namespace Velantrix::Crypto::PKX509;

namespace {

// Without a logger of the program's own, the lines that explain a rejection go to syslog.
class ToStandardError : public Velantrix::Logger {
 public:
  ToStandardError() { install(this); }
  ~ToStandardError() override { install(nullptr); }

 protected:
  void line(int priority, const std::string& text) override {
    std::cerr << '<' << priority << "> " << text << '\n';
  }
};

bool canBeEncryptedTo(CertificateVerifier& verifier, const std::string& file) {
  // Whatever keeps the verifier from a verdict is a no, and not only Velantrix::Exception.
  try {
    std::list<RefCertificate> certificates;
    CertificateFactory::read(Velantrix::File::Path(file), certificates);
    if (certificates.empty()) return false;
    const int usage = KU_KEY_ENCIPHERMENT | KU_KEY_AGREEMENT;  // one of them
    return verifier.isValid(certificates.front(), usage, true) == X509_V_OK;
  } catch (const std::exception& error) {
    std::cerr << file << ": " << error.what() << '\n';
    return false;
  }
}

}  // namespace

int main(int argc, char** argv) {
  const ToStandardError logger;
  CertificateVerifier* const verifier = SimpleVerifier::instance();

  // From here on there could be threads.
  int status = 0;
  for (int i = 1; i < argc; ++i) {
    const bool usable = canBeEncryptedTo(*verifier, argv[i]);
    std::cout << argv[i] << (usable ? ": usable\n" : ": not usable\n");
    if (!usable) status = 1;
  }
  return status;
}
