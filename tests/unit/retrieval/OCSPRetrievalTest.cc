// What is asked by GET; tests/integration/OCSPRetrievalNetworkTest.cc has the rest.
#include "retrieval/OCSPRetrieval.h"

#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::kMaximumOCSPGet;
using Crypto::PKX509::ocspGetURI;

TEST(OCSPRetrieval, GetURI_IsTheRequestBehindOneSlash) {
  using namespace std::string_literals;
  const std::string request = "\xfb\xff\xfe\0"s;  // "+//+AA==" in base64
  const struct {
    const char* responder;
    const char* uri;
  } rows[] = {
      {"http://ocsp.test", "http://ocsp.test/%2B%2F%2F%2BAA%3D%3D"},
      {"http://ocsp.test/", "http://ocsp.test/%2B%2F%2F%2BAA%3D%3D"},
      {"http://ocsp.test/a/b", "http://ocsp.test/a/b/%2B%2F%2F%2BAA%3D%3D"},
      {"http://ocsp.test:8080/%61/", "http://ocsp.test:8080/%61/%2B%2F%2F%2BAA%3D%3D"},
      {"http://ocsp.test/?ca=1", ""},
      {"http://ocsp.test/#a", ""},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(ocspGetURI(Uri(row.responder), request).asString(), row.uri) << row.responder;
  }
}

// RFC 5019, 5: "less than or equal to 255 bytes in total (after encoding)".
TEST(OCSPRetrieval, GetURI_HasAtMost255Octets) {
  const std::string request(90, '\0');  // 120 octets in base64, none of which is encoded
  const std::string start = "http://ocsp.test/";
  const std::string longest = start + std::string(kMaximumOCSPGet - 121 - start.size(), 'a');
  EXPECT_EQ(ocspGetURI(Uri(longest), request).asString().size(), kMaximumOCSPGet);
  EXPECT_TRUE(ocspGetURI(Uri(longest + "a"), request).isNull());
  EXPECT_FALSE(ocspGetURI(Uri(longest + "/"), request).isNull()) << "it has the slash already";
  EXPECT_TRUE(ocspGetURI(Uri(start), std::string(1000, '\0')).isNull());
}

}  // namespace
}  // namespace Velantrix::Test
