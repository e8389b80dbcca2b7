#include "crl/CRLCache.h"
#include "foundation/net/Cancellation.h"
#include "foundation/net/NetworkBudget.h"
#include "foundation/run/VerificationRun.h"
#include "retrieval/DeskFiles.h"
#include "retrieval/DeskRecord.h"
#include "retrieval/FetchDesk.h"
#include "support/Descriptor.h"
#include "support/Files.h"
#include "support/LogCapture.h"
#include "support/Stopwatch.h"
#include "unit/retrieval/InChild.h"
#include "unit/store/Model.h"
#include "unit/store/Unprivileged.h"

#include <velantrix/Exception.h>
#include <velantrix/File.h>

#include <algorithm>
#include <ares.h>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <new>
#include <optional>
#include <random>
#include <stop_token>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using namespace std::chrono_literals;

using LW::HTTP::Failure;
using Kind = Failure::Kind;

TEST(FetchDesk, Places_AreNormalForms) {
  EXPECT_EQ(FetchDesk::placeOf(Uri("HTTP://Ca.Test:80/a/../b?x=%41")), "http://ca.test/b?x=A");
  EXPECT_EQ(FetchDesk::hostPlaceOf(Uri("HTTP://user@Ca.Test:80/b?x")), "host http://ca.test");
  EXPECT_EQ(FetchDesk::hostPlaceOf(Uri("https://ca.test:8443/")), "host https://ca.test:8443");
  EXPECT_EQ(FetchDesk::hostPlaceOf(Uri("http://[::1]:8080/")), "host http://[::1]:8080");
}

TEST(FetchDesk, Failure_IsTheHostsUnlessItIsOurOwn) {
  const struct {
    Failure failure;
    bool ofHost;
    bool ofAll;
  } rows[] = {
      {{.kind = Kind::kNone}, false, false},
      {{.kind = Kind::kClientIdentity}, false, false},
      {{.kind = Kind::kRefusedAddress}, false, false},
      {{.kind = Kind::kNoTime}, false, false},
      {{.kind = Kind::kResolve, .error = ARES_ENOTFOUND}, true, true},
      {{.kind = Kind::kResolve, .error = ARES_ETIMEOUT}, true, true},
      {{.kind = Kind::kResolve, .error = ARES_ENOMEM}, false, true},
      {{.kind = Kind::kResolve, .error = ARES_ECANCELLED}, false, true},
      {{.kind = Kind::kResolve, .error = ARES_ECONNREFUSED}, false, true},
      {{.kind = Kind::kConnect, .error = ECONNREFUSED}, true, true},
      {{.kind = Kind::kConnect, .error = EHOSTUNREACH}, true, true},
      {{.kind = Kind::kConnect, .error = ETIMEDOUT}, true, true},
      {{.kind = Kind::kConnect, .error = EMFILE}, false, true},
      {{.kind = Kind::kConnect, .error = ENFILE}, false, true},
      {{.kind = Kind::kConnect, .error = ENOBUFS}, false, true},
      {{.kind = Kind::kConnect, .error = EADDRNOTAVAIL}, false, true},
      {{.kind = Kind::kConnect, .error = ECANCELED}, false, true},
      {{.kind = Kind::kTls}, true, true},
      {{.kind = Kind::kTls, .error = ENOMEM}, false, true},
      {{.kind = Kind::kTimedOut}, true, false},
      {{.kind = Kind::kCutShort}, true, false},
      {{.kind = Kind::kTooLarge}, true, false},
      {{.kind = Kind::kStatus, .httpStatus = 404}, true, false},
      {{.kind = Kind::kMalformed}, true, false},
      {{.kind = Kind::kClosed}, true, false},
  };
  for (const auto& row : rows) {
    const int kind = static_cast<int>(row.failure.kind);
    EXPECT_EQ(FetchDesk::isOfHost(row.failure), row.ofHost) << kind << ' ' << row.failure.error;
    EXPECT_EQ(FetchDesk::isOfAllHost(row.failure), row.ofAll) << kind;
  }
}

TEST(FetchDesk, TimeOfTheVerificationSpent_IsNotTheHostsFailure) {
  const Failure silent{.kind = Kind::kTimedOut};
  VerificationRun::Limits limits;
  limits.networkTime = 1s;
  const VerificationRun run(nullptr, limits);
  EXPECT_TRUE(FetchDesk::isOfHost(silent));
  VerificationRun::current()->network().countTime(2s);
  EXPECT_FALSE(FetchDesk::isOfHost(silent));
}

