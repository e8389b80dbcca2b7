// The LDAP client against servers that do not behave.
#include "foundation/net/Cancellation.h"
#include "foundation/net/ldap/LDAPSearch.h"
#include "foundation/net/ldap/LDAPStream.h"
#include "foundation/run/VerificationRun.h"
#include "integration/LDAPPeer.h"
#include "support/FaultServer.h"
#include "support/LogCapture.h"
#include "support/Slapd.h"
#include "support/Stopping.h"
#include "unit/store/Model.h"

#include <pkx509/LDAPLookup.h>
#include <velantrix/Exception.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <ldap.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using Connection = LDAPPeer::Connection;
using Clock = std::chrono::steady_clock;

// libldap reads these when it is first used. All tests run with them, and none notices.
const bool kEnvironmentIsHostile = [] {
  ::setenv("LDAPSIZELIMIT", "1", 1);
  ::setenv("LDAPTIMELIMIT", "1", 1);
  ::setenv("LDAPREFERRALS", "on", 1);
  ::setenv("LDAPDEREF", "always", 1);
  return true;
}();

class LDAPClient : public testing::Test {
 protected:
  LDAPClient() { EXPECT_TRUE(kEnvironmentIsHostile); }

  // Searches and waits a second at most. Returns what is thrown, or the number of entries.
  std::string search(const LDAPPeer& peer, unsigned int seconds = 1) {
    LDAPConnection connection(LDAPConnection::RefServer(peer.uri()), false);
    return search(connection, LDAPSearch::Parameter("o=Test"), seconds);
  }

  std::string search(LDAPConnection& connection, const LDAPSearch::Parameter& parameter,
                     unsigned int seconds = 1) {
    const Clock::time_point start = Clock::now();
    std::string outcome;
    try {
      LDAPSearch search(connection, parameter);
      search.send();
      search.wait(std::chrono::seconds(seconds));
      outcome = std::to_string(search.result().searchResultEntries().size());
      values.clear();
      for (const LDAPSearchResultEntry& entry : search.result().searchResultEntries()) {
        for (const LDAPAttribute& attribute : entry.attributes().attributes()) {
          values.push_back(attribute.type().name() + ":");
          for (const Buffer& value : attribute.binaryValue()) {
            values.emplace_back(value.data(), value.data() + value.length());
          }
        }
      }
    } catch (const Exception& e) {
      outcome = e.asString();
    }
    took = Clock::now() - start;
    return outcome;
  }

  // The server answers the search with these octets and keeps the connection open.
  static LDAPPeer::Script answer(const std::string& octets) {
    return [octets](Connection& connection) {
      connection.read();
      if (connection.write(octets)) connection.hold();
    };
  }

  std::vector<std::string> values;
  Clock::duration took{};
  LogCapture log;
};

#define EXPECT_TEXT(part, outcome)                                                       \
  do {                                                                                   \
    const std::string outcome_ = (outcome);                                              \
    EXPECT_NE(outcome_.find(part), std::string::npos) << outcome_ << '\n' << log.text(); \
  } while (false)

TEST_F(LDAPClient, EnvironmentReachesLibldapButNotUs) {
  int limit = 0;
  ASSERT_EQ(ldap_get_option(nullptr, LDAP_OPT_SIZELIMIT, &limit), LDAP_OPT_SUCCESS);
  EXPECT_EQ(limit, 1);  // so that the other tests mean something
  LDAPPeer peer(answer(message(1, done(0))));
  EXPECT_EQ(search(peer), "0");
  const std::string request = peer.requests().front();
  // Base, whole subtree, aliases never followed, 1,000 entries, no time limit, values wanted.
  EXPECT_NE(request.find(
                "\x04\x06o=Test\x0a\x01\x02\x0a\x01\x00\x02\x02\x03\xe8\x02\x01\x00\x01\x01\x00"s),
            std::string::npos);
  EXPECT_NE(request.find("\x87\x0bobjectClass"), std::string::npos);
}

TEST_F(LDAPClient, EntriesAndTheirValues_InOrder) {
  const LDAPPeer peer(answer(
      message(1,
              entry("cn=A,o=Test", {{"b;binary", {"2"s, ""s, "\0"s}}, {"a", {}}, {"c", {"3"}}})) +
      message(1, entry("cn=B,o=Test", {})) + message(1, entry("cn=C,o=Test", {{"b", {"4"}}})) +
      message(1, done(0))));
  EXPECT_EQ(search(peer), "3");
  EXPECT_EQ(values,
            (std::vector<std::string>{"b;binary:", "2", "", "\0"s, "a:", "c:", "3", "b:", "4"}));
  EXPECT_EQ(log.text(), "");
}

