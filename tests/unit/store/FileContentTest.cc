#include "foundation/run/VerificationRun.h"
#include "store/FileContent.h"
#include "support/Bulk.h"
#include "support/Memory.h"
#include "unit/store/Model.h"

#include <pkx509/FileCache.h>
#include <pkx509/HashDirLookup.h>
#include <velantrix/CertificateFactory.h>

#include <openssl/crypto.h>
#include <openssl/pem.h>

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>
#include <thread>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using namespace std::chrono_literals;

using Certificates = std::list<RefCertificate>;
using CRLs = std::list<RefCertificateRevocationList>;

// A directory whose files are settled as soon as they are written.
class KeptFiles : public testing::Test {
 protected:
  KeptFiles() { FileCache::clear(); }
  ~KeptFiles() override { FileCache::clear(); }

  Certificates certificates() {
    Certificates out;
    method.getBySubject(name, out);
    return out;
  }
  CRLs crls() {
    CRLs out;
    method.getBySubject(name, out);
    return out;
  }
  CRLs crlsOf(const Uri& forURI) {
    CRLs out;
    method.getBySubject(forURI, out);
    return out;
  }
  // What a look-up for CRLs throws, all that there is to it.
  std::string failure() {
    try {
      crls();
    } catch (const Exception& thrown) {
      return thrown.asString();
    }
    return {};
  }
  std::filesystem::path certificateFile() const { return directory / hashName(root.get()); }
  std::filesystem::path crlFile() const { return directory / crlHashName(crl.get()); }

  TempDir directory;
  HashDirLookupMethod method{directory.string()};
  Issued root = issueCA("C=DE,O=Example,CN=Root");
  Owned<X509_CRL> crl = makeCRL({.issuer = &root});
  DistinguishedName name = handle(root)->subject();
  StampClockAhead later{3s};
};

TEST_F(KeptFiles, TwoLookups_ReturnTheSameObjects) {
  writeFile(certificateFile(), pem(root.get()));
  writeFile(crlFile(), pem(crl.get()));
  EXPECT_EQ(pointers(certificates()), pointers(certificates()));
  EXPECT_EQ(pointers(crls()), pointers(crls()));
  HashDirLookupMethod another(directory.string());
  CRLs out;
  another.getBySubject(name, out);
  EXPECT_EQ(pointers(out), pointers(crls()));
}

TEST_F(KeptFiles, SignatureThatOneLookupHasChecked_TheNextRemembers) {
  writeFile(crlFile(), pem(crl.get()));
  EXPECT_TRUE(crls().front()->isSignedBy(root.key.get()));
  EXPECT_TRUE(crls().front()->isSignedBy(root.key.get()));
  EXPECT_EQ(crls().front()->signatureChecks(), 1U);
}

TEST_F(KeptFiles, BytesThatAVerificationDecodes_AreCountedForWhatIsKeptToo) {
  writeFile(crlFile(), pem(crl.get()));
  crls();
  const std::size_t size = std::filesystem::file_size(crlFile());
  const VerificationRun run(nullptr);
  ASSERT_TRUE(VerificationRun::admitDecoding(VerificationRun::kMaximumDecodedBytes - 2 * size));
  EXPECT_EQ(crls().size(), 1U);
  EXPECT_EQ(crls().size(), 1U);
  EXPECT_FALSE(run.fellShort());
  EXPECT_TRUE(crls().empty());
  EXPECT_TRUE(run.fellShort());
}

TEST_F(KeptFiles, CertificateOfTheVerification_IsTakenInThePlaceOfTheOneThatIsKept) {
  writeFile(certificateFile(), pem(root.get()));
  const RefCertificate kept = certificates().front();
  EXPECT_NE(static_cast<X509*>(kept), root.get());
  {
    VerificationRun run(nullptr);
    run.know(root.get());
    EXPECT_EQ(static_cast<X509*>(certificates().front()), root.get());
    FileCache::clear();
    EXPECT_EQ(static_cast<X509*>(certificates().front()), root.get());
  }
  // It is the caller's, and did not come to stay.
  EXPECT_NE(static_cast<X509*>(certificates().front()), root.get());
  EXPECT_EQ(pointers(certificates()), pointers(certificates()));
}

