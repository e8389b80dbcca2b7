// Names of hosts, resolved by a name server of the test and by files of its own.
#include "foundation/net/Cancellation.h"
#include "foundation/net/HostResolver.h"
#include "foundation/net/http/HTTPAccess.h"
#include "foundation/run/VerificationRun.h"
#include "integration/DnsServer.h"
#include "integration/HTTPClient.h"
#include "support/Files.h"
#include "support/Stopping.h"

#include <velantrix/Host.h>

#include <algorithm>
#include <ares.h>
#include <atomic>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <future>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Crypto::PKX509::VerificationRun;

/// What a verification has for the network here, so that tests need not wait for five seconds.
constexpr auto kShort = 250ms;

class HostResolution : public testing::Test {
 protected:
  HostResolution() {
    writeFile("/etc/resolv.conf", "nameserver 127.0.0.1\n");
    writeFile("/etc/hosts", "");
  }
};

std::string resolve(const std::string& name) {
  return Host(HostName(name)).address().asString(true);
}

// What this thread has computed so far.
std::chrono::nanoseconds processorTime() {
  timespec now{};
  EXPECT_EQ(clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now), 0);
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

DnsServer::Handler always(const std::vector<std::string>& addresses) {
  return [addresses](const DnsQuery& query) { return answerTo(query, addresses); };
}

TEST_F(HostResolution, Bound_IsFiveSeconds) { EXPECT_EQ(kResolveTime, 5s); }

TEST_F(HostResolution, AddressesOfTheNameServer_AreFound) {
  const struct {
    const char* what;
    std::vector<std::string> addresses;
    std::set<std::string> expected;  // one of these
  } rows[] = {
      {"IPv4", {"192.0.2.1"}, {"192.0.2.1"}},
      {"IPv6", {"2001:db8::a"}, {"2001:db8::a"}},
      {"both", {"192.0.2.1", "2001:db8::a"}, {"192.0.2.1", "2001:db8::a"}},
      {"several", {"127.0.0.3", "127.0.0.2", "127.0.0.4"}, {"127.0.0.3"}},
      {"none", {}, {""}},
  };
  for (const auto& row : rows) {
    const DnsServer server(always(row.addresses));
    const Stopwatch watch;
    EXPECT_EQ(row.expected.count(resolve("host.example.test")), 1U) << row.what;
    EXPECT_TRUE(watch.tookNoTime()) << row.what;
    ASSERT_FALSE(server.queries().empty()) << row.what;
    for (const DnsQuery& query : server.queries()) EXPECT_EQ(query.name, "host.example.test");
  }
}

// Each of them would be connected to in turn.
TEST_F(HostResolution, MoreThanSixteenAddresses_TheRestIsLeftOut) {
  for (const std::size_t served : {std::size_t{15}, std::size_t{16}, std::size_t{17}}) {
    std::vector<std::string> addresses;
    for (std::size_t i = 1; i <= served; ++i) addresses.push_back("192.0.2." + std::to_string(i));
    const DnsServer server(always(addresses));
    const std::vector<std::string> found = resolveHost("host.example.test").addresses;
    EXPECT_EQ(found.size(), std::min(served, std::size_t{16}));
    EXPECT_EQ(std::set<std::string>(found.begin(), found.end()).size(), found.size());
  }
}

TEST_F(HostResolution, AliasOfAnotherName_IsFollowed) {
  const DnsServer server([](const DnsQuery& query) {
    const std::string alias = record(kTypeCname,
                                     "\x05"
                                     "other\xc0\x11"s);
    if (query.type != kTypeA) return answerWith(query, alias, 1);
    const std::string owner =
        "\x05"
        "other\xc0\x11"s;
    return answerWith(query, alias + owner + record(kTypeA, "\xc0\x00\x02\x07"s).substr(2), 2);
  });
  EXPECT_EQ(resolve("host.example.test"), "192.0.2.7");
}

