#include "foundation/base/FileReader.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Command.h"
#include "support/Files.h"
#include "support/PemBlock.h"
#include "support/Pki.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Exception.h>

#include <openssl/err.h>
#include <openssl/pem.h>

#include <gtest/gtest.h>
#include <list>
#include <random>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

using namespace std::string_literals;

Buffer buffer(const std::string& data) {
  return Buffer(data.data(), static_cast<unsigned int>(data.size()), true);
}

// One of everything, made once.
struct Inputs {
  Pki::Issued a = Pki::issueCA("CN=A");
  Pki::Issued b = Pki::issueCA("CN=B");
  Owned<X509_CRL> crlA = Pki::makeCRL({.issuer = &a});
  Owned<X509_CRL> crlB = Pki::makeCRL({.issuer = &b});
  std::string derA = Pki::der(a.cert.get());
  std::string derB = Pki::der(b.cert.get());
  std::string pemA = Pki::pem(a.cert.get());
  std::string pemB = Pki::pem(b.cert.get());
  std::string crlDer = Pki::der(crlA.get());
  std::string crlPem = Pki::pem(crlA.get());
  std::string key = Pki::pem(a.key.get());
};

const Inputs& inputs() {
  static const Inputs made;
  return made;
}

std::string subjects(const std::list<RefCertificate>& certificates) {
  std::string text;
  for (const RefCertificate& certificate : certificates) {
    text += certificate->subject().asString() + ' ';
  }
  return text;
}

// Problems stand in brackets.
std::string listed(const std::list<CertificateFactory::Item>& items) {
  std::string text;
  for (const CertificateFactory::Item& item : items) {
    if (!item.certificate.empty()) text += item.certificate->subject().asString() + ' ';
    if (!item.crl.empty()) text += "CRL of " + item.crl->crlInfo().issuer().asString() + ' ';
    if (!item.problem.empty()) text += '[' + item.problem + "] ";
  }
  return text;
}

constexpr char kEncrypted[] =
    "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-128-CBC,00112233445566778899AABBCCDDEEFF\n";

struct Readable {
  const char* name;
  std::string input;
  std::string certificates;
  std::string crl;
};

