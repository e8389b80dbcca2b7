/// @file
/// The empty base of everything that must not be copied.
#pragma once

namespace Velantrix {

/// Declares copying and leaves it inaccessible. It has no data, so deriving from it costs nothing.
class NonCopyable {
 protected:
  NonCopyable() = default;
  ~NonCopyable() = default;

 public:
  NonCopyable(const NonCopyable&) = delete;
  NonCopyable& operator=(const NonCopyable&) = delete;
};

}  // namespace Velantrix
