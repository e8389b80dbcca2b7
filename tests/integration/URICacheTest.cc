// The cache of CRLs fetched by URI where it is broken, full, missing, shared or left by a killed
// writer: what was fetched is found all the same, and a file is whole or not there.
#include "integration/OwnNamespaces.h"
#include "integration/URIFixture.h"
#include "support/Process.h"
#include "unit/store/Unprivileged.h"

#include <poll.h>
#include <random>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <thread>

namespace Velantrix::Test {
namespace {

class URICache : public URIFixture {
 protected:
  /// What the file for the URI holds when this CRL was stored there, but for the times.
  static bool isWhole(const std::string& content, const std::string& block) {
    return content.starts_with("URI: ") && content.size() > block.size() &&
           content.find("-----BEGIN") == content.size() - block.size() && content.ends_with(block);
  }

  static Descriptor watchCache() {
    Descriptor watch(inotify_init1(IN_CLOEXEC), "inotify_init1");
    if (inotify_add_watch(watch.number(), kCRLCacheDirectory, IN_CREATE | IN_MODIFY) < 0) {
      failWithError("inotify_add_watch", errno);
    }
    return watch;
  }
  static bool waitForChange(const Descriptor& watch) {
    pollfd wait{watch.number(), POLLIN, 0};
    return poll(&wait, 1, 10000) == 1;
  }
};

TEST_F(URICache, BrokenEntry_IsReplacedByAFetch) {
  const std::string block = pem(crl(1).get());
  const struct {
    const char* name;
    std::string content;
  } rows[] = {
      {"empty", ""},
      {"garbage", "garbage"},
      {"zeros", std::string(1000, '\0')},
      {"cut", block.substr(0, block.size() / 2)},
      {"a certificate", pem(ca.get())},
      {"header without a CRL", "URI: http://127.0.0.1/\nExpires: 1\n"},
      {"fresh CRL of another URI", "URI: http://other.test/ca.crl\nExpires: 99999999999\n" + block},
      {"expired", pem(expiredCRL(1).get())},
  };
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const std::string uri = server.url("/ca.crl");
  std::size_t fetches = 0;
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    writeFile(cacheFile(uri), row.content);
    EXPECT_EQ(found(uri), Numbers{"7"});
    EXPECT_TRUE(isCached(uri, crl(7)));
    EXPECT_EQ(server.connections().size(), ++fetches);
    EXPECT_EQ(found(uri), Numbers{"7"});
    EXPECT_EQ(server.connections().size(), fetches);
  }
  EXPECT_EQ(log.text(), "");
}

TEST_F(URICache, LinkInThePlaceOfTheFile_IsReplacedAndNotWrittenThrough) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const std::string uri = server.url("/ca.crl");
  const TempDir elsewhere;
  writeFile(elsewhere / "precious", "precious");
  for (const fs::path& target : {elsewhere / "precious", elsewhere / "missing"}) {
    fs::remove(cacheFile(uri));
    fs::create_symlink(target, cacheFile(uri));
    EXPECT_EQ(found(uri), Numbers{"7"});
    EXPECT_FALSE(fs::is_symlink(cacheFile(uri)));
    EXPECT_TRUE(isCached(uri, crl(7)));
  }
  EXPECT_EQ(readFile(elsewhere / "precious"), "precious");
  EXPECT_FALSE(fs::exists(elsewhere / "missing"));
}

TEST_F(URICache, WhatIsNoFileInItsPlace_CostsAFetchEachTime) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const std::string uri = server.url("/ca.crl");
  fs::create_directory(cacheFile(uri));
  EXPECT_EQ(found(uri), Numbers{"7"});
  EXPECT_EQ(found(uri), Numbers{"7"});
  EXPECT_TRUE(fs::is_empty(cacheFile(uri)));
  fs::remove(cacheFile(uri));
  ASSERT_EQ(::mkfifo(cacheFile(uri).c_str(), 0600), 0);  // opening it would block
  EXPECT_EQ(found(uri), Numbers{"7"});
  EXPECT_TRUE(fs::is_fifo(cacheFile(uri)));
  EXPECT_EQ(server.connections().size(), 3U);
  EXPECT_EQ(cacheNames().size(), 1U);
}