TEST_F(LDAPClient, AnswerInSingleOctets) {
  const LDAPPeer peer([](Connection& connection) {
    connection.read();
    for (const char octet : message(1, entry("cn=A", {{"a", {"1"}}})) + message(1, done(0))) {
      if (!connection.write(std::string(1, octet))) return;
    }
    connection.hold();
  });
  EXPECT_EQ(search(peer), "1");
}

TEST_F(LDAPClient, NoticesOnTheWay_AreNoEntries) {
  const LDAPPeer peer(answer(message(1, element(0x79, "")) + message(1, reference("ldap://h/")) +
                             message(1, entry("cn=A", {})) + message(1, reference("ldap://i/")) +
                             message(1, done(0))));
  EXPECT_EQ(search(peer), "1");
  EXPECT_EQ(log.count("What another server holds of the directory is left out."), 1U);
}

// --- result codes

struct CodeRow {
  int code;
  const char* outcome;  // the number of entries, or a part of what is thrown
  const char* logged;
};

TEST_F(LDAPClient, ResultCodes_Table) {
  const CodeRow rows[] = {
      {0, "1", ""},
      {32, "1", ""},
      {3, "1", "The answer is cut short: Time limit exceeded (why)"},
      {4, "1", "The answer is cut short: Size limit exceeded (why)"},
      {11, "1", "The answer is cut short: Administrative limit exceeded (why)"},
      {10, "1", "A referral is not followed: o=Test"},
      {34, "1", "The server cannot read the base: o=Test: Invalid DN syntax (why)"},
      {1, "Operations error (why)", ""},
      {2, "Protocol error (why)", ""},
      {8, "Strong(er) authentication required (why)", ""},
      {13, "Confidentiality required (why)", ""},
      {14, "SASL bind in progress (why)", ""},
      {50, "Insufficient access (why)", ""},
      {51, "Server is busy (why)", ""},
      {52, "Server is unavailable (why)", ""},
      {80, "error (why)", ""},
      {127, "(why)", ""},
  };
  for (const CodeRow& row : rows) {
    SCOPED_TRACE(row.code);
    log.clear();
    const LDAPPeer peer(answer(message(1, entry("cn=A", {})) + message(1, done(row.code, "why"))));
    const std::string outcome = search(peer);
    if (row.outcome == "1"s) {  // a part of every text with an address in it
      EXPECT_EQ(outcome, "1");
    } else {
      EXPECT_TEXT(row.outcome, outcome);
    }
    if (*row.logged == '\0') {
      EXPECT_EQ(log.text(), "");
    } else {
      EXPECT_EQ(log.count(row.logged), 1U) << log.text();
    }
  }
}

TEST_F(LDAPClient, WhatTheServerSays_IsEscapedAndCut) {
  const LDAPPeer peer(answer(message(1, done(1, "a\nb\x1b[31m" + std::string(100000, 'x')))));
  const std::string text = search(peer);
  EXPECT_TEXT("(a\\0Ab\\1B[31mxxx", text);
  EXPECT_LT(text.size(), 1000U);
}

// --- time

TEST_F(LDAPClient, Silence_EndsInTime) {
  const LDAPPeer peer([](Connection& connection) { connection.hold(); });
  EXPECT_TEXT("The server did not answer in time.", search(peer));
  EXPECT_GE(took, std::chrono::milliseconds(990));
  EXPECT_LT(took, std::chrono::seconds(3));
}

TEST_F(LDAPClient, SilenceInTheMiddle_EndsInTimeAndThrows) {
  const LDAPPeer peer(answer(message(1, entry("cn=A", {{"a", {"1"}}}))));
  EXPECT_TEXT("The server did not answer in time.", search(peer));
  EXPECT_LT(took, std::chrono::seconds(3));
}

TEST_F(LDAPClient, OneOctetNowAndThen_EndsInTime) {
  const LDAPPeer peer([](Connection& connection) {
    connection.read();
    connection.write("\x30\x84\x00\x00\x10\x00"s);
    while (connection.pause() && connection.write("\x02")) {
    }
  });
  EXPECT_TEXT("did not answer in time.", search(peer));
  EXPECT_LT(took, std::chrono::seconds(3));
}

TEST_F(LDAPClient, LookupOfASilentServer_BindTenSecondsAndAnswerThirty) {
  using namespace Crypto::PKX509;
  const auto seconds = [](const std::string& dn, const LDAPPeer::Script& script) {
    const LDAPPeer peer(script);
    LDAPLookupMethod method({LDAPConnection::RefServer(peer.uri()), dn, ""});
    std::list<RefCertificate> found;
    const Clock::time_point start = Clock::now();
    EXPECT_THROW(method.getBySubject("o=Test"s, found), Exception);
    return std::chrono::duration<double>(Clock::now() - start).count();
  };
  double bind = 0;
  std::thread first([&] { bind = seconds("", [](Connection& connection) { connection.hold(); }); });
  // What has arrived until then does not count.
  const double whole = seconds("cn=me", answer(message(1, entry("cn=A", {}))));
  first.join();
  EXPECT_NEAR(bind, 10, 2);
  EXPECT_NEAR(whole, 30, 2);
}

