#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Command.h"
#include "support/Handles.h"
#include "support/Pki.h"

#include <velantrix/Certificate.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>
#include <velantrix/MediaOut.h>

#include <functional>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

using namespace std::string_literals;

RefCertificate issuedHandle(const Pki::CertificateOptions& options) {
  return Pki::handle(Pki::issue(options));
}

TEST(Certificate, NamesAndSerial_AreThoseOfTheOpenSSLCommand) {
  const Pki::Issued ca = Pki::issueCA("C=DE,O=Mail,CN=CA");
  for (const char* serial : {"1", "0A", "80", "FEDCBA9876543210FEDCBA9876543210", "-0A"}) {
    const Pki::Issued leaf = Pki::issue({.subject = "CN=Leaf", .issuer = &ca, .serial = serial});
    const RefCertificate certificate = Pki::handle(leaf);
    EXPECT_EQ(certificate->subject().asString(), "CN=Leaf");
    EXPECT_EQ(certificate->issuer().asString(), "CN=CA,O=Mail,C=DE");
    std::ostringstream out;
    out << "serial=" << certificate->serialNumber() << '\n';
    const Pki::CommandResult expected =
        Pki::runCommand({"openssl", "x509", "-noout", "-serial"}, Pki::pem(leaf.cert.get()));
    EXPECT_EQ(out.str(), expected.out);
  }
}

TEST(Certificate, KeyIdentifiers_OfIssuerAndSubjectMatch) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const RefCertificate issuer = Pki::handle(ca);
  const RefCertificate leaf = issuedHandle({.issuer = &ca});
  ASSERT_FALSE(issuer->subjectKeyIdentifier().empty());
  EXPECT_TRUE(issuer->authorityKeyIdentifier().empty());
  ASSERT_FALSE(leaf->authorityKeyIdentifier().empty());
  EXPECT_EQ(leaf->authorityKeyIdentifier()->keyId(), issuer->subjectKeyIdentifier());
  EXPECT_NE(leaf->subjectKeyIdentifier(), issuer->subjectKeyIdentifier());

  const RefCertificate wrong = issuedHandle({.issuer = &ca, .authorityKeyId = Pki::KeyId::Wrong});
  EXPECT_NE(wrong->authorityKeyIdentifier()->keyId(), issuer->subjectKeyIdentifier());
  const RefCertificate serial =
      issuedHandle({.issuer = &ca, .authorityKeyId = Pki::KeyId::SerialOnly});
  EXPECT_TRUE(serial->authorityKeyIdentifier()->keyId().empty());
  const RefCertificate none = issuedHandle(
      {.issuer = &ca, .subjectKeyId = Pki::KeyId::Absent, .authorityKeyId = Pki::KeyId::Absent});
  EXPECT_TRUE(none->subjectKeyIdentifier().empty());
  EXPECT_TRUE(none->authorityKeyIdentifier().empty());
}

TEST(Certificate, KeyUsage_BitsOfOpenSSLAndUnrestrictedWithoutTheExtension) {
  EXPECT_EQ(issuedHandle({.keyUsage = KU_CRL_SIGN})->keyUsage(), 0x02U);
  EXPECT_EQ(issuedHandle({.keyUsage = KU_KEY_CERT_SIGN | KU_CRL_SIGN})->keyUsage(), 0x06U);
  EXPECT_EQ(issuedHandle({.keyUsage = KU_DIGITAL_SIGNATURE})->keyUsage(), 0x80U);
  EXPECT_EQ(issuedHandle({.keyUsage = KU_DECIPHER_ONLY | KU_KEY_AGREEMENT})->keyUsage(), 0x8008U);
  EXPECT_EQ(issuedHandle({.keyUsage = Pki::kAbsent})->keyUsage(), ~0U);
  // An extension that grants nothing is a restriction.
  EXPECT_EQ(issuedHandle(
                {.keyUsage = Pki::kAbsent, .rawExtensions = {{"2.5.29.15", true, "\x03\x01\0"s}}})
                ->keyUsage(),
            0U);
}

