#include "report/TrustDirectory.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>
#include <velantrix/File.h>

#include <openssl/x509.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <list>
#include <string_view>
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

std::string hashName(const DistinguishedName& issuer, int number) {
  char name[32] = {};
  static_cast<void>(std::snprintf(name, sizeof name, "%08lx.%d",
                                  static_cast<unsigned long>(issuer.hash()), number));
  return name;
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
  for (int number = 0; number < kMaximumFiles; ++number) {
    const std::string file = (fs::path(directory) / hashName(issuer, number)).native();
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
  for (const std::string& directory : split(directories)) {
    const fs::path place(directory);
    const auto file = [&](int number) {
      return (place / hashName(certificate->subject(), number)).native();
    };
    const auto exists = [&](int number) {
      std::error_code none;
      return fs::exists(file(number), none);
    };
    if (!exists(0)) continue;
    // Mostly there is one of a name, and it need not be read again.
    if (!exists(1)) return file(0);
    for (int number = 0; number < kMaximumFiles && exists(number); ++number) {
      if (holds(file(number), certificate)) return file(number);
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
