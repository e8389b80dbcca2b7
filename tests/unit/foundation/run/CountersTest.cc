#include "foundation/net/NetworkBudget.h"
#include "foundation/run/Counters.h"
#include "support/ChildProcess.h"
#include "support/Files.h"

#include <velantrix/Exception.h>

#include <chrono>
#include <gtest/gtest.h>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <vector>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::count;
using Crypto::PKX509::CountedSince;
using Crypto::PKX509::CounterFacts;
using Crypto::PKX509::kCounterFacts;
using Crypto::PKX509::noteCacheSize;
using Crypto::PKX509::Statistics;
using Counter = Statistics::Counter;

std::vector<std::string> linesOf(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

// What stands behind the name and the labels.
std::string valueOf(const std::string& sample, const std::string& text) {
  for (const std::string& line : linesOf(text)) {
    if (line.starts_with(sample + " ")) return line.substr(sample.size() + 1);
  }
  return "none";
}

// What it returns, as the exit status of a child that is forked for it.
template <class Body>
int inChild(const Body& body) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(body());
  return collect(child);
}

std::string now() { return Statistics::snapshot().asPrometheusText(); }

TEST(Statistics, Counters_GrowByWhatIsCountedInAnyThread) {
  const CountedSince since;
  count(Counter::kFetches);
  std::thread([] { count(Counter::kFetches, 41); }).join();
  EXPECT_EQ(since.of(Counter::kFetches), 42U);
  EXPECT_EQ(since.of(Counter::kNotModified), 0U);
}

TEST(Statistics, Snapshot_StaysAsItIs) {
  const Statistics before = Statistics::snapshot();
  const std::uint64_t fetches = before.of(Counter::kFetches);
  count(Counter::kFetches);
  EXPECT_EQ(before.of(Counter::kFetches), fetches);
}

TEST(Statistics, ForkedChild_GoesOnFromItsParentsCounters) {
  count(Counter::kNotModified, 5);
  const std::uint64_t before = Statistics::snapshot().of(Counter::kNotModified);
  EXPECT_EQ(inChild([before] {
              count(Counter::kNotModified);
              return Statistics::snapshot().of(Counter::kNotModified) == before + 1 ? 0 : 1;
            }),
            0);
  EXPECT_EQ(Statistics::snapshot().of(Counter::kNotModified), before);
}

TEST(Statistics, NetworkTime_IsThatOfAllTimers) {
  const CountedSince since;
  std::chrono::microseconds passed{};
  {
    const NetworkTimer timer(std::chrono::hours(1));
    const auto start = NetworkTimer::Clock::now();
    while (passed < std::chrono::milliseconds(2)) {
      passed =
          std::chrono::duration_cast<std::chrono::microseconds>(NetworkTimer::Clock::now() - start);
    }
  }
  EXPECT_GE(since.of(Counter::kNetworkMicroseconds) + 1, 2000U);
}

TEST(Statistics, EveryCounter_HasItsFactsOnce) {
  std::set<Counter> told;
  std::set<std::string> samples;
  for (const CounterFacts& facts : kCounterFacts) {
    EXPECT_TRUE(told.insert(facts.counter).second) << facts.name;
    EXPECT_TRUE(samples.insert(std::string(facts.name) + std::string(facts.value)).second);
    EXPECT_TRUE(facts.name.ends_with("_total")) << facts.name;
    EXPECT_EQ(facts.label.empty(), facts.value.empty()) << facts.name;
    EXPECT_TRUE(facts.help.ends_with(".")) << facts.name;
  }
  EXPECT_EQ(told.size(), Statistics::kCounters);
}

TEST(Statistics, PrometheusText_TellsEachCounterByItsName) {
  for (const CounterFacts& facts : kCounterFacts) {
    std::string sample = "pkx509_" + std::string(facts.name);
    if (!facts.label.empty()) {
      sample += "{" + std::string(facts.label) + "=\"" + std::string(facts.value) + "\"}";
    }
    count(facts.counter, 1'000'000);
    const std::string before = valueOf(sample, now());
    count(facts.counter, 2'000'000);
    EXPECT_NEAR(std::stod(valueOf(sample, now())) - std::stod(before),
                sample.find("_seconds_") == std::string::npos ? 2e6 : 2, 1e-3)
        << sample;
  }
}

