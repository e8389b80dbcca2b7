#include "PeakMemory.h"

#include "support/Command.h"
#include "support/Files.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace Velantrix::Bench {

namespace {

// From /proc: what getrusage tells is inherited from the process that started this one.
double residentPeak() {
  std::ifstream status("/proc/self/status");
  std::string word;
  while (status >> word) {
    if (word != "VmHWM:") continue;
    double kibibytes = 0;
    status >> kibibytes;
    return kibibytes / 1024;
  }
  return 0;
}

}  // namespace

double peakMemory(const std::string& who, const std::string& content) {
  const Test::TempDir directory;
  const std::filesystem::path file = directory.path() / "crl";
  Test::writeFile(file, content);
  const auto result = Test::runCommand({std::filesystem::read_symlink("/proc/self/exe").string(),
                                        kPeakArgument, who, file.string()});
  return std::atof(result.out.c_str());
}

int measurePeak(const std::string& who, const std::string& file) {
  const bool isFile = who == "file";
  const std::string der = isFile ? std::string() : Test::readFile(file);
  const double before = residentPeak();
  if (isFile) {
    readFileForPeak(file);
  } else {
    readForPeak(who, der);
  }
  std::cout << residentPeak() - before << '\n';
  return 0;
}

}  // namespace Velantrix::Bench
