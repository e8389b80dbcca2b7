// Whole verifications: the octets describe a chain that is genuine or forged somewhere, the
// distribution points and responders that its certificates name, and CRLs of every kind in the
// machine's directory, the cache, a lookup method and a web server on loopback.
//
// What has to hold, whatever bound is reached:
// - the verdict is one of OpenSSL's codes;
// - a forgery is never valid, nor is a certificate that every CRL of its issuer revokes;
// - nobody is connected to for a certificate that no trust anchor vouches for;
// - a forgery costs not much more time and memory than bare OpenSSL needs to read its certificates,
//   and everything that lies here about them, once.
//
// Runs in a private view of the file system. With PKX509_FUZZ_TELL in the environment it says what
// came out.
#include "Draws.h"
#include "Fixture.h"
#include "Fuzz.h"
#include "WebFront.h"
#include "support/Files.h"
#include "support/Memory.h"
#include "support/PrivateView.h"

#include <pkx509/HashDirLookup.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <iostream>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#ifdef PKX509_SANITIZED
#include <atomic>
#else
#include <malloc.h>
#endif

#ifdef PKX509_SANITIZED
// Of <sanitizer/allocator_interface.h>, which does not come with every g++.
// NOLINTBEGIN(bugprone-reserved-identifier): the names are the sanitizer's
extern "C" int __sanitizer_install_malloc_and_free_hooks(void (*taken)(const volatile void* block,
                                                                       std::size_t size),
                                                         void (*given)(const volatile void* block));
extern "C" std::size_t __sanitizer_get_allocated_size(const volatile void* block);
// NOLINTEND(bugprone-reserved-identifier)
#endif

namespace Velantrix::Fuzz::ChainTarget {
namespace {

using namespace Test;
using namespace std::chrono;

// Who issues: the root, the intermediates from the leaf's issuer upwards, a CA of the root's that is
// on no path, and somebody with the root's name and a key of his own.
constexpr int kRoot = 0;
constexpr int kOther = 4;
constexpr int kAttacker = 5;
constexpr int kIssuers = 6;

constexpr int kLeafSerial = 100;
constexpr int kLong = 1000;  // names, or entries, of a CRL that is dear to read
constexpr int kSlots = 2;    // paths that a certificate names on the web server

struct Identity {
  const char* name;
  unsigned char key;
};

constexpr std::array<Identity, kIssuers> kIdentities{{{"CN=Root", 1},
                                                      {"CN=CA 1", 11},
                                                      {"CN=CA 2", 12},
                                                      {"CN=CA 3", 13},
                                                      {"CN=Other", 20},
                                                      {"CN=Root", 66}}};

const Identity& identity(int issuer) { return kIdentities[static_cast<std::size_t>(issuer)]; }

Issued selfSigned(int issuer) {
  CertificateOptions options = certificateOptions(identity(issuer).name, 1, identity(issuer).key);
  options.issuer = nullptr;
  options.ca = true;
  return issue(options);
}

// The certificate that gives a CRL its issuer's name and key identifier.
const Issued& authority(int issuer) {
  static std::array<std::optional<Issued>, kIssuers> made;
  std::optional<Issued>& one = made[static_cast<std::size_t>(issuer)];
  if (!one) one = issuer == kRoot ? root() : selfSigned(issuer);
  return *one;
}

// A CA of the root's that the source serves, to stand behind CRLs.
const Issued& otherAuthority() {
  static const Issued made = [] {
    CertificateOptions options =
        certificateOptions(identity(kOther).name, 90, identity(kOther).key);
    options.ca = true;
    return issue(options);
  }();
  return made;
}

struct ListDescription {
  int issuer = kRoot;
  bool brokenSignature = false;
  bool expired = false;
  bool unknownCritical = false;
  bool delta = false;
  int number = 2;
  int scope = 0;      // 0: none
  int names = 0;      // in the issuing distribution point
  int strangers = 0;  // entries for numbers that nobody has
  std::set<int> revoked;

