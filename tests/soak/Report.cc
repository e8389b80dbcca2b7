#include "soak/Report.h"

#include <openssl/x509_vfy.h>

#include <iomanip>
#include <iostream>
#include <numeric>
#include <sstream>

namespace Velantrix::Test::Soak {

namespace {

constexpr std::uint64_t kComplaintsShown = 20;

/// A second on the network and what a busy machine adds, and less than the bounds of single
/// requests.
constexpr Latencies::Duration kLongestRound = std::chrono::seconds(10);

void row(std::ostream& out, const char* what, std::size_t start, std::size_t warm,
         std::size_t end) {
  out << "  " << std::left << std::setw(22) << what << std::right << std::setw(12) << start
      << std::setw(15) << warm << std::setw(12) << end << '\n';
}

void row(std::ostream& out, const char* what, const Latencies& latencies) {
  const auto ms = [](Latencies::Duration time) { return static_cast<double>(time.count()) / 1000; };
  out << "  " << std::left << std::setw(22) << what << std::right << std::fixed
      << std::setprecision(1) << std::setw(12) << ms(latencies.quantile(0.5)) << std::setw(15)
      << ms(latencies.quantile(0.99)) << std::setw(12) << ms(latencies.longest()) << '\n';
}

std::string verdictText(int verdict) {
  if (verdict == kNoVerdict) return "-1 no verdict";
  return std::to_string(verdict) + " " + X509_verify_cert_error_string(verdict);
}

}  // namespace

void Report::add(const Round& round, int verdict, const std::set<int>& possible,
                 Latencies::Duration time) {
  // The code that stands for no verdict is one below OpenSSL's first.
  ++verdicts_.at(static_cast<std::size_t>(round.target->plan.truth))
        .at(static_cast<std::size_t>(verdict) + 1);
  if (possible.size() == 1) ++certain_;
  if (possible.count(verdict) != 0) return;
  std::ostringstream text;
  text << "round " << rounds_ << ": " << describe(round) << ": " << verdictText(verdict)
       << " after " << time.count() / 1000 << " ms; possible:";
  for (const int one : possible) text << ' ' << one;
  complain(text.str());
}

void Report::add(const Round& round, Latencies::Duration time) {
  ++rounds_;
  ++cache_.at(static_cast<std::size_t>(round.cache));
  (round.fault == Fault::None ? well_ : disturbed_).add(time);
  if (round.fault == Fault::None && time >= kNetworkTime) ++outOfTime_;
  if (time > kLongestRound) {
    complain("round " + std::to_string(rounds_) + ": " + describe(round) + ": took " +
             std::to_string(time.count() / 1000) + " ms");
  }
}

void Report::complain(const std::string& text) {
  if (++complaints_ <= kComplaintsShown) std::cout << "FAILED: " << text << std::endl;
}

void Report::print(std::ostream& out, std::chrono::steady_clock::duration time,
                   const Servers::Counts& counts, std::uint64_t logLines, const Resources& atStart,
                   const std::vector<Resources>& samples) const {
  const double seconds = std::chrono::duration<double>(time).count();
  out << "seed " << seed_ << ", " << std::fixed << std::setprecision(0) << seconds << " s, "
      << rounds_ << " rounds, " << std::setprecision(1) << static_cast<double>(rounds_) / seconds
      << " a second, " << logLines << " lines of log\n"
      << outOfTime_ << " rounds took a second though all was well: the machine was busy\n";

  out << "\nverdicts (" << certain_
      << " where only one was possible; some rounds do not ask for revocation)\n";
  for (std::size_t truth = 0; truth < kTruths; ++truth) {
    out << "  " << nameOf(static_cast<Truth>(truth)) << '\n';
    for (std::size_t code = 0; code < kCodes; ++code) {
      const std::uint64_t count = verdicts_.at(truth).at(code);
      if (count == 0) continue;
      out << std::setw(12) << count << "  " << verdictText(static_cast<int>(code) - 1) << '\n';
    }
  }

  out << "\nconnections served, and what was wrong with them\n";
  for (std::size_t service = 0; service < kServices; ++service) {
    out << "  " << nameOf(static_cast<Service>(service));
    for (const FaultKind& kind : allFaults()) {
      const std::uint64_t count =
          counts.served.at(service).at(static_cast<std::size_t>(kind.fault));
      if (count != 0) out << "; " << kind.name << ' ' << count;
    }
    out << '\n';
  }
  out << "  cache directory";
  for (std::size_t trouble = 0; trouble < cache_.size(); ++trouble) {
    out << "; " << nameOf(static_cast<CacheTrouble>(trouble)) << ' ' << cache_.at(trouble);
  }
  out << "\n\n"
      << std::setw(36) << "median" << std::setw(15) << "99 %" << std::setw(12) << "longest" << '\n';
  row(out, "all well, ms", well_);
  row(out, "something wrong, ms", disturbed_);

  if (samples.empty()) return;
  const Resources& warm = samples.front();
  const Resources& end = samples.back();
  out << '\n'
      << std::setw(36) << "start" << std::setw(15) << "after warm-up" << std::setw(12) << "end"
      << '\n';
  row(out, "round", atStart.round, warm.round, end.round);
  row(out, "resident, KiB", atStart.resident / 1024, warm.resident / 1024, end.resident / 1024);
  row(out, "anonymous, KiB", atStart.anonymous / 1024, warm.anonymous / 1024, end.anonymous / 1024);
  row(out, "heap, bytes", atStart.heap, warm.heap, end.heap);
  row(out, "descriptors", atStart.descriptors, warm.descriptors, end.descriptors);
  row(out, "threads", atStart.threads, warm.threads, end.threads);
  row(out, "child processes", atStart.children, warm.children, end.children);
  row(out, "files in the cache", atStart.cacheFiles, warm.cacheFiles, end.cacheFiles);
  out << '\n'
      << (passed() ? "passed" : "FAILED: " + std::to_string(complaints_) + " times") << '\n';
}

}  // namespace Velantrix::Test::Soak
