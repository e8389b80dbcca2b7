#include "foundation/base/Text.h"

#include <velantrix/EmailAddress.h>

#include <algorithm>

namespace Velantrix {

EmailAddress::EmailAddress(const std::string& text) {
  // The last '@' parts the domain off: a quoted local part may hold another (RFC 5321, 4.1.2).
  const std::size_t at = text.rfind('@');
  if (at == std::string::npos || at == 0 || at + 1 == text.size()) return;
  if (std::any_of(text.begin(), text.end(), isControl)) return;
  address_ = text;
}

}  // namespace Velantrix
