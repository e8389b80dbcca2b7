// CRLs and OCSP over HTTP, from servers on loopback.
//
// Nothing leaves the machine. What is measured is the library's own share: the network that a
// daemon sees is slower by orders of magnitude.
#include "Fixture.h"
#include "PeakMemory.h"
#include "PreparedResponder.h"
#include "foundation/net/http/HTTPAccess.h"
#include "foundation/net/http/HTTPConnection.h"
#include "foundation/net/http/WebClient.h"
#include "support/Command.h"
#include "support/Handles.h"
#include "support/OCSPBuilder.h"
#include "support/WebServer.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/OCSP.h>
#include <pkx509/Verifier.h>
#include <velantrix/Buffer.h>
#include <velantrix/Host.h>

#include <openssl/http.h>

#include <benchmark/benchmark.h>
#include <cstdio>
#ifdef PKX509_LIBCURL
#include <curl/curl.h>
#endif
#include <filesystem>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace Velantrix::Bench {
namespace {

using namespace Crypto::PKX509;
using Crypto::Owned;
namespace HTTP = LW::HTTP;

void require(benchmark::State& state, bool done, const char* what) {
  if (!done) state.SkipWithError(what);
}

// Frees what the library's own owners have no use for.
template <auto function>
struct FreeWith {
  template <class T>
  void operator()(T* object) const noexcept {
    function(object);
  }
};
template <class T, auto function>
using OwnedBy = std::unique_ptr<T, FreeWith<function>>;
using OwnedRequest = OwnedBy<OCSP_REQUEST, OCSP_REQUEST_free>;
using OwnedResponse = OwnedBy<OCSP_RESPONSE, OCSP_RESPONSE_free>;
using OwnedBasic = OwnedBy<OCSP_BASICRESP, OCSP_BASICRESP_free>;
using OwnedBio = OwnedBy<BIO, BIO_free_all>;

// ---- OCSP: one question about the leaf, and right answers to it without a nonce.

struct Question {
  Question()
      : chain(Test::KeyKind::Rsa2048),
        delegate(Test::issue({.subject = "CN=Responder,O=Bench",
                              .issuer = &chain.intermediate,
                              .extensions = {{"extendedKeyUsage", "OCSPSigning"}},
                              .keyKind = Test::KeyKind::Rsa2048})),
        objects(chain),
        leaf(objects.leaf),
        issuer(Test::handle(chain.intermediate)),
        path{leaf, issuer, Test::handle(chain.root)},
        issuers(sk_X509_new_null()) {
    const std::string request = Test::ocspRequest(chain.leaf, chain.intermediate, false);
    byIssuer = Test::ocspAnswer({.signer = &chain.intermediate}, request);
    byDelegate = Test::ocspAnswer({.signer = &delegate}, request);
    sk_X509_push(issuers.get(), chain.intermediate.reference().release());
  }

