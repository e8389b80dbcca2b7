// Runs the benchmarks and prints, for each group, how its variants relate. Single times depend on
// the machine and the moment; the ratios of one run are what can be quoted.
#include "PeakMemory.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <vector>

namespace {

// Collects the time of every repetition while the console shows them: the processor's, or that on
// the wall of benchmarks in which others work as well.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
      const std::string& name = run.run_name.function_name;
      const std::size_t slash = name.rfind('/');
      if (slash == std::string::npos) continue;
      const std::string group = name.substr(0, slash);
      if (times_.count(group) == 0) order_.push_back(group);
      const double time = run.run_name.time_type == "real_time" ? run.real_accumulated_time
                                                                : run.cpu_accumulated_time;
      times_[group][name.substr(slash + 1)].push_back(time / static_cast<double>(run.iterations));
    }
  }

  void printRatios() const {
    std::printf("\nRatios of medians, library to others in the same run\n");
    for (const std::string& group : order_) {
      const Variants& variants = times_.at(group);
      for (const auto& [name, values] : variants) {
        if (name.rfind("library", 0) != 0) continue;
        std::printf("%-44s %-24s", group.c_str(), name.c_str());
        for (const char* other :
             {"openssl", "curl", "libcurl", "floor", "sha256", "10 entries", "one mail"}) {
          const auto found = variants.find(other);
          if (found == variants.end()) continue;
          std::printf("  %.2f of %s", median(values) / median(found->second), other);
        }
        std::printf("\n");
      }
    }
  }

 private:
  using Variants = std::map<std::string, std::vector<double>>;

  static double median(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
  }

  std::vector<std::string> order_;
  std::map<std::string, Variants> times_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], Velantrix::Bench::kPeakArgument) == 0) {
    return Velantrix::Bench::measurePeak(argv[2], argv[3]);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  RatioReporter reporter;
  if (benchmark::RunSpecifiedBenchmarks(&reporter) == 0) return 1;
  reporter.printRatios();
  benchmark::Shutdown();
  return 0;
}
