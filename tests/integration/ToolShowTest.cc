// `pkx509 show`: every fact is compared with what the openssl command says of the same file.
#include "ToolFixture.h"
#include "support/Pki.h"

#include <openssl/x509v3.h>

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace Velantrix::Test {
namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;
using nlohmann::json;

// What a certificate with everything looks like to the openssl command.
constexpr char kConfiguration[] = R"(
[ everything ]
basicConstraints       = critical, CA:true, pathlen:3
keyUsage               = critical, digitalSignature, keyCertSign, cRLSign, decipherOnly, keyAgreement
subjectKeyIdentifier   = hash
authorityKeyIdentifier = keyid
subjectAltName         = email:first@example.com, DNS:mx.example.com, email:second@example.com
authorityInfoAccess    = OCSP;URI:http://ocsp.example.com/, caIssuers;URI:http://ca.example.com/ca, OCSP;DNS:ocsp2.example.com
crlDistributionPoints  = one, two, three
[ one ]
fullname = URI:http://crl.example.com/one.crl, dirName:one_name, IP:192.0.2.1, IP:2001:db8::1, RID:1.2.3.4, otherName:1.2.3.5;UTF8:x
reasons  = keyCompromise, CACompromise
[ one_name ]
O  = Example Mail
CN = First, of several
[ two ]
relativename = two_name
CRLissuer    = dirName:two_issuer
[ two_name ]
CN = Second
[ two_issuer ]
O  = Example Mail
CN = CRL Issuer
[ three ]
fullname = URI:http://crl.example.com/three.crl
reasons  = affiliationChanged, superseded, cessationOfOperation, certificateHold, privilegeWithdrawn, AACompromise
)";

class ToolShow : public ToolFixture {
 protected:
  static json shown(const Arguments& arguments) {
    const CommandResult result = tool(Arguments{"show", "--json"} + arguments);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.err, "");
    return parsed(result);
  }

  static std::string outputOf(const Arguments& arguments) {
    const CommandResult result = runCommand(arguments);
    EXPECT_EQ(result.status, 0) << result.err;
    return result.out;
  }

  // What "openssl x509" or "openssl crl" prints as "name=value".
  static std::string valueOf(const Arguments& arguments) {
    std::string text = outputOf(arguments);
    text.erase(0, text.find('=') + 1);
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
  }
  static std::string x509(const std::string& file, const Arguments& options) {
    return valueOf(Arguments{"openssl", "x509", "-noout", "-in", file} + options);
  }
  static std::string crl(const std::string& file, const Arguments& options) {
    return valueOf(Arguments{"openssl", "crl", "-noout", "-in", file} + options);
  }
  // Of a line of a text, without the blanks around it.
  static std::string after(const std::string& text, const std::string& label) {
    const std::size_t found = text.find(label);
    if (found == std::string::npos) return "nothing after " + label;
    const std::size_t begin = text.find_first_not_of(" \n", found + label.size());
    return text.substr(begin, text.find('\n', begin) - begin);
  }
  // "2026-11-21 05:00:00Z" of OpenSSL as the tool writes it.
  static std::string iso(std::string time) {
    std::replace(time.begin(), time.end(), ' ', 'T');
    return time;
  }
  static std::size_t count(const std::string& text, const std::string& part) {
    std::size_t number = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
      ++number;
    }
    return number;
  }

  // A certificate of the PKI's second intermediate with all that `kConfiguration` says.
  std::string everything(const Arguments& key = {"rsa:2048"}) const {
    writeFile(own("openssl.cnf"), kConfiguration);
    command(Arguments{"openssl", "req", "-new", "-nodes", "-keyout", own("key.pem"), "-out",
                      own("request.pem"), "-subj", "/O=Example Mail/emailAddress=third@example.com",
                      "-newkey"} +
            key);
    command({"openssl", "x509", "-req", "-in", own("request.pem"), "-CA", pki("work/two/cert.pem"),
             "-CAkey", pki("work/two/key.pem"), "-set_serial", "0xFEDCBA98765432100123", "-days",
             "100", "-extfile", own("openssl.cnf"), "-extensions", "everything", "-out",
             own("everything.pem")});
    return own("everything.pem");
  }

  std::string file(const std::string& name, std::string_view content) const {
    writeFile(own(name), content);
    return own(name);
  }
};