TEST(CertificateFactory, ReadableInputs_GiveTheirCertificatesOrCRL) {
  const Inputs& in = inputs();
  const Readable rows[] = {
      {"nothing", "", "", ""},
      {"one PEM", in.pemA, "CN=A ", ""},
      {"several PEM", in.pemB + in.pemA + in.pemB, "CN=B CN=A CN=B ", ""},
      {"X509 CERTIFICATE", Pki::pemBlock("X509 CERTIFICATE", in.derA), "CN=A ", ""},
      {"TRUSTED CERTIFICATE without settings", Pki::pemBlock("TRUSTED CERTIFICATE", in.derA),
       "CN=A ", ""},
      {"text around", "subject=A\n\n" + in.pemA + "0 zeros\n" + in.pemB + "end", "CN=A CN=B ", ""},
      {"text that starts like DER", "0\x03some\n"s + in.pemA, "CN=A ", ""},
      {"text that is DER of something", "\x30\x02\x05\0"s + "\n" + in.pemA, "CN=A ", ""},
      {"DOS line ends",
       [&] {
         std::string dos;
         for (const char c : in.pemA) dos += c == '\n' ? "\r\n"s : std::string(1, c);
         return dos;
       }(),
       "CN=A ", ""},
      {"key and certificate", in.key + in.pemA, "CN=A ", ""},
      {"key only", in.key, "", ""},
      {"unknown block only", Pki::pemBlock("SOMETHING", "x"), "", ""},
      {"CRL in PEM", in.crlPem, "", "CN=A"},
      {"CRL in DER", in.crlDer, "", "CN=A"},
      {"CRLs end to end", Pki::der(in.crlB.get()) + in.crlDer, "", "CN=B"},
      {"CRLs in PEM", Pki::pem(in.crlB.get()) + in.crlPem, "", "CN=B"},
      {"certificate and CRL in PEM", in.pemA + in.crlPem + in.pemB, "CN=A CN=B ", "CN=A"},
      {"one DER", in.derA, "CN=A ", ""},
      {"several DER", in.derB + in.derA, "CN=B CN=A ", ""},
      {"certificate and CRL in DER", in.derB + in.crlDer + in.derA, "CN=B CN=A ", "CN=A"},
      {"text after URI line", "URI: http://a.example/\n" + in.crlPem, "", "CN=A"},
  };
  const Pki::TempDir directory;
  for (const Readable& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string file = (directory / "input").string();
    Pki::writeFile(file, row.input);
    std::list<RefCertificate> fromFile;
    CertificateFactory::read(File::Path(file), fromFile);
    EXPECT_EQ(subjects(fromFile), row.certificates);
    std::list<RefCertificate> fromBuffer;
    CertificateFactory().read(buffer(row.input), fromBuffer);
    EXPECT_EQ(subjects(fromBuffer), row.certificates);

    for (const RefCertificateRevocationList& crl :
         {CertificateRevocationListFactory::read(File::Path(file)),
          CertificateRevocationListFactory::read(buffer(row.input))}) {
      EXPECT_EQ(crl.empty(), row.crl.empty());
      if (!crl.empty()) {
        EXPECT_EQ(crl->crlInfo().issuer().asString(), row.crl);
      }
    }

    std::list<RefCertificate> amongAll;
    std::string firstCRL;
    for (const CertificateFactory::Item& item : CertificateFactory::readAll(buffer(row.input))) {
      EXPECT_EQ(item.problem, "");
      if (!item.certificate.empty()) {
        amongAll.push_back(item.certificate);
      } else if (firstCRL.empty()) {
        firstCRL = item.crl->crlInfo().issuer().asString();
      }
    }
    EXPECT_EQ(subjects(amongAll), row.certificates);
    EXPECT_EQ(firstCRL, row.crl);
    EXPECT_EQ(ERR_peek_error(), 0U);
  }
}

TEST(CertificateFactory, ReadAll_EverythingInTheOrderOfTheInput) {
  const Inputs& in = inputs();
  const std::string crlB = Pki::der(in.crlB.get());
  const std::pair<std::string, std::string> rows[] = {
      {in.crlPem + in.key + in.pemB + Pki::pemBlock("X509 CRL", crlB) + in.pemA,
       "CRL of CN=A CN=B CRL of CN=B CN=A "},
      {in.derA + crlB + in.crlDer + in.derB, "CN=A CRL of CN=B CRL of CN=A CN=B "},
  };
  for (const auto& [input, expected] : rows) {
    EXPECT_EQ(listed(CertificateFactory::readAll(buffer(input))), expected);
  }
}

TEST(CertificateFactory, ReadAll_WhatCannotBeReadIsAProblemAtItsPlace) {
  const Inputs& in = inputs();
  std::string flipped = in.derA;
  flipped[4] ^= 0x40;  // the tag of the TBSCertificate
  const std::string broken = Pki::der(
      Pki::makeCRL({.issuer = &in.a, .rawExtensions = {{"2.5.29.28", true, "\xff"}}}).get());
  ERR_clear_error();  // the builder reads back what it has made
  const auto at = [](const std::string& der) {
    return "[neither PEM nor DER from octet " + std::to_string(der.size()) + "] ";
  };
  std::string reason;
  try {
    CertificateRevocationListFactory::read(buffer(broken));
  } catch (const Exception& e) {
    reason = '[' + e.stringParameter() + "] ";
  }
  ASSERT_GT(reason.size(), 3U);
  const std::pair<std::string, std::string> rows[] = {
      {"hello\n", "[neither PEM nor DER] "},
      {flipped, "[neither PEM nor DER] "},
      {in.pemA + Pki::pemBlock("CERTIFICATE", flipped) + in.crlPem,
       "CN=A [malformed CERTIFICATE] CRL of CN=A "},
      {in.pemA + Pki::pemBlock("X509 CRL", in.derA) + in.pemB, "CN=A [malformed X509 CRL] CN=B "},
      {Pki::pemBlock("CERTIFICATE", in.crlDer), "[malformed CERTIFICATE] "},
      {Pki::pemBlock("CERTIFICATE", in.derA, kEncrypted) + in.pemB,
       "[encrypted CERTIFICATE] CN=B "},
      {Pki::pemBlock("X509 CRL", in.crlDer, kEncrypted) + in.pemB, "[encrypted X509 CRL] CN=B "},
      {Pki::pemBlock("X509 CRL", broken) + in.pemB, reason + "CN=B "},
      {broken + in.derB, reason + "CN=B "},
      {in.pemA + in.pemB.substr(0, in.pemB.size() - 20), "CN=A [malformed PEM block] "},
      {in.derA + "\n", "CN=A " + at(in.derA)},
      {in.derA + in.crlDer + flipped + in.derB, "CN=A CRL of CN=A " + at(in.derA + in.crlDer)},
  };
  for (const auto& [input, expected] : rows) {
    EXPECT_EQ(listed(CertificateFactory::readAll(buffer(input))), expected);
    EXPECT_EQ(ERR_peek_error(), 0U);
  }
}

