#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Command.h"
#include "support/Memory.h"
#include "support/Pki.h"

#include <velantrix/DistinguishedName.h>

#include <cstddef>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

using namespace std::string_literals;

constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;

std::string tlv(int tag, const std::string& content, bool constructed = false) {
  std::string out;
  appendDer(out, tag, constructed, content);
  return out;
}

std::string oid(const std::string& dotted) {
  const Owned<ASN1_OBJECT> object(OBJ_txt2obj(dotted.c_str(), 0));
  return tlv(V_ASN1_OBJECT, std::string(reinterpret_cast<const char*>(OBJ_get0_data(object.get())),
                                        OBJ_length(object.get())));
}

std::string attribute(const std::string& type, int tag, const std::string& value) {
  const bool constructed = (tag & V_ASN1_CONSTRUCTED) != 0;
  return tlv(V_ASN1_SEQUENCE, oid(type) + tlv(tag & ~V_ASN1_CONSTRUCTED, value, constructed), true);
}

// The name whose RDNs hold the attributes given, in the order of the DER; null when OpenSSL
// refuses.
Owned<X509_NAME> nameOf(const std::vector<std::string>& rdns) {
  std::string content;
  for (const std::string& rdn : rdns) content += tlv(V_ASN1_SET, rdn, true);
  const std::string der = tlv(V_ASN1_SEQUENCE, content, true);
  const unsigned char* position = octets(der);
  return Owned<X509_NAME>(d2i_X509_NAME(nullptr, &position, static_cast<long>(der.size())));
}

DistinguishedName dn(const std::vector<std::string>& rdns) {
  const Owned<X509_NAME> name = nameOf(rdns);
  EXPECT_NE(name, nullptr);
  return DistinguishedName(name.get());
}

std::string der(const DistinguishedName& name) { return Pki::der(name.native()); }

TEST(DistinguishedName, Printed_MostSpecificFirstWithoutBlanks) {
  const Owned<X509_NAME> name = Pki::makeName("C=US,O=Example,CN=Root");
  EXPECT_EQ(DistinguishedName(name.get()).asString(), "CN=Root,O=Example,C=US");
  EXPECT_EQ(dn({attribute("C", V_ASN1_PRINTABLESTRING, "DE"),
                attribute("CN", V_ASN1_UTF8STRING, "A") + attribute("UID", V_ASN1_UTF8STRING, "7")})
                .asString(),
            "CN=A+UID=7,C=DE");
}

TEST(DistinguishedName, Printed_EscapesOfRfc4514) {
  struct Row {
    std::string value;
    std::string text;
  };
  const Row rows[] = {
      {"", "CN="},
      {"plain", "CN=plain"},
      {"a b  c", "CN=a b  c"},
      {" lead", "CN=\\ lead"},
      {"trail ", "CN=trail\\ "},
      {" ", "CN=\\ "},
      {"   ", "CN=\\  \\ "},
      {"#hash", "CN=\\#hash"},
      {"a#b", "CN=a#b"},
      {"a=b", "CN=a=b"},
      {"a,b+c\"d\\e<f>g;h", "CN=a\\,b\\+c\\\"d\\\\e\\<f\\>g\\;h"},
      {"J\xc3\xbcrgen \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x94\x92",
       "CN=J\xc3\xbcrgen \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x94\x92"},
      {"a\0b"s, "CN=a\\00b"},
      {"a\nb\tc\x1b[0m", "CN=a\\0Ab\\09c\\1B[0m"},
      {"a\x7f", "CN=a\\7F"},
      {"a\xc2\x85"
       "b",
       "CN=a\\C2\\85b"},
      {"\xc2\xa0", "CN=\xc2\xa0"},
      // Right-to-left override, isolate, mark and the Arabic letter mark.
      {"\xe2\x80\xae\xe2\x81\xa6\xe2\x80\x8e\xd8\x9c",
       "CN=\\E2\\80\\AE\\E2\\81\\A6\\E2\\80\\8E\\D8\\9C"},
      {"\xe2\x80\x90", "CN=\xe2\x80\x90"},
      // What has no width.
      {"a\xe2\x80\x8bz\xef\xbb\xbf", "CN=a\\E2\\80\\8Bz\\EF\\BB\\BF"},
  };
  for (const Row& row : rows) {
    const DistinguishedName name = dn({attribute("CN", V_ASN1_UTF8STRING, row.value)});
    EXPECT_EQ(name.asString(), row.text);
    const DistinguishedName read(row.text);
    EXPECT_EQ(read, name) << row.text;
    // Canonical comparison forgives blanks; the octets must be the same as well.
    EXPECT_EQ(der(read), der(name)) << row.text;
  }
}

