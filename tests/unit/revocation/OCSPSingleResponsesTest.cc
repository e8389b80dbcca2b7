#include "revocation/OCSPSingleResponses.h"
#include "unit/revocation/OCSPWorld.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

constexpr int kIsGood = V_OCSP_CERTSTATUS_GOOD;
constexpr int kIsRevoked = V_OCSP_CERTSTATUS_REVOKED;
constexpr int kIsUnknown = V_OCSP_CERTSTATUS_UNKNOWN;

std::string joined(const std::vector<std::string>& elements) {
  std::string all;
  for (const std::string& element : elements) all += element;
  return all;
}

std::string verdictOf(const OCSPWorld& world, const std::vector<OCSPSingle>& singles) {
  return world.verdict({.signer = &world.ca, .singles = singles});
}

TEST(OCSPSingleResponses, Status_IsWhatTheResponderSays) {
  const OCSPWorld world;
  EXPECT_EQ(verdictOf(world, {{.status = kIsGood}}), "good");
  EXPECT_EQ(verdictOf(world, {{.status = kIsRevoked}}), "revoked");
  EXPECT_EQ(verdictOf(world, {{.status = kIsUnknown}}), "unknown");
}

TEST(OCSPSingleResponses, Revocation_HasItsTimeAndReason) {
  const OCSPWorld world;
  const OCSPReading reading = world.read({.signer = &world.ca,
                                          .singles = {{.status = kIsRevoked,
                                                       .reason = CRL_REASON_KEY_COMPROMISE,
                                                       .revoked = "20240229120000Z"}}});
  EXPECT_EQ(wordFor(reading), "revoked");
  EXPECT_EQ(reading.revoked.reason, CRL_REASON_KEY_COMPROMISE);
  EXPECT_EQ(reading.revoked.date, Time::then(1709208000, true));
  // Any reason revokes, and none does as well.
  for (const int reason : {CRL_REASON_UNSPECIFIED, CRL_REASON_REMOVE_FROM_CRL, 7}) {
    const OCSPReading other =
        world.read({.signer = &world.ca, .singles = {{.status = kIsRevoked, .reason = reason}}});
    EXPECT_EQ(wordFor(other), "revoked");
    EXPECT_EQ(other.revoked.reason, reason);
  }
  const OCSPReading none = world.read({.signer = &world.ca, .singles = {{.status = kIsRevoked}}});
  EXPECT_EQ(wordFor(none), "revoked");
  EXPECT_EQ(none.revoked.reason, std::nullopt);
}

// RFC 6960, 4.1.1: the four fields of CertID
TEST(OCSPSingleResponses, Identifier_IsThatOfTheCertificate) {
  const OCSPWorld world;
  const Issued other = issue({.subject = "CN=Leaf", .issuer = &world.ca});
  const Issued namesake = issueCA("CN=CA");
  const Issued sameKey = issue({.subject = "CN=Other CA", .ca = true, .key = world.ca.key});
  const Issued sameSerial =
      issue({.subject = "CN=Leaf", .issuer = &sameKey, .serial = Serial(world.leaf)});
  const struct {
    const char* name;
    OCSPSingle single;
    const char* expected;
  } rows[] = {
      {"SHA-1", {.certificate = &world.leaf, .issuer = &world.ca}, "good"},
      {"SHA-224",
       {.certificate = &world.leaf, .issuer = &world.ca, .digest = EVP_sha224()},
       "good"},
      {"SHA-256",
       {.certificate = &world.leaf, .issuer = &world.ca, .digest = EVP_sha256()},
       "good"},
      {"SHA-384",
       {.certificate = &world.leaf, .issuer = &world.ca, .digest = EVP_sha384()},
       "good"},
      {"SHA-512",
       {.certificate = &world.leaf, .issuer = &world.ca, .digest = EVP_sha512()},
       "good"},
      {"MD5",
       {.certificate = &world.leaf, .issuer = &world.ca, .digest = EVP_md5()},
       "other certificate"},
      {"SHA3-256",
       {.certificate = &world.leaf, .issuer = &world.ca, .digest = EVP_sha3_256()},
       "other certificate"},
      {"another serial number", {.certificate = &other, .issuer = &world.ca}, "other certificate"},
      {"another issuer's key",
       {.certificate = &world.leaf, .issuer = &namesake},
       "other certificate"},
      {"another issuer's key, SHA-256",
       {.certificate = &world.leaf, .issuer = &namesake, .digest = EVP_sha256()},
       "other certificate"},
      {"another issuer's name",
       {.certificate = &sameSerial, .issuer = &sameKey},
       "other certificate"},
      {"revoked with SHA-256",
       {.status = kIsRevoked,
        .certificate = &world.leaf,
        .issuer = &world.ca,
        .digest = EVP_sha256()},
       "revoked"},
  };
  for (const auto& row : rows) EXPECT_EQ(verdictOf(world, {row.single}), row.expected) << row.name;
  EXPECT_EQ(verdictOf(world, {}), "other certificate");
  EXPECT_EQ(verdictOf(world, {{.status = kIsRevoked, .certificate = &other, .issuer = &world.ca},
                              {.status = kIsGood}}),
            "good");
}

