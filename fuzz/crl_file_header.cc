// The lines in front of a CRL in the cache, and of a certificate that is stored for an address.
#include "Fuzz.h"
#include "store/HashFileHeader.h"

#include <functional>

namespace Velantrix::Fuzz {
namespace {

using Crypto::PKX509::HashFileHeader;

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
  HashFileHeader header;
  PKX509_ASSERT(accepted([&] { header = HashFileHeader::parse(content); }));
  if (header.email) {
    PKX509_ASSERT(isWithin(*header.email, content));
    PKX509_ASSERT(header.email->find('\n') == std::string_view::npos);
  }
  const Velantrix::EmailAddress address(content);
  const std::string named = HashFileHeader::text(address);
  PKX509_ASSERT(named.find('\n') == named.size() - 1);
  PKX509_ASSERT(named.find(' ') == named.rfind(' '));
  PKX509_ASSERT(HashFileHeader::parse(named).email == HashFileHeader::emailText(address));
  if (!header.uri) return 0;
  PKX509_ASSERT(isWithin(*header.uri, content));
  PKX509_ASSERT(header.uri->find('\n') == std::string_view::npos);

  // A carriage return belongs to the end of its line; no URI has one.
  if (!header.expires || header.uri->ends_with('\r')) return 0;
  const std::string written =
      HashFileHeader::text(std::string(*header.uri), *header.expires) + content;
  const HashFileHeader again = HashFileHeader::parse(written);
  PKX509_ASSERT(again.uri == header.uri);
  PKX509_ASSERT(again.expires && again.expires->seconds() == header.expires->seconds());
  return 0;
}
