// The single values that facts are made of.
#pragma once

#include "Facts.h"

#include <velantrix/ASN1.h>
#include <velantrix/AuthorityKeyIdentifier.h>
#include <velantrix/CRLDistributionPoint.h>
#include <velantrix/GeneralName.h>

#include <memory>
#include <string>

namespace Velantrix::Tool {

/// "2026-11-21T05:00:00Z"; null when absent.
Facts timeFact(const Crypto::ASN1::RefGeneralizedTime& time);
/// Hexadecimal; null when absent.
Facts numberFact(const Crypto::ASN1::Integer& number);
/// Hexadecimal pairs; null when absent.
Facts octetsFact(const Crypto::ASN1::RefOctetString& octets);
/// The key identifier; null when there is none, also in an extension that names the issuer's
/// certificate otherwise.
Facts keyIdFact(const Crypto::PKX509::RefAuthorityKeyIdentifier& identifier);

/// With its type in front, "URI:http://crl.example.com/ca.crl", as OpenSSL's configuration
/// files write them.
Facts nameFact(const Crypto::PKX509::RefGeneralName& name);
/// Those of a list, none for null.
Facts namesFact(const std::shared_ptr<const GENERAL_NAMES>& names);
/// The keys "fullName" and "relativeName" of a distribution point's @p name, which may be empty.
Facts pointNameFact(const Crypto::PKX509::RefCRLDistributionPointName& name);
/// RFC 5280's names of OpenSSL's reason bits.
Facts reasonsFact(unsigned int reasons);
/// RFC 5280's names of OpenSSL's `KU_*` bits.
Facts keyUsageFact(unsigned int usage);

}  // namespace Velantrix::Tool
