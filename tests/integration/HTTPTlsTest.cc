// The HTTP client over TLS, with the machine's certificate and key.
#include "foundation/net/http/HTTPAccess.h"
#include "foundation/run/VerificationRun.h"
#include "integration/HTTPClient.h"
#include "support/FaultScripts.h"
#include "support/PrivateView.h"
#include "support/WebServer.h"

#include <velantrix/Host.h>

#include <boost/asio/error.hpp>
#include <boost/system/system_error.hpp>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/ui.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <stdexcept>
#include <string>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;
using Crypto::PKX509::VerificationRun;
using HTTP::Connection;
using Kind = HTTP::Failure::Kind;

const std::filesystem::path kCertificate = std::filesystem::path(kAppsDirectory) / "server.crt";
const std::filesystem::path kKey = std::filesystem::path(kAppsDirectory) / "server.key";

HTTP::RefStream streamFor(const Uri& uri) {
  return HTTP::streamFor(uri, {kCertificate.c_str(), kKey.c_str()});
}

std::string encryptedPem(EVP_PKEY* key) {
  const Owned<BIO> out(BIO_new(BIO_s_mem()));
  const char passphrase[] = "passphrase";
  if (!out || PEM_write_bio_PKCS8PrivateKey(out.get(), key, EVP_aes_256_cbc(), passphrase,
                                            sizeof passphrase - 1, nullptr, nullptr) != 1) {
    throw std::runtime_error("PEM_write_bio_PKCS8PrivateKey");
  }
  char* text = nullptr;  // the BIO's
  const long length = BIO_get_mem_data(out.get(), &text);
  return {text, static_cast<std::size_t>(length)};
}

/// Notices when OpenSSL asks whoever sits at the terminal, and answers for them.
class Terminal {
 public:
  Terminal() : method_(UI_create_method("terminal of the test")) {
    s_asked = false;
    UI_method_set_opener(method_, [](UI*) {
      s_asked = true;
      return 0;
    });
    UI_set_default_method(method_);
  }
  ~Terminal() {
    UI_set_default_method(UI_OpenSSL());
    UI_destroy_method(method_);
  }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  bool asked() const { return s_asked; }

 private:
  static inline bool s_asked = false;
  UI_METHOD* method_;
};

class HTTPTls : public testing::Test {
 protected:
  HTTPTls() { clearPrivateView(); }
  ~HTTPTls() override { clearPrivateView(); }

  void installClient() const {
    writeFile(kCertificate, pem(client_.get()));
    writeFile(kKey, pem(client_.key.get()));
  }

  FaultServerOptions withTls() const { return {.certificate = &server_}; }

  const Issued root_ = issueCA("CN=Clients");
  const Issued client_ = issue({.subject = "O=Mail,CN=Appliance", .issuer = &root_});
  // Signed by nobody that is known here, for another host, and long expired.
  const Issued server_ = issue({.subject = "CN=other.example.com",
                                .notBefore = std::chrono::hours(-48),
                                .notAfter = std::chrono::hours(-24)});
};

HTTPClient clientFor(const FaultServer& server) { return HTTPClient(streamFor(Uri(server.url()))); }

