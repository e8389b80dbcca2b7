#include "report/RevocationFindings.h"

#include "foundation/model/CRLParts.h"
#include "foundation/model/DistributionPoints.h"
#include "foundation/model/GeneralNames.h"
#include "foundation/openssl/RevokedEntry.h"
#include "foundation/run/FetchRecord.h"
#include "report/FindingMaker.h"
#include "report/OutcomeRecord.h"
#include "report/PathFindings.h"
#include "report/SourceFindings.h"

#include <velantrix/Exception.h>

#include <openssl/ocsp.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>
#include <string>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

using Revocation::Provenance;
using Revocation::Reason;
using Revocation::SetAside;
using Revocation::Statement;

namespace {

using Finding = VerificationReport::Finding;
using Origin = VerificationReport::Origin;
using Result = VerificationReport::RevocationResult;

constexpr int kCertificateHold = 6;  // RFC 5280, 5.3.1

Origin::Kind kindOf(Provenance::Kind kind) noexcept {
  switch (kind) {
    case Provenance::Kind::kMessage:
      return Origin::Kind::kMessage;
    case Provenance::Kind::kPath:
      return Origin::Kind::kPath;
    case Provenance::Kind::kStore:
      return Origin::Kind::kStore;
    case Provenance::Kind::kTrustDirectory:
      return Origin::Kind::kTrustDirectory;
    case Provenance::Kind::kCRLDirectory:
      return Origin::Kind::kMachineCRLs;
    case Provenance::Kind::kLookupMethod:
      return Origin::Kind::kLookupMethod;
    case Provenance::Kind::kCache:
      return Origin::Kind::kCache;
    case Provenance::Kind::kNetwork:
      return Origin::Kind::kNetwork;
    case Provenance::Kind::kAnswer:
      return Origin::Kind::kAnswer;
    case Provenance::Kind::kSettings:
      break;
  }
  return Origin::Kind::kSettings;
}

Rule ruleOfCRL(Reason reason) noexcept {
  switch (reason) {
    case Reason::kUnknownCriticalExtension:
      return Rule::kCRLCriticalExtension;
    case Reason::kNotYetValid:
      return Rule::kCRLNotYetValid;
    case Reason::kExpired:
      return Rule::kCRLExpired;
    case Reason::kOtherIssuer:
    case Reason::kOutOfScope:
    case Reason::kOtherCertificate:
      return Rule::kCRLScope;
    case Reason::kNoBase:
      return Rule::kCRLNoBase;
    case Reason::kSuperseded:
      return Rule::kCRLSuperseded;
    case Reason::kSignerUnknown:
      return Rule::kCRLIssuerUnknown;
    case Reason::kSignerNotValid:
      return Rule::kCRLIssuerInvalid;
    case Reason::kSignerRevoked:
      return Rule::kCRLIssuerRevoked;
    case Reason::kSignerUndetermined:
      return Rule::kCRLIssuerUndetermined;
    case Reason::kSignerNotAllowed:
      return Rule::kCRLIssuerNotAllowed;
    case Reason::kRestsOnItself:
    case Reason::kNamesItsSigner:
      return Rule::kCRLCircle;
    case Reason::kWrongSignature:
      return Rule::kCRLSignature;
    case Reason::kTooWeak:
      return Rule::kCRLTooWeak;
    case Reason::kTooManyNested:
      return Rule::kNestedTooDeep;
    case Reason::kNotVerified:
      return Rule::kBudgetSpent;
    case Reason::kNoAnswer:
      return Rule::kCRLUnreachable;
    case Reason::kMalformed:
    case Reason::kNotSuccessful:
    case Reason::kOtherNonce:
    case Reason::kStatusUnknown:
      break;
  }
  return Rule::kCRLMalformed;
}

Rule ruleOfOCSP(Reason reason) noexcept {
  switch (reason) {
    case Reason::kUnknownCriticalExtension:
      return Rule::kOCSPCriticalExtension;
    case Reason::kNotYetValid:
      return Rule::kOCSPNotYetValid;
    case Reason::kExpired:
      return Rule::kOCSPExpired;
    case Reason::kSignerUnknown:
      return Rule::kOCSPResponderUnknown;
    case Reason::kSignerNotValid:
      return Rule::kOCSPResponderInvalid;
    case Reason::kSignerRevoked:
      return Rule::kOCSPResponderRevoked;
    case Reason::kSignerUndetermined:
    case Reason::kRestsOnItself:
    case Reason::kNamesItsSigner:
      return Rule::kOCSPResponderUndetermined;
    case Reason::kSignerNotAllowed:
      return Rule::kOCSPResponderUnauthorised;
    case Reason::kWrongSignature:
      return Rule::kOCSPSignature;
    case Reason::kTooWeak:
      return Rule::kOCSPTooWeak;
    case Reason::kNoAnswer:
      return Rule::kOCSPUnreachable;
    case Reason::kNotSuccessful:
      return Rule::kOCSPNotSuccessful;
    case Reason::kOtherNonce:
      return Rule::kOCSPNonce;
    case Reason::kOtherIssuer:
    case Reason::kOutOfScope:
    case Reason::kOtherCertificate:
      return Rule::kOCSPOtherCertificate;
    case Reason::kStatusUnknown:
      return Rule::kOCSPUnknown;
    case Reason::kTooManyNested:
      return Rule::kNestedTooDeep;
    case Reason::kNotVerified:
      return Rule::kBudgetSpent;
    case Reason::kMalformed:
    case Reason::kNoBase:
    case Reason::kSuperseded:
      break;
  }
  return Rule::kOCSPMalformed;
}

// RFC 5280, 5.3.1. OpenSSL's own table ends before the last two.
std::string reasonName(const std::optional<int>& reason) {
  switch (reason.value_or(CRL_REASON_NONE)) {
    case CRL_REASON_NONE:
      return {};
    case CRL_REASON_PRIVILEGE_WITHDRAWN:
      return "privilegeWithdrawn";
    case CRL_REASON_AA_COMPROMISE:
      return "aACompromise";
    default:
      return OCSP_crl_reason_str(*reason);
  }
}

// OpenSSL's reason bits: the first octet of ReasonFlags, and the second one above it (RFC 5280, 4.2.1.13).
std::string reasonNames(unsigned int bits) {
  static constexpr std::pair<unsigned int, int> kReasons[] = {
      {0x0040, CRL_REASON_KEY_COMPROMISE},         {0x0020, CRL_REASON_CA_COMPROMISE},
      {0x0010, CRL_REASON_AFFILIATION_CHANGED},    {0x0008, CRL_REASON_SUPERSEDED},
      {0x0004, CRL_REASON_CESSATION_OF_OPERATION}, {0x0002, CRL_REASON_CERTIFICATE_HOLD},
      {0x0001, CRL_REASON_PRIVILEGE_WITHDRAWN},    {0x8000, CRL_REASON_AA_COMPROMISE}};
  std::string text;
  for (const auto& [bit, reason] : kReasons) {
    if ((bits & bit) != 0) text += (text.empty() ? "" : " ") + reasonName(reason);
  }
  return text;
}

// Names of places, a few of them.
class PlaceNames {
 public:
  static constexpr int kMost = 4;

