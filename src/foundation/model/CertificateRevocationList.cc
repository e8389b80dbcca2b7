#include "foundation/base/Fail.h"
#include "foundation/base/ForkLock.h"
#include "foundation/base/ForkMutex.h"
#include "foundation/model/CRLForm.h"
#include "foundation/model/CRLParts.h"
#include "foundation/model/CRLSignature.h"
#include "foundation/model/ExtensionDecoder.h"
#include "foundation/model/PemOut.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "foundation/openssl/References.h"
#include "foundation/run/VerificationRun.h"

#include <velantrix/CertificateRevocationList.h>

#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::CertificateRevocationList", "CertificateRevocationList"};

// The name points into the X509_CRL and keeps it, rather than copy from it.
DistinguishedName issuerOf(X509_CRL* crl) {
  const std::shared_ptr<X509_CRL> whole = newReference(crl, kHere);
  return DistinguishedName(std::shared_ptr<const X509_NAME>(whole, X509_CRL_get_issuer(crl)));
}

ASN1::Integer decodeNumber(const X509_CRL* crl, int nid) {
  return ASN1::Integer(
      decodeOnlyExtension(X509_CRL_get0_extensions(crl), nid, d2i_ASN1_INTEGER, kHere.context)
          .get());
}

RefIssuingDistributionPoint decodeIssuingDistributionPoint(const X509_CRL* crl) {
  const std::shared_ptr<const ISSUING_DIST_POINT> decoded =
      decodeOnlyExtension(X509_CRL_get0_extensions(crl), NID_issuing_distribution_point,
                          d2i_ISSUING_DIST_POINT, kHere.context);
  if (decoded == nullptr) return RefIssuingDistributionPoint();
  return RefIssuingDistributionPoint(new IssuingDistributionPoint(decoded));
}

// A critical extension of a type for which @p handled is false.
template <class Handled>
bool hasCritical(const STACK_OF(X509_EXTENSION) * extensions, Handled handled) {
  for (int i = 0; i < X509v3_get_ext_count(extensions); ++i) {
    X509_EXTENSION* extension = X509v3_get_ext(extensions, i);
    if (X509_EXTENSION_get_critical(extension) > 0 &&
        !handled(OBJ_obj2nid(X509_EXTENSION_get_object(extension)))) {
      return true;
    }
  }
  return false;
}

// The first look-up in a CRL sorts its entries, under OpenSSL's lock. This does one, so that another
// thread's does not move them while they are walked through. What it finds does not matter. False when
// there is no memory for it.
bool sortEntries(X509_CRL* crl) {
  static constexpr unsigned char kZero[] = {0x02, 0x01, 0x00};
  const unsigned char* position = kZero;
  const Owned<ASN1_INTEGER> zero(d2i_ASN1_INTEGER(nullptr, &position, sizeof kZero));
  X509_REVOKED* found = nullptr;
  if (zero == nullptr) return false;
  static_cast<void>(X509_CRL_get0_by_serial(crl, &found, zero.get()));
  return true;
}

bool isHandled(int nid) {
  return nid == NID_issuing_distribution_point || nid == NID_authority_key_identifier ||
         nid == NID_delta_crl;
}

bool hasCriticalEntry(X509_CRL* crl) {
  if (!sortEntries(crl)) return true;
  const STACK_OF(X509_REVOKED)* entries = X509_CRL_get_REVOKED(crl);
  for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
    if (hasCritical(X509_REVOKED_get0_extensions(sk_X509_REVOKED_value(entries, i)),
                    [](int nid) { return nid == NID_certificate_issuer; })) {
      return true;
    }
  }
  return false;
}

bool deriveUnhandledCritical(const CertificateRevocationList& crl) {
  const ErrorScope errors;
  if (hasCritical(X509_CRL_get0_extensions(headOf(crl)), isHandled)) return true;
  const CompactCRL* const compact = CRLParts::compactOf(crl);
  return compact != nullptr ? compact->has(CompactCRL::kUnhandledCritical)
                            : hasCriticalEntry(CRLParts::nativeOf(crl));
}

const char* deriveBrokenRule(const CertificateRevocationList& crl) {
  if (const CompactCRL* const compact = CRLParts::compactOf(crl)) return brokenRuleOf(*compact);
  X509_CRL* const native = CRLParts::nativeOf(crl);
  return sortEntries(native) ? brokenRuleOf(native) : "no memory to look at its entries";
}

// What CRLs remember of signatures is looked at and changed with this lock held. They outlive forks, and
// who computes one does not: where that has begun in another process, it never ends.
struct SignatureLock {
  static void s_start_in_child(bool whole);

  ForkLock lock{s_start_in_child};
  // Somebody has ended computing. A child leaves that of its parent to the threads that wait there.
  struct Ended {
    std::condition_variable_any condition = {};
    Ended* former = nullptr;
  };
  Ended* ended = new Ended;
  unsigned int tornIn = 0;  // the last process that has found its parent changing something
};

