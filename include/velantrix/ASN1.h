/// @file
/// The ASN.1 values that the certificate model hands out.
///
/// They wrap OpenSSL's `ASN1_STRING` family, copy what they are built from and never change
/// afterwards, so they outlive the certificate or CRL they came from.
///
/// @code
///   ASN1::Integer serial(X509_get0_serialNumber(x));
///   std::cout << serial << '\n';                           // 1A2B3C
///   ASN1::RefObjectIdentifier anyPolicy("2.5.29.32.0");
///   if (crl->nextUpdate() < ASN1::RefGeneralizedTime(now, true)) ...
/// @endcode
///
/// **Absence.** In certificates most values are optional, and "there is none" must never be taken
/// for "it is the same": an absent value equals another absent one and nothing else.
///
/// **Threads.** Values may be read by several threads at once; see `ObjectIdentifier` for the one
/// operation that changes its object.
#pragma once

#include <velantrix/Export.h>
#include <velantrix/Refcounted.h>
#include <velantrix/Time.h>

#include <openssl/asn1.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace Velantrix::Crypto::ASN1 {

/// An INTEGER of any size (RFC 5280 allows 20 octets for serial numbers and CRL numbers; more is
/// kept as it is). Copies share one immutable OpenSSL object.
class PKX509_EXPORT Integer {
 public:
  /// An absent integer.
  Integer() noexcept = default;
  /// Copies @p native, which stays the caller's; null makes an absent integer.
  /// @throws Exception when OpenSSL cannot copy it
  explicit Integer(const asn1_string_st* native);

  /// Shares @p native, which nobody changes any more; null makes an absent integer.
  explicit Integer(std::shared_ptr<const ASN1_INTEGER> native) noexcept;

  bool isNull() const noexcept { return native_ == nullptr; }

  /// By value, sign included; two absent integers are equal.
  bool operator==(const Integer& other) const noexcept;
  bool operator!=(const Integer& other) const noexcept { return !(*this == other); }
  /// By value. Never true when a side is absent, not even when both are: a CRL without a number is
  /// not the base of any delta CRL (RFC 5280, 5.2.4).
  bool operator<=(const Integer& other) const noexcept;

  /// Upper-case hexadecimal, two digits to the octet, a minus sign in front when negative: what
  /// `openssl x509 -serial` prints, on one line.
  /// @throws Exception when the integer is absent
  std::string asString() const;

  /// Borrowed; null when absent. Lives as long as a copy of this value does.
  const ASN1_INTEGER* native() const noexcept { return native_.get(); }

 private:
  std::shared_ptr<const ASN1_INTEGER> native_;
};

/// Prints `asString()`; the stream's number format and width play no part.
/// @throws Exception when the integer is absent, with nothing written
PKX509_EXPORT std::ostream& operator<<(std::ostream& out, const Integer& value);

/// The content of an OCTET STRING, a key identifier for the most part.
class PKX509_EXPORT OctetString : public RefImpl {
 public:
  /// Copies the content of @p native, which must not be null.
  explicit OctetString(const asn1_string_st* native);

  const std::vector<unsigned char>& content() const noexcept { return content_; }
  /// Upper-case hexadecimal octets joined by colons: "AB:CD"; empty for no octets.
  std::string asString() const;

 private:
  std::vector<unsigned char> content_;
};

/// A handle to an `OctetString`; an empty handle is an absent string.
class PKX509_EXPORT RefOctetString : public Ref<OctetString> {
 public:
  using Ref<OctetString>::Ref;
  RefOctetString() noexcept = default;
  /// Copies the content of @p native; null makes an empty handle.
  explicit RefOctetString(const asn1_string_st* native);

  /// By content, octet for octet. An absent string equals only an absent one; one of no octets is
  /// present.
  bool operator==(const RefOctetString& other) const noexcept;
  bool operator!=(const RefOctetString& other) const noexcept { return !(*this == other); }
};

/// Prints `OctetString::asString()`; nothing for an empty handle.
PKX509_EXPORT std::ostream& operator<<(std::ostream& out, const RefOctetString& value);

/// A point in time out of a certificate or a CRL, to the second.
///
/// Both forms of RFC 5280's Time are understood: UTCTime (years 1950 to 2049) and GeneralizedTime.
/// Fractions of a second are dropped, offsets from UTC are applied, as OpenSSL does.
class PKX509_EXPORT GeneralizedTime : public RefImpl {
 public:
  /// @param native a UTCTIME or GENERALIZEDTIME, not null
  /// @throws Exception when it is neither or its text is no time
  explicit GeneralizedTime(const asn1_string_st* native);

  Time asTime() const;
  /// Seconds after the epoch, negative before it.
  long seconds() const noexcept { return seconds_; }

 private:
  long seconds_;
};

/// A handle to a `GeneralizedTime`; an empty handle is an absent time.
class PKX509_EXPORT RefGeneralizedTime : public Ref<GeneralizedTime> {
 public:
  using Ref<GeneralizedTime>::Ref;
  RefGeneralizedTime() noexcept = default;
  /// @param native the time; null makes an empty handle
  /// @param copy   whether to copy: the value is read here and @p native is not needed afterwards,
  ///               whatever is passed
  /// @throws Exception when @p native cannot be read as a time
  RefGeneralizedTime(const asn1_string_st* native, bool copy);

  /// Earlier than. An absent time comes before every other and is not before another absent one, so
  /// that this is a strict weak ordering and may order a set.
  bool operator<(const RefGeneralizedTime& other) const noexcept;
};

/// An OBJECT IDENTIFIER.
///
/// It owns its OpenSSL object until `relinquishOwnerShip()` gives it away; OpenSSL's add0 functions
/// want that. Giving away changes the object and is for one thread; everything else may be read by
/// several.
class PKX509_EXPORT ObjectIdentifier : public RefImpl {
 public:
  /// @param dotted the numbers and dots, for example "2.5.29.32.0"; names are refused, since what
  ///               they mean depends on the OpenSSL they are given to
  /// @throws Exception when it is anything else
  explicit ObjectIdentifier(const std::string& dotted);
  ~ObjectIdentifier() override;

  /// Hands the OpenSSL object to the caller, who has to free it or pass it on; this object keeps a
  /// borrowed pointer, which lives as long as the new owner lets it. Null when the object has been
  /// given away before.
  ASN1_OBJECT* relinquishOwnerShip() noexcept;
  bool ownsObject() const noexcept { return owns_; }

  /// Borrowed; see `relinquishOwnerShip()`.
  const ASN1_OBJECT* native() const noexcept { return native_; }
  /// The dotted form.
  const std::string& asString() const noexcept { return text_; }

 private:
  std::string text_;
  ASN1_OBJECT* native_;
  bool owns_ = true;
};

/// A handle to an `ObjectIdentifier`.
class PKX509_EXPORT RefObjectIdentifier : public Ref<ObjectIdentifier> {
 public:
  using Ref<ObjectIdentifier>::Ref;
  RefObjectIdentifier() noexcept = default;
  /// See `ObjectIdentifier`'s constructor.
  /// @throws Exception when @p dotted is not a dotted identifier
  explicit RefObjectIdentifier(const std::string& dotted);
};

}  // namespace Velantrix::Crypto::ASN1