TEST(Certificate, IsCACert_TheBitOfBasicConstraints) {
  EXPECT_TRUE(issuedHandle({.ca = true})->isCACert());
  EXPECT_TRUE(issuedHandle({.ca = true, .keyUsage = Pki::kAbsent})->isCACert());
  EXPECT_FALSE(issuedHandle({.ca = false})->isCACert());
  EXPECT_FALSE(issuedHandle({.basicConstraints = false})->isCACert());
  EXPECT_FALSE(issuedHandle({.basicConstraints = false, .keyUsage = KU_KEY_CERT_SIGN})->isCACert());
}

TEST(Certificate, IsSelfSigned_ByNamesAndKeyIdentifiers) {
  const Pki::Issued root = Pki::issueCA("CN=CA");
  EXPECT_TRUE(Pki::handle(root)->isSelfSigned());
  EXPECT_FALSE(issuedHandle({.subject = "CN=Leaf", .issuer = &root})->isSelfSigned());
  // Self-issued: the same name on both sides, another key. This is how a CA changes its key.
  EXPECT_FALSE(issuedHandle({.subject = "CN=CA", .issuer = &root, .ca = true})->isSelfSigned());
  // The signature is not looked at.
  EXPECT_TRUE(issuedHandle({.subject = "CN=CA", .badSignature = true})->isSelfSigned());
}

TEST(Certificate, IssuedBy_NamesOnlyOrWithTheSignature) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const Pki::Issued sameName = Pki::issueCA("CN=CA");
  const Pki::Issued otherName = Pki::issueCA("CN=Other");
  const Pki::Issued notForSigning =
      Pki::issue({.subject = "CN=CA", .ca = true, .keyUsage = KU_CRL_SIGN, .key = ca.key});
  const Pki::Issued unrestricted =
      Pki::issue({.subject = "CN=CA", .keyUsage = Pki::kAbsent, .key = ca.key});
  const RefCertificate leaf = issuedHandle({.subject = "CN=Leaf", .issuer = &ca});
  const RefCertificate vague =
      issuedHandle({.subject = "CN=Leaf", .issuer = &ca, .authorityKeyId = Pki::KeyId::Absent});
  const RefCertificate forged =
      issuedHandle({.subject = "CN=Leaf", .issuer = &ca, .badSignature = true});

  struct Row {
    const char* name;
    const RefCertificate& subject;
    RefCertificate issuer;
    bool names;
    bool signature;
  };
  const Row rows[] = {
      {"the issuer", leaf, Pki::handle(ca), true, true},
      {"same name, other key id", leaf, Pki::handle(sameName), false, false},
      {"same name, no key id to compare", vague, Pki::handle(sameName), true, false},
      {"other name", leaf, Pki::handle(otherName), false, false},
      {"key usage without keyCertSign", leaf, Pki::handle(notForSigning), false, false},
      {"no key usage, not a CA", leaf, Pki::handle(unrestricted), true, true},
      {"bad signature", forged, Pki::handle(ca), true, false},
      {"itself", leaf, leaf, false, false},
      {"nobody", leaf, RefCertificate(), false, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.subject->issuedBy(row.issuer, true), row.names);
    EXPECT_EQ(row.subject->issuedBy(row.issuer, false), row.signature);
  }
}

TEST(Certificate, Find_TheExtensionOrNothing) {
  const RefCertificate certificate =
      issuedHandle({.extensions = {{"subjectAltName", "critical,email:a@b.example"}},
                    .rawExtensions = {{"1.2.3.4", false, "\x05\0"s}}});
  const RefExtension alternative = certificate->find(ASN1::RefObjectIdentifier("2.5.29.17"));
  ASSERT_FALSE(alternative.empty());
  EXPECT_EQ(alternative->oid(), "2.5.29.17");
  EXPECT_TRUE(alternative->critical());
  ASSERT_NE(alternative->native(), nullptr);
  const RefExtension own = certificate->find(ASN1::RefObjectIdentifier("1.2.3.4"));
  ASSERT_FALSE(own.empty());
  EXPECT_EQ(own->oid(), "1.2.3.4");
  EXPECT_FALSE(own->critical());
  EXPECT_TRUE(certificate->find(ASN1::RefObjectIdentifier("1.2.3.5")).empty());
  EXPECT_THROW(static_cast<void>(certificate->find(ASN1::RefObjectIdentifier())), Exception);
}