TEST(DistinguishedName, Printed_TypesAndValuesByTheirKind) {
  struct Row {
    std::string type;
    int tag;
    std::string value;
    std::string text;
  };
  const Row rows[] = {
      {"emailAddress", V_ASN1_IA5STRING, "a@b.example", "emailAddress=a@b.example"},
      {"DC", V_ASN1_IA5STRING, "example", "DC=example"},
      {"CN", V_ASN1_T61STRING, "J\xfcrgen", "CN=J\xc3\xbcrgen"},
      {"CN", V_ASN1_BMPSTRING, "\0A\x20\xac"s, "CN=A\xe2\x82\xac"},
      {"CN", V_ASN1_UNIVERSALSTRING, "\0\1\xf5\x12"s, "CN=\xf0\x9f\x94\x92"},
      {"CN", V_ASN1_NUMERICSTRING, "12", "CN=#12023132"},
      {"CN", V_ASN1_BIT_STRING, "\x07\x80", "CN=#03020780"},
      {"CN", V_ASN1_SEQUENCE | V_ASN1_CONSTRUCTED, "\x05\x00"s, "CN=#30020500"},
      // A type without a name that RFC 4514 allows is printed in numbers, its value in hexadecimal.
      {"1.2.3.4.5", V_ASN1_UTF8STRING, "x", "1.2.3.4.5=#0C0178"},
      {"2.5.4.45", V_ASN1_BIT_STRING, "\0\x01"s, "x500UniqueIdentifier=#03020001"},
  };
  for (const Row& row : rows) {
    const DistinguishedName name = dn({attribute(row.type, row.tag, row.value)});
    EXPECT_EQ(name.asString(), row.text);
    EXPECT_EQ(DistinguishedName(row.text), name) << row.text;
  }
}

TEST(DistinguishedName, VariantsOfTheText_ReadAsTheSameName) {
  const DistinguishedName expected("CN=Root,O=Example,C=US");
  ASSERT_FALSE(expected.empty());
  for (const char* text :
       {"CN=Root, O=Example, C=US", " CN = Root ,O= Example,C =US ", "cn=Root,o=Example,c=US",
        "commonName=Root,organizationName=Example,countryName=US",
        "2.5.4.3=Root,2.5.4.10=Example,2.5.4.6=US", "OID.2.5.4.3=Root,oid.2.5.4.10=Example,C=US",
        "CN=#0c04526f6f74,O=Example,C=US", "CN=\\52\\6f\\6F\\74,O=Example,C=US",
        "CN=ROOT,O=example,C=us", "CN=Root,O=Example,C=US"}) {
    EXPECT_EQ(DistinguishedName(std::string(text)), expected) << text;
  }
}

TEST(DistinguishedName, MultiValuedRdnInAnyOrder_OneEncoding) {
  const DistinguishedName name("UID=7+O=b+CN=a,C=DE");
  EXPECT_EQ(name.asString(), "CN=a+O=b+UID=7,C=DE");
  EXPECT_EQ(der(name), der(DistinguishedName("O=b+CN=a+UID=7,C=DE")));
}

TEST(DistinguishedName, TextThatIsNoName_EmptyName) {
  for (const std::string& text : {""s,
                                  " "s,
                                  ","s,
                                  "CN"s,
                                  "=x"s,
                                  "CN=a,"s,
                                  ",CN=a"s,
                                  "CN=a,,O=b"s,
                                  "CN=a+"s,
                                  "CN=a+,O=b"s,
                                  "CN=a\\"s,
                                  "CN=a\\g0"s,
                                  "CN=a\\4"s,
                                  "CN=\"quoted\""s,
                                  "CN=a;O=b"s,
                                  "CN=<a>"s,
                                  "CN=a\0"s,
                                  "NoSuchType=a"s,
                                  "1=a"s,
                                  "1.2.=a"s,
                                  "CN=#"s,
                                  "CN=#0"s,
                                  "CN=#0C"s,
                                  "CN=#0C0178FF"s,
                                  "CN=#0C01780C0178"s,
                                  "CN=#0C0178 x"s,
                                  "CN=#xyz"s,
                                  "#=a"s,
                                  "#8001=a"s,
                                  "CN=\\FF"s,
                                  "CN=\xff"s,
                                  "CN=\xed\xa0\x80"s,
                                  "/C=US/O=Example"s,
                                  "hello world"s}) {
    const DistinguishedName name(text);
    EXPECT_TRUE(name.empty()) << text;
    EXPECT_EQ(name.asString(), "") << text;
    EXPECT_EQ(name, DistinguishedName()) << text;
  }
}

