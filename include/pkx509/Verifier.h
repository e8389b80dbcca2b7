/// @file
/// One path validation of one certificate against one trust store.
///
/// @code
///   RefObjectStore store("/opsadmin/etc/cert/server/ca", X509_FILETYPE_PEM);
///   Verifier verifier(store, certificate, RefStackOfCertificate(intermediates), false);
///   const int verdict = verifier.isValid();
///   if (verdict != X509_V_OK) refuse(X509_verify_cert_error_string(verdict));
/// @endcode
#pragma once

#include <pkx509/AddressPolicy.h>
#include <pkx509/CRLContainer.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/RetrievalSettings.h>
#include <pkx509/VerificationReport.h>
#include <velantrix/ASN1.h>
#include <velantrix/AuthorityInformationAccess.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Export.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/StackOfCertificate.h>

#include <openssl/x509_vfy.h>

#include <chrono>
#include <functional>
#include <iosfwd>
#include <list>
#include <memory>
#include <set>
#include <stop_token>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

class VerificationRun;

/// Decides whether a certificate is valid: 0, or an OpenSSL `X509_V_ERR_*` code.
///
/// OpenSSL builds the path and checks signatures, validity periods, names and policies (RFC 5280,
/// section 6.1). The `Verifier` logs every failure, supplies CRLs, and, unless the caller asks for
/// OpenSSL's, makes its own revocation check: OCSP before CRLs, distribution points, issuing
/// distribution points, delta CRLs, CRL issuers that are not on the path.
///
/// **What the caller does.** Build a store, construct, optionally `policy()`, `isValid()`, destroy.
/// One `Verifier` verifies one certificate. **Untrusted certificates** that came along are given as
/// a stack, which OpenSSL builds the path from. The search for the issuer of a CRL does not see
/// that stack: add those certificates to the store's object list as well
/// (`ObjectStore::add(const std::list<RefCertificate>&)`), on a store made for this verification or
/// a `clone()`. Never add them to a long-lived store, where a stranger's certificate with a CA's
/// name would spoil every later CRL check of that CA.
///
/// **What it does not check.** Whose certificate it is (names against an expected peer), and what
/// the key may be used for; use the verification parameters of the context for that.
///
/// **Intended leniencies.** Once a certificate of the chain has a good OCSP answer, the later ones
/// are not checked against CRLs. The self-signed end of a chain is not checked for revocation. The
/// issuer of a CRL that was found through a distribution point is not compared with the
/// certificate's issuer, because indirect CRLs are allowed: whoever serves the distribution point
/// chooses the CRL, as long as its issuer can be validated. CRLs found by the issuer's name are
/// compared. An OCSP answer that does not mention the certificate counts as good, and the times in
/// an answer are not compared with the clock (see `OCSP::Client`). docs/CONFORMANCE.md has all of
/// them, beside what `ConformingVerifier` does, which has none.
///
/// **The network.** Revocation is checked before signatures, so before a host is reached for a
/// certificate (OCSP, a CRL by URI, what LDAP has for a name in it) every signature from it up to
/// the trust anchor is verified; for a forgery, and for all below one, every host counts as
/// unreachable. The anchor is the end of the chain if it comes from the store: a verification
/// callback that lets an untrusted end pass makes nobody vouched for. `maxNetworkTime()` bounds the
/// time that one verification spends on the network, and 128 MiB the bytes of CRLs that it fetches. `addressPolicy()` says which kinds
/// of addresses are contacted at all; without one a certificate that is vouched for may name any,
/// the machine's own and its network's among them. The LDAP server and the name servers are the
/// operator's and not subject to it.
///
/// **Bounds.** The issuer of a CRL may need a verification of its own. A nested verification fails
/// with `X509_V_ERR_CRL_PATH_VALIDATION_ERROR` (54) when an enclosing one is about the same
/// certificate, when it would be the ninth level, or the 65th that one outermost run starts; the
/// 257th look-up of CRLs of one run and later ones find nothing. Each of these writes a log line.
/// What is not looked for because all of a run has used up its look-ups, its time or bytes on the
/// network, its processor time (`maxTime()`), the 256 MiB of certificates and CRLs that it decodes,
/// memory or descriptors, because its `deadline()` is over or it is asked to stop (`stopToken()`), may
/// be what revokes: where it happened, the verification fails with
/// `X509_V_ERR_UNABLE_TO_GET_CRL` (3) if with nothing else, whatever was found.
///
/// **Exceptions.** A verdict is never thrown. `Velantrix::Exception` (an unreadable file, a broken
/// extension) and whatever a lookup method throws leaves `isValid()` unchanged. Treat every
/// exception, `std::exception` included, as "not valid". Among them is
/// `boost::system::system_error`: it leaves when a certificate names an https OCSP responder and
/// the machine's client certificate or key (`kClientCertificateFile`, `kClientKeyFile`) cannot be
/// loaded.
///
/// **Threads.** One thread at a time. Construction writes the configured flags into the store. A
/// thread that is cancelled (`pthread_cancel`) meanwhile is cancelled after `isValid()` has
/// returned its verdict, at the next cancellation point; `maxNetworkTime()` bounds the wait. The
/// same goes for `SimpleVerifier`, `OCSP::Client`, `URILookup` and `LDAPLookupMethod`. Threads that
/// can be cancelled asynchronously must not call the library.
class PKX509_EXPORT Verifier : private NonCopyable {
 public:
  /// How strictly to verify. A plain value; edit it between construction and use.
  class PKX509_EXPORT Config {
   public:
    /// Revocation for the whole chain, strict checks, policies, extended CRLs, delta CRLs:
    /// `X509_V_FLAG_` `CRL_CHECK`, `CRL_CHECK_ALL`, `X509_STRICT`, `POLICY_CHECK`,
    /// `EXTENDED_CRL_SUPPORT`, `USE_DELTAS`.
    static constexpr int kDefaultFlags = 0x30AC;

