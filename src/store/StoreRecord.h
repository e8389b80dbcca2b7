// What an X509_STORE knows of the lookup methods that an ObjectStore attached to it.
//
// OpenSSL offers no way from an X509_LOOKUP to its table, so the table's functions find their
// object here: the record hangs on the X509_STORE in an ex-data slot and goes with it. It keeps the
// methods alive for as long as OpenSSL may call them, also when somebody else holds on to the
// X509_STORE.
#pragma once

#include <pkx509/LookupMethod.h>
#include <pkx509/Object.h>

#include <boost/smart_ptr/shared_ptr.hpp>
#include <openssl/x509_vfy.h>

#include <list>

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

 private:
  std::list<Item> items_;  // a handful; nodes stay put while a nested query adds one
};

}  // namespace Velantrix::Crypto::PKX509
