#include "crl/CRLCache.h"
#include "foundation/base/DirectoryLock.h"
#include "foundation/run/Counters.h"
#include "store/HashFileHeader.h"
#include "support/Descriptor.h"
#include "support/Stopwatch.h"
#include "unit/store/Model.h"
#include "unit/store/Unprivileged.h"

#include <pkx509/HashDirLookup.h>
#include <velantrix/Exception.h>
#include <velantrix/File.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <set>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

using CRLs = std::list<RefCertificateRevocationList>;
using Names = std::set<std::string>;

class CRLCacheDirectory : public testing::Test {
 protected:
  /// A file of `size` bytes, made `age` seconds ago, that says that it runs out in `expires`
  /// seconds.
  void plant(const std::string& name, long age, long expires, std::size_t size = 500) {
    std::string content = HashFileHeader::text("http://other.test/", Time::then(expires, false));
    content.resize(size, '\n');
    plant(name, age, content);
  }
  void plant(const std::string& name, long age, const std::string& content) {
    writeFile(directory / name, content);
    setAge(name, age);
  }
  void setAge(const std::string& name, long age) {
    const timespec then{std::time(nullptr) - age, 0};
    const timespec times[2] = {then, then};
    ASSERT_EQ(::utimensat(AT_FDCWD, (directory / name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }

  void add(const CRLCache::Limits& limits) { add(limits, uri); }
  void add(const CRLCache::Limits& limits, const Uri& forURI) {
    CRLCache(directory.string(), limits).add(forURI, CRLs{crl});
  }

  /// What lies in the directory beside the file for `uri`.
  Names others() const {
    Names names;
    for (const auto& entry : fs::directory_iterator(directory.path())) {
      names.insert(entry.path().filename().string());
    }
    names.erase(own);
    return names;
  }
  bool ownIsThere() const {
    CRLs found;
    HashDirLookupMethod(directory.string()).getBySubject(uri, found);
    return found.size() == 1;
  }

  static std::string nameOf(int number) { return std::to_string(100000 + number) + ".r0"; }
  /// How many files in the watched directory were opened since the last call.
  static std::size_t filesOpened(const Descriptor& watch) {
    alignas(inotify_event) char events[16384];
    std::size_t opened = 0;
    ssize_t size = 0;
    while ((size = ::read(watch.number(), events, sizeof events)) > 0) {
      for (ssize_t at = 0; at < size;) {
        inotify_event event = {};
        std::memcpy(&event, events + at, sizeof event);
        EXPECT_EQ(event.mask & IN_Q_OVERFLOW, 0U);
        if ((event.mask & IN_ISDIR) == 0) ++opened;
        at += static_cast<ssize_t>(sizeof event + event.len);
      }
    }
    return opened;
  }

  static constexpr long kHour = 3600;
  static constexpr std::uint64_t kPlenty = 1 << 20;

  TempDir directory;
  Issued root = issueCA("CN=Root");
  RefCertificateRevocationList crl = crlHandle({.issuer = &root});
  Uri uri{"http://example.test/root.crl"};
  std::string own = HashDirLookupMethod::fileName(uri);
};

TEST(CRLCache, Limits_AreOneThousandFilesAndOneGibibyte) {
  EXPECT_EQ(CRLCache::Limits().files, 1000U);
  EXPECT_EQ(CRLCache::Limits().bytes, 1073741824U);
}

TEST_F(CRLCacheDirectory, BelowTheLimits_NothingIsRemoved) {
  plant("1.r0", 5 * kHour, -kHour);
  plant("2.r0", 4 * kHour, kHour);
  add({.files = 3, .bytes = kPlenty});
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others(), (Names{"1.r0", "2.r0"}));
  CRLCache(directory.string()).add(uri, CRLs{crl});
  EXPECT_EQ(others(), (Names{"1.r0", "2.r0"}));
}

TEST_F(CRLCacheDirectory, TooManyFiles_AllThatExpiredGoBeforeAnyOther) {
  plant("1.r0", 5 * kHour, kHour);  // the oldest
  plant("2.r0", 4 * kHour, kHour);
  plant("3.r0", 1 * kHour, -1);
  plant("4.r0", 2 * kHour, -kHour);
  add({.files = 4, .bytes = kPlenty});  // one of them would be enough
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others(), (Names{"1.r0", "2.r0"}));
}

TEST_F(CRLCacheDirectory, WhatComesAndGoes_IsCounted) {
  plant("1.r0", 2 * kHour, kHour);
  plant("2.r0", 5 * kHour, kHour);
  const CountedSince since;
  add({.files = 3, .bytes = kPlenty});
  EXPECT_EQ(since.of(Statistics::Counter::kCacheStored), 1U);
  EXPECT_EQ(since.of(Statistics::Counter::kCacheRemoved), 0U);
  EXPECT_EQ(Statistics::snapshot().cacheFiles(), 3U);
  plant("3.r0", 1 * kHour, kHour);
  add({.files = 3, .bytes = kPlenty});
  EXPECT_EQ(since.of(Statistics::Counter::kCacheRemoved), 1U);
  const Statistics now = Statistics::snapshot();
  EXPECT_EQ(now.cacheFiles(), 3U);
  const std::uint64_t held = fs::file_size(directory / own) + 2 * std::uint64_t{500};
  EXPECT_GE(now.cacheBytes(), held);
  EXPECT_LE(now.cacheBytes(), held + 8192);
  CRLCache(directory.string()).remove(uri, crl);
  EXPECT_EQ(since.of(Statistics::Counter::kCacheRemoved), 2U);
}

TEST_F(CRLCacheDirectory, TooManyFiles_TheOldestGoAsFarAsNeeded) {
  plant("1.r0", 2 * kHour, kHour);
  plant("2.r0", 5 * kHour, kHour);
  plant("3.r0", 1 * kHour, kHour);
  plant("4.r0", 4 * kHour, kHour);
  plant("5.r0", 3 * kHour, -kHour);
  add({.files = 3, .bytes = kPlenty});
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others(), (Names{"1.r0", "3.r0"}));
}

