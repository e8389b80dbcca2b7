// What exchanges with hosts have in common: one that has failed just before is not asked again, and what
// comes of it is told, counted and remembered.
//
//   HostAsking host(uri, place, settings, desk, use);
//   if (const auto mark = host.failedBefore()) return ...;
//   const LW::HTTP::WebAnswer web = host.ask({.uri = uri}, settings.crlTime, kMaximum);
//   if (web.isComplete()) host.succeeded(); else host.failed(web, kMaximum);
#pragma once

#include "foundation/net/http/WebClient.h"
#include "report/SourceRecord.h"
#include "retrieval/FetchDesk.h"

#include <pkx509/RetrievalSettings.h>
#include <velantrix/NonCopyable.h>
#include <velantrix/Uri.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>

namespace Velantrix::Crypto::PKX509 {

class HostAsking : private NonCopyable {
 public:
  // All but the place, under which failures of this URI alone are remembered, is borrowed.
  HostAsking(const Uri& uri, std::string place, const RetrievalSettings& settings, FetchDesk& desk,
             SourceUse& use);

  const std::string& place() const noexcept { return place_; }

  // That the URI or its host failed, and is not to be asked yet; its reason says so, too. Told.
  std::optional<FetchDesk::Mark> failedBefore();

  // Counts what is received, and says how much that was.
  LW::HTTP::WebAnswer ask(const LW::HTTP::WebRequest& request, std::chrono::milliseconds queryTime,
                          std::size_t maxContent);

  void succeeded();
  // Told, and remembered where it is the host's own. What is larger than `maxContent`, which is the
  // bound of every such exchange, is.
  void failed(const LW::HTTP::WebAnswer& web, std::size_t maxContent);
  // What the URI gave is of no use. Not told.
  void failed(const LW::HTTP::Failure& failure);

 private:
  LW::HTTP::WebTerms terms(std::chrono::milliseconds queryTime, std::size_t maxContent) const;

  const std::string place_;
  const std::string host_;
  const RetrievalSettings& settings_;
  FetchDesk& desk_;
  SourceUse& use_;
  std::chrono::milliseconds queryTime_{};  // of the last exchange
};

}  // namespace Velantrix::Crypto::PKX509
