#include "PeakMemory.h"

#include "support/Command.h"
#include "support/Files.h"

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sys/resource.h>

namespace Velantrix::Bench {

namespace {

double residentPeak() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024;  // KiB on Linux
}

}  // namespace

double peakMemory(const std::string& who, const std::string& der) {
  const Test::TempDir directory;
  const std::filesystem::path file = directory.path() / "crl.der";
  Test::writeFile(file, der);
  const auto result = Test::runCommand({std::filesystem::read_symlink("/proc/self/exe").string(),
                                        kPeakArgument, who, file.string()});
  return std::atof(result.out.c_str());
}

int measurePeak(const std::string& who, const std::string& file) {
  const std::string der = Test::readFile(file);
  const double before = residentPeak();
  readForPeak(who, der);
  std::cout << residentPeak() - before << '\n';
  return 0;
}

}  // namespace Velantrix::Bench