TEST(DistinguishedName, LongTexts_ReadOrRefusedInLinearTime) {
  const std::string value(500000, 'x');
  const DistinguishedName name("CN=" + value);
  EXPECT_EQ(name.asString(), "CN=" + value);  // ub-common-name is 64, and no business of a reader
  EXPECT_TRUE(DistinguishedName("CN=" + std::string(2000000, 'x')).empty());
  EXPECT_TRUE(DistinguishedName(std::string(50000000, 'x')).empty());
  std::string many = "C=a";
  for (int i = 0; i < 1000000; ++i) many += ",C=a";
  EXPECT_TRUE(DistinguishedName(many).empty());
}

TEST(DistinguishedName, LargestNameThatOpenSSLHolds_IsReadAndNotOneOctetMore) {
  // Four headers of five octets each, and a type of five.
  const std::string text = "CN=" + std::string(kMebibyte - 25, 'x');
  const DistinguishedName name(text);
  ASSERT_FALSE(name.empty());
  EXPECT_EQ(der(name).size(), kMebibyte);
  EXPECT_EQ(name.asString(), text);
  EXPECT_TRUE(DistinguishedName(text + "x").empty());
}

TEST(DistinguishedName, LongestText_IsReadAndNotOneCharacterMore) {
  const std::string text = std::string(8 * kMebibyte - 4, ' ') + "CN=a";
  EXPECT_EQ(DistinguishedName(text).asString(), "CN=a");
  EXPECT_TRUE(DistinguishedName(" " + text).empty());
}

TEST(DistinguishedName, TextOfMillionsOfAttributes_IsBoundedInMemory) {
  for (const char separator : {',', '+'}) {
    std::string text = "C=";
    while (text.size() + 3 <= 8 * kMebibyte) text += {separator, 'C', '='};
    const Pki::MemoryPeak peak;
    EXPECT_TRUE(DistinguishedName(text).empty());
    EXPECT_LT(peak.resident(), 64 * kMebibyte) << separator;
  }
}

TEST(DistinguishedName, Equality_CanonicalComparison) {
  const DistinguishedName name = dn({attribute("C", V_ASN1_PRINTABLESTRING, "US"),
                                     attribute("O", V_ASN1_PRINTABLESTRING, "Example  Corp")});
  EXPECT_EQ(name,
            dn({attribute("C", V_ASN1_UTF8STRING, "us"),
                attribute("O", V_ASN1_BMPSTRING, "\0 \0e\0x\0a\0m\0p\0l\0e\0 \0C\0O\0R\0P"s)}));
  EXPECT_EQ(dn({attribute("CN", V_ASN1_UTF8STRING, "a") + attribute("O", V_ASN1_UTF8STRING, "b")}),
            dn({attribute("O", V_ASN1_UTF8STRING, "b") + attribute("CN", V_ASN1_UTF8STRING, "a")}));
  EXPECT_TRUE(name != dn({attribute("O", V_ASN1_PRINTABLESTRING, "Example  Corp"),
                          attribute("C", V_ASN1_PRINTABLESTRING, "US")}));
  EXPECT_TRUE(name != DistinguishedName("O=Example Corp"));
  EXPECT_TRUE(name != DistinguishedName());
  EXPECT_TRUE(
      dn({attribute("CN", V_ASN1_UTF8STRING, "a") + attribute("O", V_ASN1_UTF8STRING, "b")}) !=
      dn({attribute("O", V_ASN1_UTF8STRING, "b"), attribute("CN", V_ASN1_UTF8STRING, "a")}));
}

TEST(DistinguishedName, EmptyName_IsANameToOpenSSL) {
  const DistinguishedName made;
  const DistinguishedName null(static_cast<const X509_name_st*>(nullptr));
  const DistinguishedName wrapped = dn({});
  for (const DistinguishedName& name : {made, null, wrapped}) {
    EXPECT_TRUE(name.empty());
    EXPECT_EQ(name.asString(), "");
    ASSERT_NE(name.native(), nullptr);
    EXPECT_EQ(X509_NAME_entry_count(name.native()), 0);
    EXPECT_EQ(name, made);
    EXPECT_EQ(name.hash(), wrapped.hash());
  }
}

