/// @file
/// The CRLs that may tell whether one certificate is revoked, and what they say together.
///
/// @code
///   CRLContainer container(verifier);
///   CRLContainer::Entry entry(certificate, crl, 0x807f);
///   entry.issuer = store->findIssuer(crl, entry.score);
///   container.add(entry);
///   container.extendedCRLChecks(chain);        // writes the verifier's error
///   int reason = 0;
///   int verdict = container.isRevoked(reason);
/// @endcode
#pragma once

#include <pkx509/Object.h>
#include <velantrix/CRLDistributionPoint.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Export.h>

#include <list>

namespace Velantrix::Crypto::PKX509 {

class Verifier;

/// Chooses, completes and applies the CRLs for one certificate.
///
/// Candidates are added in the order in which they were found and keep it. What is added is scored,
/// and its issuing distribution point (RFC 5280, 5.2.5) is held against the certificate; an entry
/// that does not fit is dropped. A log line says so where names do not fit, or an issuing
/// distribution point is missing; one without text where the distribution point names other CRL
/// issuers. A CRL that is meant for another kind of certificate (onlyContainsUserCerts,
/// onlyContainsCACerts, onlyContainsAttributeCerts) is dropped **without a line**.
///
/// The container then serves in two ways. `getCRL()` hands the entries one by one to OpenSSL's own
/// revocation check and tells the verifier their scores. `extendedCRLChecks()` followed by
/// `isRevoked()` decides here, with delta CRLs merged into their base.
///
/// Nothing throws on bad data that could be decoded: decisions are the verifier's error, return
/// values and, but for what is dropped without one, log lines.
///
/// **Intended leniencies.** An entry whose reason is "unspecified" (0) does not revoke. An expired
/// base CRL is accepted beside a delta CRL, also beside one that is dropped. An expiry error is
/// overwritten when the issuer of a later CRL validates. docs/CONFORMANCE.md has the others, with
/// the clauses of RFC 5280.
///
/// **Threads.** One thread at a time. The container keeps a reference to its verifier, which
/// outlives it.
class PKX509_EXPORT CRLContainer {
 public:
  /// One candidate CRL for one certificate. A plain value.
  class PKX509_EXPORT Entry {
   public:
    /// @param reasons which reasons the CRL may speak about: `kAllReasons`, or those of the
    ///                distribution point
    Entry(const RefCertificate& certificate, const RefCertificateRevocationList& crl,
          unsigned int reasons);

    /// Sets the scope and issuer bits of OpenSSL's CRL score, keeps those that are set, and rejects
    /// the entry when its CRL's issuer is none of those that the distribution point names.
    /// @return the score, 0 for a rejected entry
    unsigned int tallyScore(Verifier& verifier) const;
    /// Holds the CRL's issuing distribution point against the certificate. May narrow `reasons` and
    /// may reject the entry.
    void issuingDistributionPointIssuerCheck(Verifier& verifier) const;

    RefCertificate certificate;  ///< whose status is in question
    mutable RefObject crl;       ///< the candidate; empty once the entry has been rejected
    RefCertificate issuer;       ///< who issued the CRL; the caller fills it in
    RefCRLDistributionPoint distributionPoint;  ///< through which the CRL was found; may be empty
    mutable unsigned int reasons;               ///< reasons covered, as OpenSSL's bits
    mutable unsigned int score = 0;             ///< OpenSSL's `CRL_SCORE_*` bits

   private:
    void reject() const;
  };

  explicit CRLContainer(Verifier& verifier);
  virtual ~CRLContainer();

  /// Scores @p entry and appends a copy, unless it is rejected.
  void add(const Entry& entry);

  /// Takes the next CRL off the list for OpenSSL's loop and tells the verifier its score, issuer
  /// and reasons (see `Verifier::currentReasons()`). Empty when nothing is left, or when a delta
  /// CRL misses its base; nothing is taken then.
  RefObject getCRL();

  /// What all entries together say about the certificate.
  /// @param reason receives the CRL entry's reason code when a CRL lists the certificate (-1 for an
  ///               entry without one); the caller sets it to 0 before
  /// @return 0, `X509_V_ERR_CERT_REVOKED` (23), or `X509_V_ERR_UNABLE_TO_GET_CRL` (3) when the
  ///         entries do not cover every reason
  int isRevoked(int& reason) const;

  /// Whether every delta CRL has a base CRL with a number not below the one it builds on. Computed
  /// once until `clear()`; false while there are no delta CRLs.
  bool isDeltaCRLChainComplete() const;

  /// Checks issuer, signature, critical extensions and validity of every CRL (RFC 5280, 6.3.3) and
  /// writes what it finds into the verifier's context. The issuer of a CRL is verified on its own,
  /// over a clone of the store, unless a certificate of the list issued the CRL.
  /// @param untrusted the certificates of the path under verification
  void extendedCRLChecks(const std::list<RefCertificate>& untrusted);

  /// Back to the state after construction.
  void clear();
  bool empty() const noexcept { return entries.empty(); }

 protected:
  enum ChainState : int { ChainUnknown = 0, ChainIncomplete = 1, ChainComplete = 2 };

  Verifier& verifier;
  bool hasDeltaCRL = false;  ///< a delta CRL was added, also one that was then rejected
  mutable int chainState = ChainUnknown;
  unsigned int collectedReasons = 0;  ///< of all entries that getCRL() handed out
  std::list<Entry> entries;

 private:
  bool checkEntry(const Entry& entry, const std::list<RefCertificate>& untrusted);
  bool validateIssuer(const Entry& entry, const std::list<RefCertificate>& untrusted);
};

/// Orders delta CRLs from the oldest `lastUpdate` to the newest; equal ones are equivalent.
struct PKX509_EXPORT DeltaCrlSorter {
  bool operator()(const CRLContainer::Entry& a, const CRLContainer::Entry& b) const;
};

}  // namespace Velantrix::Crypto::PKX509
