#include "report/NameConstraintBreach.h"

#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/bio.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <arpa/inet.h>
#include <string_view>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr int kMaximumNames = 64;
constexpr int kMaximumConstraints = 64;
constexpr int kShownConstraints = 3;
constexpr int kMaximumTries =
    1 << 18;  // of a name against a constraint; OpenSSL makes four times as many

// RFC 5280, 4.2.1.10: a network is an address and a mask. OpenSSL prints those only among constraints.
std::string networkText(const ASN1_OCTET_STRING* octets) {
  constexpr int kIPv4 = 4;
  constexpr int kIPv6 = 16;
  const int length = ASN1_STRING_length(octets) / 2;
  if (length != kIPv4 && length != kIPv6) return {};
  std::string text;
  for (int half = 0; half < 2; ++half) {
    char part[INET6_ADDRSTRLEN] = {};
    const unsigned char* const data = ASN1_STRING_get0_data(octets) + half * length;
    if (::inet_ntop(length == kIPv4 ? AF_INET : AF_INET6, data, part, sizeof part) == nullptr) {
      return {};
    }
    text += (half == 0 ? "IP Address:" : "/") + std::string(part);
  }
  return text;
}

std::string textOf(GENERAL_NAME* name) {
  const Owned<BIO> out(BIO_new(BIO_s_mem()));
  if (out == nullptr || GENERAL_NAME_print(out.get(), name) != 1) return {};
  char* data = nullptr;
  const long length = BIO_get_mem_data(out.get(), &data);
  return length <= 0 ? std::string() : std::string(data, static_cast<std::size_t>(length));
}

std::string constraintText(GENERAL_NAME* name) {
  const std::string network =
      name->type == GEN_IPADD ? networkText(name->d.iPAddress) : std::string();
  return network.empty() ? textOf(name) : network;
}

// A certificate of this one name, as far as OpenSSL's check of name constraints looks at it.
Owned<X509> certificateOf(GENERAL_NAME* name) {
  Owned<X509> made(X509_new());
  const Owned<GENERAL_NAMES> names(sk_GENERAL_NAME_new_null());
  if (made == nullptr || names == nullptr || sk_GENERAL_NAME_push(names.get(), name) <= 0)
    return {};
  const int added =
      X509_add1_ext_i2d(made.get(), NID_subject_alt_name, names.get(), 0, X509V3_ADD_DEFAULT);
  static_cast<void>(sk_GENERAL_NAME_pop(names.get()));  // it is the caller's
  if (added != 1) return {};
  static_cast<void>(X509_check_purpose(made.get(), -1, 0));  // has the extensions decoded
  return made;
}

int check(GENERAL_NAME* name, NAME_CONSTRAINTS* constraints) {
  const Owned<X509> made = certificateOf(name);
  return made == nullptr ? X509_V_OK : NAME_CONSTRAINTS_check(made.get(), constraints);
}

// The name against one CA's constraints.
class Trial {
 public:
  Trial(GENERAL_NAME* name, NAME_CONSTRAINTS* constraints)
      : name_(name), constraints_(constraints), code_(check(name, constraints)) {}

  bool fails() const noexcept {
    return code_ != X509_V_OK && code_ != X509_V_ERR_OUT_OF_MEM && code_ != X509_V_ERR_UNSPECIFIED;
  }

  std::string constraint() {
    return code_ == X509_V_ERR_EXCLUDED_VIOLATION ? excluded() : permitted();
  }

 private:
  // The one that by itself excludes the name.
  std::string excluded() {
    STACK_OF(GENERAL_SUBTREE)* const all = constraints_->excludedSubtrees;
    for (int i = 0; i < std::min(sk_GENERAL_SUBTREE_num(all), kMaximumConstraints); ++i) {
      GENERAL_SUBTREE* const one = sk_GENERAL_SUBTREE_value(all, i);
      STACK_OF(GENERAL_SUBTREE)* const alone = sk_GENERAL_SUBTREE_new_null();
      if (alone == nullptr || sk_GENERAL_SUBTREE_push(alone, one) <= 0) {
        sk_GENERAL_SUBTREE_free(alone);
        return {};
      }
      NAME_CONSTRAINTS only{nullptr, alone};
      const int code = check(name_, &only);
      sk_GENERAL_SUBTREE_free(alone);
      if (code != X509_V_OK) return "excluded " + constraintText(one->base);
    }
    return {};
  }
  // Those of its kind, none of which holds it.
  std::string permitted() {
    STACK_OF(GENERAL_SUBTREE)* const all = constraints_->permittedSubtrees;
    std::string text;
    int shown = 0;
    for (int i = 0; i < std::min(sk_GENERAL_SUBTREE_num(all), kMaximumConstraints); ++i) {
      const GENERAL_SUBTREE* const one = sk_GENERAL_SUBTREE_value(all, i);
      if (one->base->type != name_->type) continue;
      if (++shown > kShownConstraints) return text + ", ...";
      text += (text.empty() ? "permitted " : ", ") + constraintText(one->base);
    }
    return text;
  }

