// CRLs in their compact form, held against what OpenSSL makes of the same octets: whether they are taken,
// every field and every look-up.
#include "Fuzz.h"
#include "unit/foundation/crlindex/CompactCRLOracle.h"

namespace Velantrix::Fuzz::CRLCompactTarget {

PKX509_FUZZ_TARGET(crl_compact) {
  begin();
  PKX509_ASSERT(Test::CompactCRLOracle::difference(text(data, size)).empty());
  PKX509_ASSERT(ERR_peek_error() == 0);
  return 0;
}

}  // namespace Velantrix::Fuzz::CRLCompactTarget
