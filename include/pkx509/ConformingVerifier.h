/// @file
/// Path validation and revocation to the letter of RFC 5280, RFC 6960 and RFC 9608.
///
/// @code
///   RefObjectStore store("/opsadmin/etc/cert/server/ca", X509_FILETYPE_PEM);
///   ConformingVerifier verifier(store, certificate, RefStackOfCertificate(intermediates));
///   const int verdict = verifier.isValid();
///   if (verdict != X509_V_OK) refuse(X509_verify_cert_error_string(verdict));
/// @endcode
#pragma once

#include <pkx509/RevocationSettings.h>
#include <pkx509/Verifier.h>
#include <velantrix/Export.h>

#include <list>
#include <memory>

namespace Velantrix::Crypto::PKX509 {

/// A `Verifier` without its intended leniencies: "valid" is what the standards call valid, and what
/// they call valid is not refused.
///
/// What `Verifier` says about its caller, the context, bounds, exceptions and threads holds here too,
/// but for the following. It is for whoever relies on none of the leniencies; `docs/CONFORMANCE.md`
/// goes through them one by one.
///
/// **Order.** OpenSSL first builds and verifies the path, with its signatures, times, names, key
/// strengths and policies (RFC 5280, 6.1). Only when that has succeeded is revocation decided, from
/// the trust anchor down, and nothing that is not verified is ever asked about. So the code of an
/// expired certificate is 10, whether or not it is revoked. `getCRLs`, `getCRL`, `checkOCSP`,
/// `CRLContainer` and `OCSP::Client` take no part, and overriding them changes nothing.
///
/// **Revocation** (RFC 5280, 6.3.3, RFC 6960, 3.2 and 4.2.2.2, RFC 9608). With the flags `CRL_CHECK`
/// and `CRL_CHECK_ALL` each certificate of the path but its trust anchor is decided, with `CRL_CHECK`
/// alone the certificate itself, and without it none. A certificate about which nothing usable is
/// found is refused like a revoked one: 23 is revoked; 8, 44, 36, 12 and 3 say what was missing, 41
/// that a noRevAvail extension stands where it must not. `USE_DELTAS` has delta CRLs looked at.
///
/// **Trust.** A path ends only with what a trusted source has, octet for octet: the store's
/// directory, others that were attached to it, lookup methods with `LookupMethod::isTrustSource()`,
/// and what a program put into OpenSSL's store itself. An `LDAPLookupMethod` is none unless it is
/// told to be. What other sources have, and the untrusted stack, are candidates for the middle of a
/// path.
///
/// **Several certificates with one name**, as after a change of a CA's key: where what came along and
/// what the store has at hand make no valid path, all that the sources have is gathered (32 names, 256
/// certificates) and the path is built again. Where key identifiers do not tell whose key signed, the
/// signature does (32 of them; OpenSSL's choice after that). A verification callback of the caller's
/// hears of one attempt only, with all that was gathered. The
/// `untrusted` stack serves the issuers of CRLs and the OCSP responders as well; there is no need to
/// put it into the store's list of objects.
///
/// **Time.** There is one "now" for the outermost verification of a thread and all that are nested in
/// it. A time or `X509_V_FLAG_NO_CHECK_TIME` that the caller sets on the context's parameters holds
/// for the path and for the issuers of CRLs; CRLs and OCSP answers are judged at the time that is set,
/// else at now.
///
/// **The context.** Flags, time, security level and untrusted certificates that the caller has set
/// are as they were once `isValid()` has returned or thrown. A verification callback of the caller's
/// may let pass what is wrong: revocation is then decided only where a trusted certificate ends the
/// chain and every signature below it is right, and is undetermined (3) otherwise.
///
/// **Hosts.** Public and private addresses may be contacted, loopback and link-local ones not;
/// `addressPolicy()` replaces that.
class PKX509_EXPORT ConformingVerifier : public Verifier {
 public:
  /// The flags of a verifier that is given no `Config`: those of `Config::kDefaultFlags` without
  /// `X509_V_FLAG_X509_STRICT`, which refuses more than RFC 5280 does. Flags that another verifier
  /// has left in the store hold as well, see `Verifier`.
  static constexpr int kDefaultFlags = Config::kDefaultFlags & ~X509_V_FLAG_X509_STRICT;

  /// @throws Exception "X509::Verifier" when OpenSSL cannot initialise the context
  ConformingVerifier(const RefObjectStore& store, const RefCertificate& certificate);
  /// @param untrusted certificates to build paths from; the stack is shared, not copied
  ConformingVerifier(const RefObjectStore& store, const RefCertificate& certificate,
                     const RefStackOfCertificate& untrusted);
  /// @param config copied. One that is made by default has other flags than `kDefaultFlags`:
  ///               `X509_V_FLAG_X509_STRICT` too.
  ConformingVerifier(const RefObjectStore& store, const RefCertificate& certificate,
                     const RefStackOfCertificate& untrusted, Config& config);
  /// @param settings copied
  ConformingVerifier(const RefObjectStore& store, const RefCertificate& certificate,
                     const RefStackOfCertificate& untrusted, Config& config,
                     const RevocationSettings& settings);
  ~ConformingVerifier() override;

  /// As it was given to the constructor.
  const RevocationSettings& settings() const noexcept;

  /// As `Verifier::isValid()`, a failure that sticks included. An outermost one that fails logs the line
  /// of its `report()` with priority 5.
  int isValid() override;

  /// Whether the certificates of a path are revoked, leaf first and its trust anchor last.
  ///
  /// `isValid()` does not need to be called before. A list is asked about only if its last
  /// certificate could end a path (self-signed unless `X509_V_FLAG_PARTIAL_CHAIN` is set, and
  /// trusted) and every signature below it is right; of another one, an empty one and one with an
  /// empty handle everything is undetermined. Besides signatures nothing of the path is verified
  /// here. What is asked about follows `CRL_CHECK_ALL`, as if `CRL_CHECK` were set.
  /// @return OpenSSL's convention: 1 to go on, 0 when one failed; the context then holds error and
  ///         depth
  int checkRevocationStatus(const std::list<RefCertificate>& chain) final;

 private:
  struct Part;
  // What is known about a list of certificates, beside its revocation.
  enum class Evidence { kNone, kSignatures, kVerified };

  static int keepObjection(int ok, X509_STORE_CTX* context);

  void begin();
  int verifyPath();
  int buildPath(X509_STORE_CTX_verify_cb callback);
  int verifyRevocation();
  int checkList(const std::list<RefCertificate>& chain);
  int decide(const std::list<RefCertificate>& chain, Evidence evidence);
  void determine(const std::list<RefCertificate>& chain, Evidence evidence);
  int judge(const std::list<RefCertificate>& chain);

  std::unique_ptr<Part> part_;
};

}  // namespace Velantrix::Crypto::PKX509
