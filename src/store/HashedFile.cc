#include "store/HashedFile.h"

#include "foundation/base/FileReader.h"
#include "foundation/base/FileStamp.h"
#include "foundation/openssl/LibraryContext.h"
#include "store/LastingCertificate.h"

#include <velantrix/Exception.h>

#include <openssl/pem.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <optional>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

namespace {

using State = HashedFile::State;

// OpenSSL's lookup reads PEM by the functions of stdio, for which a line ends at a zero octet. A BIO over
// memory knows no such end, so those are for it to read.
bool readsAlike(const unsigned char* octets, std::size_t length, int fileType) {
  return fileType != X509_FILETYPE_PEM || std::memchr(octets, 0, length) == nullptr;
}

Owned<X509> readPEM(BIO* stream, const X509* /*kind*/) {
  return Owned<X509>(PEM_read_bio_X509_AUX(stream, nullptr, nullptr, const_cast<char*>("")));
}

Owned<X509_CRL> readPEM(BIO* stream, const X509_CRL* /*kind*/) {
  return Owned<X509_CRL>(PEM_read_bio_X509_CRL(stream, nullptr, nullptr, const_cast<char*>("")));
}

Owned<X509> readDer(BIO* stream, const X509* /*kind*/) {
  return Owned<X509>(d2i_X509_bio(stream, nullptr));
}

Owned<X509_CRL> readDer(BIO* stream, const X509_CRL* /*kind*/) {
  return Owned<X509_CRL>(d2i_X509_CRL_bio(stream, nullptr));
}

// Whether all was well with what was read.
template <class Object>
bool readAll(BIO* stream, int fileType, std::vector<Owned<Object>>& out) {
  const Object* const kind = nullptr;
  while (true) {
    Owned<Object> object =
        fileType == X509_FILETYPE_PEM ? readPEM(stream, kind) : readDer(stream, kind);
    if (object == nullptr) break;
    out.push_back(std::move(object));
    if (fileType != X509_FILETYPE_PEM) return true;
  }
  // The end shows by there being no more of them.
  return !out.empty() && ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
}

int add(X509_STORE* store, const Owned<X509>& certificate) {
  return X509_STORE_add_cert(store, certificate.get());
}

int add(X509_STORE* store, const Owned<X509_CRL>& crl) {
  return X509_STORE_add_crl(store, crl.get());
}

template <class Object>
bool addAll(X509_STORE* store, const std::vector<Owned<Object>>& objects) {
  return std::all_of(objects.begin(), objects.end(),
                     [&](const Owned<Object>& object) { return add(store, object) == 1; });
}

int sizeOf(const X509* certificate) { return i2d_X509(certificate, nullptr); }
int sizeOf(const X509_CRL* crl) { return i2d_X509_CRL(crl, nullptr); }

// OpenSSL's objects are some seven times as large as their DER, the keys of certificates included.
template <class Object>
std::size_t memoryOf(const std::vector<Owned<Object>>& objects) {
  std::size_t memory = objects.capacity() * sizeof(Owned<Object>);
  for (const Owned<Object>& object : objects) {
    memory += 7 * static_cast<std::size_t>(std::max(sizeOf(object.get()), 0));
  }
  return memory;
}

}  // namespace

HashedContent::HashedContent(const unsigned char* octets, std::size_t length, Kind ofKind, int type)
    : kind(ofKind), fileType(type) {
  const ErrorScope errors;
  if (length == 0 || !readsAlike(octets, length, fileType)) return;
  const Owned<BIO> stream(BIO_new_mem_buf(octets, static_cast<int>(length)));
  if (stream == nullptr) return;
  whole = kind == Kind::kCRLs ? readAll(stream.get(), fileType, crls)
                              : readAll(stream.get(), fileType, certificates);
  bool last = true;
  for (const Owned<X509>& certificate : certificates) last = isLasting(certificate.get()) && last;
  memory_ = last ? sizeof *this + memoryOf(certificates) + memoryOf(crls)
                 : std::numeric_limits<std::size_t>::max();
}

bool HashedContent::has(const X509_NAME* name) const {
  return std::any_of(certificates.begin(), certificates.end(),
                     [&](const Owned<X509>& certificate) {
                       return X509_NAME_cmp(X509_get_subject_name(certificate.get()), name) == 0;
                     }) ||
         std::any_of(crls.begin(), crls.end(), [&](const Owned<X509_CRL>& crl) {
           return X509_NAME_cmp(X509_CRL_get_issuer(crl.get()), name) == 0;
         });
}

HashedFile HashedFile::at(const std::string& path, Kind kind, int fileType) {
  const std::optional<FileStamp> seen = FileStamp::at(path.c_str());
  if (!seen) return {State::kMissing};
  if (!isGlobalLibraryContext() || !seen->regular ||
      seen->size > static_cast<std::int64_t>(kMaxInputSize)) {
    return {State::kOdd};
  }
  try {
    auto content = FileObjects::get<HashedContent>(
        File::Path(path), seen,
        [&](const unsigned char* octets, std::size_t length, bool /*kept*/) {
          return std::make_shared<const HashedContent>(octets, length, kind, fileType);
        },
        [&](const HashedContent& kept) { return kept.kind == kind && kept.fileType == fileType; });
    if (content == nullptr) return {State::kOdd};  // there was no time to wait for it
    const State state = content->whole ? State::kWhole : State::kDamaged;
    return {state, std::move(content)};
  } catch (const Exception&) {
    return {State::kDamaged};
  }
}

bool HashedFile::addTo(X509_STORE* store) const {
  return content == nullptr ||
         (addAll(store, content->certificates) && addAll(store, content->crls));
}

}  // namespace Velantrix::Crypto::PKX509
