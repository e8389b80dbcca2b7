#include "TextWidth.h"

#include "foundation/base/Utf8.h"

#include <clocale>
#include <cwchar>
#include <locale.h>

namespace Velantrix::Tool {

namespace {

// The environment's locale may be none that knows the character.
class Utf8Locale {
 public:
  Utf8Locale() : locale_(::newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t{})) {}
  ~Utf8Locale() {
    if (locale_ != locale_t{}) ::freelocale(locale_);
  }
  Utf8Locale(const Utf8Locale&) = delete;
  Utf8Locale& operator=(const Utf8Locale&) = delete;

  std::size_t columns(char32_t character) const {
    if (locale_ == locale_t{}) return 1;
    const locale_t former = ::uselocale(locale_);
    const int columns = ::wcwidth(static_cast<wchar_t>(character));
    ::uselocale(former);
    return columns < 0 ? 1 : static_cast<std::size_t>(columns);
  }

 private:
  locale_t locale_;
};

std::size_t columnsOfCharacter(char32_t character) {
  static const Utf8Locale locale;
  return character < 0x80 ? 1 : locale.columns(character);
}

std::size_t columnsOfCharacter(const Utf8Character& character) {
  return columnsOfCharacter(character.value.value_or(U'?'));
}

// A line that grows, and where it may be broken.
class Line {
 public:
  bool fits(std::size_t columns, std::size_t width) const {
    return text_.empty() || columns_ + columns <= width;
  }
  void add(std::string_view bytes, std::size_t columns) {
    if (text_.empty() && bytes == " ") return;
    text_ += bytes;
    columns_ += columns;
    if (bytes == " ") {
      between_ = {text_.size(), columns_};
    } else if (bytes == "," || bytes == "/") {
      within_ = {text_.size(), columns_};
    }
  }
  // The part before the break; what is behind it stays.
  std::string take() {
    // A URI or a path is broken only where it does not fit into a line of its own.
    const Break at = between_.size != 0  ? between_
                     : within_.size != 0 ? within_
                                         : Break{text_.size(), columns_};
    std::string before = text_.substr(0, at.size);
    if (before.ends_with(' ')) before.pop_back();
    text_.erase(0, at.size);
    columns_ -= at.columns;
    between_ = {};
    within_ = within_.size > at.size ? Break{within_.size - at.size, within_.columns - at.columns}
                                     : Break();
    return before;
  }
  const std::string& text() const { return text_; }

 private:
  struct Break {
    std::size_t size = 0;
    std::size_t columns = 0;
  };

  std::string text_;
  std::size_t columns_ = 0;
  Break between_;  // words
  Break within_;   // a word
};

}  // namespace

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  while (!text.empty()) {
    const Utf8Character character = firstUtf8Character(text);
    columns += columnsOfCharacter(character);
    text.remove_prefix(character.length);
  }
  return columns;
}

std::string shortened(std::string_view text, std::size_t width, std::string_view ellipsis) {
  if (columnsOf(text) <= width) return std::string(text);
  const std::size_t room = width - std::min(width, columnsOf(ellipsis));
  std::size_t columns = 0;
  std::size_t length = 0;
  for (;;) {
    const Utf8Character character = firstUtf8Character(text.substr(length));
    columns += columnsOfCharacter(character);
    if (columns > room) break;
    length += character.length;
  }
  return std::string(text.substr(0, length)).append(ellipsis);
}

std::vector<std::string> wrapped(std::string_view text, std::size_t width, std::size_t most,
                                 std::string_view ellipsis) {
  std::vector<std::string> lines;
  Line line;
  while (!text.empty()) {
    const Utf8Character character = firstUtf8Character(text);
    const std::size_t columns = columnsOfCharacter(character);
    while (!line.fits(columns, width)) {
      if (lines.size() + 1 == most) {
        lines.push_back(shortened(line.text() + std::string(text), width, ellipsis));
        return lines;
      }
      lines.push_back(line.take());
    }
    line.add(text.substr(0, character.length), columns);
    text.remove_prefix(character.length);
  }
  if (!line.text().empty() || lines.empty()) lines.push_back(line.text());
  return lines;
}

}  // namespace Velantrix::Tool
