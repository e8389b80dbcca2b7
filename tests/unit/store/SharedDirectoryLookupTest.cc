// The lookup in front of OpenSSL's against OpenSSL's alone: same answers, same content of the stores, same
// errors, whatever lies in the directories.
#include "foundation/base/FileStamp.h"
#include "store/SharedDirectoryLookup.h"
#include "support/Files.h"
#include "support/Pki.h"

#include <openssl/pem.h>
#include <openssl/x509_vfy.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <iomanip>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace Velantrix::Test {
namespace {

using namespace std::chrono_literals;
using Crypto::PKX509::addDirectories;

std::string trustedPem(X509* certificate, int purpose) {
  const Owned<X509> copy(X509_dup(certificate));
  const Owned<ASN1_OBJECT> use(OBJ_nid2obj(purpose));
  X509_add1_trust_object(copy.get(), use.get());
  const Owned<BIO> memory(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509_AUX(memory.get(), copy.get());
  char* text = nullptr;
  const long size = BIO_get_mem_data(memory.get(), &text);
  return std::string(text, static_cast<std::size_t>(size));
}

// With what trusts it, which its DER does not have.
std::string octets(X509* certificate) {
  unsigned char* out = nullptr;
  const int size = i2d_X509_AUX(certificate, &out);
  const Crypto::OwnedMemory<unsigned char> owner(out);
  return std::string(out, out + size);
}

std::string octets(X509_OBJECT* object) {
  if (X509* const certificate = X509_OBJECT_get0_X509(object)) return octets(certificate);
  if (const X509_CRL* const crl = X509_OBJECT_get0_X509_CRL(object)) return der(crl);
  return {};
}

std::string takeErrors() {
  std::string all;
  while (const unsigned long code = ERR_get_error()) all += std::to_string(code) + " ";
  return all;
}

// One of the two that are compared.
class DirectoriesAsked {
 public:
  explicit DirectoriesAsked(bool ours) : ours_(ours) {
    X509_VERIFY_PARAM_set_depth(X509_STORE_get0_param(store.get()), 10);
  }

  int add(const std::string& directories, int fileType) {
    if (ours_) return addDirectories(store.get(), directories, fileType);
    X509_LOOKUP* const lookup = X509_STORE_add_lookup(store.get(), X509_LOOKUP_hash_dir());
    return X509_LOOKUP_add_dir(lookup, directories.c_str(), fileType);
  }

  std::string first(X509_LOOKUP_TYPE type, const X509_NAME* name) {
    const Owned<X509_STORE_CTX> context = newContext();
    ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR);  // of whoever came before
    const Owned<X509_OBJECT> found(X509_OBJECT_new());
    const int result = X509_STORE_CTX_get_by_subject(context.get(), type, name, found.get());
    return std::to_string(result) + " " + octets(found.get()) + all();
  }

  std::string certificates(const X509_NAME* name) {
    const Owned<X509_STORE_CTX> context = newContext();
    const Owned<STACK_OF(X509)> found(X509_STORE_CTX_get1_certs(context.get(), name));
    std::string text = std::to_string(sk_X509_num(found.get()));
    for (int i = 0; i < sk_X509_num(found.get()); ++i)
      text += octets(sk_X509_value(found.get(), i));
    return text + all();
  }

  std::string crls(const X509_NAME* name) {
    const Owned<X509_STORE_CTX> context = newContext();
    STACK_OF(X509_CRL)* const found = X509_STORE_CTX_get1_crls(context.get(), name);
    std::string text = std::to_string(sk_X509_CRL_num(found));
    for (int i = 0; i < sk_X509_CRL_num(found); ++i) text += der(sk_X509_CRL_value(found, i));
    sk_X509_CRL_pop_free(found, X509_CRL_free);
    return text + all();
  }

  std::string verify(X509* certificate, unsigned long flags) {
    const Owned<X509_STORE_CTX> context = newContext();
    X509_STORE_CTX_set_cert(context.get(), certificate);
    X509_STORE_CTX_set_flags(context.get(), flags);
    const int result = X509_verify_cert(context.get());
    std::string text = std::to_string(result) + " " +
                       std::to_string(X509_STORE_CTX_get_error(context.get())) + " ";
    const STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context.get());
    for (int i = 0; i < sk_X509_num(chain); ++i) text += octets(sk_X509_value(chain, i));
    return text + all();
  }

