#include "support/Cost.h"

#include "support/ChildProcess.h"
#include "support/Descriptor.h"
#include "support/Memory.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <exception>
#include <fcntl.h>
#include <malloc.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace Velantrix::Test {

namespace {

using namespace std::chrono;

nanoseconds processorTime() {
  timespec used{};
  if (clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used) != 0) failWithError("clock_gettime", errno);
  return seconds(used.tv_sec) + nanoseconds(used.tv_nsec);
}

Cost measure(const std::function<void()>& step) {
  // What the parent has freed and kept would serve the step without a trace.
  malloc_trim(0);
  const MemoryPeak peak;
  const nanoseconds before = processorTime();
  step();
  const nanoseconds used = processorTime() - before;
  return {peak.resident(), duration_cast<milliseconds>(used)};
}

// What the child writes: the two numbers, or why there are none.
std::string report(const std::function<void()>& step) {
  try {
    const Cost cost = measure(step);
    return std::to_string(cost.memory) + ' ' + std::to_string(cost.processor.count());
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "an exception of no known type";
  }
}

std::string readAll(const Descriptor& pipe) {
  std::string all;
  std::array<char, 4096> buffer{};
  for (;;) {
    const ssize_t count = read(pipe.number(), buffer.data(), buffer.size());
    if (count == 0) return all;
    if (count > 0) {
      all.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      failWithError("read", errno);
    }
  }
}

std::optional<Cost> parse(const std::string& reported) {
  unsigned long memory = 0;
  long processor = 0;
  if (std::sscanf(reported.c_str(), "%lu %ld", &memory, &processor) != 2) return std::nullopt;
  return Cost{memory, milliseconds(processor)};
}

}  // namespace

Cost costOf(const std::function<void()>& step) {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) failWithError("pipe2", errno);
  const Descriptor reader(ends[0], "pipe2");
  Descriptor writer(ends[1], "pipe2");
  const pid_t child = fork();
  if (child < 0) failWithError("fork", errno);
  if (child == 0) {
    const std::string text = report(step);
    const ssize_t written = write(writer.number(), text.data(), text.size());
    _exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
  }
  writer = Descriptor();
  const std::string reported = readAll(reader);
  const int status = collect(child);
  const std::optional<Cost> cost = parse(reported);
  if (status != 0 || !cost) {
    throw std::runtime_error("step ended with status " + std::to_string(status) + ": " + reported);
  }
  return *cost;
}

bool costsCanBeMeasured() {
#ifdef PKX509_SANITIZED  // sanitizers keep what was freed, and watch what is done
  return false;
#else
  return true;
#endif
}

}  // namespace Velantrix::Test
