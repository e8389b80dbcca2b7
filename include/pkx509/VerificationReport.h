/// @file
/// What a verification found out: why a certificate is not valid, or why it is.
///
/// @code
///   const int verdict = verifier.isValid();
///   const VerificationReport report = verifier.report();
///   if (report.outcome() == Outcome::kTemporary) answer(451, report.line());
///   else if (verdict != X509_V_OK) answer(550, report.line());
/// @endcode
#pragma once

#include <pkx509/Rule.h>
#include <velantrix/Export.h>
#include <velantrix/Time.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

/// A value: copies are cheap and share what they hold, which never changes. It holds no object of
/// OpenSSL's and outlives the verifier.
///
/// **Trust.** Names, URIs and what servers answered are as strangers wrote them, control characters
/// included, but for what may be secret: user, password, query and fragment of a URI are never in
/// here. `line()` is fit for a log or a terminal as it is; of everything else the reader escapes what
/// its own medium needs.
///
/// **Bounds.** At most `kMaximumFindings` findings, those that hang below others included,
/// `kMaximumSources` sources, and `kMaximumSize` octets of text; what is left out is counted. A single
/// text is cut at `kMaximumText` octets.
///
/// **Threads.** Several threads may read one report.
class PKX509_EXPORT VerificationReport {
 public:
  static constexpr std::size_t kMaximumFindings = 64;
  static constexpr std::size_t kMaximumSources = 256;
  static constexpr std::size_t kMaximumSize = std::size_t{64} * 1024;
  static constexpr std::size_t kMaximumText = 512;
  static constexpr std::size_t kMaximumLine = 400;

  /// A number, a text, or a time.
  using Value = std::variant<std::int64_t, std::string, Time>;

  /// A concrete value of a finding.
  struct Detail {
    /// In camel case, for programs; docs/REASONS.md lists them. Names are only ever added.
    std::string_view name;
    Value value;

    bool operator==(const Detail&) const = default;
  };

  /// Where a certificate or what speaks about it came from.
  class PKX509_EXPORT Origin {
   public:
    enum class Kind {
      kUnknown,
      kCaller,          ///< the certificate that was given to be verified
      kMessage,         ///< came along with it, as an untrusted certificate
      kPath,            ///< stands on the verified path
      kStore,           ///< the store's own list of objects
      kTrustDirectory,  ///< the directory of trusted certificates
      kMachineCRLs,     ///< the machine's directory of CRLs
      kLookupMethod,    ///< a lookup method, by its name
      kLDAP,
      kCache,     ///< of what was fetched before
      kNetwork,   ///< fetched in this verification
      kAnswer,    ///< came along with an OCSP answer
      kSettings,  ///< named by the operator
      kMemory     ///< known to this verification already
    };

    Origin() = default;
    Origin(Kind kind, std::string place, std::string file = {});

    Kind kind() const noexcept { return kind_; }
    /// A directory, a URI, a lookup method's name, an LDAP entry; empty where the kind says it.
    const std::string& place() const noexcept { return place_; }
    /// The file, with its directory, where it is known; else empty.
    const std::string& file() const noexcept { return file_; }

    bool operator==(const Origin&) const = default;

   private:
    Kind kind_ = Kind::kUnknown;
    std::string place_;
    std::string file_;
  };

  /// What a finding or a place of the path says of a certificate.
  class PKX509_EXPORT Subject {
   public:
    Subject() = default;
    Subject(std::string subject, std::string issuer, std::string serial);

    const std::string& subject() const noexcept { return subject_; }
    const std::string& issuer() const noexcept { return issuer_; }
    /// Hexadecimal, in upper case, without leading zeros but for an even number of digits.
    const std::string& serial() const noexcept { return serial_; }
    bool empty() const noexcept { return subject_.empty() && issuer_.empty() && serial_.empty(); }

    bool operator==(const Subject&) const = default;

   private:
    std::string subject_;
    std::string issuer_;
    std::string serial_;
  };

  /// What is wrong, or why something does not count.
  class PKX509_EXPORT Finding {
   public:
    struct Content;

    explicit Finding(Content content);

    Rule rule() const noexcept;
    /// As `kRules` has it.
    std::string_view name() const noexcept { return factsOf(rule()).name; }
    Outcome outcome() const noexcept { return factsOf(rule()).outcome; }
    /// Of the certificate that it is about, 0 for the one that was verified; -1 when it is on no path.
    int depth() const noexcept;
    /// That certificate; empty where it is about none.
    const Subject& certificate() const noexcept;
    /// An `X509_V_ERR_*` code; 0 where OpenSSL has none for it.
    int code() const noexcept;
    /// In the order in which people want to read them.
    const std::vector<Detail>& details() const noexcept;
    /// Null when there is none of that name. Borrowed.
    const Value* find(std::string_view name) const noexcept;
    /// Where what it is about came from: the CRL, the answer, the certificate.
    const Origin& origin() const noexcept;
    /// Why: of verifications that served this certificate, and of sources.
    const std::vector<Finding>& nested() const noexcept;