TEST_F(LDAPClient, InsideAVerification_ItsTimeForTheNetworkCounts) {
  using Crypto::PKX509::VerificationRun;
  const LDAPPeer peer([](Connection& connection) { connection.hold(); });
  const VerificationRun run(nullptr, {.networkTime = std::chrono::seconds(1)});
  EXPECT_TEXT("The server did not answer in time.", search(peer, 20));
  EXPECT_GE(took, std::chrono::milliseconds(900));
  EXPECT_LT(took, std::chrono::seconds(3));
  EXPECT_EQ(log.text(), "");
  for (int i = 0; i < 2; ++i) {
    EXPECT_TEXT("The time for the network is spent.", search(peer, 20));
    EXPECT_LT(took, std::chrono::seconds(3));
  }
  EXPECT_EQ(log.count("the time for the network is spent"), 1U) << log.text();
}

TEST_F(LDAPClient, AskedToStop_EndsAtOnceAndAsksNobodyAgain) {
  const std::string notice = message(1, reference("ldap://h/"));
  const struct {
    const char* what;
    bool slow;
  } rows[] = {{"silence", false}, {"a notice now and then", true}};
  for (const auto& row : rows) {
    std::promise<void> asked;
    const LDAPPeer peer([&](Connection& connection) {
      connection.read();
      asked.set_value();
      while (row.slow && connection.pause() && connection.write(notice)) {
      }
      connection.hold();
    });
    Stopping stopping([&] { asked.get_future().wait(); });
    const Cancellation here(stopping.token());
    EXPECT_TEXT("Somebody asked to stop.", search(peer, 20));
    EXPECT_TRUE(stopping.wasHeardInTime()) << row.what;
    EXPECT_TEXT("Somebody asked to stop.", search(peer, 20));
  }
}

TEST_F(LDAPClient, EndlessNotices_EndInTime) {
  for (const std::string& notice :
       {message(1, element(0x79, "")), message(1, reference("ldap://h/"))}) {
    const LDAPPeer peer([&notice](Connection& connection) {
      connection.read();
      while (connection.write(notice)) {
      }
    });
    const std::string outcome = search(peer);
    // Whichever bound comes first.
    EXPECT_TRUE(outcome == "0" || outcome.find("in time") != std::string::npos) << outcome;
    EXPECT_LT(took, std::chrono::seconds(3));
  }
}

TEST_F(LDAPClient, ServerThatDoesNotRead_EndsInTime) {
  const LDAPPeer peer([](Connection& connection) { connection.ignore(); });
  LDAPConnection connection(LDAPConnection::RefServer(peer.uri()), false);
  // More than the two sockets hold between them.
  LDAPSearch::Parameter parameter("o=Test");
  parameter.add(LDAPAttributeType(std::string(32U << 20U, 'x')));
  EXPECT_TEXT("did not answer in time.", search(connection, parameter));
  EXPECT_LT(took, std::chrono::seconds(5));
}

TEST_F(LDAPClient, ConnectThatTheKernelRefuses_ThrowsAtOnce) {
  // Nobody can be connected to all at once.
  const LDAPConnection::Server server("ldap://255.255.255.255:389", {});
  const Clock::time_point start = Clock::now();
  try {
    const LDAPStream stream(server, Deadline(std::chrono::seconds(30)));
    ADD_FAILURE() << "connected";
  } catch (const Exception& e) {
    EXPECT_TEXT("ldap://255.255.255.255", e.asString());
  }
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
}

TEST_F(LDAPClient, ConnectThatIsNotAnswered_EndsInTime) {
  // A listener whose queue is full lets further connections wait.
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof address;
  ASSERT_EQ(::bind(listener, generic, size), 0);
  ASSERT_EQ(::listen(listener, 0), 0);
  ASSERT_EQ(::getsockname(listener, generic, &size), 0);
  std::vector<int> waiting;
  for (int i = 0; i < 4; ++i) {
    waiting.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    static_cast<void>(::connect(waiting.back(), generic, size));
  }
  const LDAPConnection::Server server("ldap://127.0.0.1:" + std::to_string(ntohs(address.sin_port)),
                                      {});
  const Clock::time_point start = Clock::now();
  try {
    const LDAPStream stream(server, Deadline(std::chrono::milliseconds(300)));
    ADD_FAILURE() << "connected";
  } catch (const Exception& e) {
    EXPECT_TEXT("Connection timed out", e.asString());
  }
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(290));
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
  for (const int socket : waiting) ::close(socket);
  ::close(listener);
}

// --- size

