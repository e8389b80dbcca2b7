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
  // Whether the answer counts, once somebody knows. Where one does not that was kept from before, its
  // responder's own is the next answer.
  void isOfUse(std::size_t index);
  void isOfNoUse(std::size_t index);

  // What follows is not for the responders: their share of what all of the verification may spend ends.
  void done() noexcept { share_.reset(); }

  bool wasCut() const noexcept { return cut_; }

 private:
  struct Answer {
    OCSPReading reading = {};
    Uri responder = {};
    std::optional<Offered<std::string>> offered = {};  // until it is known whether it counts
  };

  bool askNext();
  void ask(const Uri& responder);
  std::optional<Offered<std::string>> takeOffered(std::size_t index);

  const Path& path_;
  RevocationSources& sources_;
  const RevocationSettings& settings_;
  const Moment moment_;
  RefAuthorityInformationAccess access_;
  std::size_t next_ = 0;
  std::optional<OCSPQuestion> question_;
  std::deque<Answer> answers_;
  std::shared_ptr<void> share_;
  bool cut_ = false;
};

}  // namespace Velantrix::Crypto::PKX509::Revocation