TEST_F(ToolShow, FactsOfCertificates_AreWhatOpenSSLSays) {
  const std::vector<std::pair<std::string, bool>> files = {
      {everything(), false},
      {person("good"), false},
      {pki("work/root/cert.pem"), true},
      {pki("work/one/cert.pem"), false},
  };
  for (const auto& [path, selfSigned] : files) {
    SCOPED_TRACE(path);
    const json facts = shown({path}).at(0);
    const std::string text = outputOf({"openssl", "x509", "-noout", "-text", "-in", path});
    const Arguments utf8 = {"-nameopt", "RFC2253"};
    const Arguments dates = {"-dateopt", "iso_8601"};
    EXPECT_EQ(facts.at("file"), path);
    EXPECT_EQ(facts.at("type"), "certificate");
    EXPECT_EQ(facts.at("subject"), x509(path, Arguments{"-subject"} + utf8));
    EXPECT_EQ(facts.at("issuer"), x509(path, Arguments{"-issuer"} + utf8));
    EXPECT_EQ(facts.at("serial"), x509(path, {"-serial"}));
    EXPECT_EQ(facts.at("notBefore"), iso(x509(path, Arguments{"-startdate"} + dates)));
    EXPECT_EQ(facts.at("notAfter"), iso(x509(path, Arguments{"-enddate"} + dates)));
    EXPECT_EQ(facts.at("keyAlgorithm"), after(text, "Public Key Algorithm:"));
    EXPECT_EQ(after(text, "Public-Key:"), "(" + facts.at("keyBits").dump() + " bit)");
    EXPECT_EQ(facts.at("subjectKeyIdentifier"), after(text, "X509v3 Subject Key Identifier:"));
    EXPECT_EQ(facts.at("ca"), text.find("CA:TRUE") != std::string::npos);
    EXPECT_EQ(facts.at("selfSigned"), selfSigned);
    EXPECT_EQ(facts.at("problems"), json::object());
    if (selfSigned) {
      EXPECT_EQ(facts.at("authorityKeyIdentifier"), nullptr);
    } else {
      EXPECT_EQ(facts.at("authorityKeyIdentifier"),
                after(text, "X509v3 Authority Key Identifier:"));
    }
    std::set<std::string> emails;
    std::istringstream lines(outputOf({"openssl", "x509", "-noout", "-email", "-in", path}));
    for (std::string email; std::getline(lines, email);) emails.insert(email);
    EXPECT_EQ(facts.at("emails"), json(emails));
  }
}

TEST_F(ToolShow, ExtensionsOfACertificate_AreWhatOpenSSLSays) {
  const std::string path = everything();
  const json facts = shown({path}).at(0);
  const std::string text = outputOf({"openssl", "x509", "-noout", "-text", "-in", path});
  EXPECT_EQ(facts.at("serial"), "FEDCBA98765432100123");
  EXPECT_EQ(facts.at("keyBits"), 2048);
  EXPECT_EQ(after(text, "X509v3 Key Usage: critical"),
            "Digital Signature, Key Agreement, Certificate Sign, CRL Sign, Decipher Only");
  EXPECT_EQ(facts.at("keyUsage"),
            json({"digitalSignature", "keyAgreement", "keyCertSign", "cRLSign", "decipherOnly"}));
  EXPECT_EQ(after(text, "X509v3 Basic Constraints: critical"), "CA:TRUE, pathlen:3");
  EXPECT_EQ(facts.at("pathLength"), 3);
  EXPECT_EQ(facts.at("ocsp"),
            json({"URI:" + outputOf({"openssl", "x509", "-noout", "-ocsp_uri", "-in", path})
                               .substr(0, "http://ocsp.example.com/"s.size()),
                  "DNS:ocsp2.example.com"}));
  EXPECT_EQ(facts.at("emails"),
            json({"first@example.com", "second@example.com", "third@example.com"}));

  const json& points = facts.at("crlDistributionPoints");
  ASSERT_EQ(points.size(), 3U);
  EXPECT_EQ(
      points.at(0).at("fullName"),
      json({"URI:http://crl.example.com/one.crl", "dirName:CN=First\\, of several,O=Example Mail",
            "IP:192.0.2.1", "IP:2001:db8::1", "RID:1.2.3.4", "otherName:1.2.3.5"}));
  for (const char* part : {"URI:http://crl.example.com/one.crl", "CN = \"First, of several\"",
                           "IP Address:192.0.2.1", "IP Address:2001:DB8:0:0:0:0:0:1",
                           "Registered ID:1.2.3.4", "Key Compromise, CA Compromise"}) {
    EXPECT_EQ(count(text, part), 1U) << part << "\n" << text;
  }
  EXPECT_EQ(points.at(0).at("relativeName"), nullptr);
  EXPECT_EQ(points.at(0).at("reasons"), json({"keyCompromise", "cACompromise"}));
  EXPECT_EQ(points.at(0).at("crlIssuers"), json::array());
  EXPECT_EQ(after(text, "Relative Name:"), "CN = Second");
  EXPECT_EQ(points.at(1).at("fullName"), json::array());
  EXPECT_EQ(points.at(1).at("relativeName"), "CN=Second");
  EXPECT_EQ(points.at(1).at("reasons").size(), 8U);
  EXPECT_EQ(after(text, "CRL Issuer:"), "DirName:O = Example Mail, CN = CRL Issuer");
  EXPECT_EQ(points.at(1).at("crlIssuers"), json({"dirName:CN=CRL Issuer,O=Example Mail"}));
  EXPECT_EQ(points.at(2).at("reasons"),
            json({"affiliationChanged", "superseded", "cessationOfOperation", "certificateHold",
                  "privilegeWithdrawn", "aACompromise"}));
  EXPECT_NE(text.find("Affiliation Changed, Superseded, Cessation Of Operation, Certificate Hold, "
                      "Privilege Withdrawn, AA Compromise"),
            std::string::npos);
}

