// Reads what the command line names.
#pragma once

#include <velantrix/Certificate.h>

#include <exception>
#include <list>
#include <string>

namespace Velantrix::Tool {

/// What stands for standard input among file names.
inline constexpr char kStandardInput[] = "-";

/// The certificates of a file or of standard input, at least one.
/// @throws ToolError, naming @p file, when it cannot be read or has none
std::list<Crypto::PKX509::RefCertificate> readCertificates(const std::string& file);

/// Looks whether a directory given for certificates or CRLs can serve at all. A verification would
/// take one that is not there, or has no file in it that a look-up opens, for an empty one, and its
/// verdict would not tell why.
/// @throws ToolError naming @p option and @p directory
void requireHashDirectory(const std::string& option, const std::string& directory);

/// What an exception says, with @p subject in front where the text does not begin with it anyway.
std::string describe(const std::string& subject, const std::exception& error);

}  // namespace Velantrix::Tool
