// Changes DER by its structure: an element goes, comes twice, changes places, takes another's
// value, and the lengths around it stay right. Changing single octets, as libFuzzer does by itself,
// breaks some length nearly every time, and then nothing behind the decoder is reached.
//
// Linked to targets whose input is DER; only where there is libFuzzer. Input that is no DER is left
// to libFuzzer's own changes, and so is some that is.
#include "Fuzz.h"

#include <algorithm>
#include <array>
#include <optional>
#include <random>
#include <string_view>
#include <vector>

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned int seed);
extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* data1, std::size_t size1,
                                                 const std::uint8_t* data2, std::size_t size2,
                                                 std::uint8_t* out, std::size_t maxOut,
                                                 unsigned int seed);

namespace {

constexpr unsigned int kConstructed = 0x20;
constexpr char kOctetString = 0x04;
constexpr int kDeepest = 24;

struct Element {
  char tag = 0;        // high tag numbers do not occur; they are not taken for DER here
  bool wraps = false;  // an OCTET STRING that holds DER, as the value of an extension does
  std::string content = {};
  std::vector<Element> children = {};
};
using Elements = std::vector<Element>;

std::optional<Elements> parse(std::string_view der, int depth = 0);

bool parseChildren(Element& element, std::string_view content, int depth) {
  const bool constructed = (static_cast<unsigned char>(element.tag) & kConstructed) != 0;
  if (!constructed && (element.tag != kOctetString || content.size() < 2)) return false;
  std::optional<Elements> children = parse(content, depth + 1);
  if (!children) return false;
  element.children = std::move(*children);
  element.wraps = !constructed;
  return true;
}

// The elements that fill `der` to its end.
std::optional<Elements> parse(std::string_view der, int depth) {
  if (depth > kDeepest) return std::nullopt;
  const auto octet = [&](std::size_t i) { return static_cast<unsigned char>(der[i]); };
  Elements elements;
  while (!der.empty()) {
    if (der.size() < 2 || (octet(0) & 0x1f) == 0x1f) return std::nullopt;
    std::size_t header = 2;
    std::size_t length = octet(1);
    if (length >= 0x80) {
      const std::size_t octets = length & 0x7f;
      if (octets == 0 || octets > 4 || der.size() < 2 + octets) return std::nullopt;
      length = 0;
      for (std::size_t i = 0; i < octets; ++i) length = length << 8 | octet(2 + i);
      header += octets;
    }
    if (der.size() - header < length) return std::nullopt;
    const std::string_view content = der.substr(header, length);
    Element element{der.front()};
    if (!parseChildren(element, content, depth)) element.content = content;
    elements.push_back(std::move(element));
    der.remove_prefix(header + length);
  }
  return elements;
}

void encode(std::string& out, const Elements& elements) {
  for (const Element& element : elements) {
    std::string content = element.content;
    encode(content, element.children);
    out += element.tag;
    const std::size_t length = content.size();
    if (length < 0x80) {
      out += static_cast<char>(length);
    } else {
      const int octets = length < 0x100 ? 1 : length < 0x10000 ? 2 : 3;
      out += static_cast<char>(0x80 + octets);
      for (int i = octets - 1; i >= 0; --i) out += static_cast<char>(length >> (8 * i) & 0xff);
    }
    out += content;
  }
}

// An element and where it stands.
struct Place {
  Elements* siblings;
  std::size_t index;
  Element& element() const { return (*siblings)[index]; }
};

void collect(Elements& elements, std::vector<Place>& places) {
  for (std::size_t i = 0; i < elements.size(); ++i) {
    places.push_back({&elements, i});
    collect(elements[i].children, places);
  }
}

class Mutator {
 public:
  explicit Mutator(unsigned int seed) : random_(seed) {}

  std::size_t below(std::size_t bound) {
    return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random_);
  }

  Place pick(Elements& root) {
    std::vector<Place> places;
    collect(root, places);
    return places[below(places.size())];
  }

