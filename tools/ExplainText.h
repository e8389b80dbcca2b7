// Why a certificate is valid, or is not, as a tree.
#pragma once

#include "Terminal.h"

#include <pkx509/VerificationReport.h>

#include <string>

namespace Velantrix::Tool {

/// Outcome, findings, path, sources and what it took. Of a certificate that is not valid the findings come
/// first, the decisive one with all of its values and what to do; of a valid one the path.
std::string explainText(const Crypto::PKX509::VerificationReport& report, const TextStyle& style);

}  // namespace Velantrix::Tool
