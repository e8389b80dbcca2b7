// What the fuzz targets share.
//
//   extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
//     Fuzz::begin();
//     RefCertificateRevocationList crl;
//     if (!Fuzz::accepted([&] { crl = CertificateRevocationListFactory::read(...); })) return 0;
//     PKX509_ASSERT(...);                  // what has to hold for what was accepted
//     return 0;
//   }
//
// A target is a finding when it crashes, hangs, leaks, lets another exception than the library's
// own out, or when one of its assertions fails. Each target is linked to libFuzzer, or to
// Replay.cc, which runs it over files.
#pragma once

#include <velantrix/Assert.h>
#include <velantrix/Buffer.h>
#include <velantrix/DistinguishedName.h>
#include <velantrix/Exception.h>
#include <velantrix/MediaOut.h>

#include <openssl/err.h>

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace Velantrix::Fuzz {

/// Comes first in every target. The log goes nowhere from then on, and each of its lines is looked
/// at: no stranger gets a character that is unfit to show into it.
void begin();

/// Runs `work`; false when the library refused with its own exception. Other exceptions leave, and
/// end the process.
template <class Work>
bool ran(const Work& work) {
  try {
    work();
    return true;
  } catch (const Exception& refusal) {
    PKX509_ASSERT(refusal.code() == Exception::kFailure);
    PKX509_ASSERT(!refusal.asString().empty());
    return false;
  }
}

/// The same for work that is no verification, after which OpenSSL's reasons stay in its queue: no
/// error may stay behind to be blamed on a later call.
template <class Work>
bool accepted(const Work& work) {
  ERR_clear_error();
  const bool done = ran(work);
  PKX509_ASSERT(ERR_peek_error() == 0);
  return done;
}

inline std::string text(const std::uint8_t* data, std::size_t size) {
  return size == 0 ? std::string() : std::string(reinterpret_cast<const char*>(data), size);
}

/// Borrows the octets.
inline Buffer buffer(const void* data, std::size_t size) {
  return Buffer(data, static_cast<unsigned int>(size), false);
}

/// The PEM form of a certificate or CRL; empty when it is refused.
template <class Handle>
std::string pemOf(const Handle& handle) {
  StringMediaOut out;
  return accepted([&] { handle->writePEM(out); }) ? out.text() : std::string();
}

/// Text and hash of a name, and that the text stands for the name.
void checkName(const Crypto::PKX509::DistinguishedName& name);

}  // namespace Velantrix::Fuzz
