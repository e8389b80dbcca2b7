#include "store/HashedFile.h"

#include "foundation/base/FileReader.h"
#include "foundation/base/FileStamp.h"

#include <velantrix/Exception.h>

#include <openssl/pem.h>

#include <algorithm>
#include <cstdio>

namespace Velantrix::Crypto::PKX509 {

namespace {

using State = HashedFile::State;

// OpenSSL's lookup reads by the functions of stdio, which take lines with zero octets in them for
// shorter than they are; its BIO over memory does not.
Owned<BIO> streamOver(const std::vector<unsigned char>& octets) {
  if (octets.empty()) return {};  // fmemopen() refuses it
  std::FILE* const file = ::fmemopen(const_cast<unsigned char*>(octets.data()), octets.size(), "r");
  if (file == nullptr) return {};
  Owned<BIO> stream(BIO_new_fp(file, BIO_CLOSE));
  if (stream == nullptr) static_cast<void>(std::fclose(file));
  return stream;
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

}  // namespace

HashedContent HashedContent::parse(const std::vector<unsigned char>& octets, Kind kind,
                                   int fileType) {
  const ErrorScope errors;
  HashedContent content;
  const Owned<BIO> stream = streamOver(octets);
  if (stream == nullptr) return content;
  content.whole = kind == Kind::kCRLs ? readAll(stream.get(), fileType, content.crls)
                                      : readAll(stream.get(), fileType, content.certificates);
  return content;
}

HashedFile HashedFile::at(const std::string& path, Kind kind, int fileType) {
  const std::optional<FileStamp> stamp = FileStamp::at(path.c_str());
  if (!stamp) return {State::kMissing};
  if (!stamp->regular || stamp->size > static_cast<std::int64_t>(kMaxInputSize))
    return {State::kOdd};
  try {
    auto content = std::make_shared<const HashedContent>(
        HashedContent::parse(readFile(File::Path(path)), kind, fileType));
    return {content->whole ? State::kWhole : State::kDamaged, content};
  } catch (const Exception&) {
    return {State::kDamaged};
  }
}

bool HashedFile::addTo(X509_STORE* store) const {
  return content == nullptr ||
         (addAll(store, content->certificates) && addAll(store, content->crls));
}

}  // namespace Velantrix::Crypto::PKX509