   private:
    std::shared_ptr<const Content> content_;
  };

  /// How it stands with the revocation of a certificate.
  class PKX509_EXPORT RevocationResult {
   public:
    enum class Status {
      kNotChecked,
      kGood,
      kRevoked,
      kUndetermined,
      kNotNeeded  ///< no revocation information is ever published about it (RFC 9608)
    };
    /// A CRL or an OCSP answer by which it was decided.
    struct Statement {
      enum class Kind { kCRL, kDeltaCRL, kOCSP };
      Kind kind = Kind::kCRL;
      std::string issuer = {};  ///< or the responder
      std::string number = {};  ///< of a CRL, decimal; empty when it has none
      std::optional<Time> thisUpdate = {};
      std::optional<Time> nextUpdate = {};
      std::optional<std::uint64_t> entries = {};  ///< of a CRL
      Origin origin = {};
    };
    struct Content;

    RevocationResult();
    explicit RevocationResult(Content content);

    Status status() const noexcept;
    const std::vector<Statement>& decidedBy() const noexcept;
    /// Where it is revoked.
    const std::optional<Time>& date() const noexcept;
    /// As RFC 5280, 5.3.1, has it ("keyCompromise"); empty where there is none.
    const std::string& reason() const noexcept;

   private:
    std::shared_ptr<const Content> content_;
  };

  /// One certificate of the path.
  class PKX509_EXPORT Link {
   public:
    struct Content;

    explicit Link(Content content);

    const Subject& certificate() const noexcept;
    /// SHA-256, hexadecimal, in upper case.
    const std::string& fingerprint() const noexcept;
    const std::optional<Time>& notBefore() const noexcept;
    const std::optional<Time>& notAfter() const noexcept;
    const Origin& origin() const noexcept;
    const RevocationResult& revocation() const noexcept;

   private:
    std::shared_ptr<const Content> content_;
  };

  /// A source that was asked.
  class PKX509_EXPORT Source {
   public:
    enum class Kind { kDirectory, kLookupMethod, kLDAP, kCache, kCRLServer, kOCSPResponder };
    enum class Wanted { kCertificates, kCRLs, kAnswer };
    enum class Result {
      kFound,
      kNothing,
      kFailed,
      kRefused,  ///< by our own bounds or policies
      kCut       ///< something was found, and there may be more
    };
    struct Content;

    explicit Source(Content content);

    Kind kind() const noexcept;
    Wanted wanted() const noexcept;
    /// A directory, a URI, a lookup method's name.
    const std::string& origin() const noexcept;
    /// True when this verification had the answer already.
    bool fromMemory() const noexcept;
    Result result() const noexcept;
    std::size_t found() const noexcept;
    /// For people, where it failed; else empty.
    const std::string& reason() const noexcept;
    /// 0 where there is none.
    int httpStatus() const noexcept;
    int errorNumber() const noexcept;
    /// Of what came over the network.
    std::uint64_t bytes() const noexcept;
    std::uint64_t microseconds() const noexcept;
    /// How old what a cache has is, in seconds.
    const std::optional<std::int64_t>& age() const noexcept;

   private:
    std::shared_ptr<const Content> content_;
  };

  /// What it took, nested verifications included.
  struct Totals {
    std::uint64_t microseconds = 0;         ///< that went by
    std::uint64_t networkMicroseconds = 0;  ///< of these, on the network
    std::uint64_t networkBytes = 0;         ///< of CRLs
    std::uint64_t lookups = 0;              ///< of CRLs
  };

  struct Content;

  /// The report on nothing: its verdict is `X509_V_ERR_UNSPECIFIED`, its finding `kNotVerified`.
  VerificationReport();
  explicit VerificationReport(Content content);

  /// What `isValid()` returned; after an exception `X509_V_ERR_UNSPECIFIED`.
  int code() const noexcept;
  bool valid() const noexcept { return code() == 0; }
  Outcome outcome() const noexcept;
  /// The time that was verified for.
  const Time& checkTime() const noexcept;

  /// As far as it was built, the certificate that was verified first.
  const std::vector<Link>& path() const noexcept;
  std::size_t pathLeftOut() const noexcept;
  /// The decisive one first. Where the verdict is valid, what did not count.
  const std::vector<Finding>& findings() const noexcept;
  std::size_t findingsLeftOut() const noexcept;
  const std::vector<Source>& sources() const noexcept;
  std::size_t sourcesLeftOut() const noexcept;
  const Totals& totals() const noexcept;

  /// The decisive finding on one line of printable UTF-8, of at most `kMaximumLine` octets:
  /// certificate, depth, rule, values, source, and what to do.
  std::string line() const;

 private:
  std::shared_ptr<const Content> content_;
};

}  // namespace Velantrix::Crypto::PKX509