  void addAll(const std::shared_ptr<const GENERAL_NAMES>& names) {
    for (int i = 0; i < countOf(names) && count_ < kMost; ++i) {
      const RefGeneralName name = generalName(names, i);
      if (name->type() == GEN_DIRNAME) add(name->dn().asString());
      if (name->type() == GEN_URI) add(FetchRecord::placeOf(name->uri()));
    }
  }
  void add(const CRLDistributionPointName& name) {
    if (name.type() == CRLDistributionPointName::kFullName) return addAll(name.nativeFullName());
    add(name.relativeName());
  }
  const std::string& text() const noexcept { return text_; }

 private:
  void add(const std::string& name) {
    if (name.empty() || ++count_ > kMost) return;
    text_ += (text_.empty() ? "" : " or ") + name;
  }

  int count_ = 0;
  std::string text_;
};

// Where the certificate says that its CRLs are.
std::string placesOf(const RefCertificate& certificate) {
  PlaceNames places;
  const DistributionPoints points(*certificate.get());
  for (int i = 0; i < std::min(points.count(), PlaceNames::kMost); ++i) {
    const RefCRLDistributionPointName name = points[i]->distributionPointName();
    if (!name.empty()) places.add(*name.get());
    places.addAll(points[i]->nativeIssuers());
  }
  return places.text();
}

// What of a CRL's scope did not fit: its own distribution point and reasons, and where the certificate says
// that its CRLs are.
void addScope(FindingMaker& maker, const CertificateRevocationList& crl,
              const RefCertificate& certificate) {
  const RefIssuingDistributionPoint idp = crl.issuingDistributionPoint();
  if (idp.empty()) return;
  try {
    PlaceNames own;
    if (!idp->distributionPointName().empty()) own.add(*idp->distributionPointName().get());
    const std::string wanted = placesOf(certificate);
    // Where it is the right place, something else did not fit.
    if (own.text() != wanted) {
      maker.add(DetailName::kDistributionPoint, own.text());
      maker.add(DetailName::kNeeded, wanted);
    }
  } catch (const Exception&) {
    // Names that cannot be read are not told.
  }
  if (idp->reasons() != kAllReasons) {
    maker.add(DetailName::kCoveredReasons, reasonNames(idp->reasons()));
  }
}

std::string issuerOf(const Statement& statement) {
  return statement.responder.empty() ? statement.issuer : statement.responder->subject().asString();
}

void addStatement(FindingMaker& maker, const Statement& statement, const ObjectOrigins& origins) {
  const Origin origin = originOf(statement, origins);
  if (!statement.crl.empty()) {
    maker.add(statement.crl);
  } else {
    const bool isOCSP = statement.kind == Statement::Kind::kOCSP;
    maker.add(isOCSP ? DetailName::kResponder : DetailName::kCRLIssuer, issuerOf(statement));
    maker.add(DetailName::kCRLNumber, statement.number);
    maker.add(DetailName::kThisUpdate, statement.thisUpdate);
    maker.add(DetailName::kNextUpdate, statement.nextUpdate);
    maker.add(DetailName::kProducedAt, statement.producedAt);
  }
  switch (origin.kind()) {
    case Origin::Kind::kNetwork:
    case Origin::Kind::kCache:
      maker.add(DetailName::kURI, origin.place());
      break;
    case Origin::Kind::kMachineCRLs:
    case Origin::Kind::kTrustDirectory:
      maker.add(DetailName::kDirectory, origin.place());
      break;
    case Origin::Kind::kLookupMethod:
      maker.add(DetailName::kLookupMethod, origin.place());
      break;
    default:
      break;
  }
  maker.add(DetailName::kFile, origin.file());
  maker.from(origin);
}

std::optional<Time> thisUpdateOf(const Statement& statement) {
  return statement.crl.empty() ? statement.thisUpdate
                               : timeOf(X509_CRL_get0_lastUpdate(headOf(*statement.crl.get())));
}

std::optional<Time> nextUpdateOf(const Statement& statement) {
  return statement.crl.empty() ? statement.nextUpdate
                               : timeOf(X509_CRL_get0_nextUpdate(headOf(*statement.crl.get())));
}

std::optional<Reason> reasonOf(int code) noexcept {
  switch (ruleOf(code)) {
    case Rule::kCRLIssuerUnknown:
      return Reason::kSignerUnknown;
    case Rule::kCRLIssuerInvalid:
      return Reason::kSignerNotValid;
    case Rule::kCRLIssuerNotAllowed:
      return Reason::kSignerNotAllowed;
    case Rule::kCRLNotYetValid:
      return Reason::kNotYetValid;
    case Rule::kCRLExpired:
      return Reason::kExpired;
    case Rule::kCRLSignature:
      return Reason::kWrongSignature;
    case Rule::kCRLMalformed:
      return Reason::kMalformed;
    case Rule::kCRLCriticalExtension:
      return Reason::kUnknownCriticalExtension;
    case Rule::kCRLScope:
      return Reason::kOutOfScope;
    default:
      return std::nullopt;
  }
}

// What the CRL says that OpenSSL was checking when it found the certificate revoked.
void listed(const Objection& objection, Revocation::Outcome& outcome) {
  outcome.status = Revocation::Status::kRevoked;
  RefCertificateRevocationList list = objection.crl;
  ListedEntry entry;
  const auto lists = [&](const RefCertificateRevocationList& crl) {
    ListedEntry found = crl.empty() ? ListedEntry() : entryFor(*crl.get(), objection.certificate);
    if (!found) return false;
    entry = std::move(found);
    return !entry.removed();
  };
  if (!lists(list)) {
    // The one that OpenSSL has at hand need not be the one that lists it.
    for (const Statement& one : outcome.decidedBy) {
      if (lists(one.crl)) list = one.crl;
    }
  }
  outcome.decidedBy.clear();
  if (list.empty()) return;
  outcome.decidedBy.push_back(OutcomeRecord::statementOn(list));
  if (!entry) return;
  if (const int reason = Crypto::reasonOf(entry.get()); reason >= 0) {
    outcome.revoked.reason = reason;
  }
  outcome.revoked.date = timeOf(X509_REVOKED_get0_revocationDate(entry.get()));
}

// The critical extension of a CRL, or of one of its entries, that is not handled.
std::string unhandledExtension(const STACK_OF(X509_EXTENSION) * extensions) {
  static constexpr std::array kHandled = {
      NID_issuing_distribution_point, NID_delta_crl,  NID_authority_key_identifier, NID_crl_number,
      NID_certificate_issuer,         NID_crl_reason, NID_invalidity_date};
  for (int i = 0; i < X509v3_get_ext_count(extensions); ++i) {
    X509_EXTENSION* const one = X509v3_get_ext(extensions, i);
    if (X509_EXTENSION_get_critical(one) == 0) continue;
    const ASN1_OBJECT* const object = X509_EXTENSION_get_object(one);
    if (std::find(kHandled.begin(), kHandled.end(), OBJ_obj2nid(object)) != kHandled.end())
      continue;
    char text[128] = {};
    if (OBJ_obj2txt(text, sizeof text, object, 1) > 0) return text;
  }
  return {};
}

std::string unhandledExtension(const CertificateRevocationList& crl) {
  std::string text = unhandledExtension(X509_CRL_get0_extensions(headOf(crl)));
  if (!text.empty()) return text;
  visitCriticalEntries(crl, [&text](const X509_REVOKED* entry) {
    text = unhandledExtension(X509_REVOKED_get0_extensions(entry));
    return text.empty();
  });
  return text;
}

// One certificate's findings in the making.
class Findings {
 public:
  Findings(const Checked& checked, const Evidence& evidence, const Surroundings& surroundings,
           NestedFindings& nested)
      : certificate_(checked.certificate),
        depth_(checked.depth),
        outcome_(checked.outcome),
        evidence_(evidence),
        surroundings_(surroundings),
        nested_(nested) {}

