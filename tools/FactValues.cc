#include "FactValues.h"

#include "KeyUsage.h"

#include <openssl/objects.h>
#include <openssl/x509v3.h>

#include <arpa/inet.h>
#include <array>
#include <chrono>
#include <cstdio>
#include <span>
#include <string_view>
#include <sys/socket.h>

namespace Velantrix::Tool {

using namespace Crypto;
using namespace Crypto::PKX509;

namespace {

// RFC 5280, 4.2.1.13.
constexpr std::array kReasons = {
    NamedBit{0x40, "keyCompromise"},        NamedBit{0x20, "cACompromise"},
    NamedBit{0x10, "affiliationChanged"},   NamedBit{0x08, "superseded"},
    NamedBit{0x04, "cessationOfOperation"}, NamedBit{0x02, "certificateHold"},
    NamedBit{0x01, "privilegeWithdrawn"},   NamedBit{0x8000, "aACompromise"},
};

Facts bitNames(std::span<const NamedBit> bits, unsigned int mask) {
  Facts::Array names;
  for (const NamedBit& bit : bits) {
    if ((mask & bit.mask) != 0) names.emplace_back(bit.name);
  }
  return names;
}

std::string bytesOf(const ASN1_STRING* string) {
  const unsigned char* const data = ASN1_STRING_get0_data(string);
  const int length = ASN1_STRING_length(string);
  return length > 0 ? std::string(data, data + length) : std::string();
}

std::string dotted(const ASN1_OBJECT* object) {
  // An identifier of a million digits is cut; nothing is looked up by what stands here.
  std::array<char, 256> text{};
  return OBJ_obj2txt(text.data(), static_cast<int>(text.size()), object, 1) > 0 ? text.data() : "";
}

// RFC 5280, 4.2.1.6: four octets for an IPv4 address, sixteen for an IPv6 one.
std::string addressOf(const ASN1_OCTET_STRING* octets) {
  const int family = ASN1_STRING_length(octets) == 4    ? AF_INET
                     : ASN1_STRING_length(octets) == 16 ? AF_INET6
                                                        : AF_UNSPEC;
  std::array<char, INET6_ADDRSTRLEN> text{};
  if (family != AF_UNSPEC && ::inet_ntop(family, ASN1_STRING_get0_data(octets), text.data(),
                                         static_cast<socklen_t>(text.size())) != nullptr) {
    return text.data();
  }
  return ASN1::RefOctetString(octets)->asString();
}

std::string textOf(const GENERAL_NAME* native) {
  switch (native->type) {
    case GEN_EMAIL:
      return "email:" + bytesOf(native->d.rfc822Name);
    case GEN_DNS:
      return "DNS:" + bytesOf(native->d.dNSName);
    case GEN_URI:
      return "URI:" + bytesOf(native->d.uniformResourceIdentifier);
    case GEN_DIRNAME:
      return "dirName:" + DistinguishedName(native->d.directoryName).asString();
    case GEN_IPADD:
      return "IP:" + addressOf(native->d.iPAddress);
    case GEN_RID:
      return "RID:" + dotted(native->d.registeredID);
    case GEN_OTHERNAME:
      return "otherName:" + dotted(native->d.otherName->type_id);
    case GEN_X400:
      return "x400Address:";
    case GEN_EDIPARTY:
      return "ediPartyName:";
    default:
      return "unknown:";
  }
}

}  // namespace

Facts timeFact(const ASN1::RefGeneralizedTime& time) {
  if (time.empty()) return {};
  const std::chrono::sys_seconds point{std::chrono::seconds(time->seconds())};
  const auto day = std::chrono::floor<std::chrono::days>(point);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss clock(point - day);
  std::array<char, 64> text{};
  const int length = std::snprintf(
      text.data(), text.size(), "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
      static_cast<unsigned int>(date.month()), static_cast<unsigned int>(date.day()),
      static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
      static_cast<int>(clock.seconds().count()));
  return std::string(text.data(), static_cast<std::size_t>(length));
}

Facts numberFact(const ASN1::Integer& number) {
  return number.isNull() ? Facts() : Facts(number.asString());
}

Facts octetsFact(const ASN1::RefOctetString& octets) {
  return octets.empty() ? Facts() : Facts(octets->asString());
}

Facts keyIdFact(const RefAuthorityKeyIdentifier& identifier) {
  return identifier.empty() ? Facts() : octetsFact(identifier->keyId());
}

Facts nameFact(const RefGeneralName& name) { return textOf(name->native()); }

Facts namesFact(const std::shared_ptr<const GENERAL_NAMES>& names) {
  Facts::Array texts;
  const int count = names == nullptr ? 0 : sk_GENERAL_NAME_num(names.get());
  texts.reserve(static_cast<std::size_t>(count));
  for (int i = 0; i < count; ++i) {
    texts.emplace_back(textOf(sk_GENERAL_NAME_value(names.get(), i)));
  }
  return texts;
}

Facts pointNameFact(const RefCRLDistributionPointName& name) {
  const bool relative = !name.empty() && name->type() == CRLDistributionPointName::kRelativeName;
  return Facts::Object{
      {"fullName", name.empty() ? Facts::Array() : namesFact(name->nativeFullName())},
      {"relativeName", relative ? Facts(name->relativeName()) : Facts()}};
}

Facts reasonsFact(unsigned int reasons) { return bitNames(kReasons, reasons); }

Facts keyUsageFact(unsigned int usage) { return bitNames(kKeyUsages, usage); }

}  // namespace Velantrix::Tool
