// Sources of a report on one line each, for comparisons.
//
//   EXPECT_EQ(textsOf(verifier.report().sources()), Texts{"server found http://127.0.0.1:80/ca.crl"});
#pragma once

#include <pkx509/VerificationReport.h>

#include <string>
#include <vector>

namespace Velantrix::Test {

using Texts = std::vector<std::string>;

inline std::string sourceText(Crypto::PKX509::VerificationReport::Source::Kind kind,
                              Crypto::PKX509::VerificationReport::Source::Result result,
                              const std::string& origin, bool fromMemory,
                              const std::string& reason) {
  static constexpr const char* kKinds[] = {"directory", "method", "LDAP",
                                           "cache",     "server", "responder"};
  static constexpr const char* kResults[] = {"found", "nothing", "failed", "refused", "cut"};
  static_assert(static_cast<int>(decltype(kind)::kOCSPResponder) == 5);
  static_assert(static_cast<int>(decltype(result)::kCut) == 4);
  return std::string(kKinds[static_cast<int>(kind)]) + " " + kResults[static_cast<int>(result)] +
         " " + origin + (fromMemory ? " again" : "") + (reason.empty() ? "" : ": " + reason);
}

inline Texts textsOf(const std::vector<Crypto::PKX509::VerificationReport::Source>& sources) {
  Texts texts;
  for (const auto& one : sources) {
    texts.push_back(
        sourceText(one.kind(), one.result(), one.origin(), one.fromMemory(), one.reason()));
  }
  return texts;
}

}  // namespace Velantrix::Test