TEST_F(LDAPClient, EntriesBeyondAThousand_AreLeftOut) {
  std::string octets;
  for (int i = 0; i < 1001; ++i) octets += message(1, entry("cn=A", {{"a", {"1"}}}));
  const LDAPPeer exact(answer(octets.substr(0, octets.size() / 1001 * 1000) + message(1, done(0))));
  EXPECT_EQ(search(exact), "1000");
  EXPECT_EQ(log.text(), "");
  const LDAPPeer peer(answer(octets));  // the end is not waited for
  EXPECT_EQ(search(peer, 20), "1000");
  EXPECT_LT(took, std::chrono::seconds(3));
  EXPECT_EQ(log.count("only what came first is taken"), 1U);
}

TEST_F(LDAPClient, AnswerThatIsCutShort_SaysSoInItsResult) {
  const std::string one = message(1, entry("cn=A", {{"a", {"1"}}}));
  const auto isComplete = [](const std::string& octets) {
    const LDAPPeer peer(answer(octets));
    LDAPConnection connection(LDAPConnection::RefServer(peer.uri()), false);
    LDAPSearch request(connection, LDAPSearch::Parameter("o=Test"));
    request.send();
    request.wait(std::chrono::seconds(20));
    return request.result().complete();
  };
  EXPECT_TRUE(isComplete(one + message(1, done(0))));
  EXPECT_TRUE(isComplete(message(1, done(32))));  // noSuchObject
  for (const int code : {3, 4, 11}) {             // the limits of time, size and administration
    EXPECT_FALSE(isComplete(one + message(1, done(code)))) << code;
  }
  std::string many;
  for (int i = 0; i < 1001; ++i) many += one;
  EXPECT_FALSE(isComplete(many));
}

TEST_F(LDAPClient, DefaultFilter_AsksForTheAttributes) {
  LDAPSearch::Parameter parameter("o=Test");
  EXPECT_EQ(parameter.filter(), "(objectClass=*)");
  parameter.add(LDAPAttributeType("userCertificate;binary"));
  EXPECT_EQ(parameter.filter(), "(|(userCertificate=*))");
  parameter.add(LDAPAttributeType("mail"));
  EXPECT_EQ(parameter.filter(), "(|(userCertificate=*)(mail=*))");
  parameter.filter("(cn=A)");
  EXPECT_EQ(parameter.filter(), "(cn=A)");
  parameter.filter("");
  EXPECT_EQ(parameter.filter(), "(|(userCertificate=*)(mail=*))");
}

TEST_F(LDAPClient, OctetsBeyondSixteenMiB_AreLeftOut) {
  const std::string large(6U << 20U, 'x');
  const LDAPPeer peer([&large](Connection& connection) {
    connection.read();
    while (connection.write(message(1, entry("cn=A", {{"a", {large}}})))) {
    }
  });
  EXPECT_EQ(search(peer, 20), "2");
  EXPECT_EQ(log.count("only what came first is taken"), 1U);
}

TEST_F(LDAPClient, LengthThatIsOnlyPromised_IsNotWaitedFor) {
  for (const std::string& head : {"\x30\x84\xff\xff\xff\xff"s, "\x30\x84\x01\x00\x00\x01"s}) {
    const LDAPPeer peer(answer(message(1, entry("cn=A", {})) + head));
    EXPECT_EQ(search(peer, 20), "1");
    EXPECT_LT(took, std::chrono::seconds(3));
  }
}

TEST_F(LDAPClient, ValuesOfNoOctets_CostMoreThanTheirOctets) {
  // Seven million values in 14 MiB.
  std::string set(14U << 20U, '\0');
  for (std::size_t i = 0; i < set.size(); i += 2) set[i] = '\x04';
  const std::string attribute = element(0x30, text("a") + element(0x31, set));
  const LDAPPeer peer(answer(message(1, entry("cn=A", {})) +
                             message(1, element(0x64, text("cn=B") + element(0x30, attribute)))));
  EXPECT_EQ(search(peer, 20), "1");
  EXPECT_EQ(log.count("only what came first is taken"), 1U);
}

TEST_F(LDAPClient, SessionAfterALimitOrAnError_IsNotUsedAgain) {
  const LDAPPeer peer(answer(message(1, entry("cn=A", {})) + "\x30\x84\xff\xff\xff\xff"s));
  LDAPConnection connection(LDAPConnection::RefServer(peer.uri()), false);
  EXPECT_EQ(search(connection, LDAPSearch::Parameter("o=Test")), "1");
  EXPECT_TEXT("The session is closed.", search(connection, LDAPSearch::Parameter("o=Test")));
}

TEST_F(LDAPClient, SeveralSearchesOnOneConnection) {
  const LDAPPeer peer([](Connection& connection) {
    for (int id = 1; id < 4; ++id) {
      connection.read();
      connection.write(message(id, entry("cn=A", {})) + message(id, done(id == 2 ? 32 : 0)));
    }
    connection.hold();
  });
  LDAPConnection connection(LDAPConnection::RefServer(peer.uri()), true);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(search(connection, LDAPSearch::Parameter("o=Test")), "1");
}