TEST(FetchDesk, ExchangeThatWasCut_IsNotTheHostsFailure) {
  const LW::HTTP::WebTerms direct;
  LW::HTTP::WebTerms proxied;
  proxied.proxy = Uri("http://proxy.test:3128");
  const struct {
    Failure failure;
    std::chrono::seconds taken;
    std::size_t maxContent;
    bool ofHost;
    bool behindProxy;
  } rows[] = {
      {{.kind = Kind::kTimedOut}, 15s, direct.maxContent, true, true},
      {{.kind = Kind::kTimedOut}, 9s, direct.maxContent, false, false},
      {{.kind = Kind::kConnect, .error = ETIMEDOUT}, 10s, direct.maxContent, true, false},
      {{.kind = Kind::kConnect, .error = ETIMEDOUT}, 4s, direct.maxContent, false, false},
      {{.kind = Kind::kConnect, .error = ECONNREFUSED}, 0s, direct.maxContent, true, false},
      {{.kind = Kind::kTls, .error = ETIMEDOUT}, 4s, direct.maxContent, false, false},
      {{.kind = Kind::kTls}, 0s, direct.maxContent, true, true},
      {{.kind = Kind::kResolve, .error = ARES_ETIMEOUT}, 5s, direct.maxContent, true, false},
      {{.kind = Kind::kResolve, .error = ARES_ETIMEOUT}, 2s, direct.maxContent, false, false},
      {{.kind = Kind::kResolve, .error = ARES_ENOTFOUND}, 0s, direct.maxContent, true, false},
      {{.kind = Kind::kTooLarge}, 0s, direct.maxContent, true, true},
      {{.kind = Kind::kTooLarge}, 0s, direct.maxContent - 1, false, false},
      {{.kind = Kind::kStatus, .httpStatus = 502}, 0s, direct.maxContent, true, true},
  };
  for (const auto& row : rows) {
    LW::HTTP::WebAnswer answer;
    answer.failure = row.failure;
    answer.taken = row.taken;
    answer.maxContent = row.maxContent;
    const int kind = static_cast<int>(row.failure.kind);
    EXPECT_EQ(FetchDesk::isOfHost(answer, direct), row.ofHost) << kind << ' ' << row.taken.count();
    EXPECT_EQ(FetchDesk::isOfHost(answer, proxied), row.behindProxy)
        << kind << ' ' << row.taken.count();
  }
}

// The resolver itself gives up in time, however much of it there is.
TEST(FetchDesk, NameServerThatIsSilent_IsSoAfterTheUsualTime) {
  LW::HTTP::WebTerms patient;
  patient.resolveTime = 60s;
  LW::HTTP::WebAnswer answer;
  answer.failure = {.kind = Kind::kResolve, .error = ARES_ETIMEOUT};
  answer.taken = 11s;
  EXPECT_TRUE(FetchDesk::isOfHost(answer, patient));
  answer.taken = 2s;
  EXPECT_FALSE(FetchDesk::isOfHost(answer, patient));
}

using DeskClock = std::chrono::steady_clock;

const Failure kSilent{.kind = Kind::kTimedOut, .detail = "no answer"};

/// Where a desk keeps what it knows: in the cache, or in memory where there is none.
class FetchDeskAnywhere : public testing::TestWithParam<const char*> {
 protected:
  const TempDir directory;
  FetchDesk desk{(directory / GetParam()).string()};
};
INSTANTIATE_TEST_SUITE_P(Places, FetchDeskAnywhere, testing::Values("", "missing"),
                         [](const auto& row) {
                           return *row.param == '\0' ? "InACache" : "WithoutACache";
                         });

TEST_P(FetchDeskAnywhere, Failure_IsRememberedUntilItAnswers) {
  EXPECT_FALSE(desk.failureOf("a"));
  const Time before = Time::now();
  desk.failed("a", kSilent);
  const std::optional<FetchDesk::Mark> mark = desk.failureOf("a");
  ASSERT_TRUE(mark);
  EXPECT_EQ(mark->failures, 1U);
  EXPECT_EQ(mark->reason, "no answer");
  EXPECT_GE(mark->at, before);
  EXPECT_EQ(mark->until.seconds() - mark->at.seconds(), 30);
  EXPECT_FALSE(desk.failureOf("b"));
  EXPECT_TRUE(FetchDesk(directory / GetParam()).failureOf("a")) << "another desk of the place";
  EXPECT_FALSE(FetchDesk(TempDir().string()).failureOf("a"));
  desk.succeeded("a");
  EXPECT_FALSE(desk.lastFailureOf("a"));
}

