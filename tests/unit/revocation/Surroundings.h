// What a revocation check stands in, in memory: sources that have what was put into them, and paths
// that OpenSSL builds out of the same certificates.
//
//   Surroundings around(root);
//   around.add(crlHandle({.issuer = &ca, .revoked = {{.serial = leaf}}}));
//   EXPECT_EQ(around.decide({leaf, ca, root}).front().status, Status::kRevoked);
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/run/VerificationRun.h"
#include "revocation/RevocationCheck.h"
#include "support/Handles.h"
#include "support/Pki.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/StackOfCertificate.h>

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Test {

using namespace Velantrix::Crypto::PKX509;
using Crypto::PKX509::Revocation::Moment;
using Crypto::PKX509::Revocation::Offered;
using Crypto::PKX509::Revocation::Offers;
using Crypto::PKX509::Revocation::Outcome;
using Crypto::PKX509::Revocation::Provenance;
using Crypto::PKX509::Revocation::Reason;
using Crypto::PKX509::Revocation::RevocationCheck;
using Crypto::PKX509::Revocation::Statement;
using Crypto::PKX509::Revocation::Status;

/// Places that tests have lists at.
inline constexpr char kHere[] = "http://crl.test/here";
inline constexpr char kThere[] = "http://crl.test/there";
inline constexpr char kDeltas[] = "http://crl.test/deltas";

/// CRLs are found by the name of their issuer, and by what they were added for. What is `cut` is asked for
/// by the same words that `asked` has.
class MemorySources : public Crypto::PKX509::Revocation::RevocationSources {
 public:
  Offers<RefCertificate> certificates(const DistinguishedName& subject) override {
    asked.push_back("certificates " + subject.asString());
    Offers<RefCertificate> offers;
    for (const RefCertificate& one : known) {
      if (one->subject() == subject) offers.found.push_back({one, {}, {}});
    }
    return offers;
  }
  Offers<RefCertificateRevocationList> crls(const DistinguishedName& name) override {
    asked.push_back("CRLs " + name.asString());
    Offers<RefCertificateRevocationList> offers;
    for (const RefCertificateRevocationList& crl : byIssuer) {
      if (crl->crlInfo().issuer() == name) offers.found.push_back({crl, {}, {}});
    }
    for (const auto& [place, crl] : byName) {
      if (place == name.asString()) offers.found.push_back({crl, {}, {}});
    }
    offers.cut = cut.count(asked.back()) != 0;
    return offers;
  }
  Offers<RefCertificateRevocationList> crls(const Uri& uri) override {
    asked.push_back("URI " + uri.asString());
    Offers<RefCertificateRevocationList> offers;
    const auto [first, last] = byURI.equal_range(uri.asString());
    for (auto one = first; one != last; ++one) offers.found.push_back({one->second, from, {}});
    offers.cut = cut.count(asked.back()) != 0;
    return offers;
  }
  void isForged(const Uri& uri, const RefCertificateRevocationList& crl) override {
    forged.emplace_back(uri.asString(), crl->crlNumber().asString());
  }
  std::shared_ptr<void> shareForResponders() override {
    asked.push_back("share");
    return {this, [this](void*) { asked.push_back("share ends"); }};
  }
  Offers<std::string> ocsp(const Uri& responder, const std::string& request) override {
    asked.push_back("OCSP " + responder.asString());
    Offers<std::string> offers;
    const auto found = responders.find(responder.asString());
    const auto before = kept.find(responder.asString());
    if (before != kept.end()) {
      offers.found.push_back({before->second, {Provenance::Kind::kCache, "kept"}, {}});
    } else if (found != responders.end()) {
      offers.found.push_back({found->second(request), {}, {}});
    }
    offers.cut = cut.count(asked.back()) != 0;
    return offers;
  }

  bool wantsNonce() const override { return nonce; }
  void isOfUse(const Uri& responder, const std::string& /*request*/,
               const Offered<std::string>& answer, const Time& nextUpdate) override {
    asked.push_back("of use " + responder.asString());
    kept[responder.asString()] = answer.object;
    keptUntil = nextUpdate;
  }
  void isOfNoUse(const Uri& responder, const std::string& /*request*/) override {
    asked.push_back("of no use " + responder.asString());
    kept.erase(responder.asString());
  }

  std::list<RefCertificate> known;
  std::list<RefCertificateRevocationList> byIssuer;
  std::multimap<std::string, RefCertificateRevocationList> byName;
  std::multimap<std::string, RefCertificateRevocationList> byURI;
  std::map<std::string, std::function<std::string(const std::string& request)>> responders;
  std::map<std::string, std::string> kept;  ///< OCSP answers, offered as from a cache
  Time keptUntil = {};
  bool nonce = true;  ///< whether requests have one
  std::vector<std::string> asked;
  std::set<std::string> cut;
  std::vector<std::pair<std::string, std::string>> forged;  ///< URIs, and numbers of CRLs
  Provenance from = {};                                     ///< of what a URI gives
};

/// By plain OpenSSL, and with the anchor as the only certificate that is trusted.
class MemoryPaths : public Crypto::PKX509::Revocation::SignerPaths {
 public:
  std::vector<RefCertificate> pathOf(const RefCertificate& signer) override {
    ++built;
    if (onPath) onPath();
    if (std::exchange(parks, false)) {
      VerificationRun::current()->park(std::make_exception_ptr(std::runtime_error("parked")));
    }
    if (!given.empty() && given.front() == signer) return given;
    const Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
    const RefStackOfCertificate untrusted(known);
    const RefStackOfCertificate trusted(std::list<RefCertificate>{anchor});
    if (X509_STORE_CTX_init(context.get(), nullptr, signer, untrusted) != 1) {
      throw std::runtime_error("X509_STORE_CTX_init");
    }
    X509_STORE_CTX_set0_trusted_stack(context.get(), trusted);
    X509_STORE_CTX_set_time(context.get(), 0, static_cast<std::time_t>(time.seconds()));
    objection_.reset();
    if (X509_verify_cert(context.get()) != 1) {
      objection_ = {.code = X509_STORE_CTX_get_error(context.get())};
      return {};
    }
    std::vector<RefCertificate> path;
    const STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context.get());
    for (int i = 0; i < sk_X509_num(chain); ++i) {
      path.push_back(CertificateFactory()(sk_X509_value(chain, i), false));
    }
    return path;
  }

  std::optional<Objection> objection() const override { return objection_; }

  RefCertificate anchor;
  std::list<RefCertificate> known;
  Time time = Time::now();
  int built = 0;
  std::function<void()> onPath;       ///< before one is built
  bool parks = false;                 ///< as OpenSSL's callbacks do, once
  std::vector<RefCertificate> given;  ///< in place of the path that OpenSSL builds of its first

 private:
  std::optional<Objection> objection_;
};