TEST_F(HostResolution, NoSuchName_HasNoAddressAndTakesNoTime) {
  const DnsServer server([](const DnsQuery& query) { return answerTo(query, {}, kNoSuchName); });
  const Stopwatch watch;
  EXPECT_EQ(resolve("host.example.test"), "");
  EXPECT_TRUE(watch.tookNoTime());
  EXPECT_FALSE(server.queries().empty());
}

// What an exchange tells of a host that was not found; it asks for it once.
TEST_F(HostResolution, WhyThereIsNoAddress_IsTold) {
  const struct {
    const char* what;
    DnsServer::Handler answer;
    int status;
    const char* reason;
  } rows[] = {
      {"no such name", [](const DnsQuery& query) { return answerTo(query, {}, kNoSuchName); },
       ARES_ENOTFOUND, "Domain name not found"},
      {"no address", always({}), ARES_ENODATA, "DNS server returned answer with no data"},
      {"silence", [](const DnsQuery&) { return std::string(); }, ARES_ETIMEOUT,
       "Timeout while contacting DNS servers"},
  };
  for (const auto& row : rows) {
    const DnsServer server(row.answer);
    VerificationRun run(nullptr, {.networkTime = 4 * kShort});
    run.network().countTime(2 * kShort);
    {
      const NetworkBudget::HalfOfTime half;
      const HostAddresses none = resolveHost("host.example.test");
      EXPECT_EQ(none.status, row.status) << row.what;
      EXPECT_EQ(none.reason(), row.reason) << row.what;
      EXPECT_EQ(none.addresses.size(), 0U) << row.what;
    }
    const std::size_t asked = server.queries().size();
    const HTTP::Answer answer = HTTP::exchange(Uri("http://host.example.test/"), {"", ""}, {});
    EXPECT_EQ(server.queries().size(), 2 * asked) << row.what;
    EXPECT_EQ(answer.outcome, 0) << row.what;
    EXPECT_EQ(answer.problem, "could not resolve the host") << row.what;
    expectFailure(answer.failure, {HTTP::Failure::Kind::kResolve, row.status, 0, row.reason},
                  row.what);
    EXPECT_GT(answer.taken, 0ns) << row.what;
  }
  for (const std::string& name : {""s, "a\0b"s, std::string(300, 'a')}) {
    EXPECT_EQ(resolveHost(name).status, ARES_EBADNAME) << name;
  }
}

TEST_F(HostResolution, NoTimeLeft_IsToldApartFromNoAddress) {
  const DnsServer server(always({"192.0.2.1"}));
  EXPECT_EQ(resolveHost("host.example.test").status, HostAddresses::kFound);
  const std::size_t asked = server.queries().size();
  VerificationRun run(nullptr, {.networkTime = 10s});
  run.network().countTime(10s);
  const HTTP::Answer answer = HTTP::exchange(Uri("http://host.example.test/"), {"", ""}, {});
  EXPECT_EQ(answer.problem, "could not resolve the host");
  EXPECT_EQ(answer.failure, HTTP::Failure{.kind = HTTP::Failure::Kind::kNoTime});
  EXPECT_EQ(server.queries().size(), asked);
}

TEST_F(HostResolution, AskedToStop_EndsAtOnceAndIsNotTheHostsFailure) {
  std::promise<void> asked;
  std::atomic<int> questions = 0;
  const DnsServer server([&](const DnsQuery&) {
    if (questions++ == 0) asked.set_value();
    return std::string();
  });
  Stopping stopping([&] { asked.get_future().wait(); });
  const Cancellation here(stopping.token());
  const HTTP::Answer answer = HTTP::exchange(Uri("http://host.example.test/"), {"", ""}, {});
  EXPECT_TRUE(stopping.wasHeardInTime());
  EXPECT_EQ(answer.problem, "somebody asked to stop");
  EXPECT_EQ(answer.failure, HTTP::Failure{.kind = HTTP::Failure::Kind::kCancelled});
  const int before = questions;
  EXPECT_EQ(resolveHost("host.example.test").status, HostAddresses::kCancelled);
  EXPECT_EQ(questions, before) << "nobody is asked any more";
}

