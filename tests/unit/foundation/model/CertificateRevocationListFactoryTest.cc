#include "foundation/model/ObjectReader.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Files.h"
#include "support/PemBlock.h"
#include "support/Pki.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Exception.h>

#include <openssl/pem.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

using namespace std::string_literals;

// What would make a CRL pass for one of another scope or another place in a chain of deltas.
TEST(CertificateRevocationListFactory, ExtensionBrokenOrTwice_RefusesTheCRLNamingTheFile) {
  struct Kind {
    const char* oid;
    std::string good;
  };
  const Kind kinds[] = {
      {"2.5.29.28", "\x30\x03\x81\x01\xff"s},
      {"2.5.29.35", "\x30\x03\x80\x01\x07"s},
      {"2.5.29.20", "\x02\x01\x07"s},
      {"2.5.29.27", "\x02\x01\x07"s},
  };
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const Pki::TempDir directory;
  const auto with = [&ca](const std::vector<Pki::RawExtension>& extensions) {
    return Pki::makeCRL({.issuer = &ca,
                         .number = std::nullopt,
                         .authorityKeyId = Pki::KeyId::Absent,
                         .rawExtensions = extensions});
  };
  for (const Kind& kind : kinds) {
    SCOPED_TRACE(kind.oid);
    const Pki::RawExtension good{kind.oid, false, kind.good};
    EXPECT_FALSE(CertificateRevocationListFactory()(with({good}).release(), true).empty());
    std::vector<std::vector<Pki::RawExtension>> refused = {{good, good}};
    for (const std::string& broken : {""s, "\x05\0"s, "\xff\xff"s, kind.good + "\0"s,
                                      kind.good.substr(0, kind.good.size() - 1)}) {
      refused.push_back({{kind.oid, false, broken}});
      refused.push_back({good, {kind.oid, false, broken}});
    }
    for (const std::vector<Pki::RawExtension>& extensions : refused) {
      const Owned<X509_CRL> crl = with(extensions);
      const std::string file = (directory / "broken.r0").string();
      Pki::writeFile(file, Pki::pem(crl.get()));
      try {
        CertificateRevocationListFactory::read(File::Path(file));
        ADD_FAILURE() << "read";
      } catch (const Exception& e) {
        EXPECT_EQ(e.code(), 4);
        EXPECT_NE(e.asString().find(file), std::string::npos) << e.asString();
      }
      // Neither way leaks or frees what is the caller's.
      EXPECT_THROW(CertificateRevocationListFactory()(crl.get(), false), Exception);
      ASSERT_EQ(X509_CRL_up_ref(crl.get()), 1);
      EXPECT_THROW(CertificateRevocationListFactory()(crl.get(), true), Exception);
    }
  }
}

TEST(CertificateRevocationListFactory, FirstCRL_IsReadWithoutWhatFollows) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const Owned<X509_CRL> crl = Pki::makeCRL({.issuer = &ca});
  const auto first = [](const std::string& input) {
    return readFirstCRL(octets(input), input.size());
  };
  for (const std::string& input :
       {Pki::der(crl.get()), Pki::der(crl.get()) + "x", Pki::der(ca.get()) + Pki::der(crl.get()),
        Pki::pem(crl.get()) + "-----BEGIN X509 CRL-----\n!", "text\n" + Pki::pem(crl.get())}) {
    const RefCertificateRevocationList found = first(input);
    ASSERT_FALSE(found.empty());
    EXPECT_EQ(X509_CRL_cmp(found, crl.get()), 0);
  }
  EXPECT_TRUE(first("").empty());
  EXPECT_TRUE(first(Pki::der(ca.get())).empty());
  EXPECT_THROW(first("x" + Pki::der(crl.get())), Exception);
}

TEST(CertificateRevocationListFactory, TimeThatIsNone_RefusesTheCRL) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const std::string good = Pki::der(Pki::makeCRL({.issuer = &ca,
                                                  .lastUpdate = "20260101000000Z",
                                                  .nextUpdate = Pki::When("20260201000000Z")})
                                        .get());
  EXPECT_FALSE(CertificateRevocationListFactory::read(
                   Buffer(good.data(), static_cast<unsigned int>(good.size()), false))
                   .empty());
  for (const char* time : {"260101000000Z", "260201000000Z"}) {
    std::string broken = good;
    const std::size_t at = broken.find(time);
    ASSERT_NE(at, std::string::npos);
    broken[at + 2] = '9';  // month 91 or 92
    EXPECT_THROW(CertificateRevocationListFactory::read(
                     Buffer(broken.data(), static_cast<unsigned int>(broken.size()), false)),
                 Exception);
  }
}

TEST(CertificateRevocationListFactory, BrokenCRLAfterAGoodOne_RefusesTheFile) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const std::string good = Pki::pem(Pki::makeCRL({.issuer = &ca}).get());
  const std::string broken = Pki::pem(
      Pki::makeCRL({.issuer = &ca, .rawExtensions = {{"2.5.29.28", true, "\xff"s}}}).get());
  const std::string both = good + broken;
  EXPECT_THROW(CertificateRevocationListFactory::read(
                   Buffer(both.data(), static_cast<unsigned int>(both.size()), true)),
               Exception);
}

TEST(CertificateRevocationListFactory, OctetAfterTheCRLInABlock_RefusesTheInput) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  const std::string good = Pki::der(Pki::makeCRL({.issuer = &ca}).get());
  for (const std::string& after : {""s, "\0"s, good}) {
    const std::string pem = Pki::pemBlock(PEM_STRING_X509_CRL, good + after);
    const Buffer block(pem.data(), static_cast<unsigned int>(pem.size()), false);
    if (after.empty()) {
      EXPECT_FALSE(CertificateRevocationListFactory::read(block).empty());
    } else {
      EXPECT_THROW(CertificateRevocationListFactory::read(block), Exception);
    }
  }
}

TEST(CertificateRevocationListFactory, Wrapping_SharesOrAdoptsTheSameCRL) {
  const Pki::Issued ca = Pki::issueCA("CN=CA");
  Owned<X509_CRL> native = Pki::makeCRL({.issuer = &ca});
  X509_CRL* const pointer = native.get();
  {
    const RefCertificateRevocationList shared = CertificateRevocationListFactory()(pointer, false);
    EXPECT_EQ(shared->native(), pointer);
    EXPECT_EQ(static_cast<X509_crl_st*>(shared), pointer);
  }
  EXPECT_EQ(CertificateRevocationListFactory()(native.release(), true)->native(), pointer);
  EXPECT_TRUE(CertificateRevocationListFactory()(nullptr, false).empty());
  EXPECT_EQ(static_cast<X509_crl_st*>(RefCertificateRevocationList()), nullptr);
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
