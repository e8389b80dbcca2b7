// Where certificates, CRLs and OCSP answers come from.
//
// An object that cannot be read is passed over, so that it does not hide those beside it; the answer
// is then cut. Nothing that comes from here is believed.
#pragma once

#include "revocation/Offered.h"
#include "revocation/Path.h"

#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/Uri.h>

#include <memory>
#include <string>

namespace Velantrix::Crypto::PKX509::Revocation {

class RevocationSources : private NonCopyable {
 public:
  virtual ~RevocationSources() = default;

  // Those with the subject. What came along with a message comes last: anybody can send namesakes.
  virtual Offers<RefCertificate> certificates(const DistinguishedName& subject) = 0;
  // Those of the issuer, or that stand in a directory under the name.
  virtual Offers<RefCertificateRevocationList> crls(const DistinguishedName& name) = 0;
  virtual Offers<RefCertificateRevocationList> crls(const Uri& uri) = 0;
  // A CRL that the URI gave turned out to be signed by nobody of its issuer's name. Whoever could
  // answer for the URI once must not keep everybody from the right one until the day that the
  // forgery names, so it is forgotten. This verification goes on with what it has.
  virtual void isForged(const Uri& /*uri*/, const RefCertificateRevocationList& /*crl*/) {}

  // A CRL that the URI gave is signed by the key of the certificate that the path begins with, which is
  // valid and not revoked. The path ends with its trust anchor.
  virtual void isGenuine(const Uri& /*uri*/, const RefCertificateRevocationList& /*crl*/,
                         const Path& /*path*/) {}
  // What the host of the URI has, where what lies in a cache for it is of no use.
  virtual Offers<RefCertificateRevocationList> crlsOfHost(const Uri& /*uri*/) { return {}; }

  // Held while the responders of one certificate are asked: whoever keeps one waiting must not cost
  // the CRLs that would be asked after it.
  virtual std::shared_ptr<void> shareForResponders() { return nullptr; }
  // Whether requests are to have a nonce. The answer to one without it is for everybody who asks the
  // same, and as old as it says (RFC 5019, 4).
  virtual bool wantsNonce() const { return true; }
  // The bodies of what the responder answers to the DER of an OCSPRequest: one, or none when it gives
  // no answer.
  virtual Offers<std::string> ocsp(const Uri& responder, const std::string& request) = 0;
  // It counts, and says when the next one is due: until then it may be offered again, as from a cache.
  // Whoever gets it judges it anew.
  virtual void isOfUse(const Uri& /*responder*/, const std::string& /*request*/,
                       const Offered<std::string>& /*answer*/, const Time& /*nextUpdate*/) {}
  // What was offered again does not count: it is forgotten, and the responder asked.
  virtual void isOfNoUse(const Uri& /*responder*/, const std::string& /*request*/) {}
};

}  // namespace Velantrix::Crypto::PKX509::Revocation
