// Certificates and CRLs of the test builder as the library's own objects.
#pragma once

#include "support/Handles.h"
#include "support/Pki.h"

#include <pkx509/Object.h>
#include <velantrix/CRLDistributionPoint.h>

#include <list>
#include <string>
#include <utility>
#include <vector>

namespace Velantrix::Test {

inline Crypto::PKX509::DistinguishedName modelName(const std::string& text) {
  return Crypto::PKX509::DistinguishedName(makeName(text).get());
}

/// A cross-certificate pair with one certificate, `SEQUENCE { [0] EXPLICIT Certificate }`.
inline Crypto::PKX509::RefCrossCertificatePair modelPair(const Issued& forward) {
  const auto wrapped = [](unsigned char tag, const std::string& content) {
    std::string out(1, static_cast<char>(tag));
    out += '\x82';  // two octets of length follow
    out += static_cast<char>(content.size() >> 8U);
    out += static_cast<char>(content.size() & 0xffU);
    return out + content;
  };
  const std::string bytes = wrapped(0x30, wrapped(0xa0, der(forward.get())));
  return Crypto::PKX509::RefCrossCertificatePair(
      Buffer(bytes.data(), static_cast<unsigned int>(bytes.size()), true));
}

/// A certificate of `issuer` with that one distribution point.
inline Crypto::PKX509::RefCertificate certificateWith(const DistributionPoint& point,
                                                      const Issued& issuer) {
  return handle(issue({.subject = "CN=Leaf", .issuer = &issuer, .crlDistributionPoints = {point}}));
}

template <class Handle>
std::vector<decltype(std::declval<Handle>().get())> pointers(const std::list<Handle>& handles) {
  std::vector<decltype(std::declval<Handle>().get())> out;
  for (const Handle& handle : handles) out.push_back(handle.get());
  return out;
}

}  // namespace Velantrix::Test