  const Owned<X509_STORE> store{X509_STORE_new()};

 private:
  Owned<X509_STORE_CTX> newContext() const {
    Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), store.get(), nullptr, nullptr);
    return context;
  }

  // What is in the store and in OpenSSL's queue now.
  std::string all() const {
    std::string text = " " + takeErrors();
    STACK_OF(X509_OBJECT)* const held = X509_STORE_get0_objects(store.get());
    for (int i = 0; i < sk_X509_OBJECT_num(held); ++i) {
      text += octets(sk_X509_OBJECT_value(held, i)) + ",";
    }
    return text;
  }

  bool ours_;
};

struct Both {
  template <class Query>
  void same(const Query& query) {
    const std::string expected = query(openSSL);
    EXPECT_TRUE(query(ours) == expected);
  }
  void add(const std::string& directories, int fileType) {
    same([&](DirectoriesAsked& asked) {
      const int result = asked.add(directories, fileType);
      return std::to_string(result) + takeErrors();
    });
  }

  DirectoriesAsked openSSL{false};
  DirectoriesAsked ours{true};
};

// Authorities two of which have one name, leaves below each, and CRLs of each.
struct Authorities {
  Authorities() {
    for (const char* const name : {"CN=A", "CN=A", "CN=B", "CN=C"}) cas.push_back(issueCA(name));
    cas.push_back(issueCA("CN=D", &cas[0]));
    for (const Issued& ca : cas) {
      leaves.push_back(issue({.subject = "CN=Leaf", .issuer = &ca}));
      for (int number = 1; number < 3; ++number) {
        crls.push_back(makeCRL({.issuer = &ca, .number = Serial(number)}));
      }
    }
  }

  std::vector<Issued> cas;
  std::vector<Issued> leaves;
  std::vector<Owned<X509_CRL>> crls;
};

const Authorities& authorities() {
  static const Authorities made;
  return made;
}

class Dice {
 public:
  explicit Dice(unsigned int seed) : engine_(seed) {}
  std::size_t below(std::size_t bound) { return engine_() % bound; }
  bool once(std::size_t in) { return below(in) == 0; }
  template <class List>
  auto& oneOf(List& list) {
    return list[below(list.size())];
  }

 private:
  std::mt19937 engine_;
};

const Issued& someCA(Dice& dice) { return dice.oneOf(authorities().cas); }
X509_CRL* someCRL(Dice& dice) { return dice.oneOf(authorities().crls).get(); }

std::string certificates(Dice& dice) {
  const Issued& ca = someCA(dice);
  const std::string text = pem(ca.get());
  constexpr const char* kBroken = "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n";
  switch (dice.below(14)) {
    case 0:
      return text + pem(someCA(dice).get());
    case 1:
      return text + kBroken + pem(someCA(dice).get());
    case 2:
      return kBroken + text;
    case 3:
      return "";
    case 4:
      return "garbage\n";
    case 5:
      return trustedPem(ca.get(), NID_server_auth);
    case 6:
      return trustedPem(ca.get(), NID_email_protect) + text;
    case 7:
      return der(ca.get());
    case 8:
      return der(ca.get()) + der(someCA(dice).get());
    case 9:
      return pem(someCRL(dice)) + text;
    case 10:  // a line ends at a zero octet for stdio
      return text.substr(0, text.find('\n')) + std::string("\0 octet", 7) +
             text.substr(text.find('\n'));
    case 11:
      return text.substr(0, text.size() / 2);
    case 12:
      return text + pem(ca.key.get());
    default:
      return text;
  }
}

std::string crls(Dice& dice) {
  const std::string text = pem(someCRL(dice));
  switch (dice.below(8)) {
    case 0:
      return text + pem(someCRL(dice));
    case 1:
      return text + "-----BEGIN X509 CRL-----\nAAAA\n-----END X509 CRL-----\n";
    case 2:
      return "garbage";
    case 3:
      return der(someCRL(dice));
    case 4:
      return pem(someCA(dice).get()) + text;
    default:
      return text;
  }
}

