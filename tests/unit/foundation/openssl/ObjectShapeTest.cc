#include "foundation/openssl/Der.h"
#include "foundation/openssl/ObjectShape.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Bulk.h"
#include "support/Pki.h"

#include <openssl/err.h>
#include <openssl/pkcs12.h>
#include <openssl/pkcs7.h>

#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace Velantrix::Crypto {
namespace {

namespace Pki = Velantrix::Test;

using namespace std::string_literals;

struct Kind {
  const char* name;
  ObjectKind kind;
  const ASN1_ITEM* item;
};

const std::vector<Kind>& allKinds() {
  static const std::vector<Kind> all = {
      {"certificate", ObjectKind::kCertificate, ASN1_ITEM_rptr(X509)},
      {"CRL", ObjectKind::kCRL, ASN1_ITEM_rptr(X509_CRL)},
      {"request", ObjectKind::kRequest, ASN1_ITEM_rptr(X509_REQ)},
      {"public key", ObjectKind::kPublicKey, ASN1_ITEM_rptr(X509_PUBKEY)},
      {"private key", ObjectKind::kPrivateKey, ASN1_ITEM_rptr(PKCS8_PRIV_KEY_INFO)},
      {"encrypted key", ObjectKind::kEncryptedKey, ASN1_ITEM_rptr(X509_SIG)},
      {"PKCS #7", ObjectKind::kPkcs7, ASN1_ITEM_rptr(PKCS7)},
      {"PKCS #12", ObjectKind::kPkcs12, ASN1_ITEM_rptr(PKCS12)},
  };
  return all;
}

std::string encoded(const void* object, const ASN1_ITEM* item) {
  unsigned char* der = nullptr;
  const int length = ASN1_item_i2d(static_cast<const ASN1_VALUE*>(object), &der, item);
  const OwnedMemory<unsigned char> owner(der);
  EXPECT_GT(length, 0);
  return std::string(reinterpret_cast<const char*>(der), static_cast<std::size_t>(length));
}

bool decodes(const std::string& der, const ASN1_ITEM* item) {
  const ErrorScope errors;
  const unsigned char* end = octets(der);
  ASN1_VALUE* value = ASN1_item_d2i(nullptr, &end, static_cast<long>(der.size()), item);
  ASN1_item_free(value, item);
  return value != nullptr && end == octets(der) + der.size();
}

template <class Object>
struct FreedBy {
  void (*free)(Object*);
  void operator()(Object* object) const { free(object); }
};

template <class Object>
std::unique_ptr<Object, FreedBy<Object>> freedBy(Object* object, void (*free)(Object*)) {
  EXPECT_NE(object, nullptr);
  return {object, {free}};
}

std::string request(const Pki::Issued& issued) {
  const auto made =
      freedBy(X509_to_X509_REQ(issued.get(), issued.key.get(), EVP_sha256()), X509_REQ_free);
  return encoded(made.get(), ASN1_ITEM_rptr(X509_REQ));
}

std::string requestWithAttributes(const Pki::Issued& issued) {
  const auto made =
      freedBy(X509_to_X509_REQ(issued.get(), issued.key.get(), EVP_sha256()), X509_REQ_free);
  for (const int type : {NID_pkcs9_challengePassword, NID_pkcs9_unstructuredName}) {
    EXPECT_EQ(X509_REQ_add1_attr_by_NID(made.get(), type, MBSTRING_ASC,
                                        reinterpret_cast<const unsigned char*>("word"), -1),
              1);
  }
  EXPECT_GT(X509_REQ_sign(made.get(), issued.key.get(), EVP_sha256()), 0);
  return encoded(made.get(), ASN1_ITEM_rptr(X509_REQ));
}

std::string encryptedKey(const Pki::Issued& issued) {
  const auto key = freedBy(EVP_PKEY2PKCS8(issued.key.get()), PKCS8_PRIV_KEY_INFO_free);
  unsigned char salt[] = "salt";
  const auto made = freedBy(PKCS8_encrypt(-1, EVP_aes_128_cbc(), "word", 4, salt, 4, 1, key.get()),
                            X509_SIG_free);
  return encoded(made.get(), ASN1_ITEM_rptr(X509_SIG));
}

std::string pkcs7(const Pki::Issued& issued) {
  const auto made = freedBy(PKCS7_new(), PKCS7_free);
  EXPECT_EQ(PKCS7_set_type(made.get(), NID_pkcs7_signed), 1);
  EXPECT_EQ(PKCS7_content_new(made.get(), NID_pkcs7_data), 1);
  EXPECT_EQ(PKCS7_add_certificate(made.get(), issued.get()), 1);
  return encoded(made.get(), ASN1_ITEM_rptr(PKCS7));
}

std::string pkcs12(const Pki::Issued& issued) {
  const auto made =
      freedBy(PKCS12_create("word", "name", issued.key.get(), issued.get(), nullptr, 0, 0, 1, 1, 0),
              PKCS12_free);
  return encoded(made.get(), ASN1_ITEM_rptr(PKCS12));
}

struct Sample {
  ObjectKind kind;
  std::string der;
};

std::vector<Sample> samples() {
  const Pki::Issued issued = Pki::issueCA("CN=CA,O=Test");
  const auto key = freedBy(EVP_PKEY2PKCS8(issued.key.get()), PKCS8_PRIV_KEY_INFO_free);
  // Version 1 is not said.
  using namespace Velantrix::Test::Bulk;
  const std::string oldCertificate = sequence(
      sequence("\x02\x01\x05"s + kAlgorithm + name("ca") + sequence(kFrom + kTo) + name("leaf") +
               sequence(kAlgorithm + element(0x03, std::string(33, '\0')))) +
      kAlgorithm + kNoSignature);
  const std::string oldCRL =
      sequence(sequence(kAlgorithm + name("ca") + kFrom) + kAlgorithm + kNoSignature);
  return {
      {ObjectKind::kCertificate, Pki::der(issued.get())},
      {ObjectKind::kCertificate, oldCertificate},
      {ObjectKind::kCRL,
       Pki::der(Pki::makeCRL({.issuer = &issued, .revoked = {{.serial = 7}}}).get())},
      {ObjectKind::kCRL, oldCRL},
      {ObjectKind::kRequest, request(issued)},
      {ObjectKind::kRequest, requestWithAttributes(issued)},
      {ObjectKind::kPublicKey,
       encoded(X509_get_X509_PUBKEY(issued.get()), ASN1_ITEM_rptr(X509_PUBKEY))},
      {ObjectKind::kPrivateKey, encoded(key.get(), ASN1_ITEM_rptr(PKCS8_PRIV_KEY_INFO))},
      {ObjectKind::kEncryptedKey, encryptedKey(issued)},
      {ObjectKind::kPkcs7, pkcs7(issued)},
      {ObjectKind::kPkcs12, pkcs12(issued)},
  };
}

// Every kind whose decoder takes it is possible, and it is known when there is one.
void expectAsDecoded(const std::string& der) {
  const ObjectKinds possible = ObjectKinds::possible(octets(der), der.size());
  bool known = false;
  for (const Kind& kind : allKinds()) {
    if (!decodes(der, kind.item)) continue;
    known = true;
    EXPECT_TRUE(possible.has(kind.kind)) << kind.name << ' ' << testing::PrintToString(der);
  }
  EXPECT_EQ(isKnownObject(octets(der), der.size()), known) << testing::PrintToString(der);
}

TEST(ObjectShape, EachKind_IsTheOnlyOneThatIsPossible) {
  ERR_clear_error();
  for (const Sample& sample : samples()) {
    SCOPED_TRACE(testing::PrintToString(sample.der));
    expectAsDecoded(sample.der);
    EXPECT_TRUE(isKnownObject(octets(sample.der), sample.der.size()));
    const ObjectKinds possible = ObjectKinds::possible(octets(sample.der), sample.der.size());
    for (const Kind& kind : allKinds()) {
      // Both kinds of PKCS begin with a version.
      const bool versions =
          (sample.kind == ObjectKind::kPrivateKey || sample.kind == ObjectKind::kPkcs12) &&
          (kind.kind == ObjectKind::kPrivateKey || kind.kind == ObjectKind::kPkcs12);
      EXPECT_EQ(possible.has(kind.kind), kind.kind == sample.kind || versions) << kind.name;
    }
  }
  EXPECT_EQ(ERR_peek_error(), 0UL);
}

// Among them lengths that are indefinite, tags of strings in pieces, and types that take another.
TEST(ObjectShape, DamagedObjects_AreWhatTheDecodersSay) {
  std::mt19937 random(7);
  const auto below = [&random](std::size_t bound) { return random() % bound; };
  for (const Sample& sample : samples()) {
    for (int i = 0; i < 300; ++i) {
      std::string der = sample.der;
      const std::size_t place = below(i % 2 == 0 ? der.size() : std::size_t{60} % der.size());
      constexpr char kOctets[] = {'\x30', '\x31', '\x02', '\x03', '\x04', '\x06', '\x17',
                                  '\x18', '\xa0', '\xa3', '\x80', '\x00', '\x24', '\x23'};
      der[place] = i % 3 == 0 ? static_cast<char>(random()) : kOctets[below(sizeof kOctets)];
      expectAsDecoded(der);
    }
  }
}

// The smallest of each kind, and what is almost one.
TEST(ObjectShape, SmallObjects_AreWhatTheDecodersSay) {
  using namespace Velantrix::Test::Bulk;
  const std::vector<std::string> types = {"\x06\x01\x2a"s,
                                          "\x06\0"s,
                                          "\x06\x01\x80"s,
                                          "\x06\x02\x80\x01"s,
                                          "\x06\x02\x81\x01"s,
                                          "\x26\x03\x06\x01\x2a"s,
                                          element(0x06, std::string(64, '\x2a')),
                                          element(0x06, std::string(65, '\x2a')),
                                          element(0x06, std::string(600, '\x2a')),
                                          "\x06\x09\x2a\x86\x48\x86\xf7\x0d\x01\x07\x02"s};
  const std::vector<std::string> parameters = {
      ""s, "\x05\0"s, "\x05\x01\0"s, "\x30\0"s, "\x01\x01\xff"s, "\x01\0"s, "\x05\0\x05\0"s};
  const std::vector<std::string> values = {""s,
                                           "\x03\x01\0"s,
                                           "\x03\0"s,
                                           "\x03\x01\x07"s,
                                           "\x03\x01\x08"s,
                                           "\x03\x02\x01\xff"s,
                                           "\x23\x03\x03\x01\0"s,
                                           "\x04\0"s,
                                           "\x24\0"s,
                                           "\x04\x01x"s,
                                           "\xa0\0"s,
                                           "\xa0\x02\x05\0"s,
                                           "\x04\0\xa0\0"s,
                                           "\x04\0\x04\0"s};
  const std::vector<std::string> versions = {""s,
                                             "\x02\x01\0"s,
                                             "\x02\0"s,
                                             "\x02\x01\x01"s,
                                             "\x02\x01\x02"s,
                                             "\x02\x02\0\0"s,
                                             "\x02\x02\x01\0"s,
                                             "\x02\x01\xff"s};
  for (const std::string& type : types) {
    for (const std::string& value : values) {
      expectAsDecoded(sequence(type + value));
      for (const std::string& parameter : parameters) {
        const std::string algorithm = sequence(type + parameter);
        for (const std::string& version : versions) {
          expectAsDecoded(sequence(version + algorithm + value));
        }
        const std::string key = sequence(algorithm + "\x03\x01\0"s);
        expectAsDecoded(sequence(sequence("\x02\x01\0\x30\0"s + key) + algorithm + value));
        expectAsDecoded(sequence(sequence("\x02\x01\0\x30\0"s + key + value) +
                                 "\x30\x03\x06\x01\x2a\x03\x01\0"s));
      }
    }
  }
}

// Each SEQUENCE in turn has no length, and two octets of zero at its end.
TEST(ObjectShape, IndefiniteLengths_AreWhatTheDecodersSay) {
  int taken = 0;
  for (const Sample& sample : samples()) {
    for (std::size_t place = 0; place + 2 < sample.der.size() && place < 80; ++place) {
      const unsigned char* const der = octets(sample.der);
      const std::optional<DerHeader> header = derHeader(der + place, der + sample.der.size());
      if (!header || !header->isWholeSequence()) continue;
      const auto begin = static_cast<std::size_t>(header->content - der);
      const auto end = static_cast<std::size_t>(header->next - der);
      const std::string changed = sample.der.substr(0, place) + "\x30\x80"s +
                                  sample.der.substr(begin, end - begin) + "\0\0"s +
                                  sample.der.substr(end);
      // What is around it is longer or shorter now; only the outermost one is whole as it is.
      expectAsDecoded(changed);
      if (isKnownObject(octets(changed), changed.size())) ++taken;
    }
  }
  EXPECT_GT(taken, 5);
}

TEST(ObjectShape, NoObject_IsOfNoKind) {
  for (const std::string& der :
       {""s, "\x30"s, "\x30\0"s, "\x30\x03\x02\x01\x01"s, "\x30\x02\x30\0"s, "\x02\x01\x01"s,
        "\x30\x80\0\0"s, "hello"s, "\x30\x04\x30\x02\x05\0"s}) {
    expectAsDecoded(der);
    EXPECT_FALSE(isKnownObject(octets(der), der.size()));
  }
}

}  // namespace
}  // namespace Velantrix::Crypto
