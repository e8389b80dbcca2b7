// What a directory answers: entries, their attributes, and the values of those.
//
//   for (const LDAPSearchResultEntry& entry : result.searchResultEntries()) {
//     if (entry.attributes().empty()) continue;
//     for (const LDAPAttribute& attribute : entry.attributes().attributes()) {
//       use(attribute.binaryValue());
//     }
//   }
//
// All of them are plain values; the values of attributes are shared between copies.
#pragma once

#include <velantrix/Buffer.h>

#include <cstddef>
#include <ldap.h>
#include <list>
#include <string>

namespace Velantrix {

/// An attribute's description (RFC 4512, 2.5): its type and options, "userCertificate;binary".
class LDAPAttributeType {
 public:
  explicit LDAPAttributeType(const std::string& name) : name_(name) {}

  const std::string& name() const noexcept { return name_; }

 private:
  std::string name_;
};

class LDAPAttribute {
 public:
  explicit LDAPAttribute(const LDAPAttributeType& type) : type_(type) {}

  const LDAPAttributeType& type() const noexcept { return type_; }
  /// The values in the server's order.
  const std::list<Buffer>& binaryValue() const noexcept { return values_; }
  void add(const Buffer& value) { values_.push_back(value); }

 private:
  LDAPAttributeType type_;
  std::list<Buffer> values_;
};

class LDAPAttributeContainer {
 public:
  bool empty() const noexcept { return attributes_.empty(); }
  /// In the server's order.
  const std::list<LDAPAttribute>& attributes() const noexcept { return attributes_; }
  LDAPAttribute& add(const LDAPAttributeType& type) { return attributes_.emplace_back(type); }

 private:
  std::list<LDAPAttribute> attributes_;
};

class LDAPSearchResultEntry {
 public:
  /// Decodes a message that is a search result entry.
  ///
  /// @param budget what may still be kept of the answer; lowered by what the entry costs, which is
  ///               more than its octets, because an attribute or a value of no octets costs too
  /// @throws Exception when the entry is malformed
  LDAPSearchResultEntry(LDAP* ldap, LDAPMessage* message, std::size_t& budget);

  /// False when the budget did not suffice: attributes are missing then.
  bool complete() const noexcept { return complete_; }
  /// The entry's distinguished name, as the server writes it (RFC 4514).
  const std::string& name() const noexcept { return name_; }
  const LDAPAttributeContainer& attributes() const noexcept { return attributes_; }

 private:
  std::string name_;
  LDAPAttributeContainer attributes_;
  bool complete_;
};

class LDAPResult {
 public:
  /// In the server's order.
  const std::list<LDAPSearchResultEntry>& searchResultEntries() const noexcept { return entries_; }
  void add(const LDAPSearchResultEntry& entry) { entries_.push_back(entry); }

  /// False when a limit, the server's or ours, has cut the answer short.
  bool complete() const noexcept { return complete_; }
  void cutShort() noexcept { complete_ = false; }

 private:
  std::list<LDAPSearchResultEntry> entries_;
  bool complete_ = true;
};

}  // namespace Velantrix
