// PEM of any label around any octets, rightly made or not.
#pragma once

#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/pem.h>

#include <stdexcept>
#include <string>

namespace Velantrix::Test {

inline std::string pemBlock(const std::string& label, const std::string& content,
                            const std::string& header = {}) {
  const Crypto::Owned<BIO> out(BIO_new(BIO_s_mem()));
  if (PEM_write_bio(out.get(), label.c_str(), header.c_str(),
                    reinterpret_cast<const unsigned char*>(content.data()),
                    static_cast<long>(content.size())) <= 0) {
    throw std::runtime_error("PEM_write_bio");
  }
  char* data = nullptr;
  const long length = BIO_get_mem_data(out.get(), &data);
  return std::string(data, static_cast<std::size_t>(length));
}

}  // namespace Velantrix::Test
