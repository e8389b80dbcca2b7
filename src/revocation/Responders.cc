#include "revocation/Responders.h"

#include "foundation/run/FetchRecord.h"
#include "foundation/run/VerificationRun.h"

#include <velantrix/ASN1.h>
#include <velantrix/GeneralName.h>

#include <utility>

namespace Velantrix::Crypto::PKX509::Revocation {

namespace {

const ASN1::RefObjectIdentifier& authorityInformationAccess() {
  static const ASN1::RefObjectIdentifier oid("1.3.6.1.5.5.7.1.1");
  return oid;
}

OCSPReading noAnswer(const Uri& responder) {
  OCSPReading reading;
  reading.refused = Reason::kNoAnswer;
  reading.statement.kind = Statement::Kind::kOCSP;
  reading.statement.from = {Provenance::Kind::kNetwork, FetchRecord::placeOf(responder)};
  return reading;
}

}  // namespace

Responders::Responders(const Path& path, RevocationSources& sources,
                       const RevocationSettings& settings, const Moment& moment)
    : path_(path),
      sources_(sources),
      settings_(settings),
      moment_(moment),
      access_(path.front()->find(authorityInformationAccess())) {}

const OCSPReading* Responders::answer(std::size_t index) {
  while (index >= answers_.size()) {
    if (!askNext()) return nullptr;
  }
  return &answers_[index].reading;
}

std::optional<Offered<std::string>> Responders::takeOffered(std::size_t index) {
  return std::exchange(answers_[index].offered, {});
}

void Responders::isOfUse(std::size_t index) {
  const std::optional<Offered<std::string>> offered = takeOffered(index);
  const Answer& answer = answers_[index];
  const std::optional<Time>& nextUpdate = answer.reading.statement.nextUpdate;
  // RFC 6960, 4.2.2.1: without it newer information is available all the time.
  if (!offered || !nextUpdate) return;
  sources_.isOfUse(answer.responder, question_->request(), *offered, *nextUpdate);
}

void Responders::isOfNoUse(std::size_t index) {
  const std::optional<Offered<std::string>> offered = takeOffered(index);
  if (!offered || offered->from.kind != Provenance::Kind::kCache) return;
  const Uri responder = answers_[index].responder;
  sources_.isOfNoUse(responder, question_->request());
  if (VerificationRun::admitLookup()) {
    ask(responder);
  } else {
    cut_ = true;
  }
}

// False when there is none left.
bool Responders::askNext() {
  if (access_.empty() || path_.size() < 2 || !VerificationRun::admitStep()) return false;
  const RefGeneralName location = access_->nextOCSPGeneralName(next_);
  if (location.empty()) return false;
  const Uri uri = location->uri();
  if (uri.isNull()) return true;
  // A certificate may name any number of them.
  if (!VerificationRun::admitLookup()) {
    cut_ = true;
    return false;
  }
  if (!question_) question_.emplace(path_[0], path_[1], sources_.wantsNonce());
  if (question_->request().empty()) return false;
  if (share_ == nullptr) share_ = sources_.shareForResponders();
  ask(uri);
  return true;
}

void Responders::ask(const Uri& responder) {
  Offers<std::string> offers = sources_.ocsp(responder, question_->request());
  cut_ = cut_ || offers.cut;
  for (Offered<std::string>& offered : offers.found) {
    answers_.push_back({question_->read(offered, settings_, moment_), responder});
    // An answer with a nonce is of no use to anybody else.
    if (!sources_.wantsNonce()) answers_.back().offered = std::move(offered);
  }
  if (offers.found.empty()) answers_.push_back({noAnswer(responder), responder});
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
