// Writing what OpenSSL encodes into a MediaOut.
#pragma once

#include "foundation/base/Fail.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <velantrix/MediaOut.h>

namespace Velantrix::Crypto::PKX509 {

/// Writes what @p encode puts into the BIO it is given, and flushes.
/// @param encode  returns OpenSSL's 1 for success
/// @param context what an exception names
template <class Encode>
void writeEncoded(MediaOut& out, const char* context, Encode encode) {
  const ErrorScope errors;
  const Owned<BIO> memory(BIO_new(BIO_s_mem()));
  if (memory == nullptr || encode(memory.get()) != 1) {
    fail({context, "PemOut"}, "cannot be encoded");
  }
  char* data = nullptr;
  const long length = BIO_get_mem_data(memory.get(), &data);
  out.write(data, static_cast<std::size_t>(length));
  out.flush();
}

}  // namespace Velantrix::Crypto::PKX509
