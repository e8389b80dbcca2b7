// Verifications by the shared library over the machine's own directories, with certificates and
// CRLs that the openssl command made.
#include "support/Command.h"
#include "support/LogCapture.h"
#include "support/PrivateView.h"
#include "unit/verify/World.h"

#include <velantrix/File.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using std::chrono::hours;

constexpr char kConfig[] = R"(
[req]
distinguished_name = name
prompt = no
[name]
CN = unused
[ca_cert]
basicConstraints = critical,CA:true
keyUsage = critical,keyCertSign,cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid:always
[person_cert]
basicConstraints = critical,CA:false
keyUsage = critical,digitalSignature
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid:always
[ca]
default_ca = default
[default]
database = index.txt
crlnumber = crlnumber
default_md = sha256
default_crl_days = 7
unique_subject = no
[base]
authorityKeyIdentifier = keyid:always
[delta]
authorityKeyIdentifier = keyid:always
2.5.29.27 = critical,ASN1:INTEGER:1
[users]
authorityKeyIdentifier = keyid:always
issuingDistributionPoint = critical,@users_point
[users_point]
onlyuser = TRUE
[authorities]
authorityKeyIdentifier = keyid:always
issuingDistributionPoint = critical,@authorities_point
[authorities_point]
onlyCA = TRUE
)";

class RevocationIntegration : public testing::Test {
 protected:
  RevocationIntegration() {
    clearPrivateView();
    writeFile(work / "openssl.cnf", kConfig);
    for (const char* ca : {"root", "inter"}) fs::create_directory(work / ca);
    for (const char* ca : {"root", "inter"}) {
      writeFile(work / ca / "index.txt", "");
      writeFile(work / ca / "crlnumber", "01\n");
    }
    key("root");
    openssl({"req", "-x509", "-new", "-key", file("root.key"), "-config", file("openssl.cnf"),
             "-extensions", "ca_cert", "-subj", "/O=Test/CN=Root", "-days", "30", "-out",
             file("root.crt")});
    certificate("inter", "root", "ca_cert");
    certificate("person", "inter", "person_cert");
    certificate("other", "inter", "person_cert");
    addToDirectory(kCADirectory, static_cast<X509*>(loaded("root")));
  }

  std::string file(const std::string& name) const { return (work / name).string(); }

  void openssl(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), "openssl");
    const CommandResult result = runCommand(arguments);
    if (result.status != 0) throw std::runtime_error(result.err);
  }

  void key(const std::string& name) const {
    openssl({"genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out",
             file(name + ".key")});
  }

  void certificate(const std::string& name, const std::string& ca, const std::string& extensions) {
    key(name);
    openssl({"req", "-new", "-key", file(name + ".key"), "-config", file("openssl.cnf"), "-subj",
             "/O=Test/CN=" + name, "-out", file(name + ".csr")});
    openssl({"x509", "-req", "-in", file(name + ".csr"), "-CA", file(ca + ".crt"), "-CAkey",
             file(ca + ".key"), "-CAcreateserial", "-extfile", file("openssl.cnf"), "-extensions",
             extensions, "-days", "30", "-out", file(name + ".crt")});
  }

  void inDirectoryOf(const std::string& ca, std::vector<std::string> arguments) const {
    std::vector<std::string> all{
        "ca",       "-config",        file("openssl.cnf"), "-cert", file(ca + ".crt"),
        "-keyfile", file(ca + ".key")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    const fs::path before = fs::current_path();
    fs::current_path(work / ca);
    openssl(all);
    fs::current_path(before);
  }

  // No reason takes the certificate off the list again.
  void revoke(const std::string& name, const std::string& ca, const std::string& reason) const {
    writeFile(work / ca / "index.txt", "");
    if (!reason.empty()) {
      inDirectoryOf(ca, {"-revoke", file(name + ".crt"), "-crl_reason", reason});
    }
  }

  // Makes a CRL of what is revoked and returns where it is.
  std::string crl(const std::string& ca, const std::string& name,
                  const std::vector<std::string>& more = {"-crlexts", "base"}) const {
    std::vector<std::string> arguments{"-gencrl", "-out", file(name)};
    arguments.insert(arguments.end(), more.begin(), more.end());
    inDirectoryOf(ca, arguments);
    return file(name);
  }

  static RefCertificateRevocationList loadedCRL(const std::string& path) {
    return CertificateRevocationListFactory::read(File::Path(path));
  }

  // Puts a CRL into the machine's directory and returns its name there.
  static fs::path install(const std::string& path) {
    return addToDirectory(kCRLDirectory, static_cast<X509_CRL*>(loadedCRL(path)));
  }

  RefCertificate loaded(const std::string& name) const {
    std::list<RefCertificate> found;
    CertificateFactory::read(File::Path(file(name + ".crt")), found);
    return found.front();
  }

  void installGood() {
    install(crl("root", "root.crl"));
    install(crl("inter", "inter.crl"));
  }

  // A store as the appliance has it; the intermediate comes along with the certificate.
  int verdict(const std::string& name, bool useOpenSSL = false, std::time_t at = 0) {
    RefObjectStore store(kCADirectory, X509_FILETYPE_PEM);
    const std::list<RefCertificate> intermediates{loaded("inter")};
    store->add(intermediates);
    Verifier verifier(store, loaded(name), RefStackOfCertificate(intermediates), useOpenSSL);
    if (at != 0) X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(verifier), at);
    return verifier.isValid();
  }

  TempDir work;
  LogCapture log;
};