TEST_F(ToolShow, KeysOfEveryKind_HaveTheirAlgorithmAndBits) {
  struct Row {
    Arguments key;
    std::string algorithm;
    int bits;
  };
  const std::vector<Row> rows = {
      {{"rsa:1024"}, "rsaEncryption", 1024},
      {{"ec", "-pkeyopt", "ec_paramgen_curve:P-384"}, "id-ecPublicKey", 384},
      {{"ed25519"}, "ED25519", 256},
      {{"rsa-pss", "-pkeyopt", "rsa_keygen_bits:1024"}, "rsassaPss", 1024},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.algorithm);
    const json facts = shown({everything(row.key)}).at(0);
    EXPECT_EQ(facts.at("keyAlgorithm"), row.algorithm);
    EXPECT_EQ(facts.at("keyBits"), row.bits);
    const std::string text =
        outputOf({"openssl", "x509", "-noout", "-text", "-in", own("everything.pem")});
    EXPECT_EQ(after(text, "Public Key Algorithm:"), row.algorithm);
  }
}

TEST_F(ToolShow, WhatIsAbsent_IsNull_AndAnUnrestrictedKeyUsageSaysSo) {
  const std::string path = file("bare.pem", pem(issue({.subject = "",
                                                       .basicConstraints = false,
                                                       .keyUsage = kAbsent,
                                                       .subjectKeyId = KeyId::Absent})
                                                    .get()));
  const json facts = shown({path}).at(0);
  for (const char* key :
       {"subjectKeyIdentifier", "authorityKeyIdentifier", "keyUsage", "pathLength"}) {
    EXPECT_EQ(facts.at(key), nullptr) << key;
  }
  for (const char* key : {"crlDistributionPoints", "ocsp", "emails"}) {
    EXPECT_EQ(facts.at(key), json::array()) << key;
  }
  const std::string text = tool({"show", path}).out;
  EXPECT_EQ(after(text, "  key usage"), "not restricted");
  EXPECT_EQ(after(text, "  subject "), "empty");
  EXPECT_EQ(after(text, "  CA "), "no");
  EXPECT_EQ(after(text, "  CRL distribution point"), "none");
  // To OpenSSL an extension that grants nothing is malformed, which only its own check notices.
  const Issued none = issue({.keyUsage = 0});
  const json granted = parsed(tool({"show", "--json", file("none.pem", pem(none.get()))})).at(0);
  EXPECT_EQ(granted.at("keyUsage"), json::array());
  EXPECT_EQ(granted.at("problems"), json({{"selfSigned", "malformed extensions"}}));
}

