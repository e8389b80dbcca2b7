#include "foundation/model/PemOut.h"

#include <openssl/err.h>

#include <cstddef>
#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Crypto::PKX509 {
namespace {

using namespace std::string_literals;

// Notes what is done to it.
class Recorder : public MediaOut {
 public:
  void write(const void* data, std::size_t length) override {
    written.append(static_cast<const char*>(data), length);
    ++steps;
    flushed = false;
  }
  void flush() override { flushed = true; }

  std::string written;
  int steps = 0;
  bool flushed = false;
};

TEST(PemOut, WhatIsEncoded_IsWrittenToItsLastOctetAndFlushed) {
  for (const std::string& text : {""s, "text"s, "with\0zero"s, std::string(100000, 'x')}) {
    Recorder out;
    writeEncoded(out, "Context", [&text](BIO* bio) {
      if (text.empty()) return 1;
      const int length = static_cast<int>(text.size());
      return BIO_write(bio, text.data(), length) == length ? 1 : 0;
    });
    EXPECT_EQ(out.written, text);
    EXPECT_TRUE(out.flushed);
  }
}

TEST(PemOut, Failure_ThrowsAndWritesNothing) {
  ERR_clear_error();
  for (const int answer : {0, -1}) {
    Recorder out;
    try {
      writeEncoded(out, "Context", [answer](BIO* bio) {
        EXPECT_EQ(BIO_write(bio, "half", 4), 4);
        ERR_raise(ERR_LIB_X509, X509_R_WRONG_TYPE);
        return answer;
      });
      ADD_FAILURE() << "written";
    } catch (const Exception& e) {
      EXPECT_EQ(e.context(), "Context");
      EXPECT_EQ(e.stringParameter(), "cannot be encoded");
    }
    EXPECT_EQ(out.steps, 0);
    EXPECT_FALSE(out.flushed);
    EXPECT_EQ(ERR_peek_error(), 0UL);
  }
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
