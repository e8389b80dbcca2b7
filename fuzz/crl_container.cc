// CRLs beside each other: the octets describe a certificate, its distribution points and up to six
// CRLs, which are made and signed. The library has to gather, score, hand out and apply them as the
// reference model does, log lines included.
//
// Runs in a private view of the file system, since the machine's CRL directory is looked into. A
// description takes the model's words, so that a finding reads as one of tests/model's does.
#include "Draws.h"
#include "Fuzz.h"
#include "model/Generator.h"
#include "model/Model.h"
#include "model/Realisation.h"

#include <algorithm>
#include <initializer_list>
#include <iostream>

namespace Velantrix::Fuzz::CRLContainerTarget {
namespace {

using namespace Test::Random;
using Test::kAbsent;
using Test::KeyId;

constexpr int kRoot = 0;
constexpr int kOther = 1;
constexpr int kTarget = 2;
constexpr int kFirstSerial = 0x11;

class Reader {
 public:
  Reader(const std::uint8_t* data, std::size_t size) : choices_(data, size) {}

  Description read() {
    addAuthority("root", {"O=Test", "CN=Root"}, kRoot);
    addAuthority("other", {"O=Test", "CN=Other"}, kRoot);
    addTarget();
    pki_.sources.resize(1);
    pki_.sources.front().certificates = {kRoot, kOther};
    Query query{.target = kTarget};
    query.flags = choices_.pick({0x30AC, 0x30AC, 0x30A4, 0x10AC, 0x20AC});
    if (choices_.one(4)) query.day = choices_.pick({-9, 2, 5, 40});
    for (int i = choices_.below(7); i > 0; --i) addCRL();
    pki_.queries.push_back(query);
    return std::move(pki_);
  }

 private:
  void addAuthority(const std::string& label, const Name& subject, int issuer) {
    CertificateDescription made{.label = label, .subject = subject};
    made.key = static_cast<int>(pki_.certificates.size());
    made.issuer = made.key == issuer ? -1 : issuer;
    made.serial = kFirstSerial + made.key;
    made.signer = issuer;
    made.ca = true;
    made.keyUsage = KU_KEY_CERT_SIGN | KU_CRL_SIGN;
    pki_.certificates.push_back(made);
  }

  void addTarget() {
    CertificateDescription made{.label = "target", .subject = {"O=Test", "CN=Target"}};
    made.key = kTarget;
    made.issuer = kRoot;
    made.serial = kFirstSerial + kTarget;
    made.signer = kRoot;
    made.ca = choices_.one(3);
    made.keyUsage = made.ca ? KU_KEY_CERT_SIGN | KU_CRL_SIGN : KU_DIGITAL_SIGNATURE;
    for (int i = choices_.pick({0, 0, 0, 1, 2, 3}); i > 0; --i) {
      PointDescription point;
      point.name = pointName();
      if (choices_.one(3)) point.reasons = reasons();
      // Neither is not allowed (RFC 5280, 4.2.1.13), and OpenSSL refuses the certificate.
      if (point.name.absent() || choices_.one(4)) point.crlIssuers = issuers();
      made.points.push_back(point);
    }
    pki_.certificates.push_back(made);
  }

  void addCRL() {
    const int index = static_cast<int>(pki_.crls.size());
    CRLDescription made{.label = "crl " + std::to_string(index)};
    made.issuer = choices_.one(5) ? kOther : kRoot;
    made.signer = choices_.one(16) ? kTarget : made.issuer;
    made.brokenSignature = choices_.one(16);
    made.authorityKeyId = choices_.pick({KeyId::Right, KeyId::Right, KeyId::Right, KeyId::Absent,
                                         KeyId::Right, KeyId::Right, KeyId::Right, KeyId::Wrong});
    made.number = 2 + choices_.below(4);
    if (choices_.one(8)) made.number.reset();
    if (choices_.one(2)) made.base = 1 + choices_.below(4);
    made.from = choices_.pick({-10, -9, -8, -7, -10, -9, -8, 3});
    made.until = choices_.pick({30, 30, 30, 30, 4, 30, 30, -1});
    if (choices_.one(8)) made.until.reset();
    if (choices_.one(4)) made.scope = scope();
    made.unknownCritical = choices_.one(16);
    for (int i = choices_.below(4); i > 0; --i) addEntry(made);
    pki_.crls.push_back(made);
    pki_.sources.front().crls.push_back({crlName(), index});
    if (choices_.one(4)) pki_.sources.front().crls.push_back({crlName(), index});
  }

