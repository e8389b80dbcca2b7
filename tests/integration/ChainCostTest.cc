// What a verification costs that no trust anchor has any part in, held against what bare OpenSSL needs
// for the same certificates and for each local object once.
#include "integration/URIFixture.h"
#include "support/Bulk.h"
#include "support/Cost.h"

#include <pkx509/ConformingVerifier.h>

#include <openssl/x509v3.h>

#include <gtest/gtest.h>

namespace Velantrix::Test {
namespace {

using namespace Bulk;

class ChainCost : public URIFixture {
 protected:
  ChainCost() { world.trust(ca); }

  // A CA with a stranger's key: the name and the key identifier above it are the real root's.
  Issued forgedCA(const std::string& name) const {
    return issue({.subject = name, .issuer = &ca, .ca = true, .signer = makeKey()});
  }
  // Its CRL in the cache, with that many entries; the same for each URI.
  RefCertificateRevocationList cached(const Issued& issuer, const std::vector<std::string>& uris,
                                      int entries) {
    CRLOptions options{.issuer = &issuer};
    for (int i = 0; i < entries; ++i) options.revoked.push_back({.serial = Serial(1000000000 + i)});
    const RefCertificateRevocationList crl = crlHandle(options);
    for (const std::string& uri : uris) {
      HashDirLookupMethod(kCRLCacheDirectory).add(Uri(uri), {crl});
    }
    return crl;
  }

  // Is it in proportion, and what comes out, of both verifiers? The verdict is looked at in the child
  // process; without a list, and of the conforming one, anything but "valid".
  testing::AssertionResult inBounds(const std::list<Issued>& path,
                                    const std::list<std::string>& local,
                                    const std::set<int>& verdicts = {}) {
    const testing::AssertionResult classic = inBounds(path, local, verdicts, false);
    return classic ? inBounds(path, local, {}, true) : classic;
  }
  testing::AssertionResult inBounds(const std::list<Issued>& path,
                                    const std::list<std::string>& local,
                                    const std::set<int>& verdicts, bool conforming) {
    std::list<std::string> input;
    for (const Issued& issued : path) input.push_back(der(issued.get()));
    const auto ours = [&] {
      std::list<RefCertificate> certificates;
      for (const std::string& octets : input) {
        CertificateFactory::read(
            Buffer(octets.data(), static_cast<unsigned int>(octets.size()), false), certificates);
      }
      const RefCertificate target = certificates.front();
      certificates.pop_front();
      world.store->add(certificates);
      const RefStackOfCertificate stack(certificates);
      const int verdict = conforming ? ConformingVerifier(world.store, target, stack).isValid()
                                     : Verifier(world.store, target, stack, false).isValid();
      const bool possible = verdicts.empty() ? verdict != X509_V_OK : verdicts.contains(verdict);
      if (!possible) throw std::runtime_error(std::to_string(verdict));
      // The lines that say what is not valid are few, and 202 of the others at most.
      if (log.lines().size() > 210) throw std::runtime_error("too many lines");
    };
    const auto bare = [&] {
      for (const std::string& octets : input) {
        const auto* position = reinterpret_cast<const unsigned char*>(octets.data());
        const Owned<X509> decoded(d2i_X509(nullptr, &position, static_cast<long>(octets.size())));
        X509_check_purpose(decoded.get(), -1, 0);
      }
      for (const std::string& octets : local) {
        const auto* position = reinterpret_cast<const unsigned char*>(octets.data());
        const Owned<X509_CRL> decoded(
            d2i_X509_CRL(nullptr, &position, static_cast<long>(octets.size())));
      }
    };
    return costInProportion(ours, bare);
  }

  // Distribution points in DER, end to end, in place of those that a builder would decode again.
  static RawExtension points(const std::string& content) {
    return {"2.5.29.31", false, sequence(content)};
  }
  static std::string uriPoint(const std::string& uri) {
    return sequence(element(0xa0, element(0xa0, element(0x86, uri))));
  }

  World world;
};

TEST_F(ChainCost, PointsThatNameOneCachedCRL) {
  const Issued fake = forgedCA("O=Test,CN=Fake");
  const std::string uri = "http://127.0.0.1:1/ca.crl";
  const RefCertificateRevocationList crl = cached(fake, {uri}, 40000);
  std::string content;
  for (int i = 0; i < 120; ++i) content += uriPoint(uri);
  const Issued leaf =
      issue({.subject = "CN=Leaf", .issuer = &fake, .rawExtensions = {points(content)}});
  EXPECT_TRUE(inBounds({leaf, fake}, {der(static_cast<X509_CRL*>(crl))},
                       {X509_V_ERR_UNABLE_TO_GET_CRL, X509_V_ERR_CERT_SIGNATURE_FAILURE}));
}

TEST_F(ChainCost, PointsOfOneCachedCRL_LeafThatNobodySigned) {
  const std::string uri = "http://127.0.0.1:1/ca.crl";
  const RefCertificateRevocationList crl = cached(ca, {uri}, 40000);
  std::string content;
  for (int i = 0; i < 50; ++i) content += uriPoint(uri);
  const Issued leaf = issue({.subject = "CN=Leaf",
                             .issuer = &ca,
                             .rawExtensions = {points(content)},
                             .badSignature = true});
  EXPECT_TRUE(
      inBounds({leaf}, {der(static_cast<X509_CRL*>(crl))}, {X509_V_ERR_CERT_SIGNATURE_FAILURE}));
}

TEST_F(ChainCost, HundredThousandPlacesThatLeadNowhere) {
  const Issued fake = forgedCA("O=Test,CN=Fake");
  std::string content;
  std::string responders;
  for (int i = 0; i < 40000; ++i) {
    content += uriPoint("x:y");
    responders += sequence("\x06\x08\x2b\x06\x01\x05\x05\x07\x30\x01"s + element(0x86, "x:y"));
  }
  const Issued leaf = issue(
      {.subject = "CN=Leaf",
       .issuer = &fake,
       .rawExtensions = {points(content), {"1.3.6.1.5.5.7.1.1", false, sequence(responders)}}});
  EXPECT_TRUE(inBounds({leaf, fake}, {}, {X509_V_ERR_UNABLE_TO_GET_CRL}));
}

// A CA that is trusted may be careless, or somebody's who means harm.
TEST_F(ChainCost, PlacesThatLeadNowhereOfAGenuineLeaf) {
  std::string content;
  std::string responders;
  for (int i = 0; i < 60000; ++i) {
    const std::string uri = "x:" + std::to_string(i);
    content += uriPoint(uri);
    responders += sequence("\x06\x08\x2b\x06\x01\x05\x05\x07\x30\x01"s + element(0x86, uri));
  }
  const Issued leaf = issue(
      {.subject = "CN=Leaf",
       .issuer = &ca,
       .rawExtensions = {points(content), {"1.3.6.1.5.5.7.1.1", false, sequence(responders)}}});
  EXPECT_TRUE(inBounds({leaf}, {}, {}, true));
}

}  // namespace
}  // namespace Velantrix::Test