TEST_F(KeptFiles, CertificateWithTrustSettings_IsNotReplaced) {
  const Owned<BIO> out(BIO_new(BIO_s_mem()));
  const Owned<X509> trusted(X509_dup(root.get()));
  ASSERT_EQ(X509_add1_reject_object(trusted.get(), OBJ_nid2obj(NID_server_auth)), 1);
  ASSERT_EQ(PEM_write_bio_X509_AUX(out.get(), trusted.get()), 1);
  char* text = nullptr;
  const long length = BIO_get_mem_data(out.get(), &text);
  writeFile(certificateFile(), {text, static_cast<std::size_t>(length)});
  VerificationRun run(nullptr);
  run.know(root.get());
  for (int i = 0; i < 2; ++i) {
    const RefCertificate found = certificates().front();
    EXPECT_NE(static_cast<X509*>(found), root.get());
    EXPECT_NE(X509_get0_reject_objects(found), nullptr);
  }
}

TEST_F(KeptFiles, DamagedFile_FailsWithTheSameWordsAgainAndUnderEachName) {
  writeFile(crlFile(), "-----BEGIN X509 CRL-----\nAAAA\n-----END X509 CRL-----\n");
  const std::string first = failure();
  EXPECT_NE(first.find(crlFile().string() + ": malformed X509 CRL"), std::string::npos) << first;
  EXPECT_EQ(failure(), first);
  FileCache::limit(0);
  EXPECT_EQ(failure(), first);
  FileCache::limit(FileCache::kDefaultLimit);
  writeFile(crlFile(), pem(crl.get()));
  EXPECT_EQ(crls().size(), 1U);
}

TEST_F(KeptFiles, DamagedFileOfAURI_FailsWithTheSameWordsAgain) {
  const Uri uri("http://example.test/root.crl");
  writeFile(directory / HashDirLookupMethod::fileName(uri),
            HashFileHeader::text(uri.canonicalized(), Time::now()) + "no CRL");
  std::vector<std::string> said;
  for (const std::size_t limit :
       {FileCache::kDefaultLimit, FileCache::kDefaultLimit, std::size_t{0}}) {
    FileCache::limit(limit);
    try {
      crlsOf(uri);
    } catch (const Exception& thrown) {
      said.push_back(thrown.asString());
    }
  }
  FileCache::limit(FileCache::kDefaultLimit);
  ASSERT_EQ(said.size(), 3U);
  EXPECT_EQ(said[1], said[0]);
  EXPECT_EQ(said[2], said[0]);
  EXPECT_NE(said[0].find("neither PEM nor DER"), std::string::npos) << said[0];
}

TEST_F(KeptFiles, FileForAnotherURI_IsPassedOverAndServesTheOneItIsFor) {
  const Uri uri("http://example.test/root.crl");
  const Uri other("http://example.test/other.crl");
  const std::string header = HashFileHeader::text(other.canonicalized(), Time::now());
  const auto file = directory / HashDirLookupMethod::fileName(uri);
  writeFile(file, header + "no CRL");
  EXPECT_TRUE(crlsOf(uri).empty());
  EXPECT_TRUE(crlsOf(uri).empty());

  const std::string path = file.string();
  writeFile(file, header + pem(crl.get()));
  const auto isFor = [](const Uri& wanted) {
    return [&wanted](const HashFileHeader& found) { return found.uri == wanted.canonicalized(); };
  };
  const auto contentFor = [&](const Uri& wanted) {
    return contentOf<WholeCRLInFile>(File::Path(path), FileStamp::at(path.c_str()), isFor(wanted));
  };
  EXPECT_FALSE(contentFor(uri)->read);
  const auto held = contentFor(other);
  EXPECT_FALSE(held->crl.empty());
  EXPECT_EQ(contentFor(other), held);
  EXPECT_EQ(contentFor(uri), held);
}

