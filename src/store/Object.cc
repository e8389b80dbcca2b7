#include <pkx509/Object.h>
#include <velantrix/Assert.h>

namespace Velantrix::Crypto::PKX509 {

namespace {

// A function of its own so that the assertion's text is the one that operators know.
Object* checked(Object* px) {
  PKX509_ASSERT(px != 0);
  return px;
}

constexpr std::uintptr_t kOfCRL = 1;
static_assert(alignof(CertificateRevocationList) > kOfCRL && sizeof(ObjectData) == sizeof(void*));

}  // namespace

ObjectData::ObjectData(const CertificateRevocationList& crl) noexcept
    : value_(reinterpret_cast<std::uintptr_t>(&crl) | kOfCRL) {}

ObjectData::operator void*() const {
  if ((value_ & kOfCRL) == 0) return reinterpret_cast<void*>(value_);
  return reinterpret_cast<const CertificateRevocationList*>(value_ & ~kOfCRL)->native();
}

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
    data = ObjectData(*handle.get());
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