TEST_F(HostResolution, NamesThatNobodyHas_HaveNoAddress) {
  const DnsServer server([](const DnsQuery& query) { return answerTo(query, {}, kNoSuchName); });
  for (const std::string& name :
       {"."s, ".."s, "a..b"s, "a b"s, "-"s, "$(reboot)"s, "%6c%6f"s, "a\nb"s, "\xff\xfe"s, "1.2.3"s,
        "[::1]"s, "\\"s, "\\300"s, std::string(64, 'a') + ".test", std::string(254, 'a'),
        "host.example.test:80"s}) {
    const Stopwatch watch;
    VerificationRun run(nullptr, {.networkTime = 2s});
    EXPECT_EQ(resolve(name), "") << name;
    EXPECT_TRUE(watch.tookNoTime()) << name;
  }
}

// Refused is not always quick: one of two questions may get what the kernel says about the other.
TEST_F(HostResolution, NobodyIsTheNameServer_HasNoAddressInTime) {
  const VerificationRun run(nullptr, {.networkTime = kShort});
  const Stopwatch watch;
  EXPECT_EQ(resolve("host.example.test"), "");
  EXPECT_LE(watch.elapsed(), kShort + kSlack);
}

TEST_F(HostResolution, FilesMissing_TheNameServerOfThisMachineIsAsked) {
  std::filesystem::remove("/etc/resolv.conf");
  std::filesystem::remove("/etc/hosts");
  const DnsServer server(always({"192.0.2.1"}));
  EXPECT_EQ(resolve("host.example.test"), "192.0.2.1");
}

TEST_F(HostResolution, HostsFile_AnswersAndNobodyIsAsked) {
  writeFile("/etc/hosts", "# ours\n192.0.2.5 crl.example.test crl\n2001:db8::5 six.example.test\n");
  const DnsServer server(always({"192.0.2.66"}));
  EXPECT_EQ(resolve("crl.example.test"), "192.0.2.5");
  EXPECT_EQ(resolve("CRL.Example.Test"), "192.0.2.5");
  EXPECT_EQ(resolve("crl"), "192.0.2.5");
  EXPECT_EQ(resolve("six.example.test"), "2001:db8::5");
  EXPECT_EQ(server.queries().size(), 0U);
  // What is changed there counts from the next host on.
  writeFile("/etc/hosts", "192.0.2.6 crl.example.test\n");
  EXPECT_EQ(resolve("crl.example.test"), "192.0.2.6");
}

