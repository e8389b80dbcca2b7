// The lines in front of a CRL in the cache.
#include "Fuzz.h"
#include "store/CRLFileHeader.h"

#include <functional>

namespace Velantrix::Fuzz {
namespace {

using Crypto::PKX509::CRLFileHeader;

bool isWithin(std::string_view part, std::string_view whole) {
  const std::less_equal<const char*> ordered;
  return ordered(whole.data(), part.data()) &&
         ordered(part.data() + part.size(), whole.data() + whole.size());
}

}  // namespace
}  // namespace Velantrix::Fuzz

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace Velantrix::Fuzz;
  begin();
  const std::string content = text(data, size);
  CRLFileHeader header;
  PKX509_ASSERT(accepted([&] { header = CRLFileHeader::parse(content); }));
  if (!header.uri) return 0;
  PKX509_ASSERT(isWithin(*header.uri, content));
  PKX509_ASSERT(header.uri->find('\n') == std::string_view::npos);

  // A carriage return belongs to the end of its line; no URI has one.
  if (!header.expires || header.uri->ends_with('\r')) return 0;
  const std::string written =
      CRLFileHeader::text(std::string(*header.uri), *header.expires) + content;
  const CRLFileHeader again = CRLFileHeader::parse(written);
  PKX509_ASSERT(again.uri == header.uri);
  PKX509_ASSERT(again.expires && again.expires->seconds() == header.expires->seconds());
  return 0;
}
