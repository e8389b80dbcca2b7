// The names of files that are being written: the target's name (its beginning, when it is too
// long), "-tmp-" and sixteen digits, as in "4a6481c9.r0-tmp-0123456789abcdef".
#pragma once

#include "foundation/base/Hex.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace Velantrix {

/// No hash name has a '-' or a 't' in it, so nothing that looks for hash names opens such a file.
inline constexpr std::string_view kTemporaryMark = "-tmp-";
/// Of random digits, in lower-case hexadecimal, after the mark.
inline constexpr std::size_t kTemporaryDigits = 16;

/// Whether @p text is all that may follow the target's name in a temporary one.
constexpr bool isTemporarySuffix(std::string_view text) noexcept {
  return text.size() == kTemporaryMark.size() + kTemporaryDigits &&
         text.starts_with(kTemporaryMark) &&
         text.find_first_not_of(kLowerHexDigits, kTemporaryMark.size()) == std::string_view::npos;
}

/// One that nobody has had.
/// @throws Exception when the system has no random numbers
std::string newTemporarySuffix();

}  // namespace Velantrix