  const Chain chain;
  const Test::Issued delegate;
  const LibraryChain objects;
  const RefCertificate leaf;
  const RefCertificate issuer;
  const std::list<RefCertificate> path;
  const Owned<STACK_OF(X509)> issuers;  // the intermediate
  std::string byIssuer;
  std::string byDelegate;
};

using AnswerIn = std::string Question::*;

const Question& question() {
  static const Question made;
  return made;
}

OwnedRequest openSSLRequest(const Question& asked, OCSP_CERTID** id) {
  OwnedRequest request(OCSP_REQUEST_new());
  *id = OCSP_cert_to_id(nullptr, asked.chain.leaf.get(), asked.chain.intermediate.get());
  if (OCSP_request_add0_id(request.get(), *id) == nullptr ||
      OCSP_request_add1_nonce(request.get(), nullptr, -1) != 1) {
    return nullptr;
  }
  return request;
}

void requestLibrary(benchmark::State& state) {
  const Question& asked = question();
  for (auto _ : state) {
    const OCSP::Request request(asked.leaf, asked.issuer);
    benchmark::DoNotOptimize(request.pdu()->length());
  }
}

void requestOpenSSL(benchmark::State& state) {
  const Question& asked = question();
  for (auto _ : state) {
    OCSP_CERTID* id = nullptr;
    const OwnedRequest request = openSSLRequest(asked, &id);
    unsigned char* der = nullptr;
    const int length = i2d_OCSP_REQUEST(request.get(), &der);
    const Crypto::OwnedMemory<unsigned char> owner(der);
    require(state, length > 0, "not encoded");
  }
}

void answerLibrary(benchmark::State& state, AnswerIn answer) {
  const Question& asked = question();
  const std::string& der = asked.*answer;
  LW::Buffer bytes(der.size());
  bytes.append(der.data(), der.size());
  const OCSP::Request request(asked.leaf, asked.issuer);
  Verifier verifier(asked.objects.store, asked.leaf, asked.objects.untrusted, false);
  OCSP::Client client(verifier, asked.path);
  for (auto _ : state) {
    const OCSP::Response response(bytes);
    const OCSP::BasicResponse basic(response);
    require(state, basic.matches(request), "another question");
    require(state, client.isSignatureValid(response, basic) == 0, "not accepted");
    require(state, response.find(basic, request.id()).status == V_OCSP_CERTSTATUS_GOOD, "not good");
  }
}

// A store that has read nothing yet.
Owned<X509_STORE> freshStore(const Question& asked) {
  Owned<X509_STORE> store(X509_STORE_new());
  X509_LOOKUP* const lookup = X509_STORE_add_lookup(store.get(), X509_LOOKUP_hash_dir());
  X509_LOOKUP_add_dir(lookup, asked.chain.directory.path().c_str(), X509_FILETYPE_PEM);
  return store;
}

bool openSSLAccepts(const Question& asked, OCSP_RESPONSE* response, OCSP_REQUEST* request,
                    OCSP_CERTID* id, X509_STORE* store) {
  const OwnedBasic basic(OCSP_response_get1_basic(response));
  int status = -1;
  int reason = 0;
  ASN1_GENERALIZEDTIME* revoked = nullptr;
  ASN1_GENERALIZEDTIME* thisUpdate = nullptr;
  ASN1_GENERALIZEDTIME* nextUpdate = nullptr;
  // OCSP_TRUSTOTHER: a signer out of the chain is not validated again, as with the library.
  return basic != nullptr && OCSP_check_nonce(request, basic.get()) != 0 &&
         OCSP_basic_verify(basic.get(), asked.issuers.get(), store, OCSP_TRUSTOTHER) == 1 &&
         OCSP_resp_find_status(basic.get(), id, &status, &reason, &revoked, &thisUpdate,
                               &nextUpdate) == 1 &&
         status == V_OCSP_CERTSTATUS_GOOD;
}

void answerOpenSSL(benchmark::State& state, AnswerIn answer) {
  const Question& asked = question();
  const std::string& der = asked.*answer;
  OCSP_CERTID* id = nullptr;
  const OwnedRequest request = openSSLRequest(asked, &id);
  Owned<X509_STORE> store = freshStore(asked);
  for (auto _ : state) {
    // The library validates a delegate against a clone of its store, so that what is found for it
    // does not stay: both read the root from the directory each time.
    if (answer == &Question::byDelegate) store = freshStore(asked);
    const auto* position = reinterpret_cast<const unsigned char*>(der.data());
    const OwnedResponse response(
        d2i_OCSP_RESPONSE(nullptr, &position, static_cast<long>(der.size())));
    require(state, openSSLAccepts(asked, response.get(), request.get(), id, store.get()),
            "not accepted");
  }
}

// The whole of it, with a connection for each question.

void roundTripLibrary(benchmark::State& state) {
  const Question& asked = question();
  const PreparedResponder responder(asked.byIssuer);
  const Uri uri("http://127.0.0.1:" + responder.port() + "/");
  Verifier verifier(asked.objects.store, asked.leaf, asked.objects.untrusted, false);
  for (auto _ : state) {
    OCSP::Client client(verifier, asked.path);
    require(state, client.connect(uri), "not connected");
    require(state, client.isRevoked(asked.leaf) == 0, "not good");
  }
}

void roundTripOpenSSL(benchmark::State& state) {
  const Question& asked = question();
  const PreparedResponder responder(asked.byIssuer);
  const std::string address = "127.0.0.1:" + responder.port();
  const Owned<X509_STORE> store = freshStore(asked);
  for (auto _ : state) {
    OCSP_CERTID* id = nullptr;
    const OwnedRequest request = openSSLRequest(asked, &id);
    const OwnedBio connection(BIO_new_connect(address.c_str()));
    require(state, BIO_do_connect(connection.get()) == 1, "not connected");
    const OwnedResponse response(OCSP_sendreq_bio(connection.get(), "/", request.get()));
    require(state,
            response != nullptr &&
                openSSLAccepts(asked, response.get(), request.get(), id, store.get()),
            "not good");
  }
}

// ---- CRLs

constexpr unsigned int kPatience = 60;  // seconds; the machine may be busy
constexpr std::size_t kMaximum = std::size_t{64} * 1024 * 1024;

// A web server with a CRL of about that many megabytes, in entries as public CAs make them: serial
// numbers of 16 octets, and a reason.
struct ServedCRL {
  explicit ServedCRL(int megabytes) : url(server.url("/ca.crl")) {
    constexpr int kEntry = 49;  // octets
    const Test::Issued ca = Test::issueCA("CN=CA,O=Bench");
    Test::CRLOptions options{.issuer = &ca};
    const int entries = megabytes * 1000000 / kEntry;
    options.revoked.reserve(static_cast<std::size_t>(entries));
    for (int i = 0; i < entries; ++i) {
      char serial[33];
      std::snprintf(serial, sizeof serial, "5A%022X%08X", 0xBE9C4, static_cast<unsigned int>(i));
      options.revoked.push_back({.serial = serial, .reason = CRL_REASON_SUPERSEDED});
    }
    const std::string der = Test::der(Test::makeCRL(options).get());
    size = der.size();
    Test::writeFile(server.root() / "ca.crl", der);
  }

