// A lookup in front of OpenSSL's of hash directories, which answers just what that would, with objects
// that all stores of the process share.
//
//   addDirectories(store, "/etc/ssl/certs:/opt/certs", X509_FILETYPE_PEM);
//
// OpenSSL's reads and decodes a file for each store that it serves, and stores are made by the message.
// Here the file system is asked as there, name by name, 0a6481c9.0 upwards to the first that is missing
// or cannot be read, directory by directory to the first that has the name; but what a file holds is
// read once (crypto/x509/by_dir.c, by_file.c).
//
// What is not a plain file OpenSSL reads, and what is damaged too, so that the same is in its queue of
// errors. Its lookup stands behind with the directories that only it can find.
#pragma once

#include <openssl/x509_vfy.h>

#include <string>

namespace Velantrix::Crypto::PKX509 {

// Adds both, or a directory to both: a list of them, separated by colons, as X509_LOOKUP_add_dir() has
// it. What that answers; without memory for the first one OpenSSL's stands alone.
int addDirectories(X509_STORE* store, const std::string& directories, int fileType);

}  // namespace Velantrix::Crypto::PKX509