TEST_F(ToolShow, FactsOfCRLs_AreWhatOpenSSLSays) {
  struct Row {
    const char* name;
    std::size_t entries;
  };
  static constexpr Row kRows[] = {{"root", 0}, {"base", 2}, {"delta", 2}, {"ca-only", 2}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.name);
    const std::string path = pki("work/"s + row.name + ".crl");
    const json facts = shown({path}).at(0);
    const std::string text = outputOf({"openssl", "crl", "-noout", "-text", "-in", path});
    const Arguments dates = {"-dateopt", "iso_8601"};
    EXPECT_EQ(facts.at("type"), "crl");
    EXPECT_EQ(facts.at("issuer"), crl(path, {"-issuer", "-nameopt", "RFC2253"}));
    EXPECT_EQ("0x" + facts.at("crlNumber").get<std::string>(), crl(path, {"-crlnumber"}));
    EXPECT_EQ(facts.at("thisUpdate"), iso(crl(path, Arguments{"-lastupdate"} + dates)));
    EXPECT_EQ(facts.at("nextUpdate"), iso(crl(path, Arguments{"-nextupdate"} + dates)));
    EXPECT_EQ(facts.at("authorityKeyIdentifier"), after(text, "X509v3 Authority Key Identifier:"));
    EXPECT_EQ(facts.at("entries"), row.entries);
    EXPECT_EQ(count(text, "Serial Number:"), row.entries);
    EXPECT_EQ(facts.at("unhandledCriticalExtension"), false);
    const bool delta = text.find("X509v3 Delta CRL Indicator: critical") != std::string::npos;
    EXPECT_EQ(facts.at("baseCRLNumber"), delta ? json("01") : json());
    EXPECT_EQ(facts.at("issuingDistributionPoint").is_null(),
              text.find("X509v3 Issuing Distribution Point") == std::string::npos);
    EXPECT_EQ(facts.at("problems"), json::object());
  }
}

TEST_F(ToolShow, IssuingDistributionPoints_AreShownWhole) {
  const Issued root = issueCA("CN=Root");
  struct Row {
    IssuingDistributionPoint point;
    json expected;
    std::vector<std::string> openssl;
  };
  const json all = {"keyCompromise",      "cACompromise",         "affiliationChanged",
                    "superseded",         "cessationOfOperation", "certificateHold",
                    "privilegeWithdrawn", "aACompromise"};
  const json none = json::array();
  const auto expected = [](const json& fullName, const json& relativeName, const json& reasons) {
    return json{{"fullName", fullName}, {"relativeName", relativeName}, {"onlyUser", false},
                {"onlyCA", false},      {"onlyAttribute", false},       {"indirect", false},
                {"reasons", reasons}};
  };
  json user = expected({"URI:http://a.test/", "dirName:CN=Place"}, nullptr, {"keyCompromise"});
  user["onlyUser"] = true;
  json ca = expected(none, "CN=Relative", all);
  ca["onlyCA"] = true;
  json attribute = expected(none, nullptr, all);
  attribute["onlyAttribute"] = true;
  json indirect = expected(none, nullptr, all);
  indirect["indirect"] = true;
  const std::vector<Row> rows = {
      {{.fullNames = {"URI:http://a.test/", "dirName:CN=Place"},
        .onlyUser = true,
        .onlySomeReasons = 0x40},
       user,
       {"URI:http://a.test/", "DirName:CN = Place", "Only User Certificates", "Key Compromise"}},
      {{.relativeName = "CN=Relative", .onlyCA = true},
       ca,
       {"Relative Name:", "CN = Relative", "Only CA Certificates"}},
      {{.onlyAttributes = true}, attribute, {"Only Attribute Certificates"}},
      {{.indirect = true}, indirect, {"Indirect CRL"}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.expected.dump());
    const std::string path =
        file("idp.crl", pem(makeCRL({.issuer = &root, .idp = row.point}).get()));
    EXPECT_EQ(shown({path}).at(0).at("issuingDistributionPoint"), row.expected);
    const std::string text = outputOf({"openssl", "crl", "-noout", "-text", "-in", path});
    for (const std::string& part : row.openssl) {
      EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
    }
  }
  const std::string unknown =
      file("critical.crl",
           pem(makeCRL({.issuer = &root,
                        .nextUpdate = std::nullopt,
                        .number = std::nullopt,
                        .authorityKeyId = KeyId::SerialOnly,
                        .rawExtensions = {{.oid = "1.2.3.4", .critical = true, .der = "\x05\0"s}}})
                   .get()));
  const json facts = shown({unknown}).at(0);
  EXPECT_EQ(facts.at("unhandledCriticalExtension"), true);
  for (const char* key : {"nextUpdate", "crlNumber", "authorityKeyIdentifier"}) {
    EXPECT_EQ(facts.at(key), nullptr) << key;
  }
}