TEST_F(CRLCacheDirectory, TooManyBytes_ExpiredAndThenTheOldestGo) {
  plant("1.r0", 5 * kHour, kHour, 100000);
  plant("2.r0", 4 * kHour, kHour, 100000);
  plant("3.r0", 3 * kHour, kHour, 100000);
  plant("4.r0", 1 * kHour, -kHour, 100000);
  add({.files = 100, .bytes = 250000});
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others(), (Names{"2.r0", "3.r0"}));
}

TEST_F(CRLCacheDirectory, SizeOfWhatIsWritten_CountsBeforeItIsWritten) {
  crl =
      crlHandle({.issuer = &root, .rawExtensions = {{"1.2.3.4", false, std::string(100000, 'x')}}});
  plant("1.r0", 2 * kHour, kHour, 100000);
  plant("2.r0", 1 * kHour, kHour, 100000);
  add({.files = 100, .bytes = 280000});
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others(), (Names{"2.r0"}));
  EXPECT_LE(fs::file_size(directory / own) + 100000, 280000U);
}

TEST_F(CRLCacheDirectory, LengthOfTheURI_Counts) {
  uri = Uri("http://example.test/" + std::string(60000, 'u'));
  own = HashDirLookupMethod::fileName(uri);
  plant("1.r0", 1 * kHour, kHour, 50000);
  add({.files = 100, .bytes = 100000});
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others(), Names{});
}

TEST_F(CRLCacheDirectory, FileThatIsReplaced_DoesNotCount) {
  plant(own, 1 * kHour, kHour, 100000);
  plant("1.r0", 5 * kHour, kHour, 100000);
  add({.files = 2, .bytes = 150000});
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others(), (Names{"1.r0"}));
}

TEST_F(CRLCacheDirectory, FullCache_IsEmptiedByASixteenth) {
  for (int i = 0; i < 32; ++i) plant(nameOf(i), kHour - i, kHour);
  add({.files = 32, .bytes = kPlenty});
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others().size(), 29U);  // 30 of 32 with the new one
  for (int i = 0; i < 3; ++i) EXPECT_FALSE(others().contains(nameOf(i)));
}

TEST_F(CRLCacheDirectory, FullCache_IsEmptiedByASixteenthOfItsBytes) {
  for (int i = 0; i < 20; ++i) plant(nameOf(i), kHour - i, kHour, 100000);
  add({.files = 100, .bytes = 2000000});
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others().size(), 18U);
}

