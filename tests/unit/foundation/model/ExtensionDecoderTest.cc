#include "foundation/model/ExtensionDecoder.h"
#include "support/Pki.h"

#include <velantrix/Exception.h>

#include <openssl/err.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

using namespace std::string_literals;

constexpr char kKeyUsage[] = "2.5.29.15";
constexpr char kUnknown[] = "1.2.3.4";
const std::string kBits = "\x03\x02\x01\x06"s;

// A certificate that has these extensions and no other.
Pki::Issued with(const std::vector<Pki::RawExtension>& extensions) {
  return Pki::issue({.basicConstraints = false,
                     .keyUsage = Pki::kAbsent,
                     .subjectKeyId = Pki::KeyId::Absent,
                     .authorityKeyId = Pki::KeyId::Absent,
                     .rawExtensions = extensions});
}

Owned<ASN1_BIT_STRING> keyUsage(const Pki::Issued& issued) {
  return decodeOnlyExtension(X509_get0_extensions(issued.get()), NID_key_usage, d2i_ASN1_BIT_STRING,
                             "Context");
}

// The text of what is thrown, which has to be an exception of the context given.
template <class Action>
std::string thrownBy(Action action) {
  try {
    action();
  } catch (const Exception& e) {
    EXPECT_EQ(e.context(), "Context");
    EXPECT_EQ(e.code(), Exception::kFailure);
    return e.stringParameter();
  }
  return "nothing";
}

TEST(ExtensionDecoder, OneExtension_IsFoundAmongOthersAndDecoded) {
  const Pki::Issued issued = with({{kUnknown, false, "\x05\0"s}, {kKeyUsage, true, kBits}});
  const Owned<ASN1_BIT_STRING> bits = keyUsage(issued);
  ASSERT_NE(bits, nullptr);
  EXPECT_EQ(ASN1_BIT_STRING_get_bit(bits.get(), 5), 1);
  EXPECT_EQ(ASN1_BIT_STRING_get_bit(bits.get(), 0), 0);
  const Owned<ASN1_OBJECT> type(OBJ_txt2obj(kUnknown, 1));
  const auto* const all = X509_get0_extensions(issued.get());
  EXPECT_EQ(onlyExtension(all, type.get(), "Context"), X509v3_get_ext(all, 0));
}

TEST(ExtensionDecoder, Absence_IsNullAndNoException) {
  EXPECT_EQ(keyUsage(with({{kUnknown, false, "\x05\0"s}})), nullptr);
  EXPECT_EQ(keyUsage(with({})), nullptr);
  EXPECT_EQ(onlyExtension(nullptr, OBJ_nid2obj(NID_key_usage), "Context"), nullptr);
}

TEST(ExtensionDecoder, TwoOfAType_ThrowWithItsName) {
  EXPECT_EQ(thrownBy([] {
              keyUsage(with({{kKeyUsage, true, kBits}, {kKeyUsage, true, kBits}}));
            }),
            "extension stands twice: X509v3 Key Usage");
  const Pki::Issued issued = with({{kUnknown, false, ""}, {kUnknown, true, "x"}});
  const Owned<ASN1_OBJECT> type(OBJ_txt2obj(kUnknown, 1));
  EXPECT_EQ(
      thrownBy([&] { onlyExtension(X509_get0_extensions(issued.get()), type.get(), "Context"); }),
      "extension stands twice: 1.2.3.4");
}

TEST(ExtensionDecoder, ValueThatIsNotDecodedToItsLastOctet_Throws) {
  ERR_clear_error();
  for (const std::string& value :
       {""s, "\x05\0"s, "\xff\xff"s, kBits + "\0"s, kBits + kBits, kBits.substr(0, 3)}) {
    SCOPED_TRACE(::testing::PrintToString(value));
    const Pki::Issued issued = with({{kKeyUsage, false, value}});
    EXPECT_EQ(thrownBy([&] { keyUsage(issued); }), "extension cannot be decoded: X509v3 Key Usage");
    EXPECT_EQ(ERR_peek_error(), 0UL);
  }
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