TEST_F(RevocationIntegration, NoCRLInTheDirectory) {
  EXPECT_EQ(verdict("person"), X509_V_ERR_UNABLE_TO_GET_CRL);
  fs::remove(kCRLDirectory);
  EXPECT_EQ(verdict("person"), X509_V_ERR_UNABLE_TO_GET_CRL);
  fs::create_directory(kCRLDirectory);
}

TEST_F(RevocationIntegration, CRLsInTheDirectory_GoodAndRevoked) {
  revoke("other", "inter", "keyCompromise");
  installGood();
  for (const bool useOpenSSL : {false, true}) {
    log.clear();
    EXPECT_EQ(verdict("person", useOpenSSL), 0) << log.text();
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(verdict("other", useOpenSSL), X509_V_ERR_CERT_REVOKED);
  }
}

TEST_F(RevocationIntegration, RevokedIntermediate) {
  revoke("inter", "root", "cACompromise");
  installGood();
  for (const bool useOpenSSL : {false, true}) {
    EXPECT_EQ(verdict("person", useOpenSSL), X509_V_ERR_CERT_REVOKED);
  }
}

TEST_F(RevocationIntegration, RevokedByTheDelta) {
  installGood();
  revoke("other", "inter", "keyCompromise");
  install(crl("inter", "delta.crl", {"-crlexts", "delta"}));
  for (const bool useOpenSSL : {false, true}) {
    EXPECT_EQ(verdict("person", useOpenSSL), 0);
    EXPECT_EQ(verdict("other", useOpenSSL), X509_V_ERR_CERT_REVOKED);
  }
}

TEST_F(RevocationIntegration, RestoredByTheDelta) {
  install(crl("root", "root.crl"));
  revoke("person", "inter", "certificateHold");
  install(crl("inter", "inter.crl"));
  EXPECT_EQ(verdict("person"), X509_V_ERR_CERT_REVOKED);
  revoke("person", "inter", "removeFromCRL");
  install(crl("inter", "delta.crl", {"-crlexts", "delta"}));
  EXPECT_EQ(verdict("person"), 0) << log.text();
}

TEST_F(RevocationIntegration, DeltaThatMissesItsBase) {
  install(crl("root", "root.crl"));
  writeFile(work / "inter" / "crlnumber", "00\n");
  install(crl("inter", "inter.crl"));
  install(crl("inter", "delta.crl", {"-crlexts", "delta"}));
  log.clear();
  EXPECT_EQ(verdict("person"), X509_V_ERR_UNABLE_TO_GET_CRL);
  EXPECT_EQ(log.count("Could not find Base CRL"), 1U);
}