// Every file is looked into when the cache is full. If each new one made room for itself only, n of
// them would look into n times as many.
TEST_F(CRLCacheDirectory, ManyFilesAddedToAFullCache_LookIntoEachFewTimes) {
  constexpr int kLimit = 160;
  constexpr int kAdded = 40;
  for (int i = 0; i < kLimit; ++i) plant(nameOf(i), kHour, i % 4 == 0 ? -kHour + i : kHour);
  const Descriptor watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK), "inotify_init1");
  ASSERT_GE(::inotify_add_watch(watch.number(), directory.path().c_str(), IN_OPEN), 0);
  std::size_t opened = 0;
  for (int i = 0; i < kAdded; ++i) {
    // Each runs out at once, so that there is always one to be found.
    crl = crlHandle({.issuer = &root, .lastUpdate = -48h, .nextUpdate = -24h});
    add({.files = kLimit, .bytes = kPlenty}, Uri("http://example.test/" + std::to_string(i)));
    opened += filesOpened(watch);
    plant(nameOf(kLimit + i), kHour, kHour);
    static_cast<void>(filesOpened(watch));
  }
  EXPECT_GE(opened, std::size_t{kLimit + kAdded});  // or nothing was seen
  EXPECT_LE(opened, std::size_t{20} * kAdded + kLimit);
}

TEST_F(CRLCacheDirectory, AllOfItExpiredOrOld_OnlyTheNewOneStays) {
  plant("1.r0", 5 * kHour, kHour);
  plant("2.r0", 4 * kHour, -kHour);
  add({.files = 1, .bytes = kPlenty});
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others(), Names{});
}

TEST_F(CRLCacheDirectory, NoLimitIsLeft_TheNewOneIsWrittenAllTheSame) {
  plant("1.r0", 5 * kHour, kHour);
  add({.files = 0, .bytes = 0});
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others(), Names{});
}

TEST_F(CRLCacheDirectory, FileThatDoesNotSayWhenItRunsOut_CountsByItsAge) {
  const std::string block = pem(crl->native());
  plant("1.r0", 3 * kHour, block);
  plant("2.r0", 5 * kHour, "URI: http://other.test/\nExpires: soon\n" + block);
  plant("3.r0", 4 * kHour, "");
  plant("4.r0", 6 * kHour, kHour);
  add({.files = 3, .bytes = kPlenty});
  EXPECT_EQ(others(), (Names{"1.r0", "3.r0"}));
}

// The lines are read in blocks of 4096 bytes at first: lengths around it, where a number is cut.
TEST_F(CRLCacheDirectory, LongURI_ItsExpiryIsFoundBehindIt) {
  for (const std::size_t length : {4060UL, 4070UL, 4075UL, 4080UL, 4096UL, 65000UL}) {
    const std::string longURI = "http://other.test/" + std::string(length, 'a');
    for (const long expires : {-kHour, kHour}) {
      plant(
          "1.r0", 1 * kHour,
          HashFileHeader::text(longURI, Time::then(expires, false)) + "-----BEGIN X509 CRL-----\n");
      plant("2.r0", 2 * kHour, kHour);
      add({.files = 2, .bytes = kPlenty});
      EXPECT_EQ(others(), (Names{expires < 0 ? "2.r0" : "1.r0"})) << length;
    }
  }
}

TEST_F(CRLCacheDirectory, CRLWithoutNextUpdate_ExpiresADayAfterItWasWritten) {
  const Uri other("http://example.test/other.crl");
  const std::string name = HashDirLookupMethod::fileName(other);
  CRLCache(directory.string())
      .add(other, CRLs{crlHandle({.issuer = &root, .nextUpdate = std::nullopt})});
  const HashFileHeader header = HashFileHeader::parse(readFile(directory / name));
  ASSERT_TRUE(header.expires.has_value());
  EXPECT_GE(*header.expires, Time::then(86400 - 60, false));
  EXPECT_LE(*header.expires, Time::then(86400, false));
}

TEST_F(CRLCacheDirectory, EmptyList_ChangesNothing) {
  plant("1.r0", 5 * kHour, -kHour);
  CRLCache(directory.string(), {.files = 0, .bytes = 0}).add(uri, CRLs());
  EXPECT_EQ(others(), (Names{"1.r0"}));
  EXPECT_FALSE(ownIsThere());
}

TEST_F(CRLCacheDirectory, SeveralCRLs_TheLastOneStays) {
  const RefCertificateRevocationList last = crlHandle({.issuer = &root, .number = 7});
  CRLCache(directory.string()).add(uri, CRLs{crl, last});
  EXPECT_TRUE(readFile(directory / own).ends_with(pem(last->native())));
}

