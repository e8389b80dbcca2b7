#include "Input.h"

#include "Content.h"
#include "HashNames.h"
#include "Status.h"

#include <velantrix/Buffer.h>
#include <velantrix/Exception.h>

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <memory>
#include <sstream>
#include <system_error>
#include <unistd.h>

namespace Velantrix::Tool {

using Crypto::PKX509::CertificateFactory;
using Crypto::PKX509::RefCertificate;

namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

[[noreturn]] void refuse(const std::string& option, const std::string& directory, int error) {
  throw ToolError(option + ": " + directory + ": " + std::generic_category().message(error));
}

Buffer borrowed(const std::string& content) {
  return Buffer(content.data(), static_cast<unsigned int>(content.size()), false);
}

}  // namespace

std::string reasonOf(const std::exception& error) {
  const auto* const own = dynamic_cast<const Exception*>(&error);
  // The parameter says what is wrong with what; context and place are for developers.
  return own != nullptr && !own->stringParameter().empty() ? own->stringParameter() : error.what();
}

std::string describe(const std::string& subject, const std::exception& error) {
  const std::string text = reasonOf(error);
  return text.starts_with(subject + ":") ? text : subject + ": " + text;
}

std::list<RefCertificate> readCertificates(const std::string& file) {
  const std::string content = contentOf(file);
  std::list<RefCertificate> certificates;
  try {
    CertificateFactory::read(borrowed(content), certificates);
  } catch (const std::exception& error) {
    throw ToolError(describe(nameOf(file), error));
  }
  if (certificates.empty()) throw ToolError(nameOf(file) + ": there is no certificate in it");
  return certificates;
}

std::list<RefCertificate> readCertificates(const std::vector<std::string>& files) {
  requireOneStandardInput(files);
  std::list<RefCertificate> all;
  for (const std::string& file : files) all.splice(all.end(), readCertificates(file));
  return all;
}

std::list<CertificateFactory::Item> readObjects(const std::string& file) {
  const std::string content = contentOf(file);
  std::list<CertificateFactory::Item> items;
  try {
    items = CertificateFactory::readAll(borrowed(content));
  } catch (const std::exception& error) {
    throw ToolError(describe(nameOf(file), error));
  }
  if (items.empty()) {
    throw ToolError(nameOf(file) + ": there is no certificate and no CRL in it");
  }
  return items;
}

std::vector<std::string> readLines(const std::string& file) {
  constexpr char kBlanks[] = " \t\r\v\f";
  std::istringstream content(contentOf(file));
  std::vector<std::string> lines;
  for (std::string line; std::getline(content, line);) {
    const std::size_t first = line.find_first_not_of(kBlanks);
    const std::size_t last = line.find_last_not_of(kBlanks);
    lines.push_back(first == std::string::npos ? "" : line.substr(first, last - first + 1));
  }
  return lines;
}

void requireHashDirectory(const std::string& option, const std::string& directory) {
  const std::unique_ptr<DIR, CloseDirectory> entries(::opendir(directory.c_str()));
  if (entries == nullptr) refuse(option, directory, errno);
  // Listing it is not enough: what it lists has to be opened.
  if (::access(directory.c_str(), R_OK | X_OK) != 0) refuse(option, directory, errno);
  for (;;) {
    errno = 0;
    // NOLINTNEXTLINE(concurrency-mt-unsafe): the tool has one thread.
    const dirent* const entry = ::readdir(entries.get());
    if (entry == nullptr) {
      if (errno != 0) refuse(option, directory, errno);
      break;
    }
    if (isHashName(entry->d_name)) return;
  }
  throw ToolError(option + ": " + directory +
                  ": no file in it is named by a hash; \"openssl rehash\" makes such names");
}

LDAPConnection::RefServer ldapServer(const std::string& uri) {
  try {
    return LDAPConnection::RefServer(uri);
  } catch (const Exception& error) {
    throw ToolError(describe("--ldap", error));
  }
}

void requireOneStandardInput(const std::vector<std::string>& files) {
  if (std::count(files.begin(), files.end(), kStandardInput) > 1) {
    throw ToolError("standard input (\"-\") can be read only once");
  }
}

}  // namespace Velantrix::Tool
