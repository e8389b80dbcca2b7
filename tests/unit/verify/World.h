// A small world to verify in: a store, one source that serves certificates and CRLs from memory,
// and verifiers and containers that let tests see what is inside.
//
//   World world;
//   const Issued root = issueCA("CN=Root");
//   world.trust(root);
//   const RefCertificateRevocationList crl = world.publish({.issuer = &root});
//   Probe verifier(world.store, handle(leaf), false);
#pragma once

#include "support/Handles.h"
#include "support/Pki.h"

#include <pkx509/CRLContainer.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/Verifier.h>
#include <velantrix/CertificateRevocationList.h>
#include <velantrix/Exception.h>

#include <functional>
#include <list>
#include <stdexcept>
#include <string>

namespace Velantrix::Test {

namespace ASN1 = Velantrix::Crypto::ASN1;
using namespace Velantrix::Crypto::PKX509;

// The builders' names that the library has as well.
using Point = Velantrix::Test::DistributionPoint;
using Scope = Velantrix::Test::IssuingDistributionPoint;

inline RefStackOfCertificate stackOf(const std::list<Issued>& certificates) {
  std::list<RefCertificate> handles;
  for (const Issued& issued : certificates) handles.push_back(handle(issued));
  return RefStackOfCertificate(handles);
}

/// The same certificate, signed by its issuer with another digest.
inline Issued signedWith(const EVP_MD* digest, const Issued& issued, const Issued& issuer) {
  const Owned<X509> copy(X509_dup(issued.get()));
  if (X509_sign(copy.get(), issuer.key.get(), digest) <= 0) throw std::runtime_error("X509_sign");
  return Issued{certFromDer(der(copy.get())), issued.key};
}

/// What the library asks a source for.
enum class Query { Object, Certificates, CRLs };

/// Serves what was put into it.
class MemorySource : public LookupMethod {
 public:
  MemorySource() : LookupMethod("memory") {}

  using LookupMethod::getBySubject;
  RefObject getBySubject(Object::Type type, const DistinguishedName& wanted) override {
    asked(Query::Object, wanted);
    if (type != Object::TypeCertificate) return RefObject();
    for (const RefCertificate& certificate : certificates) {
      if (certificate->subject() == wanted) return RefObject(certificate);
    }
    return RefObject();
  }
  void getBySubject(const DistinguishedName& wanted, std::list<RefCertificate>& out) override {
    asked(Query::Certificates, wanted);
    for (const RefCertificate& certificate : certificates) {
      if (certificate->subject() == wanted) out.push_back(certificate);
    }
  }
  void getBySubject(const DistinguishedName& wanted,
                    std::list<RefCertificateRevocationList>& out) override {
    asked(Query::CRLs, wanted);
    for (const RefCertificateRevocationList& crl : crls) {
      if (anyName || crl->crlInfo().issuer() == wanted) out.push_back(crl);
    }
  }

  std::list<RefCertificate> certificates;
  std::list<RefCertificateRevocationList> crls;
  bool anyName = false;  ///< answers with all CRLs, whoever issued them
  std::function<void(Query, const DistinguishedName&)> onQuery;
  int objectQueries = 0;
  int certificateQueries = 0;
  int crlQueries = 0;

 private:
  void asked(Query query, const DistinguishedName& wanted) {
    ++(query == Query::Object         ? objectQueries
       : query == Query::Certificates ? certificateQueries
                                      : crlQueries);
    if (onQuery) onQuery(query, wanted);
  }
};

/// A store over no directory and with one source.
struct World {
  World() : store("/nonexistent/pkx509-test", X509_FILETYPE_PEM), source(new MemorySource) {
    store->add(RefLookupMethod(source));
  }

  /// The source serves it, to OpenSSL too: a self-signed one is a trust anchor.
  void trust(const Issued& issued) { source->certificates.push_back(handle(issued)); }
  RefCertificateRevocationList publish(const CRLOptions& options) {
    source->crls.push_back(crlHandle(options));
    return source->crls.back();
  }

  RefObjectStore store;
  MemorySource* source;  ///< owned by the store
};

/// A container whose fields can be looked at.
class OpenContainer : public CRLContainer {
 public:
  using CRLContainer::ChainComplete;
  using CRLContainer::ChainIncomplete;
  using CRLContainer::chainState;
  using CRLContainer::ChainUnknown;
  using CRLContainer::collectedReasons;
  using CRLContainer::CRLContainer;
  using CRLContainer::entries;
  using CRLContainer::hasDeltaCRL;
};

/// A verifier whose operations can be replaced.
class Probe : public Verifier {
 public:
  using Verifier::certificate;
  using Verifier::config;
  using Verifier::crls;
  using Verifier::error;
  using Verifier::lastCertificate;
  using Verifier::untrusted;
  using Verifier::Verifier;

  RefCertificateRevocationList getCRL(const RefCertificate& target) override {
    ++getCRLCalls;
    return onGetCRL ? onGetCRL(target) : Verifier::getCRL(target);
  }
  void getCRLs(const RefCertificate& target, CRLContainer& container) override {
    ++getCRLsCalls;
    if (onGetCRLs) {
      onGetCRLs(target, container);
    } else {
      Verifier::getCRLs(target, container);
    }
  }
  int checkRevocationStatus(const std::list<RefCertificate>& chain) override {
    ++checkCalls;
    checked = chain;
    return onCheck ? onCheck(chain) : Verifier::checkRevocationStatus(chain);
  }

  std::function<RefCertificateRevocationList(const RefCertificate&)> onGetCRL;
  std::function<void(const RefCertificate&, CRLContainer&)> onGetCRLs;
  std::function<int(const std::list<RefCertificate>&)> onCheck;
  std::list<RefCertificate> checked;
  int getCRLCalls = 0;
  int getCRLsCalls = 0;
  int checkCalls = 0;
};

/// A candidate as the verifier builds them.
inline CRLContainer::Entry makeEntry(const RefCertificate& certificate,
                                     const RefCertificateRevocationList& crl,
                                     const RefCertificate& issuer,
                                     unsigned int reasons = kAllReasons) {
  CRLContainer::Entry entry(certificate, crl, reasons);
  entry.issuer = issuer;
  return entry;
}

/// "Certificate, ( subject / issuer serialNumber: serial) is not valid, text".
inline std::string failureLine(const Issued& issued, int code) {
  const RefCertificate certificate = handle(issued);
  return "Certificate, ( " + certificate->subject().asString() + " / " +
         certificate->issuer().asString() +
         " serialNumber: " + certificate->serialNumber().asString() + ") is not valid, " +
         X509_verify_cert_error_string(code);
}

}  // namespace Velantrix::Test