TEST(OCSPSingleResponses, HashAlgorithm_HasNoParametersOrNull) {
  const OCSPWorld world;
  const std::string sha1 = "\x06\x05\x2b\x0e\x03\x02\x1a"s;
  const auto with = [&](const std::string& parameters) {
    const auto change = [&](std::string& data) {
      // Every element around the parameters is put together anew: its length changes.
      std::vector<std::string> parts = elementsOf(contentOf(data));
      std::vector<std::string> single = elementsOf(contentOf(contentOf(parts.at(2))));
      std::vector<std::string> id = elementsOf(contentOf(single.at(0)));
      id.at(0) = derElement(0x30, sha1 + parameters);
      single.at(0) = derElement(0x30, joined(id));
      parts.at(2) = derElement(0x30, derElement(0x30, joined(single)));
      data = derElement(0x30, joined(parts));
    };
    return world.verdict({.signer = &world.ca, .changeData = change});
  };
  EXPECT_EQ(with("\x05\0"s), "good");
  EXPECT_EQ(with(""), "good");
  EXPECT_EQ(with("\x30\0"s), "other certificate");
  EXPECT_EQ(with("\x02\x01\x05"), "other certificate");
}

TEST(OCSPSingleResponses, Times_SurroundTheCheckTime) {
  OCSPWorld world;
  world.moment.now = Time::then(When("20240229120000Z").time(), true);
  world.moment.checked = world.moment.now;
  const struct {
    const char* name;
    const char* producedAt;
    const char* thisUpdate;
    std::optional<When> nextUpdate;
    const char* expected;
  } rows[] = {
      {"fresh", "20240229115900Z", "20240229115900Z", "20240301000000Z", "good"},
      {"just now", "20240229120000Z", "20240229120000Z", "20240229120000Z", "good"},
      {"clock ahead by the tolerance", "20240229120500Z", "20240229120500Z", "20240301000000Z",
       "good"},
      {"producedAt too far ahead", "20240229120501Z", "20240229120000Z", "20240301000000Z",
       "not yet valid"},
      {"thisUpdate too far ahead", "20240229120500Z", "20240229120501Z", "20240301000000Z",
       "not yet valid"},
      {"ended", "20240229110000Z", "20240229100000Z", "20240229115959Z", "expired"},
      {"ends", "20240229110000Z", "20240229100000Z", "20240229120000Z", "good"},
      {"ends without end, as old as may be", "20240229110000Z", "20240228120000Z", {}, "good"},
      {"ends without end, too old", "20240229110000Z", "20240228115959Z", {}, "expired"},
      {"old, with an end", "20230228110000Z", "20230228100000Z", "20300101000000Z", "good"},
      {"known before it was produced", "20240229110000Z", "20240229110500Z", "20240301000000Z",
       "good"},
      {"known after it was produced", "20240229110000Z", "20240229110501Z", "20240301000000Z",
       "not yet valid"},
      {"ends before it begins", "20240229120000Z", "20240229120200Z", "20240229120100Z",
       "malformed"},
  };
  for (const auto& row : rows) {
    const OCSPAnswer answer = {
        .signer = &world.ca,
        .singles = {{.thisUpdate = row.thisUpdate, .nextUpdate = row.nextUpdate}},
        .producedAt = row.producedAt};
    EXPECT_EQ(world.verdict(answer), row.expected) << row.name;
  }
}

