// A PKI on paper: what the generator invents, the reference model judges and the realisation makes
// of OpenSSL's objects. Plain values; nothing here comes from a parser.
//
//   const Description pki = generate(seed);
//   const Outcome expected = Model(pki).verify(pki.queries.front());
//   std::cout << pki;
//
// Certificates and CRLs are named by their index. Times are whole days from the start of the run.
#pragma once

#include "support/Pki.h"

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Test::Random {

/// RDNs in the order of their encoding, the least specific first: {"O=Test", "CN=Root"}.
using Name = std::vector<std::string>;

/// The same name for RFC 5280, section 7.1: without regard to case and runs of blanks.
bool sameName(const Name& a, const Name& b);
bool sameRdn(const std::string& a, const std::string& b);
/// As `makeName` wants it.
std::string encodingOrder(const Name& name);
/// As RFC 4514 and the library's log lines have it, the most specific RDN first.
std::string nameText(const Name& name);

/// A directory name, or something else ("DNS:host") that leads to no CRL.
struct General {
  Name directory = {};
  std::string other = {};
};

/// Full names, or one RDN, or neither.
struct PointName {
  std::vector<General> full = {};
  std::string relative = {};
  bool absent() const { return full.empty() && relative.empty(); }
};

struct PointDescription {
  PointName name = {};
  std::optional<unsigned> reasons = {};
  std::vector<General> crlIssuers = {};
};

struct CertificateDescription {
  std::string label;
  Name subject = {};
  int issuer = -1;  ///< an earlier certificate; -1: itself
  int serial = 0;
  int key = 0;
  int signer = 0;  ///< the key that signs, which need not be the issuer's
  bool brokenSignature = false;
  bool ca = false;
  int keyUsage = kAbsent;  ///< KU_* bits or kAbsent
  KeyId subjectKeyId = KeyId::Right;
  KeyId authorityKeyId = KeyId::Right;
  int from = -1000;
  int until = 1000;
  std::vector<PointDescription> points = {};
  bool freshestCRL = false;  ///< the extension is there; nothing follows it
  bool unknownCritical = false;
};

struct EntryDescription {
  int serial = 0;
  int reason = kAbsent;
  Name certificateIssuer = {};  ///< empty: no such extension
  bool unknownCritical = false;
};

struct ScopeDescription {
  PointName name = {};
  bool onlyUser = false;
  bool onlyCA = false;
  bool onlyAttributes = false;
  bool indirect = false;
  std::optional<unsigned> reasons = {};
};

struct CRLDescription {
  std::string label;
  int issuer = 0;  ///< the certificate that gives name and key identifier
  int signer = 0;
  bool brokenSignature = false;
  KeyId authorityKeyId = KeyId::Right;
  std::optional<int> number = 1;
  std::optional<int> base = {};  ///< makes it a delta CRL
  int from = -10;
  std::optional<int> until = 30;
  std::vector<EntryDescription> entries = {};
  std::optional<ScopeDescription> scope = {};
  bool freshestCRL = false;
  bool unknownCritical = false;
};

/// A CRL that a source gives when it is asked for a name.
struct Filed {
  Name name;
  int crl;
};

/// A lookup method.
struct SourceDescription {
  std::vector<int> certificates = {};
  std::vector<Filed> crls = {};
};

struct Query {
  int target = 0;
  int flags = 0x30AC;
  std::optional<int> day = {};  ///< the check time is the middle of that day; empty: now
};

struct Description {
  std::vector<CertificateDescription> certificates = {};
  std::vector<CRLDescription> crls = {};
  std::vector<int> untrusted = {};     ///< the stack that comes with the target
  std::vector<int> objects = {};       ///< in the store's own list
  std::vector<int> directory = {};     ///< in the store's directory; one per name
  std::vector<int> crlDirectory = {};  ///< in the machine's CRL directory
  std::vector<SourceDescription> sources = {};
  std::vector<Query> queries = {};      ///< one after the other on the same store
  std::vector<std::string> notes = {};  ///< what the generator did to it
};

std::ostream& operator<<(std::ostream& out, const Description& pki);

}  // namespace Velantrix::Test::Random
