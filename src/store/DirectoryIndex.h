// The names of a hash directory by the number that they begin with, so that looking one up lists nothing.
//
//   const auto index = DirectoryIndex::of(directory, FileStamp::at(directory.c_str()));
//   if (index != nullptr) names = index->names(0x0a6481c9);
//
// One serves all look-ups of the process in a directory for as long as the directory does not change
// (FileStamp.h).
#pragma once

#include "foundation/base/FileStamp.h"
#include "foundation/filecache/FileObjects.h"
#include "store/HashNames.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class DirectoryIndex : public FileObjects::Value {
 public:
  // An index that would take more of FileCache::limit(), or more octets, is none.
  static constexpr std::size_t kSmallestPart = 8;
  static constexpr std::size_t kMostOctets = std::size_t{1} << 30U;

  // That of a directory as it is seen now. Null where it has to be listed: it has just changed, its changes
  // cannot be told, it is too large.
  // Throws Exception with the path and the reason when the directory cannot be read.
  static std::shared_ptr<const DirectoryIndex> of(const std::string& directory,
                                                  const FileStamp& seen);

  // In the order of their bytes.
  std::vector<HashNames::Name> names(unsigned int number) const;

  std::size_t memory() const noexcept override;

 private:
  static FileObjects::Read read(const std::string& directory);

  // False when there is no room for it.
  bool add(std::string_view name, bool regular);
  void link();

  static constexpr std::uint32_t kNoEntry = 0xffffffffU;

  struct Entry {
    unsigned int number;
    std::uint32_t place;  // of the name
    std::uint32_t next;   // of the same chain
  };

  std::uint32_t& firstOf(unsigned int number) noexcept { return chains_[number % chains_.size()]; }

  bool isWhole_ = false;
  std::string names_;  // each begins with whether it is a file's and ends with a zero octet
  std::vector<Entry> entries_;
  std::vector<std::uint32_t> chains_;  // the first entries, by number
};

}  // namespace Velantrix::Crypto::PKX509
