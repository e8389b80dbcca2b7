// Tells when OpenSSL really frees a certificate or a CRL. A test that drops every reference it
// knows of sees with it whether one was left over, and where; one too few is for the sanitizer.
#pragma once

#include <openssl/crypto.h>
#include <openssl/x509.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace Velantrix::Test {

using Events = std::vector<std::string>;

/// Appends `text` to `events` when the certificate is freed. Both outlive it.
class CertificateWatch {
 public:
  CertificateWatch(X509* certificate, Events& events, const std::string& text)
      : events_(&events), text_(text) {
    if (X509_set_ex_data(certificate, index(), this) != 1) throw std::runtime_error("ex data");
  }
  CertificateWatch(const CertificateWatch&) = delete;
  CertificateWatch& operator=(const CertificateWatch&) = delete;

  bool freed() const { return freed_; }

 private:
  static int index() {
    static const int made = X509_get_ex_new_index(0, nullptr, nullptr, nullptr, gone);
    return made;
  }
  static void gone(void* /*certificate*/, void* watch, CRYPTO_EX_DATA* /*data*/, int /*index*/,
                   long /*argl*/, void* /*argp*/) {
    if (watch == nullptr) return;
    auto* const self = static_cast<CertificateWatch*>(watch);
    self->freed_ = true;
    self->events_->push_back(self->text_);
  }

  Events* events_;
  std::string text_;
  bool freed_ = false;
};

/// A CRL has no ex data, so a method table of its own watches those that are made while it is
/// installed. It outlives them.
class CRLWatch {
 public:
  CRLWatch() : table_(X509_CRL_METHOD_new(nullptr, gone, lookup, verify)) {
    if (table_ == nullptr) throw std::runtime_error("X509_CRL_METHOD_new");
    freed() = 0;
    X509_CRL_set_default_method(table_);
  }
  ~CRLWatch() {
    X509_CRL_set_default_method(nullptr);
    X509_CRL_METHOD_free(table_);
  }
  CRLWatch(const CRLWatch&) = delete;
  CRLWatch& operator=(const CRLWatch&) = delete;

  /// How many of them are freed.
  static int& freed() {
    static int count = 0;
    return count;
  }

 private:
  static int gone(X509_CRL* /*crl*/) {
    ++freed();
    return 1;
  }
  static int lookup(X509_CRL* /*crl*/, X509_REVOKED** /*entry*/, const ASN1_INTEGER* /*serial*/,
                    const X509_NAME* /*issuer*/) {
    return 0;
  }
  static int verify(X509_CRL* /*crl*/, EVP_PKEY* /*key*/) { return 0; }

  X509_CRL_METHOD* table_;
};

}  // namespace Velantrix::Test
