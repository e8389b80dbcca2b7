#include "foundation/base/PemBlock.h"

#include <algorithm>
#include <array>
#include <cstdint>

namespace Velantrix {

namespace {

// OpenSSL reads lines of up to 253 octets at once.
constexpr std::size_t kMostOfLine = 200;
constexpr std::size_t kMostBefore = std::size_t{16} * 1024;

constexpr std::string_view kDashes = "-----";
constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// For each of the four characters that stand for three octets, what it adds to them. What is none sets a
// bit above these.
constexpr std::uint32_t kNone = 0x80000000;
using Values = std::array<std::array<std::uint32_t, 256>, 4>;

constexpr Values kValues = [] {
  Values values{};
  for (auto& ofPlace : values) ofPlace.fill(kNone);
  for (std::size_t place = 0; place < 4; ++place) {
    for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
      values[place][static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint32_t>(i)
                                                                << (18 - 6 * place);
    }
  }
  return values;
}();

std::uint32_t valueOf(const unsigned char* four) noexcept {
  return kValues[0][four[0]] | kValues[1][four[1]] | kValues[2][four[2]] | kValues[3][four[3]];
}

// A line without its end, which is moved behind it; nothing where it is too long or has no end.
std::optional<std::string_view> takeLine(std::string_view& text) noexcept {
  const std::size_t size = text.substr(0, kMostOfLine).find('\n');
  if (size == std::string_view::npos) return std::nullopt;
  std::string_view line = text.substr(0, size);
  text.remove_prefix(size + 1);
  if (line.ends_with('\r')) line.remove_suffix(1);
  return line;
}

bool isPlain(std::string_view line) noexcept {
  return std::all_of(line.begin(), line.end(),
                     [](char c) { return (c >= ' ' && c <= '~') || c == '\t'; });
}

// Moves behind what the text starts with, if it does.
bool take(std::string_view& text, std::string_view start) noexcept {
  if (!text.starts_with(start)) return false;
  text.remove_prefix(start.size());
  return true;
}

// Passes what stands before the block, and its first line. The label is one of these, or there is none.
std::optional<std::string_view> takeBegin(std::string_view& text,
                                          std::span<const std::string_view> labels) noexcept {
  const std::size_t before = text.size();
  while (before - text.size() <= kMostBefore) {
    std::optional<std::string_view> line = takeLine(text);
    if (!line || !isPlain(*line)) return std::nullopt;
    if (!take(*line, "-----BEGIN ")) continue;
    if (!line->ends_with(kDashes)) return std::nullopt;
    line->remove_suffix(kDashes.size());
    const auto found = std::find(labels.begin(), labels.end(), *line);
    return found == labels.end() ? std::nullopt : std::optional(*found);
  }
  return std::nullopt;
}

// The last line, which need not have an end.
bool takeEnd(std::string_view& text, std::string_view label) noexcept {
  if (!take(text, "-----END ") || !take(text, label) || !take(text, kDashes)) return false;
  if (text.empty()) return true;
  if (text.starts_with('\r')) text.remove_prefix(1);
  if (!text.starts_with('\n')) return false;
  text.remove_prefix(1);
  return true;
}

// Decodes lines into memory that is large enough.
class Decoder {
 public:
  explicit Decoder(unsigned char* out) noexcept : out_(out) {}

  // False for what is not base64, and for a line behind one with padding.
  bool take(std::string_view line) noexcept {
    if (ended_ || line.empty() || line.size() % 4 != 0) return false;
    const auto* four = reinterpret_cast<const unsigned char*>(line.data());
    const unsigned char* const last = four + line.size() - 4;
    std::uint32_t all = 0;
    for (; four != last; four += 4) {
      const std::uint32_t value = valueOf(four);
      all |= value;
      put(value);
    }
    return (all & kNone) == 0 && takeLast(four);
  }

  unsigned char* end() const noexcept { return out_; }

 private:
  void put(std::uint32_t value) noexcept {
    out_[0] = static_cast<unsigned char>(value >> 16);
    out_[1] = static_cast<unsigned char>(value >> 8);
    out_[2] = static_cast<unsigned char>(value);
    out_ += 3;
  }

  // With padding, bits are left that have to be zero (RFC 4648, 3.5).
  bool takeLast(const unsigned char* four) noexcept {
    const unsigned char padded[4] = {
        four[0], four[1],
        four[2] == '=' && four[3] == '=' ? static_cast<unsigned char>('A') : four[2],
        four[3] == '=' ? static_cast<unsigned char>('A') : four[3]};
    const std::uint32_t value = valueOf(padded);
    if ((value & kNone) != 0) return false;
    put(value);
    if (four[3] != '=') return true;
    ended_ = true;
    const std::uint32_t left = four[2] == '=' ? 0xffff : 0xff;
    out_ -= four[2] == '=' ? 2 : 1;
    return (value & left) == 0;
  }

  unsigned char* out_;
  bool ended_ = false;
};

// All lines but the last one have one length.
bool decode(std::string_view lines, Octets& content) {
  content.resize(lines.size() / 4 * 3 + 3);
  Decoder decoder(content.data());
  const std::size_t usual = lines.find('\n') + 1;
  bool last = false;
  while (!lines.empty()) {
    const std::size_t before = lines.size();
    const std::optional<std::string_view> line = takeLine(lines);
    const std::size_t size = before - lines.size();
    if (!line || last || size > usual || !decoder.take(*line)) return false;
    last = size < usual;
  }
  content.resize(static_cast<std::size_t>(decoder.end() - content.data()));
  return !content.empty();
}

}  // namespace

std::optional<PemBlock> plainPemBlock(std::string_view text,
                                      std::span<const std::string_view> labels) {
  std::string_view rest = text;
  const std::optional<std::string_view> label = takeBegin(rest, labels);
  if (!label) return std::nullopt;
  const std::string_view lines = rest.substr(0, rest.find('-'));
  rest.remove_prefix(lines.size());
  PemBlock block{.label = *label, .content = {}, .size = 0};
  if (!takeEnd(rest, *label) || !decode(lines, block.content)) return std::nullopt;
  block.size = text.size() - rest.size();
  return block;
}

}  // namespace Velantrix