    Config();
    /// The label selects nothing; everything else is as by default.
    explicit Config(const std::string& name);

    /// The caller's label, never read.
    std::string name;
    /// Acceptable policies as dotted identifiers; anyPolicy by default.
    std::set<std::string> policies;
    /// `X509_V_FLAG_*`, handed to OpenSSL sign-extended.
    ///
    /// Without `CRL_CHECK` nothing is checked for revocation. With it and without `CRL_CHECK_ALL`
    /// the certificate itself is, and **by CRLs only**: the list that is checked ends with it, so
    /// that its issuer, which an OCSP request has to name, is not known to `OCSP::Client`. A
    /// responder that the certificate names may be connected to, but is asked nothing.
    int flags;
  };

  /// @param useOpenSSLRevocation true keeps OpenSSL's own revocation check, fed with the CRLs that
  ///                             `getCRL()` gathers
  /// @throws Exception "X509::Verifier" when OpenSSL cannot initialise the context
  Verifier(const RefObjectStore& store, const RefCertificate& certificate,
           bool useOpenSSLRevocation);
  /// @param untrusted certificates to build the path from; the stack is shared, not copied
  Verifier(const RefObjectStore& store, const RefCertificate& certificate,
           const RefStackOfCertificate& untrusted, bool useOpenSSLRevocation);
  /// @param config copied; the caller's object is not changed
  Verifier(const RefObjectStore& store, const RefCertificate& certificate,
           const RefStackOfCertificate& untrusted, Config& config, bool useOpenSSLRevocation);
  virtual ~Verifier();

  /// The trust store; the reference lives as long as the verifier.
  virtual const RefObjectStore& objectStore() const;

  /// Verifies.
  /// @return 0 when valid, else an `X509_V_ERR_*` code. Every call verifies again, but a failure
  ///         sticks: after one, a call that succeeds still returns the earlier code.
  virtual int isValid();

  /// The next CRL for @p certificate. CRLs are gathered when the certificate is another one than at
  /// the last call (by identity of the OpenSSL object); after that each call takes one from what
  /// was gathered.
  virtual RefCertificateRevocationList getCRL(const RefCertificate& certificate);
  /// Gathers every CRL that may speak about @p certificate: through its distribution points when it
  /// has some, else by its issuer's name from the machine's CRL directory and the store.
  virtual void getCRLs(const RefCertificate& certificate, CRLContainer& container);
  /// Checks the certificates of a chain for revocation, leaf first. Hosts are contacted for a list
  /// that is not the lower end of the context's chain only if the store has the list's end.
  /// @return OpenSSL's convention: 1 to go on, 0 when one failed; the context then holds error and
  ///         depth
  virtual int checkRevocationStatus(const std::list<RefCertificate>& chain);

  /// Asks the OCSP responders that the certificate names: the first one with an URI that can be
  /// connected to; see `OCSP::Client`.
  /// @param chain the certificate's issuer has to be in it, or nothing is asked
  /// @return an `OCSP::Answer`; one that says that the answer is not signed as it should be counts
  ///         as none
  int checkOCSP(const RefCertificate& certificate, const RefAuthorityInformationAccess& aia,
                const std::list<RefCertificate>& chain);

