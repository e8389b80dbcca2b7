#include "foundation/filecache/FileObjects.h"
#include "foundation/run/VerificationRun.h"
#include "support/ChildProcess.h"
#include "support/Files.h"

#include <pkx509/FileCache.h>
#include <velantrix/Exception.h>

#include <array>
#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <latch>
#include <memory>
#include <optional>
#include <sched.h>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {
namespace {

using namespace std::chrono_literals;
using Test::TempDir;
using Test::writeFile;
namespace fs = std::filesystem;

struct Text : FileObjects::Value {
  explicit Text(std::string content) : text(std::move(content)) {}
  std::size_t memory() const noexcept override { return text.capacity() + sizeof *this + added; }

  std::string text;
  mutable std::atomic<std::size_t> added = 0;
};

struct OtherText : Text {
  using Text::Text;
};

// What look-ups of the tests do, and how often that meant reading.
class FileObjectsTest : public testing::Test {
 protected:
  FileObjectsTest() { FileCache::clear(); }
  ~FileObjectsTest() override {
    FileCache::limit(FileCache::kDefaultLimit);
    FileCache::clear();
  }

  template <class T = Text>
  std::shared_ptr<const T> get(const fs::path& file) {
    return FileObjects::get<T>(
        File::Path(file), FileStamp::at(file.c_str()),
        [this](const unsigned char* content, std::size_t length, bool /*kept*/) {
          ++made;
          return std::make_shared<const T>(
              std::string(reinterpret_cast<const char*>(content), length));
        });
  }
  std::string textOf(const fs::path& file) { return get(file)->text; }

  // How many of these were read.
  int readsOf(const fs::path& file, int lookups = 3) {
    const int before = made;
    for (int i = 0; i < lookups; ++i) get(file);
    return made - before;
  }

