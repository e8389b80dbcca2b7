#include <velantrix/Exception.h>
#include <velantrix/LDAPConnection.h>

#include <gtest/gtest.h>
#include <string>
#include <type_traits>

namespace Velantrix::Test {
namespace {

using namespace std::string_literals;
using Server = LDAPConnection::Server;
using RefServer = LDAPConnection::RefServer;

static_assert(static_cast<int>(LDAPConnection::BindSimple) == 0);
static_assert(std::is_base_of_v<Ref<Server>, RefServer>);

struct URIRow {
  const char* uri;
  const char* host;
  unsigned short port;
  bool ldaps;
};

TEST(LDAPConnection, ServerURIs_Table) {
  const URIRow rows[] = {
      {"ldap://directory.example.com", "directory.example.com", 389, false},
      {"ldap://directory.example.com/", "directory.example.com", 389, false},
      {"LDAP://127.0.0.1:1389", "127.0.0.1", 1389, false},
      {"ldaps://directory.example.com", "directory.example.com", 636, true},
      {"ldaps://[::1]:1636/", "::1", 1636, true},
  };
  for (const URIRow& row : rows) {
    SCOPED_TRACE(row.uri);
    const RefServer server(row.uri);
    EXPECT_EQ(server->uri(), row.uri);
    EXPECT_EQ(server->host(), row.host);
    EXPECT_EQ(server->port(), row.port);
    EXPECT_EQ(server->ldaps(), row.ldaps);
  }
}

TEST(LDAPConnection, WhatIsNoServer_Throws) {
  for (const std::string& uri :
       {""s, "directory.example.com"s, "ldap:"s, "ldap://"s, "ldap:///"s, "ldapi://%2Frun%2Fldapi"s,
        "http://h"s, "ldap://h/o=Test"s, "ldap://h??sub"s, "ldap://h/?"s, "ldap://h#f"s,
        "ldap://user@h"s, "ldap://%68"s, "ldap://h:99999"s, "ldap://h h"s, "ldap://h\0"s}) {
    EXPECT_THROW(RefServer{uri}, Exception) << uri;
  }
}

TEST(LDAPConnection, OptionsOfAServer) {
  const RefServer usual("ldap://h");
  EXPECT_FALSE(usual->options().startTls);
  EXPECT_TRUE(usual->options().verifyPeer);
  EXPECT_EQ(usual->options().caFile, "");
  const RefServer own("ldap://h", {.startTls = true, .verifyPeer = false, .caFile = "/ca.pem"});
  EXPECT_TRUE(own->options().startTls);
  EXPECT_FALSE(own->options().verifyPeer);
  EXPECT_EQ(own->options().caFile, "/ca.pem");
  EXPECT_THROW(RefServer("ldaps://h", {.startTls = true}), Exception);
}

TEST(LDAPConnection, WithoutAServer_Throws) {
  for (const bool now : {false, true}) {
    try {
      const LDAPConnection connection(RefServer(), now);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const Exception& e) {
      EXPECT_EQ(e.context(), "LDAPConnection");
      EXPECT_EQ(e.code(), Exception::kFailure);
    }
  }
}

TEST(LDAPConnection, SharesTheDescription) {
  const RefServer server("ldap://h");
  {
    const LDAPConnection connection(server, false);
    EXPECT_EQ(server->referenceCount(), 2);
  }
  EXPECT_EQ(server->referenceCount(), 1);
}

}  // namespace
}  // namespace Velantrix::Test
