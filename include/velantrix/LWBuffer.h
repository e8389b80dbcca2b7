/// @file
/// The bytes of HTTP messages: what is sent, and what arrives.
///
/// @code
///   LW::RefBuffer body(4096);                          // room for 4096 bytes, none in it yet
///   std::memcpy(body->data(), bytes.data(), length);
///   body->length(length);
///   const OCSP::Response response(*body);
/// @endcode
#pragma once

#include <velantrix/Export.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/Refcounted.h>

#include <cstddef>

namespace Velantrix::LW {

/// A block of memory and how much of it is in use. Unlike `Velantrix::Buffer` it is written to.
///
/// Used by one thread at a time.
class PKX509_EXPORT Buffer : public RefImpl {
 public:
  /// No memory yet; it comes with the first `append()`.
  Buffer() noexcept = default;
  /// Room for @p size bytes, length 0.
  /// @throws std::bad_alloc
  explicit Buffer(std::size_t size);
  ~Buffer() override;

  /// The first byte, borrowed until the buffer grows or is cleared; null while there is no memory.
  unsigned char* data() noexcept { return data_; }
  const unsigned char* data() const noexcept { return data_; }
  /// How many bytes are in use.
  std::size_t length() const noexcept { return length_; }
  /// How many bytes there is room for.
  std::size_t capacity() const noexcept { return capacity_; }

  /// Says that the first @p bytes bytes are in use, which must not be more than there is room for.
  void length(std::size_t bytes);
  /// Adds bytes at the end and makes room for them as they come, by half of what there is.
  /// @throws std::bad_alloc; the buffer is then as it was
  void append(const void* bytes, std::size_t count);
  /// Gives the memory back.
  void clear() noexcept;

 private:
  unsigned char* data_ = nullptr;
  std::size_t length_ = 0;
  std::size_t capacity_ = 0;
};

/// A handle to a `Buffer`.
class PKX509_EXPORT RefBuffer : public Ref<Buffer> {
 public:
  using Ref<Buffer>::Ref;
  RefBuffer() noexcept = default;
  /// A new buffer with room for @p size bytes.
  explicit RefBuffer(unsigned long size);
};

}  // namespace Velantrix::LW
