#include "foundation/base/FileReader.h"
#include "support/Files.h"
#include "unit/foundation/base/Thrown.h"

#include <velantrix/Exception.h>
#include <velantrix/File.h>
#include <velantrix/Time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace std::string_literals;
using Velantrix::Exception;
using Velantrix::Time;
using Velantrix::File::Path;
using Velantrix::File::Processor;
using Velantrix::File::Selector;
using Velantrix::Test::TempDir;
using Velantrix::Test::thrownBy;
using Velantrix::Test::writeFile;

using Names = std::vector<std::string>;

class Collector : public Processor {
 public:
  int process(const Path& file) override {
    paths.push_back(file.asString());
    names.push_back(file.name());
    return names.size() == endAfter ? 1 : 0;
  }
  Names paths;
  Names names;
  std::size_t endAfter = 0;
};

Names walk(const std::string& directory, Selector::NameFilter accept = nullptr) {
  Collector collector;
  Selector(Path(directory), collector, std::move(accept)).start();
  return collector.names;
}

void setModified(const std::filesystem::path& path, std::time_t seconds, int flags = 0) {
  const struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, flags), 0) << std::strerror(errno);
}

// Takes the right to list a directory away: from root by not being root for a while.
class WithoutRight {
 public:
  explicit WithoutRight(const std::string& directory) : directory_(directory) {
    EXPECT_EQ(::chmod(directory.c_str(), 0), 0);
    if (::geteuid() == 0) {
      wasRoot_ = true;
      EXPECT_EQ(::seteuid(65534), 0);
    }
  }
  ~WithoutRight() {
    if (wasRoot_) {
      EXPECT_EQ(::seteuid(0), 0);
    }
    EXPECT_EQ(::chmod(directory_.c_str(), 0700), 0);
  }
  WithoutRight(const WithoutRight&) = delete;
  WithoutRight& operator=(const WithoutRight&) = delete;

 private:
  std::string directory_;
  bool wasRoot_ = false;
};

TEST(FilePath, Join_Table) {
  EXPECT_EQ(Path("/a", "b").asString(), "/a/b");
  EXPECT_EQ(Path("/a/", "b").asString(), "/a/b");
  EXPECT_EQ(Path("/", "b").asString(), "/b");
  EXPECT_EQ(Path("", "b").asString(), "b");
  EXPECT_EQ(Path("a/b").asString(), "a/b");
}

TEST(FilePath, Name_IsTheLastComponent) {
  EXPECT_EQ(Path("/a/b.0").name(), "b.0");
  EXPECT_EQ(Path("b.0").name(), "b.0");
  EXPECT_EQ(Path("/b").name(), "b");
  EXPECT_EQ(Path("/a/b//").name(), "b");
  EXPECT_EQ(Path("/").name(), "");
  EXPECT_EQ(Path("").name(), "");
}

TEST(FileStatus, CreationTime_ModifiedLongAgo_IsTheTimeOfModification) {
  const TempDir dir;
  writeFile(dir / "old", "x");
  setModified(dir / "old", 1000000000);
  EXPECT_EQ(Path((dir / "old").string()).status(true).creationTime(), Time::then(1000000000, true));
}

TEST(FileStatus, CreationTime_ModifiedInTheFuture_IsTheTimeOfBirth) {
  const TempDir dir;
  writeFile(dir / "young", "x");
  const Time future = Time::then(1000000, false);
  setModified(dir / "young", future.seconds());
  struct statx known = {};
  ASSERT_EQ(::statx(AT_FDCWD, (dir / "young").c_str(), 0, STATX_BTIME, &known), 0);
  const bool hasBirth = (known.stx_mask & STATX_BTIME) != 0;
  const Time expected = hasBirth ? Time::then(known.stx_btime.tv_sec, true) : future;
  EXPECT_EQ(Path((dir / "young").string()).status(true).creationTime(), expected);
}