TEST_F(ToolShow, Json_HasExactlyTheKeysInOrder) {
  const CommandResult result = tool({"show", "--json", person("good"), pki("work/ca-only.crl")});
  const auto objects = nlohmann::ordered_json::parse(result.out);
  const auto keysOf = [](const nlohmann::ordered_json& object) {
    std::string keys;
    for (const auto& item : object.items()) keys += item.key() + " ";
    return keys;
  };
  EXPECT_EQ(keysOf(objects.at(0)),
            "file type subject issuer serial notBefore notAfter keyAlgorithm keyBits "
            "subjectKeyIdentifier authorityKeyIdentifier keyUsage ca pathLength selfSigned "
            "crlDistributionPoints ocsp emails problems ");
  EXPECT_EQ(keysOf(objects.at(1)),
            "file type issuer crlNumber baseCRLNumber thisUpdate nextUpdate authorityKeyIdentifier "
            "issuingDistributionPoint entries unhandledCriticalExtension problems ");
  EXPECT_EQ(keysOf(objects.at(1).at("issuingDistributionPoint")),
            "fullName relativeName onlyUser onlyCA onlyAttribute indirect reasons ");
  const auto points = nlohmann::ordered_json::parse(tool({"show", "--json", everything()}).out)
                          .at(0)
                          .at("crlDistributionPoints");
  EXPECT_EQ(keysOf(points.at(0)), "fullName relativeName reasons crlIssuers ");
}

TEST_F(ToolShow, Text_HasALineForEachFact) {
  const std::string path = everything();
  const CommandResult result = tool({"show", path, pki("work/ca-only.crl")});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const json facts = shown({path}).at(0);
  const std::string expected = path + R"(: certificate
  subject                       emailAddress=third@example.com,O=Example Mail
  issuer                        CN=Intermediate 2,O=Example Mail
  serial                        FEDCBA98765432100123
  not before                    )" +
                               facts.at("notBefore").get<std::string>() + R"(
  not after                     )" +
                               facts.at("notAfter").get<std::string>() + R"(
  key algorithm                 rsaEncryption
  key bits                      2048
  subject key id                )" +
                               facts.at("subjectKeyIdentifier").get<std::string>() + R"(
  authority key id              )" +
                               facts.at("authorityKeyIdentifier").get<std::string>() + R"(
  key usage                     digitalSignature, keyAgreement, keyCertSign, cRLSign, decipherOnly
  CA                            yes
  path length                   3
  self-signed                   no
  CRL distribution point 1
    name                        URI:http://crl.example.com/one.crl
    name                        dirName:CN=First\, of several,O=Example Mail
    name                        IP:192.0.2.1
    name                        IP:2001:db8::1
    name                        RID:1.2.3.4
    name                        otherName:1.2.3.5
    relative name               none
    reasons                     keyCompromise, cACompromise
    CRL issuer                  none
  CRL distribution point 2
    name                        none
    relative name               CN=Second
    reasons                     all
    CRL issuer                  dirName:CN=CRL Issuer,O=Example Mail
  CRL distribution point 3
    name                        URI:http://crl.example.com/three.crl
    relative name               none
    reasons                     affiliationChanged, superseded, cessationOfOperation, certificateHold, privilegeWithdrawn, aACompromise
    CRL issuer                  none
  OCSP location                 URI:http://ocsp.example.com/
  OCSP location                 DNS:ocsp2.example.com
  email address                 first@example.com
  email address                 second@example.com
  email address                 third@example.com
)" + pki("work/ca-only.crl") + ": CRL\n";
  EXPECT_EQ(result.out.substr(0, expected.size()), expected);
  EXPECT_NE(result.out.find("\n    only CA certificates        yes\n"), std::string::npos);
}

