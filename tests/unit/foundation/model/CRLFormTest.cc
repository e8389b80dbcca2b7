#include "foundation/crlindex/CompactCRL.h"
#include "foundation/model/CRLForm.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Handles.h"
#include "support/Pki.h"

#include <velantrix/Exception.h>

#include <openssl/err.h>

#include <functional>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using namespace Crypto::PKX509;
using Crypto::Owned;

using Change = std::function<void(X509_CRL*)>;

void require(bool done) {
  if (!done) throw std::runtime_error("OpenSSL");
}

Owned<ASN1_TIME> time(int type, const std::string& text) {
  Owned<ASN1_TIME> made(ASN1_STRING_type_new(type));
  require(ASN1_STRING_set(made.get(), text.data(), static_cast<int>(text.size())) == 1);
  return made;
}

// Newer versions of OpenSSL refuse some times while they decode.
constexpr char kNotRead[] = "no list at all";

// The rule in its compact form; nothing where it has none.
std::optional<std::string> ruleOfCompact(const std::string& der) {
  const unsigned char* const begin = Crypto::octets(der);
  Octets octets(begin, begin + der.size());
  const auto compact = Crypto::CompactCRL::read(octets);
  if (compact == nullptr) return std::nullopt;
  const char* const rule = brokenRuleOf(*compact);
  return rule == nullptr ? "" : rule;
}

// A list without version and extensions, changed before it is signed, as a reader has it.
std::string ruleOf(const Change& change, const Change& afterwards = nullptr) {
  static const Issued ca = issueCA("CN=CA");
  const Owned<X509_CRL> made(X509_CRL_new());
  require(X509_CRL_set_issuer_name(made.get(), X509_get_subject_name(ca.get())) == 1);
  const auto now = time(V_ASN1_UTCTIME, "260101000000Z");
  require(X509_CRL_set1_lastUpdate(made.get(), now.get()) == 1);
  if (change) change(made.get());
  require(X509_CRL_sign(made.get(), ca.key.get(), EVP_sha256()) > 0);
  if (afterwards) afterwards(made.get());
  try {
    const std::string encoded = der(made.get());
    const Owned<X509_CRL> read = crlFromDer(encoded);
    const char* const rule = brokenRuleOf(read.get());
    const std::string found = rule == nullptr ? "" : rule;
    const std::string other = ruleOfCompact(encoded).value_or(found);
    EXPECT_EQ(other, found);
    return found;
  } catch (const std::runtime_error&) {
    return kNotRead;
  }
}

void addEntry(X509_CRL* crl, int type, const std::string& date) {
  Owned<X509_REVOKED> entry(X509_REVOKED_new());
  const Owned<ASN1_INTEGER> serial(ASN1_INTEGER_new());
  require(ASN1_INTEGER_set(serial.get(), 7) == 1 &&
          X509_REVOKED_set_serialNumber(entry.get(), serial.get()) == 1);
  const auto when = time(type, date);
  require(X509_REVOKED_set_revocationDate(entry.get(), when.get()) == 1);
  require(X509_CRL_add0_revoked(crl, entry.release()) == 1);
}

void addReasonToEntry(X509_CRL* crl) {
  addEntry(crl, V_ASN1_UTCTIME, "260101000000Z");
  X509_REVOKED* const entry = sk_X509_REVOKED_value(X509_CRL_get_REVOKED(crl), 0);
  const Owned<ASN1_ENUMERATED> reason(ASN1_ENUMERATED_new());
  require(ASN1_ENUMERATED_set(reason.get(), 1) == 1 &&
          X509_REVOKED_add1_ext_i2d(entry, NID_crl_reason, reason.get(), 0, 0) == 1);
}

void addNumber(X509_CRL* crl, long value) {
  const Owned<ASN1_INTEGER> number(ASN1_INTEGER_new());
  require(ASN1_INTEGER_set(number.get(), value) == 1 &&
          X509_CRL_add1_ext_i2d(crl, NID_crl_number, number.get(), 0, 0) == 1);
}

TEST(CRLForm, ListsOfBothVersions_KeepTheRules) {
  EXPECT_EQ(ruleOf(nullptr), "");
  EXPECT_EQ(ruleOf([](X509_CRL* crl) { addEntry(crl, V_ASN1_UTCTIME, "260101000000Z"); }), "");
  EXPECT_EQ(ruleOf([](X509_CRL* crl) { X509_CRL_set_version(crl, X509_CRL_VERSION_2); }), "");
  EXPECT_EQ(ruleOf([](X509_CRL* crl) {
              X509_CRL_set_version(crl, X509_CRL_VERSION_2);
              addReasonToEntry(crl);
              addNumber(crl, 5);
            }),
            "");
}

