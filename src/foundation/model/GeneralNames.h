// Lists of general names, as OpenSSL's stacks hold them. A stranger's list can have a name for each
// two octets of its extension: it is looked at where it stands, and not copied name by name.
#pragma once

#include <velantrix/DistinguishedName.h>
#include <velantrix/GeneralName.h>

#include <openssl/x509v3.h>

#include <list>
#include <memory>

namespace Velantrix::Crypto::PKX509 {

/// Whether a name of one list equals one of the other. A null list has no names.
bool haveOneInCommon(const GENERAL_NAMES* left, const GENERAL_NAMES* right) noexcept;

/// Whether one of @p names, which may be null, is the directory name @p name.
bool holdDirectoryName(const GENERAL_NAMES* names, const DistinguishedName& name) noexcept;

/// How many names there are; none for null.
inline int countOf(const std::shared_ptr<const GENERAL_NAMES>& names) {
  return names == nullptr ? 0 : sk_GENERAL_NAME_num(names.get());
}

/// The name at @p index, which shares the list.
RefGeneralName generalName(const std::shared_ptr<const GENERAL_NAMES>& names, int index);

/// All of @p names, in their order, which share the list; none for null.
std::list<RefGeneralName> generalNames(const std::shared_ptr<const GENERAL_NAMES>& names);

}  // namespace Velantrix::Crypto::PKX509