  const TempDir dir;
  const fs::path path = dir / "file";
  std::atomic<int> made = 0;
  const StampClockAhead later{3s};
};

void setTime(const fs::path& path, time_t time) {
  const std::array<timespec, 2> times{timespec{time, 0}, timespec{time, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times.data(), 0), 0);
}

// Changes the content, and neither the size nor the number of the inode.
void overwrite(const fs::path& path, const std::string& content) {
  const int file = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(file, 0);
  ASSERT_EQ(::pwrite(file, content.data(), content.size(), 0),
            static_cast<ssize_t>(content.size()));
  ::close(file);
}

// Until the clock of files has gone on.
void awaitTick(const fs::path& path) {
  const FileStamp before = *FileStamp::at(path.c_str());
  const fs::path probe = path.string() + ".probe";
  do {
    writeFile(probe, "");
  } while (FileStamp::at(probe.c_str())->changed <= before.changed);
  fs::remove(probe);
}

TEST_F(FileObjectsTest, FileThatIsSettled_IsReadOnceAndShared) {
  writeFile(path, "content");
  const auto first = get(path);
  EXPECT_EQ(first->text, "content");
  EXPECT_EQ(get(path), first);
  EXPECT_EQ(made, 1);
}

TEST_F(FileObjectsTest, EveryKindOfChange_IsSeenAtOnce) {
  const struct {
    const char* what;
    std::string expected;
    void (*change)(const fs::path&);
  } rows[] = {
      {"rewritten in place", "CONTENT", [](const fs::path& file) { overwrite(file, "CONTENT"); }},
      {"rewritten, and touched back in time", "CONTENT",
       [](const fs::path& file) {
         overwrite(file, "CONTENT");
         setTime(file, 1000);
       }},
      {"another renamed to it", "renamed",
       [](const fs::path& file) {
         const fs::path other = file.string() + ".new";
         writeFile(other, "renamed");
         setTime(other, 1000);
         fs::rename(other, file);
       }},
      {"removed and made anew, maybe with its inode", "CONTENT",
       [](const fs::path& file) {
         fs::remove(file);
         writeFile(file, "CONTENT");
         setTime(file, 1000);
       }},
      {"cut short", "con", [](const fs::path& file) { fs::resize_file(file, 3); }},
      {"a link to another", "another",
       [](const fs::path& file) {
         const fs::path other = file.string() + ".other";
         writeFile(other, "another");
         fs::remove(file);
         fs::create_symlink(other, file);
       }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    fs::remove(path);
    writeFile(path, "content");
    setTime(path, 1000);
    EXPECT_EQ(textOf(path), "content");
    EXPECT_EQ(textOf(path), "content");
    awaitTick(path);
    row.change(path);
    EXPECT_EQ(textOf(path), row.expected);
  }
}

TEST_F(FileObjectsTest, FileThatWasJustChanged_IsReadEachTime) {
  writeFile(path, "content");
  const StampClockAhead none(0s);
  EXPECT_EQ(readsOf(path), 3);
  const StampClockAhead nearly(1s);
  EXPECT_EQ(readsOf(path), 3);
}

TEST_F(FileObjectsTest, RewrittenWithinOneTickOfACoarseClock_IsSeen) {
  // The clock of the file system has stood still since the epoch, and will for a moment.
  const CoarseStamps coarse(std::chrono::hours(24) * 365 * 100);
  const StampClockAhead none(0s);
  const StampClockAhead early(1999ms - FileStamp::realTime());
  writeFile(path, "content");
  const FileStamp before = *FileStamp::at(path.c_str());
  ASSERT_FALSE(before.isSettled(FileStamp::realTime()));
  EXPECT_EQ(textOf(path), "content");
  overwrite(path, "CONTENT");
  ASSERT_EQ(FileStamp::at(path.c_str()), before);
  EXPECT_EQ(textOf(path), "CONTENT");
}

TEST_F(FileObjectsTest, ChangedBetweenTheLookAndTheReading_IsNotKept) {
  writeFile(path, "content");
  const StampClockAhead none(0s);
  FileStamp before = *FileStamp::at(path.c_str());
  before.modified = before.changed = 0;
  ASSERT_TRUE(before.isSettled(FileStamp::realTime()));
  FileObjects::get<Text>(File::Path(path), before,
                         [](const unsigned char*, std::size_t, bool kept) {
                           EXPECT_FALSE(kept);
                           return std::make_shared<const Text>("content");
                         });
  EXPECT_EQ(FileCache::usage().files, 0U);
}

TEST_F(FileObjectsTest, FileThatIsGone_IsForgottenAndThrows) {
  writeFile(path, "content");
  get(path);
  EXPECT_EQ(FileCache::usage().files, 1U);
  fs::remove(path);
  EXPECT_THROW(get(path), Exception);
  EXPECT_EQ(FileCache::usage().files, 0U);
  writeFile(path, "content");
  EXPECT_EQ(textOf(path), "content");
}

TEST_F(FileObjectsTest, FileThatCannotBeRead_IsTriedEachTime) {
  fs::create_directory(path);
  EXPECT_THROW(get(path), Exception);
  fs::remove(path);
  writeFile(path, "content");
  EXPECT_EQ(textOf(path), "content");
}

TEST_F(FileObjectsTest, FifoAndFileOfAProgram_AreReadEachTime) {
  const fs::path program = "/proc/sys/kernel/ostype";
  EXPECT_EQ(readsOf(program), 3);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  for (const std::string text : {"one", "two"}) {
    std::thread writer([&] { writeFile(path, text); });
    EXPECT_EQ(textOf(path), text);
    writer.join();
  }
  EXPECT_EQ(FileCache::usage().files, 0U);
}

TEST_F(FileObjectsTest, WhatCannotBeMade_IsTriedEachTime) {
  writeFile(path, "content");
  const auto fail = [this](const unsigned char*, std::size_t, bool) -> std::shared_ptr<const Text> {
    ++made;
    throw std::runtime_error("no");
  };
  for (int i = 0; i < 2; ++i) {
    EXPECT_THROW(FileObjects::get<Text>(File::Path(path), FileStamp::at(path.c_str()), fail),
                 std::runtime_error);
  }
  EXPECT_EQ(made, 2);
  EXPECT_EQ(textOf(path), "content");
}

TEST_F(FileObjectsTest, ClassesOfTheirOwn_AreKindsOfTheirOwn) {
  writeFile(path, "content");
  const auto one = get<Text>(path);
  const auto other = get<OtherText>(path);
  EXPECT_NE(static_cast<const Text*>(other.get()), one.get());
  EXPECT_EQ(get<Text>(path), one);
  EXPECT_EQ(get<OtherText>(path), other);
  EXPECT_EQ(made, 2);
}

TEST_F(FileObjectsTest, DirectoryThatTheCallerReads_IsKeptUnderTheStampThatItSays) {
  writeFile(path, "content");
  const File::Path directory(dir.string());
  const auto names = [&](bool lasts) {
    const auto seen = FileStamp::at(dir.string().c_str());
    return FileObjects::getRead<Text>(directory, seen, [&](bool forAll) {
      ++made;
      return FileObjects::Read{std::make_shared<const Text>("names"),
                               forAll && lasts ? seen : std::nullopt};
    });
  };
  names(false);
  names(true);
  EXPECT_EQ(made, 2);
  EXPECT_EQ(names(true)->text, "names");
  EXPECT_EQ(made, 2);
  awaitTick(path);
  writeFile(dir / "another", "content");
  names(true);
  EXPECT_EQ(made, 3);
}

TEST_F(FileObjectsTest, WhatDoesNotSuit_IsMadeAnewAndTakesThePlace) {
  writeFile(path, "content");
  const auto first = get(path);
  std::shared_ptr<const Text> second = FileObjects::get<Text>(
      File::Path(path), FileStamp::at(path.c_str()),
      [](const unsigned char*, std::size_t, bool) { return std::make_shared<const Text>("more"); },
      [](const Text& known) { return known.text == "more"; });
  EXPECT_NE(second, first);
  EXPECT_EQ(get(path), second);
  EXPECT_EQ(FileCache::usage().files, 1U);
}

TEST_F(FileObjectsTest, Limit_LeastRecentlyUsedMakesWay) {
  const std::size_t size = 10000;
  for (const char* name : {"a", "b", "c"}) writeFile(dir / name, std::string(size, 'x'));
  FileCache::limit(2 * size + 2000);
  get(dir / "a");
  get(dir / "b");
  EXPECT_EQ(readsOf(dir / "a", 1), 0);
  get(dir / "c");
  EXPECT_LE(FileCache::usage().bytes, FileCache::limit());
  EXPECT_EQ(readsOf(dir / "a", 1), 0);
  EXPECT_EQ(readsOf(dir / "c", 1), 0);
  EXPECT_EQ(readsOf(dir / "b", 1), 1);
}

TEST_F(FileObjectsTest, Limit_WhatIsLargerAloneMakesNothingGo) {
  writeFile(dir / "small", "x");
  writeFile(path, "content");
  FileCache::limit(5000);
  get(dir / "small");
  FileObjects::get<Text>(File::Path(path), FileStamp::at(path.c_str()),
                         [](const unsigned char*, std::size_t, bool) {
                           auto large = std::make_shared<Text>("content");
                           large->added = 10000;
                           return large;
                         });
  EXPECT_EQ(readsOf(dir / "small"), 0);
  EXPECT_EQ(readsOf(path), 1);
}

TEST_F(FileObjectsTest, FileThatIsReplacedOverAndOver_TakesThePlaceOfItself) {
  std::size_t bytes = 0;
  for (int i = 0; i < 100; ++i) {
    const fs::path next = dir / "next";
    writeFile(next, "content" + std::to_string(100 + i));
    fs::rename(next, path);
    EXPECT_EQ(textOf(path), "content" + std::to_string(100 + i));
    EXPECT_EQ(FileCache::usage().files, 1U);
    if (i == 0) bytes = FileCache::usage().bytes;
  }
  EXPECT_EQ(FileCache::usage().bytes, bytes);
}

TEST_F(FileObjectsTest, Limit_OfZeroKeepsNothing) {
  writeFile(path, "content");
  get(path);
  FileCache::limit(0);
  EXPECT_EQ(FileCache::usage().files, 0U);
  EXPECT_EQ(FileCache::usage().bytes, 0U);
  EXPECT_EQ(readsOf(path), 3);
  FileCache::limit(FileCache::kDefaultLimit);
  EXPECT_EQ(readsOf(path), 1);
}

TEST_F(FileObjectsTest, MemoryThatGrowsWhileItIsKept_Counts) {
  writeFile(dir / "a", "content");
  writeFile(dir / "b", "content");
  FileCache::limit(10000);
  get(dir / "a");
  const auto grown = get(dir / "b");
  grown->added = 9500;
  EXPECT_EQ(FileCache::usage().files, 2U);
  get(dir / "b");
  EXPECT_EQ(FileCache::usage().files, 1U);
  EXPECT_EQ(readsOf(dir / "b", 1), 0);
  grown->added = 0;
  get(dir / "b");
  EXPECT_LT(FileCache::usage().bytes, 1000U);
}

TEST_F(FileObjectsTest, Clear_ForgetsAllAndUsersKeepTheirs) {
  writeFile(path, "content");
  const auto mine = get(path);
  FileCache::clear();
  EXPECT_EQ(FileCache::usage().files, 0U);
  EXPECT_EQ(FileCache::usage().bytes, 0U);
  EXPECT_EQ(mine->text, "content");
  EXPECT_NE(get(path), mine);
}

TEST_F(FileObjectsTest, ManyThreads_OneReadsAndTheOthersWaitForIt) {
  constexpr int kThreads = 8;
  writeFile(path, "content");
  std::atomic<int> asking = 0;
  std::vector<std::shared_ptr<const Text>> found(kThreads);
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&, i] {
        ++asking;
        found[static_cast<std::size_t>(i)] =
            FileObjects::get<Text>(File::Path(path), FileStamp::at(path.c_str()),
                                   [&](const unsigned char*, std::size_t, bool kept) {
                                     EXPECT_TRUE(kept);
                                     ++made;
                                     while (asking < kThreads) std::this_thread::yield();
                                     return std::make_shared<const Text>("shared");
                                   });
      });
    }
  }
  EXPECT_EQ(made, 1);
  for (const auto& one : found) EXPECT_EQ(one, found.front());
}

