// Certificates and CRLs for tests, made in the process with OpenSSL alone.
//
//   const Issued root = issue({.subject = "CN=Root", .ca = true});
//   const Issued leaf = issue({.subject = "C=DE,O=Mail,CN=Leaf", .issuer = &root});
//   const auto crl = makeCRL({.issuer = &root, .revoked = {{.serial = leaf, .reason = 1}}});
//   writeFile(directory / crlHashName(crl.get()), pem(crl.get()));
//   writeFile(directory / hashName(root.cert.get()), pem(root.cert.get()));
//
// Nothing of the library under test is used, so that a mistake there cannot hide here. What is
// built is written to DER and read back: a test sees the object that a reader of the file would
// see. The defaults make a well-formed object; every option takes it away from that in one way, and
// no option is refused for being wrong. Failures throw std::runtime_error with OpenSSL's text.
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"
#include "support/Files.h"

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {

using Crypto::Owned;

/// A certificate and its private key. Copies share both.
struct Issued {
  std::shared_ptr<X509> cert;
  std::shared_ptr<EVP_PKEY> key;

  X509* get() const { return cert.get(); }
  /// A reference on the same X509 that the caller owns.
  Owned<X509> reference() const;
};

/// A value that is what it usually is, or that is not there at all.
inline constexpr int kUsual = -2;
inline constexpr int kAbsent = -1;

/// A point in time: seconds from now (`-24h`), time_t by `at`, or text like "20260131120000Z".
class When {
 public:
  template <class Rep, class Period>
  When(std::chrono::duration<Rep, Period> fromNow)  // NOLINT(google-explicit-constructor)
      : time_(std::time(nullptr) +
              std::chrono::duration_cast<std::chrono::duration<std::time_t>>(fromNow).count()) {}
  When(const char* text);  // NOLINT(google-explicit-constructor)
  static When at(std::time_t time) { return When(Absolute{time}); }

  std::time_t time() const { return time_; }

 private:
  struct Absolute {
    std::time_t time;
  };
  explicit When(Absolute absolute) : time_(absolute.time) {}

  std::time_t time_;
};

/// A serial number: a small integer, hexadecimal text of any length ("-0A" is negative), or that of
/// a certificate. An empty one stands for a new number that no other certificate of this run has.
class Serial {
 public:
  Serial() = default;
  Serial(int number);            // NOLINT(google-explicit-constructor)
  Serial(const char* hex);       // NOLINT(google-explicit-constructor)
  Serial(const X509* cert);      // NOLINT(google-explicit-constructor)
  Serial(const Issued& issued);  // NOLINT(google-explicit-constructor)
  const std::string& hex() const { return hex_; }

 private:
  std::string hex_;
};

enum class KeyKind { P256, Rsa2048, Ed25519 };

/// A new key. RSA keys come in turn from a few that are made once, since they are slow to make.
std::shared_ptr<EVP_PKEY> makeKey(KeyKind kind = KeyKind::P256);

/// A subject or authority key identifier.
enum class KeyId {
  Right,      ///< that of the key; an authority's is absent when the issuer's certificate has none
  Absent,     ///< no extension
  Wrong,      ///< of a key that nobody has
  SerialOnly  ///< authority only: issuer name and serial number in place of the key id
};

/// An extension as it stands in openssl.cnf, e.g. {"subjectAltName", "critical,email:a@b.test"}.
/// The name may be a dotted identifier with a value like "DER:0500".
struct ConfigExtension {
  std::string name;
  std::string value;
};

/// An extension from its parts. `der` is what the extension's OCTET STRING holds, right or wrong; a
/// literal with zero bytes in it needs the suffix of std::string_literals: "\x05\0"s.
struct RawExtension {
  std::string oid;
  bool critical = false;
  std::string der = {};
};

/// General names are written "URI:...", "email:...", "DNS:...", "IP:...", "RID:..." or
/// "dirName:C=DE,CN=Name"; names as `makeName` wants them; reasons are OpenSSL's bits (0x807f all).
struct DistributionPoint {
  std::vector<std::string> fullNames = {};
  std::string relativeName = {};  ///< one RDN, used when there are no full names
  int reasons = kAbsent;
  std::vector<std::string> crlIssuers = {};
};

struct IssuingDistributionPoint {
  std::vector<std::string> fullNames = {};
  std::string relativeName = {};  ///< one RDN, used when there are no full names
  bool onlyUser = false;
  bool onlyCA = false;
  bool onlyAttributes = false;
  bool indirect = false;
  int onlySomeReasons = kAbsent;
  bool critical = true;
};

struct CertificateOptions {
  std::string subject = "CN=Test";
  const Issued* issuer = nullptr;  ///< borrowed for the call; null: self-signed
  std::string issuerName = {};     ///< in place of the issuer's subject
  Serial serial = {};
  When notBefore = std::chrono::hours(-24);
  When notAfter = std::chrono::hours(24 * 365);
  bool ca = false;  ///< basicConstraints cA, and the usual key usage of a CA
  int pathLength = kAbsent;
  bool basicConstraints = true;  ///< false: the extension is absent
  int keyUsage = kUsual;         ///< KU_* bits, kUsual or kAbsent
  KeyId subjectKeyId = KeyId::Right;
  KeyId authorityKeyId = KeyId::Right;  ///< usually absent in a self-signed certificate
  std::vector<DistributionPoint> crlDistributionPoints = {};
  std::vector<DistributionPoint> freshestCRL = {};
  std::vector<ConfigExtension> extensions = {};
  std::string config = {};  ///< sections that `extensions` refer to with "@name"
  std::vector<RawExtension> rawExtensions = {};  ///< added last, also when such a one is there
  KeyKind keyKind = KeyKind::P256;
  std::shared_ptr<EVP_PKEY> key = {};     ///< in place of a new key
  std::shared_ptr<EVP_PKEY> signer = {};  ///< in place of the issuer's key
  bool badSignature = false;              ///< the signature is changed after signing
};

struct Revoked {
  Serial serial;
  When date = std::chrono::hours(-1);
  int reason = kAbsent;                ///< CRL_REASON_*
  std::string certificateIssuer = {};  ///< a name, critical extension of an indirect CRL
  std::vector<RawExtension> extensions = {};
};

struct CRLOptions {
  const Issued* issuer = nullptr;  ///< borrowed for the call; needed
  std::string issuerName = {};     ///< in place of the issuer's subject
  When lastUpdate = std::chrono::hours(-1);
  std::optional<When> nextUpdate = When(std::chrono::hours(24 * 7));
  std::optional<Serial> number = Serial(1);        ///< empty: no CRL number
  std::optional<Serial> deltaBase = std::nullopt;  ///< delta CRL indicator with this base number
  std::vector<Revoked> revoked = {};               ///< in this order, which indirect CRLs rely on
  std::optional<IssuingDistributionPoint> idp = std::nullopt;
  std::vector<DistributionPoint> freshestCRL = {};
  KeyId authorityKeyId = KeyId::Right;
  std::vector<ConfigExtension> extensions = {};
  std::vector<RawExtension> rawExtensions = {};
  std::shared_ptr<EVP_PKEY> signer = {};  ///< in place of the issuer's key
  bool badSignature = false;
};

Issued issue(const CertificateOptions& options);

/// A certification authority with the given name; self-signed when there is no issuer.
Issued issueCA(const std::string& subject, const Issued* issuer = nullptr);

Owned<X509_CRL> makeCRL(const CRLOptions& options);

Owned<X509_EXTENSION> makeExtension(const RawExtension& description);

/// The name whose RDNs are encoded in the order of the text: "C=DE,O=Mail,CN=A+serialNumber=7". A
/// backslash takes the next character as it is. Values are UTF-8, types OpenSSL's names or dotted.
Owned<X509_NAME> makeName(const std::string& text);

/// A general name from a text as described at `DistributionPoint`.
Owned<GENERAL_NAME> makeGeneralName(const std::string& text);

std::string der(const X509* cert);
std::string der(const X509_CRL* crl);
std::string der(const X509_NAME* name);
std::string pem(const X509* cert);
std::string pem(const X509_CRL* crl);
std::string pem(const EVP_PKEY* key);  ///< PKCS #8, not encrypted

Owned<X509> certFromDer(std::string_view der);
Owned<X509_CRL> crlFromDer(std::string_view der);

/// File names of hash directories as `openssl rehash` makes them: eight lower-case digits, and ".0"
/// (of the subject) for a certificate, ".r0" (of the issuer) for a CRL.
std::string hashName(const X509* cert, int index = 0);
std::string crlHashName(const X509_CRL* crl, int index = 0);

/// The key of a name in a hash directory.
std::uint32_t nameHash(const X509_NAME* name);

/// Write the PEM form into a hash directory under the first index that is free; the file's path.
std::filesystem::path addToDirectory(const std::filesystem::path& directory, const X509* cert);
std::filesystem::path addToDirectory(const std::filesystem::path& directory, const X509_CRL* crl);

}  // namespace Velantrix::Test