TEST_F(URICache, LeftoverOfAKilledWriter_IsNotRead) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const std::string uri = server.url("/ca.crl");
  const std::string leftover = cacheFile(uri).string() + "-tmp-0123456789abcdef";
  writeFile(leftover, "URI: " + uri + "\nExpires: 99999999999\n" + pem(crl(1).get()));
  EXPECT_EQ(found(uri), Numbers{"7"});
  EXPECT_EQ(cacheNames().size(), 2U);
}

// ------------------------------------------------------------------------- caches out of order

TEST_F(URICache, MissingDirectory_CostsTheCacheAndIsNotMade) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const std::string uri = server.url("/ca.crl");
  fs::remove(kCRLCacheDirectory);
  EXPECT_EQ(found(uri), Numbers{"7"});
  EXPECT_EQ(found(uri), Numbers{"7"});
  EXPECT_FALSE(fs::exists(kCRLCacheDirectory));
  EXPECT_EQ(server.connections().size(), 2U);
  EXPECT_EQ(log.text(), "");

  writeFile(kCRLCacheDirectory, "a file");
  EXPECT_EQ(found(uri), Numbers{"7"});
  EXPECT_EQ(readFile(kCRLCacheDirectory), "a file");
  fs::remove(kCRLCacheDirectory);
  fs::create_directory(kCRLCacheDirectory);
}

TEST_F(URICache, DirectoryWithoutPermissions_CostsTheCache) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const std::string uri = server.url("/ca.crl");
  const Unprivileged rights;
  for (const mode_t mode : {0U, 0300U, 0500U}) {
    ASSERT_EQ(::chmod(kCRLCacheDirectory, mode), 0);
    EXPECT_EQ(found(uri), Numbers{"7"}) << mode;
    ASSERT_EQ(::chmod(kCRLCacheDirectory, 0700), 0);
    EXPECT_EQ(cacheNames(), std::vector<std::string>{}) << mode;
  }
  EXPECT_EQ(found(uri), Numbers{"7"});
  ASSERT_EQ(::chmod(cacheFile(uri).c_str(), 0), 0);  // a file that cannot be read is replaced
  EXPECT_EQ(found(uri), Numbers{"7"});
  EXPECT_TRUE(isCached(uri, crl(7)));
  EXPECT_EQ(server.connections().size(), 5U);
}

TEST_F(URICache, FullDisk_CostsTheCacheAndLeavesTheOldFile) {
  inOwnNamespaces([this] {
    bringUpLoopback();
    mountMemory(kCRLCacheDirectory, "size=32k");
    const Owned<X509_CRL>& large = expiredCRL(8, 100000);
    const FaultServer server(Scripts::inTurn(
        {Scripts::answer(der(expiredCRL(7).get())), Scripts::answer(der(large.get()))}));
    const std::string uri = server.url("/ca.crl");
    EXPECT_EQ(found(uri), Numbers{"7"});
    EXPECT_TRUE(isCached(uri, expiredCRL(7)));
    EXPECT_EQ(found(uri), Numbers{"8"});
    EXPECT_TRUE(isCached(uri, expiredCRL(7)));  // and nothing beside it
    EXPECT_EQ(found(server.url("/other.crl")), Numbers{"8"});
    EXPECT_TRUE(isCached(uri, expiredCRL(7)));
    EXPECT_EQ(log.text(), "");
  });
}

