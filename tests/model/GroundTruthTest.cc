// Random PKIs whose maker knows who was revoked by whom and when. An adversary withholds, replays and
// forges; what the room src/revocation makes of it has to be what can be known.
//
//   scripts/model 100000          # that many cases, too
//   scripts/model 1 4711          # the world that a failure names
//
// Each world is its seed, and a case is an offer of it. The oracle decides it from the description; what
// the authorities have really done, and OpenSSL where it is able to, are asked beside it.
#include "model/Cases.h"
#include "model/GroundTruthAdversary.h"
#include "model/GroundTruthGenerator.h"
#include "model/GroundTruthOpenSSL.h"
#include "model/GroundTruthOracle.h"
#include "model/GroundTruthRealisation.h"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cstdint>
#include <gtest/gtest.h>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace Velantrix::Test::Truth {
namespace {

namespace Revocation = Crypto::PKX509::Revocation;

constexpr int kOffers = 8;
constexpr std::uint64_t kCases = 3200;
// A sanitizer is many times as slow, and looks at the same code.
#ifdef PKX509_SANITIZED
constexpr std::uint64_t kCasesToRun = kCases / 10;
#else
constexpr std::uint64_t kCasesToRun = kCases;
#endif

Verdict verdictOf(Revocation::Status status) {
  switch (status) {
    case Revocation::Status::kGood:
      return Verdict::Good;
    case Revocation::Status::kRevoked:
      return Verdict::Revoked;
    case Revocation::Status::kNotNeeded:
      return Verdict::NotNeeded;
    case Revocation::Status::kUndetermined:
      break;
  }
  return Verdict::Undetermined;
}

const char* text(Revocation::Reason reason) {
  static const char* const texts[] = {"malformed",
                                      "unknown critical extension",
                                      "not yet valid",
                                      "expired",
                                      "other issuer",
                                      "out of scope",
                                      "no base",
                                      "superseded",
                                      "signer unknown",
                                      "signer not valid",
                                      "signer revoked",
                                      "signer undetermined",
                                      "signer not allowed",
                                      "rests on itself",
                                      "names its signer",
                                      "wrong signature",
                                      "too weak",
                                      "no answer",
                                      "not successful",
                                      "other nonce",
                                      "other certificate",
                                      "too many nested",
                                      "status unknown"};
  return texts[static_cast<std::size_t>(reason)];
}

const char* text(Revocation::Statement::Kind kind) {
  static const char* const texts[] = {"CRL", "delta", "answer", "certificate"};
  return texts[static_cast<std::size_t>(kind)];
}

std::string shown(const Revocation::Statement& statement) {
  std::string number = "none";
  std::string issuer =
      statement.responder.empty() ? statement.issuer : statement.responder->subject().asString();
  if (!statement.crl.empty()) {
    issuer = statement.crl->crlInfo().issuer().asString();
    if (!statement.crl->crlNumber().isNull()) number = statement.crl->crlNumber().asString();
  }
  return std::string(text(statement.kind)) + " <" + issuer + "> number " + number + " at <" +
         statement.from.place + ">";
}

Time thisUpdateOf(const Revocation::Statement& statement) {
  return statement.crl.empty() ? statement.thisUpdate.value()
                               : statement.crl->lastUpdate()->asTime();
}

void print(std::ostream& out, const Revocation::Outcome& outcome) {
  out << text(verdictOf(outcome.status)) << ", code " << outcome.code << "\n";
  for (const Revocation::Statement& by : outcome.decidedBy) {
    out << "      decided by " << shown(by) << "\n";
  }
  for (const Revocation::SetAside& aside : outcome.setAside) {
    out << "      set aside, " << text(aside.reason) << " (" << aside.detail
        << "): " << shown(aside.statement) << "\n";
  }
}

/// Whether status and code of an outcome go together.
bool coherent(const Revocation::Outcome& outcome) {
  switch (outcome.status) {
    case Revocation::Status::kGood:
    case Revocation::Status::kNotNeeded:
      return outcome.code == X509_V_OK;
    case Revocation::Status::kRevoked:
      return outcome.code == X509_V_ERR_CERT_REVOKED && !outcome.decidedBy.empty();
    case Revocation::Status::kUndetermined:
      return outcome.code != X509_V_OK && outcome.code != X509_V_ERR_CERT_REVOKED;
  }
  return false;
}

/// What is wrong with what the library has found out, if anything, and what came up on the way.
class Judgement {
 public:
  Judgement(Realisation& real, const Offer& offer)
      : real_(real), world_(real.world()), offer_(offer), outcomes_(real.decide(offer)) {
    if (real.fellShort()) out_ << "    it fell short\n";
    int depth = static_cast<int>(outcomes_.size());
    while (--depth >= 0) {
      holdAgainstOracle(depth);
      holdAgainstHistory(depth);
      if (offer.idle) holdAgainstOpenSSL(depth);
      const Verdict verdict = verdictAt(depth);
      if (verdict == Verdict::Revoked || verdict == Verdict::Undetermined) break;
    }
    while (--depth >= 0) {
      if (verdictAt(depth) != Verdict::Undetermined || at(outcomes_, depth).code != X509_V_OK) {
        complain(depth, "was not to be decided");
      }
    }
  }