TEST_F(HostResolution, HostsFileOfNonsense_IsPassedOver) {
  writeFile("/etc/hosts", "nonsense\n\n\xff\xfe\n192.0.2.300 crl.example.test\n" +
                              std::string(100'000, 'x') + "\n192.0.2.5 crl.example.test\n");
  EXPECT_EQ(resolve("crl.example.test"), "192.0.2.5");
}

TEST_F(HostResolution, NumericAddress_NobodyIsAsked) {
  const DnsServer server(always({"192.0.2.66"}));
  for (const char* text : {"192.0.2.9", "2001:db8::9"}) EXPECT_EQ(resolve(text), text);
  EXPECT_EQ(server.queries().size(), 0U);
}

TEST_F(HostResolution, Host_AsksOnceAndNotBeforeItIsAsked) {
  const DnsServer server(always({"192.0.2.1"}));
  const Host host(HostName("host.example.test"));
  EXPECT_EQ(server.queries().size(), 0U);
  EXPECT_EQ(host.address().asString(true), "192.0.2.1");
  const std::size_t asked = server.queries().size();
  EXPECT_GE(asked, 1U);
  EXPECT_EQ(host.address().asString(true), "192.0.2.1");
  EXPECT_EQ(server.queries().size(), asked);
  // Another object knows nothing of it.
  EXPECT_EQ(resolve("host.example.test"), "192.0.2.1");
  EXPECT_GT(server.queries().size(), asked);
}

TEST_F(HostResolution, NoAddress_IsRememberedToo) {
  const DnsServer server([](const DnsQuery& query) { return answerTo(query, {}, kNoSuchName); });
  const Host host(HostName("host.example.test"));
  EXPECT_TRUE(host.address().empty());
  const std::size_t asked = server.queries().size();
  EXPECT_TRUE(host.address().empty());
  EXPECT_EQ(server.queries().size(), asked);
}

TEST_F(HostResolution, Silence_EndsWithTheTimeOfTheVerificationAndIsCounted) {
  const DnsServer server([](const DnsQuery&) { return std::string(); });
  VerificationRun run(nullptr, {.networkTime = 10s});
  run.network().countTime(10s - kShort);
  const Stopwatch watch;
  EXPECT_EQ(resolve("host.example.test"), "");
  EXPECT_TRUE(watch.took(kShort));
  EXPECT_GE(run.network().timeSpent(), 10s);
  // Nothing is left, so nobody is asked.
  const std::size_t asked = server.queries().size();
  EXPECT_EQ(resolve("host.example.test"), "");
  EXPECT_TRUE(watch.took(kShort));
  EXPECT_EQ(server.queries().size(), asked);
}

TEST_F(HostResolution, FirstNameServerIsSilent_TheNextIsAsked) {
  writeFile("/etc/resolv.conf", "nameserver 127.0.0.1\nnameserver 127.0.0.2\n");
  const DnsServer silent([](const DnsQuery&) { return std::string(); });
  const DnsServer server(always({"192.0.2.1"}), "127.0.0.2");
  const Stopwatch watch;
  EXPECT_EQ(resolve("host.example.test"), "192.0.2.1");
  EXPECT_LT(watch.elapsed(), 4s);
}

// A socket that c-ares has closed must not be waited on: poll() returns at once for a number that is
// no descriptor, and the rest of the time would be spent in a circle.
TEST_F(HostResolution, SocketIsClosedAndTheNextNameServerIsSilent_WaitsWithoutWork) {
  writeFile("/etc/resolv.conf",
            "nameserver 127.0.0.1\nnameserver 127.0.0.2\nnameserver 127.0.0.3\n");
  // The second question comes to the name server that is not there when the first one has already
  // gone on to the last: no new socket takes the place of the one that is closed then.
  std::promise<void> reached;
  bool told = false;
  const DnsServer last(
      [&](const DnsQuery&) {
        if (!std::exchange(told, true)) reached.set_value();
        return std::string();
      },
      "127.0.0.3");
  const std::future<void> firstQuestionIsThere = reached.get_future();
  bool second = false;
  const DnsServer failing([&](const DnsQuery& query) {
    if (std::exchange(second, true)) firstQuestionIsThere.wait_for(5s);
    return answerTo(query, {}, kServerFailure);
  });

  const VerificationRun run(nullptr, {.networkTime = 1s});
  const Stopwatch watch;
  const auto before = processorTime();
  EXPECT_EQ(resolve("host.example.test"), "");
  EXPECT_LT(processorTime() - before, 250ms);
  EXPECT_TRUE(watch.took(1s));
  EXPECT_EQ(failing.queries().size(), 2U);
  EXPECT_EQ(last.queries().size(), 2U);
}

TEST_F(HostResolution, AnswersThatAreNone_GiveNoAddressInTime) {
  const auto addressRecord = [] { return record(kTypeA, "\xc0\x00\x02\x42"s); };
  const struct {
    const char* what;
    DnsServer::Handler answer;
  } rows[] = {
      {"one byte", [](const DnsQuery&) { return "x"s; }},
      {"noise", [](const DnsQuery&) { return std::string(500, '\xa5'); }},
      {"noise behind the right number",
       [](const DnsQuery& query) { return query.bytes.substr(0, 2) + std::string(500, '\xa5'); }},
      {"header alone", [](const DnsQuery& query) { return answerTo(query, {}).substr(0, 12); }},
      {"the question itself", [](const DnsQuery& query) { return query.bytes; }},
      {"number of another question",
       [](const DnsQuery& query) {
         std::string answer = answerTo(query, {"192.0.2.66"});
         answer[0] = static_cast<char>(answer[0] ^ 0x55);
         answer[1] = static_cast<char>(answer[1] ^ 0x55);
         return answer;
       }},
      {"another question",
       [](const DnsQuery& query) {
         std::string answer = answerTo(query, {"192.0.2.66"});
         answer[13] = 'x';
         return answer;
       }},
      {"more records announced than there are",
       [&](const DnsQuery& query) { return answerWith(query, addressRecord(), 0xffff); }},
      {"record cut short",
       [&](const DnsQuery& query) { return answerWith(query, addressRecord().substr(0, 14), 1); }},
      {"address of three bytes",
       [](const DnsQuery& query) {
         return answerWith(query, record(query.type, "\xc0\x00\x02"s), 1);
       }},
      {"address of no byte",
       [](const DnsQuery& query) { return answerWith(query, record(query.type, ""), 1); }},
      {"name that points to itself",
       [](const DnsQuery& query) {
         const std::size_t place = 12 + query.question.size();
         return answerWith(query,
                           number16(0xc000 | place) + record(query.type, "\xc0\x00\x02\x42"s), 1);
       }},
      {"name that points past the end",
       [](const DnsQuery& query) {
         return answerWith(query, "\xff\xff" + record(query.type, "\xc0\x00\x02\x42"s).substr(2),
                           1);
       }},
      {"alias of itself",
       [](const DnsQuery& query) {
         return answerWith(query, record(kTypeCname, number16(0xc00c)), 1);
       }},
      {"cut short by the name server, which is not there for TCP",
       [](const DnsQuery& query) {
         std::string answer = answerTo(query, {});
         answer[2] = static_cast<char>(answer[2] | 0x02);
         return answer;
       }},
      {"refused", [](const DnsQuery& query) { return answerTo(query, {}, 5); }},
      {"failed", [](const DnsQuery& query) { return answerTo(query, {}, kServerFailure); }},
      {"64 KiB",
       [](const DnsQuery& query) { return answerTo(query, {}) + std::string(60'000, '\0'); }},
  };
  for (const auto& row : rows) {
    const DnsServer server(row.answer);
    VerificationRun run(nullptr, {.networkTime = 150ms});
    const Stopwatch watch;
    EXPECT_EQ(resolve("host.example.test"), "") << row.what;
    EXPECT_LE(watch.elapsed(), 150ms + kSlack) << row.what;
    EXPECT_FALSE(server.queries().empty()) << row.what;
  }
}

// The answer is made while the library waits for it, so a thread of its own would be seen.
TEST_F(HostResolution, Resolution_StartsNoThread) {
  std::atomic<std::size_t> most{0};
  const DnsServer server([&most](const DnsQuery& query) {
    most = std::max(most.load(), threadCount());
    return answerTo(query, {"192.0.2.1"});
  });
  const std::size_t before = threadCount();
  EXPECT_EQ(resolve("host.example.test"), "192.0.2.1");
  EXPECT_EQ(most.load(), before);
  EXPECT_EQ(threadCount(), before);
}

TEST_F(HostResolution, DescriptorsAndMemory_AreGivenBack) {
  const DnsServer server([](const DnsQuery&) { return std::string(); });
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  };
  const auto before = descriptors();
  for (int i = 0; i < 20; ++i) {
    const VerificationRun run(nullptr, {.networkTime = 5ms});
    EXPECT_EQ(resolve("host.example.test"), "");
  }
  EXPECT_EQ(descriptors(), before);
}

}  // namespace
}  // namespace Velantrix::Test
