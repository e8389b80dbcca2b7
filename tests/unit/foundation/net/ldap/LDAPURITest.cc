#include "foundation/net/ldap/LDAPURI.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

// Two literals stand where one would hold a trigraph.
//
// "base|attribute,...|scope|filter"; empty for what is not to be asked for.
std::string read(const std::string& text) {
  const std::optional<LDAPURI> uri = LDAPURI::withoutHost(Uri(text));
  if (!uri) return {};
  std::string attributes;
  for (const std::string& one : uri->attributes) {
    attributes += (attributes.empty() ? "" : ",") + one;
  }
  return uri->base + '|' + attributes + '|' + std::to_string(uri->scope) + '|' + uri->filter;
}

TEST(LDAPURI, WithoutAHost_IsReadAsItIsWritten) {
  const struct {
    const char* uri;
    const char* read;
  } rows[] = {
      {"ldap:///CN=A", "CN=A||0|"},
      {"LDAP:///CN=A", "CN=A||0|"},
      {"ldap:///CN=A%20B,CN=C%2C%20D,DC=example?certificateRevocationList?base?"
       "objectClass=cRLDistributionPoint",
       "CN=A B,CN=C, D,DC=example|certificateRevocationList|0|(objectClass=cRLDistributionPoint)"},
      {"ldap:///CN=A?certificateRevocationList;binary", "CN=A|certificateRevocationList;binary|0|"},
      {"ldap:///CN=A?a,1.2.3,*?one", "CN=A|a,1.2.3,*|1|"},
      {"ldap:///CN=A??SUB?(%7C(a=b)(c=%5C28*))", "CN=A||2|(|(a=b)(c=\\28*))"},
      {"ldap:///CN=A%3Fb???", "CN=A?b||0|"},
      {"ldap:///CN=M%C3%BCller/B", "CN=M\xc3\xbcller/B||0|"},
      {"ldap:///CN=A????x-known=1,1.2.3", "CN=A||0|"},
  };
  for (const auto& row : rows) EXPECT_EQ(read(row.uri), row.read) << row.uri;
}

TEST(LDAPURI, Others_AreNotAskedFor) {
  for (const char* uri : {"",
                          "ldap:",
                          "ldap:///",
                          "ldap://",
                          "ldap:///?certificateRevocationList",
                          "ldap:/CN=A",
                          "ldap:CN=A",
                          "ldap://host/CN=A",
                          "ldap://:389/CN=A",
                          "ldap://me@/CN=A",
                          "ldaps:///CN=A",
                          "http:///CN=A",
                          "ldap:///CN=A#b",
                          "ldap:///CN=A%00",
                          "ldap:///CN=A%ff",
                          "ldap:///CN=A?a,",
                          "ldap:///CN=A?,a",
                          "ldap:///CN=A?a%20b",
                          "ldap:///CN=A?;binary",
                          "ldap:///CN=A??all",
                          "ldap:///CN=A??base%20",
                          "ldap:///CN=A??"
                          "?(a=b",
                          "ldap:///CN=A???a=b)",
                          "ldap:///CN=A??"
                          "?(a=b)(c=d)",
                          "ldap:///CN=A???a=b)(c=d",
                          "ldap:///CN=A??"
                          "?(a=%00)",
                          "ldap:///CN=A???"
                          "?!x-unknown",
                          "ldap:///CN=A????a,!b",
                          "ldap:///CN=A????a,",
                          "ldap:///CN=A????,a",
                          "ldap:///CN=A????a?b"}) {
    EXPECT_EQ(read(uri), "") << uri;
  }
}

TEST(LDAPURI, Size_IsBounded) {
  const std::string start = "ldap:///CN=";
  const std::string longest(LDAPURI::kMaximumSize - start.size(), 'a');
  EXPECT_EQ(read(start + longest), "CN=" + longest + "||0|");
  EXPECT_EQ(read(start + longest + 'a'), "");
}

}  // namespace
}  // namespace Velantrix::Test
