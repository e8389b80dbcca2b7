// The OCSP responders that a certificate names (RFC 5280, 4.2.2.1), asked one after the other, and no
// further than somebody wants to know.
#pragma once

#include "revocation/OCSPReading.h"
#include "revocation/Path.h"
#include "revocation/RevocationSources.h"

#include <velantrix/AuthorityInformationAccess.h>

#include <cstddef>
#include <deque>
#include <memory>
#include <optional>

namespace Velantrix::Crypto::PKX509::Revocation {

class Responders : private NonCopyable {
 public:
  // About the certificate that the path begins with. Everything is borrowed. Throws Exception when the
  // extension that names them is broken.
  Responders(const Path& path, RevocationSources& sources, const RevocationSettings& settings,
             const Moment& moment);

  // What the answer with that index says; the responders are asked for it where there are not as many
  // yet. Null when there are no more.
  const OCSPReading* answer(std::size_t index);

  // What follows is not for the responders: their share of what all of the verification may spend ends.
  void done() noexcept { share_.reset(); }

  bool wasCut() const noexcept { return cut_; }

 private:
  bool askNext();

  const Path& path_;
  RevocationSources& sources_;
  const RevocationSettings& settings_;
  const Moment moment_;
  RefAuthorityInformationAccess access_;
  std::size_t next_ = 0;
  std::optional<OCSPQuestion> question_;
  std::deque<OCSPReading> answers_;
  std::shared_ptr<void> share_;
  bool cut_ = false;
};

}  // namespace Velantrix::Crypto::PKX509::Revocation