  std::vector<Finding> make() {
    const std::vector<const SourceRecord::Use*> failed = failedFor(certificate_, evidence_.sources);
    for (const SetAside& one : outcome_.setAside) {
      if (!isToldBy(failed, one)) all_.push_back(setAside(one));
    }
    for (const SourceRecord::Use* const use : failed) {
      all_.push_back(surroundings_.rulesOnly ? maker(ruleOf(*use), 0).make()
                                             : sourceFinding(*use, certificate_, depth_, 0));
    }
    if (outcome_.status == Revocation::Status::kRevoked) {
      if (outcome_.uncoveredReasons != 0) all_.push_back(reasonsMissing());
      all_.insert(all_.begin(), revoked());
    }
    if (outcome_.status == Revocation::Status::kUndetermined) putDecisiveFirst();
    return std::move(all_);
  }

 private:
  FindingMaker maker(Rule rule, int code) const {
    FindingMaker made(rule, code);
    if (!surroundings_.rulesOnly) made.about(certificate_, depth_);
    return made;
  }

  // Of a responder without an answer the source says more.
  static bool isToldBy(const std::vector<const SourceRecord::Use*>& failed, const SetAside& one) {
    return one.reason == Reason::kNoAnswer &&
           std::any_of(failed.begin(), failed.end(), [&one](const SourceRecord::Use* use) {
             return use->kind == SourceRecord::Source::Kind::kOCSPResponder &&
                    use->origin == one.statement.from.place;
           });
  }

