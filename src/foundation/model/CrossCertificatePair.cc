#include "foundation/base/Fail.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/CrossCertificatePair.h>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::CrossCertificatePair", "CrossCertificatePair"};
constexpr const char* kMalformed = "malformed certificate pair";

// A piece of DER, borrowed, that is consumed from the front.
struct Input {
  const unsigned char* position;
  long length;

  // The content of the constructed element in front when it is the one asked for, which is then
  // consumed; nothing is consumed otherwise. Malformed octets throw.
  bool next(int tag, int tagClass, Input& content) {
    if (length <= 0) return false;
    const unsigned char* inside = position;
    long insideLength = 0;
    int foundTag = 0;
    int foundClass = 0;
    const int form = ASN1_get_object(&inside, &insideLength, &foundTag, &foundClass, length);
    // 0x80 is an error, which includes an end beyond the input; bit 0 is the indefinite length,
    // which DER does not have.
    if ((form & 0x81) != 0) fail(kHere, kMalformed);
    if (form != V_ASN1_CONSTRUCTED || foundTag != tag || foundClass != tagClass) return false;
    content = {inside, insideLength};
    length -= (inside - position) + insideLength;
    position = inside + insideLength;
    return true;
  }
};

RefCertificate certificateIn(const Input& content) {
  Owned<X509> decoded =
      decodeWhole(d2i_X509, content.position, static_cast<std::size_t>(content.length));
  if (decoded == nullptr) fail(kHere, kMalformed);
  return CertificateFactory()(decoded.release(), true);
}

}  // namespace

CrossCertificatePair::CrossCertificatePair(const Buffer& der) {
  const ErrorScope errors;
  Input input{der.data(), static_cast<long>(der.length())};
  Input pair{};
  if (!input.next(V_ASN1_SEQUENCE, V_ASN1_UNIVERSAL, pair) || input.length != 0) {
    fail(kHere, kMalformed);
  }
  Input element{};
  if (pair.next(0, V_ASN1_CONTEXT_SPECIFIC, element)) forward_ = certificateIn(element);
  if (pair.next(1, V_ASN1_CONTEXT_SPECIFIC, element)) reverse_ = certificateIn(element);
  if (pair.length != 0) fail(kHere, kMalformed);
}

RefCrossCertificatePair::RefCrossCertificatePair(const Buffer& der)
    : Ref<CrossCertificatePair>(new CrossCertificatePair(der)) {}

}  // namespace Velantrix::Crypto::PKX509
