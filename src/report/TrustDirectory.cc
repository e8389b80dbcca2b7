#include "report/TrustDirectory.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>
#include <velantrix/File.h>

#include <openssl/x509.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <list>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

namespace fs = std::filesystem;

constexpr int kMaximumFiles = 16;  // of one hash

std::vector<std::string> split(const std::string& directories) {
  std::vector<std::string> all;
  std::string_view rest = directories;
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find(':'), rest.size());
    if (end > 0) all.emplace_back(rest.substr(0, end));
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return all;
}

// "0a6481c9.0", which is what OpenSSL asks for.
bool isHashName(std::string_view name) {
  constexpr std::size_t kDigits = 8;
  return name.size() > kDigits + 1 && name[kDigits] == '.' &&
         name.substr(0, kDigits).find_first_not_of("0123456789abcdef") == std::string_view::npos &&
         name.substr(kDigits + 1).find_first_not_of("0123456789") == std::string_view::npos;
}

std::string hashName(const std::string& directory, std::uint32_t hash, int number) {
  constexpr std::string_view kDigits = "0123456789abcdef";
  std::string name = directory;
  name += '/';
  for (int shift = 28; shift >= 0; shift -= 4) name += kDigits[hash >> shift & 0xFU];
  name += '.';
  return name += std::to_string(number);
}

bool exists(const std::string& file) {
  struct stat status {};
  return ::stat(file.c_str(), &status) == 0;
}

bool holds(const std::string& file, const RefCertificate& certificate) {
  try {
    std::list<RefCertificate> certificates;
    CertificateFactory::read(File::Path(file), certificates);
    return std::find(certificates.begin(), certificates.end(), certificate) != certificates.end();
  } catch (const Exception&) {
    return false;
  }
}

std::optional<TrustDirectoryFault> faultOfDirectory(const std::string& directory) {
  std::error_code failure;
  fs::directory_iterator position(directory, failure);
  if (failure) return TrustDirectoryFault{Rule::kTrustDirectoryMissing, {}, failure.message()};
  for (const fs::directory_iterator end; position != end; position.increment(failure)) {
    if (failure) return TrustDirectoryFault{Rule::kTrustDirectoryMissing, {}, failure.message()};
    if (isHashName(position->path().filename().native())) return std::nullopt;
  }
  return TrustDirectoryFault{Rule::kTrustDirectoryEmpty, {}, {}};
}

// OpenSSL passes over one that it cannot read, and over all with a higher number.
std::optional<TrustDirectoryFault> faultOfFiles(const std::string& directory,
                                                const DistinguishedName& issuer) {
  const std::uint32_t hash = issuer.hash();
  for (int number = 0; number < kMaximumFiles; ++number) {
    const std::string file = hashName(directory, hash, number);
    std::error_code failure;
    if (!fs::exists(fs::symlink_status(file, failure))) return std::nullopt;
    try {
      std::list<RefCertificate> certificates;
      CertificateFactory::read(File::Path(file), certificates);
      if (!certificates.empty()) continue;
      return TrustDirectoryFault{Rule::kTrustFileUnreadable, file, "it holds no certificate"};
    } catch (const Exception& unreadable) {
      return TrustDirectoryFault{Rule::kTrustFileUnreadable, file, unreadable.stringParameter()};
    }
  }
  return std::nullopt;
}

}  // namespace

std::string fileInDirectories(const std::string& directories, const RefCertificate& certificate) {
  const std::uint32_t hash = certificate->subject().hash();
  for (const std::string& directory : split(directories)) {
    std::string first = hashName(directory, hash, 0);
    if (!exists(first)) continue;
    // Mostly there is one of a name, and it need not be read again.
    if (!exists(hashName(directory, hash, 1))) return first;
    for (int number = 0; number < kMaximumFiles; ++number) {
      std::string file = hashName(directory, hash, number);
      if (!exists(file)) break;
      if (holds(file, certificate)) return file;
    }
  }
  return {};
}

std::optional<TrustDirectoryFault> faultOfTrustDirectory(const std::string& directories,
                                                         const DistinguishedName& issuer) {
  std::optional<TrustDirectoryFault> first;
  bool isOneSound = false;
  for (const std::string& directory : split(directories)) {
    std::optional<TrustDirectoryFault> fault = faultOfDirectory(directory);
    if (!fault) {
      isOneSound = true;
      // It has the issuer's hash: wherever it lies, it may be the one that is missing.
      if (std::optional<TrustDirectoryFault> file = faultOfFiles(directory, issuer)) return file;
    }
    if (!first) first = std::move(fault);
  }
  return isOneSound ? std::nullopt : first;
}

}  // namespace Velantrix::Crypto::PKX509
