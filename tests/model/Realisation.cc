#include "model/Realisation.h"

#include "model/Chance.h"
#include "model/Generator.h"
#include "support/LogCapture.h"
#include "support/PrivateView.h"

#include <ctime>
#include <list>
#include <utility>

namespace Velantrix::Test::Random {

namespace {

// An identifier that nobody handles (of the documentation arc), with the value NULL.
const RawExtension kUnknownCritical{"2.999.1", true, std::string("\x05\0", 2)};

/// Days count from here, the same for all cases of a process.
std::time_t start() {
  static const std::time_t time = std::time(nullptr);
  return time;
}

constexpr std::time_t kHalfDay = 43200;

When day(int number) { return When::at(start() + 2 * kHalfDay * number); }

std::vector<std::string> generals(const std::vector<General>& names) {
  std::vector<std::string> texts;
  for (const General& name : names) {
    texts.push_back(name.other.empty() ? "dirName:" + encodingOrder(name.directory) : name.other);
  }
  return texts;
}

std::vector<Point> freshest(bool there) {
  if (!there) return {};
  return {{.fullNames = {"dirName:O=Test,CN=Freshest"}}};
}

std::vector<std::string> linesOf(const LogCapture& log) {
  std::vector<std::string> lines;
  for (const LogCapture::Line& line : log.lines()) {
    lines.push_back(std::to_string(line.priority) + " " + line.text);
  }
  return lines;
}

}  // namespace

/// Serves CRLs under the names that they are filed under.
class Realisation::Source : public MemorySource {
 public:
  using MemorySource::getBySubject;
  void getBySubject(const DistinguishedName& wanted,
                    std::list<RefCertificateRevocationList>& out) override {
    for (const auto& [filedName, crl] : filed) {
      if (filedName == wanted) out.push_back(crl);
    }
  }

