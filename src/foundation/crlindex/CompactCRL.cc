#include "foundation/crlindex/CompactCRL.h"

#include "foundation/crlindex/CRLEntry.h"
#include "foundation/crlindex/StrictDer.h"
#include "foundation/openssl/Der.h"

#include <algorithm>
#include <array>
#include <map>
#include <new>
#include <optional>
#include <string>
#include <utility>

namespace Velantrix::Crypto {

namespace {

// All but the entries stands there twice, and is decoded.
constexpr std::size_t kMostHead = std::size_t{64} * 1024;

// Certificate issuers that differ, and the octets of one. Each is decoded, and compared with the issuer
// of every certificate that is looked for.
constexpr std::size_t kMostIssuers = 1024;
constexpr std::size_t kMostIssuerOctets = 4096;

constexpr int kRemoveFromCRL = 8;  // 5.3.1

bool isTime(const DerElement& element) noexcept {
  return element.tag == kDerUTCTime || element.tag == kDerGeneralizedTime;
}

std::string_view between(const unsigned char* begin, const unsigned char* end) noexcept {
  return {reinterpret_cast<const char*>(begin), static_cast<std::size_t>(end - begin)};
}

}  // namespace

// 5.1, as far as it says where the entries are; what is before and behind them is read by OpenSSL.
struct CompactCRL::Parts {
  static std::optional<Parts> of(const unsigned char* begin, const unsigned char* end) noexcept;
  // The CRL without its entries.
  std::string head() const;

  const unsigned char* begin = nullptr;  // of TBSCertList
  DerElement toBeSigned = {};
  bool hasVersion = false;
  std::string_view algorithm;
  // The entries, and their SEQUENCE, which takes no octets where there is none.
  const unsigned char* listBegin = nullptr;
  const unsigned char* listEnd = nullptr;
  DerElement entries = {};
  std::string_view rest;  // behind TBSCertList
};

std::optional<CompactCRL::Parts> CompactCRL::Parts::of(const unsigned char* begin,
                                                       const unsigned char* end) noexcept {
  const DerElement whole = strictElement(begin, end);
  if (!whole || whole.tag != kDerSequence || whole.end != end) return std::nullopt;
  Parts parts;
  parts.begin = whole.content;
  const unsigned char* position = whole.content;
  const DerElement toBeSigned = takeElement(kDerSequence, position, end);
  if (!toBeSigned) return std::nullopt;
  parts.toBeSigned = toBeSigned;
  parts.rest = between(position, end);

  position = toBeSigned.content;
  const unsigned char* const behind = toBeSigned.end;
  parts.hasVersion = static_cast<bool>(takeElement(kDerInteger, position, behind));
  const unsigned char* const algorithm = position;
  if (!takeElement(kDerSequence, position, behind)) return std::nullopt;
  parts.algorithm = between(algorithm, position);
  if (!takeElement(kDerSequence, position, behind)) return std::nullopt;  // issuer
  const DerElement thisUpdate = strictElement(position, behind);
  if (!thisUpdate || !isTime(thisUpdate)) return std::nullopt;
  position = thisUpdate.end;
  const DerElement nextUpdate = strictElement(position, behind);
  if (nextUpdate && isTime(nextUpdate)) position = nextUpdate.end;
  parts.listBegin = position;
  parts.entries = takeElement(kDerSequence, position, behind);
  parts.listEnd = position;
  if (position != behind && !takeElement(kDerContext0, position, behind)) return std::nullopt;
  if (position != behind) return std::nullopt;
  return parts;
}

std::string CompactCRL::Parts::head() const {
  std::string signedPart(between(toBeSigned.content, listBegin));
  signedPart.append(between(listEnd, toBeSigned.end));
  std::string content;
  appendDer(content, V_ASN1_SEQUENCE, true, signedPart);
  content.append(rest);
  std::string whole;
  appendDer(whole, V_ASN1_SEQUENCE, true, content);
  return whole;
}

class CompactCRL::Builder {
 public:
  explicit Builder(CompactCRL& crl, const unsigned char* base) : crl_(crl), base_(base) {}

  bool readHead(const Parts& parts);
  bool readEntries(const DerElement& entries);
  // Once the octets are where they stay.
  void makeIndex();

 private:
  std::uint32_t positionOf(const unsigned char* place) const noexcept {
    return static_cast<std::uint32_t>(place - base_);
  }
  bool note(const CRLEntry& entry);
  void note(Trait trait, const CRLEntry& entry) noexcept {
    if (crl_.first_[trait] == 0) crl_.first_[trait] = positionOf(entry.begin);
  }
  bool noteIssuer(const CRLEntry& entry);

