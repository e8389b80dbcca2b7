// What the desk writes of failures and deliveries. What it reads may be anybody's: of what is not just as
// it writes it, nothing is believed.
//
//   files.write(name, markText(markAfter(former, failure, Time::now())), {});
//   const std::optional<FetchDesk::Mark> mark = parseMark(text, Time::now());
#pragma once

#include "retrieval/FetchDesk.h"

#include <velantrix/Time.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

// Which place it is, before the URI.
inline constexpr std::string_view kHostPlace = "host ";
inline constexpr std::string_view kTextPlace = "text ";
inline constexpr std::string_view kResponderPlace = "ocsp ";

// Of a mark, whole.
inline constexpr std::size_t kMaximumMark = 4096;
// Of what stands before the octets of a delivery.
inline constexpr std::size_t kMaximumDeliveryHead = 1024;
// Of the octets.
inline constexpr std::size_t kMaximumDelivery = std::size_t{64} * 1024 * 1024;

// The mark of one more failure. Who failed while a mark was in force already had begun before: the
// failures of several who asked at once count as one.
FetchDesk::Mark markAfter(const std::optional<FetchDesk::Mark>& former,
                          const LW::HTTP::Failure& failure, Time now);

// What the place is to people goes with it.
FetchDesk::Mark named(FetchDesk::Mark mark, const std::string& place);

std::string markText(const FetchDesk::Mark& mark);
// None for a mark from the future, or with a longer pause than there is.
std::optional<FetchDesk::Mark> parseMark(std::string_view text, Time now);

// What stands before its octets.
std::string deliveryHead(const FetchDesk::Delivery& delivery);
// None for a delivery that is not of the last `kDeliveryTime`.
std::optional<FetchDesk::Delivery> parseDelivery(std::string content, Time now);
bool isCurrent(const FetchDesk::Delivery& delivery, Time now) noexcept;

}  // namespace Velantrix::Crypto::PKX509
