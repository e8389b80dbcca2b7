/// @file
/// The rules that a certificate or what speaks about it can break, and what follows from each.
///
/// @code
///   for (const RuleFacts& facts : kRules) std::cout << facts.name << ": " << facts.advice << '\n';
/// @endcode
#pragma once

#include <velantrix/Export.h>

#include <cstddef>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

/// What a mail system does with a verdict.
enum class Outcome {
  kValid,
  /// The same mail under the same configuration will not be accepted by waiting: an SMTP 5xx.
  kPermanent,
  /// What is missing may be there later: an SMTP 4xx.
  kTemporary,
  /// Something on this machine has to be mended: a 4xx, and a page to the operator.
  kLocal
};

/// "valid", "permanent", "temporary", "local".
PKX509_EXPORT std::string_view nameOf(Outcome outcome) noexcept;

/// Why a verification ended as it did. The numbers mean nothing beyond this version of the library;
/// the names in `kRules` stay, and others may be added.
enum class Rule {
  // The path (RFC 5280, 6.1)
  kIssuerUnknown,
  kSelfSigned,
  kRootUntrusted,
  kChainTooLong,
  kCertificateSignature,
  kCertificateMalformed,
  kExpired,
  kNotYetValid,
  kNotACA,
  kPathLength,
  kKeyUsage,
  kPurpose,
  kTrustSettings,
  kNameMismatch,
  kCriticalExtension,
  kExtensionInvalid,
  kNameConstraint,
  kNameConstraintUnsupported,
  kPolicy,
  kKeyTooWeak,
  kDigestTooWeak,
  kProfile,
  kIssuerSourceFailed,
  kTrustDirectoryMissing,
  kTrustDirectoryEmpty,
  kTrustFileUnreadable,

  // The certificate's revocation (RFC 5280, 6.3; RFC 6960; RFC 9608)
  kRevoked,
  kOnHold,
  kNoRevocationMisused,
  kRevocationUnsourced,

  // CRLs
  kCRLMissing,
  kCRLUnreachable,
  kCRLSourceFailed,
  kCRLFileUnreadable,
  kCRLMalformed,
  kCRLExpired,
  kCRLNotYetValid,
  kCRLSignature,
  kCRLTooWeak,
  kCRLScope,
  kCRLReasons,
  kCRLCriticalExtension,
  kCRLNoBase,
  kCRLSuperseded,
  kCRLIssuerUnknown,
  kCRLIssuerInvalid,
  kCRLIssuerRevoked,
  kCRLIssuerUndetermined,
  kCRLIssuerNotAllowed,
  kCRLCircle,

  // OCSP
  kOCSPUnreachable,
  kOCSPMalformed,
  kOCSPNotSuccessful,
  kOCSPUnknown,
  kOCSPNonce,
  kOCSPOtherCertificate,
  kOCSPExpired,
  kOCSPNotYetValid,
  kOCSPSignature,
  kOCSPTooWeak,
  kOCSPCriticalExtension,
  kOCSPResponderUnknown,
  kOCSPResponderUnauthorised,
  kOCSPResponderInvalid,
  kOCSPResponderRevoked,
  kOCSPResponderUndetermined,

  // Hosts, bounds, this machine
  kAddressRefused,
  kSchemeNotSpoken,
  kClientIdentity,
  kCacheUnusable,
  kBudgetSpent,
  kNestedTooDeep,
  kOutOfResources,

  // The program
  kCallbackAccepted,
  kCallbackRefused,
  kOverrideAccepted,
  kOverrideRefused,
  kEarlierFailure,
  kException,
  kUnexplained,
  kNotVerified
};

/// What there is to say about a rule. Texts are literals.
struct RuleFacts {
  Rule rule;
  /// Stable, for programs: lower case and hyphens.
  std::string_view name;
  /// What a verdict comes to for which the rule decided.
  Outcome outcome;
  /// What is wrong, for people; no values, no full stop.
  std::string_view title;
  /// What to do about it; empty where it is no failure.
  std::string_view advice;
};

