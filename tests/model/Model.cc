#include "model/Model.h"

#include <openssl/x509_vfy.h>

#include <algorithm>
#include <map>
#include <sstream>

namespace Velantrix::Test::Random {

namespace {

constexpr unsigned kAllReasons = 0x807f;
constexpr int kWrongKeyId = -1;
constexpr std::size_t kLongestChain =
    101;  // OpenSSL counts the certificates after the first up to its depth, 100

bool contains(const std::vector<int>& list, int value) {
  return std::find(list.begin(), list.end(), value) != list.end();
}

/// A relative name is completed with the name of an issuer, which goes first in the encoding.
Name completed(const std::string& relative, const Name& issuer) {
  Name name = issuer;
  name.push_back(relative);
  return name;
}

bool sameGeneral(const General& a, const General& b) {
  if (a.other.empty() != b.other.empty()) return false;
  return a.other.empty() ? sameName(a.directory, b.directory) : a.other == b.other;
}

bool holds(const std::vector<General>& full, const Name& name) {
  return std::any_of(full.begin(), full.end(), [&](const General& general) {
    return general.other.empty() && sameName(general.directory, name);
  });
}

/// A point's name against a directory name: a relative one equals none.
bool equalsName(const PointName& point, const Name& name) { return holds(point.full, name); }

bool sharesOne(const std::vector<General>& a, const std::vector<General>& b) {
  return std::any_of(a.begin(), a.end(), [&](const General& one) {
    return std::any_of(b.begin(), b.end(),
                       [&](const General& other) { return sameGeneral(one, other); });
  });
}

}  // namespace

Model::Model(const Description& pki) : pki_(pki) { store_.objects = pki.objects; }

const CertificateDescription& Model::cert(int index) const {
  return pki_.certificates.at(static_cast<std::size_t>(index));
}

const CRLDescription& Model::crl(int index) const {
  return pki_.crls.at(static_cast<std::size_t>(index));
}

void Model::say(int priority, const std::string& line) {
  log_.push_back(std::to_string(priority) + " " + line);
  note("log: " + log_.back());
}

void Model::rule(const std::string& name) {
  rules_.insert(name);
  note(name);
}

std::string Model::failureLine(int certificate, int code) const {
  std::ostringstream serial;
  serial << std::hex << std::uppercase << cert(certificate).serial;
  return "Certificate, ( " + nameText(subject(certificate)) + " / " +
         nameText(issuerName(certificate)) + " serialNumber: " + serial.str() + ") is not valid, " +
         X509_verify_cert_error_string(code);
}

// --- what a certificate says ---

const Name& Model::issuerName(int certificate) const {
  const int issuer = cert(certificate).issuer;
  return subject(issuer < 0 ? certificate : issuer);
}

std::optional<int> Model::subjectKeyId(int certificate) const {
  const CertificateDescription& described = cert(certificate);
  if (described.subjectKeyId == KeyId::Absent) return {};
  return described.subjectKeyId == KeyId::Right ? described.key : kWrongKeyId;
}

/// As the builder of certificates and CRLs makes it; a self-signed certificate usually has none.
Model::Authority Model::authority(KeyId which, int issuer) const {
  Authority result;
  if (which == KeyId::Wrong) {
    result.present = true;
    result.keyId = kWrongKeyId;
  } else if (which == KeyId::Right && issuer >= 0 && subjectKeyId(issuer)) {
    result.present = true;
    result.keyId = subjectKeyId(issuer);
  } else if (which == KeyId::SerialOnly && issuer >= 0) {
    result.present = true;
    result.serial = cert(issuer).serial;
    result.issuer = issuerName(issuer);
  }
  return result;
}

Model::Authority Model::authority(int certificate) const {
  return authority(cert(certificate).authorityKeyId, cert(certificate).issuer);
}

/// X509_check_akid: what is absent on either side does not count.
bool Model::matches(int candidate, const Authority& authority) const {
  const std::optional<int> own = subjectKeyId(candidate);
  if (authority.keyId && own && *authority.keyId != *own) return false;
  if (authority.serial && *authority.serial != cert(candidate).serial) return false;
  return !authority.issuer || sameName(*authority.issuer, issuerName(candidate));
}

bool Model::likelyIssued(int issuer, int certificate) const {
  return sameName(issuerName(certificate), subject(issuer)) &&
         matches(issuer, authority(certificate));
}

/// No key usage extension means no restriction (RFC 5280, 4.2.1.3).
bool Model::allows(int certificate, int usage) const {
  const int bits = cert(certificate).keyUsage;
  return bits == kAbsent || (bits & usage) != 0;
}

bool Model::isSelfSigned(int certificate) const { return likelyIssued(certificate, certificate); }

bool Model::inTime(int certificate, int moment) const {
  return 2 * cert(certificate).from <= moment && moment <= 2 * cert(certificate).until;
}

// --- OpenSSL's part ---

Outcome Model::verify(const Query& query) {
  log_.clear();
  Run run;
  run.targets.push_back(query.target);
  store_.flags |= query.flags;
  Context context{store_, run, query.target, pki_.untrusted, query.day ? 2 * *query.day + 1 : 0};
  Outcome outcome;
  outcome.code = this->run(context);
  outcome.depth = context.depth;
  outcome.log = log_;
  return outcome;
}

int Model::run(Context& context) {
  context.flags = context.store.flags;
  const bool valid = buildChain(context) && checkExtensions(context) && checkRevocation(context) &&
                     checkSignaturesAndTimes(context);
  if (!valid) return context.error;
  return context.run.saidTooMany ? leaveUnsettled(context) : X509_V_OK;
}

/// Behind the last look-up may have been the revocation.
int Model::leaveUnsettled(Context& context) {
  rule("ran out");
  say(7, failureLine(context.target, X509_V_ERR_UNABLE_TO_GET_CRL) +
             ": something that all of the verification shares ran out before its revocation was "
             "settled");
  return X509_V_ERR_UNABLE_TO_GET_CRL;
}

/// A failure that OpenSSL meets: one line that names the target, whichever certificate failed.
bool Model::fail(Context& context, int code, int depth) {
  context.error = code;
  context.depth = depth;
  say(7, failureLine(context.target, code));
  rule("OpenSSL " + std::to_string(code));
  return false;
}

/// The store's directory is asked first. Only what came from it stays in OpenSSL's cache, where an
/// issuer out of its time is still found when there is no better one.
int Model::trustedIssuer(const Context& context, int certificate) const {
  for (const int candidate : pki_.directory) {
    if (sameName(subject(candidate), issuerName(certificate))) {
      return likelyIssued(candidate, certificate) ? candidate : kNothing;
    }
  }
  for (const SourceDescription& source : pki_.sources) {
    for (const int candidate : source.certificates) {
      if (!sameName(subject(candidate), issuerName(certificate))) continue;
      const bool good = likelyIssued(candidate, certificate) && inTime(candidate, context.moment);
      return good ? candidate : kNothing;
    }
  }
  return kNothing;
}

int Model::untrustedIssuer(const Context& context, const std::vector<int>& left,
                           int certificate) const {
  const bool selfIssuedStart =
      sameName(subject(certificate), issuerName(certificate)) && context.chain.size() == 1;
  int latest = kNothing;
  for (const int candidate : left) {
    if (!likelyIssued(candidate, certificate)) continue;
    if (!selfIssuedStart && contains(context.chain, candidate)) continue;
    if (inTime(candidate, context.moment)) return candidate;
    if (latest == kNothing || cert(candidate).until > cert(latest).until) latest = candidate;
  }
  return latest;
}

/// Trusted certificates first, then one of the peer's, and so on. Once a certificate came from the
/// store, the rest has to come from there too; a self-signed one from there ends the path.
bool Model::buildChain(Context& context) {
  std::vector<int>& chain = context.chain;
  chain = {context.target};
  context.fromPeer = 1;
  std::vector<int> left = context.untrusted;
  bool peer = true;
  while (true) {
    const int last = chain.back();
    if (chain.size() > kLongestChain) {
      // CAs that certify each other go round in a circle.
      return fail(context, X509_V_ERR_CERT_CHAIN_TOO_LONG, static_cast<int>(chain.size()) - 1);
    }
    int trusted = trustedIssuer(context, last);
    if (trusted != kNothing && isSelfSigned(last)) {
      // Only the very certificate that is trusted, not another one with its name.
      if (trusted == last) {
        --context.fromPeer;
        break;
      }
      trusted = kNothing;
    }
    if (trusted != kNothing) {
      chain.push_back(trusted);
      peer = false;
      if (isSelfSigned(trusted)) break;
      continue;
    }
    const int next = peer && !isSelfSigned(last) ? untrustedIssuer(context, left, last) : kNothing;
    if (next == kNothing) {
      const int depth = static_cast<int>(chain.size()) - 1;
      if (isSelfSigned(last)) {
        return fail(context,
                    depth == 0 ? X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT
                               : X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN,
                    depth);
      }
      return fail(context,
                  context.fromPeer < chain.size() ? X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT
                                                  : X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY,
                  depth);
    }
    left.erase(std::find(left.begin(), left.end(), next));
    chain.push_back(next);
    ++context.fromPeer;
  }
  std::string path = "chain of";
  for (const int index : chain) path += " " + std::to_string(index);
  note(path);
  return true;
}

bool Model::checkExtensions(Context& context) {
  const bool strict = (context.flags & X509_V_FLAG_X509_STRICT) != 0 && context.chain.size() > 1;
  for (std::size_t i = 0; i < context.chain.size(); ++i) {
    const CertificateDescription& described = cert(context.chain[i]);
    const int depth = static_cast<int>(i);
    if (described.unknownCritical) {
      return fail(context, X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION, depth);
    }
    if (i > 0 && !(described.ca && allows(context.chain[i], KU_KEY_CERT_SIGN))) {
      return fail(context, X509_V_ERR_INVALID_CA, depth);
    }
    if (!strict) continue;
    if (described.ca && described.keyUsage == kAbsent) {
      return fail(context, X509_V_ERR_CA_CERT_MISSING_KEY_USAGE, depth);
    }
    if (!described.ca && described.keyUsage != kAbsent &&
        (described.keyUsage & KU_KEY_CERT_SIGN) != 0) {
      return fail(context, X509_V_ERR_KU_KEY_CERT_SIGN_INVALID_FOR_NON_CA, depth);
    }
    if (i + 1 < context.chain.size() && !authority(context.chain[i]).keyId) {
      return fail(context, X509_V_ERR_MISSING_AUTHORITY_KEY_IDENTIFIER, depth);
    }
    if (described.ca && !subjectKeyId(context.chain[i])) {
      return fail(context, X509_V_ERR_MISSING_SUBJECT_KEY_IDENTIFIER, depth);
    }
  }
  return true;
}

bool Model::checkSignaturesAndTimes(Context& context) {
  for (std::size_t i = context.chain.size(); i-- > 0;) {
    const int at = context.chain[i];
    const int depth = static_cast<int>(i);
    if (i + 1 < context.chain.size() &&
        (cert(at).brokenSignature || cert(at).signer != cert(context.chain[i + 1]).key)) {
      return fail(context, X509_V_ERR_CERT_SIGNATURE_FAILURE, depth);
    }
    if (2 * cert(at).from > context.moment) {
      return fail(context, X509_V_ERR_CERT_NOT_YET_VALID, depth);
    }
    if (2 * cert(at).until < context.moment) {
      return fail(context, X509_V_ERR_CERT_HAS_EXPIRED, depth);
    }
  }
  return true;
}

// --- which certificates are checked ---

bool Model::checkRevocation(Context& context) {
  if ((context.flags & X509_V_FLAG_CRL_CHECK) == 0) return true;
  std::vector<int> chain = context.chain;
  if ((context.flags & X509_V_FLAG_CRL_CHECK_ALL) == 0) chain.resize(1);
  return checkRevocationStatus(context, chain);
}

bool Model::checkRevocationStatus(Context& context, const std::vector<int>& chain) {
  for (std::size_t i = 0; i < chain.size(); ++i) {
    const int certificate = chain[i];
    if (isSelfSigned(certificate) && i + 1 == chain.size()) continue;
    note("revocation of cert " + std::to_string(certificate));
    Container container;
    getCRLs(context, certificate, container);
    extendedChecks(context, container, chain);
    if (context.error == X509_V_OK) context.error = isRevoked(container);
    if (context.error == X509_V_OK) continue;
    say(7, failureLine(certificate, context.error));
    rule("revocation " + std::to_string(context.error));
    context.depth = static_cast<int>(i);
    return false;
  }
  return true;
}

// --- which CRLs there are ---

/// One run asks 256 times: a name of a source, or of the CRL directory.
bool Model::mayLookUp(Run& run) {
  if (!run.bounded || ++run.lookUps <= 256) return true;
  if (!run.saidTooMany) {
    rule("too many look-ups");
    say(7, "Verifier: too many CRL look-ups, the rest of this verification finds no more CRLs");
  }
  run.saidTooMany = true;
  return false;
}

/// CRLs that have run out by the clock are passed over, whatever the time of the verification.
std::vector<int> Model::fromCRLDirectory(Run& run, const Name& issuer) {
  std::vector<int> found;
  if (!mayLookUp(run)) return found;
  for (const int index : pki_.crlDirectory) {
    if (!sameName(crlIssuerName(index), issuer)) continue;
    if (crl(index).until && *crl(index).until < 0) {
      rule("directory drops an old CRL");
      continue;
    }
    found.push_back(index);
  }
  return found;
}

void Model::find(Run& run, const Name& issuer, std::vector<int>& out) {
  for (const SourceDescription& source : pki_.sources) {
    if (!mayLookUp(run)) continue;
    for (const Filed& filed : source.crls) {
      if (sameName(filed.name, issuer)) out.push_back(filed.crl);
    }
  }
}

void Model::find(Run& run, const General& name, std::vector<int>& out) {
  if (name.other.empty()) find(run, name.directory, out);
}

std::vector<int> Model::find(Run& run, int certificate, const PointDescription& point) {
  std::vector<int> found;
  if (point.name.absent()) {
    for (const General& name : point.crlIssuers) find(run, name, found);
  } else if (!point.name.full.empty()) {
    for (const General& name : point.name.full) find(run, name, found);
  } else if (point.crlIssuers.empty()) {
    find(run, completed(point.name.relative, issuerName(certificate)), found);
  } else {
    for (const General& name : point.crlIssuers) {
      if (!name.other.empty()) continue;
      find(run, completed(point.name.relative, name.directory), found);
    }
  }
  return found;
}

/// Names, key identifiers and the right to sign CRLs; never the signature.
bool Model::passes(int index, int candidate, unsigned& score) const {
  if (!sameName(crlIssuerName(index), subject(candidate))) return false;
  score = 32;
  const Authority wanted = authority(crl(index).authorityKeyId, crl(index).issuer);
  // Here absent equals only absent.
  if (wanted.present && wanted.keyId != subjectKeyId(candidate)) return false;
  score |= 4;
  return allows(candidate, KU_CRL_SIGN);
}

/// The store's objects, then its directory, then its sources; what is found there becomes an
/// object.
int Model::findIssuer(Store& store, int index, unsigned& score) {
  for (const int candidate : store.objects) {
    if (passes(index, candidate, score)) return candidate;
  }
  std::vector<int> others = pki_.directory;
  for (const SourceDescription& source : pki_.sources) {
    others.insert(others.end(), source.certificates.begin(), source.certificates.end());
  }
  for (const int candidate : others) {
    if (!passes(index, candidate, score)) continue;
    store.objects.push_back(candidate);
    return candidate;
  }
  return kNothing;
}

void Model::getCRLs(Context& context, int certificate, Container& container) {
  const std::vector<PointDescription>& points = cert(certificate).points;
  if (points.empty()) {
    const Name& issuer = issuerName(certificate);
    std::vector<int> found = fromCRLDirectory(context.run, issuer);
    find(context.run, issuer, found);
    for (const int index : found) {
      if (!sameName(issuer, crlIssuerName(index))) {
        rule("CRL of another issuer");
        say(7, "Certificate and CRL issuers do not match");
        continue;
      }
      addCandidate(context, certificate, index, nullptr, container);
    }
  }
  for (const PointDescription& point : points) {
    for (const int index : find(context.run, certificate, point)) {
      addCandidate(context, certificate, index, &point, container);
    }
  }
}

void Model::addCandidate(Context& context, int certificate, int index,
                         const PointDescription* point, Container& container) {
  const unsigned reasons =
      point == nullptr ? kAllReasons : point->reasons.value_or(kAllReasons) & kAllReasons;
  Candidate entry{certificate, index, kNothing, point, reasons, 0, false};
  entry.issuer = findIssuer(context.store, index, entry.score);
  if (entry.issuer == kNothing) {
    rule("no issuer of a CRL");
    // Without a point the line lost its text, see the container's log lines.
    if (point == nullptr) {
      say(0, "");
    } else {
      say(7,
          "Could not find issuing certificate for CRL issued by " + nameText(crlIssuerName(index)));
    }
    return;
  }
  add(context, container, entry);
}

// --- what they say ---

void Model::add(Context& context, Container& container, Candidate entry) {
  if (crl(entry.crl).base) container.hasDelta = true;
  tallyScore(context, entry);
  if (entry.rejected) {
    note("crl " + std::to_string(entry.crl) + " rejected");
    return;
  }
  note("crl " + std::to_string(entry.crl) + " of issuer " + std::to_string(entry.issuer) + " kept");
  container.entries.push_back(entry);
}

void Model::tallyScore(Context& context, Candidate& entry) {
  entry.score |= 0x80;
  if (likelyIssued(entry.issuer, entry.certificate) && allows(entry.issuer, KU_KEY_CERT_SIGN)) {
    entry.score |= 0x18;
  }
  if (entry.point != nullptr && !entry.point->crlIssuers.empty() &&
      !holds(entry.point->crlIssuers, crlIssuerName(entry.crl))) {
    rule("not an acceptable CRL issuer");
    context.error = X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER;
    say(0, "");
    entry.score = 0;
    entry.rejected = true;
    return;
  }
  checkScope(entry);
}

/// RFC 5280, 6.3.3 (b), as far as it is asked for. A rejection does not end the steps.
void Model::checkScope(Candidate& entry) {
  const auto reject = [&](const std::string& name, const std::string& line) {
    rule(name);
    if (!line.empty()) say(7, line);
    entry.score = 0;
    entry.rejected = true;
  };
  const std::string mismatch = "Certificate and CRL distributionPointNames do not match";
  const std::optional<ScopeDescription>& scope = crl(entry.crl).scope;
  const PointDescription* const point = entry.point;
  if (!scope) {
    if (point != nullptr && !point->crlIssuers.empty()) {
      reject("CRL issuers without scope",
             "Certificate contains CRL Issuers. The CRL must contain an Issuing Distribution "
             "Point.");
    }
    return;
  }
  const unsigned reasons = scope->reasons.value_or(kAllReasons) & kAllReasons;
  if (reasons != kAllReasons) entry.reasons &= reasons;

  const bool ca = cert(entry.certificate).ca;
  if (ca && scope->onlyUser) reject("onlyUser", "");
  if (!ca && scope->onlyCA) reject("onlyCA", "");
  if (scope->onlyAttributes) reject("onlyAttr", "");

  const PointName& theirs = scope->name;
  if (theirs.absent()) return;
  if (point == nullptr) {
    if (!equalsName(theirs, issuerName(entry.certificate))) {
      reject("issuer and scope name",
             "Certificate issuer and CRL distributionPointNames do not match");
    }
    return;
  }
  const PointName& ours = point->name;
  if (ours.absent()) return;
  const Name& crlIssuer = crlIssuerName(entry.crl);
  if (ours.full.empty() && theirs.full.empty()) {
    if (!sameRdn(ours.relative, theirs.relative)) reject("relative and relative", mismatch);
  } else if (ours.full.empty()) {
    if (!equalsName(theirs, completed(ours.relative, crlIssuer))) {
      reject("relative and full", mismatch);
    }
  } else if (theirs.full.empty()) {
    if (!equalsName(ours, completed(theirs.relative, crlIssuer))) {
      reject("full and relative", mismatch);
    }
  } else if (!sharesOne(ours.full, theirs.full)) {
    reject("full and full", mismatch);
  }
}

bool Model::isDeltaChainComplete(Container& container) {
  if (container.entries.empty() || !container.hasDelta || container.chain != Container::Unknown) {
    return container.chain == Container::Complete;
  }
  for (const Candidate& delta : container.entries) {
    if (!crl(delta.crl).base) continue;
    const bool found = std::any_of(
        container.entries.begin(), container.entries.end(), [&](const Candidate& other) {
          const CRLDescription& base = crl(other.crl);
          return !base.base && base.number && *crl(delta.crl).base <= *base.number;
        });
    if (!found) container.chain = Container::Incomplete;
  }
  if (container.chain == Container::Incomplete) {
    rule("no base");
    say(7, "Could not find Base CRL");
    return false;
  }
  rule("deltas complete");
  container.chain = Container::Complete;
  return true;
}

void Model::extendedChecks(Context& context, Container& container, const std::vector<int>& chain) {
  for (const Candidate& entry : container.entries) {
    if (!checkEntry(context, container, entry, chain)) return;
  }
}

/// Whether checking goes on.
bool Model::checkEntry(Context& context, const Container& container, const Candidate& entry,
                       const std::vector<int>& chain) {
  const CRLDescription& described = crl(entry.crl);
  const auto signedBy = [&](int issuer) {
    return !described.brokenSignature && described.signer == cert(issuer).key;
  };
  const bool issuedInChain = std::any_of(chain.begin(), chain.end(), [&](int issuer) {
    return sameName(crlIssuerName(entry.crl), subject(issuer)) &&
           matches(issuer, authority(described.authorityKeyId, described.issuer)) &&
           allows(issuer, KU_CRL_SIGN) && signedBy(issuer);
  });
  if (!issuedInChain) {
    const int before = context.error;
    context.error = validate(context, entry.issuer, chain);
    if (before != X509_V_OK && context.error == X509_V_OK) rule("an error is overwritten");
    if (context.error != X509_V_OK) {
      rule("CRL issuer is not valid");
      return false;
    }
    rule("CRL issuer is valid");
  }
  if (!allows(entry.issuer, KU_CRL_SIGN)) {
    context.error = X509_V_ERR_KEYUSAGE_NO_CRL_SIGN;
    return false;
  }
  if (!signedBy(entry.issuer)) {
    context.error = X509_V_ERR_CRL_SIGNATURE_FAILURE;
    return false;
  }
  if (described.unknownCritical ||
      std::any_of(described.entries.begin(), described.entries.end(),
                  [](const EntryDescription& listed) { return listed.unknownCritical; })) {
    context.error = X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION;
    return false;
  }
  if (described.until && context.moment > 2 * *described.until) {
    if (container.hasDelta) {
      rule("expired but with delta");
    } else {
      context.error = X509_V_ERR_CRL_HAS_EXPIRED;
    }
  }
  if (context.moment < 2 * described.from) context.error = X509_V_ERR_CRL_NOT_YET_VALID;
  return true;
}

/// A verification of its own with the default flags, over a store without objects.
int Model::validate(Context& outer, int issuer, const std::vector<int>& chain) {
  constexpr int kRefused = X509_V_ERR_CRL_PATH_VALIDATION_ERROR;
  const auto refuse = [&](const std::string& why) {
    rule(why);
    say(7, failureLine(issuer, kRefused) + ": " + why);
    return kRefused;
  };
  Run& run = outer.run;
  if (contains(run.targets, issuer)) return refuse("its own verification depends on it");
  if (run.targets.size() >= 8) return refuse("verifications are nested too deep");
  if (run.nested >= 64) return refuse("too many nested verifications");
  ++run.nested;
  note("nested verification of cert " + std::to_string(issuer));
  Store store{{}, 0x30AC};
  Context context{store, run, issuer, chain, outer.moment};
  run.targets.push_back(issuer);
  const int code = this->run(context);
  run.targets.pop_back();
  note("nested verification ends with " + std::to_string(code));
  return code;
}

/// The reason of the entry that is about the certificate, -1 when it names none. An entry is about
/// the certificates of the last named certificate issuer, at first of the CRL's (RFC 5280, 5.3.3).
std::optional<int> Model::lookUp(int index, int certificate) const {
  Name about = crlIssuerName(index);
  for (const EntryDescription& entry : crl(index).entries) {
    if (!entry.certificateIssuer.empty()) about = entry.certificateIssuer;
    if (entry.serial == cert(certificate).serial && sameName(about, issuerName(certificate))) {
      return entry.reason;
    }
  }
  return {};
}

int Model::isRevoked(Container& container) {
  if (container.entries.empty()) {
    rule("no CRL");
    return X509_V_ERR_UNABLE_TO_GET_CRL;
  }
  unsigned mask = 0;
  int reason = 0;
  const auto consult = [&](const Candidate& entry) {
    mask |= entry.reasons;
    if (const std::optional<int> found = lookUp(entry.crl, entry.certificate)) {
      rule("listed with reason " + std::to_string(*found));
      reason = *found;
    }
  };
  if (!container.hasDelta) {
    for (const Candidate& entry : container.entries) consult(entry);
  } else {
    if (!isDeltaChainComplete(container)) return X509_V_ERR_UNABLE_TO_GET_CRL;
    std::map<int, const Candidate*> deltas;  // by the last update; the first of equals stays
    for (const Candidate& entry : container.entries) {
      if (!crl(entry.crl).base) {
        consult(entry);
      } else if (!deltas.emplace(crl(entry.crl).from, &entry).second) {
        rule("two deltas of one time");
      }
    }
    for (const auto& [time, entry] : deltas) consult(*entry);
    if (reason == 8) {
      rule("taken off the list");
      reason = 0;
    }
  }
  if (mask != kAllReasons) {
    rule("not all reasons");
    return X509_V_ERR_UNABLE_TO_GET_CRL;
  }
  return reason != 0 ? X509_V_ERR_CERT_REVOKED : X509_V_OK;
}

HandOuts Model::handOuts(int certificate) {
  log_.clear();
  Run run;
  run.bounded = false;
  Context context{store_, run, certificate, pki_.untrusted, 0};
  Container container;
  getCRLs(context, certificate, container);
  HandOuts result;
  unsigned collected = 0;
  while (!container.entries.empty()) {
    if (container.hasDelta && !isDeltaChainComplete(container)) break;
    const Candidate entry = container.entries.front();
    container.entries.erase(container.entries.begin());
    collected |= entry.reasons;
    const unsigned reasons = container.entries.empty() ? collected
                             : container.hasDelta      ? entry.reasons | 0x4000
                                                       : entry.reasons;
    result.crls.push_back({entry.crl, entry.issuer, entry.score, reasons});
  }
  result.error = context.error;
  result.log = log_;
  return result;
}

}  // namespace Velantrix::Test::Random