TEST_F(HTTPTls, ClientCertificate_IsShownAndTheServersIsNotVerified) {
  installClient();
  const FaultServer server(Scripts::answer("over TLS"),
                           {.certificate = &server_, .clientCA = &root_});
  HTTPClient client = clientFor(server);
  ASSERT_TRUE(client.connect(server.port()));
  const std::string header = "POST /ocsp HTTP/1.0\r\nContent-Length: 4\r\n\r\n";
  client->send(header);
  client->send(bodyOf("body"));
  EXPECT_EQ(client->receive(), Connection::kComplete);
  EXPECT_EQ(client.content(), "over TLS");
  ASSERT_TRUE(server.waitForEnds(1));
  const FaultConnection seen = server.connections().at(0);
  EXPECT_EQ(seen.clientSubject, "CN=Appliance,O=Mail");
  EXPECT_EQ(seen.received, header + "body");
  EXPECT_EQ(seen.error, "");
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(HTTPTls, SecondRequest_IsMadeOverANewSession) {
  installClient();
  const FaultServer server(Scripts::inTurn({Scripts::answer("first"), Scripts::answer("second")}),
                           {.certificate = &server_, .clientCA = &root_});
  HTTPClient client = clientFor(server);
  ASSERT_TRUE(client.connect(server.port()));
  EXPECT_EQ(client.get(), Connection::kComplete);
  EXPECT_EQ(client.get(), Connection::kComplete);
  EXPECT_EQ(client.content(), "second");
  ASSERT_EQ(server.connections().size(), 2U);
  EXPECT_EQ(server.connections().at(1).clientSubject, "CN=Appliance,O=Mail");
}

TEST_F(HTTPTls, RealServer_RequiresTheCertificateAndGetsIt) {
  installClient();
  WebServer server({.certificate = &server_, .clientCA = &root_});
  const std::string large(300'000, 'x');
  writeFile(server.root() / "ca.crl", large);
  const Uri uri(server.tlsUrl("/ca.crl"));
  HTTPClient client(streamFor(uri));
  ASSERT_TRUE(client.connect(uri.port()));
  EXPECT_EQ(client.get("/ca.crl"), Connection::kComplete);
  EXPECT_TRUE(client.content() == large);
  EXPECT_EQ(ERR_peek_error(), 0U);
  ASSERT_TRUE(server.waitForRequests(1));
  EXPECT_EQ(server.requests().front().clientSubject, "CN=Appliance,O=Mail");

  // It means it: without one it serves nothing.
  HTTPClient nobody{HTTP::RefStream(boost::asio::ssl::context_base::tls_client)};
  ASSERT_TRUE(nobody.connect(uri.port()));
  EXPECT_EQ(nobody.get("/ca.crl"), Connection::kOtherStatus);
}

TEST_F(HTTPTls, ServerRefusesTheCertificate_HasClosed) {
  const Issued stranger = issueCA("CN=Stranger");
  writeFile(kCertificate, pem(stranger.get()));
  writeFile(kKey, pem(stranger.key.get()));
  const FaultServer server(Scripts::answer("x"), {.certificate = &server_, .clientCA = &root_});
  HTTPClient client = clientFor(server);
  // With TLS 1.3 a client learns this only when it reads.
  const bool connected = client.connect(server.port());
  EXPECT_EQ(client.get(), Connection::kClosed) << connected;
  ASSERT_TRUE(server.waitForEnds(1));
  EXPECT_NE(server.connections().at(0).error, "");
  EXPECT_TRUE(server.requests().empty());
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(HTTPTls, CertificateOrKeyThatCannotBeLoaded_IsTheSystemErrorAndNobodyIsAsked) {
  const Issued other = issueCA("CN=Other");
  const std::string certificate = pem(client_.get());
  const std::string key = pem(client_.key.get());
  const std::string none;
  const std::string missing = "No such file or directory";
  const struct {
    const char* what;
    std::string certificate;
    std::string key;
    std::string reason = {};  // any, where none is given
  } rows[] = {
      {"neither", none, none, missing},
      {"no key", certificate, none, missing},
      {"no certificate", none, key, missing},
      {"key of another certificate", certificate, pem(other.key.get()), "key values mismatch"},
      {"encrypted key", certificate, encryptedPem(client_.key.get())},
      {"certificate in place of the key", certificate, certificate},
      {"key in place of the certificate", key, key},
      {"certificate in DER", der(client_.get()), key},
      {"noise", "\x01\x02\x03", "\x01\x02\x03"},
      {"key cut short", certificate, key.substr(0, key.size() / 2)},
  };
  for (const auto& row : rows) {
    clearPrivateView();
    if (row.certificate != none) writeFile(kCertificate, row.certificate);
    if (row.key != none) writeFile(kKey, row.key);
    const Terminal terminal;
    try {
      streamFor(Uri("https://127.0.0.1/"));
      ADD_FAILURE() << "no exception: " << row.what;
    } catch (const HTTP::IdentityError& error) {
      EXPECT_EQ(error.code().value(), 22) << row.what;
      EXPECT_EQ(error.code(), boost::asio::error::invalid_argument) << row.what;
      const bool aboutKey = std::string(error.what()).find(kKey.string()) != std::string::npos;
      EXPECT_EQ(aboutKey, row.certificate == certificate) << row.what << ": " << error.what();
      EXPECT_EQ(error.failure.kind, Kind::kClientIdentity) << row.what;
      EXPECT_EQ(error.failure.error, row.reason == missing ? ENOENT : 0) << row.what;
      const std::string file = (aboutKey ? kKey : kCertificate).string() + ": ";
      EXPECT_TRUE(error.failure.detail.starts_with(file)) << error.failure.detail;
      EXPECT_TRUE(error.failure.detail.ends_with(row.reason)) << error.failure.detail;
      EXPECT_GT(error.failure.detail.size(), file.size()) << row.what;
    }
    EXPECT_FALSE(terminal.asked()) << row.what;
    EXPECT_EQ(ERR_peek_error(), 0U) << row.what;
  }
}

// So the test above would see a prompt.
TEST_F(HTTPTls, Terminal_SeesThatOpenSSLWouldAsk) {
  const Terminal terminal;
  const std::string key = encryptedPem(client_.key.get());
  const Owned<BIO> in(BIO_new_mem_buf(key.data(), static_cast<int>(key.size())));
  const Owned<EVP_PKEY> read(PEM_read_bio_PrivateKey(in.get(), nullptr, nullptr, nullptr));
  EXPECT_FALSE(read);
  EXPECT_TRUE(terminal.asked());
  ERR_clear_error();
}

TEST_F(HTTPTls, CertificateFileIsADirectory_IsTheSystemError) {
  std::filesystem::create_directory(kCertificate);
  std::filesystem::create_directory(kKey);
  EXPECT_THROW(streamFor(Uri("https://127.0.0.1/")), boost::system::system_error);
}

TEST_F(HTTPTls, Options_AreTheNamedOnes) {
  installClient();
  HTTP::RefStream stream = streamFor(Uri("https://127.0.0.1/"));
  ASSERT_NE(stream->tls(), nullptr);
  SSL_CTX* const context = stream->tls()->native_handle();
  EXPECT_EQ(SSL_CTX_get_options(context) & SSL_OP_ALL, SSL_OP_ALL);
  EXPECT_EQ(SSL_CTX_get_verify_mode(context), SSL_VERIFY_NONE);
  // Nothing that makes TLS worse than the installed OpenSSL's defaults.
  EXPECT_EQ(SSL_CTX_get_options(context) &
                (SSL_OP_LEGACY_SERVER_CONNECT | SSL_OP_ALLOW_UNSAFE_LEGACY_RENEGOTIATION |
                 SSL_OP_IGNORE_UNEXPECTED_EOF | SSL_OP_NO_TLSv1_3 | SSL_OP_NO_TLSv1_2),
            0U);
}

TEST_F(HTTPTls, ConnectionThatIsCut_IsCompleteOnlyWhereALengthSaysSo) {
  installClient();
  const std::string chunked = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nbody\r\n";
  const struct {
    const char* what;
    std::string bytes;
    bool cut;
    int outcome;
  } rows[] = {
      {"length, cut", Scripts::response("body"), true, Connection::kComplete},
      {"length, closed", Scripts::response("body"), false, Connection::kComplete},
      {"until close, closed", "HTTP/1.0 200 OK\r\n\r\nbody", false, Connection::kComplete},
      // Anybody on the way could have ended it here.
      {"until close, cut", "HTTP/1.0 200 OK\r\n\r\nbody", true, Connection::kCutShort},
      {"chunks, cut", chunked, true, Connection::kCutShort},
      {"chunks, closed", chunked, false, Connection::kCutShort},
      {"all chunks, cut", chunked + "0\r\n\r\n", true, Connection::kComplete},
      {"headers, cut", "HTTP/1.0 200 OK\r\n", true, Connection::kCutShort},
      {"nothing, cut", "", true, Connection::kClosed},
      {"nothing, closed", "", false, Connection::kClosed},
  };
  for (const auto& row : rows) {
    const FaultServer server(
        [&row](Peer& peer) {
          if (!peer.readRequest()) return;
          peer.write(row.bytes);
          if (row.cut) {
            peer.cut();
          } else {
            peer.close();
          }
        },
        withTls());
    HTTPClient client = clientFor(server);
    ASSERT_TRUE(client.connect(server.port())) << row.what;
    EXPECT_EQ(client.get(), row.outcome) << row.what;
    EXPECT_EQ(client.content(), row.outcome == Connection::kComplete ? "body" : "") << row.what;
    EXPECT_EQ(ERR_peek_error(), 0U) << row.what;
  }
}

TEST_F(HTTPTls, Answers_AreReadAsWithoutTls) {
  installClient();
  const std::string large(std::size_t{3} * 1024 * 1024, 'x');
  const struct {
    const char* what;
    Script script;
    int outcome;
  } rows[] = {
      {"large", Scripts::answer(large), Connection::kComplete},
      {"404", Scripts::notFound(), Connection::kOtherStatus},
      {"cut short", Scripts::cutShort("half", 8), Connection::kCutShort},
      {"garbage", Scripts::garbage(), Connection::kMalformed},
      {"endless body", Scripts::endlessBody(), Connection::kTooLarge},
      {"endless headers", Scripts::endlessHeaders(), Connection::kTooLarge},
      {"4 GiB", Scripts::hugePromise(), Connection::kTooLarge},
      {"closed at once", Scripts::closeAtOnce(), Connection::kClosed},
      {"reset at once", Scripts::resetAtOnce(), Connection::kClosed},
  };
  for (const auto& row : rows) {
    const FaultServer server(row.script, withTls());
    HTTPClient client = clientFor(server);
    client->maxContent(large.size());
    ASSERT_TRUE(client.connect(server.port())) << row.what;
    EXPECT_EQ(client.get(), row.outcome) << row.what;
    EXPECT_TRUE(client.content() == (row.outcome == Connection::kComplete ? large : ""))
        << row.what;
    EXPECT_EQ(ERR_peek_error(), 0U) << row.what;
  }
}

TEST_F(HTTPTls, PeerThatDoesNotSpeakTls_IsNotConnected) {
  installClient();
  const std::string alert = "\x15\x03\x01\x00\x02\x02\x28"s;  // handshake_failure
  const struct {
    std::string answer;
    std::string reason;  // how it ends: what stands in front depends on the version of OpenSSL
  } rows[] = {{Scripts::response("plain"), "wrong version number"},
              {std::string(100, 'x'), "wrong version number"},
              {alert, "alert handshake failure"},
              {std::string(), ""}};
  for (const auto& [answer, reason] : rows) {
    const FaultServer server([&text = answer](Peer& peer) {
      // Octets left unread would take the answer away with a reset.
      if (!text.empty() && peer.write(text)) peer.waitForPeerToClose();
    });
    HTTPClient client(streamFor(Uri("https://127.0.0.1/")));
    const Stopwatch watch;
    EXPECT_FALSE(client.connect(server.port()));
    EXPECT_TRUE(watch.tookNoTime());
    const HTTP::Failure& failure = client->failure();
    EXPECT_EQ(failure.kind, Kind::kTls) << reason;
    EXPECT_TRUE(failure.detail.ends_with(reason)) << failure.detail;
    EXPECT_EQ(client.get(), Connection::kClosed);
    EXPECT_EQ(ERR_peek_error(), 0U);
  }
}

TEST_F(HTTPTls, HandshakeThatNeverEnds_EndsWithTheTimeOfTheVerification) {
  installClient();
  const std::string header = "\x16\x03\x03\x10\x00\x02"s;  // of a long handshake message
  for (const bool talks : {false, true}) {
    const FaultServer server([&header, talks](Peer& peer) {
      if (talks) peer.writeSlowly(header + std::string(1000, 'x'), 20ms);
      peer.waitForPeerToClose();
    });
    HTTPClient client(streamFor(Uri("https://127.0.0.1/")));
    VerificationRun run(nullptr, {.networkTime = 250ms});
    const Stopwatch watch;
    EXPECT_FALSE(client.connect(server.port()));
    expectFailure(client->failure(), {Kind::kTls, ETIMEDOUT, 0, "Connection timed out"}, "TLS");
    EXPECT_TRUE(watch.took(250ms));
    EXPECT_TRUE(server.waitForEnds(1));
    EXPECT_EQ(client.get(), Connection::kClosed);
    EXPECT_TRUE(watch.took(250ms));
    EXPECT_EQ(ERR_peek_error(), 0U);
  }
}

TEST_F(HTTPTls, SilenceAndTrickle_EndWithTheTimeOfTheVerification) {
  installClient();
  for (const Script& script :
       {Scripts::silence(), Scripts::trickle(Scripts::response(std::string(999, 'x')), 10ms)}) {
    const FaultServer server(script, withTls());
    HTTPClient client = clientFor(server);
    const Stopwatch watch;
    VerificationRun run(nullptr, {.networkTime = 300ms});
    ASSERT_TRUE(client.connect(server.port()));
    EXPECT_EQ(client.get(), Connection::kTimedOut);
    EXPECT_TRUE(watch.took(300ms));
    EXPECT_EQ(client.content(), "");
    EXPECT_TRUE(server.waitForEnds(1));
  }
}

TEST_F(HTTPTls, PeerThatDoesNotRead_EndsWithTheTimeOfTheVerification) {
  installClient();
  const FaultServer server([](Peer& peer) { peer.pause(1h); }, withTls());
  HTTPClient client = clientFor(server);
  const LW::RefBuffer body = bodyOf(std::string(std::size_t{32} * 1024 * 1024, 'x'));
  const Stopwatch watch;
  VerificationRun run(nullptr, {.networkTime = 500ms});
  ASSERT_TRUE(client.connect(server.port()));
  client->send("POST / HTTP/1.0\r\n\r\n");
  client->send(body);
  EXPECT_EQ(client->receive(), Connection::kTimedOut);
  EXPECT_TRUE(watch.took(500ms));
}

TEST_F(HTTPTls, PeerResetsWhileTheRequestIsSent_HasClosed) {
  installClient();
  const FaultServer server(
      [](Peer& peer) {
        peer.readRequest();
        peer.reset();
      },
      withTls());
  HTTPClient client = clientFor(server);
  ASSERT_TRUE(client.connect(server.port()));
  const LW::RefBuffer body = bodyOf(std::string(std::size_t{32} * 1024 * 1024, 'x'));
  client->send("POST / HTTP/1.0\r\n\r\n");
  client->send(body);
  client->send(body);
  EXPECT_EQ(client->receive(), Connection::kClosed);
  EXPECT_EQ(ERR_peek_error(), 0U);
}

std::size_t s_mostThreads = 0;

// The servers are other processes, so that all threads are this program's and the library's.
TEST_F(HTTPTls, Fetch_StartsNoThread) {
  installClient();
  const WebServer server({.certificate = &server_, .clientCA = &root_});
  writeFile(server.root() / "ca.crl", std::string(100'000, 'x'));
  const Uri uri(server.tlsUrl("/ca.crl"));
  HTTP::RefStream stream = streamFor(uri);
  // Called again and again while the connection is made and used.
  s_mostThreads = 0;
  SSL_CTX_set_msg_callback(stream->tls()->native_handle(),
                           [](int, int, int, const void*, std::size_t, SSL*, void*) {
                             s_mostThreads = std::max(s_mostThreads, threadCount());
                           });
  const std::size_t before = threadCount();
  HTTPClient client(stream);
  ASSERT_TRUE(client.connect(uri.port()));
  EXPECT_EQ(client.get("/ca.crl"), Connection::kComplete);
  EXPECT_EQ(s_mostThreads, before);
  EXPECT_EQ(threadCount(), before);
}

}  // namespace
}  // namespace Velantrix::Test
