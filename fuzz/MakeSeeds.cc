// Writes the inputs that fuzzing begins with: one file per kind of thing that a parser knows. See
// the script `seeds`, which fixes the date.
//
//   pkx509_fuzz_seeds DIRECTORY     # writes DIRECTORY/<target>/<name>
#include "Fixture.h"
#include "integration/LDAPPeer.h"

#include <velantrix/CertificateFactory.h>

#include <openssl/ocsp.h>
#include <openssl/pem.h>

#include <cstdio>
#include <filesystem>
#include <random>
#include <stdexcept>

namespace Velantrix::Fuzz {
namespace {

using Crypto::Owned;
using Test::CertificateOptions;
using Test::CRLOptions;
using namespace std::string_literals;

std::filesystem::path s_directory;

void seed(const std::string& target, const std::string& name, const std::string& content) {
  const std::filesystem::path directory = s_directory / target;
  std::filesystem::create_directories(directory);
  Test::writeFile(directory / name, content);
}

const std::vector<Test::DistributionPoint>& points() {
  static const std::vector<Test::DistributionPoint> list = {
      {.fullNames = {"URI:http://crl.example:8080/a%20b.crl?x=1",
                     "URI:ldap://ldap.example/cn=CA,o=x?certificateRevocationList;binary",
                     "dirName:C=DE,O=Mail,CN=CRL 1"},
       .reasons = 0x2a},
      {.relativeName = "CN=CRL 2+O=x", .crlIssuers = {"dirName:CN=Root", "DNS:crl.example"}},
      {.fullNames = {"dirName:CN=Root"}, .reasons = 0x8055},
  };
  return list;
}

// A point that names a CRL issuer only, and a scope: what the seeds of two targets are made of.
const std::vector<std::pair<std::string, Test::IssuingDistributionPoint>>& scopes() {
  static const std::vector<std::pair<std::string, Test::IssuingDistributionPoint>> list = {
      {"full", {.fullNames = {"URI:http://crl.example/ca.crl", "dirName:CN=Root"}}},
      {"relative", {.relativeName = "CN=CRL 2+O=x"}},
      {"user", {.onlyUser = true, .critical = false}},
      {"ca", {.onlyCA = true}},
      {"attributes", {.onlyAttributes = true}},
      {"reasons", {.indirect = true, .onlySomeReasons = 0x8055}},
  };
  return list;
}

CertificateOptions options(int serial) {
  return certificateOptions("C=DE,O=Mail Übung,CN=Person+emailAddress=p@mail.example", serial, 3);
}

std::vector<std::pair<std::string, Issued>> certificates() {
  std::vector<std::pair<std::string, Issued>> made = {{"root", root()}, {"leaf", leaf()}};
  CertificateOptions full = options(20);
  full.crlDistributionPoints = points();
  full.freshestCRL = {points().front()};
  full.extensions = {
      {"authorityInfoAccess",
       "OCSP;URI:http://ocsp.example/,caIssuers;URI:http://ca.example/ca.crt,OCSP;dirName:dir"},
      {"subjectAltName", "email:p@mail.example,IP:10.0.0.1,RID:1.2.3,otherName:1.2.3.4;UTF8:x"},
      {"certificatePolicies", "2.5.29.32.0,1.3.6.1.4.1.99999.1"},
      {"extendedKeyUsage", "emailProtection,OCSPSigning"}};
  full.config = "[dir]\nCN=Responder\n";
  made.emplace_back("full", Test::issue(full));
  CertificateOptions ca = certificateOptions("O=Mail,CN=CA", 21, 4);
  ca.ca = true;
  ca.pathLength = 0;
  made.emplace_back("ca", Test::issue(ca));
  CertificateOptions plain = options(22);
  plain.basicConstraints = false;
  plain.keyUsage = Test::kAbsent;
  plain.subjectKeyId = Test::KeyId::Absent;
  plain.authorityKeyId = Test::KeyId::Absent;
  made.emplace_back("plain", Test::issue(plain));
  CertificateOptions serial = options(0);
  serial.serial = "-80000000000000000000000000000000";
  serial.authorityKeyId = Test::KeyId::SerialOnly;
  serial.notAfter = Test::When("20010101000000Z");
  made.emplace_back("serial", Test::issue(serial));
  CertificateOptions broken = options(24);
  broken.rawExtensions = {{"2.5.29.31", false, "\x30\x02\x30\x01"s},
                          {"1.3.6.1.5.5.7.1.1", true, "\x05\0"s},
                          {"1.3.6.1.5.5.7.1.1", true, "\x30\0"s}};
  broken.badSignature = true;
  made.emplace_back("broken", Test::issue(broken));
  return made;
}

std::vector<std::pair<std::string, Owned<X509_CRL>>> crls() {
  std::vector<std::pair<std::string, Owned<X509_CRL>>> made;
  const auto add = [&](const std::string& name, const CRLOptions& crl) {
    made.emplace_back(name, Test::makeCRL(crl));
  };
  add("empty", crlOptions());
  CRLOptions listed = crlOptions();
  listed.revoked = {{.serial = leaf(), .reason = CRL_REASON_KEY_COMPROMISE},
                    {.serial = 20, .reason = CRL_REASON_UNSPECIFIED},
                    {.serial = "-0A", .reason = CRL_REASON_REMOVE_FROM_CRL},
                    {.serial = 21}};
  listed.freshestCRL = {points().front()};
  add("listed", listed);
  CRLOptions delta = crlOptions();
  delta.number = 3;
  delta.deltaBase = 1;
  delta.revoked = {{.serial = leaf(), .reason = CRL_REASON_REMOVE_FROM_CRL}};
  add("delta", delta);
  CRLOptions indirect = crlOptions();
  indirect.idp = Test::IssuingDistributionPoint{.indirect = true};
  indirect.revoked = {{.serial = 5, .certificateIssuer = "CN=Other"},
                      {.serial = leaf(), .reason = 1},
                      {.serial = leaf(), .reason = 4, .certificateIssuer = "CN=Root"}};
  add("indirect", indirect);
  for (const auto& [name, scope] : scopes()) {
    CRLOptions scoped = crlOptions();
    scoped.idp = scope;
    add("scope-" + name, scoped);
  }
  CRLOptions bare = crlOptions();
  bare.nextUpdate.reset();
  bare.number.reset();
  bare.authorityKeyId = Test::KeyId::SerialOnly;
  add("bare", bare);
  CRLOptions critical = crlOptions();
  critical.rawExtensions = {{"2.999.1", true, "\x05\0"s}};
  critical.revoked = {{.serial = leaf(), .extensions = {{"2.999.2", true, "\x05\0"s}}}};
  add("critical", critical);
  CRLOptions forged = crlOptions();
  forged.badSignature = true;
  add("forged", forged);
  CRLOptions future = crlOptions();
  future.lastUpdate = "20980101000000Z";
  add("future", future);
  return made;
}

std::string valueOf(const X509_EXTENSION* extension) {
  const ASN1_OCTET_STRING* const value =
      X509_EXTENSION_get_data(const_cast<X509_EXTENSION*>(extension));
  const auto* const data = reinterpret_cast<const char*>(ASN1_STRING_get0_data(value));
  return {data, static_cast<std::size_t>(ASN1_STRING_length(value))};
}

// A pair's certificates have explicit tags.
std::string pairOf(const Issued& forward, const Issued& reverse) {
  const auto element = [](char tag, const std::string& content) {
    const std::size_t length = content.size();
    return ""s + tag + '\x82' + static_cast<char>(length >> 8) + static_cast<char>(length & 0xff) +
           content;
  };
  return element('\x30', element('\xa0', Test::der(forward.get())) +
                             element('\xa1', Test::der(reverse.get())));
}

void extensionSeeds() {
  for (const auto& [name, issued] : certificates()) {
    for (const int nid : {NID_crl_distribution_points, NID_info_access, NID_subject_alt_name}) {
      const int index = X509_get_ext_by_NID(issued.get(), nid, -1);
      if (index < 0) continue;
      seed("extensions", name + "-" + OBJ_nid2sn(nid), valueOf(X509_get_ext(issued.get(), index)));
    }
  }
  for (const auto& [name, crl] : crls()) {
    const int index = X509_CRL_get_ext_by_NID(crl.get(), NID_issuing_distribution_point, -1);
    if (index >= 0) seed("extensions", name, valueOf(X509_CRL_get_ext(crl.get(), index)));
  }
  seed("extensions", "pair", pairOf(leaf(), leaf()));
}

template <class T>
T* notNull(T* object) {
  if (object == nullptr) throw std::runtime_error("OpenSSL has no memory, or no patience");
  return object;
}

struct Answer {
  std::string name;
  int status = V_OCSP_CERTSTATUS_GOOD;
  int reason = OCSP_REVOKED_STATUS_NOSTATUS;
  Issued responder = root();
  std::vector<Issued> sent = {};
  unsigned long flags = 0;
  bool otherCertificate = false;
  bool badSignature = false;
  bool nonce = true;
};

std::string ocspResponse(const Answer& answer) {
  const std::unique_ptr<OCSP_BASICRESP, void (*)(OCSP_BASICRESP*)> basic(
      notNull(OCSP_BASICRESP_new()), OCSP_BASICRESP_free);
  const std::unique_ptr<OCSP_CERTID, void (*)(OCSP_CERTID*)> id(
      notNull(OCSP_cert_to_id(nullptr, answer.otherCertificate ? root().get() : leaf().get(),
                              root().get())),
      OCSP_CERTID_free);
  const std::unique_ptr<ASN1_TIME, void (*)(ASN1_TIME*)> from(ASN1_TIME_new(), ASN1_TIME_free);
  const std::unique_ptr<ASN1_TIME, void (*)(ASN1_TIME*)> until(ASN1_TIME_new(), ASN1_TIME_free);
  if (ASN1_TIME_set_string(from.get(), kFrom) != 1 ||
      ASN1_TIME_set_string(until.get(), kUntil) != 1) {
    throw std::runtime_error("no time");
  }
  notNull(OCSP_basic_add1_status(basic.get(), id.get(), answer.status, answer.reason, from.get(),
                                 from.get(), until.get()));
  unsigned char nonce[] = "sixteen octets !";
  if (answer.nonce) OCSP_basic_add1_nonce(basic.get(), nonce, 16);
  const std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> sent(
      sk_X509_new_null(), [](STACK_OF(X509) * stack) { sk_X509_free(stack); });
  for (const Issued& issued : answer.sent) sk_X509_push(sent.get(), issued.get());
  if (OCSP_basic_sign(basic.get(), answer.responder.get(), answer.responder.key.get(), nullptr,
                      sent.get(), answer.flags) != 1) {
    throw std::runtime_error("not signed");
  }
  if (answer.badSignature) {
    ASN1_OCTET_STRING* const signature =
        const_cast<ASN1_OCTET_STRING*>(OCSP_resp_get0_signature(basic.get()));
    const_cast<unsigned char*>(ASN1_STRING_get0_data(signature))[5] ^= 1;
  }
  const std::unique_ptr<OCSP_RESPONSE, void (*)(OCSP_RESPONSE*)> response(
      notNull(OCSP_response_create(OCSP_RESPONSE_STATUS_SUCCESSFUL, basic.get())),
      OCSP_RESPONSE_free);
  unsigned char* der = nullptr;
  const int length = i2d_OCSP_RESPONSE(response.get(), &der);
  const Crypto::OwnedMemory<unsigned char> owner(der);
  return {reinterpret_cast<char*>(der), static_cast<std::size_t>(length)};
}

void ocspSeeds() {
  CertificateOptions options = certificateOptions("CN=Responder", 30, 5);
  options.extensions = {{"extendedKeyUsage", "OCSPSigning"}};
  const Issued responder = Test::issue(options);
  CertificateOptions stranger = certificateOptions("CN=Stranger", 31, 6);
  stranger.issuer = nullptr;
  const Issued unknown = Test::issue(stranger);
  const Answer answers[] = {
      {.name = "good", .flags = OCSP_NOCERTS},
      {.name = "good-by-key", .flags = OCSP_NOCERTS | OCSP_RESPID_KEY},
      {.name = "revoked", .status = V_OCSP_CERTSTATUS_REVOKED, .reason = CRL_REASON_KEY_COMPROMISE},
      {.name = "revoked-no-reason", .status = V_OCSP_CERTSTATUS_REVOKED},
      {.name = "unknown", .status = V_OCSP_CERTSTATUS_UNKNOWN},
      {.name = "other", .otherCertificate = true},
      {.name = "delegated", .responder = responder},
      {.name = "delegated-by-key", .responder = responder, .flags = OCSP_RESPID_KEY},
      {.name = "stranger", .responder = unknown},
      {.name = "absent", .responder = unknown, .flags = OCSP_NOCERTS},
      {.name = "several", .responder = responder, .sent = {leaf(), unknown, root()}},
      {.name = "forged", .badSignature = true},
  };
  for (const Answer& answer : answers) seed("ocsp_response", answer.name, ocspResponse(answer));
  seed("ocsp_response", "empty", "");
  seed("ocsp_response", "try-later", "\x30\x03\x0a\x01\x03");
  seed("ocsp_response", "nothing", "\x30\x03\x0a\x01\x00"s);
}

// To be read against a question whose nonce nobody knows.
void revocationSeeds() {
  CertificateOptions options = certificateOptions("CN=Responder", 30, 5);
  options.extensions = {{"extendedKeyUsage", "OCSPSigning"}, {"noCheck", "yes"}};
  const Answer answers[] = {
      {.name = "good", .flags = OCSP_NOCERTS, .nonce = false},
      {.name = "revoked",
       .status = V_OCSP_CERTSTATUS_REVOKED,
       .reason = CRL_REASON_KEY_COMPROMISE,
       .flags = OCSP_NOCERTS | OCSP_RESPID_KEY,
       .nonce = false},
      {.name = "unknown",
       .status = V_OCSP_CERTSTATUS_UNKNOWN,
       .flags = OCSP_NOCERTS,
       .nonce = false},
      {.name = "delegated", .responder = Test::issue(options), .nonce = false},
      {.name = "forged", .flags = OCSP_NOCERTS, .badSignature = true, .nonce = false}};
  for (const Answer& answer : answers) seed("revocation", answer.name, ocspResponse(answer));
  for (const auto& [name, crl] : crls()) seed("revocation", "list-" + name, Test::der(crl.get()));
  CRLOptions named = crlOptions();
  named.idp = Test::IssuingDistributionPoint{.fullNames = {"URI:http://crl.example/"}};
  named.revoked = {{.serial = leaf(), .reason = CRL_REASON_UNSPECIFIED}};
  seed("revocation", "list-named", Test::der(Test::makeCRL(named).get()));
}

void nameSeeds() {
  const std::pair<std::string, std::string> texts[] = {
      {"text", "CN=Person,O=Mail,C=DE"},
      {"text-blanks", " cn = Person Two , OU = a + L=b,c=DE"},
      {"text-escapes", "CN=\\ a\\,b\\+c\\\"d\\<e\\>f\\;g\\\\h\\#i\\20,O=\\C3\\9Cbung"},
      {"text-hex", "CN=#0c03414243,1.2.3.4=#0401ff,OID.2.5.4.3=x"},
      {"text-long-names", "commonName=x,DC=example,UID=1,STREET=s,ST=t,serialNumber=7"},
      {"text-bidi", "CN=a\xe2\x80\xae\xc2\x85 \xf0\x9f\x98\x80"},
      {"text-controls", "CN=a\\0Ab\\00c\\7F"},
      {"text-multi", "CN=a+CN=b+O=c"},
      {"text-empty-value", "CN=,O="},
      {"text-broken", "CN=a,=b"},
  };
  for (const auto& [name, text] : texts) seed("name", name, text);
  for (const char* text : {"C=DE,O=Mail Übung,CN=Person+emailAddress=p@mail.example", "CN=#x",
                           "1.2.3.4=value,serialNumber=07", "CN= a  b "}) {
    static int number = 0;
    seed("name", "der-" + std::to_string(number++), Test::der(Test::makeName(text).get()));
  }
  seed("name", "der-empty", "\x30\0"s);
  seed("name", "der-empty-rdn", "\x30\x02\x31\0"s);
}

void textSeeds() {
  const std::pair<std::string, std::string> uris[] = {
      {"http", "http://crl.example/ca.crl"},
      {"everything", "HTTP://user@CRL.Example:0080/a/./b/../%7ec%2f?q=%3f#f"},
      {"https", "https://[2001:db8::1]:8443"},
      {"ldap", "ldap://ldap.example/cn=CA,dc=example?certificateRevocationList;binary?base"},
      {"opaque", "urn:uuid:0-1"},
      {"mail", "mailto:p@mail.example"},
      {"file", "file:///etc/ca.crl"},
      {"dots", "x:/../..//a/.."},
      {"large-port", "http://h:65536/"},
      {"no-scheme", "//h/p"},
  };
  for (const auto& [name, text] : uris) seed("uri", name, text);

  const std::pair<std::string, std::string> files[] = {
      {"certificate", "\xef\xcd\xab\x01"s + "1abcdef.0"},
      {"crl", "\xef\xcd\xab\x01"s + "1ABCDEF.r0"},
      {"zeros", "\xef\xcd\xab\x01"s + " 0001abcdef.r"},
      {"largest",
       "\xff\xff\xff\xff"
       "ffffffff.0"},
      {"too-large", "\0\0\0\0"s + "100000000.0"},
      {"nothing", "\0\0\0\0"s + ".r0"},
      {"no-number", "\0\0\0\0"s + "S12.r"},
      {"no-dot", "\x12\0\0\0"s + "12r0"},
      {"other-characters", "\x12\0\0\0"s + "12.R0"},
      {"stops", "\x12\0\0\0"s + "12r3 4.r0"},
  };
  for (const auto& [name, text] : files) seed("directory_name", name, text);

  const std::pair<std::string, std::string> headers[] = {
      {"both", "URI: http://crl.example/ca.crl\nExpires: 1700000000\n-----BEGIN X509 CRL-----\n"},
      {"dos", "URI: http://crl.example/ca.crl\r\nExpires: -5\r\n"},
      {"uri", "URI: x:"},
      {"no-number", "URI: x:y\nExpires: 17 days\n"},
      {"large-number", "URI: x:y\nExpires: 9223372036854775807\n"},
      {"too-large-number", "URI: x:y\nExpires: 9223372036854775808\n"},
      {"expires", "Expires: 5\n"},
      {"notes",
       "URI: x:y\nExpires: 5\nETag: W/\"5f3 61a\"\nLast-Modified: Tue, 17 Nov 2026 08:00:00 GMT\n"
       "Fetched: 1700000000\n"},
      {"unfit-notes", "URI: x:y\nExpires: 5\nETag: a\x01\nLast-Modified: \r\nFetched: soon\n"},
      {"begin-in-notes", "URI: x:y\nExpires: 5\nETag: -----BEGIN X509 CRL-----\nFetched: 5\n"},
  };
  for (const auto& [name, text] : headers) seed("crl_file_header", name, text);
}

void httpSeeds() {
  const std::string ok = "HTTP/1.0 200 OK\r\n";
  const std::pair<std::string, std::string> answers[] = {
      {"until-end", ok + "\r\nbody"},
      {"length", "HTTP/1.1 200 OK\r\nContent-Length: 4\r\nConnection: close\r\n\r\nbody"},
      {"chunked",
       "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n"
       "4;x=\"y\"\r\nbody\r\n10\r\n0123456789abcdef\r\n0\r\nTrailer: x\r\n\r\n"},
      {"cut", ok + "Content-Length: 10\r\n\r\nbody"},
      {"promise", ok + "Content-Length: 4294967296\r\n\r\nbody"},
      {"too-large-number", ok + "Content-Length: 99999999999999999999\r\n\r\n"},
      {"two-lengths", ok + "Content-Length: 4\r\nContent-Length: 5\r\n\r\nbody"},
      {"both",
       ok + "Content-Length: 4\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n"},
      {"not-found", "HTTP/1.0 404 Not Found\r\nContent-Length: 3\r\n\r\nno!"},
      {"continue", "HTTP/1.1 100 Continue\r\n\r\n" + ok + "\r\nbody"},
      {"no-body", "HTTP/1.1 204 No Content\r\n\r\n"},
      {"upgrade", "HTTP/1.1 101 Switching\r\nUpgrade: x\r\nConnection: upgrade\r\n\r\n"},
      {"html", "<html>no</html>"},
      {"old", "HTTP/0.9 200 OK\r\n\r\nbody"},
      {"folded", ok + "X: a\r\n b\r\n\r\nbody"},
      {"long-header", ok + "X: " + std::string(17000, 'x') + "\r\n\r\nbody"},
      {"too-large", ok + "\r\n" + std::string(70, 'x')},
      {"too-large-length", ok + "Content-Length: 70\r\n\r\n" + std::string(70, 'x')},
      {"too-large-chunks",
       ok + "Transfer-Encoding: chunked\r\n\r\n46\r\n" + std::string(70, 'x') + "\r\n0\r\n\r\n"},
      {"redirect", "HTTP/1.1 302 Found\r\nLocation: x/\r\n\r\n"},
      {"redirect-tls",
       "HTTP/1.1 308 Permanent Redirect\r\nLocation: https://h.example:444/?x#y\r\nContent-Length: "
       "3\r\n\r\nno!"},
      {"not-modified",
       "HTTP/1.1 304 Not Modified\r\nETag: W/\"x\"\r\nCache-Control: max-age=60\r\n\r\n"},
      {"validators",
       "HTTP/1.1 200 OK\r\nETag: \"x\"\r\nLast-Modified: Sun, 06 Nov 1994 08:49:37 GMT\r\nDate: "
       "Sun, 06 Nov 1994 08:49:37 GMT\r\nExpires: Sun, 06 Nov 1994 09:49:37 GMT\r\n\r\nbody"},
      {"packed", "HTTP/1.1 200 OK\r\nContent-Encoding: gzip\r\nContent-Length: 4\r\n\r\nbody"},
      {"hints", "HTTP/1.1 103 Early Hints\r\nLink: </x>\r\n\r\nHTTP/1.1 407 Who\r\n\r\n"},
      {"empty", ""},
  };
  for (const auto& [name, text] : answers) seed("http_answer", name, '\x08' + text);
}

// What a directory sends, behind the choices of how it is asked.
void ldapAnswerSeeds() {
  using Test::done;
  using Test::element;
  using Test::entry;
  using Test::message;
  using Test::text;
  const auto add = [](const std::string& name, const std::string& answer,
                      const std::string& choices = "\0\0"s) {
    seed("ldap_answer", name, text(choices) + answer);
  };
  const std::string end = message(1, done(0));
  const std::string one = message(1, entry("cn=A", {{"cACertificate;binary", {"1", "\0\1"s}}}));
  const std::string values =
      message(1, entry("cn=A,o=Test", {{"userCertificate;binary", {Test::der(leaf().get())}},
                                       {"cACertificate;binary", {Test::der(root().get()), ""}},
                                       {"certificateRevocationList;binary", {}}}));
  const std::string notice =
      element(0x0a, "\x34") + text("") + text("bye") + element(0x8a, "1.3.6.1.4.1.1466.20036");
  add("nothing", "");
  add("empty", end);
  add("entries", values + one + message(1, entry("", {})) + end);
  add("no-end", values);
  add("cut", values.substr(0, values.size() - 3));
  for (const int code : {1, 3, 4, 10, 11, 32, 34, 49, 80}) {
    add("code-" + std::to_string(code), one + message(1, done(code, "why\nnot")));
  }
  add("referral", message(1, element(0x65, element(0x0a, "\x0a") + text("") + text("") +
                                               element(0xa3, text("ldap://other/o=x")))));
  add("reference", message(1, Test::reference("ldap://other/o=x")) + one + end);
  add("intermediate", message(1, element(0x79, element(0x80, "1.2.3"))) + one + end);
  add("controls",
      element(0x30, element(0x02, "\1") + done(0) +
                        element(0xa0, element(0x30, text("1.2.840.113556.1.4.319") + text("x")))));
  add("notice", message(0, element(0x78, notice)));
  add("notice-without-name",
      message(0, element(0x78, element(0x0a, "\x34") + text("") + text("") + element(0x8a, ""))));
  add("unsolicited", message(0, entry("cn=A", {})) + end);
  add("other-number", message(2, done(0)));
  add("promise", one + "\x30\x84\x7f\xff\xff\xff"s);
  add("other-operation", one + message(1, done(0, "", 0x61)));
  add("long-number", element(0x30, element(0x02, "\0\0\0\1"s) + done(0)));
  add("longer-number", element(0x30, element(0x02, "\0\0\0\0\1"s) + done(0)));
  add("short-entry", message(1, element(0x64, text("cn=A"))) + end);
  add("value-without-set",
      message(1,
              element(0x64, text("cn=A") + element(0x30, element(0x30, text("a") + text("v"))))) +
          end);
  add("searches", one + end + message(2, entry("cn=B", {{"b", {"2"}}})) + message(2, done(0)) +
                      message(3, done(3)) + message(4, done(0)));
  const auto addMany = [&](const std::string& name, const std::string& answer) {
    unsigned int sum = 0;
    for (const char c : answer) sum += static_cast<unsigned char>(c);
    add(name, answer, "\0\x0a"s + static_cast<char>(sum & 0xff));  // 1,024 times the first message
  };
  addMany("many-entries", one + end);
  addMany("many-values", message(1, entry("", {{"a", std::vector<std::string>(160)}})) + one + end);
  add("http", "HTTP/1.1 400 Bad Request\r\n\r\n");
  const std::string bound = message(1, done(0, "", 0x61));
  const std::string search = message(2, entry("cn=B", {{"b", {"2"}}})) + message(2, done(0));
  add("bind", bound + search, "\1\0"s);
  add("bind-refused", message(1, done(49, "no", 0x61)), "\1\0"s);
  add("bind-credentials",
      message(1, element(0x61, element(0x0a, "\0"s) + text("") + text("") + element(0x87, "x"))) +
          search,
      "\1\0"s);
  const std::string tls = element(0x0a, "\0"s) + text("") + text("");
  add("start-tls", message(1, element(0x78, tls)), "\3\0"s);
  add("start-tls-named", message(1, element(0x78, tls + element(0x8a, "1.3.6.1.4.1.1466.20037"))),
      "\3\0"s);
  add("start-tls-alert", message(1, element(0x78, tls)) + "\x15\x03\x03\0\2\2\x28"s, "\3\0"s);
  add("start-tls-refused", message(1, done(2, "no", 0x78)), "\3\0"s);
}

void ldapValueSeeds() {
  const auto add = [](const std::string& name, unsigned char query, unsigned char spread,
                      const std::vector<std::string>& values) {
    std::string input = Test::text({static_cast<char>(query), static_cast<char>(spread)});
    for (const std::string& value : values) input += Test::text(value);
    seed("ldap_values", name, input);
  };
  std::vector<std::string> certificateValues;
  std::vector<std::string> crlValues;
  for (const auto& [name, issued] : certificates()) {
    certificateValues.push_back(Test::der(issued.get()));
    if (name == "full" || name == "broken") {
      add("certificate-" + name, 0, 0, {certificateValues.back()});
    }
  }
  for (const auto& [name, crl] : crls()) {
    crlValues.push_back(Test::der(crl.get()));
    if (name == "listed" || name == "delta") add("crl-" + name, 1, 0, {crlValues.back()});
  }
  const std::string leafDer = Test::der(leaf().get());
  const std::string pair = pairOf(leaf(), root());
  add("certificates", 0, 0, certificateValues);
  add("certificates-entries", 0, 3, certificateValues);
  add("certificates-list", 3, 1, certificateValues);
  add("certificates-mail", 5, 12, {leafDer});
  add("certificate-bound", 0, 28, {leafDer, leafDer});
  add("certificate-pem", 3, 0, {Test::pem(leaf().get()) + Test::pem(root().get())});
  add("certificate-broken", 0, 0, {leafDer, "broken"});
  add("certificate-cut", 3, 0, {leafDer.substr(0, 100)});
  add("crls", 1, 0, crlValues);
  add("crls-list", 4, 7, crlValues);
  add("crls-others", 4, 0, {leafDer, crlValues.front(), "", pair});
  add("crls-none", 1, 0, {leafDer, ""});
  add("crls-broken", 1, 0, {crlValues.front(), "broken"});
  add("pair", 2, 0, {pair, pairOf(root(), root())});
  add("pair-both", 2, 0, {pairOf(root(), leaf())});
  add("pair-forward", 2, 2, {Test::element(0x30, Test::element(0xa0, leafDer))});
  add("pair-empty", 2, 0, {"\x30\0"s});
  add("pair-malformed", 2, 0, {Test::element(0x30, Test::element(0xa0, "\x30\3\2\1\1"))});
  add("pair-broken", 2, 0, {pair, leafDer});
  add("nothing", 0, 0, {});
}

// Choices, which chance makes as well as anybody; always the same ones.
void containerSeeds() {
  std::minstd_rand random(1);
  for (std::size_t size = 8; size <= 160; size += 8) {
    std::string choices;
    while (choices.size() < size) choices += static_cast<char>(random() >> 8 & 0xff);
    seed("crl_container", "choices-" + std::to_string(size), choices);
  }
}

// What chain.cc draws, in its order.
void chainSeeds() {
  const auto chain = [](const char* name, const std::vector<std::vector<int>>& parts) {
    std::string octets;
    for (const std::vector<int>& part : parts) {
      for (const int octet : part) octets += static_cast<char>(octet);
    }
    seed("chain", name, octets);
  };
  // Intermediates, forgery, where, whether its anchor comes along, flags, whose revocation check.
  const std::vector<int> genuine{0, 0, 0, 0, 0, 0};
  const std::vector<int> genuineThree{3, 0, 0, 0, 0, 0};
  // Key identifier, distribution points, responders.
  const std::vector<int> plain{0, 0, 0};
  // There, signature, expired, critical, delta, scope, names (long or
  // few), strangers (the same), revoked, place, slot, copies
  const std::vector<int> good{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  const std::vector<int> fromMemory{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0};
  const std::vector<int> revokes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0};
  const std::vector<int> revokesAll{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9, 0, 0, 0};
  const std::vector<int> none{7};

  chain("good", {genuine, plain, good});
  chain("good-openssl", {{0, 0, 0, 0, 0, 7}, plain, good});
  chain("good-three-intermediates",
        {genuineThree, plain, plain, plain, plain, good, fromMemory, good, fromMemory});
  chain("no-crl", {genuine, plain, none});
  chain("revoked", {genuine, plain, revokes});
  chain("revoked-ca", {{1, 0, 0, 0, 0, 0}, plain, plain, good, revokesAll});
  chain("crl-forged", {genuine, plain, {0, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}});
  chain("crl-expired", {genuine, plain, {0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}});
  chain("crl-critical", {genuine, plain, {0, 0, 0, 15, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}});
  chain("crl-out-of-scope", {genuine, plain, {0, 0, 0, 0, 0, 7, 0, 0, 0, 0, 0, 0, 0, 0}});
  chain("crl-long", {genuine, plain, {0, 0, 0, 0, 0, 0, 15, 15, 0, 0, 0, 11}});
  chain("delta-revokes", {genuine, plain, good, {4, 0, 0, 0, 0, 0, 7, 0, 0, 0, 0, 0, 5, 0, 0, 0}});
  // A point with a URI, whose CRL is on the web server, and in the cache.
  const std::vector<int> pointed{0, 2, 0, 0, 0};
  chain("good-web", {genuine, pointed, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0}});
  chain("good-cache", {genuine, pointed, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0}});
  chain("revoked-web", {genuine, pointed, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5, 3, 0, 0}});
  chain("missing-web", {genuine, pointed, none});
  // A hundred points of each kind in turn, and 40 responders.
  const std::vector<int> many{0, 6, 0, 0, 1, 1, 2, 0, 3, 1, 0, 4, 0, 5, 6, 1, 0, 7, 0, 5};
  chain("many-points", {genuine, many, good});
  chain("responders", {genuine, {0, 0, 5}, good});
  for (const auto& [name, forgery] :
       {std::pair{"signature", 1}, std::pair{"signer", 2}, std::pair{"anchor", 3}}) {
    const std::string prefix = std::string("forged-") + name;
    chain(prefix.c_str(), {{0, forgery, 0, 0, 0, 0}, plain, good});
    chain((prefix + "-many-points").c_str(), {{0, forgery, 0, 1, 0, 0}, many, good});
    chain((prefix + "-above").c_str(),
          {{2, forgery, 1, 1, 0, 0}, pointed, pointed, plain, good, good, good});
  }
  chain("forged-no-key-identifier", {{0, 3, 0, 1, 5, 0}, {7, 2, 0, 0, 1}, revokes});
  chain("forged-long-crls", {{0, 1, 0, 0, 0, 0}, plain, {0, 0, 0, 0, 0, 0, 15, 15, 0, 0, 0, 11}});
  // One that lies in the cache, by a hundred points that name it alone, or among 59 others.
  const std::vector<int> cachedLong{0, 0, 0, 0, 0, 0, 15, 15, 0, 2, 0, 0};
  chain(
      "forged-long-crl-many-points",
      {{0, 1, 0, 0, 0, 0}, {0, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, cachedLong});
  chain("forged-long-crl-many-names",
        {{0, 1, 0, 0, 0, 0}, {0, 6, 5, 5, 5, 5, 5, 5, 5, 5, 0}, cachedLong});
}

