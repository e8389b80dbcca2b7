/// @file
/// A run of bytes that is not changed: a value from a directory, an encoded certificate.
///
/// @code
///   Buffer copy(bytes.data(), length, true);     // independent of `bytes`
///   Buffer view(bytes.data(), length, false);    // valid while `bytes` is
///   parse(view.data(), view.length());
/// @endcode
#pragma once

#include <velantrix/Export.h>

#include <memory>
#include <vector>

namespace Velantrix {

/// Bytes that are either the buffer's own or borrowed.
///
/// Copying a buffer that owns its bytes shares them: the bytes never change, so copies may be read
/// from several threads. Copying one that borrows copies the loan, with the same lifetime.
class PKX509_EXPORT Buffer {
 public:
  /// No bytes.
  Buffer() noexcept = default;

  /// @param data   the bytes; may be null when @p length is 0
  /// @param length how many
  /// @param copy   true copies them; false borrows them, and the caller keeps them alive and
  ///               unchanged for as long as this buffer or a copy of it is used
  /// @throws Exception when there is no @p data but a @p length
  Buffer(const void* data, unsigned int length, bool copy);

  /// The first byte, borrowed from the buffer. May be null when the buffer is empty.
  const unsigned char* data() const noexcept { return data_; }
  unsigned int length() const noexcept { return length_; }
  bool empty() const noexcept { return length_ == 0; }

 private:
  std::shared_ptr<const std::vector<unsigned char>> own_;
  const unsigned char* data_ = nullptr;
  unsigned int length_ = 0;
};

}  // namespace Velantrix
