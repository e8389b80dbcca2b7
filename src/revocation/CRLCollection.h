// The CRLs that may be about one certificate, from wherever they come: what RFC 5280, 6.3.3, calls the
// local CRL cache and how it is updated (a), and which of them are within its scope, (b) and (d).
#pragma once

#include "revocation/CRLCandidate.h"
#include "revocation/CRLScope.h"
#include "revocation/RevocationSources.h"

#include <list>
#include <set>
#include <string>

namespace Velantrix::Crypto::PKX509::Revocation {

class CRLCollection : private NonCopyable {
 public:
  // The sources are borrowed. Throws Exception when an extension of the certificate that decides is
  // broken.
  CRLCollection(const RefCertificate& certificate, RevocationSources& sources, const Time& time,
                bool useDeltas);

  // What the certificate names: its distribution points, and where its delta CRLs are. Once.
  void gatherFromPoints();
  // What the hosts have, where a cache had something for their URIs that does not count: of them nobody
  // has been asked. False when there was nothing to ask for. Once.
  bool gatherBehindCaches();
  // 6.3.3, its last paragraph: those of the certificate's issuer, whatever it names. Once.
  void gatherByIssuer();
  // 5.2.6: where complete CRLs say that their delta CRLs are. That is believed of authentic ones only.
  void gatherAnnouncedDeltas();

  std::list<CRLCandidate>& candidates() noexcept { return candidates_; }
  bool wasCut() const noexcept { return cut_; }

 private:
  bool ask(const Place& place, bool throughPoint);
  void take(const Offers<RefCertificateRevocationList>& offers, const Place& place,
            bool throughPoint);
  void judge(CRLCandidate& candidate) const;

  RefCertificate certificate_;
  RevocationSources& sources_;
  const Time time_;
  const bool useDeltas_;
  CRLScope scope_;
  std::list<CRLCandidate> candidates_;
  std::set<std::string> asked_;
  bool fromPoints_ = false;
  bool behindCaches_ = false;
  bool byIssuer_ = false;
  bool cut_ = false;
};

}  // namespace Velantrix::Crypto::PKX509::Revocation
