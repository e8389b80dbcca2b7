#include "support/Pki.h"

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/conf.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <mutex>
#include <stdexcept>

namespace Velantrix::Test {

namespace {

using Crypto::OwnedMemory;

[[noreturn]] void fail(const std::string& what) {
  std::string text = what;
  while (const unsigned long code = ERR_get_error()) {
    std::array<char, 256> line{};
    ERR_error_string_n(code, line.data(), line.size());
    text.append("; ").append(line.data());
  }
  throw std::runtime_error(text);
}

/// The owner of what an OpenSSL function made, which must be something.
template <class T>
Owned<T> made(T* object, const char* function) {
  if (object == nullptr) fail(function);
  return Owned<T>(object);
}

void mustBeTrue(int result, const char* function) {
  if (result <= 0) fail(function);
}

struct FreeConf {
  void operator()(CONF* conf) const noexcept { NCONF_free(conf); }
};
using OwnedConf = std::unique_ptr<CONF, FreeConf>;

struct FreeEntries {
  void operator()(STACK_OF(X509_NAME_ENTRY) * entries) const noexcept {
    sk_X509_NAME_ENTRY_pop_free(entries, X509_NAME_ENTRY_free);
  }
};
using OwnedEntries = std::unique_ptr<STACK_OF(X509_NAME_ENTRY), FreeEntries>;

using Extensions = std::vector<Owned<X509_EXTENSION>>;

/// DER by any of OpenSSL's i2d functions.
template <class T, class I2d>
std::string encoded(const T* object, I2d i2d) {
  unsigned char* bytes = nullptr;
  const int length = i2d(object, &bytes);
  const OwnedMemory<unsigned char> owner(bytes);
  if (length < 0) fail("i2d");
  return std::string(bytes, bytes + length);
}

template <class T, class D2i>
Owned<T> decoded(std::string_view der, D2i d2i) {
  const std::vector<unsigned char> bytes(der.begin(), der.end());
  const unsigned char* at = bytes.data();
  auto object = made<T>(d2i(nullptr, &at, static_cast<long>(bytes.size())), "d2i");
  if (at != bytes.data() + bytes.size()) fail("d2i: bytes are left");
  return object;
}

template <class Write>
std::string written(Write write) {
  const auto bio = made(BIO_new(BIO_s_mem()), "BIO_new");
  mustBeTrue(write(bio.get()), "PEM_write_bio");
  const char* text = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &text);
  return std::string(text, static_cast<std::size_t>(length));
}

Owned<ASN1_INTEGER> makeInteger(const Serial& serial) {
  static std::atomic<int> last = 0x1000;
  const std::string hex = serial.hex().empty() ? Serial(++last).hex() : serial.hex();
  BIGNUM* parsed = nullptr;
  const int used = BN_hex2bn(&parsed, hex.c_str());
  const Owned<BIGNUM> number(parsed);
  if (used <= 0 || static_cast<std::size_t>(used) != hex.size()) fail("not a number: " + hex);
  return made(BN_to_ASN1_INTEGER(number.get(), nullptr), "BN_to_ASN1_INTEGER");
}

Owned<ASN1_TIME> makeTime(const When& when) {
  return made(ASN1_TIME_set(nullptr, when.time()), "ASN1_TIME_set");
}

/// OpenSSL's numbers for reasons and key usages hold the first byte of the BIT STRING, whose bits
/// count from its top, in their low byte.
Owned<ASN1_BIT_STRING> makeBits(int mask) {
  auto bits = made(ASN1_BIT_STRING_new(), "ASN1_BIT_STRING_new");
  for (int bit = 0; bit < 16; ++bit) {
    if ((mask & ((0x80 >> (bit % 8)) << (bit / 8 * 8))) != 0) {
      mustBeTrue(ASN1_BIT_STRING_set_bit(bits.get(), bit, 1), "ASN1_BIT_STRING_set_bit");
    }
  }
  return bits;
}

Owned<GENERAL_NAMES> makeGeneralNames(const std::vector<std::string>& texts) {
  auto names = made(GENERAL_NAMES_new(), "GENERAL_NAMES_new");
  for (const std::string& text : texts) {
    auto name = makeGeneralName(text);
    mustBeTrue(sk_GENERAL_NAME_push(names.get(), name.get()), "sk_GENERAL_NAME_push");
    static_cast<void>(name.release());
  }
  return names;
}

Owned<GENERAL_NAMES> makeGeneralNames(Owned<X509_NAME> directoryName) {
  auto names = made(GENERAL_NAMES_new(), "GENERAL_NAMES_new");
  auto name = made(GENERAL_NAME_new(), "GENERAL_NAME_new");
  GENERAL_NAME_set0_value(name.get(), GEN_DIRNAME, directoryName.release());
  mustBeTrue(sk_GENERAL_NAME_push(names.get(), name.get()), "sk_GENERAL_NAME_push");
  static_cast<void>(name.release());
  return names;
}

/// Null when there is neither a full nor a relative name.
Owned<DIST_POINT_NAME> makePointName(const std::vector<std::string>& fullNames,
                                     const std::string& relativeName) {
  if (fullNames.empty() && relativeName.empty()) return nullptr;
  auto point = made(DIST_POINT_NAME_new(), "DIST_POINT_NAME_new");
  if (!fullNames.empty()) {
    point->type = 0;
    point->name.fullname = makeGeneralNames(fullNames).release();
    return point;
  }
  const auto name = makeName(relativeName);
  OwnedEntries entries(sk_X509_NAME_ENTRY_new_null());
  if (!entries) fail("sk_X509_NAME_ENTRY_new_null");
  for (int i = 0; i < X509_NAME_entry_count(name.get()); ++i) {
    X509_NAME_ENTRY* entry = X509_NAME_ENTRY_dup(X509_NAME_get_entry(name.get(), i));
    if (entry == nullptr) fail("X509_NAME_ENTRY_dup");
    if (sk_X509_NAME_ENTRY_push(entries.get(), entry) <= 0) {
      X509_NAME_ENTRY_free(entry);
      fail("sk_X509_NAME_ENTRY_push");
    }
  }
  point->type = 1;
  point->name.relativename = entries.release();
  return point;
}

Owned<CRL_DIST_POINTS> makePoints(const std::vector<DistributionPoint>& descriptions) {
  auto points = made(CRL_DIST_POINTS_new(), "CRL_DIST_POINTS_new");
  for (const DistributionPoint& description : descriptions) {
    auto point = made(DIST_POINT_new(), "DIST_POINT_new");
    point->distpoint = makePointName(description.fullNames, description.relativeName).release();
    if (description.reasons != kAbsent) point->reasons = makeBits(description.reasons).release();
    if (!description.crlIssuers.empty()) {
      point->CRLissuer = makeGeneralNames(description.crlIssuers).release();
    }
    mustBeTrue(sk_DIST_POINT_push(points.get(), point.get()), "sk_DIST_POINT_push");
    static_cast<void>(point.release());
  }
  return points;
}

Owned<ISSUING_DIST_POINT> makeIssuingPoint(const IssuingDistributionPoint& description) {
  auto point = made(ISSUING_DIST_POINT_new(), "ISSUING_DIST_POINT_new");
  const auto boolean = [](bool value) { return value ? 0xff : 0; };
  point->distpoint = makePointName(description.fullNames, description.relativeName).release();
  point->onlyuser = boolean(description.onlyUser);
  point->onlyCA = boolean(description.onlyCA);
  point->onlyattr = boolean(description.onlyAttributes);
  point->indirectCRL = boolean(description.indirect);
  if (description.onlySomeReasons != kAbsent) {
    point->onlysomereasons = makeBits(description.onlySomeReasons).release();
  }
  return point;
}

Owned<X509_EXTENSION> makeExtension(int nid, bool critical, void* value) {
  return made(X509V3_EXT_i2d(nid, critical ? 1 : 0, value), "X509V3_EXT_i2d");
}

void append(Extensions& extensions, const std::vector<RawExtension>& descriptions) {
  for (const RawExtension& description : descriptions) {
    extensions.push_back(makeExtension(description));
  }
}

void append(Extensions& extensions, const std::vector<ConfigExtension>& descriptions,
            const std::string& sections, X509* issuer, X509* subject, X509_CRL* crl) {
  if (descriptions.empty()) return;
  const OwnedConf conf(NCONF_new(nullptr));
  const auto text =
      made(BIO_new_mem_buf(sections.data(), static_cast<int>(sections.size())), "BIO_new_mem_buf");
  if (!conf) fail("NCONF_new");
  mustBeTrue(NCONF_load_bio(conf.get(), text.get(), nullptr), "NCONF_load_bio");
  X509V3_CTX context{};
  X509V3_set_ctx(&context, issuer, subject, nullptr, crl, 0);
  X509V3_set_nconf(&context, conf.get());
  for (const ConfigExtension& description : descriptions) {
    extensions.push_back(made(
        X509V3_EXT_nconf(conf.get(), &context, description.name.c_str(), description.value.c_str()),
        description.name.c_str()));
  }
}

Owned<ASN1_OCTET_STRING> makeKeyId(const X509* cert, KeyId which) {
  auto keyId = made(ASN1_OCTET_STRING_new(), "ASN1_OCTET_STRING_new");
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  digest.fill(0xee);
  unsigned int length = 20;
  if (which == KeyId::Right) {
    // RFC 5280, 4.2.1.2, method (1).
    mustBeTrue(X509_pubkey_digest(cert, EVP_sha1(), digest.data(), &length), "X509_pubkey_digest");
  }
  mustBeTrue(ASN1_OCTET_STRING_set(keyId.get(), digest.data(), static_cast<int>(length)),
             "ASN1_OCTET_STRING_set");
  return keyId;
}

/// `issuer` is null in a self-signed certificate.
void appendAuthorityKeyId(Extensions& extensions, KeyId which, X509* issuer) {
  if (which == KeyId::Absent || (which != KeyId::Wrong && issuer == nullptr)) return;
  const auto authority = made(AUTHORITY_KEYID_new(), "AUTHORITY_KEYID_new");
  if (which == KeyId::SerialOnly) {
    authority->issuer =
        makeGeneralNames(made(X509_NAME_dup(X509_get_issuer_name(issuer)), "X509_NAME_dup"))
            .release();
    authority->serial =
        made(ASN1_INTEGER_dup(X509_get0_serialNumber(issuer)), "ASN1_INTEGER_dup").release();
  } else if (which == KeyId::Wrong) {
    authority->keyid = makeKeyId(issuer, KeyId::Wrong).release();
  } else {
    const ASN1_OCTET_STRING* keyId = X509_get0_subject_key_id(issuer);
    if (keyId == nullptr) return;
    authority->keyid = made(ASN1_OCTET_STRING_dup(keyId), "ASN1_OCTET_STRING_dup").release();
  }
  extensions.push_back(makeExtension(NID_authority_key_identifier, false, authority.get()));
}

void appendPoints(Extensions& extensions, int nid,
                  const std::vector<DistributionPoint>& descriptions) {
  if (descriptions.empty()) return;
  extensions.push_back(makeExtension(nid, false, makePoints(descriptions).get()));
}

void appendConstraints(Extensions& extensions, const CertificateOptions& options) {
  if (options.basicConstraints) {
    const auto constraints = made(BASIC_CONSTRAINTS_new(), "BASIC_CONSTRAINTS_new");
    constraints->ca = options.ca ? 0xff : 0;
    if (options.pathLength != kAbsent) {
      constraints->pathlen = makeInteger(Serial(options.pathLength)).release();
    }
    extensions.push_back(makeExtension(NID_basic_constraints, true, constraints.get()));
  }
  const int usual =
      options.ca ? KU_KEY_CERT_SIGN | KU_CRL_SIGN : KU_DIGITAL_SIGNATURE | KU_KEY_ENCIPHERMENT;
  if (options.keyUsage != kAbsent) {
    const auto usage = makeBits(options.keyUsage == kUsual ? usual : options.keyUsage);
    extensions.push_back(makeExtension(NID_key_usage, true, usage.get()));
  }
}

Owned<X509_REVOKED> makeRevoked(const Revoked& description) {
  auto entry = made(X509_REVOKED_new(), "X509_REVOKED_new");
  mustBeTrue(X509_REVOKED_set_serialNumber(entry.get(), makeInteger(description.serial).get()),
             "X509_REVOKED_set_serialNumber");
  mustBeTrue(X509_REVOKED_set_revocationDate(entry.get(), makeTime(description.date).get()),
             "X509_REVOKED_set_revocationDate");
  Extensions extensions;
  if (description.reason != kAbsent) {
    const auto reason = made(ASN1_ENUMERATED_new(), "ASN1_ENUMERATED_new");
    mustBeTrue(ASN1_ENUMERATED_set(reason.get(), description.reason), "ASN1_ENUMERATED_set");
    extensions.push_back(makeExtension(NID_crl_reason, false, reason.get()));
  }
  if (!description.certificateIssuer.empty()) {
    const auto issuer = makeGeneralNames(makeName(description.certificateIssuer));
    extensions.push_back(makeExtension(NID_certificate_issuer, true, issuer.get()));
  }
  append(extensions, description.extensions);
  for (const auto& extension : extensions) {
    mustBeTrue(X509_REVOKED_add_ext(entry.get(), extension.get(), -1), "X509_REVOKED_add_ext");
  }
  return entry;
}

const EVP_MD* digestFor(const EVP_PKEY* key) {
  return EVP_PKEY_get_id(key) == EVP_PKEY_ED25519 ? nullptr : EVP_sha256();
}

/// The signature is the last that stands in the encoding.
void changeSignature(std::string& der) { der.back() = static_cast<char>(der.back() ^ 1); }

std::string hashFileName(const X509_NAME* name, const char* kind, int index) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%08x.%s%d", static_cast<unsigned int>(nameHash(name)),
                kind, index);
  return text.data();
}

}  // namespace