void makeAll() {
  std::string chain;
  for (const auto& [name, issued] : certificates()) {
    seed("certificate", name, Test::der(issued.get()));
    chain += Test::pem(issued.get());
  }
  seed("certificate", "leaf.pem", Test::pem(leaf().get()));
  seed("certificate", "chain.pem", Test::pem(leaf().get()) + Test::pem(root().get()));
  seed("certificate", "key-and-certificate.pem",
       Test::pem(leaf().key.get()) + Test::pem(leaf().get()));
  seed("certificate", "two", Test::der(leaf().get()) + Test::der(root().get()));
  for (const auto& [name, crl] : crls()) {
    seed("crl", name, Test::der(crl.get()));
    seed("crl_compact", name, Test::der(crl.get()));
    if (name != "listed") continue;
    seed("crl", "listed.pem", Test::pem(crl.get()));
    seed("crl", "cached.pem",
         "URI: http://crl.example/ca.crl\nExpires: 4102444799\n" + Test::pem(crl.get()));
    seed("crl", "certificate-first.pem", Test::pem(root().get()) + Test::pem(crl.get()));
  }
  containerSeeds();
  chainSeeds();
  extensionSeeds();
  ocspSeeds();
  revocationSeeds();
  nameSeeds();
  textSeeds();
  httpSeeds();
  ldapAnswerSeeds();
  ldapValueSeeds();
}

}  // namespace
}  // namespace Velantrix::Fuzz

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
    return 2;
  }
  Velantrix::Fuzz::s_directory = argv[1];
  Velantrix::Fuzz::makeAll();
  return 0;
}
