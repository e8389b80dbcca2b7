// What the OCSP tests have in common: a root, a person below it, and responders that answer as a
// test describes it.
#pragma once

#include "support/FaultScripts.h"
#include "support/FaultServer.h"
#include "support/LogCapture.h"
#include "support/OCSPBuilder.h"
#include "support/PrivateView.h"
#include "unit/verify/World.h"

#include <pkx509/OCSP.h>
#include <velantrix/Uri.h>

#include <gtest/gtest.h>
#include <sstream>

namespace Velantrix::Test {

/// Answers every request in the way described. What the description borrows lives as long as the
/// server.
inline Script answering(const OCSPAnswer& description) {
  return Scripts::answerWith([description](const std::string& request) {
    return ocspAnswer(description, httpBody(request));
  });
}

/// A client and what it borrows.
struct Asking {
  Asking(const World& world, const std::list<Issued>& path)
      : chain(handles(path)),
        verifier(world.store, chain.front(), false),
        client(verifier, chain) {}

  /// -1 when no connection was made.
  int ask(const std::string& url) {
    return client.connect(Uri(url)) ? client.isRevoked(chain.front()) : -1;
  }

  static std::list<RefCertificate> handles(const std::list<Issued>& path) {
    std::list<RefCertificate> all;
    for (const Issued& issued : path) all.push_back(handle(issued));
    return all;
  }

  std::list<RefCertificate> chain;
  Verifier verifier;
  OCSP::Client client;
};

class OCSPIntegration : public testing::Test {
 protected:
  OCSPIntegration() {
    clearPrivateView();
    world.trust(root);
  }

  /// A certificate that names responders, each as in "OCSP;URI:...", by their URLs.
  static Issued naming(const std::vector<std::string>& urls, const CertificateOptions& changed) {
    std::string locations;
    for (const std::string& url : urls) {
      locations += (locations.empty() ? "OCSP;URI:" : ",OCSP;URI:") + url;
    }
    CertificateOptions options = changed;
    options.extensions.push_back({"authorityInfoAccess", locations});
    return issue(options);
  }
  Issued person(const std::vector<std::string>& urls) const {
    return naming(urls, {.subject = "O=Test,CN=Person", .issuer = &root});
  }
  int verdict(const Issued& issued) {
    return Verifier(world.store, handle(issued), false).isValid();
  }
  int verdict(const Issued& issued, int flags) {
    Verifier::Config config;
    config.flags = flags;
    return Verifier(world.store, handle(issued), RefStackOfCertificate(), config, false).isValid();
  }

  /// How log lines name a certificate.
  static std::string address(const Issued& issued) {
    std::ostringstream text;
    text << static_cast<const void*>(issued.get());
    return text.str();
  }
  static std::string noDataLine(const Issued& issued) {
    return "6 Certificate " + address(issued) + " : No data from OCSP server.\n";
  }
  static std::string invalidLine(const Issued& issued) {
    return "6 Certificate " + address(issued) + " : Invalid response from OCSP server.\n";
  }
  static std::string unreachableLine(const std::string& url) {
    return "6 OCSP::Client: Could not connect to uri: " + url + "\n";
  }
  static std::string verdictLine(const Issued& issued, int code) {
    return "7 " + failureLine(issued, code) + "\n";
  }

  /// What is logged in the place of the two lines that were given without their text.
  static constexpr char kMisplaced[] = "0 \n";
  static constexpr int kRevoked = X509_V_ERR_CERT_REVOKED;
  static constexpr int kNoCRL = X509_V_ERR_UNABLE_TO_GET_CRL;

  const Issued root = issueCA("O=Test,CN=Root");
  World world;
  LogCapture log;
};

}  // namespace Velantrix::Test