Owned<X509> Issued::reference() const {
  mustBeTrue(X509_up_ref(cert.get()), "X509_up_ref");
  return Owned<X509>(cert.get());
}

When::When(const char* text) : time_(0) {
  const auto value = made(ASN1_TIME_new(), "ASN1_TIME_new");
  std::tm parts{};
  mustBeTrue(ASN1_TIME_set_string(value.get(), text), "ASN1_TIME_set_string");
  mustBeTrue(ASN1_TIME_to_tm(value.get(), &parts), "ASN1_TIME_to_tm");
  time_ = timegm(&parts);
}

Serial::Serial(int number) {
  std::array<char, 16> text{};
  std::snprintf(
      text.data(), text.size(), "%s%X", number < 0 ? "-" : "",
      number < 0 ? 0U - static_cast<unsigned int>(number) : static_cast<unsigned int>(number));
  hex_ = text.data();
}

Serial::Serial(const char* hex) : hex_(hex) {}

Serial::Serial(const X509* cert) {
  const auto number =
      made(ASN1_INTEGER_to_BN(X509_get0_serialNumber(cert), nullptr), "ASN1_INTEGER_to_BN");
  const OwnedMemory<char> text(BN_bn2hex(number.get()));
  if (!text) fail("BN_bn2hex");
  hex_ = text.get();
}