  const Test::WebServer server;
  const std::string url;
  std::size_t size = 0;
};

const ServedCRL& servedCRL(int megabytes) {
  static std::map<int, std::unique_ptr<ServedCRL>> made;
  std::unique_ptr<ServedCRL>& crl = made[megabytes];
  if (crl == nullptr) crl = std::make_unique<ServedCRL>(megabytes);
  return *crl;
}

// As URILookup does it, without the cache.
HTTP::RefConnection fetchByLibrary(const std::string& url) {
  const Uri uri(url);
  HTTP::RefStream stream = HTTP::streamFor(uri, {kClientCertificateFile, kClientKeyFile});
  const Host host(uri.hostname());
  HTTP::RefConnection connection(stream);
  if (!connection->connect(HTTP::endpointFor(host.address(), uri))) return HTTP::RefConnection();
  connection->maxQueryTime(kPatience);
  connection->maxContent(kMaximum);
  connection->send("GET " + uri.path() + " HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n");
  if (connection->receive() != HTTP::Connection::kComplete) return HTTP::RefConnection();
  return connection;
}

RefCertificateRevocationList readByLibrary(const std::string& url) {
  const HTTP::RefConnection connection = fetchByLibrary(url);
  if (connection.empty()) return RefCertificateRevocationList();
  const LW::Buffer& body = connection->content();
  return CertificateRevocationListFactory::read(
      Buffer(body.data(), static_cast<unsigned int>(body.length()), false));
}

// The client of libcrypto, with blocks that are large enough for it.
OwnedBio fetchByOpenSSL(const std::string& url) {
  constexpr int kBlock = 64 * 1024;
  constexpr int kTillTheEndOfTheObject = 1;
  return OwnedBio(OSSL_HTTP_get(url.c_str(), "", nullptr, nullptr, nullptr, nullptr, nullptr,
                                kBlock, nullptr, nullptr, kTillTheEndOfTheObject, kMaximum,
                                kPatience));
}

Owned<X509_CRL> readByOpenSSL(const std::string& url) {
  const OwnedBio body = fetchByOpenSSL(url);
  return Owned<X509_CRL>(body == nullptr ? nullptr : d2i_X509_CRL_bio(body.get(), nullptr));
}

void fetchLibrary(benchmark::State& state, int megabytes) {
  const ServedCRL& crl = servedCRL(megabytes);
  for (auto _ : state) {
    const HTTP::RefConnection connection = fetchByLibrary(crl.url);
    require(state, !connection.empty() && connection->content().length() == crl.size,
            "not fetched");
  }
}

void fetchOpenSSL(benchmark::State& state, int megabytes) {
  const ServedCRL& crl = servedCRL(megabytes);
  for (auto _ : state) {
    const OwnedBio body = fetchByOpenSSL(crl.url);
    require(state, body != nullptr && BIO_pending(body.get()) == static_cast<int>(crl.size),
            "not fetched");
  }
}

// The client for the web.
void fetchWeb(benchmark::State& state, int megabytes) {
  const ServedCRL& crl = servedCRL(megabytes);
  const Uri uri(crl.url);
  for (auto _ : state) {
    const HTTP::WebAnswer answer = HTTP::ask({.uri = uri}, {.maxContent = kMaximum});
    require(state, answer.isComplete() && answer.content->length() == crl.size, "not fetched");
  }
}

#ifdef PKX509_LIBCURL
// In this process, with a connection for each.
void fetchLibcurl(benchmark::State& state, int megabytes) {
  static const bool ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  require(state, ready, "no libcurl");
  const ServedCRL& crl = servedCRL(megabytes);
  const auto append = +[](char* data, std::size_t size, std::size_t count, void* all) {
    static_cast<std::string*>(all)->append(data, size * count);
    return size * count;
  };
  for (auto _ : state) {
    const OwnedBy<CURL, curl_easy_cleanup> curl(curl_easy_init());
    std::string all;
    curl_easy_setopt(curl.get(), CURLOPT_URL, crl.url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_NOPROXY, "*");
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &all);
    require(state, curl_easy_perform(curl.get()) == CURLE_OK && all.size() == crl.size,
            "not fetched");
  }
}
#endif

