#include "retrieval/OCSPMemory.h"
#include "unit/retrieval/InChild.h"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::OCSPMemory;

const Uri kOneResponder("http://one.test/");
const Uri kOtherResponder("http://other.test/");

class OCSPMemoryTest : public testing::Test {
 protected:
  static Time in(long seconds) { return Time::then(seconds, false); }
  void keep(const std::string& request, const std::string& body, long seconds = 3600) {
    memory.keep(kOneResponder, request, {body, Time::now()}, in(seconds));
  }
  // "none" for nothing.
  std::string recall(const std::string& request, const Time& now = Time::now()) {
    const auto answer = memory.recall(kOneResponder, request, now);
    return answer ? answer->body : "none";
  }

  OCSPMemory memory;
};

TEST_F(OCSPMemoryTest, Kept_IsForTheSameQuestionToTheSameResponder) {
  const Time fetched = in(-60);
  memory.keep(kOneResponder, "request", {"answer", fetched}, in(3600));
  const auto answer = memory.recall(kOneResponder, "request");
  ASSERT_TRUE(answer.has_value());
  EXPECT_EQ(answer->body, "answer");
  EXPECT_EQ(answer->fetched, fetched);
  EXPECT_EQ(recall("another"), "none");
  EXPECT_FALSE(memory.recall(kOtherResponder, "request").has_value());
  EXPECT_FALSE(memory.recall(Uri("HTTP://ONE.test/"), "request").has_value());
  keep("request", "newer");
  EXPECT_EQ(recall("request"), "newer");
  memory.forget(kOneResponder, "request");
  EXPECT_EQ(recall("request"), "none");
  memory.forget(kOneResponder, "request");
}

TEST_F(OCSPMemoryTest, NextUpdate_EndsIt) {
  const Time due = in(100);
  memory.keep(kOneResponder, "request", {"answer", Time::now()}, due);
  EXPECT_EQ(recall("request", in(98)), "answer");
  EXPECT_EQ(recall("request", due), "none");
  EXPECT_EQ(recall("request"), "none") << "it is gone";
}

TEST_F(OCSPMemoryTest, AnswersBeyondTheBound_TakeThePlaceOfThoseUsedLeastRecently) {
  for (std::size_t i = 0; i < OCSPMemory::kMaximumAnswers; ++i) keep(std::to_string(i), "answer");
  EXPECT_EQ(recall("0"), "answer");
  keep("more", "answer");
  EXPECT_EQ(recall("0"), "answer");
  EXPECT_EQ(recall("1"), "none");
  EXPECT_EQ(recall("2"), "answer");
}

TEST_F(OCSPMemoryTest, OctetsBeyondTheBound_TakeThePlaceOfThoseUsedLeastRecently) {
  const std::string quarter(OCSPMemory::kMaximumBytes / 4 - 100, 'x');
  for (const char* request : {"a", "b", "c", "d"}) keep(request, quarter);
  EXPECT_EQ(recall("a"), quarter);
  keep("e", quarter);
  EXPECT_EQ(recall("a"), quarter);
  EXPECT_EQ(recall("b"), "none");
  keep("a", "small");
  keep("b", quarter);
  EXPECT_EQ(recall("c"), quarter) << "what was replaced does not count";
  keep("huge", std::string(OCSPMemory::kMaximumBytes, 'x'));
  EXPECT_EQ(recall("huge"), "none");
  EXPECT_EQ(recall("a"), "small");
}

TEST_F(OCSPMemoryTest, ForkedWhileOthersUseIt_TheChildHasItToo) {
  OCSPMemory& shared = OCSPMemory::instance();
  shared.keep(kOneResponder, "request", {"answer", Time::now()}, in(3600));
  std::atomic<bool> stop = false;
  std::thread other([&] {
    while (!stop) shared.keep(kOtherResponder, "request", {"other", Time::now()}, in(3600));
  });
#ifdef PKX509_SANITIZED
  // A child hangs when it asks for memory that another thread was asking a sanitizer's runtime for.
  stop = true;
  other.join();
#endif
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(holdsInChild([&] {
      const auto answer = shared.recall(kOneResponder, "request");
      return answer && answer->body == "answer";
    }));
  }
  stop = true;
  if (other.joinable()) other.join();
}

}  // namespace
}  // namespace Velantrix::Test
