// The example of a lookup method of one's own, where a CA has changed its key: two certificates have
// one name, and which of them comes first in a file must not matter.
#include "support/Command.h"
#include "support/Files.h"
#include "support/Pki.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Test {
namespace {

class OwnLookupMethod : public testing::Test {
 protected:
  // The verdict on the certificate, with the others in one file, in their order.
  CommandResult run(const Issued& person, const std::vector<const Issued*>& trusted,
                    const std::vector<CRLOptions>& crls) {
    std::vector<std::string> arguments{PKX509_EXAMPLE, write("person.pem", pem(person.get()))};
    std::string all;
    for (const Issued* certificate : trusted) all += pem(certificate->get());
    arguments.push_back(write("trusted.pem", all));
    for (const CRLOptions& crl : crls) {
      arguments.push_back(write("crl" + std::to_string(arguments.size()), pem(makeCRL(crl).get())));
    }
    return runCommand(arguments);
  }
  void expectValid(const Issued& person, const std::vector<const Issued*>& trusted,
                   const std::vector<CRLOptions>& crls) {
    const CommandResult result = run(person, trusted, crls);
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("person.pem: ok"), std::string::npos) << result.out;
  }

 private:
  std::string write(const std::string& name, const std::string& content) {
    const std::string file = (own_ / name).string();
    writeFile(file, content);
    return file;
  }

  TempDir own_;
};

TEST_F(OwnLookupMethod, CAWithTwoKeys_EachOrderIsRight) {
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued before = issueCA("O=Test,CN=Middle", &root);
  const Issued after = issueCA("O=Test,CN=Middle", &root);
  for (const Issued* issuer : {&before, &after}) {
    const Issued person = issue({.subject = "O=Test,CN=Person", .issuer = issuer});
    const std::vector<CRLOptions> crls{{.issuer = &root}, {.issuer = issuer}};
    expectValid(person, {&root, &before, &after}, crls);
    expectValid(person, {&root, &after, &before}, crls);
  }
}

TEST_F(OwnLookupMethod, CAWithTwoKeys_RevokedByTheOtherKeyIsRevoked) {
  const Issued root = issueCA("O=Test,CN=Root");
  const Issued before = issueCA("O=Test,CN=Middle", &root);
  const Issued after = issueCA("O=Test,CN=Middle", &root);
  const Issued person = issue({.subject = "O=Test,CN=Person", .issuer = &before});
  for (const auto& order : {std::vector<const Issued*>{&root, &before, &after},
                            std::vector<const Issued*>{&root, &after, &before}}) {
    expectValid(person, order, {{.issuer = &root}, {.issuer = &after}});
    const CommandResult result = run(
        person, order, {{.issuer = &root}, {.issuer = &after, .revoked = {{.serial = person}}}});
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.out.find("certificate revoked"), std::string::npos) << result.out;
  }
}

// Without the identifier OpenSSL takes the first one of the name for the issuer of the other.
Issued rootWithAuthorityKeyId() {
  CertificateOptions options = {.subject = "O=Test,CN=Root", .ca = true, .key = makeKey()};
  const Issued plain = issue(options);
  const ASN1_OCTET_STRING* const id = X509_get0_subject_key_id(plain.get());
  const std::string octets(id->data, id->data + id->length);
  options.rawExtensions = {{.oid = "2.5.29.35", .der = "\x30\x16\x80\x14" + octets}};
  return issue(options);
}

// The issuer of the root's CRL is verified against a clone of the store.
TEST_F(OwnLookupMethod, RootWithTwoKeys_EachOrderIsRight) {
  const Issued before = rootWithAuthorityKeyId();
  const Issued after = rootWithAuthorityKeyId();
  const Issued speaker = issueCA("O=Test,CN=Middle", &after);
  const Issued middle = issueCA("O=Test,CN=Middle", &before);
  const Issued person = issue({.subject = "O=Test,CN=Person", .issuer = &middle});
  const std::vector<CRLOptions> crls{{.issuer = &before}, {.issuer = &after}, {.issuer = &speaker}};
  expectValid(person, {&before, &after, &middle, &speaker}, crls);
  expectValid(person, {&after, &before, &speaker, &middle}, crls);
}

}  // namespace
}  // namespace Velantrix::Test
