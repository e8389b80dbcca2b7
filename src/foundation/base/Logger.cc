#include "foundation/base/Log.h"
#include "foundation/base/LogFormat.h"
#include "foundation/base/Text.h"

#include <velantrix/Logger.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <syslog.h>

namespace Velantrix {

namespace {

std::atomic<Logger*> installed{nullptr};

Logger& defaultLogger() {
  // Never destroyed: objects with static lifetime may still log while the program ends.
  static auto* const logger = new Logger;
  return *logger;
}

bool parsePriority(std::string_view text, int& priority) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), priority);
  return error == std::errc() && end == text.data() + text.size() && priority >= LOG_EMERG &&
         priority <= LOG_DEBUG;
}

}  // namespace

Logger::Logger() = default;
Logger::~Logger() = default;

Logger& Logger::instance(bool) {
  Logger* const logger = installed.load(std::memory_order_acquire);
  return logger != nullptr ? *logger : defaultLogger();
}

Logger* Logger::install(Logger* logger) noexcept {
  return installed.exchange(logger, std::memory_order_acq_rel);
}

// NOLINTNEXTLINE(cert-dcl50-cpp): callers pass what they would pass to printf().
void Logger::write(unsigned int, unsigned int, const char* format, ...) {
  // Room for the longest text, its priority, and enough of what follows to cut at a character.
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init): vsnprintf() writes what is read.
  std::array<char, kMaxLogText + 32> buffer;
  std::va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(buffer.data(), buffer.size(), format, arguments);
  va_end(arguments);
  if (length < 0) return;

  std::string_view text(buffer.data(),
                        std::min(static_cast<std::size_t>(length), buffer.size() - 1));
  int priority = kPriorityInfo;
  const std::size_t end = text.find(kPriorityEnd);
  if (end != std::string_view::npos && parsePriority(text.substr(0, end), priority)) {
    text.remove_prefix(end + 1);
  } else {
    priority = kPriorityInfo;
  }
  line(priority, std::string(cutText(text, kMaxLogText)));
}

void Logger::line(int priority, const std::string& text) {
  // An entry without text says nothing, whatever its number. Common set-ups show number 0
  // (LOG_EMERG) to everybody who is logged in, and a stranger's certificate can cause such entries.
  if (text.empty()) priority = LOG_DEBUG;
  ::syslog(LOG_MAIL | priority, "%s", text.c_str());
}

}  // namespace Velantrix
