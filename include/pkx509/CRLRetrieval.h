/// @file
/// One CRL by its URI, as verifications get it, for programs of operators.
///
/// @code
///   const CRLRetrieval retrieval;
///   const CRLRetrieval::Answer answer = retrieval.find(Uri("http://crl.example.com/ca.crl?id=7"));
///   if (answer.crls.empty()) std::cerr << answer.report.line() << '\n';
/// @endcode
#pragma once

#include <pkx509/FixedPaths.h>
#include <pkx509/RetrievalSettings.h>
#include <pkx509/VerificationReport.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Export.h>
#include <velantrix/Uri.h>

#include <list>
#include <memory>
#include <string>

namespace Velantrix::Crypto::PKX509 {

/// Takes CRLs from the machine's cache, and from their hosts where it has none that is fresh, as a
/// `ConformingVerifier` does: by HTTP/1.1 with Host and query, through redirects, within the bounds
/// of the settings and 64 MiB, and not from a host that has failed just before.
///
/// **What is trusted.** Nothing: whoever answers for the host, or can write into the cache, decides what
/// comes. Only what somebody has signed for whom the trust directory vouches is stored, see
/// `CRLTrust`.
///
/// **Addresses.** The policy of the process alone counts: who names a URI by hand has chosen its host.
///
/// **Threads.** Several may ask one object.
class PKX509_EXPORT CRLRetrieval {
 public:
  struct Answer {
    /// Fresh from the cache, or whatever the host has sent.
    std::list<RefCertificateRevocationList> crls = {};
    bool fetched = false;  ///< they are from the host
    bool held = false;     ///< the cache has the first of them now
    /// Why nobody stands for what the host has sent, for people, on one line; empty where somebody does.
    std::string objection = {};
    /// What was asked, as `URILookup::find` has it.
    VerificationReport report = {};
  };

  /// @param trustDirectory hash directory of the trust anchors, in PEM
  /// @param certificates   may be issuers of CRLs, or stand in the middle of their paths; nothing
  ///                       about them is trusted
  explicit CRLRetrieval(const RetrievalSettings& settings = {},
                        const std::string& trustDirectory = kCADirectory,
                        const std::list<RefCertificate>& certificates = {});

  /// @throws std::bad_alloc
  Answer find(const Uri& uri) const;

 private:
  struct State;
  std::shared_ptr<const State> state_;
};

}  // namespace Velantrix::Crypto::PKX509