Serial::Serial(const Issued& issued) : Serial(issued.get()) {}

std::shared_ptr<EVP_PKEY> makeKey(KeyKind kind) {
  if (kind == KeyKind::P256) {
    return made(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"), "EVP_PKEY_Q_keygen");
  }
  if (kind == KeyKind::Ed25519) {
    return made(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"), "EVP_PKEY_Q_keygen");
  }
  static std::mutex mutex;
  static std::array<std::shared_ptr<EVP_PKEY>, 4> pool;
  static std::size_t next = 0;
  const std::lock_guard lock(mutex);
  std::shared_ptr<EVP_PKEY>& key = pool.at(next++ % pool.size());
  if (!key) {
    key = made(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", std::size_t{2048}), "EVP_PKEY_Q_keygen");
  }
  return key;
}

Owned<X509_EXTENSION> makeExtension(const RawExtension& description) {
  const auto oid = made(OBJ_txt2obj(description.oid.c_str(), 0), "OBJ_txt2obj");
  const auto value = made(ASN1_OCTET_STRING_new(), "ASN1_OCTET_STRING_new");
  const std::vector<unsigned char> bytes(description.der.begin(), description.der.end());
  mustBeTrue(ASN1_OCTET_STRING_set(value.get(), bytes.data(), static_cast<int>(bytes.size())),
             "ASN1_OCTET_STRING_set");
  return made(
      X509_EXTENSION_create_by_OBJ(nullptr, oid.get(), description.critical ? 1 : 0, value.get()),
      "X509_EXTENSION_create_by_OBJ");
}

Issued issue(const CertificateOptions& options) {
  Issued result;
  result.key = options.key ? options.key : makeKey(options.keyKind);
  const auto cert = made(X509_new(), "X509_new");
  X509* const issuer = options.issuer == nullptr ? nullptr : options.issuer->get();

  mustBeTrue(X509_set_version(cert.get(), X509_VERSION_3), "X509_set_version");
  mustBeTrue(X509_set_serialNumber(cert.get(), makeInteger(options.serial).get()),
             "X509_set_serialNumber");
  const auto subject = makeName(options.subject);
  mustBeTrue(X509_set_subject_name(cert.get(), subject.get()), "X509_set_subject_name");
  const auto otherIssuer = options.issuerName.empty() ? nullptr : makeName(options.issuerName);
  const X509_NAME* issuerName = otherIssuer         ? otherIssuer.get()
                                : issuer != nullptr ? X509_get_subject_name(issuer)
                                                    : subject.get();
  mustBeTrue(X509_set_issuer_name(cert.get(), issuerName), "X509_set_issuer_name");
  mustBeTrue(X509_set1_notBefore(cert.get(), makeTime(options.notBefore).get()),
             "X509_set1_notBefore");
  mustBeTrue(X509_set1_notAfter(cert.get(), makeTime(options.notAfter).get()),
             "X509_set1_notAfter");
  mustBeTrue(X509_set_pubkey(cert.get(), result.key.get()), "X509_set_pubkey");

  Extensions extensions;
  appendConstraints(extensions, options);
  if (options.subjectKeyId != KeyId::Absent) {
    extensions.push_back(makeExtension(NID_subject_key_identifier, false,
                                       makeKeyId(cert.get(), options.subjectKeyId).get()));
  }
  appendAuthorityKeyId(extensions, options.authorityKeyId, issuer);
  appendPoints(extensions, NID_crl_distribution_points, options.crlDistributionPoints);
  appendPoints(extensions, NID_freshest_crl, options.freshestCRL);
  append(extensions, options.extensions, options.config, issuer == nullptr ? cert.get() : issuer,
         cert.get(), nullptr);
  append(extensions, options.rawExtensions);
  for (const auto& extension : extensions) {
    mustBeTrue(X509_add_ext(cert.get(), extension.get(), -1), "X509_add_ext");
  }

  EVP_PKEY* const signer = options.signer              ? options.signer.get()
                           : options.issuer != nullptr ? options.issuer->key.get()
                                                       : result.key.get();
  mustBeTrue(X509_sign(cert.get(), signer, digestFor(signer)), "X509_sign");
  std::string bytes = der(cert.get());
  if (options.badSignature) changeSignature(bytes);
  result.cert = certFromDer(bytes);
  return result;
}

Issued issueCA(const std::string& subject, const Issued* issuer) {
  return issue({.subject = subject, .issuer = issuer, .ca = true});
}

Owned<X509_CRL> makeCRL(const CRLOptions& options) {
  if (options.issuer == nullptr) fail("makeCRL: no issuer");
  X509* const issuer = options.issuer->get();
  const auto crl = made(X509_CRL_new(), "X509_CRL_new");

  mustBeTrue(X509_CRL_set_version(crl.get(), X509_CRL_VERSION_2), "X509_CRL_set_version");
  const auto otherIssuer = options.issuerName.empty() ? nullptr : makeName(options.issuerName);
  mustBeTrue(X509_CRL_set_issuer_name(
                 crl.get(), otherIssuer ? otherIssuer.get() : X509_get_subject_name(issuer)),
             "X509_CRL_set_issuer_name");
  mustBeTrue(X509_CRL_set1_lastUpdate(crl.get(), makeTime(options.lastUpdate).get()),
             "X509_CRL_set1_lastUpdate");
  if (options.nextUpdate) {
    mustBeTrue(X509_CRL_set1_nextUpdate(crl.get(), makeTime(*options.nextUpdate).get()),
               "X509_CRL_set1_nextUpdate");
  }
  for (const Revoked& description : options.revoked) {
    auto entry = makeRevoked(description);
    mustBeTrue(X509_CRL_add0_revoked(crl.get(), entry.get()), "X509_CRL_add0_revoked");
    static_cast<void>(entry.release());
  }

  Extensions extensions;
  appendAuthorityKeyId(extensions, options.authorityKeyId, issuer);
  if (options.number) {
    extensions.push_back(makeExtension(NID_crl_number, false, makeInteger(*options.number).get()));
  }
  if (options.deltaBase) {
    extensions.push_back(makeExtension(NID_delta_crl, true, makeInteger(*options.deltaBase).get()));
  }
  if (options.idp) {
    extensions.push_back(makeExtension(NID_issuing_distribution_point, options.idp->critical,
                                       makeIssuingPoint(*options.idp).get()));
  }
  appendPoints(extensions, NID_freshest_crl, options.freshestCRL);
  append(extensions, options.extensions, "", issuer, nullptr, crl.get());
  append(extensions, options.rawExtensions);
  for (const auto& extension : extensions) {
    mustBeTrue(X509_CRL_add_ext(crl.get(), extension.get(), -1), "X509_CRL_add_ext");
  }

  EVP_PKEY* const signer = options.signer ? options.signer.get() : options.issuer->key.get();
  mustBeTrue(X509_CRL_sign(crl.get(), signer, digestFor(signer)), "X509_CRL_sign");
  std::string bytes = der(crl.get());
  if (options.badSignature) changeSignature(bytes);
  return crlFromDer(bytes);
}

Owned<X509_NAME> makeName(const std::string& text) {
  auto name = made(X509_NAME_new(), "X509_NAME_new");
  std::string type;
  std::string value;
  bool inValue = false;
  int joined = 0;  // -1 puts the next attribute into the RDN of the one before it
  const auto add = [&] {
    if (!inValue) fail("makeName: " + text);
    const std::vector<unsigned char> bytes(value.begin(), value.end());
    const auto addAs = [&](int stringType) {
      return X509_NAME_add_entry_by_txt(name.get(), type.c_str(), stringType, bytes.data(),
                                        static_cast<int>(bytes.size()), -1, joined);
    };
    ERR_set_mark();
    const bool usual = !bytes.empty() && addAs(MBSTRING_UTF8) > 0;
    ERR_pop_to_mark();
    // What OpenSSL's table of string types and sizes refuses.
    if (!usual) mustBeTrue(addAs(V_ASN1_UTF8STRING), "X509_NAME_add_entry_by_txt");
    type.clear();
    value.clear();
    inValue = false;
  };
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\' && i + 1 < text.size()) {
      (inValue ? value : type).push_back(text[++i]);
    } else if (!inValue && c == '=') {
      inValue = true;
    } else if (c == ',' || c == '+') {
      add();
      joined = c == '+' ? -1 : 0;
    } else {
      (inValue ? value : type).push_back(c);
    }
  }
  if (!text.empty()) add();
  return name;
}

Owned<GENERAL_NAME> makeGeneralName(const std::string& text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string::npos) fail("makeGeneralName: " + text);
  const std::string kind = text.substr(0, colon);
  const std::string value = text.substr(colon + 1);
  if (kind == "dirName") {
    auto name = made(GENERAL_NAME_new(), "GENERAL_NAME_new");
    GENERAL_NAME_set0_value(name.get(), GEN_DIRNAME, makeName(value).release());
    return name;
  }
  const int type = kind == "URI"     ? GEN_URI
                   : kind == "email" ? GEN_EMAIL
                   : kind == "DNS"   ? GEN_DNS
                   : kind == "IP"    ? GEN_IPADD
                   : kind == "RID"   ? GEN_RID
                                     : -1;
  if (type < 0) fail("makeGeneralName: " + text);
  return made(a2i_GENERAL_NAME(nullptr, nullptr, nullptr, type, value.c_str(), 0),
              "a2i_GENERAL_NAME");
}

