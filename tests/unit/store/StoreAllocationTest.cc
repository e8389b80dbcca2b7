// What happens when memory runs out: a failure is an exception (or nothing at all), never a crash
// or a leak. This program replaces OpenSSL's allocator and the program's own, so it stands alone.
#include "unit/store/FakeMethod.h"
#include "unit/store/Model.h"

#include <pkx509/HashDirLookup.h>
#include <pkx509/ObjectStore.h>
#include <pkx509/Verifier.h>
#include <velantrix/Exception.h>

#include <openssl/crypto.h>
#include <openssl/err.h>

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <list>
#include <new>
#include <sys/wait.h>

namespace {

/// How many more allocations succeed; negative: all of them.
long openSSLAllocations = -1;
long ownAllocations = -1;
bool refused = false;

bool mayAllocate(long& left) {
  if (left < 0) return true;
  if (left > 0) {
    --left;
    return true;
  }
  refused = true;
  return false;
}

void* allocate(std::size_t size, const char* /*file*/, int /*line*/) {
  return mayAllocate(openSSLAllocations) ? std::malloc(size) : nullptr;
}

void* reallocate(void* memory, std::size_t size, const char* /*file*/, int /*line*/) {
  return mayAllocate(openSSLAllocations) ? std::realloc(memory, size) : nullptr;
}

void release(void* memory, const char* /*file*/, int /*line*/) { std::free(memory); }

}  // namespace

// Not inlined: the compiler would see free() for what new made.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* const memory = mayAllocate(ownAllocations) ? std::malloc(size == 0 ? 1 : size) : nullptr;
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
// The standard library's sorting asks this way; a sanitizer's own form would not call the one
// above.
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return mayAllocate(ownAllocations) ? std::malloc(size == 0 ? 1 : size) : nullptr;
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
  std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept {
  std::free(memory);
}

