#include "foundation/net/ldap/LDAPSearch.h"

#include "foundation/base/Fail.h"

#include <vector>

namespace Velantrix {

namespace {

// libldap reads a filter by recursion, a level for each parenthesis.
constexpr std::size_t kMaximumFilter = 4096;
// More than a directory takes for a name; certificates may hold names of a megabyte.
constexpr std::size_t kMaximumBase = std::size_t{64} * 1024;

constexpr Origin kHere{"LDAPSearch", "LDAPSearch"};

// For libldap, which would take the text up to a NUL for the whole.
const char* whole(const std::string& text) {
  if (text.find('\0') != std::string::npos) fail(kHere, "A text contains a NUL byte.");
  return text.c_str();
}

}  // namespace

LDAPSearch::Parameter::Parameter(const std::string& base) : base_(base) {}

std::string LDAPSearch::Parameter::filter() const {
  if (!filter_.empty()) return filter_;
  if (attributes_.empty()) return "(objectClass=*)";
  // RFC 4512, 2.5: what stands behind a semicolon is an option and no part of the type. RFC 4511,
  // 4.5.1.7.5: an entry has the attribute when it has it with any options.
  std::string text = "(|";
  for (const LDAPAttributeType& type : attributes_) {
    text += "(" + type.name().substr(0, type.name().find(';')) + "=*)";
  }
  return text + ")";
}

LDAPSearch::LDAPSearch(LDAPConnection& connection, const Parameter& parameter)
    : LDAPRequest(connection.session(), LDAP_RES_SEARCH_RESULT, "LDAPSearch"),
      parameter_(parameter) {}

LDAPSearch::~LDAPSearch() = default;

int LDAPSearch::transmit(LDAP* ldap, int& id) {
  if (parameter_.base().size() > kMaximumBase) Velantrix::fail(kHere, "The base is too long.");
  const std::string filter = parameter_.filter();
  if (parameter_.hasOwnFilter() && filter.size() > kMaximumFilter) {
    Velantrix::fail(kHere, "The filter is too long.");
  }
  std::vector<char*> names;
  for (const LDAPAttributeType& type : parameter_.attributes()) {
    names.push_back(const_cast<char*>(whole(type.name())));  // libldap only reads them
  }
  names.push_back(nullptr);
  return ldap_search_ext(ldap, whole(parameter_.base()), parameter_.scope(), whole(filter),
                         names.data(), 0, nullptr, nullptr, nullptr,
                         static_cast<int>(kMaximumEntries), &id);
}

void LDAPSearch::judge(int code, const std::string& text) {
  switch (code) {
    case LDAP_SUCCESS:
    case LDAP_NO_SUCH_OBJECT:
      return;
    case LDAP_SIZELIMIT_EXCEEDED:
    case LDAP_TIMELIMIT_EXCEEDED:
    case LDAP_ADMINLIMIT_EXCEEDED:
      noteCutShort("The answer is cut short: " + text);
      return;
    case LDAP_REFERRAL:
      note("A referral is not followed: " + parameter_.base());
      return;
    case LDAP_INVALID_DN_SYNTAX:
      note("The server cannot read the base: " + parameter_.base() + ": " + text);
      return;
    default:
      fail(text);
  }
}

}  // namespace Velantrix