  auto operator<=>(const ListDescription&) const = default;
};

Scope scopeOf(const ListDescription& list) {
  Scope scope;
  scope.onlyUser = list.scope == 1;
  scope.onlyCA = list.scope == 2;
  scope.indirect = list.scope == 3;
  if (list.scope == 4) scope.fullNames.emplace_back("dirName:CN=List");
  for (int i = 0; i < list.names; ++i) {
    scope.fullNames.push_back("dirName:CN=List,CN=" + std::to_string(i));
  }
  return scope;
}

Owned<X509_CRL> make(const ListDescription& list) {
  CRLOptions options = crlOptions();
  options.issuer = &authority(list.issuer);
  if (list.expired) options.nextUpdate = When("20010101000000Z");
  options.number = Serial(list.number);
  if (list.delta) options.deltaBase = Serial(2);
  for (const int serial : list.revoked) {
    options.revoked.push_back({.serial = serial, .date = kFrom, .reason = 1});
  }
  for (int i = 0; i < list.strangers; ++i) {
    options.revoked.push_back({.serial = 1000 + i, .date = kFrom});
  }
  if (list.scope != 0 || list.names != 0) options.idp = scopeOf(list);
  if (list.unknownCritical) {
    options.rawExtensions.push_back({"2.999.1", true, std::string("\x05\0", 2)});
  }
  options.badSignature = list.brokenSignature;
  return makeCRL(options);
}

// Long ones take long to make, so some are kept.
const std::string& derOf(const ListDescription& list) {
  static std::map<ListDescription, std::string> made;
  static std::size_t size = 0;
  constexpr std::size_t kMost = std::size_t{16} * 1024 * 1024;
  const auto found = made.find(list);
  if (found != made.end()) return found->second;
  if (size > kMost) {
    made.clear();
    size = 0;
  }
  std::string& der = made[list];
  der = Test::der(make(list).get());
  size += der.size();
  return der;
}

enum class Forgery { None, Signature, Signer, Anchor };

struct CertificateInChain {
  std::vector<Point> points;
  std::vector<std::string> responders;
  bool namesKey = true;  // has its issuer's key identifier
};

struct Place {
  enum class Kind { Directory, Memory, Cache, Web } kind = Kind::Directory;
  int certificate = 0;
  int slot = 0;
};

struct Filed {
  ListDescription list;
  Place place;
};

struct Situation {
  int intermediates = 0;
  Forgery forgery = Forgery::None;
  int forged = 0;  // the lowest certificate whose signature is right, but for this one
  bool anchorComes = false;
  std::vector<CertificateInChain> chain;  // leaf first, without the root
  std::vector<Filed> lists;
  int flags = 0x30AC;
  bool openSSLRevocation = false;

  int issuerOf(int certificate) const {
    return certificate == intermediates ? kRoot : certificate + 1;
  }
  // Does no trust anchor stand behind the certificate?
  bool unvouched(int certificate) const {
    if (forgery == Forgery::Anchor) return true;
    return forgery != Forgery::None && certificate <= forged;
  }
};

std::string pathFor(int certificate, int slot) {
  return "/" + std::to_string(certificate) + "/" + std::to_string(slot);
}

class Reader {
 public:
  Reader(const std::uint8_t* data, std::size_t size) : draws_(data, size) {}

  Situation read() {
    made_.intermediates = draws_.below(4);
    made_.forgery = draws_.pick({Forgery::None, Forgery::Signature, Forgery::Signer,
                                 Forgery::Anchor, Forgery::None, Forgery::Signature});
    made_.forged = draws_.below(made_.intermediates + 1);
    made_.anchorComes = draws_.one(2);
    made_.flags = draws_.pick({0x30AC, 0x30AC, 0x30A4, 0x10AC, 0x20AC, 0x308C});
    made_.openSSLRevocation = draws_.one(8);
    for (int i = 0; i <= made_.intermediates; ++i) addCertificate(i);
    // Chance alone hardly ever has a CRL for each: first come those that make it valid.
    for (int i = 0; i <= made_.intermediates; ++i) {
      if (!draws_.one(8)) addLists(made_.issuerOf(i), i);
    }
    for (int i = draws_.pick({0, 0, 0, 1, 2, 3, 4}); i > 0; --i) {
      const int issuer = draws_.below(kIssuers);
      addLists(issuer, draws_.below(made_.intermediates + 1));
    }
    return std::move(made_);
  }

