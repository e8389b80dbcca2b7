// One question to an OCSP responder, as the web has them: POST (RFC 6960, A.1), or GET where the settings
// prefer answers that caches on the way may have (RFC 5019, 5). Who has failed just before is not asked.
#pragma once

#include "retrieval/FetchDesk.h"

#include <pkx509/RetrievalSettings.h>
#include <velantrix/Uri.h>

#include <cstddef>
#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509 {

// RFC 5019, 5: of the whole URI.
inline constexpr std::size_t kMaximumOCSPGet = 255;

// What a GET asks for the DER of a request: its base64, encoded for a URI, behind exactly one slash. Null
// where that is too long, and where it would not stand at the end of the responder's path.
Uri ocspGetURI(const Uri& responder, const std::string& request);

// The body of what the responder answers, whatever it is. All is told of (`SourceUse`, `FetchRecord`) and
// counted. Never throws for what hosts or files do.
std::optional<std::string> retrieveOCSP(const Uri& responder, const std::string& request,
                                        const RetrievalSettings& settings, FetchDesk& desk);

}  // namespace Velantrix::Crypto::PKX509