// A thread that reads the file until it is let go.
class SlowReader {
 public:
  explicit SlowReader(const fs::path& path)
      : thread_([this, path] {
          FileObjects::get<Text>(File::Path(path), FileStamp::at(path.c_str()),
                                 [this](const unsigned char*, std::size_t, bool) {
                                   reads_.count_down();
                                   goOn_.wait();
                                   return std::make_shared<const Text>("slow");
                                 });
        }) {
    reads_.wait();
  }
  ~SlowReader() { letGo(); }
  SlowReader(const SlowReader&) = delete;
  SlowReader& operator=(const SlowReader&) = delete;

  void letGo() {
    if (!goOn_.try_wait()) goOn_.count_down();
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::latch reads_{1};
  std::latch goOn_{1};
  std::thread thread_;
};

TEST_F(FileObjectsTest, WaitingForAnotherThread_EndsWithTheDeadlineOfTheVerification) {
  writeFile(path, "content");
  SlowReader reader(path);
  const VerificationRun run(nullptr, {.wholeTime = 30ms});
  EXPECT_EQ(get(path), nullptr);
  EXPECT_TRUE(run.fellShort());
  EXPECT_EQ(made, 0);
}

TEST_F(FileObjectsTest, WaitingForAnotherThread_EndsWhenThatIsAskedFor) {
  writeFile(path, "content");
  SlowReader reader(path);
  std::stop_source source;
  const VerificationRun run(nullptr, {.stop = source.get_token()});
  std::jthread stopper([&] { source.request_stop(); });
  EXPECT_EQ(get(path), nullptr);
  EXPECT_TRUE(run.wasStopped());
}

TEST_F(FileObjectsTest, ChangedWhileAnotherThreadReadsIt_IsReadByEachForItself) {
  writeFile(path, "content");
  SlowReader reader(path);
  awaitTick(path);
  overwrite(path, "CONTENT");
  EXPECT_EQ(textOf(path), "CONTENT");
  reader.letGo();
  EXPECT_EQ(textOf(path), "CONTENT");
}

TEST_F(FileObjectsTest, ReaderThatFails_LeavesItToThoseWhoWait) {
  writeFile(path, "content");
  std::latch reads(1);
  std::latch waits(1);
  std::jthread failing([&] {
    EXPECT_THROW(FileObjects::get<Text>(
                     File::Path(path), FileStamp::at(path.c_str()),
                     [&](const unsigned char*, std::size_t, bool) -> std::shared_ptr<const Text> {
                       reads.count_down();
                       waits.wait();
                       throw std::bad_alloc();
                     }),
                 std::bad_alloc);
  });
  reads.wait();
  std::jthread letting([&] { waits.count_down(); });
  EXPECT_EQ(textOf(path), "content");
}

// The exit code of a child that does the work.
template <class Work>
int inChild(Work work) {
  const pid_t child = ::fork();
  if (child == 0) {
    ::alarm(20);  // it may hang
    ::_exit(work() ? 0 : 1);
  }
  return Test::collect(child);
}

TEST_F(FileObjectsTest, ForkedChild_GoesOnWithWhatItsParentHas) {
  writeFile(path, "content");
  const auto parents = get(path);
  EXPECT_EQ(inChild([&] {
              writeFile(dir / "new", "of the child");
              return get(path) == parents && textOf(dir / "new") == "of the child" &&
                     readsOf(dir / "new") == 0;
            }),
            0);
}

TEST_F(FileObjectsTest, ForkedWhileAThreadReads_ChildDoesNotWaitForIt) {
  writeFile(path, "content");
  SlowReader reader(path);
  EXPECT_EQ(inChild([&] { return textOf(path) == "content" && readsOf(path) == 0; }), 0);
}

TEST_F(FileObjectsTest, ForkedOverAndOverWhileThreadsLookUp_ChildrenWork) {
  writeFile(path, "content");
  std::vector<std::jthread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back([&](const std::stop_token& stop) {
      while (!stop.stop_requested()) {
        get(path);
        FileCache::clear();
      }
    });
  }
  for (int i = 0; i < 30; ++i) EXPECT_EQ(inChild([&] { return textOf(path) == "content"; }), 0);
}

