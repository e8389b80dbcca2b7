#include "revocation/OCSPSigner.h"
#include "unit/revocation/OCSPWorld.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

const ConfigExtension kOCSPSigning = {"extendedKeyUsage", "OCSPSigning"};

struct SignerWorld : OCSPWorld {
  Issued delegate(CertificateOptions options = {}) const {
    options.subject = "CN=Responder";
    if (options.issuer == nullptr) options.issuer = &ca;
    if (options.extensions.empty()) options.extensions = {kOCSPSigning};
    return issue(options);
  }
  std::string verdictOf(const CertificateOptions& options) const {
    const Issued signer = delegate(options);
    return verdict({.signer = &signer});
  }
};

TEST(OCSPSigner, CAItself_MayAnswer) {
  const SignerWorld world;
  for (const bool byKey : {false, true}) {
    for (const bool sent : {false, true}) {
      const OCSPReading reading =
          world.read({.signer = &world.ca, .byKey = byKey, .certificates = sent});
      EXPECT_EQ(wordFor(reading), "good");
      EXPECT_TRUE(reading.delegate.empty());
      EXPECT_EQ(reading.statement.responder->subject().asString(), "CN=CA");
    }
  }
}

TEST(OCSPSigner, Delegate_MayAnswerAndIsHandedOn) {
  const SignerWorld world;
  const Issued signer = world.delegate();
  for (const bool byKey : {false, true}) {
    const OCSPReading reading = world.read({.signer = &signer, .byKey = byKey});
    EXPECT_EQ(wordFor(reading), "good");
    EXPECT_EQ(reading.delegate, handle(signer));
    EXPECT_EQ(reading.statement.responder->subject().asString(), "CN=Responder");
    EXPECT_FALSE(reading.delegateNeedsNoCheck);
  }
}

// RFC 6960, 4.2.2.2
TEST(OCSPSigner, Delegate_IsWhoTheCADesignated) {
  const SignerWorld world;
  const Issued namesake = issueCA("CN=CA");
  const Issued root = issueCA("CN=Root");
  const Issued subordinate = issueCA("CN=Subordinate", &world.ca);
  const struct {
    const char* name;
    CertificateOptions options;
    const char* expected;
  } rows[] = {
      {"as it has to be", {}, "good"},
      {"among other purposes",
       {.extensions = {{"extendedKeyUsage", "critical,serverAuth,OCSPSigning"}}},
       "good"},
      {"nonRepudiation", {.keyUsage = KU_NON_REPUDIATION}, "good"},
      {"digitalSignature", {.keyUsage = KU_DIGITAL_SIGNATURE}, "good"},
      {"no key usage", {.keyUsage = kAbsent}, "good"},
      {"other key usage", {.keyUsage = KU_KEY_ENCIPHERMENT | KU_CRL_SIGN}, "signer not allowed"},
      {"key usage that cannot be read",
       {.keyUsage = kAbsent, .rawExtensions = {{"2.5.29.15", false, "\x30\x01"s}}},
       "signer not allowed"},
      {"any purpose",
       {.extensions = {{"extendedKeyUsage", "anyExtendedKeyUsage"}}},
       "signer not allowed"},
      {"other purposes",
       {.extensions = {{"extendedKeyUsage", "serverAuth,clientAuth"}}},
       "signer not allowed"},
      {"no purpose", {.extensions = {{"subjectAltName", "DNS:a.test"}}}, "signer not allowed"},
      {"purpose twice",
       {.rawExtensions = {{"2.5.29.37", false,
                           "\x30\x0a\x06\x08\x2b\x06\x01\x05\x05\x07\x03\x09"s}}},
       "signer not allowed"},
      {"purposes that cannot be read",
       {.extensions = {{"subjectAltName", "DNS:a.test"}},
        .rawExtensions = {{"2.5.29.37", false, "\x30\x01"s}}},
       "signer not allowed"},
      {"of another issuer", {.issuer = &root}, "signer not allowed"},
      {"of an issuer below the CA", {.issuer = &subordinate}, "signer not allowed"},
      {"of the CA's name by another key", {.issuer = &namesake}, "signer not allowed"},
      {"of another name by the CA's key", {.issuerName = "CN=Other"}, "signer not allowed"},
      {"signature of the CA that is wrong", {.badSignature = true}, "signer not allowed"},
  };
  for (const auto& row : rows) EXPECT_EQ(world.verdictOf(row.options), row.expected) << row.name;
}

