// What the builder makes is shown to the openssl command, which knows nothing of it.
#include "support/Command.h"
#include "support/Pki.h"

#include <openssl/pem.h>

#include <algorithm>
#include <gtest/gtest.h>
#include <stdexcept>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

std::string textOf(const X509* cert) {
  return runCommand({"openssl", "x509", "-text", "-noout", "-nameopt", "RFC2253"}, pem(cert)).out;
}

std::string textOf(const X509_CRL* crl) {
  return runCommand({"openssl", "crl", "-text", "-noout", "-nameopt", "RFC2253"}, pem(crl)).out;
}

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

#define EXPECT_CONTAINS(text, part) EXPECT_TRUE(contains(text, part)) << (text)
#define EXPECT_LACKS(text, part) EXPECT_FALSE(contains(text, part)) << (text)

/// A root, an intermediate CA, a certificate of its, and what `openssl verify` says of them.
class Chain : public testing::Test {
 protected:
  CommandResult verify(const std::vector<std::string>& options = {}) const {
    const TempDir directory;
    writeFile(directory / "root.pem", pem(root.get()));
    writeFile(directory / "ca.pem", pem(ca.get()));
    std::string all;
    for (const auto& crl : crls) all += pem(crl.get());
    writeFile(directory / "crls.pem", all);
    std::vector<std::string> argv = {
        "openssl", "verify", "-CAfile", directory / "root.pem", "-untrusted", directory / "ca.pem"};
    if (!crls.empty()) {
      argv.insert(argv.end(), {"-CRLfile", directory / "crls.pem", "-crl_check_all"});
    }
    argv.insert(argv.end(), options.begin(), options.end());
    return runCommand(argv, pem(leaf.get()));
  }

  Issued root = issueCA("CN=Root");
  Issued ca = issueCA("CN=CA", &root);
  Issued leaf = issue({.subject = "CN=Leaf", .issuer = &ca});
  std::vector<Owned<X509_CRL>> crls;
};

TEST_F(Chain, Defaults_AreValidStrictly) {
  const auto result = verify({"-x509_strict", "-purpose", "smimesign"});
  EXPECT_EQ(result.status, 0) << result.err;
}

TEST_F(Chain, CRLsThatListNothing_AllCertificatesAreGood) {
  crls.push_back(makeCRL({.issuer = &root}));
  crls.push_back(makeCRL({.issuer = &ca}));
  const auto result = verify({"-x509_strict"});
  EXPECT_EQ(result.status, 0) << result.err;
}

TEST_F(Chain, CRLListsTheLeaf_Revoked) {
  crls.push_back(makeCRL({.issuer = &root}));
  crls.push_back(makeCRL({.issuer = &ca, .revoked = {{.serial = 99}, {.serial = leaf}}}));
  EXPECT_CONTAINS(verify().err, "error 23 at 0 depth");
}

TEST_F(Chain, CRLListsTheCA_Revoked) {
  crls.push_back(makeCRL({.issuer = &root, .revoked = {{.serial = ca}}}));
  crls.push_back(makeCRL({.issuer = &ca}));
  EXPECT_CONTAINS(verify().err, "error 23 at 1 depth");
}

TEST_F(Chain, DeltaCRLListsTheLeaf_RevokedOnlyWithDeltas) {
  crls.push_back(makeCRL({.issuer = &root}));
  crls.push_back(makeCRL(
      {.issuer = &ca, .number = 5, .freshestCRL = {{.fullNames = {"URI:http://crl.test/delta"}}}}));
  crls.push_back(
      makeCRL({.issuer = &ca, .number = 6, .deltaBase = 5, .revoked = {{.serial = leaf}}}));
  EXPECT_EQ(verify().status, 0);
  EXPECT_CONTAINS(verify({"-extended_crl", "-use_deltas"}).err, "error 23 at 0 depth");
}