// To another effective user and group of this process: as the superuser may, or everybody else where user
// namespaces can be made, in a new one of which nobody is mapped. In a chroot only the first can be done.
bool becomeSomebodyElse() {
  constexpr id_t kNobody = 65534;
  const auto former = std::pair(::geteuid(), ::getegid());
  const bool lent = ::setegid(kNobody) == 0 && ::seteuid(kNobody) == 0;
  return (lent || ::unshare(CLONE_NEWUSER) == 0) && ::geteuid() != former.first &&
         ::getegid() != former.second;
}

TEST_F(FileObjectsTest, OtherEffectiveUserAndGroup_ForgetsWhatWasRead) {
  writeFile(path, "content");
  fs::permissions(dir.path(), fs::perms::all);
  get(path);
  EXPECT_EQ(
      inChild([&] { return readsOf(path) == 0 && becomeSomebodyElse() && readsOf(path) == 1; }), 0);
}

TEST_F(FileObjectsTest, OtherEffectiveUserWhileOneReads_KeepsNothing) {
  writeFile(path, "content");
  writeFile(dir / "other", "content");
  fs::permissions(dir.path(), fs::perms::all);
  EXPECT_EQ(inChild([&] {
              FileObjects::get<Text>(File::Path(path), FileStamp::at(path.c_str()),
                                     [&](const unsigned char*, std::size_t, bool) {
                                       becomeSomebodyElse();
                                       get(dir / "other");
                                       return std::make_shared<const Text>("of the one before");
                                     });
              return textOf(path) == "content";
            }),
            0);
}