TEST(OCSPSigner, AnybodyElse_MayNotAnswer) {
  const SignerWorld world;
  const Issued stranger = issueCA("CN=Stranger");
  const Issued namesake = issueCA("CN=CA");
  const Issued other = issue({.subject = "CN=Other", .issuer = &world.ca});
  const Issued signer = world.delegate();
  const struct {
    const char* name;
    OCSPAnswer answer;
    const char* expected;
  } rows[] = {
      {"a stranger", {.signer = &stranger}, "signer not allowed"},
      {"a stranger who is not there",
       {.signer = &stranger, .certificates = false},
       "signer unknown"},
      {"a stranger who is not there, by key",
       {.signer = &stranger, .byKey = true, .certificates = false},
       "signer unknown"},
      {"a delegate who is not there", {.signer = &signer, .certificates = false}, "signer unknown"},
      {"another certificate of the CA", {.signer = &other}, "signer not allowed"},
      {"the certificate in question", {.signer = &world.leaf}, "signer not allowed"},
      {"one of the CA's name", {.signer = &namesake}, "wrong signature"},
      {"a key that is not the CA's", {.signer = &world.ca, .key = stranger.key}, "wrong signature"},
      {"a key that is not the delegate's",
       {.signer = &signer, .key = stranger.key},
       "wrong signature"},
      {"another's signature", {.signer = &world.ca, .badSignature = true}, "wrong signature"},
      {"data changed afterwards", {.signer = &world.ca, .tampered = true}, "wrong signature"},
      {"a delegate's changed afterwards", {.signer = &signer, .tampered = true}, "wrong signature"},
  };
  for (const auto& row : rows) EXPECT_EQ(world.verdict(row.answer), row.expected) << row.name;
  EXPECT_EQ(ERR_peek_error(), 0U);
}

// Nobody is asked about himself.
TEST(OCSPSigner, CertificateInQuestion_MayNotAnswerUnderAnyCertificate) {
  SignerWorld world;
  const Issued responder = world.delegate();
  const Issued sameKey = issue({.subject = "CN=Responder",
                                .issuer = &world.ca,
                                .extensions = {kOCSPSigning},
                                .key = responder.key});
  const OCSPQuestion question(handle(responder), handle(world.ca));
  for (const Issued& signer : {responder, sameKey}) {
    const std::string answer = ocspAnswer({.signer = &signer}, question.request());
    EXPECT_EQ(wordFor(question.read({.object = answer}, world.settings, world.moment)),
              "signer not allowed");
    // Not even where the operator says that it may speak about any certificate.
    RevocationSettings settings;
    settings.ocspResponders.push_back(handle(signer));
    EXPECT_EQ(wordFor(question.read({.object = answer}, settings, world.moment)),
              "signer not allowed");
  }
  const Issued other = world.delegate();
  const std::string answer = ocspAnswer({.signer = &other}, question.request());
  EXPECT_EQ(wordFor(question.read({.object = answer}, world.settings, world.moment)), "good");
}

