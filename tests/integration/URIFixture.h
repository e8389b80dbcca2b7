// What tests of CRLs by URI have in common: a CA, what a look-up finds, and the cache directory,
// which is the test's own.
//
//   FaultServer server(Scripts::answer(der(crl(7).get())));
//   EXPECT_EQ(found(server.url("/ca.crl")), Numbers{"7"});
//   EXPECT_TRUE(isCached(server.url("/ca.crl"), crl(7)));
#pragma once

#include "support/FaultScripts.h"
#include "support/FaultServer.h"
#include "support/LogCapture.h"
#include "support/PrivateView.h"
#include "support/Stopwatch.h"
#include "unit/verify/World.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/URILookup.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <list>
#include <map>
#include <string>
#include <vector>

namespace Velantrix::Test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

using CRLs = std::list<RefCertificateRevocationList>;
/// CRL numbers, which tell the CRLs of a test apart.
using Numbers = std::vector<std::string>;

inline Numbers numbersOf(const CRLs& crls) {
  Numbers numbers;
  for (const RefCertificateRevocationList& crl : crls) {
    const std::string number = crl->crlNumber().asString();
    numbers.push_back(number.substr(std::min(number.find_first_not_of('0'), number.size())));
  }
  return numbers;
}

class URIFixture : public testing::Test {
 protected:
  URIFixture() { clearPrivateView(); }

  /// The CRLs that a look-up with an empty list finds.
  static Numbers found(const std::string& uri) {
    CRLs crls;
    URILookup().find(Uri(uri), crls);
    return numbersOf(crls);
  }

  /// Always the same one for a number: a second signature would be another.
  const Owned<X509_CRL>& crl(int number) {
    Owned<X509_CRL>& made = fresh_[number];
    if (made == nullptr) made = makeCRL({.issuer = &ca, .number = number});
    return made;
  }
  /// One that is fetched again each time, with a padding of that many bytes.
  const Owned<X509_CRL>& expiredCRL(int number, std::size_t padding = 0) {
    Owned<X509_CRL>& made = expired_[number];
    if (made == nullptr) {
      made = makeCRL({.issuer = &ca,
                      .lastUpdate = -48h,
                      .nextUpdate = -24h,
                      .number = number,
                      .rawExtensions = {{"1.2.3.4", false, std::string(padding, 'x')}}});
    }
    return made;
  }

  static fs::path cacheFile(const std::string& uri) {
    return fs::path(kCRLCacheDirectory) / HashDirLookupMethod::fileName(Uri(uri));
  }
  /// Does the file for the URI hold this CRL, whole, and is there no other file?
  static testing::AssertionResult isCached(const std::string& uri, const Owned<X509_CRL>& crl) {
    const std::vector<std::string> names = cacheNames();
    if (names != std::vector<std::string>{cacheFile(uri).filename().string()}) {
      return testing::AssertionFailure() << "files: " << testing::PrintToString(names);
    }
    const std::string content = readFile(cacheFile(uri));
    if (content.starts_with("URI: " + Uri(uri).canonicalized() + "\nExpires: ") &&
        content.ends_with("\n" + pem(crl.get()))) {
      return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << content;
  }
  static std::vector<std::string> cacheNames() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(kCRLCacheDirectory)) {
      names.push_back(entry.path().filename().string());
    }
    return names;
  }

  /// The machine's own certificate and key for https.
  static void installClient(const std::string& certificate, const std::string& key) {
    writeFile(kClientCertificateFile, certificate);
    writeFile(kClientKeyFile, key);
  }

  const Issued ca = issueCA("O=Test,CN=Root");
  const Issued tls = issue({.subject = "CN=127.0.0.1", .issuer = &ca});
  const Issued client = issue({.subject = "CN=Appliance", .issuer = &ca});
  LogCapture log;

 private:
  std::map<int, Owned<X509_CRL>> fresh_;
  std::map<int, Owned<X509_CRL>> expired_;
};

}  // namespace Velantrix::Test
