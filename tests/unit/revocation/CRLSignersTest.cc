#include "foundation/net/Cancellation.h"
#include "revocation/CRLSigners.h"
#include "support/OCSPBuilder.h"
#include "unit/revocation/Surroundings.h"

#include <gtest/gtest.h>
#include <stop_token>
#include <thread>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::Revocation::By;
using Crypto::PKX509::Revocation::CRLCandidate;
using Crypto::PKX509::Revocation::CRLSigners;
using Crypto::PKX509::Revocation::Path;
using Crypto::PKX509::Revocation::Ruling;
using Crypto::PKX509::Revocation::Standings;

/// Offers all that it has, whatever it is asked for.
class CarelessSources : public MemorySources {
 public:
  Offers<RefCertificate> certificates(const DistinguishedName& subject) override {
    asked.push_back("certificates " + subject.asString());
    Offers<RefCertificate> offers;
    for (const RefCertificate& one : known) offers.found.push_back({one, {}, {}});
    return offers;
  }
};

class CRLSignersTest : public testing::Test {
 protected:
  const VerificationRun run{nullptr};
  const Issued root = issueCA("CN=Root");
  const Issued ca = issueCA("CN=CA", &root);
  const Issued leaf = issue({.subject = "CN=Leaf", .issuer = &ca});
  const Path withoutCA{handle(leaf), handle(root)};
  CarelessSources sources;
  MemoryPaths paths;
  std::map<std::string, Ruling> rulings;  // by DER; others are good
  Standings standings{paths, true, [this](const RefCertificate& one, const Path&, By by) {
                        EXPECT_EQ(by, By::kAll);
                        ++decided;
                        const auto found = rulings.find(der(one->native()));
                        if (found != rulings.end()) return found->second;
                        Ruling good;
                        good.outcome.status = Status::kGood;
                        return good;
                      }};
  int decided = 0;
  std::list<CRLCandidate> candidates;

  CRLSignersTest() { paths.anchor = handle(root); }

  Issued namesake(CertificateOptions options = {}) {
    options.subject = "CN=CA";
    if (options.issuer == nullptr) options.issuer = &root;
    options.ca = true;
    return issue(options);
  }
  RefCertificate know(const Issued& issued) {
    sources.known.push_back(handle(issued));
    return sources.known.back();
  }
  // What becomes of a list that nobody has looked at.
  CRLCandidate& authenticate(const CRLOptions& options, const Path& path, int level = 2) {
    candidates.clear();
    candidates.push_back({.crl = crlHandle(options)});
    again(path, level);
    return candidates.front();
  }
  CRLCandidate& authenticate() { return authenticate(bare(), withoutCA); }
  // Without key identifier: namesakes are tried in the order in which they come.
  CRLOptions bare() const { return {.issuer = &ca, .authorityKeyId = KeyId::Absent}; }
  void again(const Path& path, int level = 2) {
    CRLSigners(path, sources, standings, level).authenticate(candidates);
  }
};

TEST_F(CRLSignersTest, SignerOnAPath_NeedsNoSource) {
  const Path path{handle(leaf), handle(ca), handle(root)};
  EXPECT_TRUE(authenticate(bare(), path).counts());
  standings.verifying(path);
  EXPECT_TRUE(authenticate(bare(), withoutCA).counts());
  EXPECT_TRUE(sources.asked.empty());
  EXPECT_EQ(paths.built, 0);
}

TEST_F(CRLSignersTest, KeyOfAnotherName_IsNotTried) {
  const Issued other = issueCA("CN=Other", &root);
  CRLOptions options = bare();
  options.signer = root.key;
  const Path path{handle(leaf), handle(ca), handle(root)};
  EXPECT_EQ(authenticate(options, path).unauthentic, Reason::kWrongSignature);
  know(other);
  options.signer = other.key;
  EXPECT_EQ(authenticate(options, withoutCA).unauthentic, Reason::kSignerUnknown);
}

TEST_F(CRLSignersTest, WhatIsDone_IsNotDoneAgain) {
  authenticate();
  EXPECT_EQ(candidates.front().unauthentic, Reason::kSignerUnknown);
  know(ca);
  sources.asked.clear();
  again(withoutCA);
  EXPECT_TRUE(sources.asked.empty());
  EXPECT_TRUE(candidates.front().signer.empty());

  candidates.front().forgetSigner();
  candidates.front().refused = Reason::kMalformed;
  again(withoutCA);
  EXPECT_TRUE(sources.asked.empty());
  EXPECT_TRUE(candidates.front().signer.empty());

  candidates.front().refused.reset();
  again(withoutCA);
  EXPECT_EQ(sources.asked.size(), 1U);
  ASSERT_FALSE(candidates.front().signer.empty());
  again(withoutCA);
  EXPECT_EQ(sources.asked.size(), 1U);
}

// 6.3.3 (f), (g): all namesakes, and the most telling reason.

TEST_F(CRLSignersTest, Namesakes_AreTriedUntilTheSignatureFits) {
  know(namesake());
  know(ca);
  EXPECT_EQ(authenticate().signer, handle(ca));
}