TEST_F(URICache, FullDisk_MakesRoomByWhatHasExpired) {
  inOwnNamespaces([this] {
    bringUpLoopback();
    const auto plant = [](const std::string& name, const std::string& expires) {
      writeFile(fs::path(kCRLCacheDirectory) / name,
                "URI: http://other.test/\nExpires: " + expires + "\n" + std::string(15000, 'x'));
    };
    mountMemory(kCRLCacheDirectory, "size=64k");
    plant("1.r0", "99999999999");
    plant("2.r0", "1");
    plant("3.r0", "1");
    plant("4.r0-tmp-0123456789abcdef", "99999999999");  // by a writer that was killed
    const Owned<X509_CRL>& large = expiredCRL(8, 30000);
    const FaultServer server(Scripts::answer(der(large.get())));
    const std::string uri = server.url("/ca.crl");
    EXPECT_EQ(found(uri), Numbers{"8"});
    const std::string name = cacheFile(uri).filename().string();
    std::vector<std::string> names = cacheNames();
    std::sort(names.begin(), names.end());
    std::vector<std::string> expected = {"1.r0", name};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(names, expected);
    EXPECT_TRUE(isWhole(readFile(cacheFile(uri)), pem(large.get())));

    // It has expired itself, and makes way for a newer one that has no room beside it.
    EXPECT_EQ(found(uri), Numbers{"8"});
    EXPECT_EQ(cacheNames().size(), 2U);
    EXPECT_TRUE(isWhole(readFile(cacheFile(uri)), pem(large.get())));
    EXPECT_EQ(log.text(), "");
  });
}

TEST_F(URICache, FullDiskOfFreshFiles_KeepsThem) {
  inOwnNamespaces([this] {
    bringUpLoopback();
    mountMemory(kCRLCacheDirectory, "size=32k");
    for (const char* const name : {"1.r0", "2.r0"}) {
      writeFile(fs::path(kCRLCacheDirectory) / name,
                "URI: http://other.test/\nExpires: 99999999999\n" + std::string(15000, 'x'));
    }
    const FaultServer server(Scripts::answer(der(crl(7).get())));
    EXPECT_EQ(found(server.url("/ca.crl")), Numbers{"7"});
    EXPECT_EQ(cacheNames().size(), 2U);
  });
}

TEST_F(URICache, NoInodesLeft_CostsTheCache) {
  inOwnNamespaces([this] {
    bringUpLoopback();
    mountMemory(kCRLCacheDirectory, "nr_inodes=2");
    const FaultServer server(Scripts::answer(der(expiredCRL(7).get())));
    const std::string uri = server.url("/ca.crl");
    EXPECT_EQ(found(uri), Numbers{"7"});
    EXPECT_EQ(found(uri), Numbers{"7"});  // there is none for a second file
    EXPECT_TRUE(isCached(uri, expiredCRL(7)));
  });
}

TEST_F(URICache, ReadOnlyFileSystem_IsReadAndNotWritten) {
  inOwnNamespaces([this] {
    bringUpLoopback();
    mountMemory(kCRLCacheDirectory, "size=1m");
    const FaultServer server(Scripts::answer(der(crl(7).get())));
    const std::string uri = server.url("/ca.crl");
    EXPECT_EQ(found(uri), Numbers{"7"});
    mountMemory(kCRLCacheDirectory, "size=1m", MS_REMOUNT | MS_RDONLY);
    EXPECT_EQ(found(uri), Numbers{"7"});
    EXPECT_EQ(server.connections().size(), 1U);
    EXPECT_EQ(found(server.url("/other.crl")), Numbers{"7"});
    EXPECT_EQ(found(server.url("/other.crl")), Numbers{"7"});
    EXPECT_EQ(server.connections().size(), 3U);
    EXPECT_TRUE(isCached(uri, crl(7)));
  });
}

TEST_F(URICache, TooManyFiles_MakeWayForANewOne) {
  const FaultServer server(Scripts::answer(der(crl(7).get())));
  const std::string block = pem(expiredCRL(1).get());
  for (int i = 1; i <= 1000; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "%x.r0", 0x1000 + i);
    writeFile(fs::path(kCRLCacheDirectory) / name,
              "URI: http://other.test/\nExpires: " + std::string(i <= 3 ? "1" : "99999999999") +
                  "\n" + block);
  }
  writeFile(fs::path(kCRLCacheDirectory) / "README", "not ours");
  EXPECT_EQ(found(server.url("/ca.crl")), Numbers{"7"});
  EXPECT_TRUE(fs::exists(cacheFile(server.url("/ca.crl"))));
  EXPECT_EQ(cacheNames().size(), 938U + 1);  // a sixteenth is free for the next ones
  EXPECT_TRUE(fs::exists(fs::path(kCRLCacheDirectory) / "README"));
}

