// Long CRLs: reading one, the first verification with it, and later ones; held against OpenSSL, and against
// a SHA-256 of the octets, below which no signature can be verified.
#include "Fixture.h"
#include "PeakMemory.h"

#include <pkx509/FileCache.h>
#include <velantrix/Buffer.h>
#include <velantrix/File.h>

#include <openssl/evp.h>

#include <atomic>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <map>
#include <memory>
#include <thread>
#include <vector>

namespace Velantrix::Bench {
namespace {

using namespace Crypto::PKX509;
using Crypto::Owned;

struct LongCRL {
  explicit LongCRL(int entries)
      : chain(Test::KeyKind::P256, static_cast<std::size_t>(entries)),
        der(Test::der(chain.intermediateCRL.get())),
        pem(Test::pem(chain.intermediateCRL.get())) {
    Test::writeFile(files / "der", der);
    Test::writeFile(files / "pem", pem);
  }

  Chain chain;
  std::string der;
  std::string pem;
  Test::TempDir files;
};

LongCRL& crlOf(int entries) {
  static std::map<int, std::unique_ptr<LongCRL>> made;
  std::unique_ptr<LongCRL>& crl = made[entries];
  if (crl == nullptr) crl = std::make_unique<LongCRL>(entries);
  return *crl;
}

RefCertificateRevocationList readByLibrary(const std::string& der) {
  return CertificateRevocationListFactory::read(
      Buffer(der.data(), static_cast<unsigned int>(der.size()), false));
}

Owned<X509_CRL> readByOpenSSL(const std::string& der) {
  const auto* position = reinterpret_cast<const unsigned char*>(der.data());
  return Owned<X509_CRL>(d2i_X509_CRL(nullptr, &position, static_cast<long>(der.size())));
}

RefCertificateRevocationList readFromFile(const std::string& file) {
  return CertificateRevocationListFactory::read(File::Path(file));
}

std::size_t memoryInUse() {
  const struct mallinfo2 now = mallinfo2();
  return now.uordblks + now.hblkhd;
}

// With what is kept, and what is held at most, in sizes of the DER.
void readFile(benchmark::State& state, LongCRL& crl, const char* file, const std::string& content) {
  const std::string path = (crl.files / file).string();
  for (auto _ : state) benchmark::DoNotOptimize(readFromFile(path));
  const auto size = static_cast<double>(crl.der.size());
  const std::size_t before = memoryInUse();
  const RefCertificateRevocationList kept = readFromFile(path);
  state.counters["kept/size"] = static_cast<double>(memoryInUse() - before) / size;
  state.counters["peak/size"] = peakMemory("file", content) * 1024 * 1024 / size;
}

void readDerFile(benchmark::State& state, int entries) {
  LongCRL& crl = crlOf(entries);
  readFile(state, crl, "der", crl.der);
}

void readPemFile(benchmark::State& state, int entries) {
  LongCRL& crl = crlOf(entries);
  readFile(state, crl, "pem", crl.pem);
}

void hashDer(benchmark::State& state, int entries) {
  const std::string& der = crlOf(entries).der;
  unsigned char digest[EVP_MAX_MD_SIZE];
  for (auto _ : state) {
    EVP_Digest(der.data(), der.size(), digest, nullptr, EVP_sha256(), nullptr);
    benchmark::DoNotOptimize(digest);
  }
}

void parseLibrary(benchmark::State& state, int entries) {
  const std::string& der = crlOf(entries).der;
  for (auto _ : state) benchmark::DoNotOptimize(readByLibrary(der));
  state.counters["peak MiB"] = peakMemory("library", der);
}

void parseOpenSSL(benchmark::State& state, int entries) {
  const std::string& der = crlOf(entries).der;
  for (auto _ : state) benchmark::DoNotOptimize(readByOpenSSL(der));
  state.counters["peak MiB"] = peakMemory("openssl", der);
}

struct LibraryRun {
  explicit LibraryRun(LongCRL& crl) : chain(crl.chain) {
    // A CRL object that nothing has been asked of yet, in the place of the chain's own.
    auto* const found = static_cast<FoundCRLs*>(chain.store->methods().front().get());
    found->crls.pop_back();
    found->crls.push_back(readByLibrary(crl.der));
  }
  bool verify() { return libraryVerify(chain.store, chain.leaf, chain.untrusted); }

  LibraryChain chain;
};

struct OpenSSLRun {
  explicit OpenSSLRun(LongCRL& crl) : chain(crl.chain), store(X509_STORE_new()) {
    const Owned<X509_CRL> fresh = readByOpenSSL(crl.der);
    X509_STORE_add_cert(store.get(), chain.root.get());
    X509_STORE_add_crl(store.get(), chain.rootCRL.get());
    X509_STORE_add_crl(store.get(), fresh.get());
    X509_STORE_set_flags(store.get(), 0x30AC);
  }
  bool verify() { return openSSLVerify(store.get(), chain.leaf.get(), chain.untrusted()); }