// What the owner of a file does, for whom its mode counts.
template <class Work>
void asOwner(Work work) {
  const bool lent = ::getuid() == 0;
  if (lent && ::seteuid(0) != 0) throw std::runtime_error("seteuid");
  work();
  if (lent && ::seteuid(65534) != 0) throw std::runtime_error("seteuid");
}

TEST_F(FileObjectsTest, FileThatMayNotBeReadAnyMore_IsNotRead) {
  writeFile(path, "content");
  const auto isRefused = [&] {
    try {
      get(path);
    } catch (const Exception& failure) {
      return failure.stringParameter().ends_with("Permission denied");
    }
    return false;
  };
  EXPECT_EQ(inChild([&] {
              asOwner([&] { fs::permissions(dir.path(), fs::perms::all); });
              if (textOf(path) != "content" || readsOf(path) != 0) return false;
              awaitTick(path);
              asOwner([&] { fs::permissions(path, fs::perms::none); });
              if (!isRefused()) return false;
              asOwner([&] { fs::permissions(path, fs::perms::all); });
              if (textOf(path) != "content" || readsOf(path) != 0) return false;
              asOwner([&] { fs::permissions(dir.path(), fs::perms::none); });
              const bool refused = isRefused();
              asOwner([&] { fs::permissions(dir.path(), fs::perms::all); });
              return refused;
            }),
            0);
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
