// One verification of a leaf under an intermediate and a root.
//
// The floor is what no implementation can do without: the signatures of two certificates and two
// CRLs. OpenSSL checks the root's CRL twice, for the intermediate and for the root itself.
#include "Fixture.h"
#include "support/Handles.h"

#include <pkx509/FileCache.h>
#include <velantrix/Buffer.h>
#include <velantrix/CertificateFactory.h>

#include <openssl/pem.h>

#include <array>
#include <benchmark/benchmark.h>

namespace Velantrix::Bench {
namespace {

using namespace Crypto::PKX509;
using Crypto::Owned;

const Chain& chainOf(Test::KeyKind kind) {
  static const Chain rsa(Test::KeyKind::Rsa2048);
  static const Chain p256(Test::KeyKind::P256);
  return kind == Test::KeyKind::Rsa2048 ? rsa : p256;
}

void require(benchmark::State& state, bool valid) {
  if (!valid) state.SkipWithError("not valid");
}

// What EVP_DigestVerify wants of one signed object.
struct Signed {
  EVP_PKEY* key;  // borrowed
  std::string content;
  std::string signature;
};

std::string octets(const ASN1_STRING* string) {
  const unsigned char* const data = ASN1_STRING_get0_data(string);
  return std::string(data, data + ASN1_STRING_length(string));
}

Signed signedCertificate(X509* cert, EVP_PKEY* key) {
  const ASN1_BIT_STRING* signature = nullptr;
  const X509_ALGOR* algorithm = nullptr;
  X509_get0_signature(&signature, &algorithm, cert);
  unsigned char* content = nullptr;
  const int length = i2d_re_X509_tbs(cert, &content);
  const Crypto::OwnedMemory<unsigned char> owner(content);
  return {key, std::string(content, content + length), octets(signature)};
}

Signed signedCRL(X509_CRL* crl, EVP_PKEY* key) {
  const ASN1_BIT_STRING* signature = nullptr;
  const X509_ALGOR* algorithm = nullptr;
  X509_CRL_get0_signature(crl, &signature, &algorithm);
  unsigned char* content = nullptr;
  const int length = i2d_re_X509_CRL_tbs(crl, &content);
  const Crypto::OwnedMemory<unsigned char> owner(content);
  return {key, std::string(content, content + length), octets(signature)};
}

bool verifies(const Signed& object) {
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        EVP_MD_CTX_free);
  const auto bytes = [](const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
  };
  return EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha256(), nullptr, object.key) == 1 &&
         EVP_DigestVerify(context.get(), bytes(object.signature), object.signature.size(),
                          bytes(object.content), object.content.size()) == 1;
}

void floorOf(benchmark::State& state, Test::KeyKind kind) {
  const Chain& chain = chainOf(kind);
  EVP_PKEY* const root = X509_get0_pubkey(chain.root.get());
  EVP_PKEY* const intermediate = X509_get0_pubkey(chain.intermediate.get());
  const std::array<Signed, 4> all{signedCertificate(chain.intermediate.get(), root),
                                  signedCertificate(chain.leaf.get(), intermediate),
                                  signedCRL(chain.rootCRL.get(), root),
                                  signedCRL(chain.intermediateCRL.get(), intermediate)};
  for (auto _ : state) {
    for (const Signed& object : all) require(state, verifies(object));
  }
}

// The CRLs have been found and checked before, as for a daemon that keeps them.
void foundVerifier(benchmark::State& state, Test::KeyKind kind, Verify verify) {
  const LibraryChain chain(chainOf(kind));
  for (auto _ : state) require(state, verify(chain.store, chain.leaf, chain.untrusted));
}

// The same with CRL objects that no verification has seen, so that every signature is checked.
void unseenVerifier(benchmark::State& state, Test::KeyKind kind, Verify verify) {
  const LibraryChain chain(chainOf(kind));
  for (auto _ : state) {
    state.PauseTiming();
    chain.renewCRLs(chainOf(kind));
    state.ResumeTiming();
    require(state, verify(chain.store, chain.leaf, chain.untrusted));
  }
}

void foundOpenSSL(benchmark::State& state, Test::KeyKind kind) {
  const Chain& chain = chainOf(kind);
  const Owned<X509_STORE> store = openSSLStore(chain);
  for (auto _ : state) {
    require(state, openSSLVerify(store.get(), chain.leaf.get(), chain.untrusted()));
  }
}

// A store for each verification. What was read of the directory before is not read again.
void freshVerifier(benchmark::State& state, Test::KeyKind kind, Verify verify) {
  const Chain& chain = chainOf(kind);
  settle(chain);
  const LibraryChain objects(chain);
  for (auto _ : state) {
    require(state, freshVerify(chain, objects, objects.leaf, verify));
  }
}