  const Chain& chain;
  Owned<X509_STORE> store;
};

template <class Run>
void first(benchmark::State& state, int entries) {
  LongCRL& crl = crlOf(entries);
  for (auto _ : state) {
    state.PauseTiming();
    {
      Run run(crl);
      state.ResumeTiming();
      if (!run.verify()) state.SkipWithError("not valid");
      state.PauseTiming();
    }
    state.ResumeTiming();
  }
}

template <class Run>
void later(benchmark::State& state, int entries) {
  Run run(crlOf(entries));
  if (!run.verify()) state.SkipWithError("not valid");
  for (auto _ : state) {
    if (!run.verify()) state.SkipWithError("not valid");
  }
}

// What each mail costs where the CRL lies in a directory: a store of its own. The same with a few entries
// is what it is held against.
void inFreshStore(benchmark::State& state, int entries) {
  const Chain& chain = crlOf(entries).chain;
  settle(chain);
  const LibraryChain objects(chain);
  for (auto _ : state) {
    if (!freshVerify(chain, objects, objects.leaf, libraryVerify)) {
      state.SkipWithError("not valid");
    }
  }
}

// Threads that verify a few mails each, and nothing has been read before.
void inFreshStores(benchmark::State& state, int entries, int threads, int mails) {
  const Chain& chain = crlOf(entries).chain;
  settle(chain);
  std::atomic<bool> valid = true;
  for (auto _ : state) {
    FileCache::clear();
    std::vector<std::jthread> all;
    for (int i = 0; i < threads; ++i) {
      all.emplace_back([&] {
        const LibraryChain objects(chain);
        for (int mail = 0; mail < mails; ++mail) {
          if (!freshVerify(chain, objects, objects.leaf, libraryVerify)) valid = false;
        }
      });
    }
  }
  state.counters["kept/size"] = static_cast<double>(FileCache::usage().bytes) /
                                static_cast<double>(crlOf(entries).der.size());
  if (!valid) state.SkipWithError("not valid");
}

void registerFresh(int entries) {
  const std::string size = std::to_string(entries) + " entries";
  const auto few = [](benchmark::State& state) { inFreshStore(state, 10); };
  const auto many = [entries](benchmark::State& state) { inFreshStore(state, entries); };
  benchmark::RegisterBenchmark(("CRL of " + size + ", fresh store/library").c_str(), many)
      ->Repetitions(3);
  benchmark::RegisterBenchmark(("CRL of " + size + ", fresh store/10 entries").c_str(), few)
      ->Repetitions(3);
  const auto one = [entries](benchmark::State& state) { inFreshStores(state, entries, 1, 1); };
  const auto threads = [entries](benchmark::State& state) { inFreshStores(state, entries, 4, 8); };
  benchmark::RegisterBenchmark(("CRL of " + size + ", 4 threads of 8 mails/library").c_str(),
                               threads)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(2);
  benchmark::RegisterBenchmark(("CRL of " + size + ", 4 threads of 8 mails/one mail").c_str(), one)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(2);
}

void registerFor(int entries) {
  const std::string size = std::to_string(entries) + " entries";
  const auto add = [entries](const std::string& name, void (*run)(benchmark::State&, int)) {
    return benchmark::RegisterBenchmark(name.c_str(), run, entries)
        ->Unit(benchmark::kMillisecond)
        ->Repetitions(3);
  };
  // Reading the long ones takes seconds; a fixed number of them keeps the whole within minutes.
  constexpr int kFew = 2;
  add("CRL of " + size + ", read/library", parseLibrary)->Iterations(kFew);
  add("CRL of " + size + ", read/openssl", parseOpenSSL)->Iterations(kFew);
  add("CRL of " + size + ", DER from a file/library", readDerFile)->Iterations(kFew);
  add("CRL of " + size + ", DER from a file/sha256", hashDer)->Iterations(kFew);
  add("CRL of " + size + ", PEM from a file/library", readPemFile)->Iterations(kFew);
  add("CRL of " + size + ", PEM from a file/sha256", hashDer)->Iterations(kFew);
  add("CRL of " + size + ", first verification/library", first<LibraryRun>)->Iterations(kFew);
  add("CRL of " + size + ", first verification/openssl", first<OpenSSLRun>)->Iterations(kFew);
  add("CRL of " + size + ", first verification/sha256", hashDer)->Iterations(kFew);
  add("CRL of " + size + ", later verification/library", later<LibraryRun>)->MinTime(0.1);
  add("CRL of " + size + ", later verification/openssl", later<OpenSSLRun>)->Iterations(3);
}

const bool kRegistered = [] {
  registerFor(1000);
  registerFor(100000);
  registerFor(1000000);
  registerFresh(1000000);
  return true;
}();

}  // namespace

void readFileForPeak(const std::string& file) { benchmark::DoNotOptimize(readFromFile(file)); }

void readForPeak(const std::string& who, const std::string& der) {
  if (who == "library") {
    benchmark::DoNotOptimize(readByLibrary(der));
  } else {
    benchmark::DoNotOptimize(readByOpenSSL(der));
  }
}

}  // namespace Velantrix::Bench
