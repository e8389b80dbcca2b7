#include "report/NameConstraintBreach.h"
#include "support/Bulk.h"
#include "support/Cost.h"
#include "support/Handles.h"

#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::findNameConstraintBreach;
using Crypto::PKX509::NameConstraintBreach;
using Crypto::PKX509::RefCertificate;
using Extensions = std::vector<ConfigExtension>;

// "NAME breaks CONSTRAINT of AUTHORITY", or "none".
std::string text(const std::optional<NameConstraintBreach>& breach) {
  return breach ? breach->name + " breaks " + breach->constraint + " of " +
                      breach->authority->subject().asString()
                : "none";
}

struct BreachRow {
  std::string constraints;  // of the CA
  std::string subject;
  std::string names;  // of the certificate; empty: no extension
  std::string breach;
  std::string config = {};
};

std::string breachOf(const BreachRow& row) {
  const Issued root = issueCA("CN=Root");
  const Issued authority = issue({.subject = "CN=CA",
                                  .issuer = &root,
                                  .ca = true,
                                  .extensions = {{"nameConstraints", row.constraints}},
                                  .config = row.config});
  Extensions extensions;
  if (!row.names.empty()) extensions.push_back({"subjectAltName", row.names});
  const Issued leaf = issue({.subject = row.subject,
                             .issuer = &authority,
                             .extensions = extensions,
                             .config = row.config});
  return text(
      findNameConstraintBreach(handle(leaf), 0, {handle(leaf), handle(authority), handle(root)}));
}

TEST(NameConstraintBreach, NamesTheNameTheConstraintAndTheCA) {
  const BreachRow rows[] = {
      {"permitted;email:example.com", "CN=Anna", "email:anna@example.org",
       "email:anna@example.org breaks permitted email:example.com of CN=CA"},
      {"permitted;email:example.com", "CN=Anna", "email:anna@example.com", "none"},
      {"permitted;email:example.com", "CN=Anna", "email:a@example.com,email:b@example.net",
       "email:b@example.net breaks permitted email:example.com of CN=CA"},
      {"excluded;email:example.org,excluded;email:example.net", "CN=Anna", "email:b@example.net",
       "email:b@example.net breaks excluded email:example.net of CN=CA"},
      {"permitted;DNS:example.com", "CN=Host", "DNS:www.example.org",
       "DNS:www.example.org breaks permitted DNS:example.com of CN=CA"},
      {"excluded;DNS:.example.org", "CN=Host", "DNS:www.example.org",
       "DNS:www.example.org breaks excluded DNS:.example.org of CN=CA"},
      {"permitted;URI:.example.com", "CN=Host", "URI:http://www.example.org/",
       "URI:http://www.example.org/ breaks permitted URI:.example.com of CN=CA"},
      {"permitted;IP:192.0.2.0/255.255.255.0", "CN=Host", "IP:198.51.100.1",
       "IP Address:198.51.100.1 breaks permitted IP Address:192.0.2.0/255.255.255.0 of CN=CA"},
      {"excluded;IP:2001:db8::/ffff:ffff::", "CN=Host", "IP:2001:db8::1",
       "IP Address:2001:DB8:0:0:0:0:0:1 breaks excluded IP Address:2001:db8::/ffff:ffff:: of "
       "CN=CA"},
      {"excluded;dirName:place", "C=DE,CN=Anna", "",
       "DirName:C = DE, CN = Anna breaks excluded DirName:C = DE of CN=CA", "[place]\nC=DE\n"},
      {"permitted;dirName:place", "C=FR,CN=Anna", "",
       "DirName:C = FR, CN = Anna breaks permitted DirName:C = DE of CN=CA", "[place]\nC=DE\n"},
      // RFC 5280, 4.2.1.10: an address in the subject counts where there is no subjectAltName.
      {"permitted;email:example.com", "CN=Anna,emailAddress=anna@example.org", "",
       "email:anna@example.org breaks permitted email:example.com of CN=CA"},
      {"permitted;email:a.test,permitted;email:b.test,permitted;email:c.test,permitted;email:d."
       "test,permitted;DNS:x.test",
       "CN=Anna", "email:anna@example.org",
       "email:anna@example.org breaks permitted email:a.test, email:b.test, email:c.test, ... of "
       "CN=CA"}};
  for (const BreachRow& row : rows) EXPECT_EQ(breachOf(row), row.breach) << row.constraints;
}

// OpenSSL takes the common name of a certificate without other names for a host's.
TEST(NameConstraintBreach, CommonNameOfAHost_IsOneOfItsNames) {
  EXPECT_EQ(breachOf({"permitted;DNS:example.com", "CN=www.example.org", "", ""}),
            "DNS:www.example.org breaks permitted DNS:example.com of CN=CA");
  EXPECT_EQ(breachOf({"permitted;DNS:example.com", "CN=Anna Example", "", ""}), "none");
}

TEST(NameConstraintBreach, IsLookedForAboveTheCertificate) {
  const Extensions constraints = {{"nameConstraints", "permitted;email:example.com"}};
  const Issued root = issue({.subject = "CN=Root", .ca = true, .extensions = constraints});
  const Issued authority = issueCA("CN=CA", &root);
  const Issued leaf = issue({.subject = "CN=Anna",
                             .issuer = &authority,
                             .extensions = {{"subjectAltName", "email:anna@example.org"}}});
  const std::vector<RefCertificate> path = {handle(leaf), handle(authority), handle(root)};
  EXPECT_EQ(text(findNameConstraintBreach(handle(leaf), 0, path)),
            "email:anna@example.org breaks permitted email:example.com of CN=Root");
  EXPECT_EQ(text(findNameConstraintBreach(handle(leaf), 2, path)), "none");
  EXPECT_EQ(text(findNameConstraintBreach(handle(leaf), 7, path)), "none");
  EXPECT_EQ(text(findNameConstraintBreach(handle(leaf), -1, path)), "none");
  EXPECT_EQ(text(findNameConstraintBreach(handle(leaf), 0, {})), "none");
  EXPECT_EQ(ERR_peek_error(), 0U);
}

RefCertificate bulk(const std::string& extension) {
  return Crypto::PKX509::CertificateFactory()(
      certFromDer(Bulk::certificate(Bulk::name("ca"), extension)).release(), true);
}

constexpr std::size_t kOctets = 1'000'000;

// Names or constraints by the ten thousand.
RefCertificate withNames(const std::string& name) {
  return bulk(Bulk::extension(17, Bulk::sequence(Bulk::repeated(name, kOctets))));
}
RefCertificate withConstraints(int tag, const std::string& name) {
  const std::string subtrees = Bulk::repeated(Bulk::sequence(name), kOctets);
  return bulk(Bulk::extension(30, Bulk::sequence(Bulk::element(tag, subtrees))));
}

// Beside what it costs OpenSSL to decode them, which a verification has done already.
TEST(NameConstraintBreach, TensOfThousandsOfNamesOrConstraints_CostLittle) {
  const RefCertificate names = withNames(Bulk::element(0x81, "a@b.test"));
  const RefCertificate constraints = withConstraints(0xa1, Bulk::element(0x81, "c.test"));
  const std::vector<RefCertificate> path(8, constraints);
  EXPECT_TRUE(costInProportion([&] { static_cast<void>(findNameConstraintBreach(names, 0, path)); },
                               [&] {
                                 const Owned<NAME_CONSTRAINTS> decoded(
                                     static_cast<NAME_CONSTRAINTS*>(X509_get_ext_d2i(
                                         constraints, NID_name_constraints, nullptr, nullptr)));
                               }));
}

}  // namespace
}  // namespace Velantrix::Test