TEST(CRLForm, Version_IsV2OrAbsent) {
  EXPECT_EQ(ruleOf([](X509_CRL* crl) { X509_CRL_set_version(crl, X509_CRL_VERSION_1); }),
            "a version other than v2 (5.1)");
  EXPECT_EQ(ruleOf([](X509_CRL* crl) { X509_CRL_set_version(crl, 2); }),
            "a version other than v2 (5.1)");
  EXPECT_EQ(ruleOf([](X509_CRL* crl) { addNumber(crl, 5); }), "extensions in a v1 list (5.1)");
  EXPECT_EQ(ruleOf(addReasonToEntry), "extensions of an entry in a v1 list (5.1)");
}

TEST(CRLForm, Algorithms_AreTheSameInside) {
  EXPECT_EQ(ruleOf(nullptr,
                   [](X509_CRL* crl) {
                     const X509_ALGOR* outer = nullptr;
                     X509_CRL_get0_signature(crl, nullptr, &outer);
                     X509_ALGOR_set0(const_cast<X509_ALGOR*>(outer),
                                     OBJ_nid2obj(NID_ecdsa_with_SHA384), V_ASN1_UNDEF, nullptr);
                   }),
            "two algorithms for one signature (5.1.1.2)");
}

TEST(CRLForm, Times_AreWrittenToTheSecondInUTC) {
  const struct {
    int type;
    const char* text;
    bool right;
  } rows[] = {{V_ASN1_UTCTIME, "260101000000Z", true},
              {V_ASN1_GENERALIZEDTIME, "20260101000000Z", true},
              {V_ASN1_UTCTIME, "2601010000Z", false},
              {V_ASN1_UTCTIME, "260101010000+0100", false},
              {V_ASN1_GENERALIZEDTIME, "20260101000000.5Z", false},
              {V_ASN1_GENERALIZEDTIME, "20261301000000Z", false}};
  for (const auto& row : rows) {
    const auto when = time(row.type, row.text);
    const auto isRight = [&row](const std::string& found, const char* rule) {
      return row.right ? found.empty() : found == rule || found == kNotRead;
    };
    EXPECT_TRUE(isRight(ruleOf([&](X509_CRL* crl) { X509_CRL_set1_lastUpdate(crl, when.get()); }),
                        "thisUpdate (5.1.2.4)"))
        << row.text;
    EXPECT_TRUE(isRight(ruleOf([&](X509_CRL* crl) { X509_CRL_set1_nextUpdate(crl, when.get()); }),
                        "nextUpdate (5.1.2.5)"))
        << row.text;
    EXPECT_TRUE(isRight(ruleOf([&](X509_CRL* crl) { addEntry(crl, row.type, row.text); }),
                        "a revocation date (5.1.2.6)"))
        << row.text;
  }
}

TEST(CRLForm, ContentThatMustNotBeEmpty_IsThere) {
  EXPECT_EQ(ruleOf([](X509_CRL* crl) {
              const Owned<X509_NAME> none(X509_NAME_new());
              X509_CRL_set_issuer_name(crl, none.get());
            }),
            "no issuer (5.1.2.3)");
  // An empty list of entries is what is left when the only one has been taken out.
  EXPECT_EQ(ruleOf([](X509_CRL* crl) {
              addEntry(crl, V_ASN1_UTCTIME, "260101000000Z");
              STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(crl);
              const Owned<X509_REVOKED> gone(sk_X509_REVOKED_pop(entries));
            }),
            "an empty list of entries (5.1.2.6)");
}

TEST(CRLForm, ListOfExtensions_IsNotEmpty) {
  EXPECT_EQ(ruleOf([](X509_CRL* crl) {
              X509_CRL_set_version(crl, X509_CRL_VERSION_2);
              addNumber(crl, 5);
              auto* const extensions =
                  const_cast<STACK_OF(X509_EXTENSION)*>(X509_CRL_get0_extensions(crl));
              const Owned<X509_EXTENSION> gone(sk_X509_EXTENSION_pop(extensions));
            }),
            "an empty list of extensions (5.1.2.7)");
}

