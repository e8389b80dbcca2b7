// The names in a hash directory that begin with one number.
//
//   const HashNames names = HashNames::in(directory, 0x0a6481c9, DirectoryLook::now(directory));
//   if (names.missing) ...
//   for (const HashNames::Name& name : names.all) ...   // in the order of their bytes
#pragma once

#include "foundation/base/FileStamp.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

// How a directory looks.
struct DirectoryLook {
  static DirectoryLook now(const std::string& directory);
  // Within a verification one that is a millisecond old will do: as much may pass between a listing and
  // the opening of a file that is named in it. A verification looks up a handful of names one after the
  // other, in the same two directories.
  static DirectoryLook recent(const std::string& directory);

  std::optional<FileStamp> seen;
  int error = 0;  // where nothing was seen
};

struct HashNames {
  struct Name {
    std::string text;
    bool regular;  // known from the directory itself, without a look at the file

    bool operator<(const Name& other) const noexcept { return text < other.text; }
  };

  // The number of a file that a hash directory may have: in front of the first '.', hexadecimal of 32 bits
  // in any spelling, and 0 where it is none. Nothing for other names.
  static std::optional<unsigned int> numberOf(std::string_view fileName) noexcept;

  // Those of a number, in a directory that looks so.
  // Throws Exception with the path and the reason when the directory cannot be read.
  static HashNames in(const std::string& directory, unsigned int number, const DirectoryLook& look);

  std::vector<Name> all = {};
  bool missing = false;  // there is no such directory
};

}  // namespace Velantrix::Crypto::PKX509
