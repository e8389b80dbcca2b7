#include "model/Generator.h"

#include "model/Chance.h"

#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cctype>
#include <utility>

namespace Velantrix::Test::Random {

namespace {

constexpr int kAuthorityUsage = KU_KEY_CERT_SIGN | KU_CRL_SIGN;
// Reasons in two parts, of which each alone is not enough (RFC 5280, 4.2.1.13).
struct Parts {
  unsigned first;
  unsigned second;
};
constexpr Parts kBySupersession{0x8067, 0x18};
constexpr Parts kByCompromise{0x807d, 0x02};
constexpr Parts kByAttributes{0x007f, 0x8000};

class Generator : private Chance {
 public:
  explicit Generator(std::uint64_t seed) : Chance(seed) {}

  Description make() {
    pki_.sources.resize(2);
    makeChain();
    for (std::size_t i = 1; i < path_.size(); ++i) tellRevocation(path_[i]);
    for (int i = one(3) ? below(3) : 0; i > 0; --i) makeCross();
    shuffle(pki_.untrusted);
    if (one(3)) {
      for (int i = below(4); i > 0; --i) makeNoise();
    }
    if (one(40) && path_.size() > 1) makeExtreme();
    for (int i = changes(); i > 0; --i) change();
    makeQueries();
    return std::move(pki_);
  }

 private:
  bool one(int in) { return below(in) == 0; }
  template <class T>
  void shuffle(std::vector<T>& list) {
    for (std::size_t i = list.size(); i > 1; --i) {
      std::swap(list[i - 1], list[static_cast<std::size_t>(below(static_cast<int>(i)))]);
    }
  }
  int changes() { return pick({0, 0, 1, 1, 1, 2, 2, 3, 4}); }
  int noZero(int day) { return day == 0 ? 1 : day; }

  CertificateDescription& cert(int index) {
    return pki_.certificates[static_cast<std::size_t>(index)];
  }
  CRLDescription& crl(int index) { return pki_.crls[static_cast<std::size_t>(index)]; }
  const Name& issuerName(int index) {
    return cert(cert(index).issuer < 0 ? index : cert(index).issuer).subject;
  }
  void note(const std::string& text) { pki_.notes.push_back(text); }

  // The same name in other letters.
  Name respelled(Name name) {
    if (!one(4)) return name;
    std::string& rdn = name.back();
    const std::size_t value = rdn.find('=') + 1;
    for (std::size_t i = value; i < rdn.size(); ++i) {
      if (one(2)) {
        rdn[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(rdn[i])));
      }
    }
    const std::size_t blank = rdn.find(' ', value);
    if (blank != std::string::npos && one(2)) rdn.insert(blank, " ");
    return name;
  }
  General directoryName(const Name& name) { return {.directory = respelled(name)}; }

  int addCertificate(CertificateDescription described) {
    if (described.serial == 0) {
      // Serial numbers are the issuer's own: other issuers use the same ones.
      int& last = serials_[described.issuer < 0 ? 0 : static_cast<std::size_t>(described.issuer)];
      described.serial = 0x11 + last++;
    }
    pki_.certificates.push_back(std::move(described));
    serials_.resize(pki_.certificates.size() + 1);
    return static_cast<int>(pki_.certificates.size()) - 1;
  }
  int newKey() { return nextKey_++ % kKeys; }

  int addAuthority(const std::string& label, const Name& subject, int issuer) {
    CertificateDescription described{.label = label, .subject = subject, .issuer = issuer};
    described.key = newKey();
    described.signer = issuer < 0 ? described.key : cert(issuer).key;
    described.ca = true;
    described.keyUsage = kAuthorityUsage;
    return addCertificate(described);
  }

  int addCRL(const std::string& label, int issuer, int from) {
    CRLDescription described{.label = label, .issuer = issuer, .signer = cert(issuer).key};
    described.number = between(3, 7);
    described.from = from;
    if (one(12)) described.until.reset();
    described.freshestCRL = one(12);
    // Then every certificate of that name may be its issuer.
    if (one(10)) described.authorityKeyId = KeyId::Absent;
    pki_.crls.push_back(described);
    const int index = static_cast<int>(pki_.crls.size()) - 1;
    for (int i = one(3) ? below(3) : 0; i > 0; --i) {
      // Others that are revoked.
      crl(index).entries.push_back({.serial = between(0x70, 0x7f), .reason = reason()});
    }
    return index;
  }
  int reason() { return pick({kAbsent, kAbsent, 0, 1, 1, 2, 3, 4, 5, 6, 8, 9, 10}); }

