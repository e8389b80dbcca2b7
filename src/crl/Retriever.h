// Who fetches CRLs for the verifications of this thread. Without one `URILookup` fetches and caches as it
// always did.
//
//   const Retriever::Installed here(retriever);
//   ...
//   if (Retriever* const retriever = Retriever::current()) retriever->crls(uri);
#pragma once

#include "crl/RetrievedCRLs.h"

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/Time.h>
#include <velantrix/Uri.h>

#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class Retriever : private NonCopyable {
 public:
  virtual ~Retriever() = default;

  // What cache and host have. The host is asked where nothing that the cache has is fresh.
  virtual RetrievedCRLs crls(const Uri& uri) = 0;
  // What the host has, although the cache had something: that was of no use.
  virtual RetrievedCRLs crlsOfHost(const Uri& uri) = 0;
  // The CRL that the URI gave is signed by the key of the first certificate of the path, and that is
  // verified. What follows are those that lead from it to its trust anchor, as far as they are known.
  virtual void verified(const Uri& uri, const RefCertificateRevocationList& crl,
                        const std::vector<RefCertificate>& path) noexcept = 0;
  struct OCSPAnswer {
    std::string body = {};  // whatever it is
    Time fetched = {};
    bool kept = false;  // it is an earlier one, which was found to be of use
  };

  // Whether OCSP requests are to have a nonce. Answers to those with one are not kept.
  virtual bool wantsNonce() const noexcept { return true; }
  // The answer of an OCSP responder; nothing where it gives none.
  virtual std::optional<OCSPAnswer> ocsp(const Uri& responder, const std::string& request) = 0;
  // It is signed by who may, and says when the next one is due. Whoever gets it judges it anew.
  virtual void isOfUse(const Uri& /*responder*/, const std::string& /*request*/,
                       const OCSPAnswer& /*answer*/, const Time& /*nextUpdate*/) noexcept {}
  // What was kept does not count.
  virtual void isOfNoUse(const Uri& /*responder*/, const std::string& /*request*/) noexcept {}

  // Makes one that of this thread until it is destroyed; borrowed.
  class Installed : private NonCopyable {
   public:
    explicit Installed(Retriever& retriever) noexcept;
    ~Installed();

   private:
    Retriever* outer_;
  };

  static Retriever* current() noexcept;
};

}  // namespace Velantrix::Crypto::PKX509