  std::string wrong() const { return out_.str(); }
  const std::map<std::string, int>& seen() const { return seen_; }

 private:
  Verdict verdictAt(int depth) const { return verdictOf(at(outcomes_, depth).status); }

  void complain(int depth, const std::string& what) {
    out_ << "    depth " << depth << " " << what << "; the library: ";
    print(out_, at(outcomes_, depth));
  }

  void holdAgainstOracle(int depth) {
    Oracle oracle(world_, offer_);
    const Verdict verdict = verdictAt(depth);
    const Verdict right = oracle.verdict(depth);
    int reading = 0;
    while (reading < Oracle::kReadings && oracle.verdict(depth, reading) != verdict) ++reading;
    ++seen_[std::string("verdict ") + text(right)];
    if (reading != 0) ++seen_["another reading"];
    for (const Revocation::SetAside& aside : at(outcomes_, depth).setAside)
      ++seen_[text(aside.reason)];
    for (const Revocation::Statement& by : at(outcomes_, depth).decidedBy) {
      ++seen_[std::string("by ") + text(by.kind)];
    }
    if (reading == Oracle::kReadings) complain(depth, std::string("is ") + text(right));
    if (!coherent(at(outcomes_, depth))) complain(depth, "is incoherent");
  }

  // Without the oracle: what those who decided it have seen is what happened.
  void holdAgainstHistory(int depth) {
    const Revocation::Outcome& outcome = at(outcomes_, depth);
    const int certificate = at(world_.path, depth);
    if (outcome.decidedBy.empty() || mayBeLiedTo()) return;
    Minutes newest = -400 * kDay;
    std::size_t lists = 0;
    for (const Revocation::Statement& by : outcome.decidedBy) {
      const Minutes then = real_.minutesOf(thisUpdateOf(by).seconds());
      newest = std::max(newest, then);
      if (by.kind != Revocation::Statement::Kind::kDeltaCRL) ++lists;
      if (then > offer_.checked + 5) complain(depth, "was decided by the future");
      if (verdictAt(depth) == Verdict::Revoked && !world_.revokedAt(certificate, then)) {
        complain(depth, "has not been revoked");
      }
    }
    ++seen_["history"];
    // Of two lists each may be about a part of the reasons.
    if (verdictAt(depth) == Verdict::Good && lists == 1 && world_.revokedAt(certificate, newest)) {
      complain(depth, "has been revoked");
    }
  }

  /// Whether somebody who has a say might have said what is not so.
  bool mayBeLiedTo() const {
    for (const auto& [place, lists] : offer_.lists) {
      for (const int index : lists) {
        const List& list = at(world_.lists, index);
        if (static_cast<std::size_t>(index) < world_.made) continue;
        const auto has = [&](const Certificate& one) {
          return one.key == list.key && one.subject == list.issuer;
        };
        if (std::any_of(world_.certificates.begin(), world_.certificates.end(), has)) return true;
      }
    }
    return std::any_of(offer_.answers.begin(), offer_.answers.end(),
                       [](const auto& there) { return !there.second.genuine; });
  }

