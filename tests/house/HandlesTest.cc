// Every public handle can be asked with "if": it derives from one that can, or says so itself.
#include "house/Tree.h"

#include <gtest/gtest.h>
#include <regex>
#include <string>

namespace Velantrix::Test {
namespace {

TEST(Handles, EachSaysWhetherItHoldsAnObject) {
  const std::regex handle(R"(\nclass PKX509_EXPORT (\w+::)?(Ref[A-Z]\w*)([^;{]*)\{)");
  unsigned int found = 0;
  for (const auto& [path, content] : readTree(PKX509_ROOT, {"include"})) {
    for (std::sregex_iterator at(content.begin(), content.end(), handle), end; at != end; ++at) {
      const std::string name = (*at)[2];
      const std::string base = (*at)[3];
      if (name == "RefImpl") continue;  // what is held
      ++found;
      const auto begin = static_cast<std::size_t>(at->position());
      const std::string body = content.substr(begin, content.find("\n};", begin) - begin);
      EXPECT_TRUE(base.find("public Ref<") != std::string::npos ||
                  base.find("public boost::shared_ptr<") != std::string::npos ||
                  body.find("explicit operator bool() const") != std::string::npos)
          << name << " in " << path;
    }
  }
  EXPECT_GE(found, 20U);
}

}  // namespace
}  // namespace Velantrix::Test
