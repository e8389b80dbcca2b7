// What the tests of the client for the web have in common.
//
//   EXPECT_EQ(contentOf(HTTP::ask({.uri = Uri(server.url())}, {})), "body");
//
#pragma once

#include "foundation/net/http/WebClient.h"

#include <string>

namespace Velantrix::Test {

inline std::string contentOf(const LW::HTTP::WebAnswer& answer) {
  return {reinterpret_cast<const char*>(answer.content->data()), answer.content->length()};
}

}  // namespace Velantrix::Test
