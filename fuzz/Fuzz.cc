#include "Fuzz.h"

#include "foundation/base/Utf8.h"

#include <velantrix/Logger.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <string_view>

namespace Velantrix::Fuzz {

namespace {

using Crypto::PKX509::DistinguishedName;

bool isFitToShow(std::string_view text) {
  while (!text.empty()) {
    const Utf8Character character = firstUtf8Character(text);
    if (character.value && isUnfitToShow(*character.value)) return false;
    text.remove_prefix(character.length);
  }
  return true;
}

class CheckedLog : public Logger {
 public:
  void write(unsigned int /*category*/, unsigned int /*flags*/, const char* format, ...) override
      __attribute__((format(printf, 4, 5))) {
    std::array<char, 16384> line{};
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line.data(), line.size(), format, arguments);
    va_end(arguments);
    PKX509_ASSERT(length > 0);
    const std::string_view shown(line.data(),
                                 std::min(static_cast<std::size_t>(length), line.size() - 1));
    const std::size_t mark = shown.find('\x01');  // the end of the priority
    PKX509_ASSERT(mark != std::string_view::npos);
    PKX509_ASSERT(isFitToShow(shown.substr(mark + 1)));
  }
};

// Initialised before any constructor runs.
const Target* s_targets = nullptr;

}  // namespace

Target::Target(const char* name, Body body) noexcept : name_(name), body_(body), next_(s_targets) {
  s_targets = this;
}

const Target* Target::find(std::string_view name) noexcept {
  const Target* target = s_targets;
  while (target != nullptr && target->name_ != name) target = target->next_;
  return target;
}

const Target& Target::only() {
  PKX509_ASSERT(s_targets != nullptr && s_targets->next_ == nullptr);
  return *s_targets;
}

void begin() {
  static CheckedLog* const log = [] {
    auto* const made = new CheckedLog;  // never destroyed, as the library's own
    Logger::install(made);
    return made;
  }();
  static_cast<void>(log);
  ERR_clear_error();
}

void checkName(const DistinguishedName& name) {
  std::string shown;
  std::uint32_t hash = 0;
  if (!accepted([&] { shown = name.asString(); })) return;
  PKX509_ASSERT(accepted([&] { hash = name.hash(); }));
  PKX509_ASSERT(name == name);
  PKX509_ASSERT(shown.empty() == name.empty());
  PKX509_ASSERT(isFitToShow(shown));
  if (name.empty()) return;

  DistinguishedName again;
  PKX509_ASSERT(accepted([&] { again = DistinguishedName(shown); }));
  PKX509_ASSERT(!again.empty());
  PKX509_ASSERT(again == name && name == again);
  PKX509_ASSERT(again.hash() == hash);
  // What was not quite DER may have had the parts of an RDN in another order.
  PKX509_ASSERT(DistinguishedName(again.asString()).asString() == again.asString());
}

}  // namespace Velantrix::Fuzz
