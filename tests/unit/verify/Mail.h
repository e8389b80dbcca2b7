// A message that is verified again and again, as `Verifier` or `ConformingVerifier`.
//
//   const Mail mail;
//   mail.verify<Verifier>();
#pragma once

#include "support/Files.h"
#include "support/Handles.h"
#include "support/Pki.h"

#include <pkx509/ConformingVerifier.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/Verifier.h>

#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace Velantrix::Test {

/// A directory of a trust anchor and CRLs, and what a message brings.
class Mail {
 public:
  Mail()
      : root_(issue({.subject = "CN=Root,O=Calls", .ca = true})),
        intermediate_(issue({.subject = "CN=Intermediate,O=Calls", .issuer = &root_, .ca = true})),
        leaf_(handle(issue({.subject = "CN=Leaf,O=Calls", .issuer = &intermediate_}))),
        intermediates_{handle(intermediate_)},
        untrusted_(intermediates_) {
    addToDirectory(directory_.path(), root_.get());
    addToDirectory(directory_.path(), makeCRL({.issuer = &root_}).get());
    addToDirectory(directory_.path(), makeCRL({.issuer = &intermediate_}).get());
  }

  /// With a store of its own, as for each message.
  /// @throws std::runtime_error when it is not valid
  template <class V>
  void verify() const {
    const std::string directory = directory_.string();
    Crypto::PKX509::RefObjectStore store(directory, X509_FILETYPE_PEM);
    store->add(Crypto::PKX509::RefLookupMethod(new Crypto::PKX509::HashDirLookupMethod(directory)));
    store->add(intermediates_);
    const auto verifier = make<V>(store);
    if (verifier->isValid() != X509_V_OK) throw std::runtime_error("not valid");
  }

 private:
  template <class V>
  std::unique_ptr<Crypto::PKX509::Verifier> make(
      const Crypto::PKX509::RefObjectStore& store) const {
    if constexpr (std::is_same_v<V, Crypto::PKX509::Verifier>) {
      return std::make_unique<Crypto::PKX509::Verifier>(store, leaf_, untrusted_, false);
    } else {
      return std::make_unique<V>(store, leaf_, untrusted_);
    }
  }

  const TempDir directory_;
  const Issued root_;
  const Issued intermediate_;
  const Crypto::PKX509::RefCertificate leaf_;
  const std::list<Crypto::PKX509::RefCertificate> intermediates_;
  const Crypto::PKX509::RefStackOfCertificate untrusted_;
};

}  // namespace Velantrix::Test
