#include "model/Description.h"

#include <algorithm>
#include <cctype>
#include <ios>
#include <ostream>

namespace Velantrix::Test::Random {

namespace {

std::string folded(const std::string& rdn) {
  std::string result;
  for (const char c : rdn) {
    if (c == ' ' && !result.empty() && result.back() == ' ') continue;
    result += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  return result;
}

template <class Parts>
std::string joined(Parts begin, Parts end) {
  std::string result;
  for (Parts at = begin; at != end; ++at) result += (result.empty() ? "" : ",") + *at;
  return result;
}

const char* word(KeyId which) {
  switch (which) {
    case KeyId::Right:
      return "right";
    case KeyId::Absent:
      return "absent";
    case KeyId::Wrong:
      return "WRONG";
    case KeyId::SerialOnly:
      return "serial";
  }
  return "?";
}

std::string text(const General& name) {
  return name.other.empty() ? "dir(" + nameText(name.directory) + ")" : name.other;
}

std::string text(const std::vector<General>& names) {
  std::string result;
  for (const General& name : names) result += " " + text(name);
  return result;
}

std::string text(const PointName& name) {
  if (name.absent()) return " no name";
  return name.full.empty() ? " relative(" + name.relative + ")" : " full" + text(name.full);
}

std::ostream& hex(std::ostream& out, int number) {
  return out << std::hex << std::uppercase << number << std::dec;
}

void print(std::ostream& out, std::size_t index, const CertificateDescription& cert) {
  out << "  cert " << index << " " << cert.label << ": " << nameText(cert.subject);
  if (cert.issuer < 0) {
    out << ", issuer itself";
  } else {
    out << ", issuer cert " << cert.issuer;
  }
  hex(out << ", serial ", cert.serial);
  out << ", key " << cert.key << " signed by " << cert.signer;
  if (cert.brokenSignature) out << " BROKEN";
  out << (cert.ca ? ", CA" : ", user");
  if (cert.keyUsage == kAbsent) {
    out << ", no KU";
  } else {
    hex(out << ", KU ", cert.keyUsage);
  }
  out << ", SKI " << word(cert.subjectKeyId) << ", AKI " << word(cert.authorityKeyId) << ", days "
      << cert.from << " to " << cert.until;
  if (cert.freshestCRL) out << ", freshest CRL";
  if (cert.unknownCritical) out << ", UNKNOWN CRITICAL";
  out << '\n';
  for (const PointDescription& point : cert.points) {
    out << "      point" << text(point.name);
    if (point.reasons) hex(out << ", reasons ", static_cast<int>(*point.reasons));
    if (!point.crlIssuers.empty()) out << ", CRL issuers" << text(point.crlIssuers);
    out << '\n';
  }
}

void print(std::ostream& out, std::size_t index, const CRLDescription& crl) {
  out << "  crl " << index << " " << crl.label << ": issuer cert " << crl.issuer
      << ", signed by key " << crl.signer;
  if (crl.brokenSignature) out << " BROKEN";
  out << ", AKI " << word(crl.authorityKeyId);
  if (crl.number) {
    out << ", number " << *crl.number;
  } else {
    out << ", no number";
  }
  if (crl.base) out << ", DELTA on " << *crl.base;
  out << ", days " << crl.from << " to ";
  if (crl.until) {
    out << *crl.until;
  } else {
    out << "-";
  }
  if (crl.freshestCRL) out << ", freshest CRL";
  if (crl.unknownCritical) out << ", UNKNOWN CRITICAL";
  out << '\n';
  if (crl.scope) {
    out << "      scope" << text(crl.scope->name) << (crl.scope->onlyUser ? " onlyUser" : "")
        << (crl.scope->onlyCA ? " onlyCA" : "") << (crl.scope->onlyAttributes ? " onlyAttr" : "")
        << (crl.scope->indirect ? " indirect" : "");
    if (crl.scope->reasons) hex(out << " reasons ", static_cast<int>(*crl.scope->reasons));
    out << '\n';
  }
  for (const EntryDescription& entry : crl.entries) {
    hex(out << "      entry ", entry.serial);
    if (entry.reason != kAbsent) out << " reason " << entry.reason;
    if (!entry.certificateIssuer.empty()) out << " of " << nameText(entry.certificateIssuer);
    if (entry.unknownCritical) out << " UNKNOWN CRITICAL";
    out << '\n';
  }
}

void print(std::ostream& out, const char* what, const std::vector<int>& indexes) {
  out << "  " << what << ":";
  for (const int index : indexes) out << ' ' << index;
  out << '\n';
}

}  // namespace

bool sameRdn(const std::string& a, const std::string& b) { return folded(a) == folded(b); }

bool sameName(const Name& a, const Name& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), sameRdn);
}

std::string encodingOrder(const Name& name) { return joined(name.begin(), name.end()); }

std::string nameText(const Name& name) { return joined(name.rbegin(), name.rend()); }

std::ostream& operator<<(std::ostream& out, const Description& pki) {
  for (std::size_t i = 0; i < pki.certificates.size(); ++i) print(out, i, pki.certificates[i]);
  for (std::size_t i = 0; i < pki.crls.size(); ++i) print(out, i, pki.crls[i]);
  print(out, "untrusted", pki.untrusted);
  print(out, "object list", pki.objects);
  print(out, "directory", pki.directory);
  print(out, "CRL directory", pki.crlDirectory);
  for (const SourceDescription& source : pki.sources) {
    print(out, "source: certificates", source.certificates);
    for (const Filed& filed : source.crls) {
      out << "      crl " << filed.crl << " under " << nameText(filed.name) << '\n';
    }
  }
  for (const Query& query : pki.queries) {
    hex(out << "  query: cert " << query.target << ", flags ", query.flags);
    if (query.day) out << ", on day " << *query.day;
    out << '\n';
  }
  for (const std::string& note : pki.notes) out << "  note: " << note << '\n';
  return out;
}

}  // namespace Velantrix::Test::Random