TEST_F(CRLCacheDirectory, WhatIsStoredAndRemoved_IsCounted) {
  using Counter = Statistics::Counter;
  const CountedSince since;
  plant("1.r0", 5 * kHour, -kHour);
  plant("2.r0", 4 * kHour, kHour);
  plant("3.r0-tmp-0123456789abcdef", 3 * kHour, kHour);
  add({.files = 1, .bytes = kPlenty});
  EXPECT_EQ(since.of(Counter::kCacheStored), 1U);
  EXPECT_EQ(since.of(Counter::kCacheRemoved), 2U);  // a leftover is no CRL
  CRLCache(directory.string()).remove(uri, crl);
  EXPECT_EQ(since.of(Counter::kCacheRemoved), 3U);
  EXPECT_THROW(CRLCache((directory / "missing").string()).add(uri, CRLs{crl}), Exception);
  EXPECT_EQ(since.of(Counter::kCacheStored), 1U);
}

TEST_F(CRLCacheDirectory, WriterThatIsNotWanted_ChangesNothing) {
  plant("1.r0", 5 * kHour, -kHour);
  bool written = false;
  CRLCache full(directory.string(), {.files = 0, .bytes = 0});
  EXPECT_FALSE(full.write(uri, {.wanted = [] { return false; }, .write = [&] { written = true; }}));
  EXPECT_FALSE(written);
  EXPECT_EQ(others(), (Names{"1.r0"}));
  EXPECT_TRUE(full.write(uri, {.write = [&] { written = true; }}));
  EXPECT_TRUE(written);
  EXPECT_EQ(others(), Names{});
}

// -------------------------------------------------------------------------------- others' files

TEST_F(CRLCacheDirectory, FilesThatTheLibraryDoesNotName_AreNeitherRemovedNorCounted) {
  const char* const names[] = {
      "README",
      ".r0",
      "1.0",
      "1.r1",
      "1.r00",
      "1.r",
      "1.R0",
      "1.pem",
      "1",
      "A.r0",
      "1A.r0",
      "g.r0",
      "1 .r0",
      " 1.r0",
      "-1.r0",
      "123456789.r0",
      "01.r0",  // no key is written with zeros in front
      "00000001.r0",
      "1.r0.bak",
      "1.r0~",
      "1.r0-tmp",
      "1.r0-tmp-",
      "1.r0-tmp-notes",
      "1.r0-tmp-0123456789abcde",
      "1.r0-tmp-0123456789abcdef0",
      "1.r0-tmp-0123456789abcdeF",
      "x1.r0-tmp-0123456789abcdef",
      "1.0-tmp-0123456789abcdef",
      "1.r0 -tmp-0123456789abcdef",
  };
  for (const char* const name : names) plant(name, 5 * kHour, -kHour, 100000);
  const Names before = others();
  ASSERT_EQ(before.size(), std::size(names));
  plant("1.r0", kHour, kHour);
  add({.files = 2, .bytes = 50000});
  Names expected = before;
  expected.insert("1.r0");  // they leave room for it
  EXPECT_EQ(others(), expected);
  add({.files = 0, .bytes = 0});
  EXPECT_EQ(others(), before);
}

TEST_F(CRLCacheDirectory, AllNamesOfTheLibrary_CountAndMakeRoom) {
  const char* const names[] = {"0.r0", "1.r0", "a.r0", "1f.r0", "4a6481c9.r0", "ffffffff.r0"};
  for (const char* const name : names) plant(name, 5 * kHour, kHour);
  add({.files = 0, .bytes = 0});
  EXPECT_EQ(others(), Names{});
}

TEST_F(CRLCacheDirectory, WhatKilledWritersLeft_CountsAndMakesRoom) {
  plant("4a6481c9.r0-tmp-0123456789abcdef", 5 * kHour, "");
  plant("4a6481c9.r0-tmp-fedcba9876543210", 4 * kHour, -kHour, 100000);
  plant("0.r0-tmp-0000000000000000", 3 * kHour, "URI: http://other.te");
  plant("1.r0", 2 * kHour, kHour);
  add({.files = 2, .bytes = kPlenty});
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others(), (Names{"1.r0"}));
}