// RFC 6960, 4.2.1: KeyHash is of the key, whatever the certificate says about itself.
TEST(OCSPSigner, KeyHash_IsComputed) {
  const SignerWorld world;
  const Issued absent = world.delegate({.subjectKeyId = KeyId::Absent});
  const Issued wrong = world.delegate({.subjectKeyId = KeyId::Wrong});
  EXPECT_EQ(world.verdict({.signer = &absent, .byKey = true}), "good");
  EXPECT_EQ(world.verdict({.signer = &wrong, .byKey = true}), "good");
  // A delegate of the CA whose identifier is that of the key that the answer names.
  const Owned<ASN1_OCTET_STRING> identifier(static_cast<ASN1_OCTET_STRING*>(
      X509_get_ext_d2i(wrong.get(), NID_subject_key_identifier, nullptr, nullptr)));
  const std::string claimed(reinterpret_cast<const char*>(ASN1_STRING_get0_data(identifier.get())),
                            static_cast<std::size_t>(ASN1_STRING_length(identifier.get())));
  const auto claim = [&](std::string& data) {
    data.replace(data.find("\xa2\x16\x04\x14") + 4, claimed.size(), claimed);
  };
  ASSERT_EQ(claimed.size(), 20U);
  EXPECT_EQ(world.verdict({.signer = &wrong, .byKey = true, .changeData = claim}),
            "signer unknown");
}

TEST(OCSPSigner, KeyHash_IsAllOfIt) {
  const SignerWorld world;
  const auto with = [&](int length) {
    const auto resize = [length](std::string& data) {
      std::vector<std::string> parts = elementsOf(contentOf(data));
      std::string hash = contentOf(contentOf(parts.at(0)));
      hash.resize(static_cast<std::size_t>(length));
      data = derElement(
          0x30, derElement(0xa2, derElement(0x04, hash)) + parts.at(1) + parts.at(2) + parts.at(3));
    };
    return world.verdict({.signer = &world.ca, .byKey = true, .changeData = resize});
  };
  EXPECT_EQ(with(20), "good");
  for (const int length : {0, 1, 19, 21, 32}) EXPECT_EQ(with(length), "signer unknown") << length;
}

TEST(OCSPSigner, Namesakes_AreAllTried) {
  const SignerWorld world;
  const Issued signer = world.delegate();
  const Issued first = world.delegate();
  const Issued stranger = issue({.subject = "CN=Responder"});
  const OCSPReading reading =
      world.read({.signer = &signer, .firstCertificates = {&stranger, &first}});
  EXPECT_EQ(wordFor(reading), "good");
  EXPECT_EQ(reading.delegate, handle(signer));
}

TEST(OCSPSigner, NamesakesThatAStrangerSends_AreTriedToALimit) {
  const SignerWorld world;
  const Issued signer = world.delegate();
  const Issued namesake = world.delegate();
  const Issued other = issue({.subject = "CN=Other", .issuer = &world.ca});
  const auto after = [&](std::size_t count, const Issued& one) {
    return world.verdict(
        {.signer = &signer, .firstCertificates = std::vector<const Issued*>(count, &one)});
  };
  EXPECT_EQ(after(15, namesake), "good");
  EXPECT_EQ(after(16, namesake), "wrong signature");
  // Others cost nothing.
  EXPECT_EQ(after(40, other), "good");
}

TEST(OCSPSigner, ConfiguredResponder_MayAnswerAboutAnyCertificate) {
  SignerWorld world;
  const Issued responder = issue({.subject = "CN=Ours"});
  const Issued namesake = issue({.subject = "CN=Ours"});
  EXPECT_EQ(world.verdict({.signer = &responder}), "signer not allowed");
  world.settings.ocspResponders = {RefCertificate(), handle(namesake), handle(responder)};
  for (const bool byKey : {false, true}) {
    for (const bool sent : {false, true}) {
      const OCSPReading reading =
          world.read({.signer = &responder, .byKey = byKey, .certificates = sent});
      EXPECT_EQ(wordFor(reading), "good");
      EXPECT_TRUE(reading.delegate.empty());
      EXPECT_EQ(reading.statement.responder->subject().asString(), "CN=Ours");
    }
  }
  EXPECT_EQ(world.verdict({.signer = &responder, .badSignature = true}), "wrong signature");
  EXPECT_EQ(world.verdict({.signer = &world.ca}), "good");
}

// It is what the operator says it is, also where the CA designated it.
TEST(OCSPSigner, ConfiguredResponderThatIsADelegateToo_IsNotHandedOn) {
  SignerWorld world;
  const Issued signer = world.delegate();
  world.settings.ocspResponders = {handle(signer)};
  const OCSPReading reading = world.read({.signer = &signer});
  EXPECT_EQ(wordFor(reading), "good");
  EXPECT_TRUE(reading.delegate.empty());
}