  SourceDescription& source() { return percent(75) ? pki_.sources.front() : pki_.sources.back(); }

  bool directoryHas(int index) {
    return std::any_of(pki_.directory.begin(), pki_.directory.end(), [&](int other) {
      return sameName(cert(other).subject, cert(index).subject);
    });
  }
  void trust(int index) {
    if (one(4) && !directoryHas(index)) {
      pki_.directory.push_back(index);
    } else {
      source().certificates.push_back(index);
    }
  }

  // Behind its namesake, which is the one that OpenSSL gets to see.
  void trustBehind(int index) {
    const auto isNamesake = [&](int other) {
      return sameName(cert(other).subject, cert(index).subject);
    };
    for (SourceDescription& from : pki_.sources) {
      std::vector<int>& list = from.certificates;
      if (!std::any_of(list.begin(), list.end(), isNamesake)) continue;
      list.push_back(index);
      return;
    }
    pki_.sources.back().certificates.push_back(index);
  }

  void file(int index, const Name& name) { source().crls.push_back({respelled(name), index}); }
  void fileByIssuer(int index) {
    if (one(4) && pki_.crlDirectory.size() < 6) {
      pki_.crlDirectory.push_back(index);
    } else {
      file(index, cert(crl(index).issuer).subject);
    }
  }

  // --- the chain, root first ---

  void makeChain() {
    const int length = pick({1, 2, 2, 2, 3, 3, 3, 3, 4, 4, 5, 6});
    const Name base = one(2) ? Name{"O=Test"} : Name{"C=DE", "O=Test House"};
    const auto named = [&](const std::string& cn) {
      Name name = base;
      name.push_back("CN=" + cn);
      return name;
    };
    serials_.resize(1);
    const int root = addAuthority("root", named("Root"), -1);
    if (one(5)) cert(root).authorityKeyId = KeyId::SerialOnly;
    if (!one(25)) trust(root);
    path_ = {root};
    bool fromStore = true;
    while (static_cast<int>(path_.size()) < length) {
      const bool last = static_cast<int>(path_.size()) + 1 == length;
      const std::string level = std::to_string(path_.size());
      const int next = last && percent(85)
                           ? addUser(named("Person " + level), path_.back())
                           : addAuthority("ca" + level, named("CA " + level), path_.back());
      path_.push_back(next);
      if (last) break;
      // What is below a certificate of the peer's has to be the peer's too: once OpenSSL took one
      // from the store, it looks for the others there only.
      fromStore = fromStore ? percent(60) : one(12);
      if (fromStore) {
        trust(next);
      } else {
        pki_.untrusted.push_back(next);
        // As callers are advised, so that the CRLs' issuers are found.
        if (percent(80)) pki_.objects.push_back(next);
      }
    }
  }

  int addUser(const Name& subject, int issuer) {
    CertificateDescription described{.label = "user", .subject = subject, .issuer = issuer};
    described.key = newKey();
    described.signer = cert(issuer).key;
    described.keyUsage = KU_DIGITAL_SIGNATURE;
    return addCertificate(described);
  }

  // Another certificate for a CA of the path, or for its name.
  void makeCross() {
    if (path_.size() < 2) return;
    const int original = path_[static_cast<std::size_t>(below(static_cast<int>(path_.size()) - 1))];
    const int other = addAuthority("other root", {"O=Other", "CN=Root " + std::to_string(nextKey_)},
                                   one(5) ? original : -1);
    const int cross = addAuthority("cross", cert(original).subject, other);
    if (percent(80)) cert(cross).key = cert(original).key;
    if (percent(60)) trust(other);
    tellRevocation(cross);
    if (one(8)) {
      trust(cross);
    } else if (one(3)) {
      trustBehind(cross);
    } else if (one(4)) {
      pki_.untrusted.push_back(cross);
    } else {
      pki_.untrusted.insert(pki_.untrusted.begin(), cross);
    }
    if (one(2)) pki_.objects.push_back(cross);
  }

