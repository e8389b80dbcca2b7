#include "retrieval/VerifiedCache.h"

#include "crl/CRLCache.h"
#include "foundation/base/DotSegments.h"
#include "foundation/base/Fail.h"
#include "foundation/base/FileDescriptor.h"
#include "foundation/base/FileReader.h"
#include "foundation/base/FileStamp.h"
#include "foundation/base/Shortfall.h"
#include "foundation/model/CRLParts.h"
#include "foundation/model/ObjectReader.h"
#include "foundation/openssl/Der.h"
#include "foundation/run/Counters.h"
#include "foundation/run/VerificationRun.h"
#include "report/SourceRecord.h"
#include "store/CRLExpiry.h"
#include "store/FileContent.h"
#include "store/HashFileHeader.h"
#include "store/TolerantReading.h"

#include <velantrix/Exception.h>
#include <velantrix/MediaOut.h>

#include <openssl/x509.h>

#include <cerrno>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"VerifiedCache", "VerifiedCache"};

static_assert(HashFileHeader::kMaximumValidator == LW::HTTP::Validators::kMaximumSize);

using Notes = VerifiedCache::Notes;
using Stored = VerifiedCache::Stored;

// Of a file that is not there: all zero.
FileStamp stampOf(const File::Path& path) {
  const std::optional<FileStamp> stamp = FileStamp::at(systemPath(path.asString()));
  if (!stamp && errno != ENOENT) failSystem(kHere, path.asString(), errno);
  return stamp.value_or(FileStamp());
}

template <class Content>
std::string_view textOf(const Content& content) {
  return {reinterpret_cast<const char*>(content.data()), content.size()};
}

// What it says is written for another URI, of which the file would have the same name.
bool isForeign(const HashFileHeader& header, const Uri& uri) {
  return header.uri.has_value() && *header.uri != uri.canonicalized();
}

Notes notesIn(const HashFileHeader& header) {
  Notes notes;
  notes.validators.etag = header.etag.value_or(std::string_view());
  notes.validators.lastModified = header.lastModified.value_or(std::string_view());
  if (header.fetched && *header.fetched <= Time::now()) notes.fetched = header.fetched;
  return notes;
}

HashFileHeader::Notes linesOf(const Notes& notes) {
  return {notes.validators.etag, notes.validators.lastModified, notes.fetched};
}

// Whether it is time to write other notes into a file of that size. An exchange that began before the one
// that is noted there, and one at another clock, does not count.
bool areDue(const Notes& notes, const Notes& noted, std::size_t size) {
  constexpr std::int64_t kPause = 60;  // seconds, and as many again for each MiB
  constexpr std::size_t kMebibyte = std::size_t{1024} * 1024;
  if (!noted.fetched) return notes.fetched.has_value() || notes.validators != noted.validators;
  if (!notes.fetched || *notes.fetched < *noted.fetched) return false;
  if (notes.validators != noted.validators) return true;
  const auto pause = kPause * static_cast<std::int64_t>(1 + size / kMebibyte);
  return notes.fetched->seconds() - noted.fetched->seconds() >= pause;
}

IsWantedFile isFor(const Uri& uri) {
  return [&uri](const HashFileHeader& header) { return !isForeign(header, uri); };
}

RefCertificateRevocationList onlyCRL(const FirstCRLInFile& held) {
  if (held.problem) throw Exception(*held.problem);
  if (held.crl.empty()) fail(kHere, "no CRL in it");
  return held.crl;
}

RefCertificateRevocationList onlyCRL(Octets content) {
  return onlyCRL(*contentIn<FirstCRLInFile>(content, {}, false));
}

std::optional<VerifiedCache::Entry> entryOf(const FirstCRLInFile& held, const Uri& uri) {
  const HashFileHeader header = held.header();
  if (isForeign(header, uri)) return std::nullopt;
  VerifiedCache::Entry entry;
  entry.notes = notesIn(header);
  entry.crls.push_back(onlyCRL(held));
  return entry;
}