TEST(CertificateFactory, OtherObjectsInDer_NoCertificatesAndNoCRL) {
  const Inputs& in = inputs();
  const Pki::TempDir directory;
  const std::string key = (directory / "key.pem").string();
  const std::string certificate = (directory / "cert.pem").string();
  Pki::writeFile(key, in.key);
  Pki::writeFile(certificate, in.pemA);
  const std::vector<std::vector<std::string>> commands = {
      {"openssl", "pkcs8", "-topk8", "-nocrypt", "-in", key, "-outform", "DER"},
      {"openssl", "pkcs8", "-topk8", "-in", key, "-outform", "DER", "-passout", "pass:x"},
      {"openssl", "pkey", "-in", key, "-pubout", "-outform", "DER"},
      {"openssl", "req", "-new", "-key", key, "-subj", "/CN=A", "-outform", "DER"},
      {"openssl", "crl2pkcs7", "-nocrl", "-certfile", certificate, "-outform", "DER"},
      {"openssl", "pkcs12", "-export", "-in", certificate, "-inkey", key, "-passout", "pass:x"},
  };
  for (const std::vector<std::string>& command : commands) {
    SCOPED_TRACE(command[1]);
    const Pki::CommandResult made = Pki::runCommand(command);
    ASSERT_EQ(made.status, 0) << made.err;
    std::list<RefCertificate> certificates;
    CertificateFactory::read(buffer(made.out), certificates);
    EXPECT_TRUE(certificates.empty());
    EXPECT_TRUE(CertificateRevocationListFactory::read(buffer(made.out)).empty());
    EXPECT_EQ(listed(CertificateFactory::readAll(buffer(made.out + in.derA))), "CN=A ");
  }
}