  // Where OpenSSL is able to tell, it has to be the same.
  void holdAgainstOpenSSL(int depth) {
    const bool plain = world_.plain.at(outcomes_.size() - 1 - static_cast<std::size_t>(depth));
    if (!plain || at(world_.certificates, at(world_.path, depth)).noRevAvail) return;
    const int code = plainOpenSSL(real_, offer_, depth);
    const Verdict theirs = code == X509_V_OK                 ? Verdict::Good
                           : code == X509_V_ERR_CERT_REVOKED ? Verdict::Revoked
                                                             : Verdict::Undetermined;
    ++seen_[std::string("OpenSSL, too: ") + text(theirs)];
    if (theirs != verdictAt(depth)) {
      complain(depth, "is " + std::string(text(theirs)) + " for OpenSSL, " + std::to_string(code));
    }
  }

  Realisation& real_;
  const World& world_;
  const Offer& offer_;
  const std::vector<Revocation::Outcome> outcomes_;
  std::ostringstream out_;
  std::map<std::string, int> seen_;
};

class GroundTruth : public testing::Test {
 protected:
  // All offers of one world; false when that is enough of failures.
  bool judge(std::uint64_t seed, int offers) {
    World world = makeWorld(seed);
    Realisation real(world);
    for (int draw = 0; draw < offers; ++draw) {
      const Offer offer = makeOffer(world, seed * kOffers + static_cast<std::uint64_t>(draw),
                                    draw == 0 ? Adversary::Idle : Adversary::Active);
      real.forget();
      const Judgement judgement(real, offer);
      for (const auto& [what, times] : judgement.seen()) seen_[what] += times;
      if (judgement.wrong().empty()) continue;
      std::ostringstream out;
      print(out, world, offer);
      ADD_FAILURE() << "seed " << seed << ", offer " << draw << "\n"
                    << out.str() << judgement.wrong();
      if (++failures_ == kMaximumFailures) return false;
    }
    return true;
  }

  std::map<std::string, int> seen_;

 private:
  static constexpr int kMaximumFailures = 5;
  int failures_ = 0;
};

TEST_F(GroundTruth, IsWhatTheLibraryFinds) {
  const std::uint64_t worlds = (caseCount(kCasesToRun) + kOffers - 1) / kOffers;
  for (std::uint64_t i = 0; i < worlds; ++i) {
    if (!judge(firstSeed() + i, kOffers)) return;
  }
  if (caseCount(kCasesToRun) != kCases || firstSeed() != 1) {
    for (const auto& [what, times] : seen_) std::cout << times << "\t" << what << "\n";
    return;
  }
  // The cases are worth something where every rule has decided a few of them.
  struct Row {
    const char* what;
    int times;
  };
  static constexpr Row kRows[] = {
      {"verdict good", 1000},
      {"verdict not needed", 12},
      {"verdict revoked", 400},
      {"verdict undetermined", 600},
      {"by CRL", 1500},
      {"by answer", 130},
      {"by delta", 350},
      {"history", 400},
      {"OpenSSL, too: good", 130},
      {"OpenSSL, too: revoked", 30},
      {"expired", 500},
      {"malformed", 150},
      {"names its signer", 12},
      {"no base", 300},
      {"not successful", 8},
      {"not yet valid", 250},
      {"other certificate", 15},
      {"other issuer", 200},
      {"other nonce", 8},
      {"out of scope", 1000},
      {"signer not allowed", 12},
      {"signer not valid", 15},
      {"signer revoked", 70},
      {"signer undetermined", 400},
      {"signer unknown", 30},
      {"superseded", 150},
      {"unknown critical extension", 120},
      {"wrong signature", 500},
  };
  for (const Row& row : kRows) EXPECT_GE(seen_[row.what], row.times) << row.what;
  // And where there is hardly ever more than one right verdict.
  EXPECT_LE(seen_["another reading"], 5);
}

}  // namespace
}  // namespace Velantrix::Test::Truth