  // CRLs that have nothing to do with it, or hardly.
  void makeNoise() {
    const int issuer = below(static_cast<int>(pki_.certificates.size()));
    const int index = addCRL("noise", issuer, -between(1, 20));
    if (one(3)) crl(index).scope = randomScope();
    if (one(3)) crl(index).base = between(1, 8);
    file(index, cert(one(3) ? any(path_) : issuer).subject);
  }

  // --- how the revocation of one certificate is told ---

  // Lists the certificate with a chance. `others` names the issuer of the certificate in each
  // entry, which indirect CRLs need.
  void maybeRevoke(const std::vector<int>& crls, int certificate, int chance, bool others = false) {
    const bool listed = percent(chance);
    if (!listed && !others) return;
    const int index = crls[static_cast<std::size_t>(below(static_cast<int>(crls.size())))];
    EntryDescription entry{.serial = listed ? cert(certificate).serial : 0x6f, .reason = reason()};
    if (others) entry.certificateIssuer = respelled(issuerName(certificate));
    const bool there =
        std::any_of(crl(index).entries.begin(), crl(index).entries.end(),
                    [&](const EntryDescription& one) { return one.serial == entry.serial; });
    if (!there) crl(index).entries.push_back(entry);
    if (listed)
      note("cert " + std::to_string(certificate) + " listed in crl " + std::to_string(index));
  }

  // Deltas of one CRL, filed where `filing` says.
  void maybeDeltas(int base, int certificate, const std::vector<Name>& names) {
    if (!one(3)) return;
    for (int i = between(1, 3); i > 0; --i) {
      const int issuer = crl(base).issuer;
      const int delta = addCRL("delta", issuer, -between(1, 5));
      crl(delta).number = *crl(base).number + i;
      crl(delta).base = between(1, *crl(base).number);
      crl(delta).scope = crl(base).scope;
      crl(delta).entries.clear();
      if (percent(45)) {
        crl(delta).entries.push_back(
            {.serial = cert(certificate).serial,
             .reason = pick({8, 8, 8, kAbsent, 1, 0}),
             .certificateIssuer =
                 crl(base).entries.empty() ? Name{} : crl(base).entries.back().certificateIssuer});
      }
      for (const Name& name : names) {
        if (name.empty()) {
          fileByIssuer(delta);
        } else {
          file(delta, name);
        }
      }
    }
  }

  void tellRevocation(int certificate) {
    const int style = below(100);
    if (style < 30) {
      tellByIssuer(certificate);
    } else if (style < 45) {
      tellByParts(certificate);
    } else if (style < 65) {
      tellByPoint(certificate);
    } else if (style < 77) {
      tellByPartitionedPoints(certificate);
    } else {
      tellByOther(certificate);
    }
    cert(certificate).freshestCRL = one(12);
  }

  // Who signs the CRLs of a certificate's issuer: it, or another certificate of that name.
  int crlSigner(int certificate) {
    const int issuer = cert(certificate).issuer;
    if (!one(8)) return issuer;
    CertificateDescription described{.label = "CRL key of " + cert(issuer).label};
    described.subject = cert(issuer).subject;
    described.issuer = cert(issuer).issuer < 0 ? issuer : cert(issuer).issuer;
    described.key = newKey();
    described.signer = cert(described.issuer).key;
    described.keyUsage = KU_CRL_SIGN;
    const int index = addCertificate(described);
    if (one(3)) {
      tellByIssuer(index);
    }
    if (percent(70)) {
      pki_.objects.insert(one(2) ? pki_.objects.begin() : pki_.objects.end(), index);
    }
    if (percent(50)) trustBehind(index);
    return one(5) ? issuer : index;
  }

  void tellByIssuer(int certificate) {
    const int issuer = cert(certificate).label.starts_with("CRL key") ? cert(certificate).issuer
                                                                      : crlSigner(certificate);
    const int index = addCRL("by issuer", issuer, -between(6, 12));
    if (one(6)) {
      crl(index).scope =
          ScopeDescription{.name = {.full = {directoryName(issuerName(certificate))}}};
    }
    fileByIssuer(index);
    maybeRevoke({index}, certificate, 20);
    maybeDeltas(index, certificate, {Name{}});
  }

