#include "foundation/openssl/Der.h"
#include "foundation/openssl/SignatureInPieces.h"
#include "support/OCSPBuilder.h"
#include "support/Pki.h"

#include <openssl/dsa.h>
#include <openssl/rsa.h>

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using Crypto::isSignedInPieces;
using Crypto::kSignaturePiece;
using Crypto::octets;
using namespace std::string_literals;

using Context = std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)>;

std::shared_ptr<EVP_PKEY> made(EVP_PKEY* key) { return {key, EVP_PKEY_free}; }

std::shared_ptr<EVP_PKEY> dsaKey() {
  const Context forGroup(EVP_PKEY_CTX_new_id(EVP_PKEY_DSA, nullptr), EVP_PKEY_CTX_free);
  EVP_PKEY* group = nullptr;
  EXPECT_EQ(EVP_PKEY_paramgen_init(forGroup.get()), 1);
  EXPECT_EQ(EVP_PKEY_CTX_set_dsa_paramgen_bits(forGroup.get(), 1024), 1);
  EXPECT_EQ(EVP_PKEY_paramgen(forGroup.get(), &group), 1);
  const auto owner = made(group);
  const Context forKey(EVP_PKEY_CTX_new(group, nullptr), EVP_PKEY_CTX_free);
  EVP_PKEY* key = nullptr;
  EXPECT_EQ(EVP_PKEY_keygen_init(forKey.get()), 1);
  EXPECT_EQ(EVP_PKEY_keygen(forKey.get(), &key), 1);
  return made(key);
}

// One that may be used for PSS only, with SHA-256 and a salt of 32 octets at least.
std::shared_ptr<EVP_PKEY> pssKey() {
  const Context context(EVP_PKEY_CTX_new_id(EVP_PKEY_RSA_PSS, nullptr), EVP_PKEY_CTX_free);
  EVP_PKEY* key = nullptr;
  EXPECT_EQ(EVP_PKEY_keygen_init(context.get()), 1);
  EXPECT_EQ(EVP_PKEY_CTX_set_rsa_keygen_bits(context.get(), 1024), 1);
  EXPECT_EQ(EVP_PKEY_CTX_set_rsa_pss_keygen_md(context.get(), EVP_sha256()), 1);
  EXPECT_EQ(EVP_PKEY_CTX_set_rsa_pss_keygen_mgf1_md(context.get(), EVP_sha256()), 1);
  EXPECT_EQ(EVP_PKEY_CTX_set_rsa_pss_keygen_saltlen(context.get(), 32), 1);
  EXPECT_EQ(EVP_PKEY_keygen(context.get(), &key), 1);
  return made(key);
}

// What a key signs with.
struct Means {
  const char* name;
  std::shared_ptr<EVP_PKEY> key;
  const char* digest;         // null: none
  int salt = -1;              // of PSS; else none
  const char* mask = digest;  // of PSS
};

std::string sign(const Means& means, const std::string& what) {
  const Owned<EVP_MD_CTX> context(EVP_MD_CTX_new());
  EVP_PKEY_CTX* settings = nullptr;
  std::size_t size = 0;
  const EVP_MD* const digest =
      means.digest == nullptr ? nullptr : EVP_get_digestbyname(means.digest);
  EXPECT_EQ(EVP_DigestSignInit(context.get(), &settings, digest, nullptr, means.key.get()), 1)
      << means.name;
  if (means.salt >= 0) {
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(settings, RSA_PKCS1_PSS_PADDING), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_pss_saltlen(settings, means.salt), 1) << means.name;
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_mgf1_md(settings, EVP_get_digestbyname(means.mask)), 1);
  }
  EXPECT_EQ(EVP_DigestSign(context.get(), nullptr, &size, octets(what), what.size()), 1);
  std::string signature(size, '\0');
  EXPECT_EQ(EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size,
                           octets(what), what.size()),
            1)
      << means.name;
  signature.resize(size);
  return signature;
}

Owned<ASN1_BIT_STRING> bits(const std::string& signature, char unused = 0) {
  const std::string der = derElement(0x03, std::string(1, unused) + signature);
  return Crypto::decodeWhole(d2i_ASN1_BIT_STRING, octets(der), der.size());
}