// --- what is no answer

struct BadRow {
  const char* name;
  std::string octets;
  const char* outcome;
};

TEST_F(LDAPClient, WhatIsNoAnswer_Table) {
  constexpr char kNoLDAP[] = "What the server sends is not LDAP.";
  constexpr char kUnasked[] = "The server sends what it was not asked for.";
  constexpr char kMalformed[] = "malformed";
  const std::string set = element(0x31, text("v"));
  const BadRow rows[] = {
      {"HTTP", "HTTP/1.1 400 Bad Request\r\n\r\n", kNoLDAP},
      {"a TLS alert", "\x15\x03\x03\x00\x02\x02\x28"s, kNoLDAP},
      {"zero octets", std::string(64, '\0'), kNoLDAP},
      {"indefinite length", "\x30\x80\x02\x01\x01\x65\x00\x00"s, kNoLDAP},
      {"length in five octets", "\x30\x85\x00\x00\x00\x00\x05\x02\x01\x01\x65\x00"s, kNoLDAP},
      {"empty message", "\x30\x00"s, kNoLDAP},
      {"message of a number only", "\x30\x03\x02\x01\x01"s, kNoLDAP},
      {"number of no octets", element(0x30, element(0x02, "") + done(0)), kNoLDAP},
      {"number of five octets", element(0x30, element(0x02, "\0\0\0\0\1"s) + done(0)), kNoLDAP},
      {"number beyond the message", "\x30\x03\x02\x04\x01"s, kNoLDAP},
      {"text in place of a number", element(0x30, text("\1") + done(0)), kNoLDAP},
      {"operation beyond the message", "\x30\x05\x02\x01\x01\x65\x01"s, kNoLDAP},
      {"operation cut in its length", "\x30\x05\x02\x01\x01\x65\x82"s, kNoLDAP},
      {"operation of no definite length", "\x30\x05\x02\x01\x01\x65\x80"s, kNoLDAP},
      {"another request's number", message(2, done(0)), kUnasked},
      {"a negative number", message(-1, done(0)), kUnasked},
      {"a request", message(1, element(0x63, "")), kUnasked},
      {"a bind's answer", message(1, done(0, "", 0x61)), "That is no answer."},
      {"an extension's answer", message(1, done(0, "", 0x78)), "That is no answer."},
      {"a notice of disconnection",
       message(0, element(0x78, element(0x0a, "\x34") + text("") + text("bye") +
                                    element(0x8a, "1.3.6.1.4.1.1466.20036"))),
       "The server ends the session."},
      // libldap would stop the process here.
      {"a notice without a name",
       message(0, element(0x78, element(0x0a, "\x34") + text("") + text("") + element(0x8a, ""))),
       "The server ends the session."},
      {"an unsolicited entry", message(0, entry("cn=A", {})), "The server ends the session."},
      {"result without a code", message(1, element(0x65, "")), kMalformed},
      {"result with a long code", message(1, element(0x65, element(0x0a, "123456789"))),
       kMalformed},
      {"result cut short", message(1, element(0x65, element(0x0a, "\0"s) + text("") + "\x04\x7f")),
       kMalformed},
      {"entry of nothing", message(1, element(0x64, "")), kMalformed},
      {"entry without a list", message(1, element(0x64, text("cn=A"))), kMalformed},
      {"list beyond the message", message(1, element(0x64, text("cn=A") + "\x30\x7f"s)),
       kMalformed},
      {"attribute that is no sequence",
       message(1, element(0x64, text("cn=A") + element(0x30, "\x04"))), kMalformed},
      {"type beyond the message",
       message(1, element(0x64, text("cn=A") + element(0x30, "\x30\x03\x04\x7f"s + "a"))),
       kMalformed},
      {"value beyond the message",
       message(1, element(0x64, text("cn=A") +
                                    element(0x30, element(0x30, text("a") + "\x31\x03\x04\x7fv")))),
       kMalformed},
      {"value cut short in the set",
       message(1,
               element(0x64, text("cn=A") +
                                 element(0x30, element(0x30, text("a") + element(0x31, "\x04"))))),
       kMalformed},
  };
  for (const BadRow& row : rows) {
    SCOPED_TRACE(row.name);
    const LDAPPeer peer(answer(row.octets));
    EXPECT_TEXT(row.outcome, search(peer, 20));
    EXPECT_LT(took, std::chrono::seconds(3));
  }
}