TEST(CertificateFactory, UnreadableInputs_ThrowNamingTheFileAndLeaveTheList) {
  const Inputs& in = inputs();
  const std::string encrypted = Pki::pemBlock("CERTIFICATE", in.derA, kEncrypted);
  std::string flipped = in.derA;
  flipped[4] ^= 0x40;  // the tag of the TBSCertificate
  const std::pair<const char*, std::string> rows[] = {
      {"text", "hello\n"},
      {"blank", "\n"},
      {"zeros", std::string(1000, '\0')},
      {"digits", "000000"},
      {"cut short DER", in.derA.substr(0, in.derA.size() - 1)},
      {"octet after DER", in.derA + "\n"},
      {"rubbish after DER", in.derA + in.derB.substr(0, 100)},
      {"broken certificate", flipped},
      {"indefinite length", "\x30\x80" + in.derA.substr(4) + "\0\0"s},
      {"broken block", Pki::pemBlock("CERTIFICATE", flipped)},
      {"octet after certificate in a block", Pki::pemBlock("CERTIFICATE", in.derA + "\0"s)},
      {"empty block", "-----BEGIN CERTIFICATE-----\n-----END CERTIFICATE-----\n"},
      {"good and broken block", in.pemA + Pki::pemBlock("CERTIFICATE", flipped)},
      {"trust settings in a plain block", Pki::pemBlock("CERTIFICATE", in.derA + "\x30\0"s)},
      {"block without end", in.pemA.substr(0, in.pemA.size() - 20)},
      {"end of another block", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END X509 CRL-----\n"},
      {"not base64", "-----BEGIN CERTIFICATE-----\n!!!!\n-----END CERTIFICATE-----\n"},
      {"encrypted", encrypted},
      {"encrypted after a good one", in.pemB + encrypted},
  };
  const Pki::TempDir directory;
  for (const auto& [name, input] : rows) {
    SCOPED_TRACE(name);
    const std::string file = (directory / "broken.0").string();
    Pki::writeFile(file, input);
    std::list<RefCertificate> certificates = {CertificateFactory()(in.a.get(), false)};
    try {
      CertificateFactory::read(File::Path(file), certificates);
      ADD_FAILURE() << "read";
    } catch (const Exception& e) {
      EXPECT_EQ(e.code(), 4);
      EXPECT_NE(e.asString().find(file), std::string::npos) << e.asString();
    }
    EXPECT_THROW(CertificateFactory::read(buffer(input), certificates), Exception);
    EXPECT_EQ(certificates.size(), 1U);
    EXPECT_EQ(ERR_peek_error(), 0U);
  }
}

TEST(CertificateFactory, TrustSettings_AreKeptForOpenSSL) {
  const Owned<X509> trusted(X509_dup(inputs().a.get()));
  const Owned<ASN1_OBJECT> purpose(OBJ_txt2obj("emailProtection", 0));
  ASSERT_EQ(X509_add1_reject_object(trusted.get(), purpose.get()), 1);
  const Owned<BIO> out(BIO_new(BIO_s_mem()));
  ASSERT_EQ(PEM_write_bio_X509_AUX(out.get(), trusted.get()), 1);
  char* data = nullptr;
  const long length = BIO_get_mem_data(out.get(), &data);
  std::list<RefCertificate> certificates;
  CertificateFactory::read(Buffer(data, static_cast<unsigned int>(length), false), certificates);
  ASSERT_EQ(certificates.size(), 1U);
  EXPECT_EQ(X509_check_trust(certificates.front(), X509_TRUST_EMAIL, 0), X509_TRUST_REJECTED);
}

TEST(CertificateFactory, Appends_AfterWhatIsThere) {
  std::list<RefCertificate> certificates;
  CertificateFactory::read(buffer(inputs().pemB), certificates);
  CertificateFactory::read(buffer(inputs().pemA), certificates);
  EXPECT_EQ(subjects(certificates), "CN=B CN=A ");
}

TEST(CertificateFactory, FileThatCannotBeRead_ThrowsNamingIt) {
  const Pki::TempDir directory;
  std::list<RefCertificate> certificates;
  for (const std::string& path :
       {(directory / "missing.pem").string(), directory.string(), "/dev/zero"s}) {
    for (const bool crl : {false, true}) {
      try {
        if (crl) {
          CertificateRevocationListFactory::read(File::Path(path));
        } else {
          CertificateFactory::read(File::Path(path), certificates);
        }
        ADD_FAILURE() << path;
      } catch (const Exception& e) {
        EXPECT_NE(e.asString().find(path), std::string::npos) << e.asString();
      }
    }
  }
}

TEST(CertificateFactory, InputAboveTheLimit_Refused) {
  const std::vector<char> big(kMaxInputSize + 1, ' ');
  const Buffer data(big.data(), static_cast<unsigned int>(big.size()), false);
  std::list<RefCertificate> certificates;
  for (const bool all : {false, true}) {
    try {
      if (all) {
        CertificateFactory::readAll(data);
      } else {
        CertificateFactory::read(data, certificates);
      }
      ADD_FAILURE() << all;
    } catch (const Exception& e) {
      EXPECT_NE(e.asString().find("128 MiB"), std::string::npos) << e.asString();
    }
  }
}

TEST(CertificateFactory, EncryptedInputOnATerminal_NeverPrompts) {
  // An encrypted key beside a certificate, and an encrypted certificate. OpenSSL's default callback
  // would open /dev/tty or read standard input; both are what they are here, so a prompt would hang
  // the test or show in the result.
  const Pki::TempDir directory;
  const std::string key = (directory / "key.pem").string();
  Pki::writeFile(key, inputs().key);
  const Pki::CommandResult encrypted =
      Pki::runCommand({"openssl", "ec", "-in", key, "-aes128", "-passout", "pass:secret"});
  ASSERT_EQ(encrypted.status, 0) << encrypted.err;
  ASSERT_NE(encrypted.out.find("ENCRYPTED"), std::string::npos);
  std::list<RefCertificate> certificates;
  ::testing::internal::CaptureStderr();
  CertificateFactory::read(buffer(encrypted.out + inputs().pemA), certificates);
  EXPECT_EQ(subjects(certificates), "CN=A ");
  EXPECT_TRUE(CertificateRevocationListFactory::read(buffer(encrypted.out)).empty());
  EXPECT_THROW(CertificateRevocationListFactory::read(
                   buffer(Pki::pemBlock("X509 CRL", inputs().crlDer, kEncrypted))),
               Exception);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
}

TEST(CertificateFactory, Wrapping_SharesOrAdoptsTheSameX509) {
  Owned<X509> native(X509_dup(inputs().a.get()));
  X509* const pointer = native.get();
  {
    const RefCertificate shared = CertificateFactory()(pointer, false);
    EXPECT_EQ(shared->native(), pointer);
    EXPECT_EQ(CertificateFactory()(pointer, false)->native(), pointer);
  }
  // Still ours: a leak checker sees a reference too many, a memory checker one too few.
  EXPECT_EQ(DistinguishedName(X509_get_subject_name(pointer)).asString(), "CN=A");
  const RefCertificate adopted = CertificateFactory()(native.release(), true);
  EXPECT_EQ(adopted->native(), pointer);
  EXPECT_TRUE(CertificateFactory()(nullptr, true).empty());
  EXPECT_TRUE(CertificateFactory()(nullptr, false).empty());
}

TEST(CertificateFactory, DamagedInputs_ExceptionOrObjectsButNoCrash) {
  const Inputs& in = inputs();
  std::mt19937 random(11);
  const std::string sources[] = {in.derA, in.pemA + in.crlPem, in.crlDer, in.derA + in.crlDer};
  for (int round = 0; round < 4000; ++round) {
    std::string input = sources[random() % 4];
    for (auto i = 1 + random() % 4; i > 0; --i) {
      input[random() % input.size()] = static_cast<char>(random());
    }
    if (random() % 8 == 0) input.resize(random() % input.size());
    for (const CertificateFactory::Item& item : CertificateFactory::readAll(buffer(input))) {
      EXPECT_EQ(!item.certificate.empty() + !item.crl.empty() + !item.problem.empty(), 1);
    }
    try {
      std::list<RefCertificate> certificates;
      CertificateFactory::read(buffer(input), certificates);
      for (const RefCertificate& certificate : certificates) {
        EXPECT_EQ(DistinguishedName(certificate->subject().asString()), certificate->subject());
        static_cast<void>(certificate->serialNumber().asString());
        certificate->crlDistributionPoints();
        static_cast<void>(certificate->isCACert());
        static_cast<void>(certificate->keyUsage());
        certificate->authorityKeyIdentifier();
      }
    } catch (const Exception&) {
    }
    try {
      const RefCertificateRevocationList crl =
          CertificateRevocationListFactory::read(buffer(input));
      if (!crl.empty()) {
        static_cast<void>(crl->hasUnhandledCriticalExtension());
        static_cast<void>(crl->issuedBy(CertificateFactory()(in.a.get(), false), false));
      }
    } catch (const Exception&) {
    }
  }
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
