// One conditional exchange for the CRL of a URI, through the desk: who failed just now is not asked, who
// asks at the same time waits for the one who was first.
//
//   const FetchedCRL answer = fetchCRL(uri, entry.notes.validators, settings, desk);
//   if (answer.result == FetchedCRL::Result::kFetched) verifyAndStore(answer.crl, answer.notes);
#pragma once

#include "retrieval/FetchDesk.h"
#include "retrieval/VerifiedCache.h"

#include <pkx509/RetrievalSettings.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Uri.h>

#include <cstddef>
#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509 {

struct FetchedCRL {
  enum class Result {
    kFetched,      // the host has sent it, to us or to whoever was first
    kNotModified,  // what the validators stand for is what it still has
    kFailed,       // why is in `reason`, and noted with the desk where it is the host's fault
    kSpared,       // it failed just before, see `mark`
    kRefused       // by our own bounds or policies, or what the URI asks for is not spoken
  };

  Result result = Result::kFailed;
  RefCertificateRevocationList crl = {};  // decoded and not verified
  VerifiedCache::Notes notes = {};
  std::string reason = {};
  std::optional<FetchDesk::Mark> mark = {};
  LW::HTTP::Failure failure = {};
  std::size_t received = 0;
};

// No CRL is larger.
inline constexpr std::size_t kMaximumCRLSize = std::size_t{64} * 1024 * 1024;

// What is sent is decoded within the bounds of the run that goes on. All is told of (`SourceUse`,
// `FetchRecord`) and counted. Throws std::bad_alloc; nothing else for what hosts or files do.
FetchedCRL fetchCRL(const Uri& uri, const LW::HTTP::Validators& validators,
                    const RetrievalSettings& settings, FetchDesk& desk);

}  // namespace Velantrix::Crypto::PKX509