  CompactCRL& crl_;
  const unsigned char* base_;
  SerialHash hash_;
  SerialIndex::Candidates candidates_;
  std::string_view issuerOctets_;  // of the entry before
  std::map<std::string_view, std::uint32_t> issuers_;
  std::uint32_t issuer_ = 0;
};

// What OpenSSL makes of a head is what it makes of the same octets with entries in between. That it
// writes the head as it was shows that what is behind the signed part is DER.
bool CompactCRL::Builder::readHead(const Parts& parts) {
  const std::string head = parts.head();
  if (head.size() > kMostHead) return false;
  crl_.head_ = decodeWhole(d2i_X509_CRL, Crypto::octets(head), head.size());
  if (crl_.head_ == nullptr) return false;
  const X509_CRL* const decoded = crl_.head_.get();
  if (encodeWhole(i2d_X509_CRL, decoded) != head) return false;
  crl_.algorithm_ =
      decodeWhole(d2i_X509_ALGOR, Crypto::octets(parts.algorithm), parts.algorithm.size());
  crl_.hasVersion_ = parts.hasVersion;
  crl_.decodedOctets_ = head.size();
  crl_.toBeSigned_ = between(parts.begin, parts.toBeSigned.end);
  return crl_.algorithm_ != nullptr;
}

bool CompactCRL::Builder::readEntries(const DerElement& entries) {
  // The entries that one sees most often have that many octets.
  constexpr std::size_t kUsualEntry = 36;
  if (entries.size() == 0) return false;
  crl_.entriesEnd_ = positionOf(entries.end);
  candidates_.reserve(entries.size() / kUsualEntry + 1);
  CRLEntry entry;
  for (const unsigned char* position = entries.content; position != entries.end;
       position = entry.end) {
    __builtin_prefetch(position + 1024);
    if (!readCRLEntry(position, entries.end, entry) || !note(entry)) return false;
    candidates_.push_back(
        SerialIndex::candidate(hash_({entry.serial, issuer_}), positionOf(entry.begin)));
  }
  return true;
}

bool CompactCRL::Builder::note(const CRLEntry& entry) {
  if (!entry.hasExtensions) return true;
  note(kExtensions, entry);
  if (entry.reason == kRemoveFromCRL) note(kRemoval, entry);
  if (entry.unhandledCritical) note(kUnhandledCritical, entry);
  return entry.certificateIssuer.empty() || noteIssuer(entry);
}

// 5.3.3: it holds for the entries that follow, until there is another.
bool CompactCRL::Builder::noteIssuer(const CRLEntry& entry) {
  note(kCertificateIssuer, entry);
  if (entry.certificateIssuer == issuerOctets_) return true;
  issuerOctets_ = entry.certificateIssuer;
  const auto [known, isNew] =
      issuers_.try_emplace(issuerOctets_, static_cast<std::uint32_t>(issuers_.size() + 1));
  if (isNew) {
    if (issuers_.size() > kMostIssuers || issuerOctets_.size() > kMostIssuerOctets) return false;
    Owned<GENERAL_NAMES> names =
        decodeWhole(d2i_GENERAL_NAMES, Crypto::octets(issuerOctets_), issuerOctets_.size());
    if (names == nullptr) return false;
    crl_.issuers_.push_back(std::move(names));
    crl_.decodedOctets_ += issuerOctets_.size();
  }
  issuer_ = known->second;
  crl_.runs_.push_back({positionOf(entry.begin), issuer_});
  return true;
}

void CompactCRL::Builder::makeIndex() {
  crl_.entryCount_ = candidates_.size();
  crl_.runs_.shrink_to_fit();
  crl_.index_ =
      SerialIndex(candidates_, [this](std::uint32_t position) { return crl_.keyAt(position); });
}

std::unique_ptr<const CompactCRL> CompactCRL::read(Octets& octets) {
  if (octets.size() >> SerialIndex::kPositionBits != 0) return nullptr;
  const ErrorScope errors;
  const unsigned char* const begin = octets.data();
  const std::optional<Parts> parts = Parts::of(begin, begin + octets.size());
  if (!parts) return nullptr;
  std::unique_ptr<CompactCRL> crl(new CompactCRL);
  Builder builder(*crl, begin);
  if (!builder.readHead(*parts)) return nullptr;
  if (parts->entries && !builder.readEntries(parts->entries)) return nullptr;
  crl->octets_ = std::move(octets);  // they stay where they are
  try {
    builder.makeIndex();
  } catch (...) {
    octets = std::move(crl->octets_);
    throw;
  }
  return crl;
}

CompactCRL::~CompactCRL() = default;

// What stands there has been read before.
SerialKey CompactCRL::keyAt(std::uint32_t position) const noexcept {
  const unsigned char* const begin = octets_.data();
  return {serialOfCRLEntry(begin + position, begin + octets_.size()), issuerAt(position)};
}

std::uint32_t CompactCRL::issuerAt(std::uint32_t position) const noexcept {
  const auto next =
      std::upper_bound(runs_.begin(), runs_.end(), position,
                       [](std::uint32_t place, const Run& run) { return place < run.begin; });
  return next == runs_.begin() ? 0 : (next - 1)->issuer;
}

// Those that the name is one of. An issuer without a directory name is nobody.
std::vector<std::uint32_t> CompactCRL::issuersNamed(const X509_NAME* name) const {
  const X509_NAME* const own = X509_CRL_get_issuer(head());
  std::vector<std::uint32_t> named;
  if (name == nullptr || X509_NAME_cmp(name, own) == 0) named.push_back(0);
  if (name == nullptr) name = own;
  for (std::size_t i = 0; i < issuers_.size(); ++i) {
    const GENERAL_NAMES* const names = issuers_[i].get();
    for (int j = 0; j < sk_GENERAL_NAME_num(names); ++j) {
      int type = 0;
      const void* const value = GENERAL_NAME_get0_value(sk_GENERAL_NAME_value(names, j), &type);
      if (type != GEN_DIRNAME || X509_NAME_cmp(name, static_cast<const X509_NAME*>(value)) != 0) {
        continue;
      }
      named.push_back(static_cast<std::uint32_t>(i + 1));
      break;
    }
  }
  return named;
}

CompactCRL::Found CompactCRL::find(const X509* certificate) const {
  return find(X509_get0_serialNumber(certificate), X509_get_issuer_name(certificate));
}

CompactCRL::Found CompactCRL::find(const ASN1_INTEGER* serial, const X509_NAME* issuer) const {
  if (entryCount_ == 0) return {};
  const ErrorScope errors;
  // One that is longer than any here stands in no entry.
  constexpr int kMostHeader = 2;
  std::array<unsigned char, kMostSerialOctets + kMostHeader> encoded{};
  const int size = i2d_ASN1_INTEGER(serial, nullptr);
  if (size < 0) throw std::bad_alloc();
  if (size <= kMostHeader || static_cast<std::size_t>(size) > encoded.size()) return {};
  unsigned char* end = encoded.data();
  if (i2d_ASN1_INTEGER(serial, &end) != size) throw std::bad_alloc();
  const std::string_view content = between(encoded.data() + kMostHeader, encoded.data() + size);

  std::uint32_t first = 0;
  for (const std::uint32_t candidate : issuersNamed(issuer)) {
    const std::uint32_t position =
        index_.find({content, candidate}, [this](std::uint32_t at) { return keyAt(at); });
    if (position != 0 && (first == 0 || position < first)) first = position;
  }
  if (first == 0) return {};
  CRLEntry entry;
  const unsigned char* const begin = octets_.data();
  const bool removed =
      readCRLEntry(begin + first, begin + octets_.size(), entry) && entry.reason == kRemoveFromCRL;
  return {entryAt(first), removed};
}

Owned<X509_REVOKED> CompactCRL::entryAt(std::uint32_t position) const {
  const unsigned char* place = octets_.data() + position;
  Owned<X509_REVOKED> entry = decodeNext(d2i_X509_REVOKED, place, octets_.data() + octets_.size());
  // OpenSSL reads every entry that is kept here. What it lacks is memory, though it does not always say so
  // (3.5 with an allocator of the program's); and an entry that is there must not count as none.
  if (entry == nullptr) throw std::bad_alloc();
  return entry;
}

std::uint32_t CompactCRL::after(std::uint32_t position) const noexcept {
  const unsigned char* const begin = octets_.data();
  const auto next =
      static_cast<std::uint32_t>(strictElement(begin + position, begin + entriesEnd_).end - begin);
  return next == entriesEnd_ ? 0 : next;
}

std::size_t CompactCRL::memory() const noexcept {
  constexpr std::size_t kObjectFactor = 6;
  return sizeof *this + octets_.capacity() + index_.memory() + runs_.capacity() * sizeof(Run) +
         kObjectFactor * decodedOctets_;
}

}  // namespace Velantrix::Crypto
