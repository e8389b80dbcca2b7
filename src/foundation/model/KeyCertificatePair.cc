#include <velantrix/Exception.h>
#include <velantrix/KeyCertificatePair.h>

namespace Velantrix::Crypto::PKX509 {

namespace {

[[noreturn]] void throwEmpty(unsigned int line = __builtin_LINE()) {
  throw Exception("X509::KeyCertificatePair", Exception::kEmptyHandle, "KeyCertificatePair", line)
      .stringParameter("empty pair");
}

}  // namespace

KeyCertificatePair::KeyCertificatePair(bool withBody) {
  if (withBody) body_.emplace();
}

RefKey KeyCertificatePair::key() const { return body_ ? body_->key : RefKey(); }

RefCertificate KeyCertificatePair::certificate() const {
  return body_ ? body_->certificate : RefCertificate();
}

void KeyCertificatePair::key(const RefKey& key) {
  if (!body_) throwEmpty();
  body_->key = key;
}

void KeyCertificatePair::certificate(const RefCertificate& certificate) {
  if (!body_) throwEmpty();
  body_->certificate = certificate;
}

}  // namespace Velantrix::Crypto::PKX509