TEST_F(RevocationIntegration, ExpiredCRL_TheDirectoryDropsItAndACheckTimeDoesNot) {
  install(crl("root", "root.crl"));
  install(crl("inter", "inter.crl",
              {"-crlexts", "base", "-crl_lastupdate", "20200101000000Z", "-crl_nextupdate",
               "20200102000000Z"}));
  EXPECT_EQ(verdict("person"), X509_V_ERR_UNABLE_TO_GET_CRL);
  fs::remove_all(fs::path(kCRLDirectory));
  fs::create_directory(kCRLDirectory);
  installGood();
  EXPECT_EQ(verdict("person", false, When(hours(24 * 10)).time()), X509_V_ERR_CRL_HAS_EXPIRED);
}

TEST_F(RevocationIntegration, ScopeOfTheCRL) {
  install(crl("root", "root.crl"));
  const fs::path authorities = install(crl("inter", "inter.crl", {"-crlexts", "authorities"}));
  EXPECT_EQ(verdict("person"), X509_V_ERR_UNABLE_TO_GET_CRL);
  fs::remove(authorities);
  install(crl("inter", "inter.crl", {"-crlexts", "users"}));
  EXPECT_EQ(verdict("person"), 0);
}

TEST_F(RevocationIntegration, CRLSignedByAnotherKey) {
  install(crl("root", "root.crl"));
  fs::copy_file(file("inter.key"), file("kept.key"));
  fs::copy_file(file("inter.crt"), file("kept.crt"));
  certificate("inter", "root", "ca_cert");                   // the same name, another key
  const std::string forged = crl("inter", "inter.crl", {});  // without a key identifier
  fs::copy_file(file("kept.crt"), file("inter.crt"), fs::copy_options::overwrite_existing);
  install(forged);
  EXPECT_EQ(verdict("person"), X509_V_ERR_CRL_SIGNATURE_FAILURE);
}

TEST_F(RevocationIntegration, DirectoryComesBeforeTheStore) {
  const RefCertificateRevocationList first = loadedCRL(crl("inter", "first.crl"));
  const RefCertificateRevocationList second = loadedCRL(crl("inter", "second.crl"));
  install(file("second.crl"));
  World world;
  world.source->crls = {first};
  world.store->add(std::list<RefCertificate>{loaded("inter")});
  Verifier verifier(world.store, loaded("person"), false);
  OpenContainer container(verifier);
  verifier.getCRLs(loaded("person"), container);
  ASSERT_EQ(container.entries.size(), 2U);
  EXPECT_EQ(container.entries.front().crl->crl->crlNumber(), second->crlNumber());
  EXPECT_EQ(container.entries.back().crl->crl->crlNumber(), first->crlNumber());
}

TEST_F(RevocationIntegration, DirectoryIsReadAtEveryVerification) {
  installGood();
  RefObjectStore store(kCADirectory, X509_FILETYPE_PEM);
  const std::list<RefCertificate> intermediates{loaded("inter")};
  store->add(intermediates);
  Verifier verifier(store, loaded("person"), RefStackOfCertificate(intermediates), false);
  EXPECT_EQ(verifier.isValid(), 0);
  revoke("person", "inter", "keyCompromise");
  install(crl("inter", "later.crl"));
  EXPECT_EQ(verifier.isValid(), X509_V_ERR_CERT_REVOKED);
}

TEST_F(RevocationIntegration, FileThatIsNoCRL_IsAnExceptionThatNamesIt) {
  installGood();
  const fs::path broken = install(file("inter.crl"));
  writeFile(broken, "-----BEGIN X509 CRL-----\nAAAA\n-----END X509 CRL-----\n");
  for (const bool useOpenSSL : {false, true}) {
    try {
      verdict("person", useOpenSSL);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const Exception& e) {
      EXPECT_NE(e.asString().find(broken.string()), std::string::npos) << e.asString();
    }
  }
}

TEST_F(RevocationIntegration, ExceptionsCrossTheLibrarysBorder) {
  struct Own {
    int value;
  };
  World world;
  world.trust(issueCA("CN=Root"));
  world.source->onQuery = [](Query, const DistinguishedName&) { throw Own{42}; };
  Verifier verifier(world.store, loaded("person"), false);
  try {
    verifier.isValid();
    ADD_FAILURE() << "nothing was thrown";
  } catch (const Own& own) {
    EXPECT_EQ(own.value, 42);
  }
}

}  // namespace
}  // namespace Velantrix::Test