 private:
  void addCertificate(int index) {
    CertificateInChain made;
    made.namesKey = !draws_.one(8);
    for (int i = draws_.pick({0, 0, 1, 1, 2, 8, 100}), j = 0; j < i; ++j) {
      made.points.push_back(j < 8 ? point(index) : made.points[static_cast<std::size_t>(j % 8)]);
    }
    for (int i = draws_.pick({0, 0, 0, 1, 3, 40}), j = 0; j < i; ++j) {
      made.responders.push_back(webFront().uri(pathFor(index, kSlots + j)));
    }
    made_.chain.push_back(std::move(made));
  }

  Point point(int index) {
    Point made;
    switch (draws_.below(8)) {
      case 0:
      case 1:
        made.fullNames = {"URI:" + webFront().uri(pathFor(index, draws_.below(kSlots)))};
        break;
      case 2:
        made.fullNames = {directoryName()};
        break;
      case 3:
        made.relativeName = "CN=List";
        if (draws_.one(2)) made.crlIssuers = {directoryName()};
        break;
      case 4:
        made.fullNames = {draws_.pick({"URI:ldap:///CN=Root", "URI:file:///etc/passwd", "URI:http:",
                                       "DNS:a.test", "URI:http://127.0.0.1:1/", "URI:"})};
        break;
      case 5:
        for (int i = 0; i < 60; ++i) {
          made.fullNames.push_back("URI:" + webFront().uri(pathFor(index, i % 30)));
        }
        break;
      case 6:
        made.fullNames = {"URI:" + webFront().uri(pathFor(index, draws_.below(kSlots)))};
        made.reasons = draws_.pick({0x8067, 0x18, 0x02});
        break;
      default:
        made.crlIssuers = {directoryName()};
        break;
    }
    return made;
  }

  std::string directoryName() {
    return "dirName:" + draws_.pick<std::string>({"CN=Root", "CN=CA 1", "CN=Other", "CN=List",
                                                  "CN=Root,CN=List", "CN=CA 2"});
  }

  void addLists(int issuer, int certificate) {
    Filed made;
    ListDescription& list = made.list;
    list.issuer = issuer;
    list.brokenSignature = draws_.one(8);
    list.expired = draws_.one(8);
    list.unknownCritical = draws_.one(16);
    list.delta = draws_.one(8);
    list.scope = draws_.pick({0, 0, 0, 0, 0, 0, 1, 2, 3, 4});
    list.names = draws_.one(16) ? kLong : draws_.pick({0, 0, 3});
    list.strangers = draws_.one(16) ? kLong : draws_.pick({0, 0, 3});
    // One of the chain, or all.
    const int revoked = draws_.pick({0, 0, 0, 0, 0, 1, 2, 3, 4, 5});
    for (int i = 0; i <= made_.intermediates; ++i) {
      if (revoked == i + 1 || revoked == 5) list.revoked.insert(kLeafSerial + i);
    }
    made.place.kind = draws_.pick(
        {Place::Kind::Directory, Place::Kind::Memory, Place::Kind::Cache, Place::Kind::Web});
    made.place.certificate = certificate;
    made.place.slot = draws_.below(kSlots);
    // Many different ones, or a long one many times.
    const bool isLong = list.names + list.strangers >= kLong;
    for (int copies = draws_.one(12) ? 20 : 1; copies > 0; --copies) {
      made_.lists.push_back(made);
      if (!isLong) ++list.number;
    }
  }

  Draws draws_;
  Situation made_;
};

// Does every CRL that could speak about the certificate revoke it? Whether one of them does come to
// speak does not matter: without any the certificate is not valid either. Where there are
// distribution points a CRL of another CA may be taken for the issuer's.
bool isRevoked(const Situation& situation, int certificate) {
  if (certificate > 0 && (situation.flags & X509_V_FLAG_CRL_CHECK_ALL) == 0) return false;
  const bool points = !situation.chain[static_cast<std::size_t>(certificate)].points.empty();
  return std::all_of(situation.lists.begin(), situation.lists.end(), [&](const Filed& filed) {
    const ListDescription& list = filed.list;
    if (list.brokenSignature || list.issuer == kAttacker || list.delta) return true;
    if (list.issuer == situation.issuerOf(certificate)) {
      return list.revoked.contains(kLeafSerial + certificate);
    }
    return !points;
  });
}

// The library's own part begins with what `verify` does.
class Real {
 public:
  explicit Real(const Situation& situation) : situation_(situation) {
    makeChain();
    clearPrivateView();
    std::map<std::string, std::string> bodies;
    for (const Filed& filed : situation.lists) file(filed, bodies);
    webFront().serve(std::move(bodies));
    world_.trust(root());
    world_.trust(otherAuthority());
  }

