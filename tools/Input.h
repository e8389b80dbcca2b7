// Reads what the command line names.
#pragma once

#include <velantrix/Certificate.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/LDAPConnection.h>

#include <exception>
#include <list>
#include <string>
#include <vector>

namespace Velantrix::Tool {

/// The certificates of a file or of standard input, at least one.
/// @throws ToolError, naming @p file, when it cannot be read or has none
std::list<Crypto::PKX509::RefCertificate> readCertificates(const std::string& file);

/// The same of several files, of which one may be standard input; none of no file.
std::list<Crypto::PKX509::RefCertificate> readCertificates(const std::vector<std::string>& files);

/// The certificates and CRLs of a file or of standard input in its order, and what is wrong with
/// those that cannot be read; at least one item.
/// @throws ToolError, naming @p file, when it cannot be read or has none
std::list<Crypto::PKX509::CertificateFactory::Item> readObjects(const std::string& file);

/// The lines of a file or of standard input, without blanks around them.
/// @throws ToolError, naming @p file, when it cannot be read
std::vector<std::string> readLines(const std::string& file);

/// Looks whether a directory given for certificates or CRLs can serve at all. A verification would
/// take one that is not there, or has no file in it that a look-up opens, for an empty one, and its
/// verdict would not tell why.
/// @throws ToolError naming @p option and @p directory
void requireHashDirectory(const std::string& option, const std::string& directory);

/// The LDAP server of an option --ldap.
/// @throws ToolError when @p uri is none of a server
LDAPConnection::RefServer ldapServer(const std::string& uri);

/// @throws ToolError when standard input is among @p files more than once
void requireOneStandardInput(const std::vector<std::string>& files);

/// What an exception says, for people.
std::string reasonOf(const std::exception& error);

/// The same, with @p subject in front where the text does not begin with it anyway.
std::string describe(const std::string& subject, const std::exception& error);

}  // namespace Velantrix::Tool
