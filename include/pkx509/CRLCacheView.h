/// @file
/// What the cache of fetched CRLs holds, and taking things out of it: for programs of operators.
///
/// @code
///   CRLCacheView cache;
///   cache.visit([](const CRLCacheView::Entry& entry) {
///     std::cout << entry.file() << ' ' << entry.size() << '\n';
///   });
///   cache.flush(Uri("http://crl.example.com/ca.crl"));
/// @endcode
#pragma once

#include <pkx509/FixedPaths.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Export.h>
#include <velantrix/Time.h>
#include <velantrix/Uri.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509 {

/// The files of a cache of CRLs, and what is remembered of hosts that failed.
///
/// **Trust.** Nothing is verified. Names, URIs and reasons are as strangers wrote them, control
/// characters and passwords included: the reader escapes what its own medium needs, and leaves out
/// what is not for everybody.
///
/// **Memory.** One CRL at a time. The cache may have a thousand of 64 MiB.
///
/// **Threads and processes** may read and write the cache meanwhile. Each file is seen as it was at
/// one moment, the directory is not.
class PKX509_EXPORT CRLCacheView {
 public:
  /// That a place could not be fetched, the last time that it was tried.
  struct Failure {
    Time at = {};             ///< when that was
    Time until = {};          ///< verifications do not ask before
    unsigned int inARow = 0;  ///< how often it has failed since it answered last
    std::string reason = {};  ///< for people
    int httpStatus = 0;       ///< 0 where there was none
    int errorNumber = 0;      ///< of the system; 0 where there was none
    bool ofHost = false;      ///< all that the host serves is concerned, not the one URI
  };

  /// A file of the cache. Handles are shared, so that who keeps an
  /// entry keeps its CRL in memory.
  class PKX509_EXPORT Entry {
   public:
    struct Part;
    explicit Entry(std::shared_ptr<const Part> part) noexcept;

    /// Its path.
    const std::string& file() const noexcept;
    /// The normal form, as the file names it; empty where it does not.
    const std::string& uri() const noexcept;
    /// Of the file, in octets.
    std::uint64_t size() const noexcept;
    /// When the file came to be.
    Time stored() const noexcept;
    /// When the host last gave or confirmed just this; empty where the file does not say.
    std::optional<Time> fetched() const noexcept;
    /// Empty where the file cannot be read, or has none.
    RefCertificateRevocationList crl() const;
    /// Of the CRL, decimal; one that is longer than RFC 5280, 5.2.3, allows is hexadecimal. Empty where
    /// it has none.
    std::string number() const;
    /// When the CRL runs out: at its nextUpdate, or a day after it was stored where it has none. Empty
    /// where there is no CRL.
    std::optional<Time> expires() const;
    /// Why there is no CRL, for people; empty where there is one.
    const std::string& problem() const noexcept;
    /// Of the URI, or else of its host; empty where the last fetch was none. Where the directory
    /// cannot be written a process keeps to itself what failed, and nothing shows here.
    const std::optional<Failure>& failure() const noexcept;

   private:
    std::shared_ptr<const Part> part_;
  };

  /// What failed the last time that it was asked, and of which no file of the cache tells.
  struct Failing {
    enum class Of : unsigned char {
      kURI,       ///< of a CRL
      kHost,      ///< all that it serves: scheme, host and port
      kResponder  ///< of OCSP answers
    };
    Of of = Of::kURI;
    std::string place = {};  ///< without user, password, query and fragment; at most 1024 octets
    /// 64 digits. Of a URI's normal form, so that those which differ in what is left out stay apart; of a
    /// host or a responder with "host " or "ocsp " before it.
    std::string sha256 = {};
    Failure failure = {};
  };

  using Visitor = std::function<void(const Entry&)>;
  using FailingVisitor = std::function<void(const Failing&)>;

  /// What went.
  struct Flushed {
    std::size_t files = 0;
    std::size_t failures = 0;  ///< that were remembered
  };

  explicit CRLCacheView(const std::string& directory = kCRLCacheDirectory);

  /// Shows every file to @p visitor, in the order of their names; one that cannot be read with its
  /// problem.
  /// @throws Exception when there is no such directory or it cannot be read, and what the visitor
  ///         throws
  void visit(const Visitor& visitor) const;
  /// After the files, in the order of places, shows @p failing what has failed and no file tells of.
  /// @throws what `visit` does, and what @p failing throws
  void visit(const Visitor& visitor, const FailingVisitor& failing) const;

  /// The file of @p uri; empty where there is none, or one that names another URI. One that cannot be
  /// read has a problem.
  std::optional<Entry> find(const Uri& uri) const;

  /// Forgets that the URI, as a CRL's or a responder's, or its host failed, and what was fetched a moment ago and is not verified: who
  /// wants a CRL from there next asks the host.
  /// @return how many failures were remembered
  std::size_t forget(const Uri& uri);
  /// Removes the file of @p uri, and forgets as `forget` does.
  /// @throws Exception when it cannot be removed
  Flushed flush(const Uri& uri);
  /// The same for all that the cache holds. What others keep in the directory stays.
  /// @throws Exception when something cannot be removed
  Flushed flushAll();

 private:
  std::string directory_;
};

}  // namespace Velantrix::Crypto::PKX509
