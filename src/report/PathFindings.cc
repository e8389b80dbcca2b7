#include "report/PathFindings.h"

#include "foundation/base/Hex.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "report/FindingMaker.h"
#include "report/NameConstraintBreach.h"
#include "report/SourceFindings.h"
#include "report/TrustDirectory.h"

#include <openssl/objects.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <string>

namespace Velantrix::Crypto::PKX509 {

namespace {

using Finding = VerificationReport::Finding;

std::string nameOfNID(int nid) {
  const char* const name = OBJ_nid2ln(nid);
  return nid == NID_undef || name == nullptr ? std::string() : std::string(name);
}

// The bits that a security level asks for (OpenSSL's crypto/x509/x509_vfy.c).
int bitsOfLevel(int level) noexcept {
  constexpr int kBits[] = {0, 80, 112, 128, 192, 256};
  return kBits[std::clamp(level, 0, 5)];
}

std::string keyUsageText(const RefCertificate& certificate) {
  static constexpr std::pair<unsigned int, const char*> kBits[] = {
      {KU_DIGITAL_SIGNATURE, "digitalSignature"},
      {KU_NON_REPUDIATION, "nonRepudiation"},
      {KU_KEY_ENCIPHERMENT, "keyEncipherment"},
      {KU_DATA_ENCIPHERMENT, "dataEncipherment"},
      {KU_KEY_AGREEMENT, "keyAgreement"},
      {KU_KEY_CERT_SIGN, "keyCertSign"},
      {KU_CRL_SIGN, "cRLSign"},
      {KU_ENCIPHER_ONLY, "encipherOnly"},
      {KU_DECIPHER_ONLY, "decipherOnly"}};
  const unsigned int allowed = X509_get_key_usage(certificate);
  std::string text;
  for (const auto& [bit, name] : kBits) {
    if ((allowed & bit) != 0) text += (text.empty() ? "" : " ") + std::string(name);
  }
  return text.empty() ? "none" : text;
}

// RFC 5280, 4.2.1.9: those that are not self-issued count, but for the last one.
int casBelow(const std::vector<RefCertificate>& path, int depth) {
  int count = 0;
  for (int i = 1; i < depth && static_cast<std::size_t>(i) < path.size(); ++i) {
    const RefCertificate& one = path[static_cast<std::size_t>(i)];
    if (X509_NAME_cmp(X509_get_subject_name(one), X509_get_issuer_name(one)) != 0) ++count;
  }
  return count;
}

void addTimes(FindingMaker& maker, const Objection& objection, const Time& checked) {
  const std::optional<Time> notBefore = timeOf(X509_get0_notBefore(objection.certificate));
  const std::optional<Time> notAfter = timeOf(X509_get0_notAfter(objection.certificate));
  maker.add(DetailName::kNotBefore, notBefore).add(DetailName::kNotAfter, notAfter);
  maker.addDistance(objection.code == X509_V_ERR_CERT_NOT_YET_VALID ? notBefore : notAfter,
                    checked);
}

void addIssuer(FindingMaker& maker, const RefCertificate& certificate) {
  maker.add(DetailName::kIssuer, certificate->issuer().asString());
  const ASN1_OCTET_STRING* const key = X509_get0_authority_key_id(certificate);
  if (key == nullptr) return;
  const auto length = static_cast<std::size_t>(ASN1_STRING_length(key));
  maker.add(DetailName::kKeyIdentifier,
            hexText(ASN1_STRING_get0_data(key), std::min<std::size_t>(length, 64)));
}

void addSigner(FindingMaker& maker, const Objection& objection,
               const std::vector<RefCertificate>& path) {
  const auto above = static_cast<std::size_t>(objection.depth) + 1;
  if (objection.depth < 0 || path.empty()) return;
  const RefCertificate& signer = path[std::min(above, path.size() - 1)];
  maker.add(DetailName::kSigner, signer->subject().asString());
  maker.add(DetailName::kSignerSerial, serialText(X509_get0_serialNumber(signer)));
}

void addKey(FindingMaker& maker, const RefCertificate& certificate, int securityLevel) {
  const ErrorScope errors;
  EVP_PKEY* const key = X509_get0_pubkey(certificate);
  if (key != nullptr) {
    const char* const type = EVP_PKEY_get0_type_name(key);
    maker.add(DetailName::kKeyType, type == nullptr ? "" : type);
    maker.add(DetailName::kKeyBits, EVP_PKEY_get_bits(key));
    maker.add(DetailName::kSecurityBits, EVP_PKEY_get_security_bits(key));
  }
  maker.add(DetailName::kMinimumBits, bitsOfLevel(securityLevel));
}

void addDigest(FindingMaker& maker, const RefCertificate& certificate, int securityLevel) {
  const ErrorScope errors;
  int digest = NID_undef;
  int bits = 0;
  X509_get_signature_info(certificate, &digest, nullptr, &bits, nullptr);
  maker.add(DetailName::kDigest, digest == NID_undef
                                     ? nameOfNID(X509_get_signature_nid(certificate))
                                     : nameOfNID(digest));
  maker.add(DetailName::kSecurityBits, bits);
  maker.add(DetailName::kMinimumBits, bitsOfLevel(securityLevel));
}

void addCriticalExtension(FindingMaker& maker, const RefCertificate& certificate) {
  for (int i = 0; i < X509_get_ext_count(certificate); ++i) {
    X509_EXTENSION* const extension = X509_get_ext(certificate, i);
    if (X509_EXTENSION_get_critical(extension) == 0 || X509_supported_extension(extension) != 0) {
      continue;
    }
    char text[128] = {};
    if (OBJ_obj2txt(text, sizeof text, X509_EXTENSION_get_object(extension), 1) > 0) {
      maker.add(DetailName::kExtension, text);
    }
    return;
  }
}

void addPolicies(FindingMaker& maker, const RefCertificate& certificate,
                 const std::set<std::string>& required) {
  const ErrorScope errors;
  const Owned<CERTIFICATEPOLICIES> policies(static_cast<CERTIFICATEPOLICIES*>(
      X509_get_ext_d2i(certificate, NID_certificate_policies, nullptr, nullptr)));
  constexpr int kMaximumPolicies = 16;
  std::string text;
  for (int i = 0; i < std::min(sk_POLICYINFO_num(policies.get()), kMaximumPolicies); ++i) {
    char oid[128] = {};
    if (OBJ_obj2txt(oid, sizeof oid, sk_POLICYINFO_value(policies.get(), i)->policyid, 1) > 0) {
      text += (text.empty() ? "" : " ") + std::string(oid);
    }
  }
  maker.add(DetailName::kPolicies, text.empty() ? "none" : text);
  text.clear();
  for (const std::string& oid : required) text += (text.empty() ? "" : " ") + oid;
  maker.add(DetailName::kRequiredPolicies, text);
}

// The nearest CA above that has the constraint which a name of the certificate breaks.
void addNameConstraint(FindingMaker& maker, const Objection& objection,
                       const std::vector<RefCertificate>& path) {
  const std::optional<NameConstraintBreach> breach =
      findNameConstraintBreach(objection.certificate, objection.depth, path);
  if (!breach) return;
  maker.add(DetailName::kName, breach->name);
  maker.add(DetailName::kConstraint, breach->constraint);
  maker.add(DetailName::kConstrainedBy, breach->authority->subject().asString());
}

void addValues(FindingMaker& maker, Rule rule, const Objection& objection,
               const Surroundings& surroundings) {
  const RefCertificate& certificate = objection.certificate;
  switch (rule) {
    case Rule::kExpired:
    case Rule::kNotYetValid:
      return addTimes(maker, objection, surroundings.checked);
    case Rule::kIssuerUnknown:
    case Rule::kIssuerSourceFailed:
    case Rule::kTrustDirectoryMissing:
    case Rule::kTrustDirectoryEmpty:
    case Rule::kTrustFileUnreadable:
      return addIssuer(maker, certificate);
    case Rule::kCertificateSignature:
      return addSigner(maker, objection, surroundings.path);
    case Rule::kPathLength:
      maker.add(DetailName::kPathLength, X509_get_pathlen(certificate));
      maker.add(DetailName::kCAsBelow, casBelow(surroundings.path, objection.depth));
      return;
    case Rule::kChainTooLong:
      maker.add(DetailName::kMaximumDepth, surroundings.maximumDepth);
      return;
    case Rule::kKeyUsage:
      maker.add(DetailName::kKeyUsage, keyUsageText(certificate));
      maker.add(DetailName::kNeeded,
                objection.code == X509_V_ERR_KEYUSAGE_NO_CERTSIGN ? "keyCertSign" : "");
      return;
    case Rule::kKeyTooWeak:
      return addKey(maker, certificate, surroundings.securityLevel);
    case Rule::kDigestTooWeak:
      return addDigest(maker, certificate, surroundings.securityLevel);
    case Rule::kCriticalExtension:
      return addCriticalExtension(maker, certificate);
    case Rule::kPolicy:
      return addPolicies(maker, certificate, surroundings.requiredPolicies);
    case Rule::kNameConstraint:
    case Rule::kNameConstraintUnsupported:
      return addNameConstraint(maker, objection, surroundings.path);
    default:
      return;
  }
}

}  // namespace

Rule ruleOf(int code) noexcept {
  switch (code) {
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      return Rule::kIssuerUnknown;
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
      return Rule::kSelfSigned;
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
      return Rule::kRootUntrusted;
    case X509_V_ERR_CERT_CHAIN_TOO_LONG:
    case X509_V_ERR_PATH_LOOP:
      return Rule::kChainTooLong;
    case X509_V_ERR_UNABLE_TO_DECRYPT_CERT_SIGNATURE:
    case X509_V_ERR_CERT_SIGNATURE_FAILURE:
      return Rule::kCertificateSignature;
    case X509_V_ERR_UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY:
    case X509_V_ERR_NO_ISSUER_PUBLIC_KEY:
    case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
    case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
    case X509_V_ERR_UNSUPPORTED_SIGNATURE_ALGORITHM:
    case X509_V_ERR_SIGNATURE_ALGORITHM_MISMATCH:
    case X509_V_ERR_SIGNATURE_ALGORITHM_INCONSISTENCY:
      return Rule::kCertificateMalformed;
    case X509_V_ERR_CERT_NOT_YET_VALID:
      return Rule::kNotYetValid;
    case X509_V_ERR_CERT_HAS_EXPIRED:
      return Rule::kExpired;
    case X509_V_ERR_INVALID_CA:
    case X509_V_ERR_INVALID_NON_CA:
      return Rule::kNotACA;
    case X509_V_ERR_PATH_LENGTH_EXCEEDED:
    case X509_V_ERR_PROXY_PATH_LENGTH_EXCEEDED:
      return Rule::kPathLength;
    case X509_V_ERR_KEYUSAGE_NO_CERTSIGN:
    case X509_V_ERR_KEYUSAGE_NO_DIGITAL_SIGNATURE:
      return Rule::kKeyUsage;
    case X509_V_ERR_INVALID_PURPOSE:
      return Rule::kPurpose;
    case X509_V_ERR_CERT_UNTRUSTED:
    case X509_V_ERR_CERT_REJECTED:
      return Rule::kTrustSettings;
    case X509_V_ERR_HOSTNAME_MISMATCH:
    case X509_V_ERR_EMAIL_MISMATCH:
    case X509_V_ERR_IP_ADDRESS_MISMATCH:
      return Rule::kNameMismatch;
    case X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION:
      return Rule::kCriticalExtension;
    case X509_V_ERR_INVALID_EXTENSION:
    case X509_V_ERR_INVALID_POLICY_EXTENSION:
    case X509_V_ERR_UNSUPPORTED_EXTENSION_FEATURE:
      return Rule::kExtensionInvalid;
    case X509_V_ERR_PERMITTED_VIOLATION:
    case X509_V_ERR_EXCLUDED_VIOLATION:
      return Rule::kNameConstraint;
    case X509_V_ERR_SUBTREE_MINMAX:
    case X509_V_ERR_UNSUPPORTED_CONSTRAINT_TYPE:
    case X509_V_ERR_UNSUPPORTED_CONSTRAINT_SYNTAX:
    case X509_V_ERR_UNSUPPORTED_NAME_SYNTAX:
      return Rule::kNameConstraintUnsupported;
    case X509_V_ERR_NO_EXPLICIT_POLICY:
      return Rule::kPolicy;
    case X509_V_ERR_EE_KEY_TOO_SMALL:
    case X509_V_ERR_CA_KEY_TOO_SMALL:
      return Rule::kKeyTooWeak;
    case X509_V_ERR_CA_MD_TOO_WEAK:
      return Rule::kDigestTooWeak;
    case X509_V_ERR_STORE_LOOKUP:
      return Rule::kIssuerSourceFailed;
    case X509_V_ERR_OUT_OF_MEM:
      return Rule::kOutOfResources;
    case X509_V_ERR_CERT_REVOKED:
      return Rule::kRevoked;
    case X509_V_ERR_UNABLE_TO_GET_CRL:
      return Rule::kCRLMissing;
    case X509_V_ERR_UNABLE_TO_GET_CRL_ISSUER:
      return Rule::kCRLIssuerUnknown;
    case X509_V_ERR_CRL_PATH_VALIDATION_ERROR:
      return Rule::kCRLIssuerInvalid;
    case X509_V_ERR_KEYUSAGE_NO_CRL_SIGN:
      return Rule::kCRLIssuerNotAllowed;
    case X509_V_ERR_CRL_NOT_YET_VALID:
      return Rule::kCRLNotYetValid;
    case X509_V_ERR_CRL_HAS_EXPIRED:
      return Rule::kCRLExpired;
    case X509_V_ERR_UNABLE_TO_DECRYPT_CRL_SIGNATURE:
    case X509_V_ERR_CRL_SIGNATURE_FAILURE:
      return Rule::kCRLSignature;
    case X509_V_ERR_ERROR_IN_CRL_LAST_UPDATE_FIELD:
    case X509_V_ERR_ERROR_IN_CRL_NEXT_UPDATE_FIELD:
      return Rule::kCRLMalformed;
    case X509_V_ERR_UNHANDLED_CRITICAL_CRL_EXTENSION:
      return Rule::kCRLCriticalExtension;
    case X509_V_ERR_DIFFERENT_CRL_SCOPE:
      return Rule::kCRLScope;
    case X509_V_ERR_SUBJECT_ISSUER_MISMATCH:
    case X509_V_ERR_AKID_SKID_MISMATCH:
    case X509_V_ERR_AKID_ISSUER_SERIAL_MISMATCH:
    case X509_V_ERR_PROXY_CERTIFICATES_NOT_ALLOWED:
    case X509_V_ERR_PROXY_SUBJECT_NAME_VIOLATION:
    case X509_V_ERR_UNNESTED_RESOURCE:
    case X509_V_ERR_SUITE_B_INVALID_VERSION:
    case X509_V_ERR_SUITE_B_INVALID_ALGORITHM:
    case X509_V_ERR_SUITE_B_INVALID_CURVE:
    case X509_V_ERR_SUITE_B_INVALID_SIGNATURE_ALGORITHM:
    case X509_V_ERR_SUITE_B_LOS_NOT_ALLOWED:
    case X509_V_ERR_SUITE_B_CANNOT_SIGN_P_384_WITH_P_256:
    case X509_V_ERR_DANE_NO_MATCH:
    case X509_V_ERR_NO_VALID_SCTS:
    case X509_V_ERR_PATHLEN_INVALID_FOR_NON_CA:
    case X509_V_ERR_PATHLEN_WITHOUT_KU_KEY_CERT_SIGN:
    case X509_V_ERR_KU_KEY_CERT_SIGN_INVALID_FOR_NON_CA:
    case X509_V_ERR_ISSUER_NAME_EMPTY:
    case X509_V_ERR_SUBJECT_NAME_EMPTY:
    case X509_V_ERR_MISSING_AUTHORITY_KEY_IDENTIFIER:
    case X509_V_ERR_MISSING_SUBJECT_KEY_IDENTIFIER:
    case X509_V_ERR_EMPTY_SUBJECT_ALT_NAME:
    case X509_V_ERR_EMPTY_SUBJECT_SAN_NOT_CRITICAL:
    case X509_V_ERR_CA_BCONS_NOT_CRITICAL:
    case X509_V_ERR_AUTHORITY_KEY_IDENTIFIER_CRITICAL:
    case X509_V_ERR_SUBJECT_KEY_IDENTIFIER_CRITICAL:
    case X509_V_ERR_CA_CERT_MISSING_KEY_USAGE:
    case X509_V_ERR_EXTENSIONS_REQUIRE_VERSION_3:
    case X509_V_ERR_EC_KEY_EXPLICIT_PARAMS:
      return Rule::kProfile;
    default:
      return Rule::kUnexplained;
  }
}

bool isAboutTheIssuer(int code) noexcept {
  const Rule rule = ruleOf(code);
  return rule == Rule::kIssuerUnknown || rule == Rule::kSelfSigned || rule == Rule::kRootUntrusted;
}

bool isAboutRevocation(int code) noexcept {
  const Rule rule = ruleOf(code);
  return rule >= Rule::kRevoked && rule <= Rule::kCRLCircle;
}

Finding pathFinding(const Objection& objection, const Evidence& evidence,
                    const Surroundings& surroundings) {
  Rule rule = ruleOf(objection.code);
  std::optional<TrustDirectoryFault> fault;
  const SourceRecord::Use* failed = nullptr;
  if (isAboutTheIssuer(objection.code) && !objection.certificate.empty()) {
    fault = faultOfTrustDirectory(surroundings.trustDirectory, objection.certificate->issuer());
    // Who ends with a root of its own asks for no issuer: only a source of trust might have had it.
    if (!fault && rule == Rule::kIssuerUnknown) failed = failedIssuerSource(evidence.sources);
    if (fault) rule = fault->rule;
    // That a directory is missing explains nothing where it need not be there (`trustDirectory`).
    if (failed != nullptr && ruleOf(*failed) == Rule::kTrustDirectoryMissing) failed = nullptr;
    if (failed != nullptr) rule = ruleOf(*failed);
  }
  FindingMaker maker(rule, objection.code);
  if (surroundings.rulesOnly) return std::move(maker).make();
  maker.about(objection.certificate, objection.depth);
  const auto depth = static_cast<std::size_t>(objection.depth);
  if (objection.crl.empty() && objection.depth >= 0 && depth < surroundings.origins.size()) {
    maker.from(surroundings.origins[depth]);
  }
  if (!objection.certificate.empty()) addValues(maker, rule, objection, surroundings);
  if (rule == Rule::kIssuerUnknown && surroundings.issuerCameAlong) {
    maker.add(DetailName::kText, "one of that name came along, and has not issued it");
  }
  if (rule == Rule::kProfile || rule == Rule::kUnexplained || rule == Rule::kCertificateMalformed ||
      rule == Rule::kExtensionInvalid) {
    maker.add(DetailName::kText, X509_verify_cert_error_string(objection.code));
  }
  if (fault) {
    maker.from({VerificationReport::Origin::Kind::kTrustDirectory, surroundings.trustDirectory,
                fault->file});
    maker.add(DetailName::kDirectory, surroundings.trustDirectory);
    maker.add(DetailName::kFile, fault->file).add(DetailName::kError, fault->reason);
  }
  if (failed != nullptr) addUse(maker, *failed);
  maker.add(objection.crl);
  return std::move(maker).make();
}

}  // namespace Velantrix::Crypto::PKX509