  int verify() {
    std::list<RefCertificate> untrusted;
    for (const std::string& der : certificates_) {
      CertificateFactory::read(buffer(der.data(), der.size()), untrusted);
    }
    const RefCertificate leaf = untrusted.front();
    untrusted.pop_front();
    Verifier::Config config;
    config.flags = situation_.flags;
    Verifier verifier(world_.store, leaf, RefStackOfCertificate(untrusted), config,
                      situation_.openSSLRevocation);
    verifier.maxNetworkTime(2);
    return verifier.isValid();
  }

  // What bare OpenSSL does with the same, each once and none freed before the end.
  void readBare() const {
    std::vector<Owned<X509>> certificates;
    for (const std::string& der : certificates_) {
      certificates.push_back(certFromDer(der));
      static_cast<void>(X509_check_purpose(certificates.back().get(), -1, 0));
    }
    std::vector<Owned<X509_CRL>> lists;
    for (const std::string& der : lists_) lists.push_back(crlFromDer(der));
  }

 private:
  void makeChain() {
    const bool own = situation_.forgery == Forgery::Anchor;
    Issued issuer = own ? authority(kAttacker) : root();
    if (own && situation_.anchorComes) certificates_.push_back(Test::der(issuer.get()));
    for (int i = situation_.intermediates; i >= 0; --i) {
      issuer = issue(optionsOf(i, issuer));
      certificates_.insert(certificates_.begin(), Test::der(issuer.get()));
      // Issuers of CRLs are looked for in the store.
      if (i > 0 && !situation_.unvouched(i)) world_.trust(issuer);
    }
  }

  CertificateOptions optionsOf(int index, const Issued& issuer) const {
    const CertificateInChain& described = situation_.chain[static_cast<std::size_t>(index)];
    CertificateOptions options =
        certificateOptions(index == 0 ? "CN=Leaf" : identity(index).name, kLeafSerial + index,
                           index == 0 ? static_cast<unsigned char>(2) : identity(index).key);
    options.issuer = &issuer;
    options.ca = index > 0;
    if (!described.namesKey) options.authorityKeyId = KeyId::Absent;
    options.crlDistributionPoints = described.points;
    std::string access;
    for (const std::string& responder : described.responders) {
      access += (access.empty() ? "OCSP;URI:" : ",OCSP;URI:") + responder;
    }
    if (!access.empty()) options.extensions.push_back({"authorityInfoAccess", access});
    if (index == situation_.forged) {
      options.badSignature = situation_.forgery == Forgery::Signature;
      if (situation_.forgery == Forgery::Signer) options.signer = key(67);
    }
    return options;
  }

  void file(const Filed& filed, std::map<std::string, std::string>& bodies) {
    const std::string& der = derOf(filed.list);
    lists_.insert(der);
    const Owned<X509_CRL> crl = crlFromDer(der);
    const std::string path = pathFor(filed.place.certificate, filed.place.slot);
    switch (filed.place.kind) {
      case Place::Kind::Directory:
        addToDirectory(kCRLDirectory, crl.get());
        break;
      case Place::Kind::Memory:
        world_.source->crls.push_back(
            CertificateRevocationListFactory::read(buffer(der.data(), der.size())));
        break;
      case Place::Kind::Cache:
        cache(webFront().uri(path), crl.get());
        break;
      case Place::Kind::Web:
        bodies[path] = der;
        break;
    }
  }

  static void cache(const std::string& text, const X509_CRL* crl) {
    const Uri uri(text);
    writeFile(std::string(kCRLCacheDirectory) + "/" + HashDirLookupMethod::fileName(uri),
              "URI: " + uri.canonicalized() + "\nExpires: 4102444799\n" + pem(crl));
  }

  const Situation& situation_;
  World world_;
  std::vector<std::string> certificates_;  // leaf first
  std::set<std::string> lists_;
};

#ifdef PKX509_SANITIZED

// Sanitizers keep what was freed, so what is held is counted instead of what is resident. What was
// taken before counting began may be given back: it can be less than nothing.
std::atomic<std::ptrdiff_t> held{0};
std::atomic<std::ptrdiff_t> mostHeld{0};

class MemoryUse {
 public:
  MemoryUse() {
    static const int installed = __sanitizer_install_malloc_and_free_hooks(s_taken, s_given);
    PKX509_ASSERT(installed > 0);
    mostHeld = before_ = held.load();
  }
  std::size_t most() const { return static_cast<std::size_t>(mostHeld - before_); }

