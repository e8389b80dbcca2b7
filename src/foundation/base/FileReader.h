// Reads a whole file into memory, up to a limit.
#pragma once

#include "foundation/base/FileStamp.h"
#include "foundation/base/Octets.h"

#include <velantrix/File.h>

#include <cstddef>
#include <vector>

namespace Velantrix {

/// The largest input that is read. A CRL with a million entries is about 40 MiB in DER.
inline constexpr std::size_t kMaxInputSize = std::size_t{128} * 1024 * 1024;

/// The content of a regular file or a FIFO (a FIFO is read until its writers close it). Anything
/// else is refused: a directory has no content and a device may have no end.
///
/// @throws Exception with the path and the reason when the file cannot be read, is neither of the
///         two or is larger than @p limit
std::vector<unsigned char> readFile(const File::Path& path, std::size_t limit = kMaxInputSize);
/// The same for what is kept as it is.
Octets readOctets(const File::Path& path, std::size_t limit = kMaxInputSize);

/// A file as it was read.
struct FileRead {
  Octets content;
  FileStamp stamp;  ///< when reading began
  /// The file has this content for as long as it has this stamp: it is a regular one of a local file
  /// system, did not change meanwhile, and its clock would tell of a change.
  bool lasts = false;
};
/// As `readFile()`. A file that changes meanwhile is read as far as it goes, as ever.
FileRead readFileWithStamp(const File::Path& path, std::size_t limit = kMaxInputSize);

}  // namespace Velantrix
