#include "revocation/NoRevocationAvailable.h"
#include "support/Handles.h"

#include <openssl/err.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::Revocation::NoRevocation;
using Crypto::PKX509::Revocation::noRevocationAvailable;
using namespace std::string_literals;

const RawExtension kNoRevAvail = {.oid = "2.5.29.56", .der = "\x05\0"s};

TEST(NoRevocationAvailable, ItStandsAloneInAnEndEntitysCertificate) {
  const RawExtension critical = {"2.5.29.56", true, "\x05\0"s};
  const struct {
    const char* name;
    CertificateOptions options;
    NoRevocation expected;
  } rows[] = {
      {"none", {}, NoRevocation::kAbsent},
      {"none, in a CA's certificate", {.ca = true}, NoRevocation::kAbsent},
      {"none, beside a list",
       {.crlDistributionPoints = {{.fullNames = {"URI:http://a/"}}}},
       NoRevocation::kAbsent},
      {"none, beside what cannot be read",
       {.rawExtensions = {{"1.3.6.1.5.5.7.1.1", false, "\x30\x01"s}}},
       NoRevocation::kAbsent},
      {"alone", {.rawExtensions = {kNoRevAvail}}, NoRevocation::kAsserted},
      {"critical", {.rawExtensions = {critical}}, NoRevocation::kAsserted},
      {"without basic constraints",
       {.basicConstraints = false, .rawExtensions = {kNoRevAvail}},
       NoRevocation::kAsserted},
      {"beside a place of the CA's certificate",
       {.extensions = {{"authorityInfoAccess", "caIssuers;URI:http://a/"}},
        .rawExtensions = {kNoRevAvail}},
       NoRevocation::kAsserted},
      {"in a CA's certificate",
       {.ca = true, .rawExtensions = {kNoRevAvail}},
       NoRevocation::kMisused},
      {"beside a list",
       {.crlDistributionPoints = {{.fullNames = {"URI:http://a/"}}},
        .rawExtensions = {kNoRevAvail}},
       NoRevocation::kMisused},
      {"beside a delta list",
       {.freshestCRL = {{.fullNames = {"URI:http://a/"}}}, .rawExtensions = {kNoRevAvail}},
       NoRevocation::kMisused},
      {"beside a responder",
       {.extensions = {{"authorityInfoAccess", "caIssuers;URI:http://a/,OCSP;URI:http://b/"}},
        .rawExtensions = {kNoRevAvail}},
       NoRevocation::kMisused},
      {"beside a responder that is no URI",
       {.extensions = {{"authorityInfoAccess", "OCSP;email:a@b.test"}},
        .rawExtensions = {kNoRevAvail}},
       NoRevocation::kMisused},
      {"twice", {.rawExtensions = {kNoRevAvail, kNoRevAvail}}, NoRevocation::kMisused},
      {"no value", {.rawExtensions = {{"2.5.29.56", false, ""}}}, NoRevocation::kMisused},
      {"another value",
       {.rawExtensions = {{"2.5.29.56", false, "\x30\0"s}}},
       NoRevocation::kMisused},
      {"more behind the value",
       {.rawExtensions = {{"2.5.29.56", false, "\x05\0\x05\0"s}}},
       NoRevocation::kMisused},
      {"beside an access that cannot be read",
       {.rawExtensions = {kNoRevAvail, {"1.3.6.1.5.5.7.1.1", false, "\x30\x01"s}}},
       NoRevocation::kMisused},
      {"beside access twice",
       {.rawExtensions = {kNoRevAvail,
                          {"1.3.6.1.5.5.7.1.1", false, "\x30\0"s},
                          {"1.3.6.1.5.5.7.1.1", false, "\x30\0"s}}},
       NoRevocation::kMisused},
      {"beside points that cannot be read",
       {.rawExtensions = {kNoRevAvail, {"2.5.29.31", false, "\x30\x01"s}}},
       NoRevocation::kMisused},
      {"beside constraints that cannot be read",
       {.basicConstraints = false,
        .rawExtensions = {kNoRevAvail, {"2.5.29.19", false, "\x30\x01"s}}},
       NoRevocation::kMisused},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(noRevocationAvailable(handle(issue(row.options))), row.expected) << row.name;
  }
  EXPECT_EQ(ERR_peek_error(), 0U);
}

}  // namespace
}  // namespace Velantrix::Test