// The DER of an AlgorithmIdentifier.
std::string named(const ASN1_OBJECT* type, const std::string& parameters) {
  return derElement(0x30, Crypto::encodeWhole(i2d_ASN1_OBJECT, type) + parameters);
}

std::string named(const char* type, const std::string& parameters = "\x05\0"s) {
  const Owned<ASN1_OBJECT> object(OBJ_txt2obj(type, 0));
  return named(object.get(), parameters);
}

std::string pss(const std::string& parameters) {
  return named("rsassaPss", derElement(0x30, parameters));
}
std::string hash(const std::string& algorithm) { return derElement(0xa0, algorithm); }
std::string mask(const std::string& algorithm) { return derElement(0xa1, algorithm); }
std::string mgf1(const std::string& algorithm) { return mask(named("mgf1", algorithm)); }
std::string salt(const std::string& octets) { return derElement(0xa2, derElement(0x02, octets)); }
std::string trailer(char value) {
  return derElement(0xa3, derElement(0x02, std::string(1, value)));
}

// Every algorithm that OpenSSL knows, each with no parameters, with NULL and with others; PSS with
// parameters of all kinds.
std::vector<std::string> algorithms() {
  std::vector<std::string> all;
  for (int nid = 1; nid < OBJ_new_nid(0); ++nid) {
    int digest = NID_undef;
    int kind = NID_undef;
    const ASN1_OBJECT* const object = OBJ_nid2obj(nid);
    if (object == nullptr || OBJ_find_sigid_algs(nid, &digest, &kind) != 1) continue;
    for (const std::string& parameters : {""s, "\x05\0"s, "\x30\0"s}) {
      all.push_back(named(object, parameters));
    }
  }
  ERR_clear_error();
  const std::string sha1 = named("sha1");
  const std::string sha256 = named("sha256");
  const std::string sha512 = named("sha512");
  const std::string whole = hash(sha256) + mgf1(sha256);
  for (const std::string& parameters : {
           whole + salt("\x20"),
           whole + salt("\x20") + trailer(1),
           whole + salt("\x20") + trailer(2),
           whole + salt("\x20") + trailer(-1),
           whole + salt("\x14"),
           whole + salt("\x0a"),
           whole + salt("\0"s),
           whole + salt("\xff"),
           whole + salt("\xfe"),
           whole + salt("\x01\0\0\0\x20"s),          // more than an int
           whole + salt("\x01\0\0\0\0\0\0\0\x20"s),  // more than a long
           whole,
           hash(sha256) + mgf1(sha1) + salt("\x20"),
           hash(sha512) + mgf1(sha512) + salt("\x20"),
           hash(sha256) + salt("\x20"),
           mgf1(sha256) + salt("\x20"),
           mgf1(sha1),
           hash(sha1),
           salt("\x14"),
           salt("\x20"),
           hash(named("sha256", "")) + mgf1(named("sha256", "")) + salt("\x20"),
           hash(named("1.2.3.4")) + mgf1(sha256) + salt("\x20"),
           hash(sha256) + mgf1(named("1.2.3.4")) + salt("\x20"),
           hash(sha256) + mask(named("mgf1", "")) + salt("\x20"),
           hash(sha256) + mask(named("mgf1")) + salt("\x20"),
           hash(sha256) + mask(sha256) + salt("\x20"),
           hash(sha256) + mask(named("1.2.3.4", sha256)) + salt("\x20"),
           hash(sha256) + mask(named("mgf1", derElement(0x30, ""))) + salt("\x20"),
           salt("\x20") + whole,
           whole + salt("\x20") + derElement(0xa4, ""),
           derElement(0x04, "x"),
       }) {
    all.push_back(pss(parameters));
  }
  all.push_back(pss(""));
  all.push_back(named("rsassaPss", ""));
  all.push_back(named("1.2.3.4"));
  return all;
}

Owned<ASN1_OCTET_STRING> octetString(const std::string& content) {
  Owned<ASN1_OCTET_STRING> object(ASN1_OCTET_STRING_new());
  ASN1_STRING_set(object.get(), content.data(), static_cast<int>(content.size()));
  return object;
}

// What is signed where that is the content of an OCTET STRING.
std::string encoded(const std::string& content) {
  return Crypto::encodeWhole(i2d_ASN1_OCTET_STRING, octetString(content).get());
}