// Names that belong to the same few hashes, in forms of which OpenSSL takes one.
std::string fileName(Dice& dice, const char* infix) {
  std::ostringstream name;
  if (dice.once(12)) name << std::uppercase;
  if (!dice.once(12)) name << std::setw(8) << std::setfill('0');
  name << std::hex << nameHash(X509_get_subject_name(someCA(dice).get()));
  name << "." << infix << dice.below(4);
  return name.str();
}

// With a time that no other content has: what follows within one tick of the clock shows, too.
void write(const std::filesystem::path& path, const std::string& content) {
  static std::time_t time = 1000000000;
  writeFile(path, content);
  const timespec times[] = {{++time, 0}, {time, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

void change(Dice& dice, const std::filesystem::path& directory) {
  const bool ofCRLs = dice.once(3);
  const std::filesystem::path path = directory / fileName(dice, ofCRLs ? "r" : "");
  std::filesystem::remove_all(path);
  switch (dice.below(12)) {
    case 0:
    case 1:
      return;
    case 2:
      std::filesystem::create_directory(path);
      return;
    case 3:
      std::filesystem::create_symlink("/nonexistent", path);
      return;
    case 4:
      write(directory / "linked", certificates(dice));
      std::filesystem::create_symlink("linked", path);
      return;
    default:
      write(path, ofCRLs ? crls(dice) : certificates(dice));
  }
}

void ask(Dice& dice, Both& both) {
  const X509_NAME* const name = X509_get_subject_name(someCA(dice).get());
  X509* const leaf = dice.oneOf(authorities().leaves).get();
  switch (dice.below(5)) {
    case 0:
      return both.same([&](DirectoriesAsked& asked) { return asked.first(X509_LU_X509, name); });
    case 1:
      return both.same([&](DirectoriesAsked& asked) { return asked.first(X509_LU_CRL, name); });
    case 2:
      return both.same([&](DirectoriesAsked& asked) { return asked.certificates(name); });
    case 3:
      return both.same([&](DirectoriesAsked& asked) { return asked.crls(name); });
    default:
      const unsigned long flags =
          dice.once(2) ? 0UL : X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;
      return both.same([&](DirectoriesAsked& asked) { return asked.verify(leaf, flags); });
  }
}

TEST(SharedDirectoryLookup, RandomDirectories_AnswerAsOpenSSLsLookup) {
  for (unsigned int seed = 0; seed < 40; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    Dice dice(seed);
    // In one half of them as if the files had been there for long.
    std::optional<StampClockAhead> settled;
    if (seed % 2 == 0) settled.emplace(3s);
    const TempDir first;
    const TempDir second;
    const auto changeOne = [&] { change(dice, dice.once(3) ? second.path() : first.path()); };
    for (std::size_t i = dice.below(20); i > 0; --i) changeOne();
    for (int stores = 0; stores < 3; ++stores) {
      Both both;
      const int type = dice.once(4) ? X509_FILETYPE_ASN1 : X509_FILETYPE_PEM;
      if (dice.once(2)) {
        both.add(first.string() + ":/nonexistent::" + second.string() + ":" + first.string(), type);
      } else {
        both.add(first.string(), type);
        both.add(second.string(), dice.once(3) ? X509_FILETYPE_ASN1 : X509_FILETYPE_PEM);
      }
      for (int i = 0; i < 8; ++i) {
        ask(dice, both);
        if (dice.once(2)) changeOne();
      }
    }
    if (HasFailure()) return;
  }
}

class SharedDirectory : public testing::Test {
 protected:
  TempDir directory;
  // What the store has found, which no other has where it is not shared.
  static const X509* only(const DirectoriesAsked& asked) {
    STACK_OF(X509_OBJECT)* const held = X509_STORE_get0_objects(asked.store.get());
    EXPECT_EQ(sk_X509_OBJECT_num(held), 1);
    return X509_OBJECT_get0_X509(sk_X509_OBJECT_value(held, 0));
  }

  const StampClockAhead settled{3s};
  Issued ca = issueCA("CN=A");
  const X509_NAME* name = X509_get_subject_name(ca.get());
};

// By it OpenSSL's finds directories that are named elsewhere, and their place among the others counts.
TEST_F(SharedDirectory, TypeThatOnlyOpenSSLKnows_LeavesEverythingToIt) {
  const TempDir behind;
  const Issued other = issueCA("CN=B");
  addToDirectory(directory.path(), ca.get());
  addToDirectory(behind.path(), issueCA("CN=A").get());
  addToDirectory(behind.path(), other.get());
  ASSERT_EQ(::setenv("SSL_CERT_DIR", directory.string().c_str(), 1), 0);
  Both both;
  both.add("/nonexistent", X509_FILETYPE_PEM);
  both.add("", X509_FILETYPE_DEFAULT);
  both.add(behind.string(), X509_FILETYPE_PEM);
  for (const X509_NAME* const asked :
       {name, static_cast<const X509_NAME*>(X509_get_subject_name(other.get()))}) {
    both.same([&](DirectoriesAsked& store) { return store.certificates(asked); });
  }
  EXPECT_EQ(::unsetenv("SSL_CERT_DIR"), 0);
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(both.ours.store.get())), 2);
}

TEST_F(SharedDirectory, LibraryContextOfTheThread_IsLeftToOpenSSL) {
  addToDirectory(directory.path(), ca.get());
  Both both;
  both.add(directory.string(), X509_FILETYPE_PEM);
  const std::unique_ptr<OSSL_LIB_CTX, decltype(&OSSL_LIB_CTX_free)> own(OSSL_LIB_CTX_new(),
                                                                        OSSL_LIB_CTX_free);
  OSSL_LIB_CTX* const usual = OSSL_LIB_CTX_set0_default(own.get());
  both.same([&](DirectoriesAsked& asked) { return asked.first(X509_LU_X509, name); });
  OSSL_LIB_CTX_set0_default(usual);
  Both other;
  other.add(directory.string(), X509_FILETYPE_PEM);
  other.same([&](DirectoriesAsked& asked) { return asked.first(X509_LU_X509, name); });
  EXPECT_NE(only(both.ours), only(other.ours));
}

TEST_F(SharedDirectory, DamagedFile_IsTheLastOfItsName) {
  const Issued other = issueCA("CN=A");
  const Issued third = issueCA("CN=A");
  const std::string first = addToDirectory(directory.path(), ca.get());
  writeFile(first, pem(ca.get()) + pem(other.get()) + "-----BEGIN CERTIFICATE-----\nAAAA\n");
  addToDirectory(directory.path(), third.get());
  Both both;
  both.add(directory.string(), X509_FILETYPE_PEM);
  both.same([&](DirectoriesAsked& asked) { return asked.certificates(name); });
  EXPECT_EQ(sk_X509_OBJECT_num(X509_STORE_get0_objects(both.ours.store.get())), 2);
}

TEST_F(SharedDirectory, Stores_ShareWhatTheyFind) {
  addToDirectory(directory.path(), ca.get());
  Both first;
  Both second;
  for (Both* const both : {&first, &second}) {
    both->add(directory.string(), X509_FILETYPE_PEM);
    both->same([&](DirectoriesAsked& asked) { return asked.first(X509_LU_X509, name); });
  }
  EXPECT_EQ(only(first.ours), only(second.ours));
  EXPECT_NE(only(first.openSSL), only(second.openSSL));
}

TEST_F(SharedDirectory, NoDirectoryNoNameAndOtherTypes_AreAnsweredAsByOpenSSL) {
  addToDirectory(directory.path(), ca.get());
  Both both;
  both.same([&](DirectoriesAsked& asked) { return asked.first(X509_LU_X509, name); });
  both.add("", X509_FILETYPE_PEM);
  both.add(":", X509_FILETYPE_PEM);
  both.add(directory.string(), 4711);
  both.same([&](DirectoriesAsked& asked) { return asked.first(X509_LU_X509, name); });
  both.same([&](DirectoriesAsked& asked) { return asked.first(X509_LU_X509, nullptr); });
  both.same([&](DirectoriesAsked& asked) { return asked.first(X509_LU_NONE, name); });
}

}  // namespace
}  // namespace Velantrix::Test