// ------------------------------------------------------------------------------ several processes

TEST_F(URICache, ProcessesThatFetchAtOnce_LeaveOneWholeFile) {
  // Both answers are stored again and again, since neither is fresh.
  const Owned<X509_CRL>& one = expiredCRL(1, 200000);
  const Owned<X509_CRL>& two = expiredCRL(2, 300000);
  const std::string blocks[] = {pem(one.get()), pem(two.get())};
  const std::string bodies[] = {der(one.get()), der(two.get())};
  const FaultServer server([&bodies](Peer& peer) {
    if (peer.readRequest()) peer.write(Scripts::response(bodies[peer.number() % 2]));
  });
  const std::string uri = server.url("/ca.crl");
  const auto ended = [](const std::string& output) { return output.ends_with("\n"); };
  const std::vector<std::string> command = {PKX509_CRL_FETCHER, uri, "60"};
  const BackgroundProcess first(command);
  const BackgroundProcess second(command);
  ASSERT_TRUE(server.waitForEnds(2));
  int reads = 0;
  while (first.running() || second.running()) {
    if (!fs::exists(cacheFile(uri))) continue;
    const std::string content = readFile(cacheFile(uri));
    ASSERT_TRUE(isWhole(content, blocks[0]) || isWhole(content, blocks[1])) << content.size();
    ++reads;
  }
  EXPECT_GT(reads, 0);
  for (const BackgroundProcess* const process : {&first, &second}) {
    EXPECT_TRUE(process->waitForOutput(ended));
    EXPECT_EQ(process->output().substr(0, 2), "1 ");
  }
  EXPECT_EQ(server.connections().size(), 120U);
  EXPECT_TRUE(isCached(uri, one) || isCached(uri, two));
}

TEST_F(URICache, WriterThatIsKilled_LeavesTheOldFileOrTheNewOne) {
  constexpr int kRounds = 40;
  const Owned<X509_CRL>& one = expiredCRL(1, 200000);
  const Owned<X509_CRL>& two = expiredCRL(2, 300000);
  const std::string blocks[] = {pem(one.get()), pem(two.get())};
  const std::string bodies[] = {der(one.get()), der(two.get())};
  const FaultServer server([&bodies](Peer& peer) {
    if (peer.readRequest()) peer.write(Scripts::response(bodies[peer.number() % 2]));
  });
  const std::string uri = server.url("/ca.crl");
  ASSERT_NE(found(uri), Numbers{});
  std::mt19937 random(20260131);
  std::uniform_int_distribution<int> microseconds(0, 300);
  int leftovers = 0;
  for (int round = 0; round < kRounds; ++round) {
    const Descriptor changes = watchCache();
    BackgroundProcess writer({PKX509_CRL_FETCHER, uri, "0"});
    ASSERT_TRUE(waitForChange(changes)) << writer.output();
    // Not to wait for anything: it may be at any step of its writing when it dies.
    std::this_thread::sleep_for(std::chrono::microseconds(microseconds(random)));
    kill(writer.pid(), SIGKILL);
    ASSERT_EQ(writer.stop(), 128 + SIGKILL);
    const std::string content = readFile(cacheFile(uri));
    ASSERT_TRUE(isWhole(content, blocks[0]) || isWhole(content, blocks[1]))
        << "round " << round << ", " << content.size() << " bytes";
    for (const std::string& name : cacheNames()) {
      const fs::path path = fs::path(kCRLCacheDirectory) / name;
      if (path == cacheFile(uri)) continue;
      EXPECT_TRUE(path.string().starts_with(cacheFile(uri).string() + "-tmp-")) << name;
      fs::remove(path);
      ++leftovers;
    }
  }
  EXPECT_GT(leftovers, 0) << "it never died while it wrote";
  EXPECT_NE(found(uri), Numbers{});
  EXPECT_TRUE(isCached(uri, one) || isCached(uri, two));
}

}  // namespace
}  // namespace Velantrix::Test