TEST_P(FetchDeskAnywhere, FailureOfOurOwn_IsNotRemembered) {
  desk.failed("a", {.kind = Kind::kConnect, .error = EMFILE});
  desk.failed("a", {.kind = Kind::kNoTime});
  EXPECT_FALSE(desk.lastFailureOf("a"));
}

TEST_P(FetchDeskAnywhere, Delivery_IsThereUntilItIsWithdrawn) {
  EXPECT_FALSE(desk.delivered("a"));
  const FetchDesk::Delivery delivery{
      .octets = "x\n", .validators = {"\"1\"", ""}, .fetched = Time::now()};
  desk.deliver("a", delivery);
  const std::optional<FetchDesk::Delivery> read = desk.delivered("a");
  ASSERT_TRUE(read);
  EXPECT_EQ(read->octets, "x\n");
  EXPECT_EQ(read->validators, delivery.validators);
  EXPECT_EQ(read->fetched, delivery.fetched);
  EXPECT_FALSE(desk.delivered("b"));
  desk.withdraw("a");
  EXPECT_FALSE(desk.delivered("a"));
}

TEST_P(FetchDeskAnywhere, DeliveryOfAnotherTime_IsNone) {
  for (const long seconds : {-31L, 5L}) {
    desk.deliver("a", {.octets = "x", .validators = {}, .fetched = Time::then(seconds, false)});
    EXPECT_FALSE(desk.delivered("a")) << seconds;
  }
}

TEST_P(FetchDeskAnywhere, Turn_IsHeldByOneThreadAtATime) {
  {
    const FetchDesk::Turn turn = desk.turn("a", DeskClock::now());
    EXPECT_TRUE(turn.held());
    EXPECT_TRUE(desk.turn("b", DeskClock::now()).held());
    const Stopwatch watch;
    EXPECT_FALSE(desk.turn("a", DeskClock::now() + 60ms).held());
    EXPECT_TRUE(watch.took(60ms));
  }
  EXPECT_TRUE(desk.turn("a", DeskClock::now()).held());
}

TEST_P(FetchDeskAnywhere, WaitForATurn_EndsWhenSomebodyAsksToStop) {
  const FetchDesk::Turn turn = desk.turn("a", DeskClock::now());
  std::stop_source source;
  std::thread waiting([&] {
    const Cancellation here(source.get_token());
    EXPECT_FALSE(desk.turn("a", DeskClock::now() + 60s).held());
    EXPECT_FALSE(desk.turn("b", DeskClock::now()).held());
  });
  EXPECT_FALSE(desk.turn("a", DeskClock::now() + 30ms).held());  // it waits by now
  const Stopwatch watch;
  source.request_stop();
  waiting.join();
  EXPECT_TRUE(watch.tookNoTime());
}

class FetchDeskFiles : public testing::Test {
 protected:
  std::filesystem::path pathOf(const std::string& place, std::string_view suffix) const {
    return std::filesystem::path(files.directory()) /
           (DeskFiles::digestOf(place) + std::string(suffix));
  }
  void plantMark(const std::string& place, const FetchDesk::Mark& mark) {
    ASSERT_EQ(files.write(pathOf(place, DeskFiles::kMark).filename(), markText(mark), {}), 0);
  }
  /// How many descriptors of this process are of the lock file.
  std::ptrdiff_t openCount(const std::string& place) const {
    const std::filesystem::path path = pathOf(place, DeskFiles::kLock);
    const std::filesystem::directory_iterator open("/proc/self/fd");
    return std::count_if(begin(open), end(open), [&](const auto& entry) {
      std::error_code closed;
      return std::filesystem::read_symlink(entry.path(), closed) == path;
    });
  }
  bool isFree(const std::string& place) { return desk.turn(place, DeskClock::now()).held(); }

  const TempDir cache;
  const DeskFiles files{cache.string()};
  FetchDesk desk{cache.string()};
};

