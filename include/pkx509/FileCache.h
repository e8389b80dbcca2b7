/// @file
/// How much memory the process spends on not reading files twice.
///
/// @code
///   FileCache::limit(std::size_t{64} * 1024 * 1024);  // at the start of a small daemon
///   ...
///   const FileCache::Usage used = FileCache::usage();
///   std::cout << used.files << " files, " << used.bytes << " bytes\n";
/// @endcode
#pragma once

#include <velantrix/Export.h>

#include <cstddef>

namespace Velantrix::Crypto::PKX509 {

/// The certificates and CRLs of files that look-ups have read, kept parsed for the whole process and shared
/// by its stores, verifiers and threads, so that a daemon may make a store for each thing it verifies.
///
/// **It does not show** in verdicts, exceptions, reports and log lines. Each look-up looks at the file (one
/// `stat(2)`): what was read counts for as long as device, inode, size and the times of the last modification
/// and of the last change are the same. Since clocks of file systems are coarse, nothing is kept of a file
/// that was changed in the two seconds before it was read, nor of one that changed meanwhile. What is damaged
/// is known to be so and reported as if it were read again; a file that cannot be read is tried again. Bounds
/// of a verification count what it takes from here as if it had read it.
///
/// **What is not kept**: files on file systems that are not known to be this machine's own (NFS, SMB, FUSE),
/// which are read each time, and what the public factories (`CertificateFactory`,
/// `CertificateRevocationListFactory`) read: these make new objects. Whoever writes to a file through a memory
/// mapping has to change its times (`msync(2)` does) for that to be noticed.
///
/// **Privileges.** What was read as one effective user and group is forgotten when the process is found to
/// have another. Other means of access, capabilities and supplementary groups, are not looked at: a process
/// that gives those up and keeps its user calls `clear()`.
///
/// **Objects are shared**: handles of one file that two look-ups return may be of the same object. As the
/// classes say, nobody may change what they wrap.
///
/// **Threads and processes.** All functions may be called by any thread at any time. A child that is forked
/// goes on with what its parent has.
class PKX509_EXPORT FileCache {
 public:
  static constexpr std::size_t kDefaultLimit = std::size_t{256} * 1024 * 1024;

  /// How many bytes of memory what is kept may take, about: a parsed certificate takes some 7 KB, a CRL 1.2
  /// times its DER, and seven times more once somebody has asked for OpenSSL's object of it. What was not
  /// used for longest makes way. With 0 nothing is kept.
  static void limit(std::size_t bytes) noexcept;
  static std::size_t limit() noexcept;

  /// Forgets everything. Objects that are in use stay with their users.
  static void clear() noexcept;

  struct Usage {
    /// A file counts once for each kind of object that is looked for in it; a directory for its names.
    std::size_t files = 0;
    std::size_t bytes = 0;  ///< of memory, about
  };
  static Usage usage() noexcept;
};

}  // namespace Velantrix::Crypto::PKX509