TEST(FileStatus, CreationTime_FileSystemWithoutTimesOfBirth_IsTheTimeOfModification) {
  const std::string file = "/proc/self/status";
  struct statx known = {};
  ASSERT_EQ(::statx(AT_FDCWD, file.c_str(), 0, STATX_BTIME | STATX_MTIME, &known), 0);
  ASSERT_EQ(known.stx_mask & STATX_BTIME, 0U) << "proc has times of birth here";
  EXPECT_EQ(Path(file).status(true).creationTime(), Time::then(known.stx_mtime.tv_sec, true));
}

TEST(FileStatus, Status_RegularFile_HasItsSize) {
  const TempDir dir;
  writeFile(dir / "five", "12345");
  const auto status = Path((dir / "five").string()).status(true);
  EXPECT_TRUE(status.isRegular());
  EXPECT_EQ(status.size(), 5U);
  EXPECT_FALSE(Path(dir.string()).status(true).isRegular());
}

TEST(FileStatus, Status_Link_IsFollowedOnlyWhenAsked) {
  const TempDir dir;
  writeFile(dir / "file", "x");
  setModified(dir / "file", 1000000000);
  std::filesystem::create_symlink("file", dir / "link");
  const Path link((dir / "link").string());
  EXPECT_TRUE(link.status(true).isRegular());
  EXPECT_EQ(link.status(true).creationTime(), Time::then(1000000000, true));
  EXPECT_FALSE(link.status(false).isRegular());
  EXPECT_GT(link.status(false).creationTime(), Time::then(1000000000, true));
}

TEST(FileStatus, Status_NoSuchFile_ThrowsWithPathAndReason) {
  const std::string text = thrownBy([] { static_cast<void>(Path("/nowhere/x").status(true)); });
  EXPECT_NE(text.find("/nowhere/x: No such file or directory"), std::string::npos) << text;
}

TEST(FileStatus, Status_NulInName_ThrowsInsteadOfLookingAtAnotherFile) {
  EXPECT_NE(thrownBy([] { static_cast<void>(Path("/etc\0x"s).status(true)); }), "");
}

TEST(FileSelector, Start_Names_ComeInByteOrderWithTheirDirectory) {
  const TempDir dir;
  for (const char* name : {"b", "a", "B", "10", "9", "\xc3\xa4", ".hidden", "z"}) {
    writeFile(dir / name, "x");
  }
  EXPECT_EQ(walk(dir.string()), (Names{".hidden", "10", "9", "B", "a", "b", "z", "\xc3\xa4"}));
  Collector collector;
  Selector(Path(dir.string()), collector).start();
  EXPECT_EQ(collector.paths.front(), dir.string() + "/.hidden");
}

TEST(FileSelector, MissingDirectory_IsToldFromAnEmptyOne) {
  const TempDir dir;
  Collector collector;
  Selector there(Path(dir.string()), collector);
  there.start();
  EXPECT_FALSE(there.isMissing());
  Selector gone(Path(dir.string() + "/gone"), collector);
  gone.start();
  EXPECT_TRUE(gone.isMissing());
}