bool always() { return true; }

struct Both {
  bool openSSL;
  std::optional<bool> ours;
};

Both verify(const X509_ALGOR* algorithm, const ASN1_BIT_STRING* signature, const std::string& what,
            EVP_PKEY* key) {
  const auto object = octetString(what);
  const std::string der = encoded(what);
  const Crypto::ErrorScope errors;
  return {ASN1_item_verify(ASN1_ITEM_rptr(ASN1_OCTET_STRING), algorithm, signature, object.get(),
                           key) == 1,
          isSignedInPieces({octets(der), der.size(), algorithm, signature}, key, always)};
}

std::vector<Means> makeAllMeans() {
  const auto rsa = made(EVP_RSA_gen(1024));
  const auto pssOnly = pssKey();
  const auto p256 = makeKey();
  const auto dsa = dsaKey();
  return {{"RSA, SHA-1", rsa, "SHA1"},
          {"RSA, SHA-256", rsa, "SHA256"},
          {"RSA, SHA-512", rsa, "SHA512"},
          {"RSA-PSS, SHA-256", rsa, "SHA256", 32},
          {"RSA-PSS, a short salt", rsa, "SHA256", 20},
          {"RSA-PSS, no salt", rsa, "SHA256", 0},
          {"RSA-PSS, SHA-1", rsa, "SHA1", 20},
          {"RSA-PSS, two hashes", rsa, "SHA256", 32, "SHA1"},
          {"RSA-PSS, SHA-512", rsa, "SHA512", 32},
          {"RSA-PSS key", pssOnly, "SHA256", 32},
          {"ECDSA", p256, "SHA256"},
          {"ECDSA, SHA-384", p256, "SHA384"},
          {"ECDSA, SHA-1", p256, "SHA1"},
          {"ECDSA, P-384", made(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-384")), "SHA384"},
          {"DSA", dsa, "SHA256"},
          {"DSA, SHA-1", dsa, "SHA1"},
          {"Ed25519", makeKey(KeyKind::Ed25519), nullptr},
          {"Ed448", made(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448")), nullptr},
          {"SM2", made(EVP_PKEY_Q_keygen(nullptr, nullptr, "SM2")), "SM3"}};
}

// Keys take their time to make.
const std::vector<Means>& allMeans() {
  static const std::vector<Means> all = makeAllMeans();
  return all;
}

// Every algorithm beside every signature, by the key that made it.
TEST(SignatureInPieces, Verdict_IsOpenSSLsWhateverTheAlgorithmSays) {
  const std::string what = "what is signed";
  std::vector<Owned<X509_ALGOR>> decoded;
  for (const std::string& der : algorithms()) {
    decoded.push_back(Crypto::decodeWhole(d2i_X509_ALGOR, octets(der), der.size()));
    ASSERT_NE(decoded.back(), nullptr);
  }
  ASSERT_GT(decoded.size(), 100U);
  for (const Means& means : allMeans()) {
    const auto signature = bits(sign(means, encoded(what)));
    int accepted = 0;
    for (std::size_t i = 0; i < decoded.size(); ++i) {
      const Both both = verify(decoded[i].get(), signature.get(), what, means.key.get());
      EXPECT_EQ(both.ours, both.openSSL)
          << means.name << " " << OBJ_nid2ln(OBJ_obj2nid(decoded[i]->algorithm)) << " " << i;
      accepted += both.openSSL ? 1 : 0;
    }
    EXPECT_GE(accepted, 1) << means.name;
    EXPECT_LE(accepted, 9) << means.name;
  }
  EXPECT_EQ(ERR_peek_error(), 0U);
}

class SignatureOfOurs : public testing::Test {
 protected:
  const std::vector<Means>& all = allMeans();

  const Means& means(const std::string& name) const {
    for (const Means& one : all) {
      if (one.name == name) return one;
    }
    throw std::runtime_error("no " + name);
  }

  static Owned<X509_ALGOR> algorithmOf(const Means& means) {
    const std::string name = means.name;
    std::string der = named("RSA-SHA256");
    if (name == "ECDSA") der = named("ecdsa-with-SHA256", "");
    if (name == "DSA") der = named("dsa_with_SHA256", "");
    if (name == "Ed25519") der = named("ED25519", "");
    if (name == "RSA-PSS, SHA-256" || name == "RSA-PSS key") {
      der = pss(hash(named("sha256")) + mgf1(named("sha256")) + salt("\x20"));
    }
    return Crypto::decodeWhole(d2i_X509_ALGOR, octets(der), der.size());
  }

  static constexpr const char* kNames[] = {
      "RSA, SHA-256", "RSA-PSS, SHA-256", "RSA-PSS key", "ECDSA", "DSA", "Ed25519"};
};

TEST_F(SignatureOfOurs, Verdict_IsOpenSSLsAboutWhatIsWrong) {
  const std::string what(100, 'x');
  std::string changed = what;
  changed.back() = 'y';
  for (const char* const name : kNames) {
    SCOPED_TRACE(name);
    const Means& right = means(name);
    const auto algorithm = algorithmOf(right);
    const std::string signature = sign(right, encoded(what));
    std::string flipped = signature;
    flipped[flipped.size() / 2] = static_cast<char>(flipped[flipped.size() / 2] ^ 1);
    const auto expect = [&](const Owned<ASN1_BIT_STRING>& given, const std::string& about,
                            EVP_PKEY* key, bool expected, const char* row) {
      const Both both = verify(algorithm.get(), given.get(), about, key);
      EXPECT_EQ(both.openSSL, expected) << row;
      EXPECT_EQ(both.ours, expected) << row;
    };
    const auto good = bits(signature);
    expect(good, what, right.key.get(), true, "right");
    expect(good, changed, right.key.get(), false, "another last octet");
    expect(good, what.substr(1), right.key.get(), false, "an octet less");
    expect(bits(flipped), what, right.key.get(), false, "flipped");
    expect(bits(signature + '\0'), what, right.key.get(), false, "longer");
    expect(bits(signature.substr(1)), what, right.key.get(), false, "shorter");
    expect(bits(""), what, right.key.get(), false, "empty");
    std::string even = signature;
    even.back() = static_cast<char>(even.back() & ~1);
    expect(bits(even, 1), what, right.key.get(), false, "not of whole octets");
    for (const Means& other : all) {
      if (other.key == right.key) continue;
      expect(good, what, other.key.get(), false, other.name);
    }
  }
}

// Around the ends of pieces; the header counts as well.
TEST_F(SignatureOfOurs, Pieces_AreAllThatWasSigned) {
  for (const std::size_t size : {std::size_t{0}, kSignaturePiece - 6, kSignaturePiece - 5,
                                 kSignaturePiece - 4, 2 * kSignaturePiece - 5}) {
    const std::string what(size, 'x');
    for (const char* const name : {"ECDSA", "RSA-PSS, SHA-256"}) {
      const Means& right = means(name);
      const Both both = verify(algorithmOf(right).get(), bits(sign(right, encoded(what))).get(),
                               what, right.key.get());
      EXPECT_TRUE(both.openSSL) << name << size;
      EXPECT_EQ(both.ours, true) << name << size;
    }
  }
}

int asked;
int allowed;

bool soOften() { return asked++ < allowed; }

TEST_F(SignatureOfOurs, StoppedBetweenPieces_NothingIsKnown) {
  const std::string der(3 * kSignaturePiece + 1, 'x');
  std::string forged = der;
  forged[0] = 'y';
  for (const char* const name : kNames) {
    SCOPED_TRACE(name);
    const Means& right = means(name);
    const auto algorithm = algorithmOf(right);
    const auto signature = bits(sign(right, der));
    const int pieces = right.digest == nullptr ? 1 : 4;
    for (const std::string& what : {der, forged}) {
      for (allowed = 0; allowed <= pieces; ++allowed) {
        asked = 0;
        const std::optional<bool> verdict =
            isSignedInPieces({octets(what), what.size(), algorithm.get(), signature.get()},
                             right.key.get(), soOften);
        if (allowed < pieces) {
          EXPECT_EQ(verdict, std::nullopt) << allowed;
          EXPECT_EQ(asked, allowed + 1);
        } else {
          EXPECT_EQ(verdict, what == der);
          EXPECT_EQ(asked, pieces);
        }
      }
    }
  }
}

}  // namespace
}  // namespace Velantrix::Test
