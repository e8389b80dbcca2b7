// The lines in front of a CRL in the cache, and of a certificate that is stored for an address; and what
// is made of a whole file of the cache.
#include "Fuzz.h"
#include "retrieval/VerifiedCache.h"
#include "store/HashFileHeader.h"

#include <functional>

namespace Velantrix::Fuzz::CRLFileHeaderTarget {
namespace {

using Crypto::PKX509::HashFileHeader;

bool isWithin(std::string_view part, std::string_view whole) {
  const std::less_equal<const char*> ordered;
  return ordered(whole.data(), part.data()) &&
         ordered(part.data() + part.size(), whole.data() + whole.size());
}

bool isNote(const std::optional<std::string_view>& note, std::string_view content) {
  return !note || (isWithin(*note, content) && HashFileHeader::isKept(*note));
}

HashFileHeader::Notes notesOf(const HashFileHeader& header) {
  return {std::string(header.etag.value_or("")), std::string(header.lastModified.value_or("")),
          header.fetched};
}

// What is noted can be sent to a host and written again.
void readFile(const std::string& content, const HashFileHeader& header) {
  using Crypto::PKX509::VerifiedCache;
  const Uri uri(header.uri ? std::string(*header.uri) : "http://ca.example/ca.crl");
  std::optional<VerifiedCache::Entry> entry;
  if (!accepted([&] { entry = VerifiedCache::entryIn(content, uri); }) || !entry) return;
  PKX509_ASSERT(entry->crls.size() == 1);
  PKX509_ASSERT(entry->notes.validators.etag == header.etag.value_or(""));
  PKX509_ASSERT(entry->notes.validators.lastModified == header.lastModified.value_or(""));
  PKX509_ASSERT(!entry->notes.fetched || *entry->notes.fetched <= Time::now());
  PKX509_ASSERT(header.uri.value_or(uri.canonicalized()) == uri.canonicalized());
}

}  // namespace

PKX509_FUZZ_TARGET(crl_file_header) {
  begin();
  const std::string content = text(data, size);
  HashFileHeader header;
  PKX509_ASSERT(accepted([&] { header = HashFileHeader::parse(content); }));
  if (header.email) {
    PKX509_ASSERT(isWithin(*header.email, content));
    PKX509_ASSERT(header.email->find('\n') == std::string_view::npos);
  }
  PKX509_ASSERT(header.size <= content.size());
  PKX509_ASSERT(isNote(header.etag, content) && isNote(header.lastModified, content));
  readFile(content, header);
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
      HashFileHeader::text(std::string(*header.uri), *header.expires, notesOf(header)) + content;
  const HashFileHeader again = HashFileHeader::parse(written);
  PKX509_ASSERT(again.uri == header.uri);
  PKX509_ASSERT(again.expires && again.expires->seconds() == header.expires->seconds());
  // What comes next is the first line of the content.
  PKX509_ASSERT(again.etag == header.etag && again.lastModified == header.lastModified);
  PKX509_ASSERT(again.fetched == header.fetched);
  PKX509_ASSERT(again.size == written.size() - content.size());
  return 0;
}

}  // namespace Velantrix::Fuzz::CRLFileHeaderTarget
