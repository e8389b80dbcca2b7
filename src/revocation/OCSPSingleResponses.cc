#include "revocation/OCSPSingleResponses.h"

#include "foundation/base/Fail.h"
#include "foundation/model/StrictTime.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "revocation/OCSPMessage.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <tuple>

namespace Velantrix::Crypto::PKX509::Revocation {

namespace {

// What should be about the certificate might be its revocation: then nothing of the answer counts.
[[noreturn]] void failToCompare() {
  fail({"Revocation::OCSPSingleResponses", "OCSPSingleResponses"}, "CertIDs cannot be compared");
}

// 4.1.1: hashAlgorithm is an AlgorithmIdentifier, without parameters or with NULL.
bool hasPlainHashAlgorithm(const OCSP_CERTID* id) {
  const std::string der = encodeWhole(i2d_OCSP_CERTID, id);
  const unsigned char* const end = octets(der) + der.size();
  const std::optional<DerHeader> all = derHeader(octets(der), end);
  if (!all) failToCompare();
  const unsigned char* position = all->content;
  const Owned<X509_ALGOR> algorithm = decodeNext(d2i_X509_ALGOR, position, end);
  if (algorithm == nullptr) failToCompare();
  int type = V_ASN1_UNDEF;
  X509_ALGOR_get0(nullptr, &type, nullptr, algorithm.get());
  return type == V_ASN1_UNDEF || type == V_ASN1_NULL;
}

// The CertIDs that a certificate can have, each made when an answer first uses its hash.
class Identifiers {
 public:
  Identifiers(const RefCertificate& certificate, const RefCertificate& issuer)
      : certificate_(certificate), issuer_(issuer) {}

  // 3.2 (1): it is about the certificate in question. The serial number, which costs nothing to
  // compare, comes first.
  bool hold(const OCSP_CERTID* id) {
    ASN1_OBJECT* hashAlgorithm = nullptr;
    ASN1_INTEGER* serialNumber = nullptr;
    // The getter takes a non-const pointer but only reads.
    OCSP_id_get0_info(nullptr, &hashAlgorithm, nullptr, &serialNumber,
                      const_cast<OCSP_CERTID*>(id));
    if (ASN1_INTEGER_cmp(serialNumber, certificate_->serialNumber().native()) != 0) return false;
    const OCSP_CERTID* const own = ownBy(OBJ_obj2nid(hashAlgorithm));
    // 4.1.1: hashAlgorithm, issuerNameHash, issuerKeyHash, serialNumber
    return own != nullptr && OCSP_id_cmp(id, own) == 0 && hasPlainHashAlgorithm(id);
  }

 private:
  static constexpr std::array<int, 5> kHashes = {NID_sha1, NID_sha224, NID_sha256, NID_sha384,
                                                 NID_sha512};

  const OCSP_CERTID* ownBy(int hash) {
    for (std::size_t i = 0; i < kHashes.size(); ++i) {
      if (kHashes[i] != hash) continue;
      if (own_[i] == nullptr) {
        own_[i] = ocspIdentifier(EVP_get_digestbynid(hash), certificate_, issuer_);
        if (own_[i] == nullptr) failToCompare();
      }
      return own_[i].get();
    }
    return nullptr;
  }

  const RefCertificate& certificate_;
  const RefCertificate& issuer_;
  std::array<Owned<OCSP_CERTID>, kHashes.size()> own_ = {};
};

// A SingleResponse for the certificate.
struct Single {
  OCSPReading::Status status = OCSPReading::Status::kUnknown;
  Time thisUpdate = {};
  std::optional<Time> nextUpdate = {};
  Revoked revoked = {};
};

OCSPReading::Status statusOf(int certStatus) {
  if (certStatus == V_OCSP_CERTSTATUS_GOOD) return OCSPReading::Status::kGood;
  if (certStatus == V_OCSP_CERTSTATUS_REVOKED) return OCSPReading::Status::kRevoked;
  return OCSPReading::Status::kUnknown;
}

// 4.2.2.1: times are written as RFC 5280 has them. Nothing when one is not, or when the interval
// ends before it begins.
std::optional<Single> decodeSingle(OCSP_SINGLERESP* native) {
  int reason = -1;
  ASN1_GENERALIZEDTIME* revocationTime = nullptr;
  ASN1_GENERALIZEDTIME* thisUpdate = nullptr;
  ASN1_GENERALIZEDTIME* nextUpdate = nullptr;
  Single single;
  single.status =
      statusOf(OCSP_single_get0_status(native, &reason, &revocationTime, &thisUpdate, &nextUpdate));
  const std::optional<Time> begin = strictTime(thisUpdate);
  if (!begin) return std::nullopt;
  single.thisUpdate = *begin;
  single.nextUpdate = strictTime(nextUpdate);
  if (nextUpdate != nullptr && (!single.nextUpdate || *single.nextUpdate < *begin)) {
    return std::nullopt;
  }
  if (single.status == OCSPReading::Status::kRevoked) {
    single.revoked.date = strictTime(revocationTime);
    if (!single.revoked.date) return std::nullopt;
    if (reason >= 0) single.revoked.reason = reason;
  }
  return single;
}

bool hasUnknownCriticalExtension(OCSP_SINGLERESP* native) {
  for (int i = 0; i < OCSP_SINGLERESP_get_ext_count(native); ++i) {
    if (isUnknownAndCritical(OCSP_SINGLERESP_get_ext(native, i))) return true;
  }
  return false;
}

// The sum is on the side of the time that was read, whose years have four digits.
bool isAhead(const Time& stated, const Time& clock, unsigned int tolerance) {
  return stated.seconds() - std::int64_t{tolerance} > clock.seconds();
}

// Whether one response decides in the place of another. A revocation does; else the newer one does,
// and of two as new the one that knows less.
bool outweighs(const Single& one, const Single& other) {
  using Status = OCSPReading::Status;
  const auto weight = [](const Single& single) {
    return std::make_tuple(single.status == Status::kRevoked, single.thisUpdate,
                           single.status == Status::kUnknown);
  };
  return weight(one) > weight(other);
}

class SingleResponses {
 public:
  SingleResponses(OCSP_BASICRESP* basic, const RevocationSettings& settings, const Moment& moment,
                  OCSPReading& reading)
      : basic_(basic), settings_(settings), moment_(moment), reading_(reading) {}