TEST_F(LDAPClient, EveryTruncationAndEveryChangedOctet_EndsSomehow) {
  const std::string good =
      message(1, entry("cn=A", {{"a", {"1", "2"}}, {"b", {"3"}}})) + message(1, done(0, "fine"));
  for (std::size_t i = 0; i < good.size(); ++i) {
    for (const int octet : {0x00, 0x01, 0x30, 0x7f, 0x80, 0x84, 0xff}) {
      std::string bad = good;
      bad[i] = static_cast<char>(octet);
      const LDAPPeer peer([&bad](Connection& connection) {
        connection.read();
        connection.write(bad);
      });
      EXPECT_NE(search(peer), "");
    }
    const LDAPPeer peer([&good, i](Connection& connection) {
      connection.read();
      connection.write(good.substr(0, i));
    });
    EXPECT_TEXT("The server has closed the connection.", search(peer));
  }
}

// --- connections that end. SIGPIPE keeps its default, which ends the process.

TEST_F(LDAPClient, ClosedAtOnce_Throws) {
  for (const bool reset : {false, true}) {
    const LDAPPeer peer([reset](Connection& connection) {
      if (reset) connection.reset();
    });
    for (int i = 0; i < 20; ++i) EXPECT_TEXT("LDAP", search(peer));
  }
}

TEST_F(LDAPClient, NobodyThere_ThrowsNowOrWithTheFirstRequest) {
  const LDAPConnection::RefServer nobody("ldap://127.0.0.1:1");
  EXPECT_THROW(LDAPConnection(nobody, true), Exception);
  LDAPConnection later(nobody, false);
  EXPECT_TEXT("ldap://127.0.0.1:1: ", search(later, LDAPSearch::Parameter("o=Test")));
  EXPECT_THROW(later.bind("", "", LDAPConnection::BindSimple), Exception);
}

TEST_F(LDAPClient, ClosedAfterTheRequest_Throws) {
  const LDAPPeer peer([](Connection& connection) {
    connection.read();
    connection.write(message(1, entry("cn=A", {})));
  });
  EXPECT_TEXT(": " + peer.uri() + ": The server has closed the connection.", search(peer));
}

TEST_F(LDAPClient, GoodbyeToAServerThatIsGone) {
  const LDAPPeer peer([](Connection& connection) {
    connection.read();
    connection.write(message(1, done(0)));
    connection.reset();
  });
  for (int i = 0; i < 20; ++i) EXPECT_EQ(search(peer), "0");
}

TEST_F(LDAPClient, Goodbye_IsSent) {
  LDAPPeer peer([](Connection& connection) {
    connection.read();
    connection.write(message(1, done(0)));
    connection.read();
  });
  EXPECT_EQ(search(peer), "0");
  EXPECT_EQ(peer.requests().back(), "\x30\x05\x02\x01\x02\x42\x00"s);
}

// --- what is sent

TEST_F(LDAPClient, TextsThatCannotBeSent_Throw) {
  const LDAPPeer peer([](Connection& connection) { connection.hold(); });
  LDAPConnection connection(LDAPConnection::RefServer(peer.uri()), false);
  const auto filtered = [](const std::string& text) {
    LDAPSearch::Parameter parameter("o=Test");
    parameter.filter(text);
    return parameter;
  };
  EXPECT_TEXT("NUL", search(connection, LDAPSearch::Parameter("o=Test\0,o=Other"s)));
  EXPECT_TEXT("too long", search(connection, LDAPSearch::Parameter(std::string(65537, 'x'))));
  EXPECT_TEXT("NUL", search(connection, filtered("(mail=a\0b)"s)));
  EXPECT_TEXT("Bad search filter", search(connection, filtered("(mail=")));
  EXPECT_TEXT("too long", search(connection, filtered("(mail=" + std::string(5000, 'a') + ")")));
  // As deep as it gets.
  std::string deep;
  for (int i = 0; i < 2040; ++i) deep += "(!";
  EXPECT_TEXT("Bad search filter", search(connection, filtered(deep)));
  EXPECT_THROW(connection.bind("cn=a\0b"s, "", LDAPConnection::BindSimple), Exception);
  EXPECT_THROW(connection.bind("", "", static_cast<LDAPConnection::BindMode>(1)), Exception);
}

// The operation in a request: behind the head of the message and its number, of one octet.
std::string operationOf(const std::string& request) {
  return request.substr(request[1] == '\x81' ? 6 : 5);
}

// Runs one query and returns what the server was sent, without the numbers of the messages.
template <class Query>
std::vector<std::string> sentBy(const std::string& dn, const std::string& password,
                                const Query& query) {
  LDAPPeer peer([](Connection& connection) {
    std::string request;
    for (int id = 1; !(request = connection.read()).empty(); ++id) {
      const bool bind = operationOf(request)[0] == '\x60';
      connection.write(message(id, bind ? done(0, "", 0x61) : done(0)));
    }
  });
  Crypto::PKX509::LDAPLookupMethod method({LDAPConnection::RefServer(peer.uri()), dn, password});
  query(method);
  std::vector<std::string> sent;
  for (const std::string& request : peer.requests()) sent.push_back(operationOf(request));
  return sent;
}