TEST(Certificate, FoundExtension_OutlivesTheCertificate) {
  RefExtension found;
  {
    const RefCertificate certificate =
        issuedHandle({.rawExtensions = {{"1.2.3.4", false, "\x05\0"s}}});
    found = certificate->find(ASN1::RefObjectIdentifier("1.2.3.4"));
  }
  EXPECT_EQ(found->oid(), "1.2.3.4");
}

// What a getter must never take for "absent".
TEST(Certificate, ExtensionBrokenOrTwice_ItsGetterThrowsAndTheOthersWork) {
  using Getter = std::function<void(const RefCertificate&)>;
  struct Kind {
    const char* oid;
    std::string good;
    Getter get;
  };
  const Kind kinds[] = {
      {"2.5.29.14", "\x04\x01\x07"s, [](const RefCertificate& c) { c->subjectKeyIdentifier(); }},
      {"2.5.29.35", "\x30\x03\x80\x01\x07"s,
       [](const RefCertificate& c) { c->authorityKeyIdentifier(); }},
      {"2.5.29.15", "\x03\x02\x01\x06"s,
       [](const RefCertificate& c) { static_cast<void>(c->keyUsage()); }},
      {"2.5.29.19", "\x30\x03\x01\x01\xff"s,
       [](const RefCertificate& c) { static_cast<void>(c->isCACert()); }},
      {"2.5.29.31", "\x30\0"s, [](const RefCertificate& c) { c->crlDistributionPoints(); }},
  };
  for (const Kind& kind : kinds) {
    SCOPED_TRACE(kind.oid);
    const auto with = [](const std::vector<Pki::RawExtension>& extensions) {
      return issuedHandle({.basicConstraints = false,
                           .keyUsage = Pki::kAbsent,
                           .subjectKeyId = Pki::KeyId::Absent,
                           .authorityKeyId = Pki::KeyId::Absent,
                           .rawExtensions = extensions});
    };
    const Pki::RawExtension good{kind.oid, false, kind.good};
    EXPECT_NO_THROW(kind.get(with({})));
    EXPECT_NO_THROW(kind.get(with({good})));
    for (const std::string& broken :
         {""s, "\x05\0"s, "\xff\xff"s, kind.good + "\0"s, kind.good + kind.good,
          kind.good.substr(0, kind.good.size() - 1)}) {
      const RefCertificate certificate = with({{kind.oid, false, broken}});
      try {
        kind.get(certificate);
        FAIL() << "read: " << ::testing::PrintToString(broken);
      } catch (const Exception& e) {
        EXPECT_EQ(e.code(), 4);
        EXPECT_NE(e.asString().find("cannot be decoded"), std::string::npos) << e.asString();
      }
      EXPECT_EQ(certificate->subject().asString(), "CN=Test");
      EXPECT_FALSE(certificate->find(ASN1::RefObjectIdentifier(kind.oid)).empty());
      for (const Kind& other : kinds) {
        if (&other != &kind) {
          EXPECT_NO_THROW(other.get(certificate));
        }
      }
    }
    const RefCertificate twice = with({good, good});
    EXPECT_THROW(kind.get(twice), Exception);
    EXPECT_THROW(twice->find(ASN1::RefObjectIdentifier(kind.oid)), Exception);
  }
}