  Finding setAside(const SetAside& one) {
    const Rule rule = ruleOf(one.reason, one.statement.kind);
    FindingMaker made =
        maker(rule, one.statement.kind == Statement::Kind::kOCSP ? 0 : codeOf(rule));
    if (surroundings_.rulesOnly) return std::move(made).make();
    addStatement(made, one.statement, evidence_.origins);
    made.add(DetailName::kText, one.detail);
    addWhy(made, one);
    if (one.signer != nullptr) addSigner(made, *one.signer);
    return std::move(made).make();
  }

  void addWhy(FindingMaker& made, const SetAside& one) const {
    const Statement& statement = one.statement;
    const std::optional<Time> thisUpdate = thisUpdateOf(statement);
    switch (one.reason) {
      case Reason::kExpired: {
        const std::optional<Time> nextUpdate = nextUpdateOf(statement);
        made.addDistance(nextUpdate ? nextUpdate : thisUpdate, surroundings_.checked);
        break;
      }
      case Reason::kNotYetValid:
        made.addDistance(thisUpdate ? thisUpdate : statement.producedAt, surroundings_.checked);
        break;
      case Reason::kUnknownCriticalExtension:
        if (!statement.crl.empty()) {
          made.add(DetailName::kExtension, unhandledExtension(*statement.crl.get()));
        }
        break;
      case Reason::kOtherIssuer:
        made.add(DetailName::kIssuer, certificate_->issuer().asString());
        [[fallthrough]];
      case Reason::kOutOfScope:
        if (!statement.crl.empty()) addScope(made, *statement.crl.get(), certificate_);
        break;
      default:
        break;
    }
  }