// The certificate is read too, as it came with a message.
void freshVerifierOfPEM(benchmark::State& state, Test::KeyKind kind, Verify verify) {
  const Chain& chain = chainOf(kind);
  settle(chain);
  const LibraryChain objects(chain);
  const std::string pem = Test::pem(chain.leaf.get());
  for (auto _ : state) {
    std::list<RefCertificate> read;
    CertificateFactory::read(Buffer(pem.data(), static_cast<unsigned int>(pem.size()), false),
                             read);
    require(state, freshVerify(chain, objects, read.front(), verify));
  }
}

// OpenSSL with a store that has everything already.
void keptOpenSSLOfPEM(benchmark::State& state, Test::KeyKind kind) {
  const Chain& chain = chainOf(kind);
  const Owned<X509_STORE> store = openSSLStore(chain);
  const std::string pem = Test::pem(chain.leaf.get());
  for (auto _ : state) {
    const Owned<BIO> bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
    const Owned<X509> leaf(PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr));
    require(state, openSSLVerify(store.get(), leaf.get(), chain.untrusted()));
  }
}

// Everything out of the directory each time, nothing kept.
void forgetfulVerifier(benchmark::State& state, Test::KeyKind kind, Verify verify) {
  const std::size_t former = FileCache::limit();
  FileCache::limit(0);
  freshVerifier(state, kind, verify);
  FileCache::limit(former);
}

void freshOpenSSL(benchmark::State& state, Test::KeyKind kind) {
  const Chain& chain = chainOf(kind);
  const std::string directory = chain.directory.path().string();
  for (auto _ : state) {
    const Owned<X509_STORE> store(X509_STORE_new());
    X509_LOOKUP* const lookup = X509_STORE_add_lookup(store.get(), X509_LOOKUP_hash_dir());
    X509_LOOKUP_add_dir(lookup, directory.c_str(), X509_FILETYPE_PEM);
    X509_STORE_set_flags(store.get(), 0x30AC);
    require(state, openSSLVerify(store.get(), chain.leaf.get(), chain.untrusted()));
  }
}

// The certificate arrives as bytes, as it does with every message.
void parsedVerifier(benchmark::State& state, Test::KeyKind kind) {
  const LibraryChain chain(chainOf(kind));
  const std::string& der = chainOf(kind).leafDer;
  for (auto _ : state) {
    std::list<RefCertificate> read;
    CertificateFactory::read(Buffer(der.data(), static_cast<unsigned int>(der.size()), false),
                             read);
    require(state, libraryVerify(chain.store, read.front(), chain.untrusted));
  }
}

void parsedOpenSSL(benchmark::State& state, Test::KeyKind kind) {
  const Chain& chain = chainOf(kind);
  const Owned<X509_STORE> store = openSSLStore(chain);
  for (auto _ : state) {
    const auto* position = reinterpret_cast<const unsigned char*>(chain.leafDer.data());
    const Owned<X509> leaf(d2i_X509(nullptr, &position, static_cast<long>(chain.leafDer.size())));
    require(state, openSSLVerify(store.get(), leaf.get(), chain.untrusted()));
  }
}

constexpr Test::KeyKind kRsa = Test::KeyKind::Rsa2048;
constexpr Test::KeyKind kP256 = Test::KeyKind::P256;

// A name is group/variant; Main.cc prints the variants of a group as ratios.
BENCHMARK_CAPTURE(foundVerifier, rsa, kRsa, libraryVerify)->Name("found CRLs, RSA-2048/library");
BENCHMARK_CAPTURE(foundVerifier, rsa_conforming, kRsa, conformingVerify)
    ->Name("found CRLs, RSA-2048/conforming");
BENCHMARK_CAPTURE(foundVerifier, rsa_report, kRsa, libraryReport)
    ->Name("found CRLs, RSA-2048/library, report read");
BENCHMARK_CAPTURE(foundVerifier, rsa_conforming_report, kRsa, conformingReport)
    ->Name("found CRLs, RSA-2048/conforming, report read");
BENCHMARK_CAPTURE(unseenVerifier, rsa, kRsa, libraryVerify)
    ->Name("found CRLs, RSA-2048/library, CRLs unseen");
BENCHMARK_CAPTURE(unseenVerifier, rsa_conforming, kRsa, conformingVerify)
    ->Name("found CRLs, RSA-2048/conforming, CRLs unseen");
BENCHMARK_CAPTURE(foundOpenSSL, rsa, kRsa)->Name("found CRLs, RSA-2048/openssl");
BENCHMARK_CAPTURE(floorOf, rsa, kRsa)->Name("found CRLs, RSA-2048/floor");
BENCHMARK_CAPTURE(foundVerifier, p256, kP256, libraryVerify)->Name("found CRLs, P-256/library");
BENCHMARK_CAPTURE(foundVerifier, p256_conforming, kP256, conformingVerify)
    ->Name("found CRLs, P-256/conforming");