TEST_F(CRLSignersTest, ReasonOfSeveral_IsTheMostTelling) {
  const Issued noPath =
      namesake({.notBefore = -std::chrono::hours(48), .notAfter = -std::chrono::hours(24)});
  const Issued stranger = namesake();
  const Issued notForLists = namesake({.keyUsage = KU_KEY_CERT_SIGN, .key = ca.key});
  const struct {
    std::vector<Issued> known;
    Reason reason;
  } rows[] = {{{}, Reason::kSignerUnknown},
              {{noPath}, Reason::kSignerNotValid},
              {{noPath, stranger}, Reason::kWrongSignature},
              {{stranger, noPath}, Reason::kWrongSignature},
              {{noPath, notForLists}, Reason::kSignerNotAllowed},
              {{notForLists, noPath}, Reason::kSignerNotAllowed},
              {{stranger, notForLists}, Reason::kSignerNotAllowed},
              {{notForLists, stranger}, Reason::kSignerNotAllowed}};
  for (const auto& row : rows) {
    sources.known.clear();
    for (const Issued& one : row.known) know(one);
    EXPECT_EQ(authenticate().unauthentic, row.reason) << &row - rows;
  }
}

TEST_F(CRLSignersTest, SignerThatIsRevoked_DoesNotCount) {
  Ruling revoked;
  revoked.outcome.status = Status::kRevoked;
  rulings[der(know(ca)->native())] = revoked;
  EXPECT_EQ(authenticate().unauthentic, Reason::kSignerRevoked);
  ASSERT_NE(candidates.front().aboutSigner, nullptr);
  EXPECT_EQ(candidates.front().aboutSigner->certificate, handle(ca));
  ASSERT_NE(candidates.front().aboutSigner->revocation, nullptr);
  EXPECT_EQ(candidates.front().aboutSigner->revocation->status, Status::kRevoked);
}

// The evidence: who has signed, or would have to have, and what is said against the path.
TEST_F(CRLSignersTest, WhoIsToBlame_IsTheOneThatTheReasonIsAbout) {
  const Issued noPath =
      namesake({.notBefore = -std::chrono::hours(48), .notAfter = -std::chrono::hours(24)});
  const Issued stranger = namesake();
  const Issued secondStranger = namesake();
  const Issued notForLists = namesake({.keyUsage = KU_KEY_CERT_SIGN, .key = ca.key});
  const struct {
    std::vector<Issued> known;
    Issued blamed;
    int objection;
  } rows[] = {{{noPath}, noPath, X509_V_ERR_CERT_HAS_EXPIRED},
              {{noPath, stranger}, stranger, X509_V_OK},
              {{stranger, secondStranger, noPath}, stranger, X509_V_OK},
              {{stranger, notForLists}, notForLists, X509_V_OK}};
  for (const auto& row : rows) {
    sources.known.clear();
    for (const Issued& one : row.known) know(one);
    const auto about = authenticate().aboutSigner;
    ASSERT_NE(about, nullptr) << &row - rows;
    EXPECT_EQ(about->certificate, handle(row.blamed)) << &row - rows;
    EXPECT_EQ(about->objection ? about->objection->code : X509_V_OK, row.objection) << &row - rows;
  }
  sources.known.clear();
  EXPECT_EQ(authenticate().aboutSigner, nullptr) << "nobody has its name";
  know(ca);
  EXPECT_EQ(authenticate().aboutSigner, nullptr) << "it counts";
  EXPECT_EQ(authenticate(bare(), withoutCA, 4).aboutSigner->certificate, handle(ca));
}

TEST_F(CRLSignersTest, WithoutKeyUsage_EveryUseIsAllowed) {
  const Issued plain = namesake({.keyUsage = kAbsent});
  know(plain);
  CRLOptions options = bare();
  options.issuer = &plain;
  EXPECT_TRUE(authenticate(options, withoutCA).counts());
}

TEST_F(CRLSignersTest, WeakSignature_IsTold) {
  know(ca);
  EXPECT_TRUE(authenticate(bare(), withoutCA, 3).counts());
  EXPECT_EQ(authenticate(bare(), withoutCA, 4).unauthentic, Reason::kTooWeak);
}

// 5.2.1
TEST_F(CRLSignersTest, KeyIdentifier_SaysWhoIsTriedFirst) {
  know(namesake());
  know(ca);
  know(namesake());
  EXPECT_EQ(authenticate({.issuer = &ca}, withoutCA).signer, handle(ca));
  EXPECT_EQ(paths.built, 1);
  // It proves nothing, and keeps nobody out.
  EXPECT_EQ(authenticate({.issuer = &ca, .authorityKeyId = KeyId::Wrong}, withoutCA).signer,
            handle(ca));
}

TEST_F(CRLSignersTest, ListFromAURIThatNobodyHasSigned_IsToldToTheSource) {
  const auto from = [this](const std::optional<Uri>& uri) {
    sources.forged.clear();
    candidates.clear();
    candidates.push_back({.crl = crlHandle(bare()), .uri = uri});
    again(withoutCA);
    return sources.forged;
  };
  const Uri uri("http://crl.test/");
  EXPECT_TRUE(from(uri).empty()) << "its signer may be found another time";
  know(namesake());
  EXPECT_EQ(from(uri).size(), 1U);
  EXPECT_TRUE(from(std::nullopt).empty());
}

