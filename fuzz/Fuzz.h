// What the fuzz targets share.
//
//   namespace Velantrix::Fuzz::CRLTarget {
//
//   PKX509_FUZZ_TARGET(crl) {              // of an input, data and size
//     begin();
//     RefCertificateRevocationList crl;
//     if (!accepted([&] { crl = CertificateRevocationListFactory::read(...); })) return 0;
//     PKX509_ASSERT(...);                  // what has to hold for what was accepted
//     return 0;
//   }
//
//   }  // namespace Velantrix::Fuzz::CRLTarget
//
// A target is a finding when it crashes, hangs, leaks, lets another exception than the library's
// own out, or when one of its assertions fails. Each target is linked to libFuzzer, or all of them to
// Replay.cc, which runs one over files; a namespace each keeps them apart, compiled as one or not.
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
#include <string_view>

/// Heads the body of a target, and makes it known under its name. What the body returns is libFuzzer's: 0.
#define PKX509_FUZZ_TARGET(name)                                              \
  static int fuzz_##name(const std::uint8_t* data, std::size_t size);         \
  static const ::Velantrix::Fuzz::Target s_target_##name(#name, fuzz_##name); \
  static int fuzz_##name(const std::uint8_t* data, std::size_t size)

namespace Velantrix::Fuzz {

/// A target of this program, of which there may be several. Lives as long as the program.
class Target {
 public:
  using Body = int (*)(const std::uint8_t* data, std::size_t size);

  Target(const char* name, Body body) noexcept;
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;

  /// Null when there is none.
  static const Target* find(std::string_view name) noexcept;
  /// Of a program that has no other.
  static const Target& only();

  int run(const std::uint8_t* data, std::size_t size) const { return body_(data, size); }

 private:
  const char* const name_;
  const Body body_;
  const Target* const next_;
};

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
