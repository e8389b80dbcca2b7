#include "retrieval/IssuerHints.h"

#include "retrieval/FetchDesk.h"

#include <velantrix/Buffer.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>
#include <velantrix/MediaOut.h>

#include <exception>
#include <list>

namespace Velantrix::Crypto::PKX509 {

namespace {

std::string nameFor(const Uri& uri) {
  return DeskFiles::digestOf(FetchDesk::placeOf(uri)) + std::string(DeskFiles::kIssuers);
}

std::string pemOf(const std::vector<RefCertificate>& chain) {
  std::string all;
  std::size_t count = 0;
  for (const RefCertificate& one : chain) {
    if (one.empty() || count == IssuerHints::kMaximumCertificates) continue;
    StringMediaOut out;
    one->writePEM(out);
    if (all.size() + out.text().size() > IssuerHints::kMaximumSize) break;
    all += out.text();
    ++count;
  }
  return all;
}

}  // namespace

std::string IssuerHints::fileOf(const Uri& uri) const {
  return files_.directory() + '/' + nameFor(uri);
}

void IssuerHints::remember(const Uri& uri,
                           const std::vector<RefCertificate>& chain) const noexcept {
  try {
    const std::string text = pemOf(chain);
    const std::string name = nameFor(uri);
    if (text.empty() || text == files_.read(name, kMaximumSize)) return;
    files_.makeRoom(text.size());
    // A cache that cannot be written holds none of it.
    static_cast<void>(files_.write(name, text, {}, DeskFiles::Lasting::kYes));
  } catch (const std::exception&) {
    // The next one remembers it.
  }
}

std::vector<RefCertificate> IssuerHints::recall(const Uri& uri) const {
  std::vector<RefCertificate> found;
  try {
    std::list<RefCertificate> read;
    const std::string text = files_.read(nameFor(uri), kMaximumSize).value_or("");
    CertificateFactory::read(Buffer(text.data(), static_cast<unsigned int>(text.size()), false),
                             read);
    for (const RefCertificate& one : read) {
      if (found.size() < kMaximumCertificates) found.push_back(one);
    }
  } catch (const Exception&) {
    // Nothing is remembered.
  }
  return found;
}

}  // namespace Velantrix::Crypto::PKX509
