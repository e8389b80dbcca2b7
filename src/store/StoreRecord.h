// What an X509_STORE knows of the lookup methods that an ObjectStore attached to it.
//
// OpenSSL offers no way from an X509_LOOKUP to its table, so the table's functions find their
// object here: the record hangs on the X509_STORE in an ex-data slot and goes with it. It keeps the
// methods alive for as long as OpenSSL may call them, also when somebody else holds on to the
// X509_STORE. It also knows what tells trusted sources from others.
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"

#include <pkx509/LookupMethod.h>
#include <pkx509/Object.h>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <openssl/x509_vfy.h>

#include <list>
#include <set>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class StoreRecord {
 public:
  struct Item {
    const X509_LOOKUP* lookup;  // borrowed: the X509_STORE owns it
    boost::shared_ptr<LookupMethod> method;
    RefObject last;  // the last answer, which OpenSSL may still be about to take a reference on
  };

  // Hangs an empty record on the store. False when OpenSSL could not.
  static bool attach(X509_STORE* store);
  // The store's record, borrowed; null when it has none.
  static StoreRecord* of(const X509_STORE* store);

  // The item of one lookup, null when no method was attached under it.
  Item* find(const X509_LOOKUP* lookup);
  void add(const X509_LOOKUP* lookup, const boost::shared_ptr<LookupMethod>& method);
  const std::list<Item>& items() const noexcept { return items_; }

  // A hash directory that was attached to the store.
  void addDirectory(const std::string& directory, int fileType);
  // Another store, over the directories alone, so that it has what they have and nothing else. Hardly
  // a store is ever asked for it, so it is made then. Borrowed, null when there are none.
  X509_STORE* directories();

  // Certificates that a source which is not trusted has handed to OpenSSL, until a trusted one does.
  void distrust(X509* certificate);
  void trust(X509* certificate);
  bool distrusts(X509* certificate) const;
  bool distrusts(const X509_NAME* subject) const;

 private:
  struct BySubject {
    using is_transparent = void;
    bool operator()(const Owned<X509>& left, const Owned<X509>& right) const;
    bool operator()(const Owned<X509>& left, const X509_NAME* right) const;
    bool operator()(const X509_NAME* left, const Owned<X509>& right) const;
  };
  using Certificates = std::multiset<Owned<X509>, BySubject>;

  Certificates::const_iterator findDistrusted(X509* certificate) const;

  struct Directory {
    std::string name;
    int fileType;
  };

  std::list<Item> items_;  // a handful; nodes stay put while a nested query adds one
  std::vector<Directory> attached_;
  Owned<X509_STORE> directories_;
  Certificates distrusted_;
};

}  // namespace Velantrix::Crypto::PKX509
