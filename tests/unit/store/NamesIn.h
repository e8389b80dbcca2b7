// The names of a hash directory as it is now.
#pragma once

#include "store/HashNames.h"

#include <string>

namespace Velantrix::Test {

inline Crypto::PKX509::HashNames namesIn(const std::string& directory, unsigned int number) {
  using Crypto::PKX509::DirectoryLook;
  return Crypto::PKX509::HashNames::in(directory, number, DirectoryLook::now(directory));
}

}  // namespace Velantrix::Test
