// One question to an OCSP responder, over http or https (RFC 6960, appendix A).
#pragma once

#include <velantrix/Uri.h>

#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509::OCSP {

struct ResponderAnswer {
  std::optional<std::string> body = {};  // whatever it is
  bool missing = false;                  // there might have been one; `FetchRecord` knows why not
};

// Has the responder answer the DER of a request. Schemes that are not spoken have no answer.
ResponderAnswer askResponder(const Uri& responder, const std::string& request);

}  // namespace Velantrix::Crypto::PKX509::OCSP