TEST_F(CRLCacheDirectory, WhatIsNoRegularFile_IsNeitherRemovedNorCounted) {
  const TempDir elsewhere;
  writeFile(elsewhere / "target", std::string(100000, 'x'));
  fs::create_symlink(elsewhere / "target", directory / "1.r0");
  fs::create_symlink(directory / "nowhere", directory / "2.r0");
  fs::create_directory(directory / "3.r0");
  ASSERT_EQ(::mkfifo((directory / "4.r0").c_str(), 0600), 0);
  for (const char* const name : {"1.r0", "2.r0", "3.r0", "4.r0"}) setAge(name, 5 * kHour);
  const Names before = others();
  plant("5.r0", kHour, kHour);
  add({.files = 2, .bytes = 50000});
  Names expected = before;
  expected.insert("5.r0");
  EXPECT_EQ(others(), expected);
  add({.files = 0, .bytes = 0});
  EXPECT_EQ(others(), before);
  EXPECT_TRUE(fs::exists(elsewhere / "target"));
}

// -------------------------------------------------------------------------------------- removing

TEST_F(CRLCacheDirectory, FileThatHoldsTheCRL_IsRemoved) {
  plant("1.r0", kHour, kHour);
  add({});
  CRLCache(directory.string()).remove(Uri("HTTP://example.test:80/root.crl"), crl);
  EXPECT_FALSE(ownIsThere());
  for (const std::string& content : {pem(crl->native()), der(crl->native())}) {
    plant(own, kHour, content);  // by somebody else
    CRLCache(directory.string()).remove(uri, crl);
    EXPECT_FALSE(fs::exists(directory / own));
  }
  EXPECT_EQ(others(), (Names{"1.r0"}));
  EXPECT_NO_THROW(CRLCache(directory.string()).remove(uri, crl));
}

TEST_F(CRLCacheDirectory, FileThatHoldsAnythingElse_StaysWhenOneIsToBeRemoved) {
  const RefCertificateRevocationList other = crlHandle({.issuer = &root, .number = 7});
  const std::string block = pem(crl->native());
  for (const std::string& content :
       {pem(other->native()), pem(other->native()) + block, std::string(),
        "URI: http://example.test/other.crl\nExpires: 99999999999\n" + block}) {
    writeFile(directory / own, content);
    CRLCache(directory.string()).remove(uri, crl);
    EXPECT_EQ(readFile(directory / own), content);
  }
  writeFile(directory / own, "garbage");
  EXPECT_THROW(CRLCache(directory.string()).remove(uri, crl), Exception);
  EXPECT_TRUE(fs::exists(directory / own));
  // Another name, a link, a directory in its place.
  fs::rename(directory / own, directory / "1.r0");
  writeFile(directory / "1.r0", block);
  fs::create_symlink("1.r0", directory / own);
  CRLCache(directory.string()).remove(uri, crl);
  EXPECT_TRUE(fs::is_symlink(directory / own));
  EXPECT_TRUE(fs::exists(directory / "1.r0"));
  fs::remove(directory / own);
  fs::create_directory(directory / own);
  EXPECT_NO_THROW(CRLCache(directory.string()).remove(uri, crl));
  EXPECT_TRUE(fs::exists(directory / own));
}

TEST_F(CRLCacheDirectory, FileThatSomebodyIsWriting_IsNotRemoved) {
  add({});
  const DirectoryLock writer(directory.string(), 0ms);
  CRLCache(directory.string()).remove(uri, crl);
  EXPECT_TRUE(ownIsThere());
}

// ---------------------------------------------------------------------------------- many writers