TEST(CRLForm, ExtensionsThatMakeNoSense_BreakTheRules) {
  const Crypto::ErrorScope errors;  // OpenSSL reads as far as it can, and says why no further
  static const Issued ca = issueCA("CN=CA");
  using Scope = IssuingDistributionPoint;
  const char* const kTooManyKinds = "an issuing distribution point for more than one kind (5.2.5)";
  const RawExtension unreadable{.oid = "2.5.29.21", .der = "\x05\0"s};
  const RawExtension reason{.oid = "2.5.29.21", .der = "\x0a\x01\x01"};
  const RawExtension named{.oid = "2.5.29.29",
                           .critical = true,
                           .der =
                               "\x30\x11\xa4\x0f\x30\x0d\x31\x0b\x30\x09\x06\x03\x55\x04\x03\x0c"
                               "\x02\x43\x41"};
  RawExtension trailing = named;
  trailing.der += "\x05\0"s;
  const struct {
    CRLOptions options;
    const char* rule;
  } rows[] = {
      {{}, ""},
      {{.number = Serial("-05")}, "a CRL number below 0 (5.2.3)"},
      {{.idp = Scope{}}, "an empty issuing distribution point (5.2.5)"},
      {{.idp = Scope{.onlyUser = true}}, ""},
      {{.idp = Scope{.onlyUser = true, .onlyCA = true}},
       "an issuing distribution point for more than one kind (5.2.5)"},
      {{.revoked = {{.serial = 7, .reason = 8}}},
       "removeFromCRL in a list that is no delta CRL (5.3.1)"},
      {{.number = Serial(2), .deltaBase = Serial(1), .revoked = {{.serial = 7, .reason = 8}}}, ""},
      {{.revoked = {{.serial = 7, .certificateIssuer = "CN=Other"}}},
       "an entry of another issuer in a list that is not indirect (5.3.3)"},
      {{.revoked = {{.serial = 7, .certificateIssuer = "CN=Other"}},
        .idp = Scope{.indirect = true}},
       ""},
      {{.revoked = {{.serial = 7,
                     .extensions = {{.oid = "2.5.29.29", .critical = true, .der = "\x05\0"s}}}},
        .idp = Scope{.indirect = true}},
       "an entry's issuer that cannot be read (5.3.3)"},
      {{.revoked = {{.serial = 7, .certificateIssuer = "CN=A", .extensions = {named}}},
        .idp = Scope{.indirect = true}},
       "an entry's issuer that cannot be read (5.3.3)"},
      {{.revoked = {{.serial = 7, .extensions = {trailing}}}, .idp = Scope{.indirect = true}},
       "an entry's issuer that cannot be read (5.3.3)"},
      {{.revoked = {{.serial = 7, .extensions = {unreadable}}}}, ""},
      {{.revoked = {{.serial = 7, .extensions = {unreadable}}}, .idp = Scope{.indirect = true}},
       "a reason that cannot be read (5.3.1)"},
      {{.revoked = {{.serial = 7, .reason = 1, .extensions = {reason}}},
        .idp = Scope{.indirect = true}},
       "a reason that cannot be read (5.3.1)"},
      {{.number = Serial(2),
        .deltaBase = Serial(1),
        .revoked = {{.serial = 7, .reason = 1, .extensions = {reason}}}},
       "a reason that cannot be read (5.3.1)"},
      {{.revoked = {{.serial = 7, .reason = 1}, {.serial = 8, .reason = 8}}},
       "removeFromCRL in a list that is no delta CRL (5.3.1)"},
      {{.revoked = {{.serial = 7, .extensions = {{.oid = "1.2.3", .der = "\x0a\x01\x08"}}}}}, ""},
      {{.idp = Scope{.onlyCA = true, .onlyAttributes = true}}, kTooManyKinds},
      {{.idp = Scope{.onlyUser = true, .onlyAttributes = true}}, kTooManyKinds},
      {{.idp = Scope{.indirect = true}}, ""},
      {{.idp = Scope{.fullNames = {"URI:http://a.test/"}}}, ""},
      {{.idp = Scope{.onlySomeReasons = 0x60}}, ""},
      {{.revoked = {{.serial = 7, .certificateIssuer = "CN=Other"}},
        .idp = Scope{.onlyUser = true}},
       "an entry of another issuer in a list that is not indirect (5.3.3)"}};
  for (const auto& row : rows) {
    CRLOptions options = row.options;
    options.issuer = &ca;
    const char* const rule = crlHandle(options)->brokenRule();
    EXPECT_STREQ(rule == nullptr ? "" : rule, row.rule);
  }
  ERR_clear_error();  // of the builder, which reads what it has made
}

}  // namespace
}  // namespace Velantrix::Test
