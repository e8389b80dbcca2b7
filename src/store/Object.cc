#include <pkx509/Object.h>
#include <velantrix/Assert.h>

namespace Velantrix::Crypto::PKX509 {

namespace {

// A function of its own so that the assertion's text is the one that operators know.
Object* checked(Object* px) {
  PKX509_ASSERT(px != 0);
  return px;
}

}  // namespace

Object::Object() = default;

Object::Object(const RefCertificate& handle) : certificate(handle) {
  if (!handle.empty()) {
    type = TypeCertificate;
    data = handle->native();
  }
}

Object::Object(const RefCertificateRevocationList& handle) : crl(handle) {
  if (!handle.empty()) {
    type = TypeCRL;
    data = handle->native();
  }
}

Object::Object(const RefCrossCertificatePair& handle) : crossPair(handle) {}

Object::~Object() = default;

RefObject::RefObject(const RefCertificate& certificate)
    : boost::shared_ptr<Object>(new Object(certificate)) {}

RefObject::RefObject(const RefCertificateRevocationList& crl)
    : boost::shared_ptr<Object>(new Object(crl)) {}

RefObject::RefObject(const RefCrossCertificatePair& pair)
    : boost::shared_ptr<Object>(new Object(pair)) {}

RefObject& RefObject::operator=(const RefObject& other) noexcept = default;

Object* RefObject::operator->() const { return checked(get()); }

Object& RefObject::operator*() const { return *operator->(); }

}  // namespace Velantrix::Crypto::PKX509