TEST(OCSPSingleResponses, Settings_SayHowLongAndHowFarAhead) {
  OCSPWorld world;
  // Not 0: the answer is produced later than the moment at which the world is looked at.
  world.settings.clockTolerance = 20;
  world.settings.maximumOCSPAge = 60;
  EXPECT_EQ(verdictOf(world, {{.thisUpdate = 100s}}), "not yet valid");
  EXPECT_EQ(verdictOf(world, {{.thisUpdate = -100s, .nextUpdate = {}}}), "expired");
  world.settings.clockTolerance = 1000;
  world.settings.maximumOCSPAge = 1000;
  EXPECT_EQ(verdictOf(world, {{.thisUpdate = 100s}}), "good");
  EXPECT_EQ(verdictOf(world, {{.thisUpdate = -100s, .nextUpdate = {}}}), "good");
}

// The answer is of today, and says how it was.
TEST(OCSPSingleResponses, CheckTimeInThePast_IsWhatTheTimesAreComparedWith) {
  OCSPWorld world;
  world.moment.checked = Time::then(-3600 * 24 * 30, false);
  EXPECT_EQ(verdictOf(world, {{.thisUpdate = -24h}}), "not yet valid");
  EXPECT_EQ(verdictOf(world, {{.thisUpdate = -24h * 31}}), "good");
  EXPECT_EQ(verdictOf(world, {{.thisUpdate = -24h * 31, .nextUpdate = -24h * 29}}), "good");
  EXPECT_EQ(verdictOf(world, {{.thisUpdate = -24h * 32, .nextUpdate = -24h * 31}}), "expired");
  world.moment.now = world.moment.checked;
  EXPECT_EQ(verdictOf(world, {{.thisUpdate = -24h * 31}}), "not yet valid");
}

TEST(OCSPSingleResponses, TimeThatIsWrittenOtherwise_MakesTheAnswerMalformed) {
  const OCSPWorld world;
  const auto with = [&](std::vector<OCSPSingle> singles, const std::string& from,
                        const std::string& to) {
    return world.verdict({.signer = &world.ca,
                          .singles = std::move(singles),
                          .producedAt = "20240101000000Z",
                          .changeData = [&](std::string& data) {
                            const std::size_t at = data.find(from);
                            ASSERT_NE(at, std::string::npos);
                            data.replace(at, from.size(), to);
                          }});
  };
  const OCSPSingle single = {.status = kIsRevoked,
                             .revoked = "20240102000000Z",
                             .thisUpdate = "20240103000000Z",
                             .nextUpdate = "99990104000000Z"};
  const OCSPSingle good = {
      .thisUpdate = "20240101000000Z", .certificate = &world.leaf, .issuer = &world.ca};
  const OCSPSingle other = {
      .thisUpdate = "20240103000000Z", .certificate = &world.ca, .issuer = &world.ca};
  EXPECT_EQ(with({single}, "20240101000000Z", "20241301000000Z"), "malformed");
  EXPECT_EQ(with({single}, "20240102000000Z", "202401020000.0Z"), "malformed");
  EXPECT_EQ(with({single}, "20240103000000Z", "202401030000000"), "malformed");
  EXPECT_EQ(with({single}, "99990104000000Z", "9999010400+0100"), "malformed");
  // What cannot be read might be the revocation.
  EXPECT_EQ(with({good, single}, "20240102000000Z", "202401020000.0Z"), "malformed");
  EXPECT_EQ(with({single, good}, "20240102000000Z", "202401020000.0Z"), "malformed");
  // What is said about others is no matter.
  EXPECT_EQ(with({other, good}, "20240103000000Z", "20240103000000x"), "good");
}