SignatureLock signatures;

void SignatureLock::s_start_in_child(bool whole) {
  signatures.ended = new Ended{.former = signatures.ended};
  if (!whole) signatures.tornIn = signatures.lock.generation();
}

using SignaturesHeld = std::unique_lock<ForkLock>;

}  // namespace

CertificateRevocationListInfo::CertificateRevocationListInfo(
    const DistinguishedName& issuer, const RefAuthorityKeyIdentifier& authorityKeyIdentifier)
    : issuer_(issuer), authorityKeyIdentifier_(authorityKeyIdentifier) {}

struct CertificateRevocationList::Derived {
  struct Checked {
    Owned<EVP_PKEY> key;
    bool signedBy;
  };

  static constexpr std::size_t kMaxKeys = 8;

  // With the lock held.
  std::optional<bool> remembered(EVP_PKEY* key);
  void remember(EVP_PKEY* key, bool signedBy);
  bool isComputing() const noexcept { return computingIn == signatures.lock.generation() + 1; }

  // A turn to compute. Of several threads that ask at once one computes, and the others may be told to stop
  // while they wait for it.
  class Turn {
   public:
    // With the lock held, which it releases while it lives.
    Turn(Derived& derived, SignaturesHeld& lock) : derived_(derived), lock_(lock) {
      derived_.computingIn = signatures.lock.generation() + 1;
      ++derived_.signatureChecks;
      lock_.unlock();
    }
    ~Turn() {
      lock_.lock();
      derived_.computingIn = 0;
      signatures.ended->condition.notify_all();
    }
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

   private:
    Derived& derived_;
    SignaturesHeld& lock_;
  };

  std::unique_ptr<const CompactCRL> compact;  // null where it was made of OpenSSL's object
  ForkMutex making;                           // of OpenSSL's object
  unsigned int computingIn = 0;  // 0 for nowhere, otherwise the generation of the process and one
  unsigned int checkedIn = signatures.lock.generation();  // of the process that has seen `checked`
  std::vector<Checked> checked;                           // the key asked about last comes last
  std::size_t signatureChecks = 0;
  ForkOnce criticalOnce;
  bool unhandledCritical = true;
  ForkOnce formOnce;
  const char* brokenRule = "not looked at";
};

CertificateRevocationList::Native::~Native() { X509_CRL_free(get()); }

CertificateRevocationList::CertificateRevocationList(X509_CRL* native)
    : CertificateRevocationList(notNull(native), nullptr) {}

// What stands in the head is the same in either form.
CertificateRevocationList::CertificateRevocationList(X509_CRL* native,
                                                     std::unique_ptr<const CompactCRL> compact)
    : crl_(native),
      info_(issuerOf(compact == nullptr ? native : compact->head()),
            decodeAuthorityKeyIdentifier(
                X509_CRL_get0_extensions(compact == nullptr ? native : compact->head()),
                kHere.context)),
      derived_(std::make_unique<Derived>()) {
  const X509_CRL* const head = compact == nullptr ? native : compact->head();
  lastUpdate_ = ASN1::RefGeneralizedTime(X509_CRL_get0_lastUpdate(head), true);
  nextUpdate_ = ASN1::RefGeneralizedTime(X509_CRL_get0_nextUpdate(head), true);
  crlNumber_ = decodeNumber(head, NID_crl_number);
  baseCRLNumber_ = decodeNumber(head, NID_delta_crl);
  issuingDistributionPoint_ = decodeIssuingDistributionPoint(head);
  derived_->compact = std::move(compact);
}

CertificateRevocationList::~CertificateRevocationList() = default;

bool CertificateRevocationList::issuedBy(const RefCertificate& issuer, bool namesOnly) const {
  X509* candidate = issuer;
  if (candidate == nullptr) return false;
  const ErrorScope errors;
  if (X509_NAME_cmp(X509_get_subject_name(candidate), X509_CRL_get_issuer(headOf(*this))) != 0) {
    return false;
  }
  // Asking for the flags makes OpenSSL decode the extensions that the next two tests look at.
  if ((X509_get_extension_flags(candidate) & EXFLAG_INVALID) != 0) return false;
  const RefAuthorityKeyIdentifier authority = info_.authorityKeyIdentifier();
  if (!authority.empty() && X509_check_akid(candidate, authority->native()) != X509_V_OK) {
    return false;
  }
  if ((X509_get_key_usage(candidate) & KU_CRL_SIGN) == 0) return false;
  return namesOnly || isSignedBy(X509_get0_pubkey(candidate));
}