TEST(Certificate, MalformedExtensions_NeverAnIssuerNorKnownToBeSelfSigned) {
  const Pki::Issued broken = Pki::issue({.subject = "CN=CA",
                                         .ca = true,
                                         .keyUsage = Pki::kAbsent,
                                         .rawExtensions = {{"2.5.29.15", true, "\xff"s}}});
  const RefCertificate leaf =
      issuedHandle({.issuer = &broken, .authorityKeyId = Pki::KeyId::Absent});
  EXPECT_FALSE(leaf->issuedBy(Pki::handle(broken), true));
  EXPECT_FALSE(leaf->issuedBy(Pki::handle(broken), false));
  EXPECT_THROW(static_cast<void>(Pki::handle(broken)->isSelfSigned()), Exception);
}

TEST(Certificate, Key_VerifiesWhatItSigned) {
  const Pki::Issued issued = Pki::issueCA("CN=CA");
  const RefKey key = Pki::handle(issued)->key();
  ASSERT_FALSE(key.empty());
  EXPECT_EQ(EVP_PKEY_eq(key->keyData(), issued.key.get()), 1);
  EXPECT_EQ(X509_verify(issued.get(), key->keyData()), 1);
}

TEST(Certificate, KeyOfUnknownAlgorithm_ThrowsAndIsNotSelfSigned) {
  std::string der = Pki::der(Pki::issueCA("CN=CA").cert.get());
  // id-ecPublicKey with its last arc changed to one that is not assigned.
  const std::string algorithm = "\x06\x07\x2a\x86\x48\xce\x3d\x02\x01"s;
  const std::size_t at = der.find(algorithm);
  ASSERT_NE(at, std::string::npos);
  der[at + algorithm.size() - 1] = 0x7e;
  const RefCertificate certificate = CertificateFactory()(Pki::certFromDer(der).release(), true);
  EXPECT_THROW(certificate->key(), Exception);
  EXPECT_FALSE(certificate->isSelfSigned());
}

TEST(Certificate, IssuedByAKeyOfUnknownAlgorithm_NeverAndNoErrorIsLeft) {
  const Pki::Issued root = Pki::issueCA("CN=CA");
  const RefCertificate leaf = Pki::handle(Pki::issue({.subject = "CN=Leaf", .issuer = &root}));
  std::string der = Pki::der(root.get());
  const std::string algorithm = "\x06\x07\x2a\x86\x48\xce\x3d\x02\x01"s;
  const std::size_t at = der.find(algorithm);
  ASSERT_NE(at, std::string::npos);
  der[at + algorithm.size() - 1] = 0x7e;
  const RefCertificate issuer = CertificateFactory()(Pki::certFromDer(der).release(), true);
  ERR_clear_error();
  EXPECT_FALSE(leaf->issuedBy(issuer, true));  // X509_check_issued() wants to know the key's kind
  EXPECT_FALSE(leaf->issuedBy(issuer, false));
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(Certificate, WritePEM_OneBlockThatOpenSSLReadsBack) {
  const Pki::Issued issued = Pki::issueCA("CN=CA");
  StringMediaOut out;
  Pki::handle(issued)->writePEM(out);
  EXPECT_EQ(out.text(), Pki::pem(issued.cert.get()));
}

TEST(RefCertificate, Compared_ByContentAndEmptiness) {
  const Pki::Issued issued = Pki::issueCA("CN=CA");
  const RefCertificate one = Pki::handle(issued);
  const RefCertificate same = CertificateFactory()(X509_dup(issued.get()), true);
  const RefCertificate other = issuedHandle({.subject = "CN=CA"});
  EXPECT_NE(one->native(), same->native());
  EXPECT_TRUE(one == same);
  EXPECT_FALSE(one != same);
  EXPECT_TRUE(one != other);
  EXPECT_TRUE(one != RefCertificate());
  EXPECT_FALSE(RefCertificate() == one);
  EXPECT_TRUE(RefCertificate() == RefCertificate());
}

TEST(RefCertificate, Conversion_TheSameX509OrNull) {
  const Pki::Issued issued = Pki::issueCA("CN=CA");
  const RefCertificate certificate = Pki::handle(issued);
  X509* native = certificate;
  EXPECT_EQ(native, issued.get());
  EXPECT_EQ(certificate->native(), issued.get());
  EXPECT_EQ(static_cast<x509_st*>(RefCertificate()), nullptr);
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