std::string der(const X509* cert) { return encoded(cert, i2d_X509); }

std::string der(const X509_CRL* crl) { return encoded(crl, i2d_X509_CRL); }

std::string der(const X509_NAME* name) { return encoded(name, i2d_X509_NAME); }

std::string pem(const X509* cert) {
  return written([cert](BIO* bio) { return PEM_write_bio_X509(bio, cert); });
}

std::string pem(const X509_CRL* crl) {
  return written([crl](BIO* bio) { return PEM_write_bio_X509_CRL(bio, crl); });
}

std::string pem(const EVP_PKEY* key) {
  return written([key](BIO* bio) {
    return PEM_write_bio_PKCS8PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
  });
}

Owned<X509> certFromDer(std::string_view der) { return decoded<X509>(der, d2i_X509); }

Owned<X509_CRL> crlFromDer(std::string_view der) { return decoded<X509_CRL>(der, d2i_X509_CRL); }

std::string hashName(const X509* cert, int index) {
  return hashFileName(X509_get_subject_name(cert), "", index);
}

std::string crlHashName(const X509_CRL* crl, int index) {
  return hashFileName(X509_CRL_get_issuer(crl), "r", index);
}

std::uint32_t nameHash(const X509_NAME* name) {
  int ok = 0;
  const unsigned long hash = X509_NAME_hash_ex(name, nullptr, nullptr, &ok);
  mustBeTrue(ok, "X509_NAME_hash_ex");
  return static_cast<std::uint32_t>(hash);
}

std::filesystem::path addToDirectory(const std::filesystem::path& directory, const X509* cert) {
  int index = 0;
  while (std::filesystem::exists(directory / hashName(cert, index))) ++index;
  const std::filesystem::path path = directory / hashName(cert, index);
  writeFile(path, pem(cert));
  return path;
}

std::filesystem::path addToDirectory(const std::filesystem::path& directory, const X509_CRL* crl) {
  int index = 0;
  while (std::filesystem::exists(directory / crlHashName(crl, index))) ++index;
  const std::filesystem::path path = directory / crlHashName(crl, index);
  writeFile(path, pem(crl));
  return path;
}

}  // namespace Velantrix::Test