  Parts somePart() { return pick({kBySupersession, kByCompromise, kByAttributes}); }

  // Several CRLs of the issuer that share the work: by kind of certificate, by reasons.
  void tellByParts(int certificate) {
    const int issuer = crlSigner(certificate);
    const int first = addCRL("part", issuer, -between(6, 12));
    const int second = addCRL("part", issuer, -between(6, 12));
    crl(first).scope = ScopeDescription{};
    crl(second).scope = ScopeDescription{};
    if (one(2)) {
      crl(first).scope->onlyUser = true;
      crl(second).scope->onlyCA = true;
    } else {
      const Parts parts = somePart();
      crl(first).scope->reasons = parts.first;
      crl(second).scope->reasons = parts.second;
    }
    fileByIssuer(first);
    fileByIssuer(second);
    maybeRevoke({first, second}, certificate, 20);
    maybeDeltas(one(2) ? first : second, certificate, {Name{}});
  }

  // A point's name, the name that it leads to, and how a CRL's scope may name it.
  struct Place {
    PointName point;
    Name asked;
    PointName scope;
  };
  Place makePlace(const Name& completer) {
    const std::string rdn = one(8) ? "CN=List+OU=Part" : "CN=List " + std::to_string(between(1, 3));
    Place place;
    place.asked = completer;
    place.asked.push_back(rdn);
    switch (below(4)) {
      case 0:
        place.point.relative = respelled({rdn}).back();
        place.scope.relative = respelled({rdn}).back();
        break;
      case 1:
        place.point.relative = rdn;
        place.scope.full = {directoryName(place.asked)};
        break;
      case 2:
        place.point.full = {directoryName(place.asked)};
        place.scope.relative = rdn;
        break;
      default:
        if (one(3)) place.asked = {"O=Lists", "CN=List 1"};
        place.point.full = {directoryName(place.asked)};
        if (one(3)) place.point.full.insert(place.point.full.begin(), {.other = "DNS:a.test"});
        place.scope.full = {directoryName(place.asked)};
        if (one(3)) place.scope.full.push_back({.other = "DNS:b.test"});
        break;
    }
    return place;
  }

  void tellByPoint(int certificate) {
    const int issuer = crlSigner(certificate);
    const int index = addCRL("by point", issuer, -between(6, 12));
    PointDescription point;
    Name asked;
    if (one(4)) {
      asked = issuerName(certificate);
      point.name.full = {directoryName(asked)};
    } else {
      const Place place = makePlace(issuerName(certificate));
      point.name = place.point;
      asked = place.asked;
      if (percent(70)) crl(index).scope = ScopeDescription{.name = place.scope};
      if (one(12)) {
        crl(index).scope = ScopeDescription{.name = makePlace(issuerName(certificate)).scope};
      }
    }
    if (crl(index).scope && one(5)) {
      (cert(certificate).ca ? crl(index).scope->onlyCA : crl(index).scope->onlyUser) = true;
    }
    cert(certificate).points.push_back(point);
    file(index, asked);
    maybeRevoke({index}, certificate, 20);
    maybeDeltas(index, certificate, {asked});
  }

  void tellByPartitionedPoints(int certificate) {
    const int issuer = crlSigner(certificate);
    std::vector<int> made;
    std::vector<Name> asked;
    const Parts parts = somePart();
    for (const unsigned part : {parts.first, parts.second}) {
      const Place place = makePlace(issuerName(certificate));
      const int index = addCRL("by partition", issuer, -between(6, 12));
      if (percent(80)) crl(index).scope = ScopeDescription{.name = place.scope, .reasons = part};
      PointDescription point{.name = place.point};
      if (percent(80) || !crl(index).scope) point.reasons = part;
      cert(certificate).points.push_back(point);
      file(index, place.asked);
      made.push_back(index);
      asked.push_back(place.asked);
    }
    maybeRevoke(made, certificate, 20);
    if (one(2)) maybeDeltas(made.front(), certificate, {asked.front()});
  }