TEST_F(FetchDeskFiles, WhatOneProcessHasToSay_TheOthersHear) {
  EXPECT_TRUE(holdsInChild([&] {
    desk.failed("a", kSilent);
    desk.deliver("a", {.octets = "x", .validators = {}, .fetched = Time::now()});
    return true;
  }));
  EXPECT_TRUE(desk.failureOf("a"));
  EXPECT_TRUE(desk.delivered("a"));
  EXPECT_TRUE(holdsInChild([&] {
    desk.succeeded("a");
    desk.withdraw("a");
    return true;
  }));
  EXPECT_FALSE(desk.lastFailureOf("a"));
  EXPECT_FALSE(desk.delivered("a"));
}

TEST_F(FetchDeskFiles, PauseThatIsOver_IsStillTheLastFailure) {
  plantMark("a", {.at = Time::then(-100, false), .until = Time::then(-40, false), .failures = 2});
  EXPECT_FALSE(desk.failureOf("a"));
  EXPECT_EQ(desk.lastFailureOf("a").value().failures, 2U);
  desk.failed("a", kSilent);
  EXPECT_EQ(desk.failureOf("a").value().failures, 3U);
}

TEST_F(FetchDeskFiles, MarkFromTheFuture_IsVoid) {
  plantMark("a", {.at = Time::then(60, false), .until = Time::then(90, false), .failures = 5});
  EXPECT_FALSE(desk.lastFailureOf("a"));
  desk.failed("a", kSilent);
  EXPECT_EQ(desk.failureOf("a").value().failures, 1U);
}

TEST_F(FetchDeskFiles, WhatLiesThere_IsReadUpToALimit) {
  desk.failed("a", kSilent);
  const std::string mark = readFile(pathOf("a", DeskFiles::kMark));
  writeFile(pathOf("a", DeskFiles::kMark), mark + std::string(4096 - mark.size(), ' '));
  EXPECT_FALSE(desk.lastFailureOf("a"));
  writeFile(pathOf("a", DeskFiles::kMark), std::string(1 << 20, 'x'));
  EXPECT_FALSE(desk.lastFailureOf("a"));
  desk.failed("a", kSilent);
  EXPECT_TRUE(desk.lastFailureOf("a"));
}

TEST_F(FetchDeskFiles, DeliveryThatIsTooLarge_TakesTheFormerOneAway) {
  desk.deliver("a", {.octets = "x", .validators = {}, .fetched = Time::now()});
  desk.deliver(
      "a",
      {.octets = std::string(kMaximumDelivery + 1, 'x'), .validators = {}, .fetched = Time::now()});
  EXPECT_FALSE(desk.delivered("a"));
}

TEST_F(FetchDeskFiles, NoScanOfTheCache_SeesThem) {
  const FetchDesk::Turn turn = desk.turn("a", DeskClock::now());
  desk.failed("a", kSilent);
  desk.deliver("a", {.octets = "x", .validators = {}, .fetched = Time::now()});
  class Names : public File::Processor {
   public:
    int process(const File::Path& path) override {
      names.push_back(path.name());
      return 0;
    }
    std::vector<std::string> names;
  } seen;
  File::Selector(File::Path(cache.string()), seen).start();
  EXPECT_EQ(seen.names, std::vector<std::string>());

  const Issued root = issueCA("CN=Root");
  const RefCertificateRevocationList crl = crlHandle({.issuer = &root});
  for (const char* const uri : {"http://a.test/", "http://b.test/"}) {
    CRLCache(cache.string(), {.files = 1, .bytes = 1 << 20}).add(Uri(uri), {crl});
  }
  EXPECT_TRUE(desk.failureOf("a"));
  EXPECT_TRUE(desk.delivered("a"));
  EXPECT_TRUE(std::filesystem::exists(pathOf("a", DeskFiles::kLock)));
}

TEST_F(FetchDeskFiles, TurnOfAProcess_KeepsTheOthersWaitingAndNoLonger) {
  const FetchDesk::Turn turn = desk.turn("a", DeskClock::now());
  EXPECT_TRUE(holdsInChild([&] {
    const Stopwatch watch;
    return !desk.turn("a", DeskClock::now() + 60ms).held() && watch.took(60ms) && isFree("b");
  }));
  EXPECT_TRUE(holdsInChild([&] {
    std::stop_source source;
    bool held = true;
    std::thread waiting([&] {
      const Cancellation here(source.get_token());
      held = desk.turn("a", DeskClock::now() + 60s).held();
    });
    while (openCount("a") == 0) std::this_thread::yield();
    const Stopwatch watch;
    source.request_stop();
    waiting.join();
    return !held && watch.tookNoTime();
  }));
}