// The start of a process and the writing of a file included, which is how scripts fetch CRLs.
void fetchCurl(benchmark::State& state, int megabytes) {
  const ServedCRL& crl = servedCRL(megabytes);
  const Test::TempDir directory;
  const std::string file = directory / "ca.crl";
  const std::vector<std::string> command = {"curl", "-q", "-s", "--noproxy",
                                            "*",    "-o", file, crl.url};
  for (auto _ : state) require(state, Test::runCommand(command).status == 0, "not fetched");
  require(state, std::filesystem::file_size(file) == crl.size, "not whole");
}

// Measured once for each.
double peakOf(const std::string& who, const ServedCRL& crl) {
  static std::map<std::string, double> peaks;
  const std::string key = who + crl.url;
  if (peaks.count(key) == 0) peaks[key] = peakMemory(who, crl.url);
  return peaks[key];
}

void readLibrary(benchmark::State& state, int megabytes) {
  const ServedCRL& crl = servedCRL(megabytes);
  for (auto _ : state) require(state, !readByLibrary(crl.url).empty(), "not read");
  state.counters["peak MiB"] = peakOf("library", crl);
}

void readOpenSSL(benchmark::State& state, int megabytes) {
  const ServedCRL& crl = servedCRL(megabytes);
  for (auto _ : state) require(state, readByOpenSSL(crl.url) != nullptr, "not read");
  state.counters["peak MiB"] = peakOf("openssl", crl);
}

void registerAnswer(const char* group, AnswerIn answer) {
  const std::string name = std::string("OCSP answer of ") + group + " checked/";
  benchmark::RegisterBenchmark((name + "library").c_str(), answerLibrary, answer)->MinTime(0.1);
  benchmark::RegisterBenchmark((name + "openssl").c_str(), answerOpenSSL, answer)->MinTime(0.1);
}

const bool kRegistered = [] {
  const auto once = [](const char* name, void (*run)(benchmark::State&)) {
    return benchmark::RegisterBenchmark(name, run)->MinTime(0.1);
  };
  once("OCSP request made/library", requestLibrary);
  once("OCSP request made/openssl", requestOpenSSL);
  registerAnswer("the issuer", &Question::byIssuer);
  registerAnswer("a delegate", &Question::byDelegate);
  once("OCSP round trip/library", roundTripLibrary)->UseRealTime();
  once("OCSP round trip/openssl", roundTripOpenSSL)->UseRealTime();
  for (const int megabytes : {0, 5}) {
    const std::string name = "CRL of " + std::to_string(megabytes) + " MB, over a new connection/";
    benchmark::RegisterBenchmark((name + "library").c_str(), fetchWeb, megabytes)->UseRealTime();
#ifdef PKX509_LIBCURL
    benchmark::RegisterBenchmark((name + "libcurl").c_str(), fetchLibcurl, megabytes)
        ->UseRealTime();
#endif
  }
  for (const int megabytes : {5, 49}) {
    const std::string crl = "CRL of " + std::to_string(megabytes) + " MB, ";
    const auto add = [megabytes](const std::string& name, void (*run)(benchmark::State&, int)) {
      return benchmark::RegisterBenchmark(name.c_str(), run, megabytes)
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime();
    };
    const int transfers = megabytes < 10 ? 20 : 4;
    add(crl + "fetched/library", fetchLibrary)->Iterations(transfers);
    add(crl + "fetched/openssl", fetchOpenSSL)->Iterations(transfers);
    add(crl + "fetched/curl", fetchCurl)->Iterations(transfers);
    add(crl + "fetched and read/library", readLibrary)->Iterations(megabytes < 10 ? 3 : 1);
    add(crl + "fetched and read/openssl", readOpenSSL)->Iterations(megabytes < 10 ? 3 : 1);
  }
  return true;
}();

}  // namespace

// There is no file to read.
void readFileForPeak(const std::string& /*file*/) {}

// What is read is the URL of the CRL.
void readForPeak(const std::string& who, const std::string& url) {
  if (who == "library") {
    benchmark::DoNotOptimize(readByLibrary(url));
  } else {
    benchmark::DoNotOptimize(readByOpenSSL(url));
  }
}

}  // namespace Velantrix::Bench
