// A verification's report for programs; docs/pkx509.schema.json describes it.
#pragma once

#include "Value.h"

#include <pkx509/VerificationReport.h>

namespace Velantrix::Tool {

/// Rises when what a program could rely on goes or changes its meaning; additions leave it.
inline constexpr int kSchemaVersion = 1;

/// Adds the members line (where it is not valid), checkTime, path, findings, sources, totals and leftOut.
void addReport(Value::Object& members, const Crypto::PKX509::VerificationReport& report);

/// Adds the members outcome, line (where it is not valid), findings and sources: of what was asked without
/// a verification.
void addAnswer(Value::Object& members, const Crypto::PKX509::VerificationReport& report);

}  // namespace Velantrix::Tool
