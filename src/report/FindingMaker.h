// How findings are made: their texts cut, what is absent left out.
#pragma once

#include "report/DetailNames.h"
#include "report/ReportContent.h"

#include <velantrix/ASN1.h>
#include <velantrix/Certificate.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/Time.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

// As far as a report takes it.
std::string reportText(std::string_view text);
std::string reportText(const DistinguishedName& name);

// The texts of names as a report takes them, each made once: on a path most stand twice or more.
class NameTexts {
 public:
  std::string of(const DistinguishedName& name);
  // One that has been made before. The name is borrowed.
  void add(const X509_NAME* name, const std::string& text) { known_.emplace_back(name, text); }

 private:
  std::vector<std::pair<const X509_NAME*, std::string>> known_;  // names borrowed
};

// Empty for an empty handle.
VerificationReport::Subject subjectOf(const RefCertificate& certificate);
VerificationReport::Subject subjectOf(const RefCertificate& certificate, NameTexts& texts);
// Upper case hexadecimal; negative ones with a minus.
std::string serialText(const ASN1_INTEGER* serial);

// The number of a CRL as people write it, decimal; one that is longer than RFC 5280, 5.2.3, allows is
// hexadecimal. Empty for an absent one.
std::string crlNumberText(const ASN1::Integer& number);

// None for a time that cannot be read.
std::optional<Time> timeOf(const ASN1_TIME* native);

class FindingMaker {
 public:
  FindingMaker(Rule rule, int code) { content_.rule = rule, content_.code = code; }

  FindingMaker& about(const RefCertificate& certificate, int depth);
  FindingMaker& from(VerificationReport::Origin origin);
  FindingMaker& add(std::string_view name, std::string_view text);  // unless it is empty
  FindingMaker& add(std::string_view name, std::int64_t number);
  FindingMaker& addUnlessZero(std::string_view name, std::int64_t number);
  FindingMaker& add(std::string_view name, const std::optional<Time>& time);
  // The distance of the time that decided to the check time.
  FindingMaker& addDistance(const std::optional<Time>& time, const Time& checked);
  // Number, issuer, times and size.
  FindingMaker& add(const RefCertificateRevocationList& crl);
  FindingMaker& below(VerificationReport::Finding finding);

  VerificationReport::Finding make() && { return VerificationReport::Finding(std::move(content_)); }

 private:
  FindingMaker& append(std::string_view name, VerificationReport::Value value);

  VerificationReport::Finding::Content content_;
};

}  // namespace Velantrix::Crypto::PKX509