  std::vector<std::pair<DistinguishedName, RefCertificateRevocationList>> filed;
};

Realisation::Realisation(const Description& pki) : pki_(pki) {
  for (const CertificateDescription& described : pki.certificates) makeCertificate(described);
  for (const CRLDescription& described : pki.crls) makeCRL(described);
  makeStore();
}

void Realisation::makeCertificate(const CertificateDescription& described) {
  CertificateOptions options;
  options.subject = encodingOrder(described.subject);
  if (described.issuer >= 0) options.issuer = &issued_[static_cast<std::size_t>(described.issuer)];
  options.serial = described.serial;
  options.notBefore = day(described.from);
  options.notAfter = day(described.until);
  options.ca = described.ca;
  options.keyUsage = described.keyUsage;
  options.subjectKeyId = described.subjectKeyId;
  options.authorityKeyId = described.authorityKeyId;
  for (const PointDescription& point : described.points) {
    options.crlDistributionPoints.push_back(
        {.fullNames = generals(point.name.full),
         .relativeName = point.name.relative,
         .reasons = point.reasons ? static_cast<int>(*point.reasons) : kAbsent,
         .crlIssuers = generals(point.crlIssuers)});
  }
  options.freshestCRL = freshest(described.freshestCRL);
  if (described.unknownCritical) options.rawExtensions.push_back(kUnknownCritical);
  options.key = keyOf<kKeys>(described.key);
  options.signer = keyOf<kKeys>(described.signer);
  options.badSignature = described.brokenSignature;
  issued_.push_back(issue(options));
  certificates_.push_back(handle(issued_.back()));
}

void Realisation::makeCRL(const CRLDescription& described) {
  CRLOptions options;
  options.issuer = &issued_[static_cast<std::size_t>(described.issuer)];
  options.lastUpdate = day(described.from);
  options.nextUpdate.reset();
  if (described.until) options.nextUpdate = day(*described.until);
  options.number.reset();
  if (described.number) options.number = Serial(*described.number);
  if (described.base) options.deltaBase = Serial(*described.base);
  for (const EntryDescription& entry : described.entries) {
    Revoked revoked{.serial = entry.serial, .reason = entry.reason};
    revoked.certificateIssuer = encodingOrder(entry.certificateIssuer);
    if (entry.unknownCritical) revoked.extensions.push_back(kUnknownCritical);
    options.revoked.push_back(revoked);
  }
  if (described.scope) {
    const ScopeDescription& scope = *described.scope;
    options.idp =
        Scope{.fullNames = generals(scope.name.full),
              .relativeName = scope.name.relative,
              .onlyUser = scope.onlyUser,
              .onlyCA = scope.onlyCA,
              .onlyAttributes = scope.onlyAttributes,
              .indirect = scope.indirect,
              .onlySomeReasons = scope.reasons ? static_cast<int>(*scope.reasons) : kAbsent};
  }
  options.freshestCRL = freshest(described.freshestCRL);
  options.authorityKeyId = described.authorityKeyId;
  if (described.unknownCritical) options.rawExtensions.push_back(kUnknownCritical);
  options.signer = keyOf<kKeys>(described.signer);
  options.badSignature = described.brokenSignature;
  crls_.push_back(crlHandle(options));
}

void Realisation::makeStore() {
  // The machine's directory keeps what another case left there.
  static bool dirty = true;
  if (dirty) clearPrivateView();
  dirty = !pki_.crlDirectory.empty();
  for (const int index : pki_.crlDirectory) {
    addToDirectory(kCRLDirectory, static_cast<X509_CRL*>(crls_[static_cast<std::size_t>(index)]));
  }
  std::string path = "/nonexistent/pkx509-test";
  if (!pki_.directory.empty()) {
    directory_ = std::make_unique<TempDir>();
    path = directory_->string();
    for (const int index : pki_.directory) {
      addToDirectory(path, static_cast<X509*>(handleOf(index)));
    }
  }
  store_ = RefObjectStore(path, X509_FILETYPE_PEM);
  for (const SourceDescription& described : pki_.sources) {
    auto source = std::make_unique<Source>();
    for (const int index : described.certificates) source->certificates.push_back(handleOf(index));
    for (const Filed& one : described.crls) {
      source->filed.emplace_back(DistinguishedName(makeName(encodingOrder(one.name)).get()),
                                 crls_[static_cast<std::size_t>(one.crl)]);
    }
    store_->add(RefLookupMethod(source.release()));
  }
  for (const int index : pki_.objects) store_->add(RefObject(handleOf(index)));
}

RefCertificate Realisation::handleOf(int certificate) const {
  return certificates_[static_cast<std::size_t>(certificate)];
}

RefStackOfCertificate Realisation::untrusted() const {
  std::list<RefCertificate> handles;
  for (const int index : pki_.untrusted) handles.push_back(handleOf(index));
  return RefStackOfCertificate(handles);
}

int Realisation::indexOf(const X509* certificate) const {
  for (std::size_t i = 0; certificate != nullptr && i < certificates_.size(); ++i) {
    if (X509_cmp(issued_[i].get(), certificate) == 0) return static_cast<int>(i);
  }
  return -1;
}

int Realisation::indexOf(const X509_CRL* crl) const {
  for (std::size_t i = 0; crl != nullptr && i < crls_.size(); ++i) {
    if (X509_CRL_match(crls_[i], crl) == 0) return static_cast<int>(i);
  }
  return -1;
}

Outcome Realisation::verify(const Query& query) {
  const LogCapture log;
  Verifier::Config config;
  config.flags = query.flags;
  Verifier verifier(store_, handleOf(query.target), untrusted(), config, false);
  if (query.day) {
    X509_VERIFY_PARAM_set_time(X509_STORE_CTX_get0_param(verifier),
                               day(*query.day).time() + kHalfDay);
  }
  Outcome outcome;
  outcome.code = verifier.isValid();
  outcome.depth = X509_STORE_CTX_get_error_depth(verifier);
  outcome.log = linesOf(log);
  return outcome;
}

HandOuts Realisation::handOuts(int certificate) {
  const LogCapture log;
  Verifier verifier(store_, handleOf(certificate), untrusted(), false);
  CRLContainer container(verifier);
  verifier.getCRLs(handleOf(certificate), container);
  HandOuts result;
  while (true) {
    const RefObject next = container.getCRL();
    if (next.empty()) break;
    result.crls.push_back({indexOf(static_cast<X509_CRL*>(next->crl)),
                           indexOf(verifier.currentIssuer()), verifier.currentCRLScore(),
                           verifier.currentReasons()});
  }
  result.error = verifier.contextError();
  result.log = linesOf(log);
  return result;
}

}  // namespace Velantrix::Test::Random
