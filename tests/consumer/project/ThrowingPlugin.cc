#include "Plugin.h"

#include <velantrix/CertificateFactory.h>

#include <list>

using namespace Velantrix::Crypto::PKX509;

extern "C" PLUGIN_EXPORT int countCertificates(const char* file) {
  std::list<RefCertificate> certificates;
  CertificateFactory::read(Velantrix::File::Path(file), certificates);
  return static_cast<int>(certificates.size());
}
