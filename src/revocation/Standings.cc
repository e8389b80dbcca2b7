#include "revocation/Standings.h"

#include "foundation/run/VerificationRun.h"

#include <algorithm>
#include <cstddef>

namespace Velantrix::Crypto::PKX509::Revocation {

namespace {

std::shared_ptr<const AboutSigner> about(AboutSigner facts) {
  return std::make_shared<const AboutSigner>(std::move(facts));
}

}  // namespace

Ruling Standings::decide(const RefCertificate& certificate, const Path& path, By by) {
  Shared decided = decideOnce(certificate, path, by);
  return {*decided.outcome, std::move(decided.restsOn)};
}

Standings::Shared Standings::decideOnce(const RefCertificate& certificate, const Path& path,
                                        By by) {
  if (std::shared_ptr<const Outcome> known = decidedOf(certificate, by)) return {std::move(known)};
  Frame frame{certificate};
  frames_.push_back(&frame);
  Ruling ruling;
  try {
    ruling = decide_(certificate, path, by);
  } catch (...) {
    frames_.pop_back();
    throw;
  }
  frames_.pop_back();
  ruling.restsOn.erase(certificate->native());
  Shared decided{std::make_shared<const Outcome>(std::move(ruling.outcome)),
                 std::move(ruling.restsOn)};
  if (!frame.bound) decided_.push_back({certificate, by, decided.outcome});
  return decided;
}

bool Standings::assumeUnrevoked() {
  Frame& innermost = *frames_.back();
  if (!innermost.wanted || innermost.assumed) return false;
  innermost.assumed = true;
  return true;
}

std::shared_ptr<const Outcome> Standings::decidedOf(const RefCertificate& certificate,
                                                    By by) const {
  for (const Decided& one : decided_) {
    if (one.by == by && isSame(one.certificate, certificate)) return one.outcome;
  }
  return nullptr;
}

Path Standings::pathOf(const RefCertificate& signer, const Path& subjectPath) {
  if (Path known = restFrom(subjectPath, signer); !known.empty()) return known;
  if (Path known = restFrom(main_, signer); !known.empty()) return known;
  for (const SignerPath& known : signerPaths_) {
    if (isSame(known.certificate, signer)) return known.path;
  }
  Path path = paths_.pathOf(signer);
  const bool found = !path.empty();
  signerPaths_.push_back({signer, std::move(path), found ? std::nullopt : paths_.objection()});
  // OpenSSL has built it, and what was thrown in the meantime is parked.
  if (VerificationRun* const run = VerificationRun::current()) run->rethrowParked();
  return signerPaths_.back().path;
}

Standing Standings::withoutPath(const RefCertificate& signer) const {
  AboutSigner facts{.certificate = signer};
  for (const SignerPath& known : signerPaths_) {
    if (isSame(known.certificate, signer)) facts.objection = known.objection;
  }
  return {.refused = Reason::kSignerNotValid, .about = about(std::move(facts))};
}

bool Standings::isSettled(const RefCertificate& signer, const Path& subjectPath) const {
  // Who stands above the certificate in question has been decided before it.
  if (!restFrom(subjectPath, signer).empty()) return true;
  Path path = restFrom(main_, signer);
  for (const SignerPath& known : signerPaths_) {
    if (!path.empty() || !isSame(known.certificate, signer)) continue;
    if (known.path.empty()) return true;  // it has no path, which is all that there is to find out
    path = known.path;
  }
  return !path.empty() &&
         std::all_of(path.begin(), path.end() - 1, [this](const RefCertificate& certificate) {
           return decidedOf(certificate, By::kAll) != nullptr;
         });
}

Standing Standings::of(const Path& path, By by) {
  Standing standing;
  if (path.size() < 2) return standing;  // the trust anchor itself
  for (std::size_t depth = wholePath_ ? path.size() - 1 : 1; depth-- > 0;) {
    const Path rest(path.begin() + static_cast<std::ptrdiff_t>(depth), path.end());
    Standing one = ofOne(path.front(), path[depth], rest, depth == 0 ? by : By::kAll);
    if (one.refused) return one;
    standing.restsOn.insert(one.restsOn.begin(), one.restsOn.end());
  }
  return standing;
}

// One that is being decided is not decided for its own sake.
std::optional<Standing> Standings::ofFrame(const RefCertificate& certificate) {
  for (std::size_t i = frames_.size(); i-- > 0;) {
    Frame& frame = *frames_[i];
    if (!isSame(frame.certificate, certificate)) continue;
    for (std::size_t inner = i + 1; inner < frames_.size(); ++inner) frames_[inner]->bound = true;
    if (frame.assumed) return Standing{.restsOn = {frame.certificate->native()}};
    frame.wanted = true;
    return Standing{.refused = Reason::kRestsOnItself};
  }
  return std::nullopt;
}

// Of a certificate on the signer's path.
Standing Standings::ofOne(const RefCertificate& signer, const RefCertificate& certificate,
                          const Path& path, By by) {
  if (std::optional<Standing> standing = ofFrame(certificate)) {
    if (standing->refused) standing->about = about({.certificate = signer, .blamed = certificate});
    return *std::move(standing);
  }
  if (!wholePath_ && !restFrom(main_, certificate).empty()) return {};
  Shared decided = decideOnce(certificate, path, by);
  switch (decided.outcome->status) {
    case Status::kRevoked:
      return {.refused = Reason::kSignerRevoked,
              .about = about({.certificate = signer,
                              .revocation = std::move(decided.outcome),
                              .blamed = certificate})};
    case Status::kUndetermined:
      return {.refused = Reason::kSignerUndetermined,
              .about = about({.certificate = signer,
                              .revocation = std::move(decided.outcome),
                              .blamed = certificate})};
    case Status::kGood:
    case Status::kNotNeeded:
      break;
  }
  return {.restsOn = std::move(decided.restsOn)};
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
