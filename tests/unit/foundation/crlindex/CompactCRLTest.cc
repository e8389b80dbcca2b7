#include "foundation/base/Octets.h"
#include "foundation/crlindex/CompactCRL.h"
#include "support/Pki.h"
#include "unit/foundation/crlindex/CompactCRLOracle.h"

#include <openssl/err.h>

#include <gtest/gtest.h>
#include <map>
#include <random>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using Crypto::CompactCRL;

const Issued& ca() {
  static const Issued made = issueCA("C=DE,O=Mail,CN=CA");
  return made;
}

CRLOptions options(std::vector<Revoked> revoked = {}) {
  CRLOptions made;
  made.issuer = &ca();
  made.revoked = std::move(revoked);
  return made;
}

// Something of everything that CRLs have.
const std::map<std::string, std::string>& lists() {
  static const std::map<std::string, std::string> all = [] {
    std::map<std::string, std::string> made;
    made["empty"] = der(makeCRL(options()).get());
    made["plain"] =
        der(makeCRL(options({{.serial = 1, .reason = 1},
                             {.serial = "0102030405060708090A0B0C0D0E0F10", .reason = 4},
                             {.serial = 128},
                             {.serial = 0},
                             {.serial = 127, .date = "20500101000000Z", .reason = 0}}))
                .get());
    CRLOptions odd = options({{.serial = "-01"},
                              {.serial = "-80", .reason = 6},
                              {.serial = 1,
                               .extensions = {{"2.5.29.24", false,
                                               "\x18\x0f"
                                               "20250101000000Z"}}},
                              {.serial = 1, .reason = 8},
                              {.serial = 1, .extensions = {{"2.999.2", true, "\x05\0"s}}}});
    odd.nextUpdate.reset();
    odd.number.reset();
    odd.authorityKeyId = KeyId::Absent;
    made["odd"] = der(makeCRL(odd).get());
    CRLOptions delta = options({{.serial = 5, .reason = 8}, {.serial = 6, .reason = 1}});
    delta.deltaBase = Serial(1);
    made["delta"] = der(makeCRL(delta).get());
    CRLOptions indirect = options({{.serial = 5},
                                   {.serial = 5, .certificateIssuer = "CN=Other"},
                                   {.serial = 6},
                                   {.serial = 5, .reason = 8, .certificateIssuer = "CN=Third"},
                                   {.serial = 6, .certificateIssuer = "CN=Other"},
                                   {.serial = 5, .certificateIssuer = "C=DE,O=Mail,CN=CA"},
                                   {.serial = 6}});
    indirect.idp = IssuingDistributionPoint{.indirect = true};
    made["indirect"] = der(makeCRL(indirect).get());
    return made;
  }();
  return all;
}

std::unique_ptr<const CompactCRL> read(const std::string& der) {
  Octets octets = octetsOf(der);
  return CompactCRL::read(octets);
}

TEST(CompactCRL, Lists_AreTakenAndAnswerAsOpenSSLDoes) {
  for (const auto& [name, list] : lists()) {
    EXPECT_NE(read(list), nullptr) << name;
    EXPECT_EQ(CompactCRLOracle::difference(list), "") << name;
  }
}

// One octet or a few are changed, left out or put in, also such that lengths still fit.
std::string changed(std::string list, std::mt19937& random) {
  const auto below = [&random](std::size_t bound) { return random() % bound; };
  constexpr std::size_t kSignature = 80;  // OpenSSL does not look into it
  for (std::size_t changes = 1 + below(2); changes > 0; --changes) {
    const std::size_t place = below(list.size() - kSignature);
    static constexpr char kTelling[] = {'\0',   '\1',   '\2',   '\4',   '\5',   '\x17',
                                        '\x18', '\x30', '\x31', '\x7f', '\x80', '\x81',
                                        '\xff', '\xa0', '\n',   '0'};
    switch (below(4)) {
      case 0:
        list[place] = kTelling[below(sizeof kTelling)];
        break;
      case 1:
        list[place] = static_cast<char>(list[place] + (below(2) == 0 ? 1 : -1));
        break;
      case 2:  // two octets change places
        std::swap(list[place], list[place + 1]);
        break;
      default:
        list[place] = list[below(list.size() - kSignature)];
    }
  }
  return list;
}

