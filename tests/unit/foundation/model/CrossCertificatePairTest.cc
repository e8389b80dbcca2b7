#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Pki.h"

#include <velantrix/CrossCertificatePair.h>
#include <velantrix/Exception.h>

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

using namespace std::string_literals;

std::string sequence(const std::string& content) {
  std::string out;
  appendDer(out, V_ASN1_SEQUENCE, true, content);
  return out;
}

// A constructed element of the context-specific class.
std::string tagged(int tag, const std::string& content) {
  std::string out = sequence(content);
  out[0] = static_cast<char>(V_ASN1_CONTEXT_SPECIFIC | V_ASN1_CONSTRUCTED | tag);
  return out;
}

RefCrossCertificatePair read(const std::string& der) {
  return RefCrossCertificatePair(Buffer(der.data(), static_cast<unsigned int>(der.size()), false));
}

TEST(CrossCertificatePair, EachSide_PresentOrEmpty) {
  const std::string a = Pki::der(Pki::issueCA("CN=A").cert.get());
  const std::string b = Pki::der(Pki::issueCA("CN=B").cert.get());
  const RefCrossCertificatePair both = read(sequence(tagged(0, a) + tagged(1, b)));
  EXPECT_EQ(both->forward()->subject().asString(), "CN=A");
  EXPECT_EQ(both->reverse()->subject().asString(), "CN=B");
  const RefCrossCertificatePair forward = read(sequence(tagged(0, a)));
  EXPECT_EQ(forward->forward()->subject().asString(), "CN=A");
  EXPECT_TRUE(forward->reverse().empty());
  const RefCrossCertificatePair reverse = read(sequence(tagged(1, b)));
  EXPECT_TRUE(reverse->forward().empty());
  EXPECT_EQ(reverse->reverse()->subject().asString(), "CN=B");
  EXPECT_TRUE(RefCrossCertificatePair().empty());
}

TEST(CrossCertificatePair, NotThatShape_Throws) {
  const std::string a = Pki::der(Pki::issueCA("CN=A").cert.get());
  const std::string pair = sequence(tagged(0, a));
  const std::pair<const char*, std::string> rows[] = {
      {"nothing", ""},
      {"one octet", "\x30"},
      {"a certificate", a},
      {"octet after it", pair + "\0"s},
      {"cut short", pair.substr(0, pair.size() - 1)},
      {"indefinite length", "\x30\x80" + tagged(0, a) + "\0\0"s},
      {"wrong order", sequence(tagged(1, a) + tagged(0, a))},
      {"forward twice", sequence(tagged(0, a) + tagged(0, a))},
      {"another tag", sequence(tagged(2, a))},
      {"tag not constructed", sequence("\x80\x01x")},
      {"no certificate inside", sequence(tagged(0, ""))},
      {"octet after the certificate", sequence(tagged(0, a + "\0"s))},
      {"two certificates", sequence(tagged(0, a + a))},
      {"certificate without tag", sequence(a)},
      {"rubbish", std::string(100, '\xff')},
  };
  for (const auto& [name, der] : rows) {
    SCOPED_TRACE(name);
    EXPECT_THROW(read(der), Exception);
  }
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
