#include "DirectoryWarnings.h"

#include "HashNames.h"
#include "StandardStreams.h"

#include <pkx509/FixedPaths.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace Velantrix::Tool {

namespace fs = std::filesystem;
using namespace Crypto::PKX509;

namespace {

constexpr std::size_t kMostFiles = 16;  // that are named, of one directory

void warn(const std::string& path, const std::string& reason) {
  writeErrorLine("pkx509: warning: " + path + ": " + reason);
}

// Why a look-up that opens the file gets nothing from it; empty when it does. The file itself stays
// unopened: opening can have an effect.
std::string troubleWith(const std::string& file) {
  std::error_code error;
  const fs::file_status status = fs::status(file, error);
  if (!fs::exists(status)) {
    return error ? error.message() : std::generic_category().message(ENOENT);
  }
  if (!fs::is_regular_file(status)) return "not a regular file";
  if (::access(file.c_str(), R_OK) != 0) return std::generic_category().message(errno);
  return fs::file_size(file, error) == 0 && !error ? "the file is empty" : "";
}

// The files that a look-up would open, in the order of their names.
std::vector<std::string> hashNames(const std::string& directory, std::error_code& error) {
  std::vector<std::string> names;
  fs::directory_iterator entry(directory, error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    if (isHashName(entry->path().filename().string())) names.push_back(entry->path().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

void warnAboutFiles(const std::string& directory, const std::vector<std::string>& files) {
  std::size_t broken = 0;
  for (const std::string& file : files) {
    const std::string trouble = troubleWith(file);
    if (!trouble.empty() && ++broken <= kMostFiles) warn(file, trouble);
  }
  if (broken > kMostFiles) {
    warn(directory, std::to_string(broken - kMostFiles) + " more files cannot be read");
  }
}

}  // namespace

void warnAboutTrustDirectory(const std::string& directory) {
  std::error_code error;
  const std::vector<std::string> files = hashNames(directory, error);
  if (error) {
    warn(directory, error.message() + ": no certificate is trusted");
  } else if (files.empty()) {
    warn(directory, "no file in it is named by a hash: no certificate is trusted");
  }
  warnAboutFiles(directory, files);
}

void warnAboutCRLDirectories(const std::vector<std::string>& directories) {
  std::vector<std::string> all = directories;
  all.emplace_back(kCRLDirectory);
  for (const std::string& directory : all) {
    std::error_code error;
    warnAboutFiles(directory, hashNames(directory, error));
  }
  std::error_code error;
  const fs::file_status cache = fs::status(kCRLCacheDirectory, error);
  if (fs::is_directory(cache)) return;
  warn(kCRLCacheDirectory, (error               ? error.message()
                            : fs::exists(cache) ? std::generic_category().message(ENOTDIR)
                                                : std::generic_category().message(ENOENT)) +
                               ": no CRL is kept");
}

}  // namespace Velantrix::Tool
