#include "soak/Resources.h"

#include "soak/Cache.h"
#include "support/Memory.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <malloc.h>
#include <sstream>
#include <unistd.h>

namespace Velantrix::Test::Soak {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kHeapAllowance = std::size_t{32} * 1024;
constexpr std::size_t kAnonymousAllowance = std::size_t{8} * 1024 * 1024;

std::size_t entriesOf(const char* directory) {
  const fs::directory_iterator all(directory);
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

void measureMemory(Resources& now) {
  malloc_trim(0);
  std::ifstream file("/proc/self/statm");
  std::size_t all = 0;
  std::size_t resident = 0;
  std::size_t shared = 0;
  file >> all >> resident >> shared;
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  now.resident = resident * page;
  now.anonymous = (resident - shared) * page;
}

std::size_t childrenOf() {
  std::size_t count = 0;
  for (const auto& task : fs::directory_iterator("/proc/self/task")) {
    std::ifstream file(task.path() / "children");
    for (int child = 0; file >> child;) ++count;
  }
  return count;
}

using Member = std::size_t Resources::*;

std::size_t median(std::vector<Resources> samples, Member member) {
  const auto middle = samples.begin() + static_cast<std::ptrdiff_t>(samples.size() / 2);
  std::nth_element(
      samples.begin(), middle, samples.end(),
      [member](const Resources& a, const Resources& b) { return a.*member < b.*member; });
  return (*middle).*member;
}

}  // namespace

Resources measureResources(std::uint64_t round) {
  Resources now;
  now.round = round;
  measureMemory(now);
  now.heap = heapInUse();
  now.descriptors = entriesOf("/proc/self/fd") - 1;  // that of the reading itself
  now.threads = entriesOf("/proc/self/task");
  now.children = childrenOf();
  now.cacheFiles = Cache::files();
  return now;
}

std::vector<std::string> judge(const std::vector<Resources>& samples) {
  std::vector<std::string> complaints;
  const auto complain = [&](const char* what, std::size_t from, std::size_t to,
                            const Resources& where) {
    std::ostringstream text;
    text << what << " are not flat: " << from << ", then " << to << " at round " << where.round;
    complaints.push_back(text.str());
  };
  const auto equal = [&](const char* what, Member member) {
    for (const Resources& sample : samples) {
      if (sample.*member == samples.front().*member) continue;
      return complain(what, samples.front().*member, sample.*member, sample);
    }
  };
  const std::size_t quarter = samples.size() / 4;
  const std::vector<Resources> first(samples.begin(),
                                     samples.begin() + static_cast<std::ptrdiff_t>(quarter));
  const std::vector<Resources> last(samples.end() - static_cast<std::ptrdiff_t>(quarter),
                                    samples.end());
  const auto flat = [&](const char* what, Member member, std::size_t allowance) {
    const std::size_t before = median(first, member);
    const std::size_t after = median(last, member);
    if (after > before + allowance) complain(what, before, after, last.back());
  };

  if (samples.size() < kFewestSamples) return {"too few samples to judge: it was too short"};
  equal("descriptors", &Resources::descriptors);
  equal("threads", &Resources::threads);
  equal("child processes", &Resources::children);
  flat("bytes of the heap", &Resources::heap, kHeapAllowance);
#ifndef PKX509_SANITIZED  // sanitizers keep what was freed
  flat("bytes of anonymous memory", &Resources::anonymous, kAnonymousAllowance);
#endif
  return complaints;
}

}  // namespace Velantrix::Test::Soak