  void read(Identifiers& identifiers) {
    if (!isProducedInTime()) return;
    for (int i = 0; i < OCSP_resp_count(basic_); ++i) {
      OCSP_SINGLERESP* const native = OCSP_resp_get0(basic_, i);
      if (identifiers.hold(OCSP_SINGLERESP_get0_id(native)) && !take(native)) return;
    }
    if (decisive_) {
      accept(*decisive_);
    } else if (!reading_.refused) {
      refuse(Reason::kOtherCertificate, "");
    }
  }

 private:
  bool isProducedInTime() {
    const std::optional<Time> producedAt = strictTime(OCSP_resp_get0_produced_at(basic_));
    if (!producedAt) {
      refuse(Reason::kMalformed, "producedAt");
      return false;
    }
    producedAt_ = *producedAt;
    reading_.statement.producedAt = producedAt;
    if (!isAhead(producedAt_, moment_.now, settings_.clockTolerance)) return true;
    refuse(Reason::kNotYetValid, "producedAt is in the future");
    return false;
  }

  // False when nothing of the answer counts: some of what it says about the certificate cannot be
  // understood, and it might be the revocation.
  bool take(OCSP_SINGLERESP* native) {
    // RFC 5280, 4.2: a critical extension that is not recognised
    if (hasUnknownCriticalExtension(native)) {
      refuse(Reason::kUnknownCriticalExtension, "in a single response");
      return false;
    }
    const std::optional<Single> single = decodeSingle(native);
    if (!single) {
      refuse(Reason::kMalformed, "times of a single response");
      return false;
    }
    if (!isTimely(*single)) return true;
    if (!decisive_ || outweighs(*single, *decisive_)) decisive_ = single;
    return true;
  }

  bool isTimely(const Single& single) {
    // 3.2 (5), 4.2.2.1: thisUpdate is not "later than the local system time".
    if (isAhead(single.thisUpdate, moment_.checked, settings_.clockTolerance)) {
      return setAside(single, Reason::kNotYetValid, "thisUpdate is in the future");
    }
    // 2.4: the status was known to be right before the answer was signed.
    if (isAhead(single.thisUpdate, producedAt_, settings_.clockTolerance)) {
      return setAside(single, Reason::kNotYetValid, "thisUpdate is after producedAt");
    }
    // 3.2 (6), 4.2.2.1: nextUpdate is not "earlier than the local system time".
    if (single.nextUpdate && *single.nextUpdate < moment_.checked) {
      return setAside(single, Reason::kExpired, "nextUpdate has passed");
    }
    // 3.2 (5): without nextUpdate newer information "is available all the time"; how recent is
    // "sufficiently recent" is for local policy.
    if (!single.nextUpdate && isOlderThan(single.thisUpdate, settings_.maximumOCSPAge)) {
      return setAside(single, Reason::kExpired, "too old without nextUpdate");
    }
    return true;
  }

  bool isOlderThan(const Time& thisUpdate, unsigned int age) const {
    return thisUpdate.seconds() + std::int64_t{age} < moment_.checked.seconds();
  }

  // The first one that is set aside says why, should there be no other.
  bool setAside(const Single& single, Reason reason, const char* detail) {
    if (reading_.refused) return false;
    refuse(reason, detail);
    reading_.statement.thisUpdate = single.thisUpdate;
    reading_.statement.nextUpdate = single.nextUpdate;
    return false;
  }

  void refuse(Reason reason, const char* detail) {
    reading_.refused = reason;
    reading_.detail = detail;
  }

  void accept(const Single& single) {
    reading_.refused.reset();
    reading_.detail.clear();
    reading_.status = single.status;
    reading_.revoked = single.revoked;
    reading_.statement.thisUpdate = single.thisUpdate;
    reading_.statement.nextUpdate = single.nextUpdate;
  }

  OCSP_BASICRESP* basic_;
  const RevocationSettings& settings_;
  const Moment& moment_;
  OCSPReading& reading_;
  Time producedAt_ = {};
  std::optional<Single> decisive_ = {};
};

}  // namespace

void readSingleResponses(OCSP_BASICRESP* basic, const RefCertificate& certificate,
                         const RefCertificate& issuer, const RevocationSettings& settings,
                         const Moment& moment, OCSPReading& reading) {
  Identifiers identifiers(certificate, issuer);
  SingleResponses(basic, settings, moment, reading).read(identifiers);
}

}  // namespace Velantrix::Crypto::PKX509::Revocation