  void addSigner(FindingMaker& made, const Revocation::AboutSigner& signer) {
    if (!signer.certificate.empty()) {
      made.add(DetailName::kSigner, signer.certificate->subject().asString());
      made.add(DetailName::kSignerSerial, serialText(X509_get0_serialNumber(signer.certificate)));
    }
    if (signer.objection && nested_.take()) {
      // It is about another path, that ends where this one does.
      Objection objection = *signer.objection;
      objection.depth = depthOf(objection.certificate);
      made.below(pathFinding(objection, evidence_,
                             {.checked = surroundings_.checked,
                              .securityLevel = surroundings_.securityLevel,
                              .maximumDepth = surroundings_.maximumDepth}));
    }
    if (signer.revocation != nullptr && nested_.take()) {
      const RefCertificate& blamed = signer.blamed.empty() ? signer.certificate : signer.blamed;
      const Checked itself{blamed, depthOf(blamed), *signer.revocation};
      for (const Finding& one : revocationFindings(itself, evidence_, surroundings_, nested_)) {
        made.below(one);
      }
    }
    if (signer.verification == nullptr) return;
    for (const Finding& one : findingsOf(*signer.verification, evidence_)) {
      if (nested_.take()) made.below(one);
    }
  }

  // On the path that was verified; -1 beside it.
  int depthOf(const RefCertificate& certificate) const {
    for (std::size_t i = 0; !certificate.empty() && i < surroundings_.path.size(); ++i) {
      if (X509_cmp(surroundings_.path[i], certificate) == 0) return static_cast<int>(i);
    }
    return -1;
  }

