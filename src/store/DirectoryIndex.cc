#include "store/DirectoryIndex.h"

#include "foundation/base/DirectoryListing.h"

#include <pkx509/FileCache.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr char kRegular = 'f';
constexpr char kOther = '?';

}  // namespace

std::shared_ptr<const DirectoryIndex> DirectoryIndex::of(const std::string& directory,
                                                         const FileStamp& seen) {
  const auto index = FileObjects::getRead<DirectoryIndex>(
      File::Path(directory), seen, [&](bool forAll) -> FileObjects::Read {
        // Nobody else would have anything of it, and listing is cheaper for a few names.
        if (!forAll) return {std::make_shared<const DirectoryIndex>()};
        return read(directory);
      });
  return index != nullptr && index->isWhole_ ? index : nullptr;
}

FileObjects::Read DirectoryIndex::read(const std::string& directory) {
  auto index = std::make_shared<DirectoryIndex>();
  const std::chrono::nanoseconds begin = FileStamp::realTime();
  const OwnedDirectory open = openDirectory(directory);
  if (open == nullptr) return {index};
  const std::optional<FileStamp> before = FileStamp::of(::dirfd(open.get()));
  index->isWhole_ = true;
  forEachName(open.get(), directory, [&](std::string_view name, bool regular) {
    index->isWhole_ = index->isWhole_ && index->add(name, regular);
  });
  const bool lasts =
      before && before->isSettled(begin) && before == FileStamp::of(::dirfd(open.get()));
  index->link();
  return {index, lasts ? before : std::nullopt};
}

bool DirectoryIndex::add(std::string_view name, bool regular) {
  const std::optional<unsigned int> number = HashNames::numberOf(name);
  if (!number) return true;
  if (memory() > std::min(FileCache::limit() / kSmallestPart, kMostOctets)) {
    names_ = {};
    entries_ = {};
    return false;
  }
  entries_.push_back({*number, static_cast<std::uint32_t>(names_.size()), kNoEntry});
  names_ += regular ? kRegular : kOther;
  names_.append(name) += '\0';
  return true;
}

// Chains, since sorting would cost a good part of what listing does.
void DirectoryIndex::link() {
  chains_.assign(std::max<std::size_t>(entries_.size(), 1), kNoEntry);
  for (std::uint32_t i = 0; i < entries_.size(); ++i) {
    entries_[i].next = std::exchange(chains_[entries_[i].number % chains_.size()], i);
  }
}

std::size_t DirectoryIndex::memory() const noexcept {
  return sizeof *this + names_.capacity() + entries_.capacity() * sizeof(Entry) +
         chains_.capacity() * sizeof(std::uint32_t);
}

std::vector<HashNames::Name> DirectoryIndex::names(unsigned int number) const {
  std::vector<HashNames::Name> all;
  for (std::uint32_t i = chains_[number % chains_.size()]; i != kNoEntry; i = entries_[i].next) {
    const Entry& entry = entries_[i];
    if (entry.number != number) continue;
    all.push_back({&names_[entry.place + 1], names_[entry.place] == kRegular});
  }
  std::sort(all.begin(), all.end());
  return all;
}

}  // namespace Velantrix::Crypto::PKX509