TEST(OCSPSigner, ConfiguredResponder_IsValidAtTheCheckTime) {
  SignerWorld world;
  const Issued responder =
      issue({.subject = "CN=Ours", .notBefore = "20240101000000Z", .notAfter = "20240201000000Z"});
  world.settings.ocspResponders = {handle(responder)};
  const auto at = [&](const char* time) {
    world.moment.checked = Time::then(When(time).time(), true);
    const When thisUpdate = When::at(When(time).time() - 60);
    return world.verdict(
        {.signer = &responder,
         .singles = {{.thisUpdate = thisUpdate, .nextUpdate = "20300101000000Z"}}});
  };
  EXPECT_EQ(at("20231231235959Z"), "signer not valid");
  EXPECT_EQ(at("20240101000000Z"), "good");
  EXPECT_EQ(at("20240201000000Z"), "good");
  EXPECT_EQ(at("20240201000001Z"), "signer not valid");
}

// The rest of its path is looked at by the caller.
TEST(OCSPSigner, Delegate_IsValidAtTheCheckTimeAndItsPredecessorDoesNotHideIt) {
  SignerWorld world;
  const Issued expired = world.delegate({.notAfter = -1h});
  const Issued renewed = world.delegate({.key = expired.key});
  EXPECT_EQ(world.verdict({.signer = &expired}), "signer not valid");
  const OCSPReading reading =
      world.read(OCSPAnswer{.signer = &renewed, .firstCertificates = {&expired}});
  EXPECT_EQ(wordFor(reading), "good");
  EXPECT_EQ(reading.delegate, handle(renewed));
  world.moment.checked = Time::then(-7200, false);
  EXPECT_EQ(world.read(OCSPAnswer{.signer = &expired, .singles = {{.thisUpdate = -3h}}}).delegate,
            handle(expired));
}

TEST(OCSPSigner, Signature_ReachesTheSecurityLevel) {
  SignerWorld world;
  const struct {
    int level;
    const EVP_MD* digest;
    const char* expected;
  } rows[] = {
      {0, EVP_sha1(), "good"},       {1, EVP_sha1(), "too weak"}, {2, EVP_sha224(), "good"},
      {3, EVP_sha224(), "too weak"}, {3, EVP_sha256(), "good"},   {4, EVP_sha256(), "too weak"},
      {4, EVP_sha512(), "too weak"}  // for the key
  };
  const Issued signer = world.delegate();
  for (const auto& row : rows) {
    world.settings.securityLevel = row.level;
    EXPECT_EQ(world.verdict({.signer = &world.ca, .digest = row.digest}), row.expected)
        << row.level;
    EXPECT_EQ(world.verdict({.signer = &signer, .digest = row.digest}), row.expected) << row.level;
  }
}

TEST(OCSPSigner, NoCheck_IsToldByItsValueNull) {
  const SignerWorld world;
  const RawExtension noCheck = {"1.3.6.1.5.5.7.48.1.5", false, "\x05\0"s};
  const struct {
    const char* name;
    std::vector<RawExtension> extensions;
    bool expected;
  } rows[] = {
      {"absent", {}, false},
      {"present", {noCheck}, true},
      {"twice", {noCheck, noCheck}, false},
      {"another value", {{"1.3.6.1.5.5.7.48.1.5", false, "\x30\0"s}}, false},
      {"no value", {{"1.3.6.1.5.5.7.48.1.5", false, ""}}, false},
  };
  for (const auto& row : rows) {
    const Issued signer = world.delegate({.rawExtensions = row.extensions});
    const OCSPReading reading = world.read({.signer = &signer});
    EXPECT_EQ(wordFor(reading), "good") << row.name;
    EXPECT_EQ(reading.delegateNeedsNoCheck, row.expected) << row.name;
  }
}

}  // namespace
}  // namespace Velantrix::Test