  void addEntry(CRLDescription& crl) {
    EntryDescription made;
    made.serial = choices_.pick(
        {kFirstSerial + kTarget, kFirstSerial + kTarget, kFirstSerial + kOther, 0x70});
    made.reason = choices_.pick({kAbsent, 1, 8, 0, 8, 6, 10});
    if (choices_.one(8)) made.certificateIssuer = name();
    made.unknownCritical = choices_.one(16);
    // Which one of two entries for one number counts is OpenSSL's choice.
    const bool there =
        std::any_of(crl.entries.begin(), crl.entries.end(),
                    [&](const EntryDescription& one) { return one.serial == made.serial; });
    if (!there) crl.entries.push_back(made);
  }

  ScopeDescription scope() {
    ScopeDescription made;
    made.name = pointName();
    const int only = choices_.below(8);
    made.onlyUser = only == 1;
    made.onlyCA = only == 2;
    made.onlyAttributes = only == 3;
    made.indirect = choices_.one(4);
    if (choices_.one(3)) made.reasons = reasons();
    return made;
  }

  // In halves and more, so that together they may be all.
  unsigned reasons() {
    return choices_.pick({0x8067U, 0x18U, 0x807dU, 0x02U, 0x7fU, 0x8000U, 0x807fU});
  }

  PointName pointName() {
    PointName made;
    switch (choices_.below(4)) {
      case 0:
        break;
      case 1:
        made.relative = choices_.pick({"CN=List", "CN=Part+OU=List", "CN=LIST"});
        break;
      default:
        for (int i = 1 + choices_.below(2); i > 0; --i) made.full.push_back(general());
        break;
    }
    return made;
  }

  std::vector<General> issuers() {
    std::vector<General> made;
    for (int i = 1 + choices_.below(2); i > 0; --i) made.push_back(general());
    return made;
  }

  General general() {
    if (choices_.one(6)) return {.other = choices_.pick({"DNS:a.test", "DNS:b.test"})};
    return {.directory = name()};
  }

  Name name() {
    return choices_.pick<Name>({{"O=Test", "CN=Root"},
                                {"O=Test", "CN=Other"},
                                {"O=Test", "CN=Root", "CN=List"},
                                {"O=test", "CN=ROOT"},
                                {"O=Test", "CN=Other", "CN=List"},
                                {"O=Test", "CN=Root", "CN=Part+OU=List"},
                                {"O=Test", "CN=Target"}});
  }

  // Where it is filed: mostly where it is looked for.
  Name crlName() { return choices_.one(4) ? name() : Name{"O=Test", "CN=Root"}; }

  Draws choices_;
  Description pki_;
};

bool agree(const Description& pki) {
  Model model(pki);
  Realisation real(pki);
  bool same = true;
  for (const Query& query : pki.queries) {
    const Outcome expected = model.verify(query);
    const Outcome actual = real.verify(query);
    if (expected == actual) continue;
    same = false;
    std::cerr << "model: " << expected.code << " at " << expected.depth
              << "; library: " << actual.code << " at " << actual.depth << "\n";
    for (const std::string& line : expected.log) std::cerr << "model: " << line << "\n";
    for (const std::string& line : actual.log) std::cerr << "library: " << line << "\n";
  }
  if (same && !(model.handOuts(kTarget) == real.handOuts(kTarget))) {
    same = false;
    std::cerr << "what is handed out differs\n";
  }
  if (same) return true;
  std::cerr << pki;
  for (const std::string& line : model.trace()) std::cerr << "  " << line << "\n";
  return false;
}

}  // namespace

PKX509_FUZZ_TARGET(crl_container) {
  begin();
  const auto pki = Reader(data, size).read();
  PKX509_ASSERT(agree(pki));
  return 0;
}

}  // namespace Velantrix::Fuzz::CRLContainerTarget