TEST_F(FetchDeskFiles, ForkedChild_HasNoneOfItsParentsTurns) {
  std::optional<FetchDesk::Turn> turn;
  turn.emplace(desk.turn("a", DeskClock::now()));
  EXPECT_TRUE(holdsInChild([&] {
    if (turn->held() || isFree("a")) return false;
    turn.reset();
    return !isFree("a");
  }));
  EXPECT_TRUE(turn->held());
  EXPECT_TRUE(holdsInChild([&] { return !isFree("a"); }));
  turn.reset();
  EXPECT_TRUE(holdsInChild([&] { return isFree("a"); }));
}

/// A pipe whose reader waits until every writer is gone.
struct Gate {
  Gate() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    reader = Descriptor(ends[0], "pipe");
    writer = Descriptor(ends[1], "pipe");
  }
  void wait() {
    writer.reset();
    char byte = 0;
    static_cast<void>(!::read(reader.number(), &byte, 1));
  }
  void say() { EXPECT_EQ(::write(writer.number(), "x", 1), 1); }

  Descriptor reader;
  Descriptor writer;
};

TEST_F(FetchDeskFiles, KilledHolderThatHasForked_BlocksNobody) {
  Gate held;
  Gate end;
  const pid_t holder = forkChild([&] {
    const FetchDesk::Turn turn = desk.turn("a", DeskClock::now());
    const pid_t survivor = ::fork();
    if (survivor == 0) {
      held.say();
      end.wait();
      ::_exit(0);
    }
    ::pause();
    return turn.held();
  });
  held.wait();
  EXPECT_FALSE(isFree("a"));
  ASSERT_EQ(::kill(holder, SIGKILL), 0);
  EXPECT_EQ(collect(holder), 128 + SIGKILL);
  EXPECT_TRUE(isFree("a"));
}

TEST_F(FetchDeskFiles, LockFileThatWasReplaced_LetsOneInOnly) {
  const std::filesystem::path path = pathOf("a", DeskFiles::kLock);
  ASSERT_TRUE(isFree("a"));
  Descriptor old(::open(path.c_str(), O_RDONLY | O_CLOEXEC), "open");
  ASSERT_EQ(::flock(old.number(), LOCK_EX), 0);
  std::atomic<bool> entered{false};
  std::thread waiting([&] {
    const FetchDesk::Turn turn = desk.turn("a", DeskClock::now() + 60s);
    entered = turn.held();
  });
  while (openCount("a") < 2) std::this_thread::yield();
  std::filesystem::remove(path);
  writeFile(path, "");
  Descriptor made(::open(path.c_str(), O_RDONLY | O_CLOEXEC), "open");
  ASSERT_EQ(::flock(made.number(), LOCK_EX), 0);
  old.reset();
  // Whoever gets the old one sees that it is.
  EXPECT_TRUE(holdsInChild([&] { return !desk.turn("a", DeskClock::now() + 60ms).held(); }));
  EXPECT_FALSE(entered);
  made.reset();
  waiting.join();
  EXPECT_TRUE(entered);
}

TEST_F(FetchDeskFiles, ProcessThatWrites_LooksWhatNobodyNeedsAnyMore) {
  const std::filesystem::path spent = pathOf("old", DeskFiles::kDelivery);
  const auto removes = [&](auto use) {
    EXPECT_EQ(files.write(spent.filename(), "", ""), 0);
    std::filesystem::last_write_time(spent, std::filesystem::file_time_type::clock::now() - 1h);
    EXPECT_TRUE(holdsInChild([&] {
      use();
      return true;
    }));
    return !std::filesystem::exists(spent);
  };
  EXPECT_TRUE(removes([&] { return desk.turn("a", DeskClock::now()); }));
  EXPECT_TRUE(removes([&] { desk.failed("a", kSilent); }));
  EXPECT_TRUE(
      removes([&] { desk.deliver("a", {.octets = "x", .validators = {}, .fetched = {}}); }));
  EXPECT_FALSE(removes([&] { desk.delivered("a"); }));
}