  GENERAL_NAME* name_;
  NAME_CONSTRAINTS* constraints_;
  int code_;
};

Owned<GENERAL_NAME> directoryName(X509* certificate) {
  Owned<GENERAL_NAME> name(GENERAL_NAME_new());
  X509_NAME* const subject = X509_NAME_dup(X509_get_subject_name(certificate));
  if (name == nullptr || subject == nullptr) {
    X509_NAME_free(subject);
    return {};
  }
  GENERAL_NAME_set0_value(name.get(), GEN_DIRNAME, subject);
  return name;
}

// What stands in a subject name for an attribute, as a name of the kind that it is taken for.
Owned<GENERAL_NAME> nameIn(const X509_NAME* subject, int attribute, int kind) {
  const int index = X509_NAME_get_index_by_NID(subject, attribute, -1);
  if (index < 0) return {};
  const ASN1_STRING* const value = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
  Owned<GENERAL_NAME> name(GENERAL_NAME_new());
  ASN1_IA5STRING* const text = ASN1_IA5STRING_new();
  if (name == nullptr || text == nullptr ||
      ASN1_STRING_set(text, ASN1_STRING_get0_data(value), ASN1_STRING_length(value)) != 1) {
    ASN1_IA5STRING_free(text);
    return {};
  }
  GENERAL_NAME_set0_value(name.get(), kind, text);
  return name;
}

// The names of a certificate that name constraints are about.
struct Names {
  explicit Names(const RefCertificate& certificate)
      : alternative(static_cast<GENERAL_NAMES*>(
            X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr))),
        subject(directoryName(certificate)) {
    const X509_NAME* const native = X509_get_subject_name(certificate);
    // RFC 5280, 4.2.1.10: addresses in a subject name count where there is no subjectAltName.
    address = nameIn(native, NID_pkcs9_emailAddress, GEN_EMAIL);
    bool hasHost = false;
    for (int i = 0; i < std::min(sk_GENERAL_NAME_num(alternative.get()), kMaximumNames); ++i) {
      all.push_back(sk_GENERAL_NAME_value(alternative.get(), i));
      hasHost = hasHost || all.back()->type == GEN_DNS;
    }
    if (subject != nullptr) all.push_back(subject.get());
    if (address != nullptr) all.push_back(address.get());
    if (!hasHost) commonName = nameIn(native, NID_commonName, GEN_DNS);
  }

  Owned<GENERAL_NAMES> alternative;
  Owned<GENERAL_NAME> subject;
  Owned<GENERAL_NAME> address;
  Owned<GENERAL_NAME> commonName;  // for OpenSSL to say whether it looks like a host's
  std::vector<GENERAL_NAME*> all;
};

int subtreesIn(const NAME_CONSTRAINTS* constraints) {
  return std::max(sk_GENERAL_SUBTREE_num(constraints->permittedSubtrees), 0) +
         std::max(sk_GENERAL_SUBTREE_num(constraints->excludedSubtrees), 0);
}

}  // namespace

std::optional<NameConstraintBreach> findNameConstraintBreach(
    const RefCertificate& certificate, int depth, const std::vector<RefCertificate>& path) {
  if (depth < 0) return std::nullopt;
  const ErrorScope errors;
  const Names names(certificate);
  int tries = kMaximumTries;
  for (auto above = static_cast<std::size_t>(depth) + 1; above < path.size() && tries > 0;
       ++above) {
    const Owned<NAME_CONSTRAINTS> constraints(static_cast<NAME_CONSTRAINTS*>(
        X509_get_ext_d2i(path[above], NID_name_constraints, nullptr, nullptr)));
    if (constraints == nullptr) continue;
    const auto breach = [&](GENERAL_NAME* name) -> std::optional<NameConstraintBreach> {
      tries -= std::min(subtreesIn(constraints.get()), tries);
      if (tries == 0) return std::nullopt;
      Trial trial(name, constraints.get());
      if (!trial.fails()) return std::nullopt;
      return NameConstraintBreach{textOf(name), trial.constraint(), path[above]};
    };
    for (GENERAL_NAME* const name : names.all) {
      if (auto found = breach(name)) return found;
    }
    // OpenSSL takes the common name for a host's where the leaf has no other name of one.
    if (depth == 0 && names.commonName != nullptr && tries > 0 &&
        NAME_CONSTRAINTS_check_CN(certificate, constraints.get()) != X509_V_OK) {
      if (auto found = breach(names.commonName.get())) return found;
    }
  }
  return std::nullopt;
}

}  // namespace Velantrix::Crypto::PKX509