std::nullopt_t leftOut() {
  TolerantReading::leftOut();
  SourceUse::leftOut();
  return std::nullopt;
}

// What of a CRL says which of two is to stay.
struct Standing {
  explicit Standing(const RefCertificateRevocationList& crl);

  DistinguishedName issuer;
  std::string scope;  // the octets of the issuing distribution point; none where there is none
  bool delta;
  ASN1::Integer number;
  ASN1::RefGeneralizedTime thisUpdate;
  ASN1::RefGeneralizedTime nextUpdate;
};

// An extension that is there is never empty: it is decoded when the CRL is read.
std::string scopeOf(const RefCertificateRevocationList& crl) {
  return std::string(extensionOf(*crl.get(), NID_issuing_distribution_point));
}

Standing::Standing(const RefCertificateRevocationList& crl)
    : issuer(crl->crlInfo().issuer()),
      scope(scopeOf(crl)),
      delta(crl->isDeltaCRL()),
      number(crl->crlNumber()),
      thisUpdate(crl->lastUpdate()),
      nextUpdate(crl->nextUpdate()) {}

std::string_view between(const unsigned char* first, const unsigned char* last) {
  return {reinterpret_cast<const char*>(first), static_cast<std::size_t>(last - first)};
}

// The CRL without its entries, which take up a large one: RFC 5280, 5.1.2.6, the SEQUENCE behind the
// times. Nothing where the encoding is not so plain that one can tell.
std::optional<std::string> withoutEntries(const unsigned char* der, std::size_t length) {
  const ErrorScope errors;
  const auto list = derHeader(der, der + length);
  if (!list || !list->isWholeSequence()) return std::nullopt;
  const auto signedPart = derHeader(list->content, list->next);
  if (!signedPart || !signedPart->isWholeSequence()) return std::nullopt;
  std::string kept;
  bool timesPassed = false;
  for (const unsigned char* next = signedPart->content; next != signedPart->next;) {
    const auto field = derHeader(next, signedPart->next);
    if (!field || field->next == nullptr) return std::nullopt;
    if (!timesPassed || !field->is(V_ASN1_SEQUENCE)) kept += between(next, field->next);
    timesPassed = timesPassed || field->is(V_ASN1_UTCTIME) || field->is(V_ASN1_GENERALIZEDTIME);
    next = field->next;
  }
  std::string content;
  appendDer(content, V_ASN1_SEQUENCE, true, kept);
  content += between(signedPart->next, list->next);
  std::string whole;
  appendDer(whole, V_ASN1_SEQUENCE, true, content);
  return whole;
}

// The first CRL of a file, as far as it has to be known: one that is another's to the last octet is not
// decoded, and no entry of any.
class HeldCRL : public ObjectSink {
 public:
  explicit HeldCRL(const RefCertificateRevocationList& other) : other_(other) {}

  bool wants(std::string_view label) const override { return isCRLLabel(label); }
  bool take(std::string_view /*label*/, const unsigned char* der, std::size_t length) override {
    same_ = isOther(der, length);
    if (same_) return true;
    const std::optional<std::string> plain = withoutEntries(der, length);
    const RefCertificateRevocationList crl =
        plain ? decodeCRL(octets(*plain), plain->size()) : decodeCRL(der, length);
    if (!crl.empty()) standing_.emplace(crl);
    return !crl.empty();
  }
  bool hasEnough() const override { return true; }

  bool same() const noexcept { return same_; }
  const std::optional<Standing>& standing() const noexcept { return standing_; }

 private:
  bool isOther(const unsigned char* der, std::size_t length) const {
    return isDerOf(between(der, der + length), *other_.get());
  }

  const RefCertificateRevocationList& other_;
  bool same_ = false;
  std::optional<Standing> standing_;
};

// RFC 5280, 5.2.3: complete and delta CRLs of one scope share their numbers, and a delta CRL does not do
// in the place of a complete one.
bool areOfOneScope(const Standing& a, const Standing& b) {
  return a.issuer == b.issuer && a.delta == b.delta && a.scope == b.scope;
}

