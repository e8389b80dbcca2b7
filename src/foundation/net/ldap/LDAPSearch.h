// A search request (RFC 4511, 4.5).
//
//   LDAPSearch::Parameter parameter("O=Example,C=DE");
//   parameter.add(LDAPAttributeType("userCertificate;binary"));
//   LDAPSearch search(connection, parameter);
//   search.send();
//   search.wait(30s);
#pragma once

#include "foundation/net/ldap/LDAPRequest.h"
#include "foundation/net/ldap/LDAPResult.h"

#include <velantrix/LDAPConnection.h>

#include <ldap.h>
#include <list>
#include <string>

namespace Velantrix {

class LDAPSearch : public LDAPRequest {
 public:
  class Parameter {
   public:
    /// What is under @p base: the scope is the whole subtree, and the filter asks for entries with
    /// one of the attributes, so that others neither cost anything nor use up the limits of the
    /// answer. Without attribute types every entry is meant, and the server sends all attributes.
    explicit Parameter(const std::string& base);

    /// Takes the place of that filter, unless it is empty.
    void filter(const std::string& text) { filter_ = text; }
    /// @param scope 0 the base alone, 1 what is right under it, 2 the whole subtree
    void scope(int scope) { scope_ = scope; }
    void add(const LDAPAttributeType& type) { attributes_.push_back(type); }

    const std::string& base() const noexcept { return base_; }
    std::string filter() const;
    bool hasOwnFilter() const noexcept { return !filter_.empty(); }
    int scope() const noexcept { return scope_; }
    const std::list<LDAPAttributeType>& attributes() const noexcept { return attributes_; }

   private:
    std::string base_;
    std::string filter_;
    int scope_ = LDAP_SCOPE_SUBTREE;
    std::list<LDAPAttributeType> attributes_;
  };

  /// @param connection borrowed; it is opened when it is not open yet
  LDAPSearch(LDAPConnection& connection, const Parameter& parameter);
  ~LDAPSearch() override;

 private:
  int transmit(LDAP* ldap, int& id) override;
  /// A base that does not exist has nothing under it, and one that the server cannot read (a name
  /// out of a certificate may have types that its schema lacks) cannot exist. An answer that the
  /// server has cut short counts as far as it goes, and a referral is not followed. All but the
  /// first are logged; what else is not success throws.
  void judge(int code, const std::string& text) override;

  Parameter parameter_;
};

}  // namespace Velantrix