  /// Bounds what one verification spends on the network, over all that it fetches and asks and all
  /// verifications nested in it. When the time is spent, further hosts count as unreachable, and
  /// whatever is found without them, the verification does not end valid: the host that was not
  /// asked may be the one that would have told of a revocation. The OCSP responders of one
  /// certificate get half of what is left, and the CRLs are asked for in the rest.
  /// @param seconds 60 by default; 0 for no such bound
  void maxNetworkTime(unsigned int seconds) noexcept;
  /// The same to the millisecond.
  /// @param time 0 for no such bound; less is no time at all
  void maxNetworkTime(std::chrono::milliseconds time) noexcept;

  /// Bounds the processor time that one verification uses on its thread, all verifications nested
  /// in it included. It is looked at between steps (a look-up, a CRL, a signature), so a single
  /// step of OpenSSL may go on beyond it. When the time is used up, what is left to do is left out,
  /// and the verification does not end valid.
  /// @param seconds 20 by default; 0 for no such bound
  void maxTime(unsigned int seconds) noexcept;
  /// The same to the millisecond.
  /// @param time 0 for no such bound; less is no time at all
  void maxTime(std::chrono::milliseconds time) noexcept;

  /// Bounds how long one verification takes from its start to its end, whatever it does: the network,
  /// waiting for others and the processor together, all verifications nested in it included. When the
  /// time is over, waiting ends and what is left to do is left out as it is after a stop (`stopToken()`);
  /// in the report the resource "time" is spent. The OCSP responders of one certificate get at most half
  /// of what is left, as of `maxNetworkTime()`. Nested in another verification, it has that one's
  /// deadline and not this.
  /// @param time from the start of each `isValid()` on; none by default, and
  ///             `std::chrono::milliseconds::max()` is none again. 0 and less are over at once
  void deadline(std::chrono::milliseconds time) noexcept;

  /// Has a verification end soon after its caller has lost interest:
  ///
  /// @code
  ///   std::stop_source source;                         // kept where it is decided
  ///   verifier.stopToken(source.get_token());          // before isValid() runs in a worker
  ///   source.request_stop();                           // from any thread, at any time
  /// @endcode
  ///
  /// Waiting ends within 50 ms: to connect, for an answer, for a name server, for an LDAP server, for
  /// the lock of a directory. So does what is computed, but for the OpenSSL call that goes on (one
  /// signature, 1 MiB of a CRL, reading one CRL; all of a CRL where OpenSSL's own revocation check digests
  /// it) and a lookup method or callback of the caller's. What is left to do is left out, and the
  /// verification does not end valid: with `X509_V_ERR_UNABLE_TO_GET_CRL` (3) if nothing was
  /// found against the certificate, also where an issuer was not found since it was not looked for any
  /// more. The report's outcome is temporary then, and the resource "cancelled" is spent. A
  /// verification that is asked to stop before its start looks at nothing. One that has nothing left to
  /// do keeps its verdict: who asks then asks too late. An `LDAPLookupMethod` that is stopped throws, as
  /// it does when its server is silent.
  ///
  /// Nested in another verification, it stops with that one and does not hear this token.
  void stopToken(std::stop_token token) noexcept;

  /// Which addresses may be contacted for the certificates of this verification and of all that are
  /// nested in it; everything by default. The process may refuse more (`AddressPolicy::process()`).
  /// Nested in another verification, it has that one's policy and not this.
  void addressPolicy(const AddressPolicy& policy) noexcept;

  /// Has CRLs and OCSP answers fetched as the settings say: by HTTP/1.1 with virtual hosts, redirects and
  /// conditional requests, one request for all that ask at the same time, none to a host that has failed
  /// just before; and has CRLs put into the cache (`kCRLCacheDirectory`) only when their signature was
  /// verified under their issuer's verified key. A `ConformingVerifier` does so from the start. This one
  /// does after it was told, and keeps its requests, its leniencies and its cache as they are else;
  /// `OCSP::Client` has requests of its own. Nested in another verification, it has that one's way.
  /// @param settings copied
  void retrieval(const RetrievalSettings& settings);

  /// Why a CRL was not there: something that could not be fetched, or not be kept in the cache.
  struct FetchNote {
    std::string what;    ///< "not fetched" or "not cached"
    std::string uri;     ///< without user information, query and fragment, which may be secret
    std::string reason;  ///< for people: "could not connect", "HTTP status 404", ...
  };
  /// What the last `isValid()` has to tell, the verifications nested in it included: the first 32 of
  /// them, each once. It explains a verdict and is none: a CRL may have come from another source.
  std::vector<FetchNote> fetchNotes() const;

