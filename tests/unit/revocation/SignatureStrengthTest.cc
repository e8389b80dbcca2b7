#include "foundation/openssl/Der.h"
#include "revocation/SignatureStrength.h"
#include "support/OCSPBuilder.h"
#include "support/PublicKeys.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::Revocation::reachesLevel;
using namespace std::string_literals;

const std::string kNull = "\x05\0"s;

// The DER of an AlgorithmIdentifier.
std::string algorithm(const char* oid, const std::string& parameters = "") {
  const Owned<ASN1_OBJECT> type(OBJ_txt2obj(oid, 0));
  return derElement(0x30, Crypto::encodeWhole(i2d_ASN1_OBJECT, type.get()) + parameters);
}

// RFC 4055, 3.1: RSASSA-PSS-params, of the parts that are not empty.
std::string pss(const std::string& hash, const std::string& mask) {
  std::string parameters;
  if (!hash.empty()) parameters += derElement(0xa0, hash);
  if (!mask.empty()) parameters += derElement(0xa1, mask);
  return algorithm("rsassaPss", derElement(0x30, parameters));
}

std::string mgf1(const std::string& hash) { return algorithm("mgf1", hash); }

bool reaches(int level, const std::string& der, EVP_PKEY* key) {
  const Owned<X509_ALGOR> decoded =
      Crypto::decodeWhole(d2i_X509_ALGOR, Crypto::octets(der), der.size());
  EXPECT_NE(decoded, nullptr);
  return reachesLevel(level, decoded.get(), key);
}

// The highest level reached; every lower one has to be reached as well.
int highestLevel(const std::string& der, EVP_PKEY* key) {
  int highest = 5;
  while (highest >= 0 && !reaches(highest, der, key)) --highest;
  for (int level = 0; level < highest; ++level) EXPECT_TRUE(reaches(level, der, key)) << level;
  return highest;
}

std::shared_ptr<EVP_PKEY> rsa(int bits) { return publicRsaKey(bits, 17); }

TEST(SignatureStrength, Level_IsThatOfTheWeakerOfKeyAndDigest) {
  const auto rsa512 = rsa(512);
  const auto rsa1024 = rsa(1024);
  const auto rsa2048 = rsa(2048);
  const auto rsa15360 = rsa(15360);
  const auto p256 = makeKey();
  const auto ed25519 = makeKey(KeyKind::Ed25519);
  const std::shared_ptr<EVP_PKEY> ed448(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448"),
                                        EVP_PKEY_free);
  const std::string sha1 = algorithm("sha1", kNull);
  const std::string sha256 = algorithm("sha256", kNull);
  const std::string sha512 = algorithm("sha512", kNull);
  const struct {
    const char* name;
    std::string algorithm;
    EVP_PKEY* key;
    int highest;
  } rows[] = {
      {"weak key", algorithm("sha256WithRSAEncryption", kNull), rsa512.get(), 0},
      {"80 bits", algorithm("sha256WithRSAEncryption", kNull), rsa1024.get(), 1},
      {"112 bits", algorithm("sha256WithRSAEncryption", kNull), rsa2048.get(), 2},
      {"MD5", algorithm("md5WithRSAEncryption", kNull), rsa15360.get(), 0},
      {"SHA-1", algorithm("sha1WithRSAEncryption", kNull), rsa15360.get(), 0},
      {"RIPEMD-160", algorithm("ripemd160WithRSA", kNull), rsa15360.get(), 1},
      {"SHA-224", algorithm("sha224WithRSAEncryption", kNull), rsa15360.get(), 2},
      {"SHA-256", algorithm("sha256WithRSAEncryption", kNull), rsa15360.get(), 3},
      {"SHA-384", algorithm("sha384WithRSAEncryption", kNull), rsa15360.get(), 4},
      {"SHA-512", algorithm("sha512WithRSAEncryption", kNull), rsa15360.get(), 5},
      {"P-256 with SHA-256", algorithm("ecdsa-with-SHA256"), p256.get(), 3},
      {"P-256 with SHA-512", algorithm("ecdsa-with-SHA512"), p256.get(), 3},
      {"P-256 with SHA-1", algorithm("ecdsa-with-SHA1"), p256.get(), 0},
      {"Ed25519", algorithm("ED25519"), ed25519.get(), 3},
      {"Ed25519 over a longer key", algorithm("ED25519"), ed448.get(), 3},
      {"Ed448", algorithm("ED448"), ed448.get(), 4},
      {"PSS of SHA-256", pss(sha256, mgf1(sha256)), rsa15360.get(), 3},
      {"PSS of SHA-512", pss(sha512, mgf1(sha512)), rsa15360.get(), 5},
      {"PSS of two digests, weaker hash", pss(sha256, mgf1(sha512)), rsa15360.get(), 3},
      {"PSS of two digests, weaker mask", pss(sha512, mgf1(sha256)), rsa15360.get(), 3},
      {"PSS with a weak key", pss(sha256, mgf1(sha256)), rsa2048.get(), 2},
      {"PSS with a hash of SHA-1", pss(sha1, mgf1(sha256)), rsa15360.get(), 0},
      {"PSS with a mask of SHA-1", pss(sha256, mgf1(sha1)), rsa15360.get(), 0},
      {"PSS without hash", pss("", mgf1(sha256)), rsa15360.get(), 0},
      {"PSS without mask", pss(sha256, ""), rsa15360.get(), 0},
      {"PSS of defaults", pss("", ""), rsa15360.get(), 0},
      {"PSS without parameters", algorithm("rsassaPss"), rsa15360.get(), 0},
      {"PSS with NULL", algorithm("rsassaPss", kNull), rsa15360.get(), 0},
      {"PSS with other parameters", algorithm("rsassaPss", derElement(0x30, kNull)), rsa15360.get(),
       0},
      {"PSS with an unknown mask", pss(sha256, algorithm("1.2.3.4", sha256)), rsa15360.get(), 0},
      {"PSS with a mask of nothing", pss(sha256, algorithm("mgf1")), rsa15360.get(), 0},
      {"PSS with a mask of NULL", pss(sha256, mgf1(kNull)), rsa15360.get(), 0},
      {"PSS with an unknown digest", pss(algorithm("1.2.3.4"), mgf1(sha256)), rsa15360.get(), 0},
      {"unknown", algorithm("1.2.3.4"), rsa15360.get(), 0},
      {"no signature", algorithm("rsaEncryption", kNull), rsa15360.get(), 0},
      {"no key", algorithm("sha256WithRSAEncryption", kNull), nullptr, 0},
  };
  for (const auto& row : rows)
    EXPECT_EQ(highestLevel(row.algorithm, row.key), row.highest) << row.name;
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(SignatureStrength, LevelThatIsNone_IsTheNearest) {
  const auto strong = rsa(15360);
  const std::string sha512 = algorithm("sha512WithRSAEncryption", kNull);
  const std::string sha384 = algorithm("sha384WithRSAEncryption", kNull);
  EXPECT_TRUE(reaches(6, sha512, strong.get()));
  EXPECT_FALSE(reaches(6, sha384, strong.get()));
  EXPECT_TRUE(reachesLevel(-1, nullptr, nullptr));
  EXPECT_FALSE(reachesLevel(1, nullptr, strong.get()));
}

}  // namespace
}  // namespace Velantrix::Test