TEST_F(ToolShow, FilesWithBothKinds_AreShownInTheirOrder) {
  const std::string certificate = readFile(person("good"));
  const std::string crl = readFile(pki("work/base.crl"));
  const std::string key = readFile(pki("work/good.key"));
  command({"openssl", "x509", "-in", person("good"), "-outform", "DER", "-out", own("c.der")});
  command({"openssl", "crl", "-in", pki("work/base.crl"), "-outform", "DER", "-out", own("l.der")});
  command({"openssl", "pkcs8", "-topk8", "-nocrypt", "-in", pki("work/good.key"), "-outform", "DER",
           "-out", own("k.der")});
  command({"openssl", "x509", "-in", person("good"), "-trustout", "-addtrust", "emailProtection",
           "-out", own("trusted.pem")});
  const std::string certificateDer = readFile(own("c.der"));
  const std::string crlDer = readFile(own("l.der"));
  struct Row {
    std::string content;
    std::string types;
  };
  const std::vector<Row> rows = {
      {crl + key + "text\n" + certificate + crl, "crl certificate crl "},
      {certificate + readFile(own("trusted.pem")), "certificate certificate "},
      {"0 as in a SEQUENCE\n" + crl, "crl "},
      {crlDer + certificateDer, "crl certificate "},
      {certificateDer + readFile(own("k.der")) + crlDer + crlDer, "certificate crl crl "},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.types);
    const auto typesOf = [](const json& objects) {
      std::string types;
      for (const json& object : objects) types += object.at("type").get<std::string>() + " ";
      return types;
    };
    EXPECT_EQ(typesOf(shown({file("mixed", row.content)})), row.types);
    const CommandResult stream = tool({"show", "--json", "-"}, row.content);
    EXPECT_EQ(stream.status, 0) << stream.err;
    EXPECT_EQ(typesOf(parsed(stream)), row.types);
    EXPECT_EQ(parsed(stream).at(0).at("file"), "-");
  }
}

TEST_F(ToolShow, BrokenExtensions_AreNamedOnTheirLine_AndTheOthersAreShown) {
  struct Row {
    std::vector<RawExtension> extensions;
    const char* key;
    const char* label;
    std::string problem;
  };
  const auto broken = [](const char* oid) {
    return std::vector<RawExtension>{{.oid = oid, .der = "\x04\x01"s}};
  };
  const std::vector<Row> rows = {
      {broken("2.5.29.31"), "crlDistributionPoints", "CRL distribution point",
       "extension cannot be decoded: X509v3 CRL Distribution Points"},
      {broken("1.3.6.1.5.5.7.1.1"), "ocsp", "OCSP location",
       "extension cannot be decoded: Authority Information Access"},
      {broken("2.5.29.17"), "emails", "email address",
       "extension cannot be decoded: X509v3 Subject Alternative Name"},
      {broken("2.5.29.35"), "authorityKeyIdentifier", "authority key id",
       "extension cannot be decoded: X509v3 Authority Key Identifier"},
      {broken("2.5.29.14"), "subjectKeyIdentifier", "subject key id",
       "extension cannot be decoded: X509v3 Subject Key Identifier"},
      {broken("2.5.29.15"), "keyUsage", "key usage",
       "extension cannot be decoded: X509v3 Key Usage"},
      {broken("2.5.29.19"), "ca", "CA", "extension cannot be decoded: X509v3 Basic Constraints"},
      {broken("2.5.29.19"), "pathLength", "path length",
       "extension cannot be decoded: X509v3 Basic Constraints"},
      // CA, and a path length of -1.
      {{{.oid = "2.5.29.19", .der = "\x30\x06\x01\x01\xff\x02\x01\xff"s}},
       "pathLength",
       "path length",
       "path length is out of range"},
      {{{.oid = "2.5.29.31", .der = "\x30\0"s}, {.oid = "2.5.29.31", .der = "\x30\0"s}},
       "crlDistributionPoints",
       "CRL distribution point",
       "extension stands twice: X509v3 CRL Distribution Points"},
      {{{.oid = "2.5.29.17", .der = "\x30\0"s}, {.oid = "2.5.29.17", .der = "\x30\0"s}},
       "emails",
       "email address",
       "extension stands twice: X509v3 Subject Alternative Name"},
  };
  const Issued root = issueCA("CN=Root");
  for (const Row& row : rows) {
    SCOPED_TRACE(std::string(row.key) + ": " + row.problem);
    const Issued leaf = issue({.subject = "CN=Broken",
                               .issuer = &root,
                               .basicConstraints = false,
                               .keyUsage = kAbsent,
                               .subjectKeyId = KeyId::Absent,
                               .authorityKeyId = KeyId::Absent,
                               .rawExtensions = row.extensions});
    const std::string path = file("broken.pem", pem(leaf.get()));
    const CommandResult text = tool({"show", path, person("good")});
    EXPECT_EQ(text.status, 2);
    EXPECT_EQ(text.err, "");
    EXPECT_EQ(after(text.out, "\n  "s + row.label + " "), "broken: " + row.problem) << text.out;
    EXPECT_EQ(after(text.out, "\n  serial "), x509(path, {"-serial"}));
    EXPECT_NE(text.out.find(person("good") + ": certificate\n"), std::string::npos);
    const CommandResult asJson = tool({"show", "--json", path, person("good")});
    EXPECT_EQ(asJson.status, 2);
    EXPECT_EQ(asJson.err, "");
    ASSERT_EQ(parsed(asJson).size(), 2U);
    EXPECT_EQ(parsed(asJson).at(0).at(row.key), nullptr);
    EXPECT_EQ(parsed(asJson).at(0).at("problems").at(row.key), row.problem);
    EXPECT_EQ(parsed(asJson).at(0).at("subject"), "CN=Broken");
    EXPECT_EQ(parsed(asJson).at(1).at("problems"), json::object());
  }
}