  static int codeOf(Rule rule) noexcept {
    switch (rule) {
      case Rule::kCRLSignature:
      case Rule::kCRLTooWeak:
        return X509_V_ERR_CRL_SIGNATURE_FAILURE;
      case Rule::kCRLScope:
        return X509_V_ERR_DIFFERENT_CRL_SCOPE;
      case Rule::kCRLCriticalExtension:
        return X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION;
      case Rule::kCRLExpired:
        return X509_V_ERR_CRL_HAS_EXPIRED;
      case Rule::kCRLNotYetValid:
        return X509_V_ERR_CRL_NOT_YET_VALID;
      case Rule::kCRLIssuerNotAllowed:
        return X509_V_ERR_KEYUSAGE_NO_CRL_SIGN;
      case Rule::kCRLIssuerUnknown:
        return X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER;
      case Rule::kCRLIssuerInvalid:
      case Rule::kCRLIssuerRevoked:
      case Rule::kCRLIssuerUndetermined:
      case Rule::kCRLCircle:
        return X509_V_ERR_CRL_PATH_VALIDATION_ERROR;
      case Rule::kExtensionInvalid:
        return X509_V_ERR_INVALID_EXTENSION;
      default:
        return X509_V_ERR_UNABLE_TO_GET_CRL;
    }
  }

  Finding revoked() const {
    const bool held = outcome_.revoked.reason == kCertificateHold;
    FindingMaker made = maker(held ? Rule::kOnHold : Rule::kRevoked, X509_V_ERR_CERT_REVOKED);
    if (surroundings_.rulesOnly) return std::move(made).make();
    made.add(DetailName::kRevocationDate, outcome_.revoked.date);
    made.add(DetailName::kReason, reasonName(outcome_.revoked.reason));
    if (!outcome_.decidedBy.empty()) {
      addStatement(made, outcome_.decidedBy.front(), evidence_.origins);
    }
    return std::move(made).make();
  }

  // The most telling one that fits the code, and of those one that waiting helps against before what has to
  // be mended here. Where there is none, what is missing is said.
  void putDecisiveFirst() {
    if (outcome_.code == X509_V_ERR_INVALID_EXTENSION) {
      if (!moveToFront(Rule::kExtensionInvalid)) {
        // RFC 9608, 2: noRevAvail in a CA's certificate, or beside a place where CRLs or answers are.
        all_.insert(all_.begin(), maker(Rule::kNoRevocationMisused, outcome_.code).make());
      }
      return;
    }
    if (outcome_.uncoveredReasons != 0) all_.insert(all_.begin(), reasonsMissing());
    for (const Rule rule : kTelling) {
      if (fits(rule) && moveToFront(rule)) return beOfTheOutcomesCode();
    }
    for (const Rule rule : kTelling) {
      if (moveToFront(rule)) return beOfTheOutcomesCode();
    }
    if (outcome_.cut && outcome_.code != X509_V_OK) {
      all_.insert(all_.begin(), std::move(maker(Rule::kBudgetSpent, outcome_.code)).make());
      return;
    }
    all_.insert(all_.begin(), nothingFound());
  }

  // What the verdict's own code says first, then why CRLs do not count, why they were not found, and the
  // same of OCSP answers. What is not here explains nothing: a cache that cannot be used only costs time,
  // and a CRL that is superseded has left its word to another.
  static constexpr std::array kTelling = {Rule::kCRLSignature,
                                          Rule::kCRLTooWeak,
                                          Rule::kCRLScope,
                                          Rule::kCRLCriticalExtension,
                                          Rule::kCRLExpired,
                                          Rule::kCRLReasons,
                                          Rule::kCRLIssuerRevoked,
                                          Rule::kCRLIssuerNotAllowed,
                                          Rule::kCRLIssuerInvalid,
                                          Rule::kCRLCircle,
                                          Rule::kCRLIssuerUndetermined,
                                          Rule::kCRLNotYetValid,
                                          Rule::kCRLNoBase,
                                          Rule::kCRLIssuerUnknown,
                                          Rule::kCRLMalformed,
                                          Rule::kNestedTooDeep,
                                          Rule::kBudgetSpent,
                                          Rule::kOutOfResources,
                                          Rule::kCRLUnreachable,
                                          Rule::kCRLSourceFailed,
                                          Rule::kCRLMissing,
                                          Rule::kOCSPResponderRevoked,
                                          Rule::kOCSPResponderUnauthorised,
                                          Rule::kOCSPResponderInvalid,
                                          Rule::kOCSPResponderUndetermined,
                                          Rule::kOCSPResponderUnknown,
                                          Rule::kOCSPSignature,
                                          Rule::kOCSPTooWeak,
                                          Rule::kOCSPNonce,
                                          Rule::kOCSPExpired,
                                          Rule::kOCSPNotYetValid,
                                          Rule::kOCSPCriticalExtension,
                                          Rule::kOCSPOtherCertificate,
                                          Rule::kOCSPMalformed,
                                          Rule::kOCSPUnknown,
                                          Rule::kOCSPNotSuccessful,
                                          Rule::kOCSPUnreachable,
                                          Rule::kCRLFileUnreadable,
                                          Rule::kClientIdentity,
                                          Rule::kSchemeNotSpoken,
                                          Rule::kAddressRefused,
                                          Rule::kCertificateSignature};

