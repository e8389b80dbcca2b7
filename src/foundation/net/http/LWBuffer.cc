#include <velantrix/Assert.h>
#include <velantrix/LWBuffer.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

namespace Velantrix::LW {

Buffer::Buffer(std::size_t size) : data_(static_cast<unsigned char*>(std::malloc(size))) {
  if (data_ == nullptr && size != 0) throw std::bad_alloc();
  capacity_ = size;
}

Buffer::~Buffer() { std::free(data_); }

void Buffer::length(std::size_t bytes) {
  PKX509_ASSERT(bytes <= capacity_);
  length_ = bytes;
}

void Buffer::append(const void* bytes, std::size_t count) {
  if (count == 0) return;
  if (count > capacity_ - length_) {
    constexpr std::size_t kFirst = std::size_t{4} * 1024;
    const std::size_t wanted = std::max({length_ + count, capacity_ + capacity_ / 2, kFirst});
    // realloc, not a vector: the pages of a large block are moved without copying a byte.
    void* const grown = std::realloc(data_, wanted);
    if (grown == nullptr) throw std::bad_alloc();
    data_ = static_cast<unsigned char*>(grown);
    capacity_ = wanted;
  }
  std::memcpy(data_ + length_, bytes, count);
  length_ += count;
}

void Buffer::clear() noexcept {
  std::free(data_);
  data_ = nullptr;
  length_ = 0;
  capacity_ = 0;
}

RefBuffer::RefBuffer(unsigned long size) : RefBuffer(new Buffer(size)) {}

}  // namespace Velantrix::LW
