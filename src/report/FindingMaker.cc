#include "report/FindingMaker.h"

#include "foundation/base/Hex.h"
#include "foundation/base/Text.h"
#include "foundation/model/CRLParts.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/TimeSeconds.h"

#include <openssl/asn1.h>

#include <algorithm>
#include <limits>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr std::size_t kMaximumSerial = 32;  // octets; RFC 5280, 4.1.2.2, allows 20

// The program says which time is verified for, and may say any.
std::int64_t secondsBetween(const Time& from, const Time& to) noexcept {
  std::int64_t seconds = 0;
  if (!__builtin_sub_overflow(to.seconds(), from.seconds(), &seconds)) return seconds;
  using Limits = std::numeric_limits<std::int64_t>;
  return to < from ? Limits::min() : Limits::max();
}

// Two spellings of one name are two texts, so that the octets count. Empty where there are none.
std::string_view derOf(const X509_NAME* name) {
  const unsigned char* data = nullptr;
  std::size_t length = 0;
  if (name == nullptr || X509_NAME_get0_der(name, &data, &length) != 1) return {};
  return {reinterpret_cast<const char*>(data), length};
}

}  // namespace

std::string reportText(std::string_view text) {
  return std::string(cutText(text, VerificationReport::kMaximumText));
}

std::string reportText(const DistinguishedName& name) { return reportText(name.asString()); }

std::string serialText(const ASN1_INTEGER* serial) {
  if (serial == nullptr) return {};
  const unsigned char* data = ASN1_STRING_get0_data(serial);
  auto length = static_cast<std::size_t>(std::max(ASN1_STRING_length(serial), 0));
  while (length > 1 && *data == 0) {
    ++data;
    --length;
  }
  const bool negative = (ASN1_STRING_type(serial) & V_ASN1_NEG) != 0;
  return (negative ? "-" : "") + hexText(data, std::min(length, kMaximumSerial));
}

std::string crlNumberText(const ASN1::Integer& number) {
  if (number.isNull()) return {};
  constexpr int kMaximumOctets = 20;
  if (ASN1_STRING_length(number.native()) > kMaximumOctets) {
    return "0x" + serialText(number.native());
  }
  std::uint64_t small = 0;
  const ErrorScope errors;
  if (ASN1_INTEGER_get_uint64(&small, number.native()) == 1) return std::to_string(small);
  const Owned<BIGNUM> value(ASN1_INTEGER_to_BN(number.native(), nullptr));
  const OwnedMemory<char> text(value == nullptr ? nullptr : BN_bn2dec(value.get()));
  return text == nullptr ? std::string() : std::string(text.get());
}

std::string NameTexts::of(const DistinguishedName& name) {
  const std::string_view wanted = derOf(name.native());
  for (const auto& [known, text] : known_) {
    if (known == name.native() || (!wanted.empty() && derOf(known) == wanted)) return text;
  }
  return known_.emplace_back(name.native(), reportText(name)).second;
}

VerificationReport::Subject subjectOf(const RefCertificate& certificate) {
  NameTexts texts;
  return subjectOf(certificate, texts);
}

VerificationReport::Subject subjectOf(const RefCertificate& certificate, NameTexts& texts) {
  if (certificate.empty()) return {};
  return {texts.of(certificate->subject()), texts.of(certificate->issuer()),
          serialText(X509_get0_serialNumber(certificate))};
}

std::optional<Time> timeOf(const ASN1_TIME* native) {
  const auto seconds = secondsOf(native);
  if (!seconds) return std::nullopt;
  return Time::then(*seconds, true);
}

FindingMaker& FindingMaker::about(const RefCertificate& certificate, int depth) {
  content_.certificate = subjectOf(certificate);
  content_.depth = depth;
  return *this;
}

FindingMaker& FindingMaker::from(VerificationReport::Origin origin) {
  content_.origin = std::move(origin);
  return *this;
}

FindingMaker& FindingMaker::append(std::string_view name, VerificationReport::Value value) {
  VerificationReport::Detail& detail = content_.details.emplace_back();
  detail.name = name;
  detail.value = std::move(value);
  return *this;
}

FindingMaker& FindingMaker::add(std::string_view name, std::string_view text) {
  if (!text.empty()) append(name, reportText(text));
  return *this;
}

FindingMaker& FindingMaker::add(std::string_view name, std::int64_t number) {
  return append(name, number);
}

FindingMaker& FindingMaker::addUnlessZero(std::string_view name, std::int64_t number) {
  return number == 0 ? *this : add(name, number);
}

FindingMaker& FindingMaker::add(std::string_view name, const std::optional<Time>& time) {
  if (time) append(name, *time);
  return *this;
}

FindingMaker& FindingMaker::addDistance(const std::optional<Time>& time, const Time& checked) {
  add(DetailName::kCheckTime, std::optional<Time>(checked));
  return time ? add(DetailName::kDistance, secondsBetween(checked, *time)) : *this;
}

FindingMaker& FindingMaker::add(const RefCertificateRevocationList& crl) {
  if (crl.empty()) return *this;
  add(DetailName::kCRLIssuer, crl->crlInfo().issuer().asString());
  add(DetailName::kCRLNumber, crlNumberText(crl->crlNumber()));
  add(DetailName::kBaseCRLNumber, crlNumberText(crl->baseCRLNumber()));
  add(DetailName::kThisUpdate, timeOf(X509_CRL_get0_lastUpdate(headOf(*crl.get()))));
  add(DetailName::kNextUpdate, timeOf(X509_CRL_get0_nextUpdate(headOf(*crl.get()))));
  return add(DetailName::kEntries, static_cast<std::int64_t>(crl->entryCount()));
}

FindingMaker& FindingMaker::below(VerificationReport::Finding finding) {
  content_.nested.push_back(std::move(finding));
  return *this;
}

}  // namespace Velantrix::Crypto::PKX509