struct CRLFault {
  const char* name;
  CRLOptions options;
  const char* error;
};

TEST_F(Chain, CRLWithOneFault_OpenSSLSaysWhich) {
  const Issued other = issueCA("CN=CA", &root);
  const CRLFault faults[] = {
      {"expired", {.lastUpdate = -3h, .nextUpdate = -2h}, "error 12 at 0 depth"},
      {"not yet valid", {.lastUpdate = 2h, .nextUpdate = 3h}, "error 11 at 0 depth"},
      {"never expires", {.nextUpdate = std::nullopt}, ""},
      {"no number", {.number = std::nullopt}, ""},
      {"bad signature", {.badSignature = true}, "error 8 at 0 depth"},
      {"other signer", {.signer = other.key}, "error 8 at 0 depth"},
      {"other issuer name", {.issuerName = "CN=Other"}, "error 3 at 0 depth"},
      {"no authority key id", {.authorityKeyId = KeyId::Absent}, ""},
      {"authority by serial number", {.authorityKeyId = KeyId::SerialOnly}, ""},
      {"wrong authority key id", {.authorityKeyId = KeyId::Wrong}, "error 3 at 0 depth"},
      {"only CA certificates", {.idp = IssuingDistributionPoint{.onlyCA = true}}, "error 44"},
      {"only user certificates", {.idp = IssuingDistributionPoint{.onlyUser = true}}, ""},
      {"unknown critical extension",
       {.rawExtensions = {{.oid = "1.2.3.4", .critical = true, .der = "\x05\0"s}}},
       "error 36 at 0 depth"},
  };
  for (const CRLFault& fault : faults) {
    CRLOptions options = fault.options;
    options.issuer = &ca;
    crls.clear();
    crls.push_back(makeCRL({.issuer = &root}));
    crls.push_back(makeCRL(options));
    const auto result = verify();
    if (*fault.error == '\0') {
      EXPECT_EQ(result.status, 0) << fault.name << '\n' << result.err;
    } else {
      EXPECT_TRUE(contains(result.err, fault.error)) << fault.name << '\n' << result.err;
    }
  }
}

struct CertificateFault {
  const char* name;
  CertificateOptions options;
  const char* error;
};

TEST_F(Chain, LeafWithOneFault_OpenSSLSaysWhich) {
  const CertificateFault faults[] = {
      {"expired", {.notBefore = -3h, .notAfter = -2h}, "error 10 at 0 depth"},
      {"not yet valid", {.notBefore = 2h}, "error 9 at 0 depth"},
      {"bad signature", {.badSignature = true}, "error 7 at 0 depth"},
      {"other signer", {.signer = makeKey()}, "error 7 at 0 depth"},
      {"other issuer name", {.issuerName = "CN=Other"}, "error 20 at 0 depth"},
      {"wrong authority key id", {.authorityKeyId = KeyId::Wrong}, "error 20 at 0 depth"},
      {"authority by serial number", {.authorityKeyId = KeyId::SerialOnly}, ""},
      {"no key ids", {.subjectKeyId = KeyId::Absent, .authorityKeyId = KeyId::Absent}, ""},
      {"no basic constraints", {.basicConstraints = false, .keyUsage = kAbsent}, ""},
      {"RSA key", {.keyKind = KeyKind::Rsa2048}, ""},
      {"Ed25519 key", {.keyKind = KeyKind::Ed25519}, ""},
      {"unknown critical extension",
       {.rawExtensions = {{.oid = "1.2.3.4", .critical = true, .der = "\x05\0"s}}},
       "error 34 at 0 depth"},
  };
  for (const CertificateFault& fault : faults) {
    CertificateOptions options = fault.options;
    options.issuer = &ca;
    leaf = issue(options);
    const auto result = verify();
    if (*fault.error == '\0') {
      EXPECT_EQ(result.status, 0) << fault.name << '\n' << result.err;
    } else {
      EXPECT_TRUE(contains(result.err, fault.error)) << fault.name << '\n' << result.err;
    }
  }
}