TEST_F(ToolShow, UnreadableKey_IsOneProblemOfItsCertificate) {
  // The key's algorithm, id-ecPublicKey, becomes one that nobody knows.
  std::string bytes = der(issue({}).get());
  const std::size_t place = bytes.find("\x06\x07\x2a\x86\x48\xce\x3d\x02\x01"s);
  ASSERT_NE(place, std::string::npos);
  bytes[place + 8] = 0x7f;
  const CommandResult result = tool({"show", "--json", file("key.der", bytes)});
  EXPECT_EQ(result.status, 2);
  const json facts = parsed(result).at(0);
  EXPECT_EQ(facts.at("keyAlgorithm"), "1.2.840.10045.2.127");
  EXPECT_EQ(facts.at("problems"), json({{"keyBits", "public key cannot be read"}}));
}

TEST_F(ToolShow, WhatCannotBeRead_IsOneLine_AndTheRestIsShown) {
  const Issued root = issueCA("CN=Root");
  const std::string brokenCRL =
      pem(makeCRL({.issuer = &root, .rawExtensions = {{.oid = "2.5.29.28", .der = "\x04\x01"s}}})
              .get());
  const std::string certificate = readFile(person("good"));
  std::string encrypted = certificate;
  encrypted.insert(
      encrypted.find("CERTIFICATE-----\n") + 17,
      "Proc-Type: 4,ENCRYPTED\nDEK-Info: AES-256-CBC,00000000000000000000000000000000\n\n");
  const std::string malformed = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";
  const std::string bytes = der(certFromDer(der(root.get())).get());
  const std::string nothing = "there is no certificate and no CRL in it";
  const std::string huge = file("huge", "");
  fs::resize_file(huge, 128 * 1024 * 1024 + 1);
  struct Row {
    std::string path;
    std::string problem;
    std::size_t shown;
  };
  const std::vector<Row> rows = {
      {own("nothing"), "No such file or directory", 0},
      {own("."), "Is a directory", 0},
      {"/dev/zero", "Not a regular file.", 0},
      {huge, "more than can be read", 0},
      {file("empty", ""), nothing, 0},
      {file("text", "nothing\n"), "neither PEM nor DER", 0},
      {file("zero", "0"), "neither PEM nor DER", 0},
      {pki("work/good.key"), nothing, 0},
      {file("cut.der", bytes.substr(0, 100)), "neither PEM nor DER", 0},
      {file("trailing.der", bytes + "x"),
       "neither PEM nor DER from octet " + std::to_string(bytes.size()), 1},
      {file("broken.crl", brokenCRL),
       "extension cannot be decoded: X509v3 Issuing Distribution Point", 0},
      {file("mixed.pem", certificate + brokenCRL + certificate),
       "extension cannot be decoded: X509v3 Issuing Distribution Point", 2},
      {file("encrypted.pem", certificate + encrypted + certificate), "encrypted CERTIFICATE", 2},
      {file("malformed.pem", malformed + certificate), "malformed CERTIFICATE", 1},
      {file("cut.pem", certificate + certificate.substr(0, certificate.size() / 2)),
       "malformed PEM block", 1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.path);
    const CommandResult result = tool({"show", "--json", row.path, person("good")});
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.err, "pkx509: " + row.path + ": " + row.problem + "\n");
    EXPECT_EQ(parsed(result).size(), row.shown + 1);
    const CommandResult text = tool({"show", row.path});
    EXPECT_EQ(text.status, 2);
    EXPECT_EQ(count(text.out, ": certificate\n"), row.shown);
  }
  const CommandResult twice = tool({"show", "-", "-"});
  EXPECT_EQ(twice.status, 2);
  EXPECT_EQ(twice.err, "pkx509: standard input (\"-\") can be read only once\n");
  EXPECT_EQ(tool({"show", "-"}).err, "pkx509: standard input: " + nothing + "\n");
  EXPECT_EQ(tool({"show", "-", "--nonsense"}).err,
            "pkx509: unknown argument: --nonsense; --help shows the usage\n");
  EXPECT_EQ(tool({"show"}).status, 2);
  const CommandResult full = shell("exec \"$0\" \"$@\" >/dev/full", {"show", person("good")});
  EXPECT_EQ(full.status, 2);
  EXPECT_EQ(full.err, "pkx509: standard output: No space left on device\n");
}

