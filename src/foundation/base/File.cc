#include "foundation/base/DirectoryListing.h"

#include <velantrix/File.h>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace Velantrix::File {

namespace {

struct Entry {
  std::string name;
  bool regular;  // known from the directory itself, without a look at the file
};

// What is gone by now is as good as what had gone before the directory was listed.
bool isGone(int directory, const std::string& name) {
  struct stat status = {};
  return ::fstatat(directory, name.c_str(), &status, 0) != 0 && errno == ENOENT;
}

// True when the name leads to a regular file now.
bool leadsToFile(int directory, const std::string& directoryName, const std::string& name) {
  struct stat status = {};
  if (::fstatat(directory, name.c_str(), &status, 0) == 0) return S_ISREG(status.st_mode);
  const int error = errno;
  if (leadsNowhere(error)) return false;
  failSystem(kOfDirectories, Path(directoryName, name).asString(), error);
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
  const OwnedDirectory directory = openDirectory(name);
  missing_ = directory == nullptr;
  if (missing_) return;

  std::vector<Entry> entries;
  forEachName(directory.get(), name, [&](std::string_view file, bool regular) {
    if (!accept_ || accept_(file)) entries.push_back({std::string(file), regular});
  });

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
