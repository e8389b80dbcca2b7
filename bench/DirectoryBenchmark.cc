// Finding the CRL of one issuer in hash directories of different sizes.
//
// OpenSSL opens the files that an issuer's hash may name. The library takes names that no one can enumerate
// (upper case, blanks, any suffix), so it reads the directory's names when the directory has changed.
#include "Fixture.h"

#include <pkx509/HashDirLookup.h>

#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <dirent.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sys/stat.h>
#include <thread>

namespace Velantrix::Bench {
namespace {

using namespace Crypto::PKX509;
using Crypto::Owned;

struct Directory {
  explicit Directory(int files) : crl(Test::makeCRL({.issuer = &issuer})) {
    Test::addToDirectory(directory.path(), crl.get());
    for (int i = 1; i < files; ++i) {
      char name[32];
      std::snprintf(name, sizeof name, "%08x.r0", static_cast<unsigned int>(i) * 2654435761U);
      std::ofstream(directory.path() / name);
    }
  }

  // What has changed within two seconds is read each time.
  void settle() const {
    struct stat status = {};
    if (::stat(directory.path().c_str(), &status) != 0) return;
    const auto settled = std::chrono::system_clock::from_time_t(status.st_ctim.tv_sec) +
                         std::chrono::milliseconds(3100);
    std::this_thread::sleep_until(settled);
  }

  void change() const {
    const std::filesystem::path other = directory.path() / "other";
    std::ofstream(other).close();
    std::filesystem::remove(other);
  }

  Test::TempDir directory;
  Test::Issued issuer = Test::issueCA("CN=Issuer,O=Bench");
  Owned<X509_CRL> crl;
};

const Directory& directoryOf(int files) {
  static std::map<int, std::unique_ptr<Directory>> made;
  std::unique_ptr<Directory>& directory = made[files];
  if (directory == nullptr) directory = std::make_unique<Directory>(files);
  return *directory;
}

void library(benchmark::State& state, int files) {
  const Directory& directory = directoryOf(files);
  const DistinguishedName issuer(X509_CRL_get_issuer(directory.crl.get()));
  HashDirLookupMethod method(directory.directory.path().string());
  directory.settle();
  for (auto _ : state) {
    std::list<RefCertificateRevocationList> found;
    method.getBySubject(issuer, found);
    if (found.size() != 1) state.SkipWithError("not found");
  }
}

void changedLibrary(benchmark::State& state, int files) {
  const Directory& directory = directoryOf(files);
  const DistinguishedName issuer(X509_CRL_get_issuer(directory.crl.get()));
  HashDirLookupMethod method(directory.directory.path().string());
  for (auto _ : state) {
    state.PauseTiming();
    directory.change();
    directory.settle();
    state.ResumeTiming();
    std::list<RefCertificateRevocationList> found;
    method.getBySubject(issuer, found);
    if (found.size() != 1) state.SkipWithError("not found");
  }
}

void listing(benchmark::State& state, int files) {
  const Directory& directory = directoryOf(files);
  for (auto _ : state) {
    const std::unique_ptr<DIR, int (*)(DIR*)> open(::opendir(directory.directory.path().c_str()),
                                                   ::closedir);
    int names = 0;
    while (::readdir(open.get()) != nullptr) ++names;
    if (names < files) state.SkipWithError("not listed");
  }
}

void openSSL(benchmark::State& state, int files) {
  const Directory& directory = directoryOf(files);
  const std::string path = directory.directory.path().string();
  for (auto _ : state) {
    const Owned<X509_STORE> store(X509_STORE_new());
    X509_LOOKUP* const lookup = X509_STORE_add_lookup(store.get(), X509_LOOKUP_hash_dir());
    X509_LOOKUP_add_dir(lookup, path.c_str(), X509_FILETYPE_PEM);
    const Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
    X509_STORE_CTX_init(context.get(), store.get(), nullptr, nullptr);
    const Owned<X509_OBJECT> found(X509_OBJECT_new());
    if (X509_STORE_CTX_get_by_subject(context.get(), X509_LU_CRL,
                                      X509_CRL_get_issuer(directory.crl.get()), found.get()) != 1) {
      state.SkipWithError("not found");
    }
  }
}

BENCHMARK_CAPTURE(library, small, 10)->Name("directory of 10 files/library");
BENCHMARK_CAPTURE(openSSL, small, 10)->Name("directory of 10 files/openssl");
BENCHMARK_CAPTURE(library, medium, 1000)->Name("directory of 1000 files/library");
BENCHMARK_CAPTURE(openSSL, medium, 1000)->Name("directory of 1000 files/openssl");
BENCHMARK_CAPTURE(library, large, 100000)->Name("directory of 100000 files/library");
BENCHMARK_CAPTURE(openSSL, large, 100000)->Name("directory of 100000 files/openssl");

// Each waits for the directory to settle.
BENCHMARK_CAPTURE(changedLibrary, large, 100000)
    ->Name("directory of 100000 files, changed/library")
    ->Iterations(1);
BENCHMARK_CAPTURE(listing, large, 100000)
    ->Name("directory of 100000 files, changed/floor")
    ->Iterations(1);

}  // namespace
}  // namespace Velantrix::Bench
