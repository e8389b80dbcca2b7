// A small PKI that is the same in every process, octet for octet: targets verify against it, and
// the seeds that scripts make are signed with its keys.
//
// Its keys are Ed25519, which signs without chance, and nobody's; its times are fixed and far
// apart.
#pragma once

#include "support/Pki.h"
#include "unit/verify/World.h"

namespace Velantrix::Fuzz {

using Test::Issued;

inline constexpr const char* kFrom = "20000101000000Z";
inline constexpr const char* kUntil = "20991231235959Z";

std::shared_ptr<EVP_PKEY> key(unsigned char number);

/// Options with the fixture's times and the key `number`; the issuer is the root.
Test::CertificateOptions certificateOptions(const std::string& subject, int serial,
                                            unsigned char number);
/// A CRL of the root, with the fixture's times.
Test::CRLOptions crlOptions();

const Issued& root();  ///< "CN=Root", key 1, trusted in `World`s of targets
const Issued& leaf();  ///< "CN=Leaf", serial number 7, key 2, of the root

}  // namespace Velantrix::Fuzz
