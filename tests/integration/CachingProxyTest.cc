// A caching proxy in front of many gateways: nginx with the very configuration that docs/OPERATIONS.md gives.
#include "integration/DnsServer.h"
#include "integration/OwnNamespaces.h"
#include "integration/URIFixture.h"
#include "support/WebServer.h"

#include <pkx509/ConformingVerifier.h>

#include <cstring>
#include <net/if.h>
#include <sched.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>
#include <vector>

namespace Velantrix::Test {
namespace {

std::string textBetween(const std::string& text, const std::string& begin, const std::string& end) {
  const std::size_t from = text.find(begin);
  const std::size_t to = from == std::string::npos ? from : text.find(end, from + begin.size());
  if (to == std::string::npos) throw std::runtime_error("not found: " + begin);
  return text.substr(from + begin.size(), to - from - begin.size());
}

std::string documentedConfiguration() {
  const std::string document = readFile(PKX509_ROOT "/docs/OPERATIONS.md");
  const std::string place = textBetween(document, "<!-- crl-proxy.conf", "<!-- end -->");
  return textBetween(place, "```nginx\n", "```\n");
}

// The addresses of the document, 192.0.2.0/24: all of a network that the loopback device has are this
// machine's.
void takeAddressesOfTheDocument() {
  const Descriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0), "socket");
  ifreq request{};
  std::strncpy(request.ifr_name, "lo:1", sizeof request.ifr_name - 1);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  ::inet_pton(AF_INET, "192.0.2.10", &address.sin_addr);
  std::memcpy(&request.ifr_addr, &address, sizeof address);
  if (::ioctl(socket.number(), SIOCSIFADDR, &request) != 0) failWithError("SIOCSIFADDR", errno);
}

class CachingProxy : public URIFixture {
 protected:
  static constexpr char kURI[] = "http://crl.example.com/ca.crl?id=7";

  /// Has a network and a /var/cache of its own around it, in which nginx is the proxy and the host of CRLs.
  void inMachineOfTheDocument(const std::function<void(const WebServer&)>& body) {
    inOwnNamespaces([&] {
      bringUpLoopback();
      takeAddressesOfTheDocument();
      mountMemory("/var/cache", "size=1m");
      fs::create_directory("/var/cache/nginx");
      const DnsServer names([](const DnsQuery& query) { return answerTo(query, {"192.0.2.80"}); },
                            "192.0.2.53");
      const WebServer nginx(
          {.more = documentedConfiguration() +
                   "server { listen 192.0.2.80:80; server_name crl.example.com; }\n"});
      writeFile(nginx.root() / "ca.crl", der(crl(7).get()));
      body(nginx);
    });
  }

  Issued leafWith(const std::string& uri) const {
    return issue({.subject = "O=Test,CN=Leaf",
                  .issuer = &ca,
                  .crlDistributionPoints = {{.fullNames = {"URI:" + uri}}}});
  }

  VerificationReport verify(const Issued& leaf) const {
    World world;
    world.trust(ca);
    ConformingVerifier verifier(world.store, handle(leaf));
    RetrievalSettings settings;
    settings.proxy = Uri("http://192.0.2.10:3128");
    verifier.retrieval(settings);
    verifier.isValid();
    return verifier.report();
  }

  /// In a process with a cache of its own. Its exit status is 0 when all is well.
  pid_t startGateway(const Issued& leaf) const {
    const pid_t child = ::fork();
    if (child != 0) return child;
    int status = 1;
    try {
      if (::unshare(CLONE_NEWNS) != 0) failWithError("unshare", errno);
      mountMemory(kCRLCacheDirectory, "size=1m");
      const bool valid = verify(leaf).valid();
      status = valid && fs::exists(cacheFile(kURI)) ? 0 : 2;
    } catch (const std::exception& error) {
      std::cout << error.what() << std::endl;
    }
    ::_exit(status);
  }
};

TEST_F(CachingProxy, ManyGatewaysWithCachesOfTheirOwn_MakeOneRequestAtTheHost) {
  inMachineOfTheDocument([this](const WebServer& nginx) {
    constexpr int kGateways = 8;
    const Issued leaf = leafWith(kURI);
    std::vector<pid_t> gateways;
    for (int i = 0; i < kGateways; ++i) gateways.push_back(startGateway(leaf));
    for (const pid_t gateway : gateways) EXPECT_EQ(collect(gateway), 0);
    // The proxy is told the whole URI, the host a path.
    EXPECT_TRUE(nginx.waitForRequests(kGateways + 1));
    EXPECT_EQ(nginx.requestsFor(kURI), std::size_t{kGateways});
    EXPECT_EQ(nginx.requestsFor("/ca.crl?id=7"), 1U);
    EXPECT_FALSE(fs::exists(cacheFile(kURI))) << "each has kept it for itself";
  });
}

// The access list of the proxy decides by the name; nobody is asked for an address.
TEST_F(CachingProxy, HostThatIsNotOnItsList_IsRefusedByTheProxy) {
  inMachineOfTheDocument([this](const WebServer& nginx) {
    for (const char* uri : {"http://metadata.example.com/ca.crl", "http://crl.example.com.test/",
                            "http://crl.example.com:8080/ca.crl"}) {
      const VerificationReport report = verify(leafWith(uri));
      EXPECT_EQ(report.outcome(), Outcome::kTemporary) << uri;
      EXPECT_TRUE(std::any_of(report.sources().begin(), report.sources().end(),
                              [](const auto& one) { return one.httpStatus() == 403; }))
          << report.line();
    }
    EXPECT_TRUE(nginx.waitForRequests(3));
    EXPECT_EQ(nginx.requests().size(), 3U);
  });
}

}  // namespace
}  // namespace Velantrix::Test