TEST(OCSPSingleResponses, SeveralForOneCertificate_RevokedWinsElseTheNewest) {
  const OCSPWorld world;
  const OCSPSingle oldGood = {.status = kIsGood, .thisUpdate = -2h};
  const OCSPSingle good = {.status = kIsGood, .thisUpdate = "20240103000000Z"};
  const OCSPSingle oldUnknown = {.status = kIsUnknown, .thisUpdate = -2h};
  const OCSPSingle unknown = {.status = kIsUnknown, .thisUpdate = "20240103000000Z"};
  const OCSPSingle newGood = {.status = kIsGood, .thisUpdate = -1h};
  const OCSPSingle newUnknown = {.status = kIsUnknown, .thisUpdate = -1h};
  const OCSPSingle revoked = {.status = kIsRevoked, .thisUpdate = "20240103000000Z"};
  const OCSPSingle expired = {.status = kIsRevoked, .thisUpdate = -5h, .nextUpdate = -4h};
  const OCSPSingle early = {.status = kIsRevoked, .thisUpdate = 5h};
  const struct {
    const char* name;
    OCSPSingle one;
    OCSPSingle other;
    const char* expected;
  } rows[] = {
      {"revoked and good", revoked, newGood, "revoked"},
      {"revoked and unknown", revoked, newUnknown, "revoked"},
      {"unknown before good", oldUnknown, newGood, "good"},
      {"good before unknown", oldGood, newUnknown, "unknown"},
      {"good and unknown at once", good, unknown, "unknown"},
      {"expired revocation and good", expired, newGood, "good"},
      {"early revocation and good", early, newGood, "good"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(verdictOf(world, {row.one, row.other}), row.expected) << row.name;
    EXPECT_EQ(verdictOf(world, {row.other, row.one}), row.expected) << row.name;
  }
  EXPECT_EQ(verdictOf(world, {expired, early}), "expired");
  EXPECT_EQ(verdictOf(world, {early, expired}), "not yet valid");
  const OCSPSingle sha256 = {.status = kIsRevoked,
                             .certificate = &world.leaf,
                             .issuer = &world.ca,
                             .digest = EVP_sha256()};
  EXPECT_EQ(verdictOf(world, {newGood, sha256}), "revoked");
}

TEST(OCSPSingleResponses, NewestRevocation_IsTheOneThatIsTold) {
  const OCSPWorld world;
  const OCSPSingle older = {
      .status = kIsRevoked, .reason = CRL_REASON_KEY_COMPROMISE, .thisUpdate = -2h};
  const OCSPSingle newer = {
      .status = kIsRevoked, .reason = CRL_REASON_SUPERSEDED, .thisUpdate = -1h};
  for (const auto& singles : {std::vector{older, newer}, std::vector{newer, older}}) {
    EXPECT_EQ(world.read({.signer = &world.ca, .singles = singles}).revoked.reason,
              CRL_REASON_SUPERSEDED);
  }
}

TEST(OCSPSingleResponses, UnknownCriticalExtension_IsRefusedWhereItIsAboutTheCertificate) {
  const OCSPWorld world;
  const Issued other = issue({.issuer = &world.ca});
  const RawExtension critical = {"1.2.3.4", true, "\x05\0"s};
  const RawExtension known = {"2.5.29.21", true, "\x0a\x01\x01"s};
  const OCSPSingle good = {};
  const OCSPSingle refused = {.status = kIsRevoked, .extensions = {known, critical}};
  EXPECT_EQ(verdictOf(world, {refused}), "unknown critical extension");
  EXPECT_EQ(verdictOf(world, {good, refused}), "unknown critical extension");
  EXPECT_EQ(verdictOf(world, {refused, good}), "unknown critical extension");
  EXPECT_EQ(verdictOf(world, {{.extensions = {known}}}), "good");
  EXPECT_EQ(verdictOf(world, {{.extensions = {{"1.2.3.4", false, "\x05\0"s}}}}), "good");
  EXPECT_EQ(
      verdictOf(world,
                {{.certificate = &other, .issuer = &world.ca, .extensions = {critical}}, good}),
      "good");
}

}  // namespace
}  // namespace Velantrix::Test