  // An indirect CRL: the point names who issues it.
  void tellByOther(int certificate) {
    if (lists_.empty() || one(3)) makeLists(certificate);
    const int issuer = lists_.back();
    const Name& name = cert(issuer).subject;
    PointDescription point;
    point.crlIssuers = {directoryName(name)};
    if (one(6)) point.crlIssuers.insert(point.crlIssuers.begin(), {.other = "DNS:c.test"});
    if (one(8)) point.crlIssuers.push_back(directoryName({"O=Nobody", "CN=Lists"}));
    ScopeDescription scope{.indirect = true};
    Name asked = name;
    if (one(2)) {
      const Place place = makePlace(name);
      point.name = place.point;
      asked = place.asked;
      if (percent(60)) scope.name = place.scope;
    }
    cert(certificate).points.push_back(point);
    const int index = addCRL("indirect", issuer, -between(6, 12));
    crl(index).scope = scope;
    file(index, asked);
    maybeRevoke({index}, certificate, 25, true);
    maybeDeltas(index, certificate, {asked});
    if (one(8)) {
      // The certificate's own issuer besides; its CRL does not come through that point.
      const int own = addCRL("own", cert(certificate).issuer, -9);
      file(own, one(2) ? asked : issuerName(certificate));
    }
  }

  void makeLists(int certificate) {
    const int above = one(3) ? cert(certificate).issuer : path_.front();
    const int index =
        addAuthority("lists", {"O=Lists", "CN=Lists " + std::to_string(lists_.size() + 1)}, above);
    if (one(2)) {
      cert(index).ca = false;
      cert(index).keyUsage = KU_CRL_SIGN;
    }
    if (percent(70)) {
      source().certificates.push_back(index);
    } else {
      pki_.objects.push_back(index);
    }
    // Others tell about it, which can go round in a circle.
    if (!lists_.empty() && one(3)) {
      const int teller = one(2) ? lists_.front() : index;
      cert(index).points = {{.crlIssuers = {directoryName(cert(teller).subject)}}};
      lists_.push_back(index);
    } else if (lists_.size() < 2 && one(5)) {
      lists_.push_back(index);
      tellRevocation(index);
    } else {
      tellByIssuer(index);
      lists_.push_back(index);
    }
  }

  // What a verification bounds: levels of nested verifications, their number, look-ups.
  void makeExtreme() {
    const int target = path_.back();
    // About those who tell.
    pki_.sources.front().crls.push_back(
        {cert(path_.front()).subject, addCRL("for extremes", path_.front(), -9)});
    const auto name = [](int number) {
      return Name{"O=Lists", "CN=Extreme " + std::to_string(number)};
    };
    const auto addTeller = [&](int number) {
      const int teller = addAuthority("teller", name(number), path_.front());
      pki_.sources.front().certificates.push_back(teller);
      const int index = addCRL("of a teller", teller, -9);
      crl(index).scope = ScopeDescription{.indirect = true};
      pki_.sources.front().crls.push_back({name(number), index});
      return teller;
    };
    const auto toldBy = [&](int number) {
      return PointDescription{.crlIssuers = {{name(number)}}};
    };
    switch (pick({0, 0, 0, 1, 2, 2})) {
      case 0: {
        note("one tells about the other");
        const int levels = between(6, 9);
        cert(target).points = {toldBy(1)};
        for (int i = 1; i <= levels; ++i) {
          const int teller = addTeller(i);
          if (i < levels) cert(teller).points = {toldBy(i + 1)};
        }
        break;
      }
      case 1: {
        note("many tell");
        // With two sources it would be the look-ups that are too many.
        SourceDescription& first = pki_.sources.front();
        const SourceDescription second = pki_.sources.back();
        first.certificates.insert(first.certificates.end(), second.certificates.begin(),
                                  second.certificates.end());
        first.crls.insert(first.crls.end(), second.crls.begin(), second.crls.end());
        pki_.sources.pop_back();
        cert(target).points.clear();
        const int count = between(62, 66);
        for (int i = 1; i <= count; ++i) {
          addTeller(i);
          cert(target).points.push_back(toldBy(i));
        }
        break;
      }
      default: {
        note("many names");
        addTeller(1);
        cert(target).points = {toldBy(1)};
        std::vector<General>& names = cert(target).points.front().crlIssuers;
        const int count = between(120, 130);
        for (int i = 2; i <= count; ++i) names.push_back({name(i)});
        if (one(2)) std::reverse(names.begin(), names.end());
        break;
      }
    }
  }