TEST_F(ToolShow, TextsOfStrangers_ReachTheTerminalEscaped) {
  const Issued leaf =
      issue({.subject = "CN=a\x1b[31m\nb\xe2\x80\xae",
             .crlDistributionPoints = {{.fullNames = {"URI:http://a.test/\x1b[2J\n"}}},
             .rawExtensions = {{.oid = "2.5.29.17",  // a mail address with a line end
                                .der = "\x30\x07\x81\x05"s + "a@b\n\x1b"}}});
  const std::string path = own("esc\x1b[31m.pem");
  writeFile(path, pem(leaf.get()));
  const CommandResult text = tool({"show", path});
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_EQ(text.out.find('\x1b'), std::string::npos) << text.out;
  EXPECT_EQ(text.out.find("\xe2\x80\xae"), std::string::npos);
  EXPECT_TRUE(text.out.starts_with(own("esc\\1B[31m.pem: certificate\n"))) << text.out;
  EXPECT_EQ(after(text.out, "    name "), "URI:http://a.test/\\1B[2J\\0A");
  EXPECT_EQ(after(text.out, "  email address "), "a@b\\0A\\1B");
  const CommandResult asJson = tool({"show", "--json", path});
  for (const char c : asJson.out) ASSERT_TRUE(c == '\n' || (c >= ' ' && c < '\x7f'));
  EXPECT_EQ(parsed(asJson).at(0).at("crlDistributionPoints").at(0).at("fullName").at(0),
            "URI:http://a.test/\x1b[2J\n");
}

TEST_F(ToolShow, DamagedFiles_AreShownOrRefused) {
  const std::string certificate = [&] {
    command({"openssl", "x509", "-in", everything(), "-outform", "DER", "-out", own("c.der")});
    return readFile(own("c.der"));
  }();
  const Issued root = issueCA("CN=Root");
  const std::string crl = der(makeCRL({.issuer = &root,
                                       .revoked = {{.serial = 7, .reason = 1}},
                                       .idp = IssuingDistributionPoint{.fullNames = {"DNS:a"}}})
                                  .get());
  // Many at a time: what takes the time is the start of the tool.
  constexpr std::size_t kAtATime = 16;
  for (const std::string& whole : {certificate, crl}) {
    for (std::size_t place = 0; place < whole.size();) {
      Arguments show = {"show"};
      for (; place < whole.size() && show.size() <= kAtATime; place += 7) {
        std::string bytes = whole;
        bytes[place] = static_cast<char>(bytes[place] ^ (1 << (place % 8)));
        show.push_back(file("damaged-" + std::to_string(place) + ".", bytes));
      }
      const CommandResult result = tool(show);
      ASSERT_TRUE(result.status == 0 || result.status == 2) << place << result.err;
      EXPECT_LE(linesIn(result.err), std::ssize(show) - 1) << place << result.err;
      for (std::size_t i = 1; i < show.size(); ++i) {
        EXPECT_NE((result.out + result.err).find(show[i]), std::string::npos) << show[i];
      }
    }
  }
}

TEST_F(ToolShow, Help_NamesKeysStatusAndExamples) {
  const CommandResult help = tool({"show", "--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.err, "");
  for (const char* text : {"--json", "Exit status", "Examples", "pkx509 show "}) {
    EXPECT_NE(help.out.find(text), std::string::npos) << text;
  }
  const json objects = shown({everything(), pki("work/ca-only.crl")});
  for (const json& object : objects) {
    for (const auto& item : object.items()) {
      EXPECT_NE(help.out.find(item.key()), std::string::npos) << item.key();
    }
  }
  EXPECT_NE(tool({"--help"}).out.find("pkx509 show "), std::string::npos);
}

}  // namespace
}  // namespace Velantrix::Test