TEST(DistinguishedName, Source_MayChangeAndGo) {
  DistinguishedName copy;
  {
    const Owned<X509_NAME> source = Pki::makeName("C=US,CN=A");
    const DistinguishedName name(source.get());
    copy = name;
    EXPECT_EQ(copy.native(), name.native());
    ASSERT_EQ(X509_NAME_add_entry_by_txt(source.get(), "CN", MBSTRING_UTF8, octets("B"), -1, -1, 0),
              1);
  }
  EXPECT_EQ(copy.asString(), "CN=A,C=US");
}

TEST(DistinguishedName, BuiltInMemoryAndNeverEncoded_EqualsTheDecodedOne) {
  const Owned<X509_NAME> built(X509_NAME_new());
  ASSERT_EQ(X509_NAME_add_entry_by_txt(built.get(), "CN", MBSTRING_UTF8, octets("A"), -1, -1, 0),
            1);
  EXPECT_EQ(DistinguishedName(built.get()), DistinguishedName("CN=A"));
}

TEST(DistinguishedName, Hash_IsThatOfTheOpenSSLCommand) {
  for (const char* subject : {"C=US,O=Example,CN=Root", "CN=J\xc3\xbcrgen  M\xc3\xbcller",
                              "DC=com,DC=example,CN=a+serialNumber=1"}) {
    const Pki::Issued issued = Pki::issueCA(subject);
    const std::string pem = Pki::pem(issued.cert.get());
    const Pki::CommandResult x509 =
        Pki::runCommand({"openssl", "x509", "-noout", "-subject_hash"}, pem);
    const Owned<X509_CRL> crl = Pki::makeCRL({.issuer = &issued});
    const Pki::CommandResult ofCRL =
        Pki::runCommand({"openssl", "crl", "-noout", "-hash"}, Pki::pem(crl.get()));
    ASSERT_EQ(x509.status, 0) << x509.err;
    ASSERT_EQ(ofCRL.status, 0) << ofCRL.err;
    char text[9];
    std::snprintf(text, sizeof text, "%08x",
                  DistinguishedName(X509_get_subject_name(issued.get())).hash());
    EXPECT_EQ(text + "\n"s, x509.out);
    EXPECT_EQ(text + "\n"s, ofCRL.out);
    // And of the name that its text is read back to: directories are searched by parsed names.
    EXPECT_EQ(
        DistinguishedName(DistinguishedName(X509_get_subject_name(issued.get())).asString()).hash(),
        Pki::nameHash(X509_get_subject_name(issued.get())));
  }
}

TEST(DistinguishedName, RelativeNameInFrontOfIssuer_ReadsAsTheWholeName) {
  const DistinguishedName issuer("O=Example,C=US");
  EXPECT_EQ(DistinguishedName("CN=CRL1," + issuer.asString()),
            dn({attribute("C", V_ASN1_PRINTABLESTRING, "US"),
                attribute("O", V_ASN1_UTF8STRING, "Example"),
                attribute("CN", V_ASN1_UTF8STRING, "CRL1")}));
}

// --- every name that OpenSSL can hold ---

class NameMaker {
 public:
  explicit NameMaker(unsigned int seed) : random_(seed) {}

  unsigned int below(unsigned int limit) { return static_cast<unsigned int>(random_() % limit); }

  std::vector<std::string> name() {
    std::vector<std::string> rdns;
    const unsigned int count = below(5);
    for (unsigned int i = 0; i < count; ++i) {
      std::string rdn;
      for (unsigned int k = 0; k <= below(3); ++k) {
        rdn += tlv(V_ASN1_SEQUENCE, type() + value(), true);
      }
      rdns.push_back(rdn);
    }
    return rdns;
  }

 private:
  std::string type() {
    static const char* const kTypes[] = {"CN",
                                         "C",
                                         "O",
                                         "emailAddress",
                                         "DC",
                                         "UID",
                                         "2.5.4.999",
                                         "1.2.3",
                                         "2.5.4.45",
                                         "serialNumber",
                                         "2.5.4.54",
                                         "id-pkix",
                                         "jurisdictionC",
                                         "anyPolicy",
                                         "2.999.1.2.3"};
    if (below(12) != 0) return oid(kTypes[below(std::size(kTypes))]);
    // An arc of any length.
    std::string content = "\x2a";
    for (unsigned int i = below(2000); i > 0; --i) content += static_cast<char>(0x81 + below(0x7f));
    return tlv(V_ASN1_OBJECT, content + "\x01");
  }

  std::string bytes(unsigned int length) {
    std::string made;
    for (unsigned int i = 0; i < length; ++i) made += static_cast<char>(below(256));
    return made;
  }

