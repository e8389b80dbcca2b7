#include "verify/VerifierSources.h"

#include "crl/CRLCache.h"
#include "crl/RetrievedCRLs.h"
#include "crl/Retriever.h"
#include "foundation/base/Shortfall.h"
#include "foundation/model/CRLParts.h"
#include "foundation/net/NetworkBudget.h"
#include "foundation/net/http/HTTPAccess.h"
#include "foundation/net/ldap/LDAPURI.h"
#include "foundation/run/FetchRecord.h"
#include "foundation/run/VerificationRun.h"
#include "ocsp/OCSPExchange.h"
#include "store/AskMethod.h"
#include "store/LookupMemory.h"
#include "store/TolerantReading.h"

#include <pkx509/FixedPaths.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/LDAPLookup.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>

#include <algorithm>
#include <exception>
#include <functional>
#include <list>
#include <new>
#include <set>
#include <string_view>
#include <utility>

namespace Velantrix::Crypto::PKX509 {

using Revocation::Offered;
using Revocation::Offers;
using Revocation::Provenance;

namespace {

using Source = SourceRecord::Source;

// The answer of one source, which is kept as long as the verification lasts.
template <class Handle>
using Known = std::shared_ptr<const Offers<Handle>>;

// An order in which those that are equal octet for octet are equal.
struct ByOctets {
  bool operator()(const RefCertificate& a, const RefCertificate& b) const {
    return X509_cmp(a, b) < 0;
  }
  bool operator()(const RefCertificateRevocationList& a,
                  const RefCertificateRevocationList& b) const {
    return isOrderedBefore(*a.get(), *b.get());
  }
};

const DistinguishedName& keyOf(const DistinguishedName& name) noexcept { return name; }
// By the whole text: URIs with one normal form need not make one request.
const std::string& keyOf(const Uri& uri) noexcept { return uri.asString(); }

bool isCalled(const RefCertificate& certificate, const DistinguishedName& name) {
  return certificate->subject() == name;
}
// A directory entry holds lists of other issuers as well; their scope tells whom they speak about.
bool isCalled(const RefCertificateRevocationList& /*crl*/, const DistinguishedName& /*name*/) {
  return true;
}

// A look-up of CRLs is counted, one of certificates only bounded in time.
bool admits(const Offers<RefCertificate>& /*offers*/) { return VerificationRun::admitStep(); }
bool admits(const Offers<RefCertificateRevocationList>& /*offers*/) {
  return VerificationRun::admitLookup();
}

// What was read in one go, and whether there may be more. `read` appends to the list it is given.
template <class Handle, class Read>
void readInto(Offers<Handle>& offers, const Provenance& from, const TolerantReading& reading,
              const Read& read) {
  std::list<Handle> found;
  try {
    read(found);
  } catch (const std::bad_alloc&) {
    Shortfall::note();
    offers.cut = true;
  }
  const Time now = Time::now();
  for (const Handle& one : found) {
    if (one) offers.found.push_back({one, from, now});
  }
  offers.cut = offers.cut || reading.cut();
}

bool isCalled(const RefCertificateRevocationList& /*crl*/, const Uri& /*uri*/) { return true; }

// Gathers what sources have under one name or, of LDAP, under one URI.
template <class Handle, class Name = DistinguishedName>
class Gathering {
 public:
  explicit Gathering(const Name& name) : name_(name) {}

  void ask(const std::string& directory, Provenance::Kind kind) {
    if (directory.empty()) return;
    const Asked asked{Source::Kind::kDirectory, directory};
    ask(directory, {kind, directory}, asked, directory, [&](std::list<Handle>& found) {
      HashDirLookupMethod(directory).getBySubject(name_, found);
    });
  }
  void ask(LookupMethod& method) {
    ask(method, [&](std::list<Handle>& found) { PKX509::ask(method, name_, found); });
  }
  void askDirectory(LDAPLookupMethod& method) {
    ask(method, [&](std::list<Handle>& found) { method.getByURI(name_, found); });
  }
  void add(const Offered<Handle>& one) {
    if (isCalled(one.object, name_) && seen_.insert(one.object).second) {
      all_.found.push_back(one);
    }
  }
  void cut() { all_.cut = true; }
  template <class Test>
  bool hasAny(const Test& test) const {
    return std::any_of(all_.found.begin(), all_.found.end(),
                       [&](const Offered<Handle>& one) { return test(one.object); });
  }
  Offers<Handle> take() { return std::move(all_); }

 private:
  struct Asked {
    Source::Kind kind;
    std::string_view origin;
  };

