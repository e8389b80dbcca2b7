#include "foundation/base/URIReference.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

TEST(URIReference, Resolution_IsThatOfTheRFC) {
  const Uri base("http://a/b/c/d;p?q");
  const struct {
    const char* reference;
    const char* expected;
  } rows[] = {
      // RFC 3986, 5.4.1, without fragments
      {"g", "http://a/b/c/g"},
      {"./g", "http://a/b/c/g"},
      {"g/", "http://a/b/c/g/"},
      {"/g", "http://a/g"},
      {"//g", "http://g"},
      {"?y", "http://a/b/c/d;p?y"},
      {"g?y", "http://a/b/c/g?y"},
      {"#s", "http://a/b/c/d;p?q"},
      {"g#s", "http://a/b/c/g"},
      {"g?y#s", "http://a/b/c/g?y"},
      {";x", "http://a/b/c/;x"},
      {"g;x", "http://a/b/c/g;x"},
      {"g;x?y#s", "http://a/b/c/g;x?y"},
      {"", "http://a/b/c/d;p?q"},
      {".", "http://a/b/c/"},
      {"./", "http://a/b/c/"},
      {"..", "http://a/b/"},
      {"../", "http://a/b/"},
      {"../g", "http://a/b/g"},
      {"../..", "http://a/"},
      {"../../", "http://a/"},
      {"../../g", "http://a/g"},
      // 5.4.2
      {"../../../g", "http://a/g"},
      {"../../../../g", "http://a/g"},
      {"/./g", "http://a/g"},
      {"/../g", "http://a/g"},
      {"g.", "http://a/b/c/g."},
      {".g", "http://a/b/c/.g"},
      {"g..", "http://a/b/c/g.."},
      {"..g", "http://a/b/c/..g"},
      {"./../g", "http://a/b/g"},
      {"./g/.", "http://a/b/c/g/"},
      {"g/./h", "http://a/b/c/g/h"},
      {"g/../h", "http://a/b/c/h"},
      {"g;x=1/./y", "http://a/b/c/g;x=1/y"},
      {"g;x=1/../y", "http://a/b/c/y"},
      {"g?y/../x", "http://a/b/c/g?y/../x"},
      // What is encoded stays so, and what is a URI by itself stays as it is.
      {"/%7Eg/%2e%2E/h?%41", "http://a/%7Eg/%2e%2E/h?%41"},
      {"HTTPS://H:8080/a/../b?c#d", "HTTPS://H:8080/a/../b?c"},
      {"//[::1]:80/?", "http://[::1]:80/?"},
      {"http:g", "http:g"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(resolveReference(base, row.reference).asString(), row.expected) << row.reference;
  }
}

TEST(URIReference, BaseWithoutPath_IsTheRoot) {
  EXPECT_EQ(resolveReference(Uri("http://a"), "g").asString(), "http://a/g");
  EXPECT_EQ(resolveReference(Uri("http://a?q"), "?y").asString(), "http://a?y");
  EXPECT_EQ(resolveReference(Uri("http://u@a:1?q"), "../g").asString(), "http://u@a:1/g");
}

TEST(URIReference, WhatIsNone_IsNull) {
  for (const std::string& text :
       {std::string("a b"), std::string("/\r\nx"), std::string("//h:99999/"), std::string("/%g0"),
        std::string("/a\0b", 4), std::string("/\xe4"), "/" + std::string(70'000, 'x')}) {
    EXPECT_TRUE(resolveReference(Uri("http://a/b"), text).isNull()) << text.substr(0, 20);
  }
}

}  // namespace
}  // namespace Velantrix::Test