  char32_t character() {
    static const char32_t kOdd[] = {0,      1,      '\n',   0x7f,   0x80,    0x9f,
                                    0xa0,   0x61c,  0x200e, 0x202e, 0x2066,  0x2069,
                                    0xfeff, 0xffff, 0xd7ff, 0xe000, 0x10000, 0x10ffff};
    switch (below(4)) {
      case 0:
        return U" \"#+,;<=>\\ab"[below(12)];
      case 1:
        return kOdd[below(std::size(kOdd))];
      case 2:
        return below(128);
      default:
        return below(0x3000);
    }
  }

  std::string utf8(char32_t c) {
    char buffer[6];
    const int length = UTF8_putc(reinterpret_cast<unsigned char*>(buffer), sizeof buffer, c);
    return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
  }

  std::string value() {
    const int tag = static_cast<int>(1 + below(30));
    const unsigned int length = below(8);
    std::string content;
    switch (tag) {
      case V_ASN1_UTF8STRING:
        for (unsigned int i = 0; i < length; ++i) content += utf8(character());
        break;
      case V_ASN1_BMPSTRING:
        for (unsigned int i = 0; i < length; ++i) {
          const char32_t c = character();
          content += static_cast<char>(c >> 8);
          content += static_cast<char>(c);
        }
        break;
      case V_ASN1_UNIVERSALSTRING:
        for (unsigned int i = 0; i < length; ++i) {
          // Beyond Unicode now and then: OpenSSL decides.
          const char32_t c = below(20) == 0 ? 0x110000 + below(0x1000) : character();
          for (int shift = 24; shift >= 0; shift -= 8) content += static_cast<char>(c >> shift);
        }
        break;
      case V_ASN1_BIT_STRING:
        content = static_cast<char>(below(8)) + bytes(1 + length);
        break;
      case V_ASN1_SEQUENCE:
      case V_ASN1_SET:
        return tlv(tag, tlv(V_ASN1_OCTET_STRING, bytes(length)), true);
      default:
        content = bytes(length);
    }
    return tlv(tag, content);
  }

  std::mt19937 random_;
};

TEST(DistinguishedName, RandomNames_PrintedTextReadsBackToAnEqualName) {
  NameMaker maker(20260731);
  int held = 0;
  std::vector<int> tags(31, 0);
  for (int round = 0; round < 30000; ++round) {
    const Owned<X509_NAME> native = nameOf(maker.name());
    if (native == nullptr) continue;
    ++held;
    for (int i = 0; i < X509_NAME_entry_count(native.get()); ++i) {
      const int type =
          ASN1_STRING_type(X509_NAME_ENTRY_get_data(X509_NAME_get_entry(native.get(), i)));
      ++tags[static_cast<std::size_t>(type & ~V_ASN1_NEG)];
    }
    const DistinguishedName name(native.get());
    const std::string text = name.asString();
    const DistinguishedName read(text);
    ASSERT_EQ(read, name) << text;
    ASSERT_EQ(read.hash(), name.hash()) << text;
    ASSERT_EQ(read.empty(), name.empty());
    for (const char c : text)
      ASSERT_TRUE(static_cast<unsigned char>(c) >= 0x20 && c != 0x7f) << text;
  }
  EXPECT_GT(held, 5000);
  // The types that X.520 and PKCS #9 use, and the odd ones; OpenSSL refuses the rest.
  for (const int tag : {V_ASN1_BIT_STRING, V_ASN1_UTF8STRING, V_ASN1_SEQUENCE, V_ASN1_NUMERICSTRING,
                        V_ASN1_PRINTABLESTRING, V_ASN1_T61STRING, V_ASN1_IA5STRING,
                        V_ASN1_UNIVERSALSTRING, V_ASN1_BMPSTRING, V_ASN1_REAL, V_ASN1_EXTERNAL}) {
    EXPECT_GT(tags[static_cast<std::size_t>(tag)], 100) << tag;
  }
}

TEST(DistinguishedName, RandomTexts_NeverCrashAndPrintWhatTheyRead) {
  std::mt19937 random(3);
  const std::string alphabet = "CNO=,+\\# \"0123456789ABCDEFabcdef.;<>";
  for (int round = 0; round < 50000; ++round) {
    std::string text = random() % 2 == 0 ? "CN=" : "";
    for (auto i = random() % 20; i > 0; --i) text += alphabet[random() % alphabet.size()];
    const DistinguishedName name(text);
    if (name.empty()) continue;
    ASSERT_EQ(DistinguishedName(name.asString()), name) << text;
  }
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
