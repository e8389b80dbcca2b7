// The names of the concrete values of findings. They are a part of what programs read: they are only ever
// added, and docs/REASONS.md lists them.
#pragma once

#include <string_view>

namespace Velantrix::Crypto::PKX509::DetailName {

// clang-format off
inline constexpr std::string_view
    kNotBefore = "notBefore",            // time
    kNotAfter = "notAfter",              // time
    kCheckTime = "checkTime",            // time: that was verified for
    kDistance = "secondsFromCheckTime",  // number: of the time that decided; negative is before it
    kIssuer = "issuer",                  // text: the name that was looked for
    kKeyIdentifier = "keyIdentifier",    // text: hexadecimal, of the issuer that was looked for
    kSigner = "signer",                  // text: whose key the signature was checked with
    kSignerSerial = "signerSerial",      // text
    kExtension = "extension",            // text: an object identifier or its name
    kKeyUsage = "keyUsage",              // text: what the certificate allows
    kNeeded = "needed",                  // text: what it would have to allow, or to be
    kPathLength = "pathLength",          // number: of CAs that are allowed below
    kCAsBelow = "casBelow",              // number: that there are
    kMaximumDepth = "maximumDepth",      // number
    kName = "name",                      // text: that is not allowed
    kConstraint = "constraint",          // text: that it breaks
    kConstrainedBy = "constrainedBy",    // text: the CA's name
    kPolicies = "policies",              // text: those of the certificate, separated by blanks
    kRequiredPolicies = "requiredPolicies",  // text
    kKeyType = "keyType",                // text
    kKeyBits = "keyBits",                // number
    kSecurityBits = "securityBits",      // number: that the key or the digest has
    kMinimumBits = "minimumSecurityBits",  // number: that the security level asks for
    kDigest = "digest",                  // text
    kCRLNumber = "crlNumber",            // text: decimal
    kBaseCRLNumber = "baseCRLNumber",    // text: decimal
    kCRLIssuer = "crlIssuer",            // text
    kResponder = "responder",            // text: name of who signed the OCSP answer
    kThisUpdate = "thisUpdate",          // time
    kNextUpdate = "nextUpdate",          // time
    kProducedAt = "producedAt",          // time: that an OCSP answer was signed at
    kEntries = "entries",                // number: of the CRL
    kRevocationDate = "revocationDate",  // time
    kReason = "reason",                  // text: a CRLReason
    kCoveredReasons = "coveredReasons",  // text: those that CRLs cover, separated by blanks
    kMissingReasons = "missingReasons",  // text: those that no CRL covers, separated by blanks
    kDistributionPoint = "distributionPoint",  // text: that a CRL names as its own
    kURI = "uri",                        // text
    kFile = "file",                      // text
    kDirectory = "directory",            // text
    kLookupMethod = "lookupMethod",      // text
    kHTTPStatus = "httpStatus",          // number
    kErrorNumber = "errno",              // number
    kError = "error",                    // text: what the system, TLS, the resolver or the server says
    kBytes = "bytes",                    // number
    kMilliseconds = "milliseconds",      // number
    kResource = "resource",              // text: what is used up
    kText = "text";                      // text: OpenSSL's, or an exception's

inline constexpr std::string_view kAll[] = {
    kNotBefore, kNotAfter, kCheckTime, kDistance, kIssuer, kKeyIdentifier, kSigner, kSignerSerial,
    kExtension, kKeyUsage, kNeeded, kPathLength, kCAsBelow, kMaximumDepth, kName, kConstraint,
    kConstrainedBy, kPolicies, kRequiredPolicies, kKeyType, kKeyBits, kSecurityBits, kMinimumBits,
    kDigest, kCRLNumber, kBaseCRLNumber, kCRLIssuer, kResponder, kThisUpdate, kNextUpdate, kProducedAt,
    kEntries, kRevocationDate, kReason, kCoveredReasons, kMissingReasons, kDistributionPoint, kURI, kFile, kDirectory, kLookupMethod, kHTTPStatus,
    kErrorNumber, kError, kBytes, kMilliseconds, kResource, kText};
// clang-format on

}  // namespace Velantrix::Crypto::PKX509::DetailName