 private:
  static void s_taken(const volatile void* /*block*/, std::size_t size) {
    const std::ptrdiff_t now = held += static_cast<std::ptrdiff_t>(size);
    if (now > mostHeld) mostHeld = now;
  }
  static void s_given(const volatile void* block) {
    if (block == nullptr) return;
    held -= static_cast<std::ptrdiff_t>(__sanitizer_get_allocated_size(block));
  }

  std::ptrdiff_t before_;
};

#else

class MemoryUse {
 public:
  // What was freed and kept before would serve without a trace.
  MemoryUse() : peak_((static_cast<void>(malloc_trim(0)), MemoryPeak())) {}
  std::size_t most() const { return peak_.resident(); }

 private:
  MemoryPeak peak_;
};

#endif

nanoseconds processorTime() {
  timespec used{};
  PKX509_ASSERT(::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used) == 0);
  return seconds(used.tv_sec) + nanoseconds(used.tv_nsec);
}

// How much slower everything is where it is watched.
int slowness() {
#ifdef PKX509_SANITIZED
  return 8;
#else
  const char* const preloaded = std::getenv("LD_PRELOAD");
  const bool valgrind = preloaded != nullptr &&
                        std::string_view(preloaded).find("vgpreload") != std::string_view::npos;
  return valgrind ? 50 : 1;
#endif
}

struct Use {
  std::size_t memory;
  nanoseconds time;
};

template <class Work>
Use useOf(const Work& work) {
  const MemoryUse memory;
  const nanoseconds before = processorTime();
  work();
  return {memory.most(), processorTime() - before};
}

bool inProportion(const Use& ours, const Use& bare) {
  constexpr int kFactor = 3;
  constexpr std::size_t kMemory = std::size_t{50} * 1000 * 1000;
  constexpr milliseconds kTime{500};
  const bool within = ours.memory <= kMemory + kFactor * bare.memory &&
                      ours.time <= slowness() * kTime + kFactor * bare.time;
  if (!within) {
    std::cerr << ours.memory << " bytes and " << ours.time.count() << " ns, bare " << bare.memory
              << " bytes and " << bare.time.count() << " ns\n";
  }
  return within;
}

// The first part of the path is the number of the certificate that names it; an OCSP request has
// one slash more in front.
bool isOfUnvouched(const std::string& path, const Situation& situation) {
  const std::size_t number = path.find_first_not_of('/');
  return situation.unvouched(number == std::string::npos ? 0 : path[number] - '0');
}

bool isVerdict(int code) {
  static const std::string unknown = X509_verify_cert_error_string(-1);
  return code >= 0 && X509_verify_cert_error_string(code) != unknown;
}

void check(const Situation& situation) {
  Real real(situation);
  std::optional<int> verdict;
  const auto verify = [&] { static_cast<void>(ran([&] { verdict = real.verify(); })); };
  const Use bare = useOf([&] { real.readBare(); });
  const Use ours = useOf(verify);
  const std::vector<std::string> asked = webFront().asked();
  ERR_clear_error();

  if (std::getenv("PKX509_FUZZ_TELL") != nullptr) {
    std::cerr << "verdict " << verdict.value_or(-1) << ", asked for " << asked.size() << ", "
              << ours.memory << " bytes, " << ours.time.count() / 1000 << " us\n";
  }
  PKX509_ASSERT(!verdict || isVerdict(*verdict));
  PKX509_ASSERT(std::none_of(asked.begin(), asked.end(), [&](const std::string& path) {
    return isOfUnvouched(path, situation);
  }));
  const bool forged = situation.forgery != Forgery::None;
  PKX509_ASSERT(!forged || verdict != 0);
  PKX509_ASSERT(!forged || inProportion(ours, bare));
  for (int i = 0; i <= situation.intermediates; ++i) {
    PKX509_ASSERT(verdict != 0 || !isRevoked(situation, i));
  }
}

}  // namespace

PKX509_FUZZ_TARGET(chain) {
  begin();
  const Situation situation = Reader(data, size).read();
  check(situation);
  return 0;
}

}  // namespace Velantrix::Fuzz::ChainTarget