namespace Velantrix::Test {
namespace {

/// Fails the first allocation of a scenario, then the second and so on, until one passes without
/// any failing. `which` is the counter of one of the two allocators.
template <class Scenario>
long walk(long& which, Scenario scenario) {
  // What is allocated once for all is allocated now. OpenSSL's own start is part of that: 3.5 waits
  // for itself for ever when an allocation fails in it.
  OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR);
  ERR_clear_error();
  scenario();
  constexpr long kMost = 20000;
  for (long first = 0; first < kMost; ++first) {
    refused = false;
    which = first;
    try {
      scenario();
    } catch (const Exception&) {
    } catch (const std::bad_alloc&) {
    }
    which = -1;
    ERR_clear_error();
    if (!refused) return first;
  }
  ADD_FAILURE() << "it never passes";
  return kMost;
}

/// Each failing in turn, of OpenSSL's allocations and of the program's.
template <class Scenario>
void walkBoth(Scenario scenario) {
  EXPECT_GT(walk(openSSLAllocations, scenario), 0) << "nothing was allocated by OpenSSL";
  EXPECT_GT(walk(ownAllocations, scenario), 0) << "nothing was allocated";
}

// The first use of the library in a process allocates more than later ones do. Every step is a
// process of its own, and this test comes first so that none of them inherits what later tests
// leave.
TEST(StoreAllocationDeathTest, FirstUse_ThrowsAndLeavesTheLibraryUsable) {
  const Issued root = issueCA("CN=Root");
  const auto use = [&] {
    const RefCertificate certificate = handle(root);
    const RefObjectStore store("/nonexistent", X509_FILETYPE_PEM);
    store.get()->add(RefLookupMethod(new LookupMethod("Method")));
    const Verifier verifier(store, certificate, true);
    const DistinguishedName none;
    EXPECT_NE(certificate->subject(), none);
    EXPECT_EQ(none.asString(), "");
  };
  const auto attempt = [&](long allocations) {
    openSSLAllocations = allocations;
    try {
      use();
    } catch (const Exception&) {
    } catch (const std::bad_alloc&) {
    }
    openSSLAllocations = -1;
    const bool last = !refused;
    use();
    std::_Exit(last ? 1 : 0);
  };
  bool passed = false;
  for (long first = 0; first < 1000 && !passed; ++first) {
    EXPECT_EXIT(
        attempt(first),
        [&](int status) {
          passed = WIFEXITED(status) && WEXITSTATUS(status) == 1;
          return WIFEXITED(status) && WEXITSTATUS(status) <= 1;
        },
        "")
        << "allocation " << first;
  }
  EXPECT_TRUE(passed) << "it never passes";
}

TEST(StoreAllocation, OpenSSLStore_IsTheStoresOwnException) {
  const RefObjectStore warm("/nonexistent", X509_FILETYPE_PEM);
  std::string context;
  std::string file;
  int code = 0;
  unsigned int line = 0;
  openSSLAllocations = 0;
  try {
    const ObjectStore store("/nonexistent", X509_FILETYPE_PEM);
  } catch (const Exception& e) {
    openSSLAllocations = -1;
    context = e.context();
    code = e.code();
    file = e.file();
    line = e.line();
  }
  openSSLAllocations = -1;
  ERR_clear_error();
  EXPECT_EQ(context, "X509::ObjectStore");
  EXPECT_EQ(code, 4);
  EXPECT_EQ(file, "ObjectStore");
  EXPECT_EQ(line, 18U);
}

TEST(StoreAllocation, ObjectStore_Constructed) {
  walkBoth([] { const RefObjectStore store("/nonexistent", X509_FILETYPE_PEM); });
}

TEST(StoreAllocation, LookupMethod_Constructed) {
  walkBoth([] { const LookupMethod method("A name that is too long for the string itself"); });
}

TEST(StoreAllocation, Method_Attached) {
  const Issued root = issueCA("CN=Root");
  walkBoth([&] {
    RefObjectStore store("/nonexistent", X509_FILETYPE_PEM);
    const RefLookupMethod method(new LookupMethod("Method"));
    try {
      store->add(method);
    } catch (...) {
      EXPECT_TRUE(store->methods().empty()) << "it failed half-way";
      throw;
    }
    const RefObjectStore clone = store->clone();
  });
}

TEST(StoreAllocation, AnswersAndSearches) {
  const Issued root = issueCA("CN=Root");
  const RefCertificate certificate = handle(root);
  const RefCertificateRevocationList crl = crlHandle({.issuer = &root});
  const TempDir directory;
  addToDirectory(directory.path(), root.get());
  walkBoth([&] {
    RefObjectStore store(directory.string(), X509_FILETYPE_PEM);
    auto* const fake = new FakeMethod;
    const RefLookupMethod method(fake);
    fake->answer = RefObject(certificate);
    fake->crls = {crl};
    store->add(method);
    const Owned<X509_OBJECT> object(X509_OBJECT_new());
    if (object == nullptr) throw std::bad_alloc();
    if (X509_LOOKUP_by_subject(X509_STORE_add_lookup(store, method), X509_LU_X509,
                               certificate->subject().native(), object.get()) == 1) {
      X509_up_ref(X509_OBJECT_get0_X509(object.get()));
    }
    unsigned int score = 0;
    static_cast<void>(store->findIssuer(crl, score));
    std::list<RefCertificateRevocationList> crls;
    store->find(crl->crlInfo().issuer(), crls);
  });
}

// The name of the file is a digest: without one it would be another's.
TEST(StoreAllocation, HashDirectory_WrittenAndSearchedByAddressUnderOneName) {
  const EmailAddress address("person@example.org");
  const RefCertificate certificate = handle(issueCA("CN=Root"));
  const TempDir directory;
  HashDirLookupMethod method(directory.string());
  walkBoth([&] { method.add(address, certificate); });
  const auto entries = std::filesystem::directory_iterator(directory.path());
  EXPECT_EQ(std::distance(begin(entries), end(entries)), 1);
  walkBoth([&] {
    std::list<RefCertificate> found;
    method.getByEmailAddress("", address, found);
    EXPECT_EQ(found.size(), 1U);
  });
}

TEST(StoreAllocation, Verifier_Constructed) {
  const Issued root = issueCA("CN=Root");
  const RefCertificate certificate = handle(root);
  walkBoth([&] {
    const RefObjectStore store("/nonexistent", X509_FILETYPE_PEM);
    const Verifier verifier(store, certificate, false);
  });
}

TEST(StoreAllocation, OwnerOfAMethodOrAnObject_DeletesWhatItWasGiven) {
  Events events;
  events.reserve(8);
  auto* const method = new FakeMethod("Fake", &events);
  ownAllocations = 0;
  bool thrown = false;
  try {
    const RefLookupMethod handle(method);
  } catch (const std::bad_alloc&) {
    thrown = true;
  }
  ownAllocations = -1;
  EXPECT_TRUE(thrown);
  EXPECT_EQ(events, (Events{"destroyed"}));

  const RefCertificate certificate = handle(issueCA("CN=Root"));
  walk(ownAllocations, [&] { const RefObject object(certificate); });
  EXPECT_EQ(certificate->referenceCount(), 1);
}

}  // namespace
}  // namespace Velantrix::Test

int main(int argc, char** argv) {
  // Only possible before OpenSSL has allocated anything.
  if (CRYPTO_set_mem_functions(allocate, reallocate, release) != 1) return EXIT_FAILURE;
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
