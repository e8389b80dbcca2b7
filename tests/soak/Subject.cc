#include "soak/Subject.h"

#include "support/Handles.h"
#include "support/PrivateView.h"

#include <pkx509/LDAPLookup.h>
#include <pkx509/Verifier.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>
#include <velantrix/StackOfCertificate.h>

#include <openssl/x509v3.h>

#include <exception>
#include <list>
#include <stdexcept>
#include <thread>

namespace Velantrix::Test::Soak {

using namespace Crypto::PKX509;

namespace {

RefCertificate handleOf(const Issued& issued, bool decoded) {
  if (!decoded) return handle(issued);
  const std::string text = der(issued.get());
  std::list<RefCertificate> read;
  CertificateFactory::read(Buffer(text.data(), static_cast<unsigned int>(text.size()), true), read);
  if (read.size() != 1) throw std::runtime_error("a certificate cannot be read back");
  return read.front();
}

void attach(RefObjectStore& store, const LDAPConnection::RefServer& server) {
  store->add(RefLookupMethod(new LDAPLookupMethod({server, "", ""})));
}

}  // namespace

Subject::Subject(const Authorities& authorities, const std::vector<Plan>& plans, const Ports& ports)
    : directory_("ldap://127.0.0.1:" + std::to_string(ports.directory)) {
  addToDirectory(rootOnly_.path(), authorities.root.get());
  for (const Issued* issued :
       {&authorities.root, &authorities.middle, &authorities.lower, &authorities.revoked}) {
    addToDirectory(kCADirectory, issued->get());
  }
  for (const Level level : {Level::Root, Level::Middle, Level::Lower}) {
    addToDirectory(kCRLDirectory, crlOf(level, authorities, plans).get());
  }
  addToDirectory(kCRLDirectory, makeCRL({.issuer = &authorities.revoked}).get());
  for (const bool withDirectory : {false, true}) {
    for (const std::string& trusted : {std::string(kCADirectory), rootOnly_.string()}) {
      prepared_.emplace_back(trusted, X509_FILETYPE_PEM);
      if (withDirectory) attach(prepared_.back(), directory_);
    }
  }
  simpleWithDirectory_.add(RefLookupMethod(new LDAPLookupMethod({directory_, "", ""})));
}

std::vector<int> Subject::verify(const Round& round) {
  if (round.way == Way::Simple) return {verifySimply(round)};
  if (round.way != Way::Threads) return {verifyWith(storeFor(round), round)};
  std::vector<int> verdicts(2);
  std::vector<std::exception_ptr> thrown(verdicts.size());
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < verdicts.size(); ++i) {
    threads.emplace_back([this, &round, &verdict = verdicts[i], &error = thrown[i]] {
      try {
        verdict = verifyWith(storeFor(round), round);
      } catch (...) {
        error = std::current_exception();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::exception_ptr& error : thrown) {
    if (error) std::rethrow_exception(error);
  }
  return verdicts;
}

RefObjectStore Subject::storeFor(const Round& round) {
  RefObjectStore store;
  if (round.way == Way::Clone) {
    store = prepared_.at((round.untrusted ? 1U : 0U) + (round.directory ? 2U : 0U))->clone();
  } else {
    store = RefObjectStore(round.untrusted ? rootOnly_.string() : std::string(kCADirectory),
                           X509_FILETYPE_PEM);
    if (round.directory) attach(store, directory_);
  }
  // So that what OpenSSL is given by the directory is kept.
  for (const RefLookupMethod& method : store->methods()) method->store(store);
  return store;
}

int Subject::verifyWith(RefObjectStore store, const Round& round) const {
  try {
    const RefCertificate leaf = handleOf(round.target->leaf, round.decoded);
    std::list<RefCertificate> between;
    if (round.untrusted) {
      for (const Issued& issued : round.target->between) {
        between.push_back(handleOf(issued, round.decoded));
      }
      store->add(between);
    }
    Verifier::Config config;
    config.flags = round.flags;
    Verifier verifier(store, leaf,
                      between.empty() ? RefStackOfCertificate() : RefStackOfCertificate(between),
                      config, round.openSSLRevocation);
    verifier.maxNetworkTime(kNetworkTime.count());
    if (round.demand == Demand::RightAddress || round.demand == Demand::WrongAddress) {
      const std::string& address =
          round.demand == Demand::RightAddress ? round.target->address : "somebody@else.test";
      if (X509_VERIFY_PARAM_set1_email(X509_STORE_CTX_get0_param(verifier), address.c_str(), 0) !=
          1) {
        throw std::runtime_error("X509_VERIFY_PARAM_set1_email");
      }
    }
    return verifier.isValid();
  } catch (const Exception&) {
    return kNoVerdict;
  }
}

int Subject::verifySimply(const Round& round) {
  SimpleVerifier& verifier = round.directory ? simpleWithDirectory_ : simple_;
  const int use = round.demand == Demand::RightUse   ? KU_DIGITAL_SIGNATURE | KU_CRL_SIGN
                  : round.demand == Demand::WrongUse ? KU_CRL_SIGN
                                                     : 0;
  return verifier.isValid(handleOf(round.target->leaf, round.decoded), use, use != 0);
}

}  // namespace Velantrix::Test::Soak
