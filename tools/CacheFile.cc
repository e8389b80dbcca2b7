#include "CacheFile.h"

#include "Input.h"
#include "ReportJson.h"
#include "ReportWords.h"
#include "Status.h"

#include <velantrix/Exception.h>

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

namespace {

// What can be read of a CRL whose parts may be broken.
void readInto(CacheFile& file, const RefCertificateRevocationList& crl, const Time& now) {
  file.issuer = crl->crlInfo().issuer().asString();
  if (!crl->lastUpdate().empty()) file.thisUpdate = crl->lastUpdate()->asTime();
  if (!crl->nextUpdate().empty()) file.nextUpdate = crl->nextUpdate()->asTime();
  file.entries = crl->entryCount();
  file.state =
      file.expires && *file.expires < now ? CacheFile::State::kExpired : CacheFile::State::kFresh;
}

template <class Work>
void reporting(Work&& work) {
  try {
    work();
  } catch (const Exception& error) {
    throw ToolError(reasonOf(error));
  }
}

std::string_view failingWord(CRLCacheView::Failing::Of of) noexcept {
  switch (of) {
    case CRLCacheView::Failing::Of::kHost:
      return "host";
    case CRLCacheView::Failing::Of::kResponder:
      return "responder";
    case CRLCacheView::Failing::Of::kURI:
      break;
  }
  return "uri";
}

Value orNull(const std::string& text) { return text.empty() ? Value() : Value(text); }
Value orNull(const std::optional<Time>& time) { return time ? Value(timeText(*time)) : Value(); }

Value failureJson(const std::optional<CRLCacheView::Failure>& failure) {
  if (!failure) return {};
  return Value::Object{{"at", timeText(failure->at)},       {"until", timeText(failure->until)},
                       {"inARow", failure->inARow},         {"reason", failure->reason},
                       {"httpStatus", failure->httpStatus}, {"errno", failure->errorNumber},
                       {"ofHost", failure->ofHost}};
}

}  // namespace

CacheFile::CacheFile(const CRLCacheView::Entry& entry, const Time& now)
    : file(entry.file()),
      uri(entry.uri()),
      number(entry.number()),
      expires(entry.expires()),
      size(entry.size()),
      stored(entry.stored()),
      fetched(entry.fetched()),
      problem(entry.problem()),
      failure(entry.failure()) {
  const RefCertificateRevocationList crl = entry.crl();
  if (crl.empty()) return;
  try {
    readInto(*this, crl, now);
  } catch (const Exception& error) {
    problem = reasonOf(error);
  }
}

void visitCache(const CRLCacheView::Visitor& visitor) {
  reporting([&] { CRLCacheView().visit(visitor); });
}

void visitCache(const CRLCacheView::Visitor& visitor, const CRLCacheView::FailingVisitor& failing) {
  reporting([&] { CRLCacheView().visit(visitor, failing); });
}

std::string_view wordOf(CacheFile::State state) noexcept {
  switch (state) {
    case CacheFile::State::kFresh:
      return "fresh";
    case CacheFile::State::kExpired:
      return "expired";
    case CacheFile::State::kUnreadable:
      break;
  }
  return "unreadable";
}

Value jsonOf(const CacheFile& file, const Time& now) {
  const bool known = file.hasCRL();
  return Value::Object{
      {"schemaVersion", kSchemaVersion},
      {"type", "cache-file"},
      {"state", wordOf(file.state)},
      {"file", file.file},
      {"uri", orNull(file.uri)},
      {"issuer", known ? Value(file.issuer) : Value()},
      {"crlNumber", orNull(file.number)},
      {"thisUpdate", orNull(file.thisUpdate)},
      {"nextUpdate", orNull(file.nextUpdate)},
      {"secondsLeft", file.expires ? Value(file.expires->seconds() - now.seconds()) : Value()},
      {"entries", known ? Value(file.entries) : Value()},
      {"size", file.size},
      {"stored", timeText(file.stored)},
      {"fetched", orNull(file.fetched)},
      {"problem", orNull(file.problem)},
      {"failure", failureJson(file.failure)}};
}

Value jsonOf(const CRLCacheView::Failing& failing) {
  return Value::Object{
      {"schemaVersion", kSchemaVersion}, {"type", "failing"},
      {"of", failingWord(failing.of)},   {"uri", failing.place},
      {"sha256", failing.sha256},        {"failure", failureJson(failing.failure)}};
}

}  // namespace Velantrix::Tool
