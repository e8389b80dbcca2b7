#include "store/LookupMemory.h"
#include "unit/store/Model.h"

#include <pkx509/LookupMethod.h>

#include <gtest/gtest.h>
#include <list>
#include <stdexcept>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using Answers = std::list<std::string>;

// Answers with the name and how often it was asked.
struct Questions {
  Answers operator()(const LookupSource& source, const std::string& name, bool settled = true) {
    Answers out{"before"};
    askOnce(source, name, out, [&](Answers& found) {
      EXPECT_TRUE(found.empty());
      found.push_back(name + ' ' + std::to_string(++count));
      return settled;
    });
    return out;
  }

  int count = 0;
};

TEST(LookupMemory, OutsideAVerification_EachIsAsked) {
  Questions ask;
  EXPECT_EQ(ask("place", "a"), (Answers{"before", "a 1"}));
  EXPECT_EQ(ask("place", "a"), (Answers{"before", "a 2"}));
}

TEST(LookupMemory, InAVerification_EachSourceIsAskedOnceForAName) {
  Questions ask;
  const LookupMethod first("first");
  const LookupMethod second("second");
  {
    const VerificationRun run(static_cast<const X509*>(nullptr));
    EXPECT_EQ(ask("place", "a"), (Answers{"before", "a 1"}));
    EXPECT_EQ(ask("other", "a"), (Answers{"before", "a 2"}));
    EXPECT_EQ(ask(&first, "a"), (Answers{"before", "a 3"}));
    EXPECT_EQ(ask(&second, "a"), (Answers{"before", "a 4"}));
    EXPECT_EQ(ask("place", "b"), (Answers{"before", "b 5"}));
    const VerificationRun nested(static_cast<const X509*>(nullptr));
    EXPECT_EQ(ask("place", "a"), (Answers{"before", "a 1"}));
    EXPECT_EQ(ask("other", "a"), (Answers{"before", "a 2"}));
    EXPECT_EQ(ask(&first, "a"), (Answers{"before", "a 3"}));
    EXPECT_EQ(ask(&second, "a"), (Answers{"before", "a 4"}));
    EXPECT_EQ(ask("place", "b"), (Answers{"before", "b 5"}));
  }
  const VerificationRun next(static_cast<const X509*>(nullptr));
  EXPECT_EQ(ask("place", "a"), (Answers{"before", "a 6"}));
}

TEST(LookupMemory, WhatIsNoAnswerForTheRest_IsAskedAgain) {
  Questions ask;
  const VerificationRun run(static_cast<const X509*>(nullptr));
  EXPECT_EQ(ask("place", "a", false), (Answers{"before", "a 1"}));
  EXPECT_EQ(ask("place", "a"), (Answers{"before", "a 2"}));
  Answers none;
  EXPECT_THROW(askOnce("place", std::string("b"), none,
                       [](Answers& found) -> bool {
                         found.emplace_back("half");
                         throw std::runtime_error("b");
                       }),
               std::runtime_error);
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(ask("place", "b"), (Answers{"before", "b 3"}));
  Answers recalled{"before"};
  EXPECT_TRUE(recallAnswer("place", std::string("b"), recalled));
  EXPECT_FALSE(recallAnswer("place", std::string("c"), recalled));
  EXPECT_EQ(recalled, (Answers{"before", "b 3"}));
}

}  // namespace
}  // namespace Velantrix::Test