TEST_F(KeptFiles, CRLWithoutNextUpdate_RunsOutByTheFileThatIsThereNow) {
  const Owned<X509_CRL> open = makeCRL({.issuer = &root, .nextUpdate = std::nullopt});
  const std::string path = crlFile().string();
  writeFile(path, pem(open.get()));
  EXPECT_EQ(crls().size(), 1U);
  const RefCertificateRevocationList kept = crls().front();
  const timespec longAgo[] = {{1, 0}, {1, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), longAgo, 0), 0);
  EXPECT_TRUE(crls().empty());
}

TEST_F(KeptFiles, ThreadInALibraryContextOfItsOwn_GetsObjectsOfItsOwn) {
  writeFile(certificateFile(), pem(root.get()));
  const RefCertificate kept = certificates().front();
  std::thread([&] {
    const std::unique_ptr<OSSL_LIB_CTX, decltype(&OSSL_LIB_CTX_free)> context(OSSL_LIB_CTX_new(),
                                                                              OSSL_LIB_CTX_free);
    OSSL_LIB_CTX* const former = OSSL_LIB_CTX_set0_default(context.get());
    EXPECT_NE(certificates().front().get(), kept.get());
    OSSL_LIB_CTX_set0_default(former);
  }).join();
  EXPECT_EQ(certificates().front().get(), kept.get());
}

TEST_F(KeptFiles, CertificateThatOpenSSLCannotMakeSenseOf_IsReadEachTime) {
  writeFile(certificateFile(),
            Bulk::certificate(Bulk::name("x"), Bulk::extension(19, "no basic constraints")));
  EXPECT_EQ(certificates().size(), 1U);
  EXPECT_EQ(FileCache::usage().files, 1U);  // the names in the directory
  writeFile(certificateFile(), pem(root.get()));
  EXPECT_EQ(certificates().size(), 1U);
  EXPECT_EQ(FileCache::usage().files, 2U);
}

// How much of the heap a look-up for the content takes for each octet that is counted for it, after `use`.
template <class Content, class Use>
double heapPerCountedOctet(const std::filesystem::path& file, const Use& use) {
  const std::string path = file.string();
  const auto look = [&] {
    const auto held =
        contentOf<Content>(File::Path(path), FileStamp::at(path.c_str()), IsWantedFile());
    use(*held);
    return held->memory();
  };
  look();  // what OpenSSL allocates once
  FileCache::clear();
  ::malloc_trim(0);
  const std::size_t before = heapInUse();
  const std::size_t counted = look();
  return static_cast<double>(heapInUse() - before) / static_cast<double>(counted);
}

TEST_F(KeptFiles, MemoryThatIsCounted_IsThatOfTheHeap) {
  std::string many;
  for (int i = 0; i < 60; ++i) many += pem(root.get());
  writeFile(certificateFile(), many);
  const Issued rsa =
      issue({.subject = "C=DE,O=Example,CN=RSA", .ca = true, .keyKind = KeyKind::Rsa2048});
  std::string manyRsa;
  for (int i = 0; i < 60; ++i) manyRsa += pem(rsa.get());
  writeFile(directory / "rsa", manyRsa);
  const std::string entries = Bulk::repeated(
      Bulk::sequence("\x02\x08\x11\x22\x33\x44\x55\x66\x77\x08" + Bulk::kFrom), 400000);
  writeFile(crlFile(), Bulk::crl(Bulk::extension(20, "\x02\x01\x01"), entries));
  const auto asItIs = [](const auto&) {};
  // OpenSSL's object is made for who asks.
  const auto asOpenSSLs = [](const auto& held) { EXPECT_NE(held.crl->native(), nullptr); };
  const double ratios[] = {heapPerCountedOctet<CertificatesInFile>(certificateFile(), asItIs),
                           heapPerCountedOctet<CertificatesInFile>(directory / "rsa", asItIs),
                           heapPerCountedOctet<WholeCRLInFile>(crlFile(), asItIs),
                           heapPerCountedOctet<WholeCRLInFile>(crlFile(), asOpenSSLs)};
  for (const double ratio : ratios) {
    EXPECT_GT(ratio, 0.6);
    EXPECT_LT(ratio, 1.2);
  }
}

}  // namespace
}  // namespace Velantrix::Test
