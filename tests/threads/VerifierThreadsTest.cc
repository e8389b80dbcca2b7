// Verifications on several threads, each with its own store: certificates, CRLs, directories, the
// cache and the servers are what they share.
#include "support/FaultScripts.h"
#include "support/FaultServer.h"
#include "support/LogCapture.h"
#include "support/PrivateView.h"
#include "threads/Threads.h"
#include "unit/verify/World.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/SimpleVerifier.h>
#include <pkx509/URILookup.h>
#include <velantrix/CertificateVerifier.h>

#include <barrier>
#include <filesystem>
#include <gtest/gtest.h>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace Velantrix::Test {
namespace {

class VerifierThreads : public testing::Test {
 protected:
  VerifierThreads() { clearPrivateView(); }

  const Issued root = issueCA("O=Test,CN=Root");
  const Issued inter = issueCA("O=Test,CN=Inter", &root);
  const Issued good = issue({.subject = "O=Test,CN=Good", .issuer = &inter});
  const Issued bad = issue({.subject = "O=Test,CN=Bad", .issuer = &inter, .serial = 77});
  const RefCertificate goodHandle = handle(good);
  const RefCertificate badHandle = handle(bad);
  LogCapture log;

  /// Returns the file of the CRL that revokes one of the two.
  std::filesystem::path fillDirectories() const {
    addToDirectory(kCADirectory, root.get());
    addToDirectory(kCADirectory, inter.get());
    addToDirectory(kCRLDirectory, makeCRL({.issuer = &root}).get());
    return addToDirectory(kCRLDirectory,
                          makeCRL({.issuer = &inter, .revoked = {{.serial = 77}}}).get());
  }
};

TEST_F(VerifierThreads, StoresOfTheirOwn_SharedObjects) {
  const RefCertificate rootHandle = handle(root);
  const RefCertificate interHandle = handle(inter);
  const RefCertificateRevocationList rootCRL = crlHandle({.issuer = &root});
  const RefCertificateRevocationList interCRL =
      crlHandle({.issuer = &inter, .revoked = {{.serial = 77}}});
  for (const bool openssl : {false, true}) {
    onThreads(kThreads, [&](int) {
      World world;
      world.source->certificates = {rootHandle, interHandle};
      world.source->crls = {rootCRL, interCRL};
      for (int i = 0; i < 10; ++i) {
        Verifier one(world.store, goodHandle, openssl);
        EXPECT_EQ(one.isValid(), X509_V_OK);
        Verifier other(world.store, badHandle, openssl);
        EXPECT_EQ(other.isValid(), X509_V_ERR_CERT_REVOKED);
      }
    });
  }
}

TEST_F(VerifierThreads, OneSimpleVerifier_WithoutLookupMethods) {
  fillDirectories();
  SimpleVerifier verifier;
  onThreads(kThreads, [&](int) {
    for (int i = 0; i < 10; ++i) {
      EXPECT_EQ(verifier.isValid(goodHandle, 0, false), 0);
      EXPECT_EQ(verifier.isValid(badHandle, 0, false), X509_V_ERR_CERT_REVOKED);
    }
  });
}

TEST_F(VerifierThreads, SimpleVerifiersOfTheirOwn_WithLookupMethods) {
  fillDirectories();
  onThreads(kThreads, [&](int) {
    SimpleVerifier verifier;
    verifier.add(RefLookupMethod(new MemorySource));
    for (int i = 0; i < 10; ++i) {
      EXPECT_EQ(verifier.isValid(goodHandle, 0, false), 0);
      EXPECT_EQ(verifier.isValid(badHandle, 0, false), X509_V_ERR_CERT_REVOKED);
    }
  });
}

// Files are replaced whole, so a verification sees the old CRL or the new one.
TEST_F(VerifierThreads, DirectoryIsWrittenMeanwhile) {
  const std::filesystem::path file = fillDirectories();
  SimpleVerifier verifier;
  onThreads(kThreads, [&](int thread) {
    for (int i = 0; i < 10; ++i) {
      if (thread == 0) {
        const Owned<X509_CRL> crl =
            makeCRL({.issuer = &inter, .number = 10 + i, .revoked = {{.serial = 77}}});
        writeFile(file.string() + ".new", pem(crl.get()));
        std::filesystem::rename(file.string() + ".new", file);
      } else {
        EXPECT_EQ(verifier.isValid(goodHandle, 0, false), 0);
        EXPECT_EQ(verifier.isValid(badHandle, 0, false), X509_V_ERR_CERT_REVOKED);
      }
    }
  });
}

TEST_F(VerifierThreads, CRLByURI_OneCacheForAll) {
  const std::string octets = der(makeCRL({.issuer = &inter, .number = 7}).get());
  const FaultServer server(Scripts::answer(octets));
  onThreads(kThreads, [&](int thread) {
    for (int i = 0; i < 5; ++i) {
      const Uri uri(server.url("/" + std::to_string((thread + i) % 3) + ".crl"));
      std::list<RefCertificateRevocationList> crls;
      URILookup().find(uri, crls);
      ASSERT_EQ(crls.size(), 1U);
      EXPECT_EQ(crls.front()->crlNumber().asString(), "07");
    }
  });
}

TEST_F(VerifierThreads, SimpleVerifierInstance_ThreadsThatComeFirstAtOnceGetTheSameOne) {
  constexpr int kRounds = 500;
  std::vector<CertificateVerifier*> got(kThreads);
  std::vector<int> differing;
  std::barrier start(kThreads + 1);
  std::barrier end(kThreads + 1);
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < kRounds; ++round) {
        start.arrive_and_wait();
        got[i] = SimpleVerifier::instance();
        end.arrive_and_wait();
      }
    });
  }
  CertificateVerifier* const before = CertificateVerifier::s_instance;
  CertificateVerifier::s_instance = nullptr;
  for (int round = 0; round < kRounds; ++round) {
    start.arrive_and_wait();
    end.arrive_and_wait();
    const std::set<CertificateVerifier*> different(got.begin(), got.end());
    if (different.size() != 1 || *different.begin() != CertificateVerifier::s_instance) {
      differing.push_back(round);
    }
    for (CertificateVerifier* const one : different) delete one;
    CertificateVerifier::s_instance = nullptr;
  }
  for (std::thread& thread : threads) thread.join();
  CertificateVerifier::s_instance = before;
  EXPECT_EQ(differing, std::vector<int>());
}

}  // namespace
}  // namespace Velantrix::Test
