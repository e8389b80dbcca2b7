// What there is to tell of an exchange with a host that came to nothing.
#pragma once

#include "foundation/net/http/HTTPFailure.h"
#include "report/SourceRecord.h"

#include <velantrix/Uri.h>

#include <cstdint>

namespace Velantrix::Crypto::PKX509 {

// Of a URI whose scheme is not handled.
UseFacts notSpoken(const Uri& uri);

UseFacts factsOf(const LW::HTTP::Failure& failure);

// As a failure, or as a refusal where that is what it is.
void tellFailure(SourceUse& use, const LW::HTTP::Failure& failure) noexcept;

// For `Statistics`: one request, when it is over. Where no host was asked there is none.
void countExchange(const LW::HTTP::Failure& failure, std::uint64_t received) noexcept;

}  // namespace Velantrix::Crypto::PKX509
