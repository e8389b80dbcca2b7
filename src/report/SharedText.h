// A text that many records hold and none of them changes: a copy shares it.
#pragma once

#include <concepts>
#include <memory>
#include <string>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

class SharedText {
 public:
  SharedText() noexcept = default;  // empty
  template <std::convertible_to<std::string_view> Text>
  SharedText(const Text& text) : SharedText(std::string_view(text), nullptr) {}

  const std::string& text() const noexcept {
    static const std::string none;
    return text_ == nullptr ? none : *text_;
  }

  friend bool operator==(const SharedText& a, const SharedText& b) noexcept {
    return a.text_ == b.text_ || a.text() == b.text();
  }

 private:
  SharedText(std::string_view text, std::nullptr_t /*ours*/)
      : text_(text.empty() ? nullptr : std::make_shared<const std::string>(text)) {}

  std::shared_ptr<const std::string> text_;
};

}  // namespace Velantrix::Crypto::PKX509
