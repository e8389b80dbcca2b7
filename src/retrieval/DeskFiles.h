// The files of a desk, in its subdirectory of a cache: locks, marks, deliveries, and the issuers of CRLs.
//
//   const DeskFiles files(directory);
//   files.makeRoom(text.size());
//   if (const int error = files.write(name, text, {})) ...
//
// Whoever may write the cache may use them, and nobody else. Nothing is followed or waited for, and a
// file is there as a whole or not at all.
#pragma once

#include "foundation/base/FileDescriptor.h"
#include "retrieval/DeskProcess.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class DeskFiles {
 public:
  struct Limits {
    std::size_t files = 4096;
    std::uint64_t bytes = std::uint64_t{256} * 1024 * 1024;
  };

  static constexpr std::string_view kLock = ".lock";
  static constexpr std::string_view kMark = ".mark";
  static constexpr std::string_view kDelivery = ".new";
  static constexpr std::string_view kIssuers = ".issuers";

  explicit DeskFiles(const std::string& cache) : DeskFiles(cache, Limits()) {}
  DeskFiles(const std::string& cache, const Limits& limits);

  // The first part of the names of all that is about a place: its SHA-256 in hexadecimal.
  static std::string digestOf(const std::string& place);

  const std::string& directory() const noexcept { return directory_; }

  // The content of a regular file; none where there is none, it is larger, or it cannot be read.
  std::optional<std::string> read(const std::string& name, std::size_t limit) const;
  // What has to be there after a crash of the machine is on the disk before it has its name.
  enum class Lasting { kNo, kYes };
  // Puts `head` and `rest` in the place of what was there. 0, or the error.
  int write(const std::string& name, std::string_view head, std::string_view rest,
            Lasting lasting = Lasting::kNo) const;
  void remove(const std::string& name) const;
  // The first parts of the names of all files of one kind, in order; no more than may lie there.
  std::vector<std::string> digests(std::string_view kind) const;

  // The file, opened to be locked; null with the error where it cannot be.
  std::unique_ptr<DeskLock> lock(const std::string& name, int& error) const;
  bool isNamed(const DeskLock& lock, const std::string& name) const;

  // Removes what nobody needs any more, and then the oldest files, until there is room for deliveries
  // of `bytes` and for what others write until they look: a quarter of all. A lock that somebody holds
  // stays.
  void makeRoom(std::uint64_t bytes) const;

 private:
  FileDescriptor open() const;
  // Makes it where it is missing.
  FileDescriptor openToWrite(int& error) const;
  bool make() const;

  std::string cache_;
  std::string directory_;
  Limits limits_;
};

}  // namespace Velantrix::Crypto::PKX509
