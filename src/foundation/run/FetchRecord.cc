#include "foundation/run/FetchRecord.h"

#include "foundation/base/Text.h"
#include "foundation/base/URIText.h"
#include "foundation/run/VerificationRun.h"

#include <algorithm>
#include <exception>

namespace Velantrix::Crypto::PKX509 {

std::string FetchRecord::placeOf(const Uri& uri) {
  return escapeControls(withoutSecrets(uri), kMaximumURI);
}

void FetchRecord::notFetched(const Uri& uri, std::string_view reason) noexcept {
  add("not fetched", uri, reason);
}

void FetchRecord::notCached(const Uri& uri, std::string_view reason) noexcept {
  add("not cached", uri, reason);
}

std::vector<FetchRecord::Note> FetchRecord::notes() noexcept {
  try {
    const auto* const record = VerificationRun::kept<FetchRecord>();
    if (record != nullptr) return record->notes_;
  } catch (const std::exception&) {
    // They explain, and decide nothing.
  }
  return {};
}

void FetchRecord::add(std::string_view what, const Uri& uri, std::string_view reason) noexcept {
  try {
    auto* const record = VerificationRun::kept<FetchRecord>();
    if (record == nullptr || record->notes_.size() >= kMaximumNotes) return;
    Note note{what, placeOf(uri), escapeControls(reason, kMaximumReason)};
    const std::vector<Note>& notes = record->notes_;
    if (std::find(notes.begin(), notes.end(), note) != notes.end()) return;
    record->notes_.push_back(std::move(note));
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
}

}  // namespace Velantrix::Crypto::PKX509