  template <class Query>
  void ask(LookupMethod& method, const Query& query) {
    const std::string& title = method.methodName();
    const Asked asked{Source::Kind::kLookupMethod, title};
    ask(&method, {Provenance::Kind::kLookupMethod, title}, asked,
        "what lookup method " + title + " has", query);
  }
  template <class Query>
  void ask(const LookupSource& source, const Provenance& from, const Asked& asked,
           const std::string& what, const Query& query) {
    if (!admits(all_)) {
      tellRefusal(asked.kind, wantedOf(static_cast<std::list<Handle>*>(nullptr)), asked.origin);
      return cut();
    }
    std::list<Known<Handle>> answer;
    // Not shared with who reads as ever: what has expired is not in there.
    askOnce(source, keyOf(name_), answer, [&](std::list<Known<Handle>>& known) {
      const auto offers = std::make_shared<Offers<Handle>>();
      const TolerantReading reading;
      readInto(*offers, from, reading,
               [&](std::list<Handle>& found) { readOneOf(what, [&] { query(found); }); });
      known.push_back(offers);
      return !reading.unsettled();
    });
    all_.cut = all_.cut || answer.front()->cut;
    for (const Offered<Handle>& one : answer.front()->found) add(one);
  }

  const Name& name_;
  Offers<Handle> all_;
  std::set<Handle, ByOctets> seen_;
};

// Those of a message with the subject. The others are not even made handles of.
void addMessage(STACK_OF(X509) * untrusted, const DistinguishedName& subject,
                Gathering<RefCertificate>& all) {
  const TolerantReading reading;
  Offers<RefCertificate> offers;
  readInto(offers, {Provenance::Kind::kMessage}, reading, [&](std::list<RefCertificate>& found) {
    for (int i = 0; i < sk_X509_num(untrusted); ++i) {
      X509* const x509 = sk_X509_value(untrusted, i);
      if (X509_NAME_cmp(X509_get_subject_name(x509), subject.native()) != 0) continue;
      readOneOf("a certificate that came along",
                [&] { found.push_back(CertificateFactory()(x509, false)); });
    }
  });
  if (offers.cut) all.cut();
  for (const Offered<RefCertificate>& one : offers.found) all.add(one);
}

void add(Offers<RefCertificateRevocationList>& offers,
         const std::list<RefCertificateRevocationList>& crls, Provenance::Kind kind,
         const std::string& place, const Time& fetched) {
  for (const RefCertificateRevocationList& crl : crls) {
    offers.found.push_back({crl, {kind, place}, fetched});
  }
}

// A complete list of that issuer, issued and not run out by now.
bool isCurrent(const CertificateRevocationList& crl, const DistinguishedName& issuer) {
  const Time now = Time::now();
  const ASN1::RefGeneralizedTime nextUpdate = crl.nextUpdate();
  return !crl.isDeltaCRL() && crl.crlInfo().issuer() == issuer && !nextUpdate.empty() &&
         now < nextUpdate->asTime() && !(now < crl.lastUpdate()->asTime());
}

Offers<RefCertificateRevocationList> offersOf(const Uri& uri, const RetrievedCRLs& answer) {
  const std::string place = FetchRecord::placeOf(uri);
  Offers<RefCertificateRevocationList> offers;
  add(offers, answer.cached, Provenance::Kind::kCache, place, answer.cachedAt);
  add(offers, answer.fetched, Provenance::Kind::kNetwork, place, Time::now());
  offers.cut = answer.cut;
  return offers;
}

std::optional<Retriever::OCSPAnswer> plainAnswer(const Uri& responder, const std::string& request) {
  std::optional<std::string> body = OCSP::askResponder(responder, request).body;
  if (!body) return std::nullopt;
  return Retriever::OCSPAnswer{.body = *std::move(body), .fetched = Time::now()};
}

RetrievedCRLs retrieved(const Uri& uri) {
  Retriever* const retriever = Retriever::current();
  return retriever == nullptr ? retrieveCRLs(uri) : retriever->crls(uri);
}

}  // namespace

Offers<RefCertificate> VerifierSources::certificates(const DistinguishedName& subject) {
  Gathering<RefCertificate> all(subject);
  all.ask(store_->directory(), Provenance::Kind::kTrustDirectory);
  for (const RefLookupMethod& method : store_->methods()) all.ask(*method);
  for (const RefObject& object : store_->objects()) {
    if (!object || object->type != Object::TypeCertificate || !object->certificate) continue;
    all.add({object->certificate, {Provenance::Kind::kStore}, Time::now()});
  }
  addMessage(untrusted_, subject, all);
  return all.take();
}

Offers<RefCertificateRevocationList> VerifierSources::crls(const DistinguishedName& name) {
  Gathering<RefCertificateRevocationList> all(name);
  all.ask(kCRLDirectory, Provenance::Kind::kCRLDirectory);
  for (const RefLookupMethod& method : store_->methods()) all.ask(*method);
  // CRLs that lie beside the trust anchors are read where the places for CRLs have none that is current.
  if (!all.hasAny(
          [&](const RefCertificateRevocationList& crl) { return isCurrent(*crl.get(), name); })) {
    all.ask(store_->directory(), Provenance::Kind::kTrustDirectory);
  }
  return all.take();
}

// What the configured directories have under a URI that leaves it to the client whom to ask.
Offers<RefCertificateRevocationList> VerifierSources::crlsOfDirectories(const Uri& uri) {
  Gathering<RefCertificateRevocationList, Uri> all(uri);
  for (LDAPLookupMethod* const method : directories()) all.askDirectory(*method);
  return all.take();
}

std::vector<LDAPLookupMethod*> VerifierSources::directories() const {
  std::vector<LDAPLookupMethod*> directories;
  for (const RefLookupMethod& method : store_->methods()) {
    auto* const directory = dynamic_cast<LDAPLookupMethod*>(method.get());
    if (directory != nullptr) directories.push_back(directory);
  }
  return directories;
}

Offers<RefCertificateRevocationList> VerifierSources::crls(const Uri& uri) {
  if (uri.isNull()) return {};
  if (LDAPURI::withoutHost(uri) && !directories().empty()) return crlsOfDirectories(uri);
  Offers<RefCertificateRevocationList> cut;
  cut.cut = true;
  if (!VerificationRun::admitLookup()) {
    tellRefusal(Source::Kind::kCRLServer, Source::Wanted::kCRLs, FetchRecord::placeOf(uri));
    return cut;
  }
  std::list<Known<RefCertificateRevocationList>> answer;
  askOnce("URI", keyOf(uri), answer, [&](auto& known) {
    known.push_back(std::make_shared<const Offers<RefCertificateRevocationList>>(
        offersOf(uri, retrieved(uri))));
    return !known.front()->cut;
  });
  return *answer.front();
}

void VerifierSources::isForged(const Uri& uri, const RefCertificateRevocationList& crl) {
  if (uri.isNull()) return;
  try {
    CRLCache(kCRLCacheDirectory).remove(uri, crl);
  } catch (const std::exception&) {
    // It stays until it runs out.
  }
}

void VerifierSources::isGenuine(const Uri& uri, const RefCertificateRevocationList& crl,
                                const Revocation::Path& path) {
  if (Retriever* const retriever = Retriever::current()) retriever->verified(uri, crl, path);
}

Offers<RefCertificateRevocationList> VerifierSources::crlsOfHost(const Uri& uri) {
  Retriever* const retriever = Retriever::current();
  if (retriever == nullptr || uri.isNull()) return {};
  return offersOf(uri, retriever->crlsOfHost(uri));
}

std::shared_ptr<void> VerifierSources::shareForResponders() {
  return std::make_shared<NetworkBudget::HalfOfTime>();
}

bool VerifierSources::wantsNonce() const {
  const Retriever* const retriever = Retriever::current();
  return retriever == nullptr || retriever->wantsNonce();
}

Offers<std::string> VerifierSources::ocsp(const Uri& responder, const std::string& request) {
  Offers<std::string> offers;
  if (responder.isNull()) return offers;
  Retriever* const retriever = Retriever::current();
  const std::optional<Retriever::OCSPAnswer> answer =
      retriever == nullptr ? plainAnswer(responder, request) : retriever->ocsp(responder, request);
  offers.cut = !answer && LW::HTTP::isHandled(responder);
  if (answer) {
    const auto kind = answer->kept ? Provenance::Kind::kCache : Provenance::Kind::kNetwork;
    offers.found.push_back(
        {answer->body, {kind, FetchRecord::placeOf(responder)}, answer->fetched});
  }
  return offers;
}

void VerifierSources::isOfUse(const Uri& responder, const std::string& request,
                              const Offered<std::string>& answer, const Time& nextUpdate) {
  Retriever* const retriever = Retriever::current();
  if (retriever == nullptr) return;
  retriever->isOfUse(responder, request,
                     {.body = answer.object,
                      .fetched = answer.fetched,
                      .kept = answer.from.kind == Provenance::Kind::kCache},
                     nextUpdate);
}

void VerifierSources::isOfNoUse(const Uri& responder, const std::string& request) {
  if (Retriever* const retriever = Retriever::current()) retriever->isOfNoUse(responder, request);
}

}  // namespace Velantrix::Crypto::PKX509