// Hypotheses: one for whom nothing has to be assumed is better, whoever comes first.

TEST_F(CRLSignersTest, SignerThatRestsOnNothing_IsPreferred) {
  const Issued again = namesake({.key = ca.key});
  Ruling onLeaf;
  onLeaf.outcome.status = Status::kGood;
  const RefCertificate hypothesis = handle(leaf);
  onLeaf.restsOn = {hypothesis->native()};
  const auto decideAnew = [&](const std::vector<Issued>& resting) {
    rulings.clear();
    for (const Issued& one : resting) rulings[der(one.get())] = onLeaf;
    Standings fresh(paths, true, [this](const RefCertificate& one, const Path&, By) {
      Ruling good;
      good.outcome.status = Status::kGood;
      const auto found = rulings.find(der(one->native()));
      return found == rulings.end() ? good : found->second;
    });
    candidates.clear();
    candidates.push_back({.crl = crlHandle(bare())});
    CRLSigners(withoutCA, sources, fresh, 2).authenticate(candidates);
    return candidates.front();
  };
  know(ca);
  know(again);
  EXPECT_EQ(decideAnew({}).signer, handle(ca));
  EXPECT_EQ(decideAnew({again}).signer, handle(ca));
  const CRLCandidate preferred = decideAnew({ca});
  EXPECT_EQ(preferred.signer, handle(again));
  EXPECT_TRUE(preferred.restsOn.empty());
  const CRLCandidate resting = decideAnew({ca, again});
  EXPECT_EQ(resting.signer, handle(ca));
  EXPECT_EQ(resting.restsOn, onLeaf.restsOn);
}

// What it may cost.

TEST_F(CRLSignersTest, NestedTooDeep_FallsShortUnlessItIsSettled) {
  know(ca);
  atDepth(VerificationRun::kMaximumLevel - 1, [&] {
    const Path path{handle(leaf), handle(ca), handle(root)};
    EXPECT_TRUE(authenticate(bare(), path).counts());
    EXPECT_FALSE(VerificationRun::current()->fellShort());
    EXPECT_EQ(authenticate().unauthentic, Reason::kTooManyNested);
    EXPECT_TRUE(VerificationRun::current()->fellShort());
  });
}

TEST_F(CRLSignersTest, NamesakeThatComesOftenAgain_IsTriedOnce) {
  const Issued noPath =
      namesake({.notBefore = -std::chrono::hours(48), .notAfter = -std::chrono::hours(24)});
  for (unsigned int i = 0; i <= VerificationRun::kMaximumNested; ++i) know(noPath);
  know(ca);
  EXPECT_TRUE(authenticate().counts());
}

TEST_F(CRLSignersTest, ProcessorTimeUsedUp_NobodyIsTried) {
  know(ca);
  CRLCandidate candidate{.crl = crlHandle(bare())};
  candidates.push_back(candidate);
  std::thread([this] {
    const VerificationRun bounded(nullptr, {.processorTime = std::chrono::nanoseconds(0)});
    again(withoutCA);
    EXPECT_TRUE(bounded.fellShort());
  }).join();
  EXPECT_FALSE(candidates.front().counts());
  EXPECT_EQ(paths.built, 0);
}

// Its key is not used any more: who knows what the signature is.
TEST_F(CRLSignersTest, StoppedInALongSignature_IsNotVerifiedAndNotForged) {
  know(ca);
  CRLOptions options = bare();
  options.badSignature = true;
  options.rawExtensions = {{"1.2.3.4", false, derElement(0x04, std::string(2 << 20, 'x'))}};
  std::stop_source source;
  paths.known.push_back(handle(ca));
  paths.onPath = [&] { source.request_stop(); };
  candidates.push_back({.crl = crlHandle(options), .uri = Uri(kHere)});
  {
    const Cancellation here(source.get_token());
    again(withoutCA);
  }
  EXPECT_EQ(candidates.front().unauthentic, Reason::kNotVerified);
  EXPECT_TRUE(sources.forged.empty());
  EXPECT_TRUE(run.fellShort());
  candidates.front().unauthentic.reset();
  again(withoutCA);
  EXPECT_EQ(candidates.front().unauthentic, Reason::kWrongSignature);
  EXPECT_EQ(sources.forged.size(), 1U);
}

TEST_F(CRLSignersTest, StoppedBeforeTheNamesakeWhoSigned_IsNotForged) {
  know(namesake());
  know(ca);
  std::stop_source source;
  paths.onPath = [&] { source.request_stop(); };
  candidates.push_back({.crl = crlHandle(bare()), .uri = Uri(kHere)});
  {
    const Cancellation here(source.get_token());
    again(withoutCA);
  }
  EXPECT_FALSE(candidates.front().counts());
  EXPECT_TRUE(sources.forged.empty());
  candidates.front().unauthentic.reset();
  again(withoutCA);
  EXPECT_TRUE(candidates.front().counts());
}

}  // namespace
}  // namespace Velantrix::Test
