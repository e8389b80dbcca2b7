#include "conformance/PkitsDirectory.h"

#include "conformance/PkitsSuite.h"
#include "support/Files.h"

#include <map>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace Velantrix::Test {

using namespace Velantrix::Crypto::PKX509;

namespace {

// Types are spelt as the library reads them: those of RFC 4514 in any case of letters, others as
// OpenSSL does, and a type in numbers only before a hexadecimal value.
std::string readable(std::string text) {
  for (const auto& [there, here] : {std::pair{"2.5.4.65=", "pseudonym="}, {"sn=", "SN="}}) {
    const std::size_t found = text.find(there);
    if (found != std::string::npos) text.replace(found, std::string_view(there).size(), here);
  }
  return text;
}

// The values of the attributes for CRLs of all kinds are references to files:
//   dn: CN=Good CA,O=Test Certificates 2011,C=US
//   certificateRevocationList;binary:< file:///tmp/crls/GoodCACRL.crl
std::multimap<std::string, std::string> readLdif() {
  constexpr std::string_view kName = "dn: ";
  constexpr std::string_view kValue = "RevocationList;binary:< file:///tmp/crls/";
  constexpr std::string_view kExtension = ".crl";
  std::multimap<std::string, std::string> entries;
  std::istringstream lines(readFile(pkitsData() / "pkits.ldif"));
  std::string name;
  for (std::string line; std::getline(lines, line);) {
    if (line.ends_with('\r')) line.pop_back();
    if (line.starts_with(kName)) name = readable(line.substr(kName.size()));
    const std::size_t value = line.find(kValue);
    if (value == std::string::npos || !line.ends_with(kExtension)) continue;
    const std::size_t start = value + kValue.size();
    entries.emplace(line.substr(start, line.size() - start - kExtension.size()), name);
  }
  return entries;
}

// The name and those above it. No name of the suite has a comma inside a value.
std::vector<DistinguishedName> withSuperiors(const std::string& text) {
  std::vector<DistinguishedName> names;
  for (std::size_t start = 0; start < text.size();) {
    names.emplace_back(text.substr(start));
    if (names.back().empty()) throw std::runtime_error("pkits.ldif: not a name: " + text);
    const std::size_t comma = text.find(',', start);
    start = comma == std::string::npos ? text.size() : comma + 1;
  }
  return names;
}

}  // namespace

std::vector<std::string> pkitsEntriesOf(const std::string& crl) {
  static const std::multimap<std::string, std::string> entries = readLdif();
  std::vector<std::string> names;
  const auto [first, last] = entries.equal_range(crl);
  for (auto entry = first; entry != last; ++entry) names.push_back(entry->second);
  return names;
}

PkitsDirectory::PkitsDirectory(const std::vector<std::string>& crls)
    : LookupMethod("PkitsDirectory") {
  for (const std::string& file : crls) {
    const RefCertificateRevocationList crl = pkitsCRL(file);
    for (const std::string& entry : pkitsEntriesOf(file)) {
      entries_.push_back({withSuperiors(entry), crl});
    }
  }
}

void PkitsDirectory::answerIssuers() {
  for (Entry& entry : entries_) entry.names.push_back(entry.crl->crlInfo().issuer());
}

RefObject PkitsDirectory::getBySubject(Object::Type type, const DistinguishedName& wanted) {
  if (type == Object::TypeCertificate) {
    std::list<RefCertificate> found;
    getBySubject(wanted, found);
    return found.empty() ? RefObject() : RefObject(found.front());
  }
  if (type != Object::TypeCRL) return RefObject();
  std::list<RefCertificateRevocationList> found;
  getBySubject(wanted, found);
  // OpenSSL looks for CRLs in its own store only, after it has asked the lookups.
  for (const RefCertificateRevocationList& crl : found) {
    if (store_ != nullptr && X509_STORE_add_crl(store_, crl) != 1) {
      throw std::runtime_error("X509_STORE_add_crl failed");
    }
  }
  return found.empty() ? RefObject() : RefObject(found.front());
}

void PkitsDirectory::getBySubject(const DistinguishedName& subject,
                                  std::list<RefCertificate>& out) {
  for (const RefCertificate& certificate : certificates_) {
    if (certificate->subject() == subject) out.push_back(certificate);
  }
}

void PkitsDirectory::getBySubject(const DistinguishedName& wanted,
                                  std::list<RefCertificateRevocationList>& out) {
  for (const Entry& entry : entries_) {
    bool below = anyName_;
    for (const DistinguishedName& own : entry.names) below = below || own == wanted;
    if (below) out.push_back(entry.crl);
  }
}

}  // namespace Velantrix::Test