bool isLater(const Standing& crl, const Standing& held) { return held.thisUpdate < crl.thisUpdate; }

bool isNewer(const Standing& crl, const Standing& held) {
  if (crl.number.isNull() || held.number.isNull() || crl.number == held.number) {
    return isLater(crl, held);
  }
  return held.number <= crl.number;
}

// What is to become of a CRL when another is there, if its key has signed that as well.
Stored judge(const Standing& crl, const Standing& held, const Time& heldSince) {
  const bool oneScope = areOfOneScope(crl, held);
  if (oneScope && isNewer(crl, held)) return Stored::kStored;
  const bool ranOut = expiryOf(held.nextUpdate, heldSince) < Time::now();
  if (ranOut && (!oneScope || isLater(crl, held))) return Stored::kStored;
  return oneScope ? Stored::kOlder : Stored::kOther;
}

// A look at what is there, and what follows from it; where nothing is known, the CRL is stored.
struct Look {
  FileStamp seen = {};
  Stored stored = Stored::kStored;
  bool writes = true;
};

// Where there is no time left to find out, what is there stays.
bool hasSigned(EVP_PKEY* key, const RefCertificateRevocationList& crl, const Uri& uri) {
  const std::optional<bool> signedBy = crl->signatureBy(key);
  if (!signedBy) fail(kHere, uri.asString() + ": no time to verify the signature");
  return *signedBy;
}

void lookInto(const File::Path& path, const Uri& uri, const RefCertificateRevocationList& crl,
              EVP_PKEY* key, const Notes& notes, Look& look) {
  HeldCRL held(crl);
  Notes noted;
  {
    const std::vector<unsigned char> content = readFile(path);
    const HashFileHeader header = HashFileHeader::parse(textOf(content));
    if (isForeign(header, uri)) return;
    noted = notesIn(header);
    readObjects(content.data(), content.size(), held);
  }
  if (held.same()) {
    look.stored = Stored::kSame;
    look.writes = areDue(notes, noted, static_cast<std::size_t>(look.seen.size));
  } else if (held.standing()) {
    const Time since = path.status(true).creationTime();
    const Stored judged = judge(Standing(crl), *held.standing(), since);
    if (judged == Stored::kStored) return;
    // That comes last, since most of the time what is there is older whoever signed it.
    if (!hasSigned(key, onlyCRL(readOctets(path)), uri)) return;
    look.stored = judged;
    look.writes = false;
  }
}

Look lookAt(const File::Path& path, const Uri& uri, const RefCertificateRevocationList& crl,
            EVP_PKEY* key, const Notes& notes) {
  Look look;
  look.seen = stampOf(path);
  if (!look.seen.regular) return look;
  const Shortfall::Watch watch;
  try {
    lookInto(path, uri, crl, key, notes, look);
  } catch (const Exception&) {
    // What cannot be read makes way, unless that is for want of memory, descriptors or time.
    if (watch.noted()) throw;
  }
  return look;
}

}  // namespace

std::optional<VerifiedCache::Entry> VerifiedCache::entryIn(std::string_view content,
                                                           const Uri& uri) {
  Octets copy(octets(content), octets(content) + content.size());
  return entryOf(*contentIn<FirstCRLInFile>(copy, isFor(uri), false), uri);
}

std::optional<VerifiedCache::Entry> VerifiedCache::read(const Uri& uri) const {
  const File::Path path = CRLCache(directory_).fileFor(uri);
  const FileStamp seen = stampOf(path);
  if (!seen.regular) return std::nullopt;
  if (!VerificationRun::admitStep() ||
      !VerificationRun::admitDecoding(static_cast<std::size_t>(seen.size))) {
    return leftOut();
  }
  const Time stored = path.status(true).creationTime();
  const auto held = contentOf<FirstCRLInFile>(path, seen, isFor(uri));
  if (held == nullptr) return leftOut();
  try {
    std::optional<Entry> entry = entryOf(*held, uri);
    if (entry) entry->stored = stored;
    return entry;
  } catch (Exception& failure) {
    failure.stringParameter(path.asString() + ": " + failure.stringParameter());
    throw;
  }
}