TEST_F(Chain, CAWithOneFault_OpenSSLSaysWhich) {
  const CertificateFault faults[] = {
      {"path length 0", {.ca = true, .pathLength = 0}, ""},
      {"no CA", {.ca = false}, "error 79 at 1 depth"},
      {"no certificate signing", {.ca = true, .keyUsage = KU_CRL_SIGN}, "error 32"},
      {"RSA key", {.ca = true, .keyKind = KeyKind::Rsa2048}, ""},
      {"Ed25519 key", {.ca = true, .keyKind = KeyKind::Ed25519}, ""},
  };
  for (const CertificateFault& fault : faults) {
    CertificateOptions options = fault.options;
    options.subject = "CN=CA";
    options.issuer = &root;
    ca = issue(options);
    leaf = issue({.subject = "CN=Leaf", .issuer = &ca});
    const auto result = verify();
    if (*fault.error == '\0') {
      EXPECT_EQ(result.status, 0) << fault.name << '\n' << result.err;
    } else {
      EXPECT_TRUE(contains(result.err, fault.error)) << fault.name << '\n' << result.err;
    }
  }
}

TEST_F(Chain, IndirectCRL_RevokesForTheNamedIssuer) {
  const Issued crlIssuer =
      issue({.subject = "CN=CRL Issuer", .issuer = &root, .keyUsage = KU_CRL_SIGN});
  leaf = issue({.subject = "CN=Leaf",
                .issuer = &ca,
                .crlDistributionPoints = {{.fullNames = {"URI:http://crl.test/all"},
                                           .crlIssuers = {"dirName:CN=CRL Issuer"}}}});
  const IssuingDistributionPoint indirect{.fullNames = {"URI:http://crl.test/all"},
                                          .indirect = true};
  const TempDir directory;
  crls.push_back(makeCRL({.issuer = &root}));
  crls.push_back(makeCRL({.issuer = &crlIssuer,
                          .revoked = {{.serial = 1, .certificateIssuer = "CN=CA"},
                                      {.serial = leaf}},  // of CN=CA too, by RFC 5280, 5.3.3
                          .idp = indirect}));
  writeFile(directory / "issuer.pem", pem(crlIssuer.get()));
  EXPECT_CONTAINS(verify({"-extended_crl", "-untrusted", directory / "issuer.pem"}).err,
                  "error 23 at 0 depth");
  crls.back() =
      makeCRL({.issuer = &crlIssuer,
               .revoked = {{.serial = 1, .certificateIssuer = "CN=Else"}, {.serial = leaf}},
               .idp = indirect});
  const auto result = verify({"-extended_crl", "-untrusted", directory / "issuer.pem"});
  EXPECT_EQ(result.status, 0) << result.err;
}

TEST(makeCRL, IssuingDistributionPoint_IsEncodedAsAsked) {
  const Issued ca = issueCA("CN=CA");
  const auto full = textOf(
      makeCRL({.issuer = &ca,
               .idp = IssuingDistributionPoint{.fullNames = {"URI:http://crl.test/a",
                                                             "dirName:C=DE,O=Crl"},
                                               .onlyUser = true,
                                               .indirect = true,
                                               .onlySomeReasons = CRLDP_ALL_REASONS & ~0x40}})
          .get());
  EXPECT_CONTAINS(full, "X509v3 Issuing Distribution Point: critical");
  EXPECT_CONTAINS(full, "URI:http://crl.test/a");
  EXPECT_CONTAINS(full, "DirName:C = DE, O = Crl");
  EXPECT_CONTAINS(full, "Only User Certificates");
  EXPECT_CONTAINS(full, "Indirect CRL");
  EXPECT_CONTAINS(full, "CA Compromise, Affiliation Changed");
  EXPECT_CONTAINS(full, "AA Compromise");
  EXPECT_LACKS(full, "Key Compromise");
  EXPECT_LACKS(full, "Only CA Certificates");

  const auto relative =
      textOf(makeCRL({.issuer = &ca,
                      .idp = IssuingDistributionPoint{.relativeName = "CN=Part+OU=Seven",
                                                      .onlyAttributes = true,
                                                      .critical = false}})
                 .get());
  EXPECT_CONTAINS(relative, "X509v3 Issuing Distribution Point: \n");
  EXPECT_CONTAINS(relative, "Relative Name");
  EXPECT_CONTAINS(relative, "CN = Part");
  EXPECT_CONTAINS(relative, "OU = Seven");
  EXPECT_CONTAINS(relative, "Only Attribute Certificates");
}

