// Threads that look up what other threads of the process have read, while the files change in every way that
// files can change. With PKX509_FILE_CHANGES_SECONDS in the environment it lasts as long as that says.
#include "foundation/base/FileStamp.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "store/SharedDirectoryLookup.h"
#include "support/Files.h"
#include "support/Handles.h"
#include "support/Pki.h"
#include "threads/Threads.h"

#include <pkx509/FileCache.h>
#include <pkx509/HashDirLookup.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>

#include <openssl/x509_vfy.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <list>
#include <random>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

// A file of which each state has a number.
class ChangingFile {
 public:
  explicit ChangingFile(fs::path path) : path_(std::move(path)) {}
  virtual ~ChangingFile() = default;
  ChangingFile(const ChangingFile&) = delete;
  ChangingFile& operator=(const ChangingFile&) = delete;

  // In one way or another.
  void change(std::mt19937& random) {
    const int next = done + 1;
    started = next;
    const std::string content = stateOf(next);
    switch (random() % 5) {
      case 0:
      case 1:
        replace(content);
        break;
      case 2:
        overwrite(content);
        break;
      case 3:
        writeFile(path_, content);
        break;
      default:
        fs::remove(path_);
        writeFile(path_, content);
        break;
    }
    if (random() % 3 == 0) {
      const timespec longAgo[] = {{1000, 0}, {1000, 0}};
      ::utimensat(AT_FDCWD, path_.c_str(), longAgo, 0);
    }
    done = next;
  }

  // What is there when nobody changes it, or one of those between which it is changed; or, meanwhile,
  // something that nobody would believe.
  void check() {
    const int least = done;
    int found = kNothing;
    try {
      found = look();
    } catch (const Exception&) {
      // It is cut short just now.
    }
    const int most = started;
    ++looks;
    if (found == kNothing) {
      if (least == most) ++unexplained;
    } else if (found < least || found > most) {
      ++unexplained;
    }
  }

  std::atomic<int> started = 0;
  std::atomic<int> done = 0;
  std::atomic<int> looks = 0;
  std::atomic<int> unexplained = 0;

 protected:
  static constexpr int kNothing = -1;

  // All are of one size.
  virtual std::string stateOf(int number) const = 0;
  virtual int look() const = 0;

  static std::string serialOf(int number) {
    std::array<char, 9> text{};
    std::snprintf(text.data(), text.size(), "%08X",
                  0x40000000U + static_cast<unsigned int>(number));
    return text.data();
  }
  static int numberOf(const Crypto::ASN1::Integer& serial) {
    return static_cast<int>(std::stoul(serial.asString(), nullptr, 16) - 0x40000000U);
  }

 private:
  void replace(const std::string& content) const {
    const fs::path other = path_.string() + ".new";
    writeFile(other, content);
    fs::rename(other, path_);
  }
  void overwrite(const std::string& content) const {
    const int file = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    if (file < 0) return writeFile(path_, content);
    EXPECT_EQ(::pwrite(file, content.data(), content.size(), 0),
              static_cast<ssize_t>(content.size()));
    ::close(file);
  }

  fs::path path_;
};

const Issued& authority() {
  static const Issued made =
      issue({.subject = "C=DE,O=Changes,CN=CA", .ca = true, .keyKind = KeyKind::Ed25519});
  return made;
}

class ChangingCRL : public ChangingFile {
 public:
  explicit ChangingCRL(const TempDir& directory)
      : ChangingFile(directory / crlHashName(makeCRL({.issuer = &authority()}).get())),
        method_(directory.string()) {}

 private:
  std::string stateOf(int number) const override {
    return pem(makeCRL({.issuer = &authority(), .number = Serial(serialOf(number).c_str())}).get());
  }
  int look() const override {
    std::list<RefCertificateRevocationList> found;
    method_.getBySubject(handle(authority())->subject(), found);
    if (found.size() != 1 || !found.front()->isSignedBy(authority().key.get())) return kNothing;
    return numberOf(found.front()->crlNumber());
  }

  mutable HashDirLookupMethod method_;
};

class ChangingCertificate : public ChangingFile {
 public:
  explicit ChangingCertificate(const TempDir& directory)
      : ChangingFile(directory / hashName(leafOf("40000000").get())) {}

