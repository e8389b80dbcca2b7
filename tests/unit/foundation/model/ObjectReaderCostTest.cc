// What it costs to pass over a megabyte of small objects of other kinds, which stand behind a CRL.
#include "foundation/openssl/Der.h"
#include "support/Bulk.h"
#include "support/Cost.h"

#include <velantrix/CertificateFactory.h>
#include <velantrix/CertificateRevocationList.h>

#include <gtest/gtest.h>
#include <list>
#include <stdexcept>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace Bulk;
using Crypto::octets;
using Crypto::Owned;
using namespace Crypto::PKX509;

// A tenth where costs cannot be measured: then it is run for what a sanitizer has to say.
const std::size_t kSize = costsCanBeMeasured() ? 1000000 : 100000;

// OpenSSL reads the CRL and does not care what comes behind it.
testing::AssertionResult isReadingInProportion(const std::string& object) {
  const std::string input = crl({}) + repeated(object, kSize);
  const auto read = [&input] {
    const Buffer data(input.data(), static_cast<unsigned int>(input.size()), false);
    const std::list<CertificateFactory::Item> items = CertificateFactory::readAll(data);
    if (items.size() != 1 || items.front().crl.empty()) throw std::runtime_error("not one CRL");
  };
  return costInProportion(read, [&input] {
    const unsigned char* position = octets(input);
    Owned<X509_CRL>(d2i_X509_CRL(nullptr, &position, static_cast<long>(input.size())));
  });
}

TEST(ObjectReaderCost, PublicKeys) {
  EXPECT_TRUE(isReadingInProportion(sequence("\x30\x03\x06\x01\x2a\x03\x01\0"s)));
}

TEST(ObjectReaderCost, Requests) {
  const std::string key = sequence("\x30\x03\x06\x01\x2a\x03\x01\0"s);
  EXPECT_TRUE(isReadingInProportion(sequence(sequence("\x02\x01\0\x30\0"s + key + "\xa0\0"s) +
                                             "\x30\x03\x06\x01\x2a\x03\x01\0"s)));
}

TEST(ObjectReaderCost, PrivateKeys) {
  EXPECT_TRUE(isReadingInProportion(sequence("\x02\x01\0\x30\x03\x06\x01\x2a\x04\0"s)));
  EXPECT_TRUE(isReadingInProportion(sequence("\x30\x03\x06\x01\x2a\x04\0"s)));  // encrypted
}

TEST(ObjectReaderCost, Pkcs7) {
  EXPECT_TRUE(isReadingInProportion("\x30\x03\x06\x01\x2a"s));
  EXPECT_TRUE(isReadingInProportion("\x30\x07\x06\x01\x2a\xa0\x02\x05\0"s));
}

}  // namespace
}  // namespace Velantrix::Test
