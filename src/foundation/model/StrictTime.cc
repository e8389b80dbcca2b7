#include "foundation/model/StrictTime.h"

#include <velantrix/ASN1.h>

#include <cstddef>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

namespace {

// YYMMDDHHMMSSZ and YYYYMMDDHHMMSSZ.
bool isWrittenAsAsked(int type, std::string_view text) {
  if (type != V_ASN1_UTCTIME && type != V_ASN1_GENERALIZEDTIME) return false;
  const std::size_t length = type == V_ASN1_UTCTIME ? 13 : 15;
  return text.size() == length && text.back() == 'Z' &&
         text.find_first_not_of("0123456789") == length - 1;
}

}  // namespace

bool isStrictTime(const ASN1_TIME* native) noexcept {
  if (native == nullptr) return false;
  const std::string_view text(reinterpret_cast<const char*>(ASN1_STRING_get0_data(native)),
                              static_cast<std::size_t>(ASN1_STRING_length(native)));
  return isWrittenAsAsked(ASN1_STRING_type(native), text) && ASN1_TIME_check(native) == 1;
}

std::optional<Time> strictTime(const ASN1_TIME* native) {
  if (!isStrictTime(native)) return std::nullopt;
  return ASN1::RefGeneralizedTime(native, true)->asTime();
}

}  // namespace Velantrix::Crypto::PKX509
