#include "foundation/net/HostResolver.h"
#include "foundation/net/http/HTTPFailure.h"

#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/beast/http/error.hpp>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <gtest/gtest.h>
#include <string>

namespace Velantrix::Test {
namespace {

using LW::HTTP::Failure;
using LW::HTTP::failureOf;
using Kind = Failure::Kind;

TEST(HTTPFailure, Detail_IsCutBetweenCharacters) {
  const std::string most(256, 'x');
  EXPECT_EQ(LW::HTTP::detailOf(most), most);
  EXPECT_EQ(LW::HTTP::detailOf(most + 'x'), most);
  EXPECT_EQ(LW::HTTP::detailOf(most.substr(1) + "\u00e4"), most.substr(1));
}

TEST(HTTPFailure, ErrorOfEveryLayer_IsOfTheStepAndOpenSSLsIsOfTls) {
  namespace asio = boost::asio;
  ASSERT_EQ(OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS, nullptr), 1);
  const unsigned int wrong = ERR_PACK(ERR_LIB_SSL, 0, SSL_R_WRONG_VERSION_NUMBER);
  const boost::system::error_code ofOpenSSL(static_cast<int>(wrong),
                                            asio::error::get_ssl_category());
  const std::string ended = "the server closed the connection";
  const struct {
    boost::system::error_code error;
    Failure expected;
  } rows[] = {
      {asio::error::connection_refused, {Kind::kConnect, ECONNREFUSED, 0, "Connection refused"}},
      {asio::error::timed_out, {Kind::kConnect, ETIMEDOUT, 0, "Connection timed out"}},
      {asio::error::eof, {Kind::kConnect, 0, 0, ended}},
      {asio::ssl::error::stream_truncated, {Kind::kConnect, 0, 0, ended}},
      {boost::beast::http::error::partial_message, {Kind::kConnect, 0, 0, ended}},
      {boost::beast::http::error::end_of_stream, {Kind::kConnect, 0, 0, ended}},
      {boost::beast::http::error::bad_status, {Kind::kConnect, 0, 0, "bad status"}},
      {asio::error::operation_aborted, {Kind::kCancelled}},
      {ofOpenSSL, {Kind::kTls, 0, 0, "wrong version number"}},
  };
  for (const auto& row : rows) {
    const Failure failure = failureOf(Kind::kConnect, row.error);
    EXPECT_EQ(failure, row.expected) << row.error.message() << ": " << failure.detail;
  }
}

TEST(HTTPFailure, HostWithoutAddress_IsNotResolvedOrNotAskedFor) {
  EXPECT_EQ(failureOf(HostAddresses{.status = HostAddresses::kNoTime}),
            Failure{.kind = Kind::kNoTime});
  EXPECT_EQ(failureOf(HostAddresses{.status = HostAddresses::kCancelled}),
            Failure{.kind = Kind::kCancelled});
  const HostAddresses unknown{.status = 4};  // ARES_ENOTFOUND
  EXPECT_EQ(failureOf(unknown), (Failure{Kind::kResolve, 4, 0, "Domain name not found"}));
}

}  // namespace
}  // namespace Velantrix::Test
