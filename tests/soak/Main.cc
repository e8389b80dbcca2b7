// Verifies for a while against live servers that misbehave at random; see scripts/soak.
//
//   private-view.sh --own-mounts -- pkx509_soak MINUTES SEED
//
// The exit status is 0 when every verdict was a possible one and memory and descriptors stayed
// flat, 1 when not, 2 when it could not be found out.
#include "integration/OwnNamespaces.h"
#include "soak/Cache.h"
#include "soak/Cases.h"
#include "soak/Latencies.h"
#include "soak/Report.h"
#include "soak/Resources.h"
#include "soak/Round.h"
#include "soak/Servers.h"
#include "soak/Subject.h"
#include "support/Loopback.h"
#include "support/PrivateView.h"

#include <velantrix/Logger.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>
#include <unistd.h>

namespace Velantrix::Test::Soak {
namespace {

using Clock = std::chrono::steady_clock;

/// Twice the longest bound of a single request: a round that takes longer hangs.
constexpr unsigned int kRoundHangs = 60;
/// Until everything has happened once; a slow machine takes longer for it.
constexpr std::uint64_t kWarmUpRounds = 400;
constexpr std::uint64_t kFewestRounds = 1200;
/// Of which memory is reserved at the start.
constexpr std::size_t kSamples = 200;

/// Takes what the library logs, and keeps nothing.
class CountingLogger : public Logger {
 public:
  std::uint64_t lines() const { return lines_; }

 protected:
  void line(int /*priority*/, const std::string& /*text*/) override { ++lines_; }

 private:
  std::atomic<std::uint64_t> lines_ = 0;
};

extern "C" void hangs(int /*signal*/) {
  constexpr std::string_view kText = "A round does not end.\n";
  if (write(STDERR_FILENO, kText.data(), kText.size()) < 0) _exit(3);
  _exit(1);
}

void runRound(const Round& round, const Servers& servers, const Cache& cache, Subject& subject,
              bool& cacheIsRight, Report& report) {
  cache.trouble(round.cache);
  if (round.cache == CacheTrouble::Emptied) cacheIsRight = true;
  if (round.fault != Fault::None) servers.disturb(round.service, round.fault, round.random);

  alarm(kRoundHangs);
  const Clock::time_point start = Clock::now();
  const std::vector<int> verdicts = subject.verify(round);
  const auto time = std::chrono::duration_cast<Latencies::Duration>(Clock::now() - start);
  alarm(0);

  const bool timeIsUp = round.way != Way::Simple && time >= kNetworkTime;
  const std::set<int> possible = possibleVerdicts(round, cacheIsRight, timeIsUp);
  for (const int verdict : verdicts) report.add(round, verdict, possible, time);
  report.add(round, time);

  if (round.fault != Fault::None) servers.settle();
  cache.settle(round.cache);
  if (round.service == Service::Web && kindOf(round.fault).staysInCache) cacheIsRight = false;
}

int run(std::chrono::milliseconds length, std::uint64_t seed) {
  enterOwnNamespaces();
  bringUpLoopback();
  const Cache cache;
  std::signal(SIGALRM, hangs);

  const std::array<ReservedPort, 5> reserved;
  Ports ports{.web = reserved[0].number(),
              .responders = {reserved[1].number(), reserved[2].number()},
              .directory = reserved[3].number(),
              .forbidden = reserved[4].number()};
  const Authorities authorities(ports);
  const std::vector<Plan> plans = makePlans();
  const Servers servers(ports, authorities, plans);
  const std::vector<Case> cases = makeCases(plans, authorities, ports);
  Subject subject(authorities, plans, ports);
  CountingLogger logger;
  Logger::install(&logger);

  Dice dice(seed);
  Report report(seed);
  std::vector<Resources> samples;
  samples.reserve(kSamples);
  const Resources atStart = measureResources(0);
  const Clock::time_point start = Clock::now();
  const auto interval = (length - length / 5) / static_cast<int>(kSamples);
  Clock::time_point next = start + length / 5;
  bool cacheIsRight = true;
  while (Clock::now() < start + length || report.rounds() < kFewestRounds) {
    runRound(drawRound(dice, cases), servers, cache, subject, cacheIsRight, report);
    const Clock::time_point now = Clock::now();
    if (now < next || report.rounds() < kWarmUpRounds || samples.size() == samples.capacity()) {
      continue;
    }
    samples.push_back(measureResources(report.rounds()));
    next = std::max(next + interval, now);
  }
  const Servers::Counts counts = servers.counts();
  Logger::install(nullptr);
  if (counts.forbidden != 0) {
    report.complain(std::to_string(counts.forbidden) +
                    " connections were made for forged certificates");
  }
  for (const std::string& complaint : judge(samples)) report.complain(complaint);
  report.print(std::cout, Clock::now() - start, counts, logger.lines(), atStart, samples);
  return report.passed() ? 0 : 1;
}

int usage() {
  std::cerr << "usage: pkx509_soak MINUTES SEED\n";
  return 2;
}

}  // namespace
}  // namespace Velantrix::Test::Soak

int main(int argc, char** argv) {
  using namespace Velantrix::Test;
  if (argc != 3) return Soak::usage();
  char* minutesEnd = nullptr;
  char* seedEnd = nullptr;
  const double minutes = std::strtod(argv[1], &minutesEnd);
  const std::uint64_t seed = std::strtoull(argv[2], &seedEnd, 10);
  if (*minutesEnd != 0 || *seedEnd != 0 || !(minutes > 0 && minutes < 100000)) return Soak::usage();
  if (!inPrivateView()) {
    std::cerr << "This writes under /opsadmin and /var/spool/crypto. Run scripts/soak.\n";
    return 2;
  }
  try {
    return Soak::run(std::chrono::milliseconds(static_cast<std::int64_t>(minutes * 60000)), seed);
  } catch (const std::exception& error) {
    std::cerr << "soak: " << error.what() << '\n';
    return 2;
  }
}