  // --- changes ---

  unsigned someReasons() {
    const Parts parts = somePart();
    return pick({parts.first, parts.second, 0x807fu, 0x8001u});
  }

  ScopeDescription randomScope() {
    ScopeDescription scope;
    switch (below(7)) {
      case 0:
        scope.onlyUser = true;
        break;
      case 1:
        scope.onlyCA = true;
        break;
      case 2:
        scope.onlyAttributes = true;
        break;
      case 3:
        scope.reasons = someReasons();
        break;
      case 4:
        scope.indirect = true;
        break;
      case 5:
        scope.name = makePlace(cert(any(path_)).subject).scope;
        break;
      default:
        scope.name.full = {directoryName(cert(any(path_)).subject)};
        break;
    }
    return scope;
  }

  void change() {
    if (!pki_.crls.empty() && percent(65)) {
      const int index = below(static_cast<int>(pki_.crls.size()));
      note("crl " + std::to_string(index) + " changed: " + changeCRL(index));
    } else {
      const int index = below(static_cast<int>(pki_.certificates.size()));
      note("cert " + std::to_string(index) + " changed: " + changeCertificate(index));
    }
  }

  const char* changeCertificate(int index) {
    CertificateDescription& changed = cert(index);
    const auto dropFrom = [&](std::vector<int>& list) {
      list.erase(std::remove(list.begin(), list.end(), index), list.end());
    };
    switch (below(20)) {
      case 0:
        changed.until = -between(1, 80);
        return "expired";
      case 1:
        changed.from = between(1, 80);
        return "not yet valid";
      case 2:
        changed.signer = below(kKeys);
        return "signed by another key";
      case 3:
        changed.brokenSignature = true;
        return "broken signature";
      case 4:
        changed.keyUsage = pick({kAbsent, kAbsent, KU_CRL_SIGN, KU_KEY_CERT_SIGN,
                                 KU_DIGITAL_SIGNATURE, kAuthorityUsage});
        return "key usage";
      case 5:
        changed.keyUsage = KU_KEY_CERT_SIGN | KU_DIGITAL_SIGNATURE;
        return "may not sign CRLs";
      case 6:
        changed.subjectKeyId = pick({KeyId::Absent, KeyId::Wrong});
        return "subject key identifier";
      case 7:
        changed.authorityKeyId = pick({KeyId::Absent, KeyId::Wrong, KeyId::SerialOnly});
        return "authority key identifier";
      case 8:
        changed.ca = !changed.ca;
        return "CA or not";
      case 9:
        changed.points.clear();
        return "no points";
      case 10:
        if (!changed.points.empty()) {
          any(changed.points).reasons = someReasons();
        }
        return "reasons of a point";
      case 11:
        if (!changed.points.empty()) {
          any(changed.points).name = makePlace(cert(any(path_)).subject).point;
        }
        return "name of a point";
      case 12:
        if (!changed.points.empty()) {
          PointDescription& point = any(changed.points);
          const Name name = cert(below(static_cast<int>(pki_.certificates.size()))).subject;
          if (point.crlIssuers.empty()) {
            point.crlIssuers.push_back(directoryName(name));
          } else if (one(2) || point.name.absent()) {
            // With neither it would be no point for OpenSSL, and the certificate an invalid one.
            point.crlIssuers.front() = directoryName(name);
          } else {
            point.crlIssuers.clear();
          }
        }
        return "CRL issuers of a point";
      case 13:
        changed.points.push_back({.name = makePlace(issuerName(index)).point});
        return "one more point";
      case 14:
        dropFrom(pki_.untrusted);
        return "not among the untrusted";
      case 15:
        for (SourceDescription& from : pki_.sources) dropFrom(from.certificates);
        dropFrom(pki_.directory);
        return "not in sources and directory";
      case 16:
        dropFrom(pki_.objects);
        return "not among the objects";
      case 17:
        trust(index);
        return "also in a source or the directory";
      case 18:
        pki_.objects.insert(pki_.objects.begin(), index);
        return "first of the objects";
      default:
        changed.unknownCritical = one(3);
        return "unknown critical extension, perhaps";
    }
  }

