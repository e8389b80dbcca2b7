// What is wrong with the directory of trusted certificates itself, where an issuer was not found in it.
#pragma once

#include <pkx509/Rule.h>
#include <velantrix/Certificate.h>
#include <velantrix/DistinguishedName.h>

#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509 {

struct TrustDirectoryFault {
  Rule rule = Rule::kTrustDirectoryMissing;  // or kTrustDirectoryEmpty, kTrustFileUnreadable
  std::string file = {};                     // that cannot be read
  std::string reason = {};
};

// Several directories are separated by colons, as OpenSSL has them; all of them have to be at fault, but
// for a file of the issuer's hash, which is one anywhere. None without a directory.
std::optional<TrustDirectoryFault> faultOfTrustDirectory(const std::string& directories,
                                                         const DistinguishedName& issuer);

// The file that a certificate was read from that OpenSSL found in one of the directories; empty when there
// is none of its name.
std::string fileInDirectories(const std::string& directories, const RefCertificate& certificate);

}  // namespace Velantrix::Crypto::PKX509