TEST(makeCRL, LongNumber_IsEncodedWhole) {
  const Issued ca = issueCA("CN=CA");
  const auto crl = makeCRL({.issuer = &ca, .number = "0123456789ABCDEF0123"});
  EXPECT_CONTAINS(runCommand({"openssl", "crl", "-noout", "-crlnumber"}, pem(crl.get())).out,
                  "123456789ABCDEF0123");
}

TEST(makeCRL, EntriesAndNumbers_AreEncodedInTheirOrder) {
  const Issued ca = issueCA("CN=CA");
  const auto text = textOf(
      makeCRL(
          {.issuer = &ca,
           .lastUpdate = "20260102030405Z",
           .nextUpdate = "20500102030405Z",
           .number = 5,
           .deltaBase = 4,
           .revoked = {{.serial = "FF00", .date = "20251224180000Z", .reason = 1},
                       {.serial = 7, .reason = 8},
                       {.serial = 8, .certificateIssuer = "C=DE,O=Else"},
                       {.serial = 9,
                        .extensions = {{.oid = "1.2.3.4", .critical = true, .der = "\x05\0"s}}}},
           .freshestCRL = {{.fullNames = {"URI:http://crl.test/fresh"}}}})
          .get());
  EXPECT_CONTAINS(text, "Last Update: Jan  2 03:04:05 2026 GMT");
  EXPECT_CONTAINS(text, "Next Update: Jan  2 03:04:05 2050 GMT");
  EXPECT_CONTAINS(text, "X509v3 CRL Number: \n                5\n");
  EXPECT_CONTAINS(text, "X509v3 Delta CRL Indicator: critical\n                4\n");
  EXPECT_CONTAINS(text, "Revocation Date: Dec 24 18:00:00 2025 GMT");
  EXPECT_CONTAINS(text, "Key Compromise");
  EXPECT_CONTAINS(text, "Remove From CRL");
  EXPECT_CONTAINS(text, "X509v3 Certificate Issuer: critical");
  EXPECT_CONTAINS(text, "1.2.3.4: critical");
  EXPECT_CONTAINS(text, "X509v3 Freshest CRL");
  EXPECT_LT(text.find("Serial Number: FF00"), text.find("Serial Number: 07"));
}

TEST(makeCRL, NextUpdateAndNumberAbsent_AreNotEncoded) {
  const Issued ca = issueCA("CN=CA");
  const auto crl = makeCRL({.issuer = &ca, .nextUpdate = std::nullopt, .number = std::nullopt});
  EXPECT_EQ(X509_CRL_get0_nextUpdate(crl.get()), nullptr);
  EXPECT_EQ(X509_CRL_get_ext_by_NID(crl.get(), NID_crl_number, -1), -1);
}

TEST(makeCRL, NoIssuer_Throws) { EXPECT_THROW(makeCRL({}), std::runtime_error); }

