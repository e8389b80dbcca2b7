// CRLs in their compact form, held against what OpenSSL makes of the same octets: whether they are taken,
// every field and every look-up.
#include "Fuzz.h"
#include "unit/foundation/crlindex/CompactCRLOracle.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace Velantrix;
  Fuzz::begin();
  PKX509_ASSERT(Test::CompactCRLOracle::difference(Fuzz::text(data, size)).empty());
  PKX509_ASSERT(ERR_peek_error() == 0);
  return 0;
}
