// Whether who signs CRLs and OCSP answers may be believed: RFC 5280, 6.3.3 (f), which asks for the path
// of a CRL's issuer, its own revocation included.
//
// Signers can depend on each other: a list may cover the certificate of its own issuer. While it is
// being decided whether a certificate is revoked, nothing counts at first that is valid only if it is
// not. Only where that leaves it undetermined, it is taken for unrevoked by hypothesis. So what rests
// on the hypothesis never outvotes what does not: a revoked key does not vouch for itself with a newer
// list.
#pragma once

#include "report/RevocationOutcome.h"
#include "revocation/Path.h"
#include "revocation/SignerPaths.h"

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509::Revocation {

// Certificates, borrowed, that are taken for unrevoked while it is being decided whether they are.
using Hypotheses = std::set<const X509*>;

// By what the revocation of a certificate is to be decided. The delegate that signs OCSP answers would
// be asked about itself, so CRLs alone decide about it (RFC 6960, 4.2.2.2.1).
enum class By { kAll, kCRLsOnly };

// What was found out about a certificate, and what it rests on.
struct Ruling {
  Outcome outcome = {};
  Hypotheses restsOn = {};
};

// Why a signer does not count, or what it rests on that it does.
struct Standing {
  std::optional<Reason> refused = {};
  Hypotheses restsOn = {};
  std::shared_ptr<const AboutSigner> about = {};  // where it is refused
};

// All that there is to say of a signer is who it is.
inline std::shared_ptr<const AboutSigner> aboutAlone(const RefCertificate& signer) {
  return std::make_shared<const AboutSigner>(AboutSigner{.certificate = signer});
}

class Standings : private NonCopyable {
 public:
  // How a certificate is decided, with its path; called with the certificate as the innermost one that
  // is being decided.
  using Decide = std::function<Ruling(const RefCertificate&, const Path&, By)>;

  // `paths` is borrowed. Without `wholePath`, only the first certificate of a path is looked at, and of
  // the path that is being verified none but the one in question.
  Standings(SignerPaths& paths, bool wholePath, Decide decide)
      : paths_(paths), wholePath_(wholePath), decide_(std::move(decide)) {}

  void verifying(const Path& path) { main_ = path; }
  const Path& verified() const noexcept { return main_; }

  // Decides the certificate, once for all who ask; anew where it depends on who asks.
  Ruling decide(const RefCertificate& certificate, const Path& path, By by);
  // To be asked in the end of a decision that has left its certificate undetermined: whether it is worth
  // to be tried again with the certificate taken for unrevoked, which it is from then on.
  bool assumeUnrevoked();

  // The path of a signer of what speaks about the certificate whose path is given; empty when it has none.
  // That a new path is looked for is bounded by a VerificationRun of the caller's.
  Path pathOf(const RefCertificate& signer, const Path& subjectPath);
  // The standing of a signer that has none, once it has been looked for.
  Standing withoutPath(const RefCertificate& signer) const;
  // Whether nothing has to be found out about the signer any more.
  bool isSettled(const RefCertificate& signer, const Path& subjectPath) const;
  // Of the signer that the path begins with: nobody on it but the trust anchor is revoked.
  Standing of(const Path& path, By by);

 private:
  // A certificate that is being decided. Those that follow it are decided for its sake.
  struct Frame {
    const RefCertificate& certificate;
    bool assumed = false;  // it may be taken for unrevoked by what is decided for its sake
    bool wanted = false;   // something would count if it were
    bool bound = false;    // what is found out may hold only inside of the frames that are there
  };
  struct Decided {
    RefCertificate certificate;
    By by;
    std::shared_ptr<const Outcome> outcome;
  };
  // A Ruling whose outcome all who ask share.
  struct Shared {
    std::shared_ptr<const Outcome> outcome;
    Hypotheses restsOn = {};
  };
  struct SignerPath {
    RefCertificate certificate;
    Path path;
    std::optional<Objection> objection;  // where there is none
  };

  std::shared_ptr<const Outcome> decidedOf(const RefCertificate& certificate, By by) const;
  Shared decideOnce(const RefCertificate& certificate, const Path& path, By by);
  Standing ofOne(const RefCertificate& signer, const RefCertificate& certificate, const Path& path,
                 By by);
  std::optional<Standing> ofFrame(const RefCertificate& certificate);

  SignerPaths& paths_;
  const bool wholePath_;
  const Decide decide_;
  Path main_;
  std::vector<Frame*> frames_;
  std::list<Decided> decided_;
  std::list<SignerPath> signerPaths_;
};

}  // namespace Velantrix::Crypto::PKX509::Revocation