std::optional<bool> CertificateRevocationList::Derived::remembered(EVP_PKEY* key) {
  if (std::exchange(checkedIn, signatures.lock.generation()) < signatures.tornIn) {
    static auto* const torn = new std::list<std::vector<Checked>>;  // as it is: not to be touched
    torn->push_back(std::move(checked));
    checked = std::vector<Checked>();
  }
  auto known = std::find_if(checked.begin(), checked.end(),
                            [key](const Checked& entry) { return entry.key.get() == key; });
  if (known == checked.end()) {
    known = std::find_if(checked.begin(), checked.end(), [key](const Checked& entry) {
      return EVP_PKEY_eq(entry.key.get(), key) == 1;
    });
  }
  if (known == checked.end()) return std::nullopt;
  std::rotate(known, known + 1, checked.end());
  return checked.back().signedBy;
}

std::optional<bool> CertificateRevocationList::rememberedSignature(EVP_PKEY* key) const {
  if (key == nullptr) return false;
  const ErrorScope errors;
  const SignaturesHeld lock(signatures.lock);
  return derived_->remembered(key);
}

void CertificateRevocationList::Derived::remember(EVP_PKEY* key, bool signedBy) {
  if (EVP_PKEY_up_ref(key) != 1) return;
  Owned<EVP_PKEY> reference(key);
  if (checked.size() == kMaxKeys) checked.erase(checked.begin());
  checked.push_back({std::move(reference), signedBy});
}

bool CertificateRevocationList::isSignedBy(EVP_PKEY* key) const {
  return signatureBy(key).value_or(false);
}

std::optional<bool> CertificateRevocationList::signatureBy(EVP_PKEY* key) const {
  constexpr std::chrono::milliseconds kPatience{10};
  if (key == nullptr) return false;
  const ErrorScope errors;
  SignaturesHeld lock(signatures.lock);
  for (;;) {
    if (const std::optional<bool> known = derived_->remembered(key)) return known;
    if (!derived_->isComputing()) break;
    signatures.ended->condition.wait_for(lock, kPatience);
    lock.unlock();
    if (!VerificationRun::admitStep()) return std::nullopt;
    lock.lock();
  }
  std::optional<bool> signedBy;
  {
    const Derived::Turn turn(*derived_, lock);
    signedBy = derived_->compact != nullptr ? isCRLSignedBy(*derived_->compact, key)
                                            : isCRLSignedBy(crl_.get(), key);
  }
  if (signedBy) derived_->remember(key, *signedBy);
  return signedBy;
}

std::size_t CertificateRevocationList::signatureChecks() const {
  const SignaturesHeld lock(signatures.lock);
  return derived_->signatureChecks;
}

bool CertificateRevocationList::hasUnhandledCriticalExtension() const {
  derived_->criticalOnce.call(
      [this] { derived_->unhandledCritical = deriveUnhandledCritical(*this); });
  return derived_->unhandledCritical;
}

const char* CertificateRevocationList::brokenRule() const {
  derived_->formOnce.call([this] { derived_->brokenRule = deriveBrokenRule(*this); });
  return derived_->brokenRule;
}

std::size_t CertificateRevocationList::entryCount() const noexcept {
  if (derived_->compact != nullptr) return derived_->compact->entryCount();
  const int count = sk_X509_REVOKED_num(X509_CRL_get_REVOKED(crl_.get()));
  return count < 0 ? 0 : static_cast<std::size_t>(count);
}

void CertificateRevocationList::writePEM(MediaOut& out) const {
  writeEncoded(out, kHere.context, [this](BIO* bio) {
    if (derived_->compact == nullptr) return PEM_write_bio_X509_CRL(bio, crl_.get());
    const Octets& octets = derived_->compact->octets();
    const bool done = PEM_write_bio(bio, PEM_STRING_X509_CRL, "", octets.data(),
                                    static_cast<long>(octets.size())) > 0;
    return done ? 1 : 0;
  });
}

X509_CRL* CertificateRevocationList::native() const {
  if (X509_CRL* const made = crl_.get()) return made;
  const std::lock_guard<ForkMutex> lock(derived_->making);
  if (X509_CRL* const made = crl_.get()) return made;
  const ErrorScope errors;
  const Octets& octets = derived_->compact->octets();
  Owned<X509_CRL> decoded = decodeWhole(d2i_X509_CRL, octets.data(), octets.size());
  if (decoded == nullptr) fail(kHere, "OpenSSL does not read it");
  crl_.set(decoded.release());
  return crl_.get();
}

RefCertificateRevocationList CRLParts::make(std::unique_ptr<const CompactCRL> compact) {
  return RefCertificateRevocationList(new CertificateRevocationList(nullptr, std::move(compact)));
}

const CompactCRL* CRLParts::compactOf(const CertificateRevocationList& crl) noexcept {
  return crl.derived_->compact.get();
}

}  // namespace Velantrix::Crypto::PKX509
