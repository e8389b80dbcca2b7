// Blocks of PEM as everybody writes them (RFC 7468, 3: the strict form), of any size.
//
//   if (std::optional<PemBlock> block = plainPemBlock(text, labels)) {
//     use(block->label, std::move(block->content));
//     text.remove_prefix(block->size);
//   }
#pragma once

#include "foundation/base/Octets.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace Velantrix {

struct PemBlock {
  std::string_view label;  ///< borrowed from those that were asked for
  Octets content;
  std::size_t size;  ///< of the text up to the end of the block and of its last line
};

/// The first block of @p text, where it has one of the labels and is written so that nobody reads it in another
/// way: nothing but base64 in lines of one length, with padding where it is wanted. What stands before it
/// is short lines of ASCII. Nothing for all other texts, which some may read, others not; finding out
/// costs no more than reading it.
std::optional<PemBlock> plainPemBlock(std::string_view text,
                                      std::span<const std::string_view> labels);

}  // namespace Velantrix