TEST_F(LDAPClient, LookupWithoutAName_BindsWithAnEmptyOneAndThePassword) {
  const auto query = [](Crypto::PKX509::LDAPLookupMethod& method) {
    std::list<Crypto::PKX509::RefCertificate> found;
    method.getBySubject("o=Test"s, found);
  };
  const std::string head = "\x60\x0d\x02\x01\x03\x04\x00\x80\x06"s;
  const std::vector<std::string> bound = sentBy("", "secret", query);
  ASSERT_EQ(bound.size(), 3U);
  EXPECT_EQ(bound[0], head + "secret");
  EXPECT_EQ(bound[1][0], '\x63');  // the search
  EXPECT_EQ(bound[2][0], '\x42');  // the goodbye
  EXPECT_EQ(sentBy("", "", query)[0], "\x60\x07\x02\x01\x03\x04\x00\x80\x00"s);
  const std::vector<std::string> unbound = sentBy("cn=me", "secret", query);
  ASSERT_EQ(unbound.size(), 2U);
  EXPECT_EQ(unbound[0], bound[1]);
}

TEST_F(LDAPClient, LookupAsksForTheAttributesOfItsKind) {
  using namespace Crypto::PKX509;
  const auto query = [](int type) {
    return [type](LDAPLookupMethod& method) {
      EXPECT_TRUE(method.getBySubject(static_cast<Object::Type>(type), "o=Test"s).empty());
    };
  };
  const std::string head =
      "\x04\x06o=Test\x0a\x01\x02\x0a\x01\x00\x02\x02\x03\xe8\x02\x01\x00\x01\x01\x00"s;
  // Entries that have one of the attributes, with whatever options.
  const std::vector<std::pair<int, std::vector<std::string>>> rows = {
      {1, {"userCertificate", "cACertificate"}},
      {2, {"certificateRevocationList", "deltaRevocationList"}},
      {99, {"crossCertificatePair"}},
  };
  for (const auto& [type, names] : rows) {
    std::string present;
    std::string attributes;
    for (const std::string& name : names) {
      present += element(0x87, name);
      attributes += text(name + ";binary");
    }
    const std::string sent = sentBy("", "", query(type))[1];
    EXPECT_EQ(sent[0], '\x63');
    EXPECT_TRUE(sent.ends_with(head + element(0xa1, present) + element(0x30, attributes)))
        << testing::PrintToString(sent);
  }
}

TEST_F(LDAPClient, LookupByAddress_PutsItIntoTheFilterAsItIs) {
  using namespace Crypto::PKX509;
  const auto query = [](LDAPLookupMethod& method) {
    std::list<RefCertificate> found;
    method.getByEmailAddress("o=Test", "a@b.test)(cn=*", found);
  };
  // "(mail=a@b.test)(cn=*)" is no filter.
  EXPECT_THROW(sentBy("x", "", query), Exception);
  const auto star = [](LDAPLookupMethod& method) {
    std::list<RefCertificate> found;
    method.getByEmailAddress("o=Test", "*", found);
  };
  EXPECT_NE(sentBy("x", "", star)[0].find("\x87\x04mail"), std::string::npos);  // present
  const auto plain = [](LDAPLookupMethod& method) {
    std::list<RefCertificate> found;
    method.getByEmailAddress("", "a@b.test", found);
  };
  const std::string sent = sentBy("x", "", plain)[0];
  EXPECT_NE(sent.find("\xa3\x10\x04\x04mail\x04\x08"
                      "a@b.test"),
            std::string::npos);
  EXPECT_EQ(sent.substr(2, 2), "\x04\x00"s);  // the empty base
}

// --- values

TEST_F(LDAPClient, CRLValues_OthersAreDroppedAndBrokenOnesThrow) {
  using namespace Crypto::PKX509;
  const Issued root = issueCA("CN=Root");
  const std::string crl = der(makeCRL({.issuer = &root}).get());
  const auto answering = [](const std::vector<std::string>& served) {
    return [served](Connection& connection) {
      connection.read();
      connection.write(message(1, entry("cn=A", {{"any;binary", served}})) + message(1, done(0)));
      connection.hold();
    };
  };
  const LDAPPeer mixed(answering({der(root.get()), crl, "", crl}));
  LDAPLookupMethod method({LDAPConnection::RefServer(mixed.uri()), "x", ""});
  std::list<RefCertificateRevocationList> crls;
  method.getBySubject("o=Test"s, crls);
  ASSERT_EQ(crls.size(), 2U);
  EXPECT_FALSE(crls.front().empty());
  EXPECT_FALSE(crls.back().empty());
  std::list<RefCertificate> certificates;
  method.getBySubject("o=Test"s, certificates);
  EXPECT_EQ(certificates.size(), 1U);
  EXPECT_EQ(method.getBySubject(Object::TypeCRL, "o=Test"s)->type, Object::TypeCRL);

  const LDAPPeer foreign(answering({der(root.get())}));
  LDAPLookupMethod none({LDAPConnection::RefServer(foreign.uri()), "x", ""});
  EXPECT_TRUE(none.getBySubject(Object::TypeCRL, "o=Test"s).empty());

  const LDAPPeer broken(answering({crl, "broken"}));
  LDAPLookupMethod failing({LDAPConnection::RefServer(broken.uri()), "x", ""});
  EXPECT_THROW(failing.getBySubject(Object::TypeCRL, "o=Test"s), Exception);
  EXPECT_THROW(failing.getBySubject(Object::TypeCertificate, "o=Test"s), Exception);
}