BENCHMARK_CAPTURE(foundVerifier, p256_report, kP256, libraryReport)
    ->Name("found CRLs, P-256/library, report read");
BENCHMARK_CAPTURE(foundVerifier, p256_conforming_report, kP256, conformingReport)
    ->Name("found CRLs, P-256/conforming, report read");
BENCHMARK_CAPTURE(unseenVerifier, p256, kP256, libraryVerify)
    ->Name("found CRLs, P-256/library, CRLs unseen");
BENCHMARK_CAPTURE(unseenVerifier, p256_conforming, kP256, conformingVerify)
    ->Name("found CRLs, P-256/conforming, CRLs unseen");
BENCHMARK_CAPTURE(foundOpenSSL, p256, kP256)->Name("found CRLs, P-256/openssl");
BENCHMARK_CAPTURE(floorOf, p256, kP256)->Name("found CRLs, P-256/floor");
BENCHMARK_CAPTURE(freshVerifier, rsa, kRsa, libraryVerify)->Name("fresh store, RSA-2048/library");
BENCHMARK_CAPTURE(forgetfulVerifier, rsa, kRsa, libraryVerify)
    ->Name("fresh store, RSA-2048/library, nothing kept");
BENCHMARK_CAPTURE(freshVerifier, rsa_conforming, kRsa, conformingVerify)
    ->Name("fresh store, RSA-2048/conforming");
BENCHMARK_CAPTURE(freshVerifier, rsa_report, kRsa, libraryReport)
    ->Name("fresh store, RSA-2048/library, report read");
BENCHMARK_CAPTURE(freshVerifier, rsa_conforming_report, kRsa, conformingReport)
    ->Name("fresh store, RSA-2048/conforming, report read");
BENCHMARK_CAPTURE(freshOpenSSL, rsa, kRsa)->Name("fresh store, RSA-2048/openssl");
BENCHMARK_CAPTURE(floorOf, rsa, kRsa)->Name("fresh store, RSA-2048/floor");
BENCHMARK_CAPTURE(freshVerifier, p256, kP256, libraryVerify)->Name("fresh store, P-256/library");
BENCHMARK_CAPTURE(forgetfulVerifier, p256, kP256, libraryVerify)
    ->Name("fresh store, P-256/library, nothing kept");
BENCHMARK_CAPTURE(freshVerifier, p256_conforming, kP256, conformingVerify)
    ->Name("fresh store, P-256/conforming");
BENCHMARK_CAPTURE(freshVerifier, p256_report, kP256, libraryReport)
    ->Name("fresh store, P-256/library, report read");
BENCHMARK_CAPTURE(freshVerifier, p256_conforming_report, kP256, conformingReport)
    ->Name("fresh store, P-256/conforming, report read");
BENCHMARK_CAPTURE(freshOpenSSL, p256, kP256)->Name("fresh store, P-256/openssl");
BENCHMARK_CAPTURE(floorOf, p256, kP256)->Name("fresh store, P-256/floor");
BENCHMARK_CAPTURE(freshVerifierOfPEM, rsa, kRsa, libraryVerify)
    ->Name("fresh store, leaf from PEM, RSA-2048/library");
BENCHMARK_CAPTURE(freshVerifierOfPEM, rsa, kRsa, conformingVerify)
    ->Name("fresh store, leaf from PEM, RSA-2048/conforming");
BENCHMARK_CAPTURE(keptOpenSSLOfPEM, rsa, kRsa)
    ->Name("fresh store, leaf from PEM, RSA-2048/openssl");
BENCHMARK_CAPTURE(floorOf, rsa, kRsa)->Name("fresh store, leaf from PEM, RSA-2048/floor");
BENCHMARK_CAPTURE(freshVerifierOfPEM, p256, kP256, libraryVerify)
    ->Name("fresh store, leaf from PEM, P-256/library");
BENCHMARK_CAPTURE(freshVerifierOfPEM, p256, kP256, conformingVerify)
    ->Name("fresh store, leaf from PEM, P-256/conforming");
BENCHMARK_CAPTURE(keptOpenSSLOfPEM, p256, kP256)->Name("fresh store, leaf from PEM, P-256/openssl");
BENCHMARK_CAPTURE(floorOf, p256, kP256)->Name("fresh store, leaf from PEM, P-256/floor");
BENCHMARK_CAPTURE(parsedVerifier, rsa, kRsa)->Name("leaf parsed, RSA-2048/library");
BENCHMARK_CAPTURE(parsedOpenSSL, rsa, kRsa)->Name("leaf parsed, RSA-2048/openssl");
BENCHMARK_CAPTURE(parsedVerifier, p256, kP256)->Name("leaf parsed, P-256/library");
BENCHMARK_CAPTURE(parsedOpenSSL, p256, kP256)->Name("leaf parsed, P-256/openssl");

}  // namespace
}  // namespace Velantrix::Bench