  const char* changeCRL(int index) {
    CRLDescription& changed = crl(index);
    switch (below(24)) {
      case 0:
        changed.until = -between(1, 5);
        return "expired";
      case 1:
        changed.from = between(1, 5);
        return "not yet valid";
      case 2:
        changed.until.reset();
        return "never expires";
      case 3:
        for (SourceDescription& from : pki_.sources) {
          std::erase_if(from.crls, [&](const Filed& filed) { return filed.crl == index; });
        }
        std::erase(pki_.crlDirectory, index);
        return "nowhere";
      case 4:
        file(index, cert(any(path_)).subject);
        return "filed under one more name";
      case 5:
        fileByIssuer(index);
        return "filed under its issuer once more";
      case 6:
        changed.signer = below(kKeys);
        return "signed by another key";
      case 7:
        changed.brokenSignature = true;
        return "broken signature";
      case 8:
        changed.authorityKeyId = pick({KeyId::Absent, KeyId::Wrong, KeyId::SerialOnly});
        return "authority key identifier";
      case 9:
        changed.unknownCritical = true;
        return "unknown critical extension";
      case 10:
        if (!changed.entries.empty()) any(changed.entries).unknownCritical = true;
        return "unknown critical extension of an entry";
      case 11:
        changed.scope.reset();
        return "no scope";
      case 12:
        changed.scope = randomScope();
        return "another scope";
      case 13: {
        const ScopeDescription other = randomScope();
        if (changed.scope) {
          changed.scope->onlyUser |= other.onlyUser;
          changed.scope->onlyCA |= other.onlyCA;
          changed.scope->onlyAttributes |= other.onlyAttributes;
          if (other.reasons) changed.scope->reasons = other.reasons;
        }
        return "narrower scope";
      }
      case 14:
        if (changed.scope) changed.scope->name = makePlace(cert(changed.issuer).subject).scope;
        return "name of the scope";
      case 15:
        changed.number.reset();
        return "no number";
      case 16:
        changed.number = between(1, 9);
        return "another number";
      case 17:
        changed.base = between(1, 9);
        return "a delta with this base";
      case 18:
        changed.base.reset();
        return "no delta";
      case 19:
        changed.from = -between(1, 12);
        return "another time";
      case 20:
        if (!changed.entries.empty()) any(changed.entries).reason = reason();
        return "reason of an entry";
      case 21:
        if (!changed.entries.empty())
          any(changed.entries).certificateIssuer = cert(any(path_)).subject;
        return "certificate issuer of an entry";
      case 22:
        changed.issuer = below(static_cast<int>(pki_.certificates.size()));
        if (one(2)) changed.signer = cert(changed.issuer).key;
        return "another issuer";
      default: {
        EntryDescription entry{.serial = cert(any(path_)).serial, .reason = reason()};
        const bool there =
            std::any_of(changed.entries.begin(), changed.entries.end(),
                        [&](const EntryDescription& one) { return one.serial == entry.serial; });
        if (!there) changed.entries.push_back(entry);
        return "one more entry";
      }
    }
  }

  // --- queries ---

  void makeQueries() {
    const int queries = one(5) ? 2 : 1;
    for (int i = 0; i < queries; ++i) {
      Query query{.target = path_.back()};
      if (one(8)) query.target = below(static_cast<int>(pki_.certificates.size()));
      if (one(4)) query.flags = pick({0x30A4, 0x30A8, 0x20AC, 0x10AC, 0x308C, 0x30A4});
      if (one(6)) query.day = pick({-15, -8, -3, -1, 1, 3, 40, 60, -100});
      pki_.queries.push_back(query);
    }
  }

  Description pki_;
  std::vector<int> path_;   // the intended one, root first
  std::vector<int> lists_;  // issuers of indirect CRLs
  std::vector<int> serials_;
  int nextKey_ = 0;
};

}  // namespace

Description generate(std::uint64_t seed) { return Generator(seed).make(); }

}  // namespace Velantrix::Test::Random