  /// What the last `isValid()` found out, and why it ended as it did; the report on nothing before the
  /// first one. Its verdict is the one that `isValid()` returned. After an exception it is
  /// `X509_V_ERR_UNSPECIFIED`, never 0.
  ///
  /// It is made when it is asked for. A failure that waiting may cure has the path verified once
  /// more, without sources and revocation, so that nothing that is wrong with it for good stays
  /// hidden; and where an issuer was not found, the trust directory is looked at. Set on the context
  /// meanwhile, parameters hold for that too.
  VerificationReport report() const;

  /// From now on every outermost verification of the process that fails logs the line of its report
  /// (`VerificationReport::line()`) with priority 5, or with @p on = false none but those of a
  /// `ConformingVerifier`, which always does; that is how it begins. Any thread may call it at any
  /// time. It is the program's choice, for start-up.
  static void logReportLine(bool on = true) noexcept;

  /// Adds an acceptable certificate policy. The identifier gives its OpenSSL object to the context;
  /// one that has given it away before is copied.
  void policy(const ASN1::RefObjectIdentifier& oid);

  /// @name The OpenSSL context
  /// @{

  /// The context, borrowed. It is the same object for the verifier's whole life. Parameters set on
  /// it before `isValid()` (time, purpose, flags, ...) hold for every run.
  operator X509_STORE_CTX*() const noexcept;

  /// The outer verification's context when this one serves it, else null; borrowed.
  X509_STORE_CTX* parent() const noexcept;
  void parent(X509_STORE_CTX* outer) noexcept;

  /// What OpenSSL keeps as `current_crl_score`, `current_issuer` and `current_reasons` and lets
  /// nobody set: the values of the CRL that `CRLContainer::getCRL()` handed out last.
  unsigned int currentCRLScore() const noexcept;
  X509* currentIssuer() const;  ///< borrowed; null when there is none
  unsigned int currentReasons() const noexcept;
  void setCurrentCRL(unsigned int score, const RefCertificate& issuer, unsigned int reasons);

  /// The context's error, an `X509_V_ERR_*` code.
  int contextError() const noexcept;
  void contextError(int code) noexcept;

  /// The verifier whose context it is; null for a context that OpenSSL made itself to validate the
  /// issuer of a CRL.
  static Verifier* of(const X509_STORE_CTX* context);
  /// @}

 protected:
  RefObjectStore store;
  RefCertificate certificate;
  RefStackOfCertificate untrusted;
  Config config;
  int error = 0;                   ///< the last failure's code
  RefCertificate lastCertificate;  ///< whose CRLs `crls` holds
  CRLContainer crls;

 private:
  friend class ConformingVerifier;
  struct State;
  using InstallCallbacks = void(X509_STORE*) noexcept;

  Verifier(InstallCallbacks* installCallbacks, const RefObjectStore& store,
           const RefCertificate& certificate, const RefStackOfCertificate& untrusted,
           const Config& config);

  static int verifyCallback(int ok, X509_STORE_CTX* context);
  static int getCrlCallback(X509_STORE_CTX* context, X509_CRL** crl, X509* x);
  static int certCRLCallback(X509_STORE_CTX* context, X509_CRL* crl, X509* x);
  static int checkRevocationCallback(X509_STORE_CTX* context);

  void initialize(bool useOpenSSLRevocation, InstallCallbacks* installCallbacks = nullptr);
  int runs(const std::function<int()>& verify);
  int runs(const std::function<int()>& verify, VerificationRun& run);
  int leaveUnsettled(const char* why);
  void prepare(STACK_OF(X509) * intermediates);
  void prepareAgain();
  bool applyRemaining(X509* x);
  void dropCurrentCRL();
  void keepHandedOut(X509* x);
  int checkChain();
  int checkAll(const std::list<RefCertificate>& chain);
  void checkOne(const RefCertificate& certificate, const std::list<RefCertificate>& chain,
                bool& needCrlCheck);
  bool addCandidate(CRLContainer& container, const RefCertificate& certificate,
                    const RefCertificateRevocationList& crl, const RefCRLDistributionPoint& point);

  std::unique_ptr<State> state_;  // last, so that the context goes while the store is held
};

/// @name Diagnostic printers
/// @{

/// Subject and issuer on one line, key identifiers on the next; nothing for an empty handle.
PKX509_EXPORT std::ostream& operator<<(std::ostream& out, const RefCertificate& certificate);
/// **Prints to standard output**, whatever stream is given, and returns that stream untouched.
PKX509_EXPORT std::ostream& operator<<(std::ostream& out,
                                       const std::list<RefCertificate>& certificates);
PKX509_EXPORT std::ostream& operator<<(std::ostream& out, X509* certificate);
PKX509_EXPORT std::ostream& operator<<(std::ostream& out, STACK_OF(X509) * certificates);
/// @}

}  // namespace Velantrix::Crypto::PKX509