  // "Unable to get CRL" is what everything comes to that no other code is for.
  bool fits(Rule rule) const noexcept {
    if (codeOf(rule) == outcome_.code) return true;
    if (outcome_.code != X509_V_ERR_UNABLE_TO_GET_CRL) return false;
    return rule != Rule::kCRLSignature && rule != Rule::kCRLTooWeak && rule != Rule::kCRLScope &&
           rule != Rule::kCRLCriticalExtension && rule != Rule::kCRLExpired;
  }

  // Of several of one rule: the CRL of the certificate's own issuer, and the one that expired last.
  static bool tellsMore(const Finding& one, const Finding& other) {
    const bool foreign = one.find(DetailName::kIssuer) != nullptr;
    const bool otherForeign = other.find(DetailName::kIssuer) != nullptr;
    if (foreign != otherForeign) return otherForeign;
    const VerificationReport::Value* const distance = one.find(DetailName::kDistance);
    const VerificationReport::Value* const otherDistance = other.find(DetailName::kDistance);
    return distance != nullptr && otherDistance != nullptr && *otherDistance < *distance;
  }

  bool moveToFront(Rule rule) {
    auto found = all_.end();
    for (auto one = all_.begin(); one != all_.end(); ++one) {
      if (one->rule() != rule) continue;
      if (found == all_.end() || tellsMore(*one, *found)) found = one;
    }
    if (found == all_.end()) return false;
    std::rotate(all_.begin(), found, std::next(found));
    return true;
  }

  // OpenSSL's code for what decided is the verdict's.
  void beOfTheOutcomesCode() {
    const Finding& front = all_.front();
    if (front.code() == outcome_.code) return;
    all_.front() = Finding({.rule = front.rule(),
                            .depth = front.depth(),
                            .certificate = front.certificate(),
                            .code = outcome_.code,
                            .details = front.details(),
                            .origin = front.origin(),
                            .nested = front.nested()});
  }

  // The first of the CRLs that count stands in the finding itself, the others below it.
  Finding reasonsMissing() const {
    const unsigned int covered = kAllReasons & ~outcome_.uncoveredReasons;
    FindingMaker made = maker(Rule::kCRLReasons, outcome_.code);
    if (surroundings_.rulesOnly) return std::move(made).make();
    made.add(DetailName::kMissingReasons, reasonNames(outcome_.uncoveredReasons));
    made.add(DetailName::kCoveredReasons, reasonNames(covered));
    for (std::size_t i = 0; i < outcome_.covering.size(); ++i) {
      if (i == 0) {
        addStatement(made, outcome_.covering[i], evidence_.origins);
      } else if (nested_.take()) {
        FindingMaker other = maker(Rule::kCRLReasons, 0);
        addStatement(other, outcome_.covering[i], evidence_.origins);
        made.below(std::move(other).make());
      }
    }
    return std::move(made).make();
  }

  Finding nothingFound() const {
    if (certificate_.empty()) return std::move(maker(Rule::kCRLMissing, outcome_.code)).make();
    const bool named = X509_get_ext_by_NID(certificate_, NID_crl_distribution_points, -1) >= 0 ||
                       X509_get_ext_by_NID(certificate_, NID_info_access, -1) >= 0;
    const bool sourced = named || surroundings_.hasCRLSources;
    FindingMaker made =
        maker(sourced ? Rule::kCRLMissing : Rule::kRevocationUnsourced, outcome_.code);
    if (surroundings_.rulesOnly) return std::move(made).make();
    made.add(DetailName::kCRLIssuer, certificate_->issuer().asString());
    made.add(DetailName::kDirectory, surroundings_.crlDirectory);
    return std::move(made).make();
  }