TEST_F(FetchDeskFiles, LockThatIsUsed_IsNotOld) {
  ASSERT_TRUE(isFree("a"));
  const std::filesystem::path path = pathOf("a", DeskFiles::kLock);
  const auto longAgo = std::filesystem::file_time_type::clock::now() - 1h;
  std::filesystem::last_write_time(path, longAgo);
  ASSERT_TRUE(isFree("a"));
  EXPECT_GT(std::filesystem::last_write_time(path), longAgo + 30min);
}

TEST_F(FetchDeskFiles, CacheThatCannotBeWritten_IsSaidOnceForEachProcess) {
  const TempDir elsewhere;
  writeFile(elsewhere / "file", "");
  std::filesystem::create_directory(elsewhere / "taken");
  writeFile(elsewhere / "taken/.fetch", "");
  std::filesystem::create_directory(elsewhere / "closed");
  std::filesystem::permissions(elsewhere / "closed", std::filesystem::perms::owner_exec);
  const struct {
    const char* name;
    const char* reason;
  } rows[] = {{"missing", "No such file"},
              {"file", "Not a directory"},
              {"taken", "Not a directory"},
              {"closed", "Permission denied"}};
  for (const auto& row : rows) {
    const std::string path = (elsewhere / row.name).string();
    EXPECT_TRUE(holdsInChild([&] {
      const Unprivileged user;
      LogCapture log;
      FetchDesk none(path);
      if (none.delivered("a") || none.failureOf("a") || !log.lines().empty()) return false;
      const FetchDesk::Turn turn = none.turn("a", DeskClock::now());
      none.failed("a", kSilent);
      none.deliver("a", {.octets = "x", .validators = {}, .fetched = Time::now()});
      if (!turn.held() || !none.failureOf("a") || !none.delivered("a")) return false;
      if (none.turn("a", DeskClock::now()).held()) return false;
      const std::string text = log.text();
      return log.lines().size() == 1 && text.starts_with("5 ") &&
             text.find(path + "/.fetch: " + row.reason) != std::string::npos;
    })) << row.name;
  }
  std::filesystem::permissions(elsewhere / "closed", std::filesystem::perms::owner_all);
}

TEST_F(FetchDeskFiles, FileThatCannotBeWrittenWhole_IsNotThereAtAll) {
  EXPECT_TRUE(holdsInChild([&] {
    std::signal(SIGXFSZ, SIG_IGN);
    const rlimit full{10, 10};
    if (::setrlimit(RLIMIT_FSIZE, &full) != 0) return false;
    LogCapture log;
    desk.failed("a", kSilent);
    desk.deliver("a", {.octets = "octets", .validators = {}, .fetched = Time::now()});
    return desk.failureOf("a") && desk.delivered("a") && log.lines().size() == 1;
  }));
  EXPECT_TRUE(std::filesystem::is_empty(files.directory()));
  EXPECT_FALSE(desk.failureOf("a") || desk.delivered("a"));
}

TEST_F(FetchDeskFiles, CacheThatCanBeWrittenAgain_TakesThePlaceOfMemory) {
  const auto tell = [&] {
    desk.failed("a", kSilent);
    desk.deliver("a", {.octets = "x", .validators = {}, .fetched = Time::now()});
  };
  writeFile(files.directory(), "");
  tell();
  EXPECT_TRUE(desk.failureOf("a") && desk.delivered("a"));
  EXPECT_FALSE(FetchDesk(TempDir().string()).failureOf("a"));
  std::filesystem::remove(files.directory());
  tell();
  EXPECT_TRUE(desk.failureOf("a") && desk.delivered("a"));
  std::filesystem::remove_all(files.directory());
  EXPECT_FALSE(desk.failureOf("a") || desk.delivered("a"));
}

TEST(FetchDesk, NameWithANul_IsAnException) {
  EXPECT_THROW(FetchDesk(std::string("/a\0b", 4)), Exception);
}

/// What processes that are forked share.
template <typename Value>
class Shared {
 public:
  Shared()
      : memory_(::mmap(nullptr, sizeof(Value), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                       -1, 0)) {
    if (memory_ == MAP_FAILED) throw std::bad_alloc();
    value_ = new (memory_) Value{};
  }
  ~Shared() { ::munmap(memory_, sizeof(Value)); }
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  Value* operator->() const { return value_; }
  Value& operator*() const { return *value_; }