TEST_F(CRLCacheDirectory, EightWriters_KeepTheLimits) {
  constexpr std::size_t kLimit = 40;
  for (int i = 0; i < 40; ++i) plant(nameOf(i), kHour, kHour);
  std::atomic<int> added = 0;
  std::atomic<int> writing = 8;
  std::vector<std::thread> writers;
  for (int writer = 0; writer < 8; ++writer) {
    writers.emplace_back([&, writer] {
      for (int i = 0; i < 15; ++i) {
        const Uri one("http://example.test/" + std::to_string(writer * 1000 + i));
        try {
          add({.files = kLimit, .bytes = kPlenty}, one);
          ++added;
        } catch (const Exception& busy) {
          EXPECT_NE(busy.asString().find("Another writer"), std::string::npos) << busy.asString();
        }
      }
      --writing;
    });
  }
  std::size_t most = 0;
  while (writing > 0) {
    const Names names = others();
    most = std::max(most, static_cast<std::size_t>(std::count_if(
                              names.begin(), names.end(),
                              [](const std::string& name) { return name.ends_with(".r0"); })));
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_LE(most, kLimit);
  EXPECT_LE(others().size(), kLimit);
  EXPECT_GT(added, 20);
}

TEST_F(CRLCacheDirectory, WriterThatIsStuck_IsNotWaitedForLong) {
  plant("1.r0", 5 * kHour, -kHour);
  {
    const DirectoryLock stuck(directory.string(), std::chrono::milliseconds(0));
    ASSERT_TRUE(stuck.held());
    const Stopwatch watch;
    EXPECT_THROW(add({.files = 1, .bytes = kPlenty}), Exception);
    EXPECT_TRUE(watch.took(std::chrono::milliseconds(300)));
    EXPECT_EQ(others(), (Names{"1.r0"}));
    EXPECT_FALSE(ownIsThere());
  }
  add({.files = 1, .bytes = kPlenty});
  EXPECT_TRUE(ownIsThere());
  EXPECT_EQ(others(), Names{});
}

// --------------------------------------------------------------------------------------- failures

TEST_F(CRLCacheDirectory, DirectoryThatIsMissing_IsAnExceptionAndIsNotMade) {
  const fs::path missing = directory / "missing";
  EXPECT_THROW(CRLCache(missing.string()).add(uri, CRLs{crl}), Exception);
  EXPECT_FALSE(fs::exists(missing));
}

TEST_F(CRLCacheDirectory, DirectoryThatIsAFile_IsAnException) {
  writeFile(directory / "file", "x");
  EXPECT_THROW(CRLCache((directory / "file").string()).add(uri, CRLs{crl}), Exception);
  EXPECT_EQ(readFile(directory / "file"), "x");
}

TEST_F(CRLCacheDirectory, DirectoryThatCannotBeRead_IsAnExceptionAndNothingChanges) {
  plant("1.r0", 5 * kHour, -kHour);
  const Unprivileged rights;
  ASSERT_EQ(::chmod(directory.path().c_str(), 0300), 0);
  EXPECT_THROW(add({.files = 1, .bytes = kPlenty}), Exception);
  ASSERT_EQ(::chmod(directory.path().c_str(), 0700), 0);
  EXPECT_EQ(others(), (Names{"1.r0"}));
  EXPECT_FALSE(ownIsThere());
}

TEST_F(CRLCacheDirectory, DirectoryThatCannotBeWritten_IsAnExceptionAndNothingChanges) {
  plant("1.r0", 5 * kHour, -kHour);
  plant("2.r0", 5 * kHour, kHour);
  const Unprivileged rights;
  ASSERT_EQ(::chmod(directory.path().c_str(), 0500), 0);
  EXPECT_THROW(add({.files = 1, .bytes = kPlenty}), Exception);
  ASSERT_EQ(::chmod(directory.path().c_str(), 0700), 0);
  EXPECT_EQ(others(), (Names{"1.r0", "2.r0"}));
}

TEST_F(CRLCacheDirectory, FileThatCannotBeRead_GoesByItsAge) {
  plant("1.r0", 5 * kHour, -kHour);
  plant("2.r0", 6 * kHour, kHour);
  const Unprivileged rights;
  ASSERT_EQ(::chmod((directory / "1.r0").c_str(), 0), 0);
  add({.files = 2, .bytes = kPlenty});
  EXPECT_EQ(others(), (Names{"1.r0"}));
}

TEST_F(CRLCacheDirectory, FilesThatVanishMeanwhile_DoNoHarm) {
  constexpr int kFiles = 200;
  const auto name = [](int i) { return std::to_string(100 + i % kFiles) + ".r0"; };
  for (int i = 0; i < kFiles; ++i) plant(name(i), 5 * kHour, kHour);
  std::atomic<bool> done = false;
  std::thread remover([&] {
    for (int i = 0; !done; ++i) {
      writeFile(directory / name(i + kFiles / 2), "x");
      fs::remove(directory / name(i));
    }
  });
  for (int i = 0; i < 40; ++i) EXPECT_NO_THROW(add({.files = 20, .bytes = kPlenty}));
  done = true;
  remover.join();
  add({.files = 20, .bytes = kPlenty});
  EXPECT_TRUE(ownIsThere());
  EXPECT_LE(others().size(), 19U);
}

}  // namespace
}  // namespace Velantrix::Test
