// Lists of general names out of OpenSSL's stacks.
#pragma once

#include <velantrix/GeneralName.h>

#include <openssl/x509v3.h>

#include <list>

namespace Velantrix::Crypto::PKX509 {

/// Whether a name of one list equals one of the other.
bool haveOneInCommon(const std::list<RefGeneralName>& left, const std::list<RefGeneralName>& right);

/// Copies of all names of @p names, in their order; none for null.
std::list<RefGeneralName> generalNames(const GENERAL_NAMES* names);

}  // namespace Velantrix::Crypto::PKX509
