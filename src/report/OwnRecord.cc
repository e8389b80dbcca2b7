#include "report/OwnRecord.h"

#include <exception>

namespace Velantrix::Crypto::PKX509 {

OwnRecord::OwnRecord(Evidence& evidence, const X509* certificate)
    : evidence_(evidence), certificate_(certificate) {
  evidence_ = Evidence();
  if (VerificationRun::current() != nullptr) return;
  evidence_.verified = true;
  evidence_.revocation.emplace_back();
  begin();
  outcome_.emplace(&evidence_.revocation.front());
}

OwnRecord::~OwnRecord() {
  if (records()) end();
}

void OwnRecord::begin() noexcept {
  run_.emplace(VerificationRun::Shelter{});
  about_.emplace(certificate_);
}

void OwnRecord::end() noexcept {
  about_.reset();
  try {
    if (const SourceRecord* const record = SourceRecord::current()) {
      for (const SourceRecord::Use& use : record->uses()) {
        evidence_.sources.add(SourceRecord::Use(use));
      }
    }
  } catch (const std::exception&) {
    // What is only told must not cost more than the telling.
  }
  run_.reset();
}

OwnRecord::Pause::Pause(OwnRecord* record) noexcept
    : record_(record != nullptr && record->records() ? record : nullptr) {
  if (record_ != nullptr) record_->end();
}

OwnRecord::Pause::~Pause() {
  if (record_ != nullptr) record_->begin();
}

}  // namespace Velantrix::Crypto::PKX509