TEST(issue, ExtensionsFromConfiguration_AreEncoded) {
  const auto text =
      textOf(issue({.extensions = {{"subjectAltName", "critical,email:a@b.test,DNS:b.test"},
                                   {"authorityInfoAccess", "OCSP;URI:http://ocsp.test"},
                                   {"certificatePolicies", "2.5.29.32.0,@policy"},
                                   {"1.2.3.4", "DER:0500"}},
                    .config = "[policy]\npolicyIdentifier=1.3.5.8\nCPS.1=http://cps.test\n"})
                 .get());
  EXPECT_CONTAINS(text, "X509v3 Subject Alternative Name: critical");
  EXPECT_CONTAINS(text, "email:a@b.test, DNS:b.test");
  EXPECT_CONTAINS(text, "OCSP - URI:http://ocsp.test");
  EXPECT_CONTAINS(text, "Policy: X509v3 Any Policy");
  EXPECT_CONTAINS(text, "CPS: http://cps.test");
  EXPECT_CONTAINS(text, "1.2.3.4:");
}

TEST(issue, DistributionPoints_AreEncodedAsAsked) {
  const auto text = textOf(
      issue({.crlDistributionPoints = {{.fullNames = {"URI:http://crl.test/a"}, .reasons = 0x40},
                                       {.relativeName = "CN=Part"},
                                       {.crlIssuers = {"dirName:CN=Issuer"}}},
             .freshestCRL = {{.fullNames = {"URI:http://crl.test/b"}}}})
          .get());
  EXPECT_CONTAINS(text, "URI:http://crl.test/a");
  EXPECT_CONTAINS(text, "Key Compromise");
  EXPECT_CONTAINS(text, "Relative Name");
  EXPECT_CONTAINS(text, "CRL Issuer");
  EXPECT_CONTAINS(text, "X509v3 Freshest CRL");
}

TEST(issue, RawExtensionGivenTwice_StandsTwice) {
  const RawExtension constraints{.oid = "2.5.29.19", .der = std::string("\x30\0", 2)};
  const Issued issued =
      issue({.basicConstraints = false, .rawExtensions = {constraints, constraints}});
  const int first = X509_get_ext_by_NID(issued.get(), NID_basic_constraints, -1);
  EXPECT_GE(first, 0);
  EXPECT_GT(X509_get_ext_by_NID(issued.get(), NID_basic_constraints, first), first);
  EXPECT_NE(X509_get_extension_flags(issued.get()) & EXFLAG_INVALID, 0U);
}

TEST(issue, KeyUsageBits_AreEncodedInBothBytes) {
  const Issued issued = issue({.keyUsage = KU_NON_REPUDIATION | KU_DECIPHER_ONLY});
  EXPECT_EQ(X509_get_key_usage(issued.get()),
            static_cast<std::uint32_t>(KU_NON_REPUDIATION | KU_DECIPHER_ONLY));
}

TEST(issue, SerialNumbers_AreThoseGivenOrNewOnes) {
  EXPECT_EQ(Serial(issue({.serial = 255})).hex(), "FF");
  EXPECT_EQ(Serial(issue({.serial = "-0A"})).hex(), "-0A");
  EXPECT_EQ(Serial(issue({.serial = "0123456789ABCDEF0123456789ABCDEF01234567"})).hex(),
            "0123456789ABCDEF0123456789ABCDEF01234567");
  EXPECT_NE(Serial(issue({})).hex(), Serial(issue({})).hex());
}

TEST(Issued, Copies_ShareTheCertificate) {
  const Issued issued = issue({});
  const Issued copy = issued;
  EXPECT_EQ(copy.get(), issued.get());
  EXPECT_EQ(issued.reference().get(), issued.get());
}

TEST(makeName, Text_IsEncodedInItsOrder) {
  const auto text = textOf(
      issue({.subject = "C=DE,O=Comma\\, Inc,CN=J\xc3\xbcrgen+serialNumber=7,1.2.3.4=x"}).get());
  // RFC 2253 prints the last RDN first.
  EXPECT_CONTAINS(text,
                  "Subject: 1.2.3.4=#0C0178,CN=J\\C3\\BCrgen+serialNumber=7,"
                  "O=Comma\\, Inc,C=DE");
}