 private:
  void* memory_;
  Value* value_;
};

struct Crowd {
  static constexpr int kProcesses = 16;
  static constexpr int kThreads = 4;

  std::atomic<int> arrived{0};
  std::atomic<int> fetches{0};
  std::atomic<int> delivered{0};
};

void askInCrowd(FetchDesk& desk, Crowd& crowd) {
  ++crowd.arrived;
  const FetchDesk::Turn turn = desk.turn("a", DeskClock::now() + 60s);
  if (!turn.held()) return;
  if (!desk.delivered("a")) {
    // It takes its time: until all of them want it.
    while (crowd.arrived < Crowd::kProcesses * Crowd::kThreads) std::this_thread::sleep_for(1ms);
    ++crowd.fetches;
    desk.deliver("a", {.octets = "octets", .validators = {}, .fetched = Time::now()});
  }
  const std::optional<FetchDesk::Delivery> delivery = desk.delivered("a");
  if (delivery && delivery->octets == "octets") ++crowd.delivered;
}

TEST_F(FetchDeskFiles, CrowdOfProcessesAndThreads_MakesOneFetch) {
  const Shared<Crowd> crowd;
  std::vector<pid_t> children;
  for (int i = 0; i < Crowd::kProcesses; ++i) {
    children.push_back(forkChild([&] {
      std::array<std::thread, Crowd::kThreads> threads;
      for (std::thread& thread : threads) thread = std::thread([&] { askInCrowd(desk, *crowd); });
      for (std::thread& thread : threads) thread.join();
      return true;
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(collect(child), 0);
  EXPECT_EQ(crowd->fetches, 1);
  EXPECT_EQ(crowd->delivered, Crowd::kProcesses * Crowd::kThreads);
}

/// Its first eight digits are its size, and all that follows is one character.
std::string wholeBody(unsigned int number) {
  const std::string digits = std::to_string(10'000'000 + number * 7919 % 20'000);
  return digits + std::string(number * 7919 % 20'000, static_cast<char>('a' + number % 26));
}
bool isWholeBody(const std::string& body) {
  if (body.size() < 8 || body.substr(0, 8) != std::to_string(10'000'000 + body.size() - 8)) {
    return false;
  }
  return body.size() == 8 || body.find_first_not_of(body[8], 8) == std::string::npos;
}

TEST_F(FetchDeskFiles, HolderKilledAtAnyPoint_LeavesNothingTornAndBlocksNobody) {
  constexpr int kRounds = 200;
  std::mt19937 random(20260101);
  const Shared<std::atomic<unsigned int>> steps;
  int marks = 0;
  int deliveries = 0;
  for (int round = 0; round < kRounds; ++round) {
    const unsigned int begin = *steps;
    const pid_t holder = forkChild([&] {
      for (unsigned int number = *steps;; ++number) {
        const FetchDesk::Turn turn = desk.turn("a", DeskClock::now() + 60s);
        desk.failed("a", kSilent);
        desk.deliver("a", {.octets = wholeBody(number), .validators = {}, .fetched = Time::now()});
        if (number % 3 == 0) desk.succeeded("a");
        ++*steps;
      }
      return true;
    });
    const unsigned int wanted = begin + static_cast<unsigned int>(random() % 4);
    while (*steps < wanted) std::this_thread::yield();
    for (auto left = random() % 2000; left > 0; --left)
      std::atomic_signal_fence(std::memory_order_seq_cst);
    ASSERT_EQ(::kill(holder, SIGKILL), 0);
    ASSERT_EQ(collect(holder), 128 + SIGKILL);

    ASSERT_TRUE(isFree("a"));
    if (const auto mark = files.read(pathOf("a", DeskFiles::kMark).filename(), kMaximumMark)) {
      ++marks;
      ASSERT_TRUE(parseMark(*mark, Time::now())) << *mark;
    }
    if (const auto delivery = desk.delivered("a")) {
      ++deliveries;
      ASSERT_TRUE(isWholeBody(delivery->octets));
    }
  }
  EXPECT_GT(marks, 0);
  EXPECT_GT(deliveries, kRounds / 2);
}

}  // namespace
}  // namespace Velantrix::Test
