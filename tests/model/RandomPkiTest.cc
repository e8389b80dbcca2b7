// The library and the reference model get the same PKIs and have to answer the same: verdict,
// depth, log lines, and the CRLs that a container hands to OpenSSL with their scores and reasons.
//
//   scripts/model 100000          # that many cases
//   scripts/model 1 4711          # the case that a failure names
//
// Each case is its seed. The first is --gtest_random_seed (1 by default), their number
// PKX509_MODEL_CASES; both are fixed by default, so that CTest always sees the same cases.
#include "model/Cases.h"
#include "model/Generator.h"
#include "model/Model.h"
#include "model/Realisation.h"
#include "model/Shrink.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace Velantrix::Test::Random {
namespace {

constexpr int kShards = 4;
constexpr std::uint64_t kCases = 3200;
// The same ones, as far as they go: a sanitizer is five times as slow, and looks at the same code.
#ifdef PKX509_SANITIZED
constexpr std::uint64_t kCasesToRun = 800;
#else
constexpr std::uint64_t kCasesToRun = kCases;
#endif

std::string shown(const std::vector<std::string>& lines) {
  std::string all;
  for (const std::string& line : lines) all += "    " + line + "\n";
  return all;
}

std::string shown(const Outcome& outcome) {
  return std::to_string(outcome.code) + " at depth " + std::to_string(outcome.depth) + "\n" +
         shown(outcome.log);
}

std::string shown(const HandOuts& handOuts) {
  std::ostringstream out;
  out << "error " << handOuts.error << std::hex;
  for (const HandOut& one : handOuts.crls) {
    out << "; crl " << one.crl << " issuer " << one.issuer << " score " << one.score << " reasons "
        << one.reasons;
  }
  out << "\n" << shown(handOuts.log);
  return out.str();
}

/// What library and model disagree about; empty when they agree.
std::string difference(const Description& pki) {
  std::ostringstream out;
  Model model(pki);
  Realisation real(pki);
  for (const Query& query : pki.queries) {
    const Outcome expected = model.verify(query);
    const Outcome actual = real.verify(query);
    if (expected == actual) continue;
    out << "model: " << shown(expected) << "library: " << shown(actual) << "the model's way:\n"
        << shown(model.trace());
    return out.str();
  }
  const int target = pki.queries.front().target;
  const HandOuts expected = model.handOuts(target);
  const HandOuts actual = real.handOuts(target);
  if (expected == actual) return {};
  out << "CRLs for cert " << target << "\nmodel: " << shown(expected)
      << "library: " << shown(actual);
  return out.str();
}

class RandomPki : public testing::TestWithParam<int> {};

TEST_P(RandomPki, LibraryAndModelAgree) {
  for (std::uint64_t i = static_cast<std::uint64_t>(GetParam()); i < caseCount(kCasesToRun);
       i += kShards) {
    const std::uint64_t seed = firstSeed() + i;
    const Description pki = generate(seed);
    if (difference(pki).empty()) continue;
    const Description small =
        shrink(pki, [](const Description& smaller) { return !difference(smaller).empty(); });
    FAIL() << "seed " << seed << " (scripts/model 1 " << seed << ")\n"
           << pki << difference(pki) << "the same, smaller:\n"
           << small << difference(small);
  }
}

// Agreement is worth what the cases are worth: each rule has to decide something in a few of the
// default ones.
TEST(RandomPkiCases, DefaultOnes_ReachEveryRule) {
  std::map<std::string, int> reached;
  for (std::uint64_t seed = 1; seed <= kCases; ++seed) {
    const Description pki = generate(seed);
    Model model(pki);
    for (const Query& query : pki.queries) {
      ++reached["verdict " + std::to_string(model.verify(query).code)];
    }
    for (const std::string& name : model.rules()) ++reached[name];
  }
  struct Row {
    const char* rule;
    int cases;
  };
  const Row rows[] = {
      {"verdict 0", 1000},
      {"verdict 2", 50},
      {"verdict 3", 300},
      {"verdict 7", 10},
      {"verdict 8", 30},
      {"verdict 9", 5},
      {"verdict 10", 10},
      {"verdict 11", 30},
      {"verdict 12", 30},
      {"verdict 18", 20},
      {"verdict 20", 100},
      {"verdict 22", 5},
      {"verdict 23", 300},
      {"verdict 33", 5},
      {"verdict 34", 10},
      {"verdict 36", 30},
      {"verdict 54", 5},
      {"verdict 79", 10},
      {"verdict 82", 5},
      {"verdict 85", 10},
      {"verdict 92", 5},
      {"CRL issuer is not valid", 200},
      {"CRL issuer is valid", 200},
      {"CRL issuers without scope", 10},
      {"CRL of another issuer", 30},
      {"an error is overwritten", 10},
      {"deltas complete", 300},
      {"directory drops an old CRL", 3},
      {"expired but with delta", 10},
      {"full and full", 5},
      {"full and relative", 5},
      {"issuer and scope name", 10},
      {"its own verification depends on it", 3},
      {"listed with reason -1", 50},
      {"listed with reason 0", 50},
      {"listed with reason 1", 50},
      {"listed with reason 8", 100},
      {"no CRL", 200},
      {"no base", 20},
      {"no issuer of a CRL", 100},
      {"not all reasons", 20},
      {"not an acceptable CRL issuer", 20},
      {"onlyAttr", 10},
      {"onlyCA", 50},
      {"onlyUser", 50},
      {"relative and full", 5},
      {"relative and relative", 5},
      {"revocation 10", 2},
      {"revocation 20", 10},
      {"revocation 23", 200},
      {"taken off the list", 100},
      {"too many look-ups", 1},
      {"too many nested verifications", 1},
      {"two deltas of one time", 50},
      {"verifications are nested too deep", 3},
  };
  for (const Row& row : rows) EXPECT_GE(reached[row.rule], row.cases) << row.rule;
}

INSTANTIATE_TEST_SUITE_P(Shard, RandomPki, testing::Range(0, kShards));

}  // namespace
}  // namespace Velantrix::Test::Random