// Whatever is wrong with a list: what is taken here OpenSSL takes, and says the same of it.
TEST(CompactCRL, ChangedLists_AnswerAsOpenSSLDoesOrAreNotTaken) {
  constexpr int kOfEach = 250;
  std::mt19937 random(20260101);
  int taken = 0;
  for (const auto& [name, list] : lists()) {
    for (int i = 0; i < kOfEach; ++i) {
      const std::string other = changed(list, random);
      const std::string difference = CompactCRLOracle::difference(other);
      ASSERT_EQ(difference, "") << name << ", " << i;
      if (read(other) != nullptr) ++taken;
    }
  }
  EXPECT_GT(taken, kOfEach / 4);
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(CompactCRL, EveryEnd_IsNotTaken) {
  const std::string& list = lists().at("plain");
  for (std::size_t size = 0; size < list.size(); ++size) {
    EXPECT_EQ(read(list.substr(0, size)), nullptr) << size;
  }
  EXPECT_EQ(read(list + '\0'), nullptr);
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST(CompactCRL, Octets_AreMovedAndNotCopied) {
  const std::string& list = lists().at("plain");
  Octets octets = octetsOf(list);
  const unsigned char* const place = octets.data();
  const auto crl = CompactCRL::read(octets);
  ASSERT_NE(crl, nullptr);
  EXPECT_EQ(crl->octets().data(), place);
}

TEST(CompactCRL, OfEntriesForOneCertificate_TheFirstAnswers) {
  const auto crl = read(
      der(makeCRL(options({{.serial = 7, .reason = 3}, {.serial = 8}, {.serial = 7, .reason = 8}}))
              .get()));
  ASSERT_NE(crl, nullptr);
  const Issued certificate = issue({.issuer = &ca(), .serial = 7});
  const CompactCRL::Found found = crl->find(certificate.get());
  ASSERT_NE(found.entry, nullptr);
  EXPECT_FALSE(found.removed);
  EXPECT_EQ(X509_REVOKED_get_ext_count(found.entry.get()), 1);
  EXPECT_EQ(crl->entryCount(), 3U);
  const Issued other = issue({.issuer = &ca(), .serial = 9});
  EXPECT_EQ(crl->find(other.get()).entry, nullptr);
}

std::string elementOf(int tag, const std::string& content) {
  std::string out;
  if (tag >= 0xa0) {  // content of less than 2^16 octets
    out = {static_cast<char>(tag), '\x82', static_cast<char>(content.size() >> 8),
           static_cast<char>(content.size())};
    return out + content;
  }
  Crypto::appendDer(out, tag, tag == V_ASN1_SEQUENCE || tag == V_ASN1_SET, content);
  return out;
}

// A list of these entries, without extensions of its own, that nobody has signed.
std::string listOf(const std::string& entries, const std::string& version = "\x02\x01\x01") {
  const std::string algorithm = "\x30\x0a\x06\x08\x2a\x86\x48\xce\x3d\x04\x03\x02";
  const std::string name = "\x30\x0d\x31\x0b\x30\x09\x06\x03\x55\x04\x03\x0c\x02\x43\x41"s;
  const std::string time = elementOf(V_ASN1_UTCTIME, "260101000000Z");
  return elementOf(V_ASN1_SEQUENCE,
                   elementOf(V_ASN1_SEQUENCE, version + algorithm + name + time + entries) +
                       algorithm + elementOf(V_ASN1_BIT_STRING, "\0\1\2"s));
}

std::string entryOf(std::uint32_t number, const std::string& extensions = {}) {
  std::string serial = "\x01";
  for (int shift = 24; shift >= 0; shift -= 8) serial += static_cast<char>(number >> shift);
  return elementOf(V_ASN1_SEQUENCE,
                   elementOf(V_ASN1_INTEGER, serial) + elementOf(V_ASN1_UTCTIME, "260101000000Z") +
                       (extensions.empty() ? "" : elementOf(V_ASN1_SEQUENCE, extensions)));
}

const std::string kReason = "\x30\x0a\x06\x03\x55\x1d\x15\x04\x03\x0a\x01\x01"s;

std::string issuerOf(const std::string& names) {
  return elementOf(
      V_ASN1_SEQUENCE,
      "\x06\x03\x55\x1d\x1d"s + elementOf(V_ASN1_OCTET_STRING, elementOf(V_ASN1_SEQUENCE, names)));
}

TEST(CompactCRL, ManyEntries_TakeLittleMoreThanTheirOctets) {
  constexpr std::uint32_t kMany = 3000;
  std::string entries;
  for (std::uint32_t i = 0; i < kMany; ++i) entries += entryOf(i * 77777, kReason);
  const std::string list = listOf(elementOf(V_ASN1_SEQUENCE, entries));
  EXPECT_EQ(CompactCRLOracle::difference(list, 300), "");
  const auto crl = read(list);
  ASSERT_NE(crl, nullptr);
  EXPECT_EQ(crl->entryCount(), kMany);
  EXPECT_LT(static_cast<double>(crl->memory()), 1.2 * static_cast<double>(list.size()));
}

TEST(CompactCRL, FormsThatAreNotTheUsual_AnswerAsOpenSSLDoes) {
  const std::string one = elementOf(V_ASN1_SEQUENCE, entryOf(1));
  const std::string dnsName = "\x82\x01x";
  std::string manyIssuers;
  std::string manyRuns;
  for (std::uint32_t i = 0; i < 1100; ++i) {
    manyIssuers +=
        entryOf(1, issuerOf("\x82\x02"s + static_cast<char>(i) + static_cast<char>(i >> 8)));
    manyRuns += entryOf(i, issuerOf("\x82\x01"s + static_cast<char>(i % 3)));
  }
  const struct {
    const char* what;
    std::string list;
    bool isTaken;
  } rows[] = {
      {"v1", listOf(one, ""), true},
      {"v1 that is written", listOf(one, "\x02\x01\x00"s), true},
      {"v3", listOf(one, "\x02\x01\x02"s), true},
      {"a version of two octets", listOf(one, "\x02\x02\x00\x01"s), false},
      {"no list", listOf(""), true},
      {"an empty list", listOf(elementOf(V_ASN1_SEQUENCE, "")), false},
      {"an empty list of extensions", listOf(one + "\xa0\x02\x30\x00"s), true},
      {"two lists", listOf(one + one), false},
      {"something behind", listOf(one + "\x05\0"s), false},
      {"an implicit tag", listOf("\xa0" + one.substr(1)), false},
      {"entries and something else", listOf(elementOf(V_ASN1_SEQUENCE, entryOf(1) + "\x05\0"s)),
       false},
      {"an issuer without a directory name",
       listOf(elementOf(V_ASN1_SEQUENCE, entryOf(1, issuerOf(dnsName)) + entryOf(2))), true},
      {"an issuer that cannot be read",
       listOf(elementOf(V_ASN1_SEQUENCE, entryOf(1, issuerOf("\x82\x05x")))), false},
      {"an issuer that goes on",
       listOf(elementOf(
           V_ASN1_SEQUENCE,
           entryOf(1, elementOf(V_ASN1_SEQUENCE,
                                "\x06\x03\x55\x1d\x1d"s +
                                    elementOf(V_ASN1_OCTET_STRING,
                                              elementOf(V_ASN1_SEQUENCE, dnsName) + "\x05\0"s))))),
       false},
      {"an issuer of many octets",
       listOf(elementOf(V_ASN1_SEQUENCE,
                        entryOf(1, issuerOf(elementOf(0xa0, std::string(5000, 'x')))))),
       false},
      {"many issuers", listOf(elementOf(V_ASN1_SEQUENCE, manyIssuers)), false},
      {"three issuers in turn", listOf(elementOf(V_ASN1_SEQUENCE, manyRuns)), true},
      {"a head that is large",
       listOf(elementOf(0xa0,
                        elementOf(V_ASN1_SEQUENCE,
                                  elementOf(V_ASN1_SEQUENCE,
                                            "\x06\x01\x2a" + elementOf(V_ASN1_OCTET_STRING,
                                                                       std::string(65500, 'x')))))),
       false},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(read(row.list) != nullptr, row.isTaken) << row.what;
    EXPECT_EQ(CompactCRLOracle::difference(row.list), "") << row.what;
  }
}

TEST(CompactCRL, SignatureThatIsWrittenInAnotherWay_IsNotTaken) {
  const std::string& list = lists().at("plain");
  const auto crl = read(list);
  ASSERT_NE(crl, nullptr);
  const std::string before(crl->toBeSigned());
  const std::string head = list.substr(list.find(before) + before.size());
  for (const std::string& tail : {head.substr(0, 2) + head.substr(2),
                                  "\x30\x80" + head.substr(2, 10) + "\0\0"s + head.substr(12),
                                  head.substr(0, 14) + "\x7"s + head.substr(15)}) {
    const std::string other = elementOf(V_ASN1_SEQUENCE, before + tail);
    EXPECT_EQ(read(other) != nullptr, other == list);
    EXPECT_EQ(CompactCRLOracle::difference(other), "");
  }
}

}  // namespace
}  // namespace Velantrix::Test