TEST(makeName, UnusualValues_AreNotRefused) {
  EXPECT_EQ(X509_NAME_entry_count(makeName("").get()), 0);
  EXPECT_EQ(X509_NAME_entry_count(makeName("CN=").get()), 1);
  EXPECT_EQ(X509_NAME_entry_count(makeName("C=Germany,CN=" + std::string(1000, 'x')).get()), 2);
}

TEST(makeName, NoName_Throws) {
  EXPECT_THROW(makeName("CN"), std::runtime_error);
  EXPECT_THROW(makeName("CN=a,,O=b"), std::runtime_error);
  EXPECT_THROW(makeName("NoSuchType=a"), std::runtime_error);
  EXPECT_THROW(makeGeneralName("http://crl.test"), std::runtime_error);
  EXPECT_THROW(makeGeneralName("none"), std::runtime_error);
}

TEST(Pem, KeyAndCertificate_BelongTogether) {
  for (const KeyKind kind : {KeyKind::P256, KeyKind::Rsa2048, KeyKind::Ed25519}) {
    const Issued issued = issue({.keyKind = kind});
    const auto fromKey = runCommand({"openssl", "pkey", "-pubout"}, pem(issued.key.get()));
    const auto fromCert =
        runCommand({"openssl", "x509", "-pubkey", "-noout"}, pem(issued.cert.get()));
    EXPECT_EQ(fromKey.status, 0) << fromKey.err;
    EXPECT_EQ(fromKey.out, fromCert.out);
  }
}

TEST(Der, ReadBack_IsTheSame) {
  const Issued ca = issueCA("CN=CA");
  const auto crl = makeCRL({.issuer = &ca});
  EXPECT_EQ(der(certFromDer(der(ca.get())).get()), der(ca.get()));
  EXPECT_EQ(der(crlFromDer(der(crl.get())).get()), der(crl.get()));
  EXPECT_THROW(certFromDer(der(ca.get()) + "x"), std::runtime_error);
  EXPECT_THROW(crlFromDer("x"), std::runtime_error);
}

TEST(HashDirectory, Names_AreThoseOfOpenSSLRehash) {
  const TempDir directory;
  const TempDir links;
  const Issued one = issueCA("CN=Same");
  const Issued two = issueCA("CN=Same");
  const Issued other = issueCA("CN=Other");
  std::vector<std::string> names;
  const auto add = [&](const auto* object) {
    const auto path = addToDirectory(directory.path(), object);
    names.push_back(path.filename());
    writeFile(links / ("file" + std::to_string(names.size()) + ".pem"), readFile(path));
  };
  add(one.get());
  add(two.get());
  add(other.get());
  add(makeCRL({.issuer = &one, .number = 1}).get());
  add(makeCRL({.issuer = &one, .number = 2}).get());

  const auto rehash = runCommand({"openssl", "rehash", links.string()});
  ASSERT_EQ(rehash.status, 0) << rehash.err;
  std::vector<std::string> expected;
  for (const auto& entry : std::filesystem::directory_iterator(links.path())) {
    if (entry.is_symlink()) expected.push_back(entry.path().filename());
  }
  std::sort(names.begin(), names.end());
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(names, expected);
}

TEST(HashDirectory, KeyWithLeadingZeros_KeepsThem) {
  int number = 0;
  while (nameHash(makeName("CN=" + std::to_string(number)).get()) > 0x0fffffff) ++number;
  const Issued issued = issue({.subject = "CN=" + std::to_string(number)});
  EXPECT_EQ(
      hashName(issued.get()),
      runCommand({"openssl", "x509", "-noout", "-hash"}, pem(issued.cert.get())).out.substr(0, 8) +
          ".0");
}

}  // namespace
}  // namespace Velantrix::Test