// https://prometheus.io/docs/instrumenting/exposition_formats/: the lines of one metric are one group,
// HELP and TYPE stand before its samples, and the last line ends as well.
TEST(Statistics, PrometheusText_IsOneGroupForEachMetric) {
  const std::string text = now();
  ASSERT_TRUE(text.ends_with('\n'));
  std::set<std::string> metrics;
  std::string metric;
  std::string previous;
  for (const std::string& line : linesOf(text)) {
    std::istringstream words(line);
    std::string hash, keyword, name, rest;
    if (line.starts_with("# HELP ")) {
      words >> hash >> keyword >> metric;
      EXPECT_TRUE(metrics.insert(metric).second) << line;
      EXPECT_TRUE(metric.starts_with("pkx509_")) << line;
    } else if (line.starts_with("# TYPE ")) {
      words >> hash >> keyword >> name >> rest;
      EXPECT_EQ(name, metric);
      EXPECT_TRUE(previous.starts_with("# HELP ")) << line;
      EXPECT_EQ(rest, metric.ends_with("_total") ? "counter" : "gauge") << line;
    } else {
      EXPECT_EQ(line.substr(0, line.find_first_of("{ ")), metric);
      EXPECT_NE(line.find_last_of(' '), std::string::npos) << line;
    }
    previous = line;
  }
  EXPECT_TRUE(metrics.contains("pkx509_verifications_total"));
}

// The rows of the table of docs/OPERATIONS.md, as the exposition has it.
std::vector<std::string> rowsOf(const std::string& exposition) {
  std::vector<std::string> rows;
  std::string name, help, labels;
  const auto end = [&] {
    if (!name.empty()) rows.push_back("| `" + name + "` |" + labels + " | " + help + " |");
    labels.clear();
  };
  for (const std::string& line : linesOf(exposition)) {
    constexpr std::string_view kHelp = "# HELP ";
    if (line.starts_with(kHelp)) {
      end();
      const std::size_t space = line.find(' ', kHelp.size());
      name = line.substr(kHelp.size(), space - kHelp.size());
      help = line.substr(space + 1);
    }
    const std::size_t label = line.find('{');
    if (line.starts_with('#') || label == std::string::npos) continue;
    const std::size_t equals = line.find('=', label);
    labels += labels.empty() ? " `" + line.substr(label + 1, equals - label - 1) + "`: `" : ", `";
    labels += line.substr(equals + 2, line.find('"', equals + 2) - equals - 2) + "`";
  }
  end();
  return rows;
}

TEST(Statistics, TableOfTheDocument_HasEveryMetric) {
  const TempDir directory;
  const std::string place = (directory / "exposition").string();
  ASSERT_EQ(inChild([&] {
              noteCacheSize(1, 2);
              writeFile(place, now());
              return 0;
            }),
            0);
  std::vector<std::string> rows;
  bool inside = false;
  for (const std::string& line : linesOf(readFile(PKX509_ROOT "/docs/OPERATIONS.md"))) {
    const bool isRow = line.starts_with('|');
    if (inside && isRow && !line.starts_with("|-")) rows.push_back(line);
    inside = (inside && isRow) || line == "| metric | labels | what it counts |";
  }
  EXPECT_EQ(rows, rowsOf(readFile(place)));
}

TEST(Statistics, LabelsOfTheCaller_StandInEverySampleAndAreEscaped) {
  const std::map<std::string, std::string> labels = {{"b_2", "C:\\x \"y\"\nz"}, {"process", "ö"}};
  const std::string text = Statistics::snapshot().asPrometheusText(labels);
  const std::string expected = R"(b_2="C:\\x \"y\"\nz",process="ö"})";
  for (const std::string& line : linesOf(text)) {
    EXPECT_TRUE(line.starts_with('#') || line.find(expected) != std::string::npos) << line;
  }
  EXPECT_NE(valueOf("pkx509_fetches_total{" + expected, text), "none") << text;
  EXPECT_NE(valueOf("pkx509_lookups_total{source=\"cache\"," + expected, text), "none");
}

TEST(Statistics, LabelWithANameThatPrometheusRefuses_Throws) {
  for (const char* name : {"", "1a", "a-b", "a b", "ä", "__name__", "outcome", "source", "a\n"}) {
    EXPECT_THROW(Statistics::snapshot().asPrometheusText({{name, "x"}}), Exception) << name;
  }
}

TEST(Statistics, Seconds_AreDecimalsWithSixPlaces) {
  count(Counter::kProcessorMicroseconds, 1'000'042);
  const std::uint64_t all = Statistics::snapshot().of(Counter::kProcessorMicroseconds);
  std::string micro = std::to_string(all % 1'000'000);
  micro.insert(0, 6 - micro.size(), '0');
  EXPECT_EQ(valueOf("pkx509_processor_seconds_total", now()),
            std::to_string(all / 1'000'000) + "." + micro);
}

TEST(Statistics, CacheSize_IsToldOnceItIsKnown) {
  EXPECT_EQ(inChild([] {
              if (Statistics::snapshot().cacheFiles()) return 1;
              if (now().find("pkx509_cache_files") != std::string::npos) return 2;
              noteCacheSize(12, 34567);
              if (Statistics::snapshot().cacheFiles() != 12U) return 3;
              if (Statistics::snapshot().cacheBytes() != 34567U) return 4;
              if (valueOf("pkx509_cache_files", now()) != "12") return 5;
              return valueOf("pkx509_cache_bytes", now()) == "34567" ? 0 : 6;
            }),
            0);
}

}  // namespace
}  // namespace Velantrix::Test