/// Does it in nested runs of a verification.
inline void atDepth(unsigned int runs, const std::function<void()>& work) {
  if (runs == 0) return work();
  const VerificationRun run(nullptr);
  atDepth(runs - 1, work);
}

inline bool has(const Outcome& outcome, Reason reason) {
  return std::any_of(outcome.setAside.begin(), outcome.setAside.end(),
                     [reason](const auto& one) { return one.reason == reason; });
}

/// What was set aside first for that reason; empty where nothing was.
inline Crypto::PKX509::Revocation::SetAside firstFor(const Outcome& outcome, Reason reason) {
  for (const auto& one : outcome.setAside) {
    if (one.reason == reason) return one;
  }
  return {};
}

struct Surroundings {
  explicit Surroundings(const Issued& anchor) {
    paths.anchor = handle(anchor);
    know(anchor);
  }

  /// Sources have it, and paths are built with it.
  void know(const Issued& issued) {
    sources.known.push_back(handle(issued));
    paths.known.push_back(handle(issued));
  }
  RefCertificateRevocationList publish(const CRLOptions& options) {
    sources.byIssuer.push_back(crlHandle(options));
    return sources.byIssuer.back();
  }
  RefCertificateRevocationList publishAt(const std::string& uri, const CRLOptions& options) {
    return sources.byURI.emplace(uri, crlHandle(options))->second;
  }

  std::vector<Outcome> decide(const std::vector<Issued>& path) {
    std::vector<RefCertificate> certificates;
    for (const Issued& issued : path) certificates.push_back(handle(issued));
    paths.time = moment.checked;
    RevocationCheck check(sources, paths, settings, moment, scope);
    return check.decide(certificates);
  }

  MemorySources sources;
  MemoryPaths paths;
  RevocationSettings settings;
  Moment moment{Time::now(), Time::now()};
  RevocationCheck::Scope scope;
};

}  // namespace Velantrix::Test
