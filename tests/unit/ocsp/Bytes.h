// Text as the bytes that an answer is decoded from, and the pair that an answer makes.
//
//   const Answer answer(ocspAnswer({.signer = &ca}, request));
//   EXPECT_EQ(answer.response.find(answer.basic, id).status, 0);
#pragma once

#include <pkx509/OCSP.h>

#include <string>

namespace Velantrix::Test {

class Bytes {
 public:
  explicit Bytes(const std::string& text) { buffer_.append(text.data(), text.size()); }
  operator const LW::Buffer&() const { return buffer_; }

 private:
  LW::Buffer buffer_;
};

struct Answer {
  explicit Answer(const std::string& der) : response(Bytes(der)), basic(response) {}

  Crypto::PKX509::OCSP::Response response;
  Crypto::PKX509::OCSP::BasicResponse basic;
};

inline std::string textOf(const LW::RefBuffer& buffer) {
  return std::string(buffer->data(), buffer->data() + buffer->length());
}

}  // namespace Velantrix::Test
