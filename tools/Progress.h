// A counter for who waits.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <thread>

namespace Velantrix::Tool {

/// Shows on standard error which of several files, or whatever they are called, is being worked on, once half a second has gone
/// by; not when standard error is no terminal, nor for a single file.
///
/// Nothing else writes to the terminal while the counter is there: it is shown during a `Step` only
/// and wiped out at its end. A thread of its own shows it for the first time, so that it appears
/// while a file takes long.
class Progress {
 public:
  explicit Progress(std::size_t total, std::string what = "file");
  ~Progress() = default;
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  /// The work on the next file.
  class Step {
   public:
    explicit Step(Progress& progress) : progress_(progress) { progress_.begin(); }
    ~Step() { progress_.end(); }
    Step(const Step&) = delete;
    Step& operator=(const Step&) = delete;

   private:
    Progress& progress_;
  };

 private:
  void begin();
  void end();
  void wait(const std::stop_token& stop);
  void draw();

  const std::size_t total_;
  const std::string what_;
  std::mutex mutex_;
  std::condition_variable_any stopped_;
  std::size_t current_ = 0;
  bool working_ = false;
  bool due_ = false;
  std::string shown_;
  std::jthread timer_;  // comes last: it ends before what it uses
};

}  // namespace Velantrix::Tool