  void mutate(Elements& root) {
    const Place place = pick(root);
    Elements& siblings = *place.siblings;
    const auto here = siblings.begin() + static_cast<std::ptrdiff_t>(place.index);
    switch (below(12)) {
      case 0:
        if (siblings.size() > 1 || &siblings != &root) siblings.erase(here);
        break;
      case 1: {
        const Element copy = place.element();
        siblings.insert(here, 1 + (below(16) == 0 ? below(64) : 0), copy);
        break;
      }
      case 2:
        std::swap(place.element(), siblings[below(siblings.size())]);
        break;
      case 3: {
        const Element other = pick(root).element();
        place.element() = other;
        break;
      }
      case 4: {
        const Element other = pick(root).element();
        siblings.insert(here, other);
        break;
      }
      case 5:
        siblings.insert(here, common());
        break;
      case 6:
        place.element() = common();
        break;
      case 7:
        place.element().tag = tag();
        break;
      default:
        mutateContent(place.element());
        break;
    }
  }

 private:
  char tag() {
    // Strings and times first of all: they stand for each other in names and validities.
    static constexpr unsigned char kTags[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x0a, 0x0c, 0x12,
                                              0x13, 0x14, 0x16, 0x17, 0x18, 0x1a, 0x1b, 0x1c, 0x1e,
                                              0x30, 0x31, 0x80, 0x81, 0x82, 0x83, 0x84, 0x85, 0x86,
                                              0x87, 0x88, 0xa0, 0xa1, 0xa2, 0xa3, 0xa4, 0xa5, 0xa6};
    return static_cast<char>(kTags[below(std::size(kTags))]);
  }

  Element common() {
    using namespace std::string_literals;
    const std::array kCommon = {
        Element{0x30},
        Element{0x31},
        Element{0x05},
        Element{0x01, false, "\xff"s},
        Element{0x02, false, "\0"s},
        Element{0x02, false, "\xff"s},
        Element{0x02, false, "\x7f\xff\xff\xff\xff\xff\xff\xff"s},
        Element{0x02, false, std::string(21, '\x7f')},
        Element{0x03, false, "\0"s},
        Element{0x03, false, "\x07\xff\x80"s},
        Element{0x0a, false, "\x08"s},
        Element{0x0c, false, "\xc3\xa4,+\"\0 "s},
        Element{0x1e, false, "\xd8\0\0a"s},
        Element{0x17, false, "491231235959Z"s},
        Element{0x18, false, "99991231235959Z"s},
    };
    return kCommon[below(kCommon.size())];
  }

  void mutateContent(Element& element) {
    if (!element.children.empty()) return;
    std::vector<std::uint8_t> bytes(element.content.begin(), element.content.end());
    const std::size_t size = bytes.size();
    bytes.resize(size + 16);
    bytes.resize(LLVMFuzzerMutate(bytes.data(), size, bytes.size()));
    element.content.assign(bytes.begin(), bytes.end());
  }

  std::minstd_rand random_;
};

bool store(const Elements& elements, std::uint8_t* out, std::size_t room, std::size_t& size) {
  std::string der;
  encode(der, elements);
  if (der.empty() || der.size() > room) return false;
  std::copy(der.begin(), der.end(), out);
  size = der.size();
  return true;
}

}  // namespace

extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize, unsigned int seed) {
  Mutator mutator(seed);
  std::optional<Elements> elements = parse(Velantrix::Fuzz::text(data, size));
  if (!elements || elements->empty() || mutator.below(8) == 0) {
    return LLVMFuzzerMutate(data, size, maxSize);
  }
  for (std::size_t left = 1 + mutator.below(3); left > 0; --left) mutator.mutate(*elements);
  std::size_t mutated = 0;
  return store(*elements, data, maxSize, mutated) ? mutated : LLVMFuzzerMutate(data, size, maxSize);
}

extern "C" std::size_t LLVMFuzzerCustomCrossOver(const std::uint8_t* data1, std::size_t size1,
                                                 const std::uint8_t* data2, std::size_t size2,
                                                 std::uint8_t* out, std::size_t maxOut,
                                                 unsigned int seed) {
  Mutator mutator(seed);
  std::optional<Elements> one = parse(Velantrix::Fuzz::text(data1, size1));
  std::optional<Elements> two = parse(Velantrix::Fuzz::text(data2, size2));
  std::size_t size = 0;
  if (!one || !two || one->empty() || two->empty()) return 0;
  const Place place = mutator.pick(*one);
  const Element other = mutator.pick(*two).element();
  if (mutator.below(2) == 0) {
    place.element() = other;
  } else {
    place.siblings->insert(place.siblings->begin() + static_cast<std::ptrdiff_t>(place.index),
                           other);
  }
  return store(*one, out, maxOut, size) ? size : 0;
}