// --- TLS

TEST_F(LDAPClient, StartTls_AnswerWithMoreBehindIt_IsRefused) {
  const LDAPPeer peer([](Connection& connection) {
    connection.read();
    // The second message would be taken for one that TLS protects.
    connection.write(message(1, done(0, "", 0x78)) + message(2, done(0)));
    connection.hold();
  });
  LDAPConnection connection(LDAPConnection::RefServer(peer.uri(), {.startTls = true}), false);
  EXPECT_TEXT("The server sends before TLS is on.",
              search(connection, LDAPSearch::Parameter("o=Test")));
}

TEST_F(LDAPClient, StartTls_WhatIsNotTls_IsRefused) {
  for (const char* octets : {"", "nonsense, and enough of it to be a record"}) {
    const LDAPPeer peer([octets](Connection& connection) {
      connection.read();
      connection.write(message(1, done(0, "", 0x78)));
      connection.read();
      connection.write(octets);
    });
    LDAPConnection connection(LDAPConnection::RefServer(peer.uri(), {.startTls = true}), false);
    EXPECT_TEXT(peer.uri() + ": TLS handshake: ",
                search(connection, LDAPSearch::Parameter("o=Test")));
  }
}

TEST_F(LDAPClient, StartTls_Refused) {
  LDAPPeer peer(answer(message(1, done(52, "no certificate", 0x78))));
  LDAPConnection connection(LDAPConnection::RefServer(peer.uri(), {.startTls = true}), false);
  EXPECT_TEXT("StartTLS: " + peer.uri() + ": Server is unavailable (no certificate)",
              search(connection, LDAPSearch::Parameter("o=Test")));
  EXPECT_NE(peer.requests().front().find("1.3.6.1.4.1.1466.20037"), std::string::npos);
}

TEST_F(LDAPClient, TlsServerThatGoesAway_Throws) {
  const Issued certificate = issue({.subject = "CN=directory"});
  Slapd directory({.certificate = &certificate});
  LDAPConnection connection(LDAPConnection::RefServer(directory.tlsURI(), {.verifyPeer = false}),
                            true);
  EXPECT_EQ(search(connection, LDAPSearch::Parameter("o=Test")), "0");
  directory.stop();
  EXPECT_TEXT(directory.tlsURI() + ": TLS: ", search(connection, LDAPSearch::Parameter("o=Test")));
  // The goodbye is written to a connection that the other side has reset.
}

TEST_F(LDAPClient, TlsServerThatDoesNotRead_EndsInTime) {
  const Issued certificate = issue({.subject = "CN=directory"});
  const FaultServer server([](Peer& peer) { peer.pause(std::chrono::hours(1)); },
                           {.certificate = &certificate});
  LDAPConnection connection(
      LDAPConnection::RefServer("ldaps://127.0.0.1:" + std::to_string(server.port()),
                                {.verifyPeer = false}),
      false);
  LDAPSearch::Parameter parameter("o=Test");
  parameter.add(LDAPAttributeType(std::string(32U << 20U, 'x')));
  EXPECT_TEXT("did not answer in time.", search(connection, parameter));
  EXPECT_LT(took, std::chrono::seconds(10));
}

TEST_F(LDAPClient, TlsHandshakeThatIsNotAnswered_EndsInTime) {
  const LDAPPeer silent([](Connection& connection) { connection.hold(); });
  const LDAPPeer slow([](Connection& connection) {
    if (!connection.write("\x16\x03\x03\x10\x00"s)) return;
    while (connection.write("\x02")) {
    }
  });
  for (const LDAPPeer* peer : {&silent, &slow}) {
    const LDAPConnection::Server server(peer->uri("ldaps"), {});
    const Deadline deadline(std::chrono::milliseconds(300));
    LDAPStream stream(server, deadline);
    const Clock::time_point start = Clock::now();
    EXPECT_THROW(stream.startTls(server, deadline), Exception);
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(3));
  }
}

}  // namespace
}  // namespace Velantrix::Test