  const RefCertificate& certificate_;
  int depth_;
  const Revocation::Outcome& outcome_;
  const Evidence& evidence_;
  const Surroundings& surroundings_;
  NestedFindings& nested_;
  std::vector<Finding> all_;
};

}  // namespace

Rule ruleOf(Reason reason, Statement::Kind kind) noexcept {
  // The certificate's own extensions cannot be read.
  if (kind == Statement::Kind::kCertificate) return Rule::kExtensionInvalid;
  return kind == Statement::Kind::kOCSP ? ruleOfOCSP(reason) : ruleOfCRL(reason);
}

Origin originOf(const Statement& statement, const ObjectOrigins& origins) {
  const std::optional<Origin> known =
      statement.crl.empty() ? std::nullopt : origins.of(statement.crl);
  // Nobody sends CRLs along, so that it says nothing.
  if (!statement.crl.empty() && statement.from.kind == Provenance::Kind::kMessage) {
    return known ? Origin(known->kind(), reportText(known->place()), reportText(known->file()))
                 : Origin();
  }
  return {kindOf(statement.from.kind), reportText(statement.from.place),
          known ? reportText(known->file()) : std::string()};
}

Result resultOf(const Revocation::Outcome& outcome, const ObjectOrigins& origins,
                NameTexts& texts) {
  static constexpr std::array kStatus = {Result::Status::kGood, Result::Status::kRevoked,
                                         Result::Status::kUndetermined, Result::Status::kNotNeeded};
  Result::Content content;
  content.status = kStatus[static_cast<std::size_t>(outcome.status)];
  for (const Statement& one : outcome.decidedBy) {
    Result::Statement said;
    switch (one.kind) {
      case Statement::Kind::kDeltaCRL:
        said.kind = Result::Statement::Kind::kDeltaCRL;
        break;
      case Statement::Kind::kOCSP:
        said.kind = Result::Statement::Kind::kOCSP;
        break;
      case Statement::Kind::kCRL:
      case Statement::Kind::kCertificate:
        break;
    }
    said.origin = originOf(one, origins);
    said.thisUpdate = thisUpdateOf(one);
    said.nextUpdate = nextUpdateOf(one);
    said.issuer =
        one.responder.empty() ? reportText(one.issuer) : texts.of(one.responder->subject());
    said.number = reportText(one.number);
    if (!one.crl.empty()) {
      said.issuer = texts.of(one.crl->crlInfo().issuer());
      said.number = crlNumberText(one.crl->crlNumber());
      said.entries = one.crl->entryCount();
    }
    content.decidedBy.push_back(std::move(said));
  }
  content.date = outcome.revoked.date;
  content.reason = reasonName(outcome.revoked.reason);
  return Result(std::move(content));
}

void objected(const Objection& objection, const std::optional<Objection>& toSigner,
              Revocation::Outcome& outcome) {
  outcome.code = objection.code;
  if (objection.code == X509_V_ERR_CERT_REVOKED) return listed(objection, outcome);
  outcome.status = Revocation::Status::kUndetermined;
  const std::optional<Reason> reason = reasonOf(objection.code);
  if (!reason) return;
  Statement statement;
  if (!objection.crl.empty()) statement = OutcomeRecord::statementOn(objection.crl);
  std::shared_ptr<Revocation::AboutSigner> signer;
  if (*reason == Reason::kSignerNotValid && toSigner) {
    signer = std::make_shared<Revocation::AboutSigner>();
    signer->objection = toSigner;
  } else if (!objection.signer.empty()) {
    signer = std::make_shared<Revocation::AboutSigner>();
    signer->certificate = objection.signer;
  }
  outcome.setAsideFor(*reason, statement, {}, signer);
}

std::vector<Finding> revocationFindings(const Checked& checked, const Evidence& evidence,
                                        const Surroundings& surroundings, NestedFindings& nested) {
  return Findings(checked, evidence, surroundings, nested).make();
}

}  // namespace Velantrix::Crypto::PKX509
