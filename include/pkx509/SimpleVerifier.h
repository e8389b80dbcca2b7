/// @file
/// The process-wide verifier over the machine's own trust directory.
///
/// @code
///   CertificateVerifier* const verifier = SimpleVerifier::instance();   // during start-up
///   ...
///   const bool usable = verifier->isValid(certificate, KU_KEY_ENCIPHERMENT, true) == X509_V_OK;
///   // An exception that leaves isValid() means "not valid", see below.
/// @endcode
#pragma once

#include <pkx509/LookupMethod.h>
#include <pkx509/VerificationReport.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateVerifier.h>
#include <velantrix/Export.h>

#include <chrono>
#include <list>
#include <stop_token>

namespace Velantrix::Crypto::PKX509 {

/// Answers "can this certificate be used for that?" for callers that have no trust store.
///
/// Every verification runs in a fresh store over `kCADirectory` ("/opsadmin/etc/cert/server/ca",
/// PEM) with a fresh `Verifier` in its default configuration and the library's own revocation
/// check. Nothing of one verification survives into the next but what the lookup methods keep, so
/// what is put into the directories counts from the next call on.
///
/// **Which verifier.** `Verifier` has leniencies that others rely on. A program that does not says
/// so once, at start-up, and has `ConformingVerifier` in its place:
///
/// @code
///   SimpleVerifier::useConformingVerifier();
///   CertificateVerifier* const verifier = SimpleVerifier::instance();
/// @endcode
///
/// **How long it takes.** A verification may wait for hosts for a minute. A daemon that has no minute
/// says how long any of its verifications may take, those included that libraries in it ask for; who
/// can tell what a single one may take, or wants to give it up from another thread, says so in the call:
///
/// @code
///   SimpleVerifier::useDeadline(std::chrono::seconds(10));   // at start-up
///   ...
///   const SimpleVerifier::Terms terms{.deadline = std::chrono::seconds(2), .stop = stop};
///   if (SimpleVerifier().isValid(certificate, 0, false, terms) != X509_V_OK) ...
/// @endcode
///
/// **Whose it is.** `instance()` makes one object, which `CertificateVerifier::s_instance` owns and
/// which lives until the process ends; the library never deletes it. An object may also be made
/// like any other and be registered there, or not at all.
///
/// **What the caller does.** Call `instance()` during start-up, attach lookup methods, then verify.
/// Intermediate certificates cannot be handed over: they have to stand in the directory or come
/// from a lookup method. What a lookup method gives to OpenSSL **is trusted**, a self-signed
/// certificate is a trust anchor.
///
/// **What it does not check.** Whose certificate it is: comparing names and mail addresses stays
/// with the caller. Of its purpose it checks the key usage, and only when told which.
///
/// **Exceptions.** `Velantrix::Exception` becomes -1. Every other exception leaves `isValid()`:
/// what a lookup method throws of its own, `std::bad_alloc`, and `boost::system::system_error`, by
/// which a TLS connection to an OCSP responder or a web server says that the machine's client
/// certificate or key cannot be loaded. **Treat every `std::exception` as "not valid".**
///
/// **Threads.** `instance()` may be called by several threads at once. `isValid()` may run in
/// several threads as long as no lookup method is attached; each of these is told the store of the
/// verification that runs, so with one attached a single thread verifies at a time. `add()` must
/// not run while another thread is in `isValid()`.
class PKX509_EXPORT SimpleVerifier : public CertificateVerifier {
 public:
  SimpleVerifier();
  ~SimpleVerifier() override;

  /// The verifier of this process, of whatever class it is: the one that is registered already, or
  /// else a new `SimpleVerifier`, which this call registers. Borrowed, never null.
  ///
  /// Calls are guarded against each other only. Whoever writes `s_instance` does so before.
  static CertificateVerifier* instance();

  /// From now on every object of this class, in all of the process, verifies with a
  /// `ConformingVerifier` in its default settings, or with @p on = false again with a `Verifier`,
  /// which is how it begins. The conforming verifier contacts no address of the machine itself or of
  /// its links: OCSP responders and CRL servers on loopback are out of its reach here.
  ///
  /// May be called at any time by any thread; verifications that run end with the verifier that they
  /// began with. It is the program's choice, for start-up, and not that of a library in it: others
  /// may rely on the leniencies.
  static void useConformingVerifier(bool on = true) noexcept;

  /// How long one verification may take, for every object of this class in all of the process;
  /// otherwise like `useConformingVerifier()`. Files, waiting and computing count, and what is not
  /// found out by then makes the certificate not valid: see `Verifier::deadline()`.
  /// @param time of each `isValid()`; `std::chrono::milliseconds::max()`, which is how it begins, for
  ///             no such bound
  static void useDeadline(std::chrono::milliseconds time) noexcept;

  /// What one call is bounded by, beside what holds for the process.
  struct Terms {
    /// Where that of the process is shorter, it is that one.
    std::chrono::milliseconds deadline = std::chrono::milliseconds::max();
    /// Asks to give it up, from any thread: see `Verifier::stopToken()`.
    std::stop_token stop = {};
  };

  /// Attaches a lookup method to every store made from now on, behind those added before. An empty
  /// handle is a programming error that stops the process at the next verification.
  void add(const RefLookupMethod& method);

  /// @param keyUsage OpenSSL's `KU_*` bits, of which the certificate has to allow one; 0 asks for
  ///                 none. A certificate without the extension passes, and so does one whose
  ///                 extension grants nothing, which RFC 5280, 4.2.1.3, forbids and OpenSSL's
  ///                 verification refuses.
  /// @param requireKeyUsage false: one that does not fit is written to the log, nothing more
  /// @return 0 when valid, an `X509_V_ERR_*` code, or -1 when the key usage was refused or a
  ///         `Velantrix::Exception` was caught; the log says which
  int isValid(const RefCertificate& certificate, int keyUsage, bool requireKeyUsage) override;

  /// The same, with what was found out. Nothing of it is kept here. For the result -1 the report says
  /// `X509_V_ERR_UNSPECIFIED`.
  /// @param report set whatever happens, also before an exception leaves
  int isValid(const RefCertificate& certificate, int keyUsage, bool requireKeyUsage,
              VerificationReport& report);

  /// The same within @p terms. Of a certificate that was not settled by then the verdict is
  /// `X509_V_ERR_UNABLE_TO_GET_CRL` (3) if nothing else was found against it, and its report has the
  /// outcome `kTemporary`.
  int isValid(const RefCertificate& certificate, int keyUsage, bool requireKeyUsage,
              const Terms& terms);
  int isValid(const RefCertificate& certificate, int keyUsage, bool requireKeyUsage,
              const Terms& terms, VerificationReport& report);

 private:
  int verdictOn(const RefCertificate& certificate, int keyUsage, bool requireKeyUsage,
                const Terms& terms, VerificationReport* report);

  std::list<RefLookupMethod> lookupMethods;
};

}  // namespace Velantrix::Crypto::PKX509