Stored VerifiedCache::store(const Uri& uri, const RefCertificateRevocationList& crl, EVP_PKEY* key,
                            const Notes& notes) {
  if (hasDotSegments(uri.path()) || !hasSigned(key, crl, uri)) return Stored::kRefused;
  CRLCache cache(directory_);
  const File::Path path = cache.fileFor(uri);
  // Large CRLs take their time, so nobody is kept from writing while one looks.
  Look look = lookAt(path, uri, crl, key, notes);
  if (!look.writes) return look.stored;
  CRLCache::Content content = CRLCache::contentFor(uri, crl);
  content.wanted = [&] {
    if (stampOf(path) != look.seen) look = lookAt(path, uri, crl, key, notes);
    return look.writes;
  };
  content.write = [&] {
    const std::string header =
        HashFileHeader::text(uri.canonicalized(), expiryOf(crl, Time::now()), linesOf(notes));
    FileMediaOut out(path.asString());
    out.write(header.data(), header.size());
    crl->writePEM(out);
  };
  const bool written = cache.write(uri, content);
  if (written && look.stored == Stored::kStored) count(Statistics::Counter::kCacheStored);
  return look.stored;
}

void VerifiedCache::confirm(const Uri& uri, const LW::HTTP::Validators& asked, const Notes& notes) {
  if (hasDotSegments(uri.path())) return;
  CRLCache cache(directory_);
  const File::Path path = cache.fileFor(uri);
  const FileStamp seen = stampOf(path);
  if (!seen.regular) return;
  const std::vector<unsigned char> file = readFile(path);
  const std::string_view text = textOf(file);
  const HashFileHeader header = HashFileHeader::parse(text);
  if (header.uri != uri.canonicalized() || !header.expires) return;
  const Notes noted = notesIn(header);
  if (noted.validators != asked) return;
  Notes merged = notes;
  if (merged.validators.etag.empty()) merged.validators.etag = asked.etag;
  if (merged.validators.lastModified.empty()) merged.validators.lastModified = asked.lastModified;
  if (!areDue(merged, noted, text.size())) return;

  const std::string lines =
      HashFileHeader::text(uri.canonicalized(), *header.expires, linesOf(merged));
  const std::string_view rest = text.substr(header.size);
  const std::uint64_t size = lines.size() + rest.size();
  cache.write(uri, {.atMost = size,
                    .atLeast = size,
                    .wanted = [&] { return stampOf(path) == seen; },
                    .write =
                        [&] {
                          FileMediaOut out(path.asString());
                          out.write(lines.data(), lines.size());
                          out.write(rest.data(), rest.size());
                          out.flush();
                        }});
}

bool VerifiedCache::flush(const Uri& uri) {
  return CRLCache(directory_).removeIf(uri, [&](const File::Path& path) {
    try {
      return !isForeign(HashFileHeader::parse(textOf(readFile(path))), uri);
    } catch (const Exception&) {
      return true;  // it serves nobody
    }
  });
}

std::vector<std::string> VerifiedCache::flushAll() { return CRLCache(directory_).removeAll(); }

void VerifiedCache::visit(const std::function<void(const Listed&)>& seen) const {
  for (const CRLCache::CachedFile& file : CRLCache(directory_).files()) {
    Listed listed{.file = file.path.asString(), .size = file.size, .stored = file.created};
    try {
      Octets content = readOctets(file.path);
      const HashFileHeader header = HashFileHeader::parse(textOf(content));
      listed.uri = header.uri.value_or(std::string_view());
      listed.notes = notesIn(header);
      listed.crl = onlyCRL(std::move(content));
    } catch (const Exception& failure) {
      listed.problem = failure.stringParameter();
    }
    seen(listed);
  }
}

}  // namespace Velantrix::Crypto::PKX509
