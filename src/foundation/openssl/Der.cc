#include "foundation/openssl/Der.h"

#include "foundation/base/Fail.h"

#include <openssl/asn1.h>

#include <climits>
#include <vector>

namespace Velantrix::Crypto {

void appendDer(std::string& out, int tag, bool constructed, std::string_view content) {
  const int form = constructed ? 1 : 0;
  // A header of a universal type takes at most six octets.
  constexpr std::size_t kMaxContent = INT_MAX - 16;
  const int total = content.size() > kMaxContent
                        ? -1
                        : ASN1_object_size(form, static_cast<int>(content.size()), tag);
  if (total < 0) {
    fail({"ASN1", "Der"}, "value too long");
  }
  std::vector<unsigned char> header(static_cast<std::size_t>(total) - content.size());
  unsigned char* end = header.data();
  ASN1_put_object(&end, form, static_cast<int>(content.size()), tag, V_ASN1_UNIVERSAL);
  out.append(header.begin(), header.end());
  out.append(content);
}

std::optional<DerHeader> derHeader(const unsigned char* der, const unsigned char* end) noexcept {
  DerHeader header{};
  header.content = der;
  long length = 0;
  const int form = ASN1_get_object(&header.content, &length, &header.tag, &header.tagClass,
                                   static_cast<long>(end - der));
  // 0x80 is an error, which includes an end beyond the input; bit 0 is the indefinite length.
  if ((form & 0x80) != 0) return std::nullopt;
  header.constructed = (form & V_ASN1_CONSTRUCTED) != 0;
  header.next = (form & 1) != 0 ? nullptr : header.content + length;
  return header;
}

}  // namespace Velantrix::Crypto