 protected:
  static const DistinguishedName& name() {
    static const DistinguishedName made = handle(leafOf("40000000"))->subject();
    return made;
  }
  static int numberOfCertificate(const RefCertificate& found) {
    return found->issuedBy(handle(authority()), false) ? numberOf(found->serialNumber()) : kNothing;
  }

 private:
  static Issued leafOf(const std::string& serial) {
    return issue({.subject = "C=DE,O=Changes,CN=Leaf",
                  .issuer = &authority(),
                  .serial = Serial(serial.c_str()),
                  .key = authority().key});
  }
  std::string stateOf(int number) const override { return pem(leafOf(serialOf(number)).get()); }
};

// Found by a lookup method that lasts.
class KnownCertificate : public ChangingCertificate {
 public:
  explicit KnownCertificate(const TempDir& directory)
      : ChangingCertificate(directory), method_(directory.string()) {}

 private:
  int look() const override {
    std::list<RefCertificate> found;
    method_.getBySubject(name(), found);
    return found.size() == 1 ? numberOfCertificate(found.front()) : kNothing;
  }

  mutable HashDirLookupMethod method_;
};

// Found in a trust directory by a store that is made for it, as for each message.
class TrustedCertificate : public ChangingCertificate {
 public:
  explicit TrustedCertificate(const TempDir& directory)
      : ChangingCertificate(directory), directory_(directory.string()) {}

 private:
  int look() const override {
    const Crypto::ErrorScope errors;
    const Crypto::Owned<X509_STORE> store(X509_STORE_new());
    if (addDirectories(store.get(), directory_, X509_FILETYPE_PEM) != 1) return kNothing;
    const Crypto::Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
    if (X509_STORE_CTX_init(context.get(), store.get(), nullptr, nullptr) != 1) return kNothing;
    const Crypto::Owned<X509_OBJECT> found(
        X509_STORE_CTX_get_obj_by_subject(context.get(), X509_LU_X509, name().native()));
    if (found == nullptr) return kNothing;
    return numberOfCertificate(CertificateFactory()(X509_OBJECT_get0_X509(found.get()), false));
  }

  std::string directory_;
};

std::chrono::milliseconds duration() {
  // NOLINTNEXTLINE(concurrency-mt-unsafe): before there are threads.
  const char* const wanted = std::getenv("PKX509_FILE_CHANGES_SECONDS");
  return wanted == nullptr ? 700ms : std::chrono::milliseconds(1000 * std::atol(wanted));
}

TEST(FileChanges, TenThreadsLookUpMeanwhile_EachFindsWhatIsOrWasThere) {
  const TempDir directory;
  const TempDir trustDirectory;
  ChangingCRL crl(directory);
  KnownCertificate known(directory);
  TrustedCertificate trusted(trustDirectory);
  ChangingFile* const files[] = {&crl, &known, &trusted};
  std::mt19937 random(4711);
  FileCache::clear();
  // The two seconds of coarse clocks at fifty times the speed: a tick of 20 ms, and what is 40 ms old is
  // settled.
  const CoarseStamps coarse(20ms);
  const StampClockAhead ahead(1960ms);
  for (ChangingFile* const file : files) file->change(random);
  const auto end = std::chrono::steady_clock::now() + duration();
  std::atomic<std::size_t> kept = 0;
  onThreads(11, [&](int thread) {
    while (std::chrono::steady_clock::now() < end) {
      if (thread > 0) {
        for (ChangingFile* const file : files) file->check();
        kept = std::max<std::size_t>(kept, FileCache::usage().files);
        std::this_thread::sleep_for(1ms);
        continue;
      }
      // Several times within a tick, or after it has been left alone.
      for (auto times = random() % 4 + 1; times > 0; --times) {
        for (ChangingFile* const file : files) file->change(random);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(random() % 100));
    }
  });
  for (const ChangingFile* const file : files) {
    EXPECT_EQ(file->unexplained, 0) << "of " << file->looks << " at " << file->done << " states";
  }
  EXPECT_GT(kept, 0U);
  FileCache::clear();
}

}  // namespace
}  // namespace Velantrix::Test
