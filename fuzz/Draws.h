// What a target draws from the octets of its input to make a situation up.
//
//   Draws draws(data, size);
//   if (draws.one(8)) ...                       // one octet in eight
//   const int days = draws.pick({30, 30, -1});
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace Velantrix::Fuzz {

// When the input has come to its end every choice is the first one, which is the one in order. It
// has most of the chances too: what is wrong with one part hides the others.
class Draws {
 public:
  Draws(const std::uint8_t* data, std::size_t size) : data_(data), end_(data + size) {}

  bool atEnd() const { return data_ == end_; }
  int below(int bound) { return atEnd() ? 0 : *data_++ % bound; }
  bool one(int in) { return below(in) == in - 1; }
  template <class T>
  T pick(std::initializer_list<T> values) {
    return *(values.begin() + below(static_cast<int>(values.size())));
  }

 private:
  const std::uint8_t* data_;
  const std::uint8_t* end_;
};

}  // namespace Velantrix::Fuzz
