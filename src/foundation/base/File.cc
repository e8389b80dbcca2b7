#include "foundation/base/Fail.h"
#include "foundation/base/FileDescriptor.h"
#include "foundation/base/OwnedDirectory.h"

#include <velantrix/File.h>

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace Velantrix::File {

namespace {

struct Entry {
  std::string name;
  bool regular;  // known from the directory itself, without a look at the file
};

constexpr Origin kHere{"File::Selector", "File"};

// What is gone by now is as good as what had gone before the directory was listed.
bool isGone(int directory, const std::string& name) {
  struct stat status = {};
  return ::fstatat(directory, name.c_str(), &status, 0) != 0 && errno == ENOENT;
}

bool mayLeadToFile(unsigned char type) {
  return type == DT_REG || type == DT_LNK || type == DT_UNKNOWN;
}

// True when the name leads to a regular file now. One that is gone in the meantime, or a link that
// leads nowhere or in a circle, does not.
bool leadsToFile(int directory, const std::string& directoryName, const std::string& name) {
  struct stat status = {};
  if (::fstatat(directory, name.c_str(), &status, 0) == 0) return S_ISREG(status.st_mode);
  const int error = errno;
  if (error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG) return false;
  failSystem(kHere, Path(directoryName, name).asString(), error);
}

}  // namespace

Path::Path(const std::string& text) : text_(text) {}

Path::Path(const std::string& dir, const std::string& name) : text_(dir) {
  if (!text_.empty() && text_.back() != '/') text_ += '/';
  text_ += name;
}

std::string Path::name() const {
  const std::size_t last = text_.find_last_not_of('/');
  if (last == std::string::npos) return std::string();
  const std::size_t slash = text_.rfind('/', last);
  const std::size_t first = slash == std::string::npos ? 0 : slash + 1;
  return text_.substr(first, last + 1 - first);
}

Status Path::status(bool followLinks) const {
  struct statx status = {};
  const int flags = followLinks ? 0 : AT_SYMLINK_NOFOLLOW;
  constexpr unsigned int kWanted = STATX_TYPE | STATX_SIZE | STATX_MTIME | STATX_BTIME;
  if (::statx(AT_FDCWD, systemPath(text_), flags, kWanted, &status) != 0) {
    failSystem({"File::Path", "File"}, text_, errno);
  }
  Time creation = Time::then(status.stx_mtime.tv_sec, true);
  if ((status.stx_mask & STATX_BTIME) != 0) {
    creation = std::min(creation, Time::then(status.stx_btime.tv_sec, true));
  }
  return Status(S_ISREG(status.stx_mode), status.stx_size, creation);
}

Processor::~Processor() = default;

Selector::Selector(const Path& directory, Processor& processor, NameFilter accept)
    : directory_(directory), processor_(processor), accept_(std::move(accept)) {}

void Selector::start() {
  const std::string& name = directory_.asString();
  const OwnedDirectory directory(::opendir(systemPath(name)));
  const int error = directory == nullptr ? errno : 0;
  missing_ = error == ENOENT;
  if (missing_) return;
  if (error != 0) failSystem(kHere, name, error);

  std::vector<Entry> entries;
  while (true) {
    errno = 0;  // readdir() tells the end from a failure by this alone
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other thread reads from this stream.
    const dirent* const entry = ::readdir(directory.get());
    if (entry == nullptr) break;
    if (!mayLeadToFile(entry->d_type)) continue;
    if (accept_ && !accept_(entry->d_name)) continue;
    entries.push_back({entry->d_name, entry->d_type == DT_REG});
  }
  if (errno != 0) failSystem(kHere, name, errno);

  // std::string compares bytes as unsigned, whatever the locale.
  std::sort(entries.begin(), entries.end(),
            [](const Entry& a, const Entry& b) { return a.name < b.name; });

  for (const Entry& entry : entries) {
    if (!entry.regular && !leadsToFile(::dirfd(directory.get()), name, entry.name)) continue;
    try {
      if (processor_.process(Path(name, entry.name)) != 0) return;
    } catch (const Exception&) {
      // `openssl rehash` takes all links away before it makes them anew.
      if (!isGone(::dirfd(directory.get()), entry.name)) throw;
    }
  }
}

}  // namespace Velantrix::File