/// All of them, in the order of `Rule`.
inline constexpr RuleFacts kRules[] = {
    {Rule::kIssuerUnknown, "issuer-unknown", Outcome::kPermanent,
     "nobody knows the certificate of the issuer",
     "the sender has to send the intermediate certificates along"},
    {Rule::kSelfSigned, "self-signed", Outcome::kPermanent,
     "the certificate is signed by itself and not trusted",
     "put it into the trust directory if it is to be trusted"},
    {Rule::kRootUntrusted, "root-untrusted", Outcome::kPermanent,
     "the path ends with a root that is not trusted",
     "put the root into the trust directory if it is to be trusted"},
    {Rule::kChainTooLong, "chain-too-long", Outcome::kPermanent, "the path is too long",
     "raise the maximum depth if such a path is meant"},
    {Rule::kCertificateSignature, "certificate-signature", Outcome::kPermanent,
     "the signature of the certificate is wrong",
     "nothing: a forgery, a damaged certificate, or another CA of the same name"},
    {Rule::kCertificateMalformed, "certificate-malformed", Outcome::kPermanent,
     "the certificate cannot be read", "its CA has to issue another one"},
    {Rule::kExpired, "expired", Outcome::kPermanent, "the certificate has expired",
     "its owner has to renew it, or this machine's clock is wrong"},
    {Rule::kNotYetValid, "not-yet-valid", Outcome::kTemporary, "the certificate is not valid yet",
     "wait, or look at this machine's clock"},
    {Rule::kNotACA, "not-a-ca", Outcome::kPermanent, "a certificate that is no CA's issued another",
     "nothing: it must not be accepted"},
    {Rule::kPathLength, "path-length", Outcome::kPermanent,
     "there are more CAs below the certificate than it allows", "its CA has to mend the hierarchy"},
    {Rule::kKeyUsage, "key-usage", Outcome::kPermanent, "the key may not be used for this",
     "the sender has to use another certificate"},
    {Rule::kPurpose, "purpose", Outcome::kPermanent,
     "the certificate is not meant for this purpose", "the sender has to use another certificate"},
    {Rule::kTrustSettings, "trust-settings", Outcome::kPermanent,
     "the trust settings of the certificate do not allow it",
     "look at the trust settings in the trust directory"},
    {Rule::kNameMismatch, "name-mismatch", Outcome::kPermanent,
     "the certificate is not for the name that was expected", "look at the name that is asked for"},
    {Rule::kCriticalExtension, "critical-extension", Outcome::kPermanent,
     "a critical extension is not understood", "its CA has to issue another one"},
    {Rule::kExtensionInvalid, "extension-invalid", Outcome::kPermanent, "an extension is wrong",
     "its CA has to issue another one"},
    {Rule::kNameConstraint, "name-constraint", Outcome::kPermanent,
     "a CA may not issue certificates for such a name",
     "nothing: the CA has gone beyond its name constraints"},
    {Rule::kNameConstraintUnsupported, "name-constraint-unsupported", Outcome::kPermanent,
     "a name constraint cannot be applied", "its CA has to mend the name constraints"},
    {Rule::kPolicy, "policy", Outcome::kPermanent, "the path has none of the required policies",
     "its owner needs one under such a policy, or the settings have to change"},
    {Rule::kKeyTooWeak, "key-too-weak", Outcome::kPermanent, "the key is too weak",
     "its owner needs a certificate with a stronger key"},
    {Rule::kDigestTooWeak, "digest-too-weak", Outcome::kPermanent,
     "the signature's digest is too weak", "its CA has to issue another one"},
    {Rule::kProfile, "profile", Outcome::kPermanent,
     "the certificate breaks a rule of the profile that is asked for",
     "its CA has to issue another one"},
    {Rule::kIssuerSourceFailed, "issuer-source-failed", Outcome::kTemporary,
     "the issuer is unknown, and a source that may have its certificate failed",
     "bring the source back"},
    {Rule::kTrustDirectoryMissing, "trust-directory-missing", Outcome::kLocal,
     "the directory of trusted certificates cannot be read", "create it, or mend its permissions"},
    {Rule::kTrustDirectoryEmpty, "trust-directory-empty", Outcome::kLocal,
     "the directory of trusted certificates has none",
     "put the roots there and run \"openssl rehash\""},
    {Rule::kTrustFileUnreadable, "trust-file-unreadable", Outcome::kLocal,
     "a file of trusted certificates cannot be read", "mend or remove the file"},

    {Rule::kRevoked, "revoked", Outcome::kPermanent, "the certificate is revoked",
     "its owner needs a new certificate"},
    {Rule::kOnHold, "on-hold", Outcome::kTemporary, "the certificate is on hold",
     "its CA decides whether it comes back"},
    {Rule::kNoRevocationMisused, "no-revocation-misused", Outcome::kPermanent,
     "noRevAvail stands where it must not", "its CA has to issue another one"},
    {Rule::kRevocationUnsourced, "revocation-unsourced", Outcome::kLocal,
     "no source says whether the certificate is revoked",
     "put its CA's CRL into the CRL directory, or configure a source"},

    {Rule::kCRLMissing, "crl-missing", Outcome::kTemporary, "no CRL was found",
     "put one into the CRL directory, or look why no source has one"},
    {Rule::kCRLUnreachable, "crl-unreachable", Outcome::kTemporary, "a CRL could not be fetched",
     "look at the host, the network and the firewall"},
    {Rule::kCRLSourceFailed, "crl-source-failed", Outcome::kTemporary, "a source of CRLs failed",
     "bring the source back"},
    {Rule::kCRLFileUnreadable, "crl-file-unreadable", Outcome::kLocal, "a CRL file cannot be read",
     "mend or remove the file"},
    {Rule::kCRLMalformed, "crl-malformed", Outcome::kTemporary, "a CRL is malformed",
     "its issuer has to mend it"},
    {Rule::kCRLExpired, "crl-expired", Outcome::kTemporary, "the CRL has expired",
     "its issuer has to issue the next one: fetch it, or replace it where it lies"},
    {Rule::kCRLNotYetValid, "crl-not-yet-valid", Outcome::kTemporary, "the CRL is from the future",
     "look at this machine's clock"},
    {Rule::kCRLSignature, "crl-signature", Outcome::kTemporary, "the signature of the CRL is wrong",
     "a wrong or damaged file, or a forgery: replace it where it lies"},
    {Rule::kCRLTooWeak, "crl-too-weak", Outcome::kTemporary, "the signature of the CRL is too weak",
     "its issuer has to sign with something stronger"},
    {Rule::kCRLScope, "crl-scope", Outcome::kTemporary,
     "the CRL does not speak about this certificate", "look for the CRL that does"},
    {Rule::kCRLReasons, "crl-reasons", Outcome::kTemporary, "the CRLs do not cover all reasons",
     "look for the CRL with the other reasons"},
    {Rule::kCRLCriticalExtension, "crl-critical-extension", Outcome::kTemporary,
     "a critical extension of the CRL is not understood", "ask its issuer"},
    {Rule::kCRLNoBase, "crl-no-base", Outcome::kTemporary, "the base of the delta CRL is missing",
     "look for the complete CRL"},
    {Rule::kCRLSuperseded, "crl-superseded", Outcome::kTemporary, "a newer CRL decides",
     "nothing: the newer one counts"},
    {Rule::kCRLIssuerUnknown, "crl-issuer-unknown", Outcome::kTemporary,
     "nobody knows the certificate of the CRL's issuer",
     "put it into the trust directory, or where intermediates are looked for"},
    {Rule::kCRLIssuerInvalid, "crl-issuer-invalid", Outcome::kTemporary,
     "the certificate of the CRL's issuer is not valid", "look at that certificate"},
    {Rule::kCRLIssuerRevoked, "crl-issuer-revoked", Outcome::kTemporary,
     "the CRL's issuer is revoked", "a CRL by another issuer is needed"},
    {Rule::kCRLIssuerUndetermined, "crl-issuer-undetermined", Outcome::kTemporary,
     "whether the CRL's issuer is revoked could not be found out",
     "look at what is said about the issuer"},
    {Rule::kCRLIssuerNotAllowed, "crl-issuer-not-allowed", Outcome::kTemporary,
     "the CRL's issuer may not sign CRLs", "its CA has to mend its key usage"},
    {Rule::kCRLCircle, "crl-circle", Outcome::kTemporary,
     "the CRL's issuer is valid only if the CRL is believed", "its CA has to publish another CRL"},

    {Rule::kOCSPUnreachable, "ocsp-unreachable", Outcome::kTemporary,
     "the OCSP responder gave no answer", "look at the host, the network and the firewall"},
    {Rule::kOCSPMalformed, "ocsp-malformed", Outcome::kTemporary, "the OCSP answer is malformed",
     "ask the responder's operator"},
    {Rule::kOCSPNotSuccessful, "ocsp-not-successful", Outcome::kTemporary,
     "the OCSP responder says that it cannot answer", "wait, or ask the responder's operator"},
    {Rule::kOCSPUnknown, "ocsp-unknown", Outcome::kTemporary,
     "the OCSP responder does not know the certificate", "ask the responder's operator"},
    {Rule::kOCSPNonce, "ocsp-nonce", Outcome::kTemporary, "the OCSP answer is to another question",
     "a replay, or a cache in between"},
    {Rule::kOCSPOtherCertificate, "ocsp-other-certificate", Outcome::kTemporary,
     "the OCSP answer is about other certificates only", "ask the responder's operator"},
    {Rule::kOCSPExpired, "ocsp-expired", Outcome::kTemporary, "the OCSP answer is too old",
     "ask the responder's operator, or look at this machine's clock"},
    {Rule::kOCSPNotYetValid, "ocsp-not-yet-valid", Outcome::kTemporary,
     "the OCSP answer is from the future", "look at this machine's clock"},
    {Rule::kOCSPSignature, "ocsp-signature", Outcome::kTemporary,
     "the signature of the OCSP answer is wrong", "a damaged answer, or a forgery"},
    {Rule::kOCSPTooWeak, "ocsp-too-weak", Outcome::kTemporary,
     "the signature of the OCSP answer is too weak", "ask the responder's operator"},
    {Rule::kOCSPCriticalExtension, "ocsp-critical-extension", Outcome::kTemporary,
     "a critical extension of the OCSP answer is not understood", "ask the responder's operator"},
    {Rule::kOCSPResponderUnknown, "ocsp-responder-unknown", Outcome::kTemporary,
     "nobody knows the certificate of the OCSP responder", "ask the responder's operator"},
    {Rule::kOCSPResponderUnauthorised, "ocsp-responder-unauthorised", Outcome::kTemporary,
     "the OCSP answer is signed by somebody who may not speak about the certificate",
     "ask the responder's operator, or name the responder in the settings"},
    {Rule::kOCSPResponderInvalid, "ocsp-responder-invalid", Outcome::kTemporary,
     "the certificate of the OCSP responder is not valid", "ask the responder's operator"},
    {Rule::kOCSPResponderRevoked, "ocsp-responder-revoked", Outcome::kTemporary,
     "the certificate of the OCSP responder is revoked", "ask the responder's operator"},
    {Rule::kOCSPResponderUndetermined, "ocsp-responder-undetermined", Outcome::kTemporary,
     "whether the OCSP responder is revoked could not be found out",
     "look at what is said about the responder"},

    {Rule::kAddressRefused, "address-refused", Outcome::kPermanent,
     "the address policy refuses the host", "allow such addresses if they are your own"},
    {Rule::kSchemeNotSpoken, "scheme-not-spoken", Outcome::kLocal,
     "the place is named by a protocol that is not spoken",
     "configure an LDAP look-up, or put the CRL into the CRL directory"},
    {Rule::kClientIdentity, "client-identity", Outcome::kLocal,
     "this machine's client certificate or key cannot be loaded", "mend the files"},
    {Rule::kCacheUnusable, "cache-unusable", Outcome::kLocal, "the cache of CRLs cannot be used",
     "create it, or mend its permissions or the disk"},
    {Rule::kBudgetSpent, "budget-spent", Outcome::kTemporary,
     "the verification has used up what it may use", "look at the sources that took so much"},
    {Rule::kNestedTooDeep, "nested-too-deep", Outcome::kTemporary,
     "verifications depend on each other in a circle, too deep, or too many",
     "look at who signs the CRLs"},
    {Rule::kOutOfResources, "out-of-resources", Outcome::kTemporary,
     "this machine lacks memory or descriptors", "look at the machine"},

    {Rule::kCallbackAccepted, "callback-accepted", Outcome::kValid,
     "the program's verification callback let it pass", ""},
    {Rule::kCallbackRefused, "callback-refused", Outcome::kPermanent,
     "the program's verification callback refused it", "look at the program"},
    {Rule::kOverrideAccepted, "override-accepted", Outcome::kValid,
     "the program's own revocation check let it pass", ""},
    {Rule::kOverrideRefused, "override-refused", Outcome::kPermanent,
     "the program's own revocation check refused it", "look at the program"},
    {Rule::kEarlierFailure, "earlier-failure", Outcome::kTemporary,
     "an earlier failure of this verifier stands, though it would be valid now",
     "the program has to make a new verifier"},
    {Rule::kException, "exception", Outcome::kLocal, "the verification ended with an exception",
     "look at the text"},
    {Rule::kUnexplained, "unexplained", Outcome::kPermanent, "not valid, for another reason",
     "look at the text"},
    {Rule::kNotVerified, "not-verified", Outcome::kPermanent, "no verification has taken place",
     "the program has to verify before it asks"}};

/// Every rule has its facts.
constexpr const RuleFacts& factsOf(Rule rule) noexcept {
  return kRules[static_cast<std::size_t>(rule)];
}

}  // namespace Velantrix::Crypto::PKX509