TEST(FileSelector, Start_OnlyFilesAndLinksToThem_ReachTheProcessor) {
  const TempDir dir;
  writeFile(dir / "file", "x");
  std::filesystem::create_symlink("file", dir / "link");
  std::filesystem::create_symlink("nowhere", dir / "dangling");
  std::filesystem::create_symlink("circle", dir / "circle");
  std::filesystem::create_symlink("file/below", dir / "below-a-file");
  std::filesystem::create_symlink(std::string(300, 'n'), dir / "long");
  std::filesystem::create_symlink("/dev/zero", dir / "device");
  std::filesystem::create_symlink("fifo", dir / "link-to-fifo");
  std::filesystem::create_symlink("sub", dir / "link-to-directory");
  std::filesystem::create_directory(dir / "sub");
  writeFile(dir / "sub/inside", "x");
  ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
  const int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(socket, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string socketName = (dir / "socket").string();
  ASSERT_LT(socketName.size(), sizeof address.sun_path);
  std::memcpy(address.sun_path, socketName.c_str(), socketName.size() + 1);
  ASSERT_EQ(::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(walk(dir.string()), (Names{"file", "link"}));
  ::close(socket);
}

TEST(FileSelector, Start_NoSuchDirectory_IsAnEmptyOne) {
  EXPECT_EQ(walk("/nowhere/at/all"), Names());
}

TEST(FileSelector, Start_UnreadableDirectory_ThrowsWithPathAndReason) {
  const TempDir dir;
  const std::string sub = dir.string() + "/sub";
  std::filesystem::create_directory(sub);
  ASSERT_EQ(::chmod(dir.string().c_str(), 0755), 0);
  std::string text;
  {
    const WithoutRight without(sub);
    text = thrownBy([&] { walk(sub); });
  }
  EXPECT_NE(text.find(sub + ": Permission denied"), std::string::npos) << text;
}

TEST(FileSelector, Start_NoDirectory_Throws) {
  const TempDir dir;
  writeFile(dir / "file", "x");
  const std::string file = (dir / "file").string();
  const std::string text = thrownBy([&] { walk(file); });
  EXPECT_NE(text.find(file + ": Not a directory"), std::string::npos) << text;
  EXPECT_NE(thrownBy([&] { walk(dir.string() + "\0x"s); }), "");
}

TEST(FileSelector, Start_Filter_JudgesNamesBeforeAnythingElse) {
  const TempDir dir;
  writeFile(dir / "yes", "x");
  writeFile(dir / "no", "x");
  Names judged;
  EXPECT_EQ(walk(dir.string(),
                 [&](std::string_view name) {
                   judged.emplace_back(name);
                   // Refused and taken away: nobody may look at it any more.
                   if (name == "no") std::filesystem::remove(dir / "no");
                   return name == "yes";
                 }),
            Names{"yes"});
  std::sort(judged.begin(), judged.end());
  EXPECT_EQ(judged, (Names{"no", "yes"}));
}

TEST(FileSelector, Start_ProcessorSaysEnough_EndsTheWalk) {
  const TempDir dir;
  for (const char* name : {"a", "b", "c"}) writeFile(dir / name, "x");
  Collector collector;
  collector.endAfter = 2;
  Selector(Path(dir.string()), collector).start();
  EXPECT_EQ(collector.names, (Names{"a", "b"}));
}

TEST(FileSelector, Start_ProcessorThrows_ReachesTheCaller) {
  class Thrower : public Processor {
    int process(const Path&) override { throw std::runtime_error("mine"); }
  } thrower;
  const TempDir dir;
  writeFile(dir / "a", "x");
  EXPECT_THROW(Selector(Path(dir.string()), thrower).start(), std::runtime_error);
}

// Whoever makes the links of a directory anew takes the old ones away first.
TEST(FileSelector, Start_FileGoneWhenItIsRead_IsPassedOver) {
  class Reader : public Processor {
   public:
    int process(const Path& file) override {
      names.push_back(file.name());
      if (file.name() == "b") std::filesystem::remove(file.asString());
      contents += Velantrix::readFile(file).size();
      return 0;
    }
    Names names;
    std::size_t contents = 0;
  } reader;
  const TempDir dir;
  for (const char* name : {"a", "b", "c"}) writeFile(dir / name, "x");
  Selector(Path(dir.string()), reader).start();
  EXPECT_EQ(reader.names, (Names{"a", "b", "c"}));
  EXPECT_EQ(reader.contents, 2U);
}

TEST(FileSelector, Start_FileThatIsThereAndCannotBeRead_Throws) {
  class Refuser : public Processor {
    int process(const Path& file) override {
      throw Exception("Refuser", Exception::kFailure, "FileTest", 1).stringParameter(file.name());
    }
  } refuser;
  const TempDir dir;
  writeFile(dir / "a", "x");
  EXPECT_THROW(Selector(Path(dir.string()), refuser).start(), Exception);
}

TEST(FileSelector, Start_Again_SeesTheDirectoryAsItIsNow) {
  const TempDir dir;
  Collector collector;
  Selector selector(Path(dir.string()), collector);
  selector.start();
  EXPECT_EQ(collector.names, Names());
  writeFile(dir / "a", "x");
  selector.start();
  EXPECT_EQ(collector.names, Names{"a"});
}

}  // namespace
