// One question to an OCSP responder, over http or https (RFC 6960, appendix A).
#pragma once

#include "report/SourceRecord.h"

#include <velantrix/Uri.h>

#include <functional>
#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509::OCSP {

inline constexpr char kRequestType[] = "application/ocsp-request";  // RFC 6960, A.1

struct ResponderAnswer {
  std::optional<std::string> body = {};  // whatever it is
  bool missing = false;                  // there might have been one; `FetchRecord` knows why not
};

// Has the responder answer the DER of a request. Schemes that are not spoken have no answer.
ResponderAnswer askResponder(const Uri& responder, const std::string& request);

// How the octets go there and back. It tells what was found, or why nothing was.
using Exchange = std::function<std::optional<std::string>(SourceUse& use)>;

// The same by another exchange, which is made for responders that may be asked now.
ResponderAnswer askResponder(const Uri& responder, const Exchange& exchange);

}  // namespace Velantrix::Crypto::PKX509::OCSP
