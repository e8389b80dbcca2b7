#include "report/FindingMaker.h"
#include "retrieval/DeskFiles.h"
#include "retrieval/FetchDesk.h"
#include "retrieval/VerifiedCache.h"
#include "store/CRLExpiry.h"

#include <pkx509/CRLCacheView.h>
#include <pkx509/HashDirLookup.h>
#include <velantrix/Exception.h>
#include <velantrix/File.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <system_error>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

struct CRLCacheView::Entry::Part {
  std::string file = {};
  std::string uri = {};
  std::uint64_t size = 0;
  Time stored = {};
  std::optional<Time> fetched = {};
  RefCertificateRevocationList crl = {};
  std::string problem = {};
  std::optional<Failure> failure = {};
};

namespace {

using Part = CRLCacheView::Entry::Part;
using Failure = CRLCacheView::Failure;

Failure failureOf(const FetchDesk::Mark& mark, bool ofHost) {
  return {.at = mark.at,
          .until = mark.until,
          .inARow = mark.failures,
          .reason = mark.reason,
          .httpStatus = mark.httpStatus,
          .errorNumber = mark.errorNumber,
          .ofHost = ofHost};
}

// The later one of the URI's and of its host's.
std::optional<Failure> lastFailure(const FetchDesk& desk, const Uri& uri) {
  if (uri.isNull()) return std::nullopt;
  const auto own = desk.lastFailureOf(FetchDesk::placeOf(uri));
  const auto ofHost = desk.lastFailureOf(FetchDesk::hostPlaceOf(uri));
  if (ofHost && (!own || own->at < ofHost->at)) return failureOf(*ofHost, true);
  return own ? std::optional(failureOf(*own, false)) : std::nullopt;
}

CRLCacheView::Failing failingOf(const std::string& digest, const FetchDesk::Mark& mark) {
  using Of = CRLCacheView::Failing::Of;
  CRLCacheView::Failing failing{.place = mark.place,
                                .sha256 = digest,
                                .failure = failureOf(mark, mark.of == FetchDesk::Mark::Of::kHost)};
  if (mark.of == FetchDesk::Mark::Of::kHost) failing.of = Of::kHost;
  if (mark.of == FetchDesk::Mark::Of::kResponder) failing.of = Of::kResponder;
  return failing;
}

CRLCacheView::Entry entryOf(Part part) {
  return CRLCacheView::Entry(std::make_shared<const Part>(std::move(part)));
}

std::size_t forgetPlace(FetchDesk& desk, const std::string& place) {
  const bool failed = desk.lastFailureOf(place).has_value();
  desk.succeeded(place);
  return failed ? 1 : 0;
}

// Marks and deliveries of all places; locks stay, whoever has one keeps his turn. How many marks there
// were.
std::size_t forgetEverything(const DeskFiles& files) {
  std::size_t marks = 0;
  std::error_code none;
  for (const auto& file : std::filesystem::directory_iterator(files.directory(), none)) {
    const std::string name = file.path().filename().string();
    const bool mark = name.ends_with(DeskFiles::kMark);
    if (mark || name.ends_with(DeskFiles::kDelivery)) files.remove(name);
    if (mark) ++marks;
  }
  return marks;
}

}  // namespace

CRLCacheView::Entry::Entry(std::shared_ptr<const Part> part) noexcept : part_(std::move(part)) {}

const std::string& CRLCacheView::Entry::file() const noexcept { return part_->file; }
const std::string& CRLCacheView::Entry::uri() const noexcept { return part_->uri; }
std::uint64_t CRLCacheView::Entry::size() const noexcept { return part_->size; }
Time CRLCacheView::Entry::stored() const noexcept { return part_->stored; }
std::optional<Time> CRLCacheView::Entry::fetched() const noexcept { return part_->fetched; }
RefCertificateRevocationList CRLCacheView::Entry::crl() const { return part_->crl; }
const std::string& CRLCacheView::Entry::problem() const noexcept { return part_->problem; }

std::string CRLCacheView::Entry::number() const {
  return part_->crl.empty() ? std::string() : crlNumberText(part_->crl->crlNumber());
}

std::optional<Time> CRLCacheView::Entry::expires() const {
  if (part_->crl.empty()) return std::nullopt;
  return expiryOf(part_->crl, part_->stored);
}

const std::optional<CRLCacheView::Failure>& CRLCacheView::Entry::failure() const noexcept {
  return part_->failure;
}

CRLCacheView::CRLCacheView(const std::string& directory) : directory_(directory) {}

void CRLCacheView::visit(const Visitor& visitor) const {
  const FetchDesk desk(directory_);
  VerifiedCache(directory_).visit([&](const VerifiedCache::Listed& listed) {
    visitor(entryOf({.file = listed.file,
                     .uri = listed.uri,
                     .size = listed.size,
                     .stored = listed.stored,
                     .fetched = listed.notes.fetched,
                     .crl = listed.crl,
                     .problem = listed.problem,
                     .failure = lastFailure(desk, Uri(listed.uri))}));
  });
}

void CRLCacheView::visit(const Visitor& visitor, const FailingVisitor& failing) const {
  std::set<std::string> told;
  visit([&](const Entry& entry) {
    if (const Uri uri(entry.uri()); !uri.isNull()) {
      told.insert(DeskFiles::digestOf(FetchDesk::placeOf(uri)));
      told.insert(DeskFiles::digestOf(FetchDesk::hostPlaceOf(uri)));
    }
    visitor(entry);
  });
  std::vector<Failing> others;
  FetchDesk(directory_).visitFailures([&](const std::string& digest, const FetchDesk::Mark& mark) {
    if (told.count(digest) == 0) others.push_back(failingOf(digest, mark));
  });
  std::stable_sort(others.begin(), others.end(),
                   [](const Failing& a, const Failing& b) { return a.place < b.place; });
  for (const Failing& one : others) failing(one);
}

std::optional<CRLCacheView::Entry> CRLCacheView::find(const Uri& uri) const {
  const File::Path path(directory_, HashDirLookupMethod::fileName(uri));
  Part part{.file = path.asString(),
            .uri = uri.canonicalized(),
            .failure = lastFailure(FetchDesk(directory_), uri)};
  try {
    const std::optional<VerifiedCache::Entry> held = VerifiedCache(directory_).read(uri);
    if (!held) return std::nullopt;
    part.size = path.status(true).size();
    part.stored = held->stored;
    part.fetched = held->notes.fetched;
    if (!held->crls.empty()) part.crl = held->crls.front();
  } catch (const Exception& failure) {
    part.problem = failure.stringParameter();
  }
  return entryOf(std::move(part));
}

std::size_t CRLCacheView::forget(const Uri& uri) {
  FetchDesk desk(directory_);
  desk.withdraw(FetchDesk::placeOf(uri));
  return forgetPlace(desk, FetchDesk::placeOf(uri)) +
         forgetPlace(desk, FetchDesk::hostPlaceOf(uri)) +
         forgetPlace(desk, FetchDesk::textPlaceOf(uri)) +
         forgetPlace(desk, FetchDesk::responderPlaceOf(uri));
}

CRLCacheView::Flushed CRLCacheView::flush(const Uri& uri) {
  Flushed flushed;
  if (VerifiedCache(directory_).flush(uri)) flushed.files = 1;
  flushed.failures = forget(uri);
  return flushed;
}

CRLCacheView::Flushed CRLCacheView::flushAll() {
  Flushed flushed;
  flushed.files = VerifiedCache(directory_).flushAll().size();
  flushed.failures = forgetEverything(DeskFiles(directory_));
  return flushed;
}

}  // namespace Velantrix::Crypto::PKX509
