// What an action throws, as text.
#pragma once

#include <velantrix/Exception.h>

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {

/// The exception, which has to be a failure, as one line; empty when nothing is thrown.
template <class Action>
std::string thrownBy(Action action) {
  try {
    action();
  } catch (const Exception& e) {
    EXPECT_EQ(e.code(), Exception::kFailure);
    return e.asString();
  }
  return std::string();
}

}  // namespace Velantrix::Test
