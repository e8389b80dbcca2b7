#include "support/Command.h"
#include "unit/store/Model.h"
#include "unit/store/Unprivileged.h"

#include <pkx509/HashDirLookup.h>
#include <pkx509/ObjectStore.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>

#include <openssl/evp.h>

#include <algorithm>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <map>
#include <sys/stat.h>
#include <sys/un.h>
#include <type_traits>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using namespace std::chrono_literals;

static_assert(std::is_base_of_v<LookupMethod, HashDirLookupMethod>);

using Certificates = std::list<RefCertificate>;
using CRLs = std::list<RefCertificateRevocationList>;

/// The key of a text as the table in the header has it, computed another way.
std::string keyOf(const std::string& text) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  EXPECT_EQ(EVP_Digest(text.data(), text.size(), digest, nullptr, EVP_sha1(), nullptr), 1);
  char out[9];
  std::snprintf(out, sizeof out, "%02x%02x%02x%02x", digest[3], digest[2], digest[1], digest[0]);
  const std::string key(out);
  const std::size_t first = key.find_first_not_of('0');
  return first == std::string::npos ? "0" : key.substr(first);
}

std::vector<std::string> filesIn(const TempDir& directory) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

const std::string kEmailHeader = "Email: someone@example.test\n";

class HashDir : public testing::Test {
 protected:
  std::size_t certificates(const DistinguishedName& name) {
    Certificates out;
    method.getBySubject(name, out);
    return out.size();
  }
  std::size_t crls(const DistinguishedName& name) {
    CRLs out;
    method.getBySubject(name, out);
    return out.size();
  }
  std::size_t crls(const Uri& forURI) {
    CRLs out;
    method.getBySubject(forURI, out);
    return out.size();
  }
  std::string certificateKey() const { return hashName(root.get()).substr(0, 8); }

  /// What is thrown must name the file.
  template <class Call>
  void expectNamed(const std::filesystem::path& path, Call call) {
    try {
      call();
      ADD_FAILURE() << "nothing was thrown";
    } catch (const Exception& e) {
      EXPECT_EQ(e.code(), Exception::kFailure);
      EXPECT_NE(e.asString().find(path.string()), std::string::npos) << e.asString();
    }
  }

  TempDir directory;
  HashDirLookupMethod method{directory.string()};
  Issued root = issueCA("C=DE,O=Example,CN=Root");
  RefCertificate certificate = handle(root);
  Owned<X509_CRL> crl = makeCRL({.issuer = &root});
  Uri uri{"http://example.test/root.crl"};
  std::string uriFile = keyOf("http://example.test/root.crl") + ".r0";
};

// ------------------------------------------------------------------------------------------ by
// name

TEST_F(HashDir, CertificateBySubject_IsFound) {
  addToDirectory(directory.path(), root.get());
  Certificates out{certificate};
  method.getBySubject(certificate->subject(), out);
  ASSERT_EQ(out.size(), 2U) << "what was in the list stays";
  EXPECT_EQ(X509_cmp(out.back(), root.get()), 0);
  EXPECT_EQ(certificates(modelName("CN=Other")), 0U);
  EXPECT_EQ(crls(certificate->subject()), 0U);
}

TEST_F(HashDir, CRLByIssuer_IsFound) {
  addToDirectory(directory.path(), crl.get());
  CRLs out{handle(makeCRL({.issuer = &root}))};
  method.getBySubject(certificate->subject(), out);
  ASSERT_EQ(out.size(), 2U) << "what was in the list stays";
  EXPECT_EQ(der(out.back()), der(crl.get()));
  EXPECT_EQ(crls(modelName("CN=Other")), 0U);
}

TEST_F(HashDir, CRLFileOfTheKey_GivesACertificateQueryNothing) {
  addToDirectory(directory.path(), crl.get());
  EXPECT_EQ(certificates(certificate->subject()), 0U);
  addToDirectory(directory.path(), root.get());
  EXPECT_EQ(certificates(certificate->subject()), 1U);
  EXPECT_EQ(crls(certificate->subject()), 1U);
}

TEST_F(HashDir, CertificateFileOfTheKey_IsNotOpenedByACRLQuery) {
  writeFile(directory / hashName(root.get()), "neither of the two");
  EXPECT_EQ(crls(certificate->subject()), 0U);
  expectNamed(directory / hashName(root.get()), [&] { certificates(certificate->subject()); });
}

TEST_F(HashDir, SeveralFilesOfAKey_ComeInTheOrderOfTheirNames) {
  std::vector<std::string> expected;
  std::map<std::string, std::string> files;
  for (const char* const suffix : {"2", "10", "0", "1"}) {
    const auto one = makeCRL({.issuer = &root, .number = Serial()});
    files[certificateKey() + ".r" + suffix] = der(one.get());
    writeFile(directory / (certificateKey() + ".r" + suffix), pem(one.get()));
  }
  for (const auto& [name, content] : files) expected.push_back(content);
  CRLs out;
  method.getBySubject(certificate->subject(), out);
  std::vector<std::string> found;
  for (const RefCertificateRevocationList& one : out) found.push_back(der(one));
  EXPECT_EQ(found, expected);
}

TEST_F(HashDir, UpperCaseAndShortKeys_AreFound) {
  // A name whose key begins with zeros.
  Issued low;
  do {
    static int number = 0;
    low = issueCA("CN=Root " + std::to_string(number++));
  } while (nameHash(X509_get_subject_name(low.get())) >= 0x10000000U);
  const std::string full = hashName(low.get()).substr(0, 8);
  const std::string cut = full.substr(full.find_first_not_of('0'));
  std::string upper = full;
  std::transform(upper.begin(), upper.end(), upper.begin(),
                 [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
  for (const std::string& key : {full, cut, upper}) {
    const std::filesystem::path file = directory / (key + ".0");
    writeFile(file, pem(low.get()));
    EXPECT_EQ(certificates(handle(low)->subject()), 1U) << key;
    std::filesystem::remove(file);
  }
}

TEST_F(HashDir, RehashedDirectory_IsRead) {
  const Issued other = issueCA("CN=Other");
  writeFile(directory / "root.pem", pem(root.get()));
  writeFile(directory / "other.pem", pem(other.get()));
  writeFile(directory / "root-crl.pem", pem(crl.get()));
  for (const char* const program : {"rehash", "c_rehash"}) {
    SCOPED_TRACE(program);
    for (const std::string& name : filesIn(directory)) {
      if (!name.ends_with(".pem")) std::filesystem::remove(directory / name);
    }
    ASSERT_EQ(certificates(certificate->subject()), 0U);
    const CommandResult result = std::string(program) == "rehash"
                                     ? runCommand({"openssl", "rehash", directory.string()})
                                     : runCommand({"c_rehash", directory.string()});
    ASSERT_EQ(result.status, 0) << result.err;
    ASSERT_TRUE(std::filesystem::is_symlink(directory / hashName(root.get())));
    EXPECT_EQ(certificates(certificate->subject()), 1U);
    EXPECT_EQ(certificates(handle(other)->subject()), 1U);
    EXPECT_EQ(crls(certificate->subject()), 1U);
    EXPECT_EQ(crls(handle(other)->subject()), 0U);
  }
}

TEST_F(HashDir, KeyOfTheOpenSSLCommand_IsRead) {
  const std::string key =
      runCommand({"openssl", "x509", "-hash", "-noout"}, pem(root.get())).out.substr(0, 8);
  const std::string crlKey =
      runCommand({"openssl", "crl", "-hash", "-noout"}, pem(crl.get())).out.substr(0, 8);
  writeFile(directory / (key + ".0"), pem(root.get()));
  writeFile(directory / (crlKey + ".r0"), pem(crl.get()));
  EXPECT_EQ(certificates(certificate->subject()), 1U);
  EXPECT_EQ(crls(certificate->subject()), 1U);
}

// ------------------------------------------------------------------------------- what is not
// opened

TEST_F(HashDir, DirectoryThatDoesNotExist_IsEmpty) {
  HashDirLookupMethod nowhere((directory / "none").string());
  Certificates found;
  CRLs lists;
  nowhere.getBySubject(certificate->subject(), found);
  nowhere.getBySubject(certificate->subject(), lists);
  nowhere.getBySubject(uri, lists);
  nowhere.getByEmailAddress("", EmailAddress("someone@example.test"), found);
  EXPECT_TRUE(found.empty());
  EXPECT_TRUE(lists.empty());
}

TEST_F(HashDir, DirectoryThatCannotBeRead_IsAnExceptionThatNamesIt) {
  addToDirectory(directory.path(), root.get());
  const Unprivileged rights;
  ASSERT_EQ(::chmod(directory.path().c_str(), 0), 0);
  expectNamed(directory.path(), [&] { certificates(certificate->subject()); });
  expectNamed(directory.path(), [&] { crls(certificate->subject()); });
  expectNamed(directory.path(), [&] { crls(uri); });
  ASSERT_EQ(::chmod(directory.path().c_str(), 0700), 0);
}

TEST_F(HashDir, DirectoryThatIsAFile_IsAnExceptionThatNamesIt) {
  writeFile(directory / "file", "");
  HashDirLookupMethod file((directory / "file").string());
  Certificates out;
  expectNamed(directory / "file", [&] { file.getBySubject(certificate->subject(), out); });
}

TEST_F(HashDir, MatchingFileThatCannotBeRead_IsAnExceptionThatNamesIt) {
  const std::filesystem::path file = addToDirectory(directory.path(), crl.get());
  writeFile(directory / uriFile, pem(crl.get()));
  const Unprivileged rights;
  ASSERT_EQ(::chmod(file.c_str(), 0), 0);
  ASSERT_EQ(::chmod((directory / uriFile).c_str(), 0), 0);
  expectNamed(file, [&] { crls(certificate->subject()); });
  expectNamed(file, [&] { certificates(certificate->subject()); });
  expectNamed(directory / uriFile, [&] { crls(uri); });
}

TEST_F(HashDir, OtherFiles_AreNeverOpened) {
  addToDirectory(directory.path(), root.get());
  addToDirectory(directory.path(), crl.get());
  for (const std::string& name :
       {std::string("12345678.0"), std::string("12345678.r0"), std::string("root.pem"),
        std::string("README"), certificateKey() + ".pem", certificateKey() + ".R0",
        certificateKey() + "_.0", certificateKey() + "-.r0", certificateKey() + "g.r0",
        certificateKey()}) {
    writeFile(directory / name, "secret");
    ASSERT_EQ(::chmod((directory / name).c_str(), 0), 0);
  }
  const Unprivileged rights;
  EXPECT_EQ(certificates(certificate->subject()), 1U);
  EXPECT_EQ(crls(certificate->subject()), 1U);
  EXPECT_EQ(crls(uri), 0U);
}

TEST_F(HashDir, NoRegularFileUnderAKey_IsPassedOver) {
  // A FIFO would block whoever opens it.
  ASSERT_EQ(::mkfifo((directory / hashName(root.get(), 0)).c_str(), 0600), 0);
  ASSERT_EQ(::mkfifo((directory / crlHashName(crl.get(), 0)).c_str(), 0600), 0);
  ASSERT_EQ(::mkfifo((directory / uriFile).c_str(), 0600), 0);
  std::filesystem::create_symlink(directory / hashName(root.get(), 0),
                                  directory / hashName(root.get(), 1));
  std::filesystem::create_directory(directory / hashName(root.get(), 2));
  writeFile(directory / hashName(root.get(), 2) / hashName(root.get(), 0), pem(root.get()));
  std::filesystem::create_directory(directory / crlHashName(crl.get(), 2));
  std::filesystem::create_symlink(directory / "nowhere", directory / hashName(root.get(), 3));
  std::filesystem::create_symlink(directory / "nowhere", directory / crlHashName(crl.get(), 3));
  std::filesystem::create_symlink(hashName(root.get(), 4), directory / hashName(root.get(), 4));
  std::filesystem::create_symlink(directory.path(), directory / crlHashName(crl.get(), 4));
  EXPECT_EQ(certificates(certificate->subject()), 0U);
  EXPECT_EQ(crls(certificate->subject()), 0U);
  EXPECT_EQ(crls(uri), 0U);

  writeFile(directory / hashName(root.get(), 5), pem(root.get()));
  writeFile(directory / crlHashName(crl.get(), 5), pem(crl.get()));
  EXPECT_EQ(certificates(certificate->subject()), 1U);
  EXPECT_EQ(crls(certificate->subject()), 1U);
}

TEST_F(HashDir, TenThousandOtherFiles_AreNotEvenLookedAt) {
  // A look at one of these links would fail: it leads through a directory without permission.
  const TempDir closed;
  ASSERT_EQ(::chmod(closed.path().c_str(), 0), 0);
  for (int i = 0; i < 10000; ++i) {
    char name[16];
    std::snprintf(name, sizeof name, "%08x.%s%d", 0x10000000U + static_cast<unsigned int>(i),
                  i % 2 == 0 ? "" : "r", i % 3);
    ASSERT_EQ(::symlink((closed / "file").c_str(), (directory / name).c_str()), 0);
  }
  addToDirectory(directory.path(), root.get());
  addToDirectory(directory.path(), crl.get());
  const Unprivileged rights;
  EXPECT_EQ(certificates(certificate->subject()), 1U);
  EXPECT_EQ(crls(certificate->subject()), 1U);
  EXPECT_EQ(crls(uri), 0U);
  ASSERT_EQ(::symlink((closed / "file").c_str(), (directory / uriFile).c_str()), 0);
  expectNamed(directory / uriFile, [&] { crls(uri); });
  ASSERT_EQ(::chmod(closed.path().c_str(), 0700), 0);
}

// ---------------------------------------------------------------------------------- malformed
// files

TEST_F(HashDir, MalformedFile_IsAnExceptionThatNamesIt) {
  const std::string whole = pem(crl.get());
  const std::string encrypted =
      "-----BEGIN X509 CRL-----\nProc-Type: 4,ENCRYPTED\nDEK-Info: "
      "AES-128-CBC,00000000000000000000000000000000\n\nMIIB\n-----END X509 CRL-----\n";
  const std::string broken[] = {
      "no certificate and no CRL",
      whole.substr(0, whole.size() / 2),
      "-----BEGIN X509 CRL-----\n!!!!\n-----END X509 CRL-----\n",
      "-----BEGIN X509 CRL-----\nMIIB\n-----END X509 CRL-----\n",
      encrypted,
      der(crl.get()).substr(0, 50),
      der(crl.get()) + "x",
      std::string(1000, '\0'),
      "URI: http://example.test/root.crl\n",
      "URI: http://example.test/root.crl\n-----BEGIN X509 CRL-----\nMIIB\n-----END X509 CRL-----\n",
  };
  const std::filesystem::path byName = directory / crlHashName(crl.get());
  const std::filesystem::path byURI = directory / uriFile;
  for (const std::string& content : broken) {
    SCOPED_TRACE(content.substr(0, 60));
    writeFile(byName, content);
    writeFile(byURI, content);
    expectNamed(byName, [&] { crls(certificate->subject()); });
    expectNamed(byURI, [&] { crls(uri); });
  }
}

TEST_F(HashDir, MalformedFile_WhatWasFoundBeforeItStays) {
  writeFile(directory / hashName(root.get(), 0), pem(root.get()));
  writeFile(directory / hashName(root.get(), 1), pem(root.get()) + "-----BEGIN CERTIFICATE-----\n");
  Certificates out;
  EXPECT_THROW(method.getBySubject(certificate->subject(), out), Exception);
  EXPECT_EQ(out.size(), 1U);
}

// ------------------------------------------------------------------------------- by mail address

TEST_F(HashDir, CertificateAddedForAnAddress_IsFoundByIt) {
  method.add(EmailAddress("someone@example.test"), certificate);
  const std::string name = keyOf("someone@example.test") + ".0";
  EXPECT_EQ(filesIn(directory), (std::vector<std::string>{name}));
  EXPECT_EQ(readFile(directory / name), kEmailHeader + pem(root.get()));

  Certificates out{certificate};
  method.getByEmailAddress("any base", EmailAddress("someone@example.test"), out);
  ASSERT_EQ(out.size(), 2U);
  EXPECT_EQ(X509_cmp(out.back(), root.get()), 0);

  LookupMethod& base = method;
  base.getByEmailAddress("", "someone@example.test", out);
  EXPECT_EQ(out.size(), 3U);
  base.getByEmailAddress("", "Someone@example.test", out);
  base.getByEmailAddress("", "other@example.test", out);
  EXPECT_EQ(out.size(), 3U);
}

TEST_F(HashDir, KeysOfAddresses_AreTheFirstFourBytesInLittleEndianOrder) {
  // printf %s a@b.test | sha1sum: c1a8b4e6 stands first.
  const std::string sum = runCommand({"sha1sum"}, "a@b.test").out;
  ASSERT_GE(sum.size(), 8U);
  std::string key = sum.substr(6, 2) + sum.substr(4, 2) + sum.substr(2, 2) + sum.substr(0, 2);
  key.erase(0, key.find_first_not_of('0'));
  method.add(EmailAddress("a@b.test"), certificate);
  EXPECT_EQ(filesIn(directory), (std::vector<std::string>{key + ".0"}));
}

TEST_F(HashDir, KeyThatBeginsWithZeros_IsWrittenWithoutThem) {
  std::string address;
  std::string key;
  for (int i = 0; key.size() != 7; ++i) {
    address = "someone" + std::to_string(i) + "@example.test";
    key = keyOf(address);
  }
  method.add(EmailAddress(address), certificate);
  EXPECT_EQ(filesIn(directory), (std::vector<std::string>{key + ".0"}));
  Certificates out;
  method.getByEmailAddress("", EmailAddress(address), out);
  EXPECT_EQ(out.size(), 1U);
}

TEST_F(HashDir, AddressesWithOneKey_AreNotTakenForEachOther) {
  const std::string alice = "alice3386@example.test";
  const std::string mallory = "mallory55072@example.test";
  ASSERT_EQ(keyOf(alice), keyOf(mallory));
  const auto found = [&](const std::string& address) {
    Certificates out;
    method.getByEmailAddress("", address, out);
    return out.size();
  };
  method.add(EmailAddress(mallory), certificate);
  EXPECT_EQ(found(mallory), 1U);
  EXPECT_EQ(found(alice), 0U);
  method.add(EmailAddress(alice), certificate);  // one file for both: the last one stays
  EXPECT_EQ(filesIn(directory).size(), 1U);
  EXPECT_EQ(found(mallory), 0U);
  EXPECT_EQ(found(alice), 1U);
}

TEST_F(HashDir, FileThatNamesAnotherAddress_IsPassedOver) {
  const struct {
    const char* head;
    std::size_t found;
  } rows[] = {
      {"", 1},  // as written before there was such a line
      {"Email: a@b.test\n", 1},
      {"Email: a@b.test\r\n", 1},
      {"Email: A@b.test\n", 0},
      {"Email: a@b.test2\n", 0},
      {"Email: a@b.tes\n", 0},
      {"Email: \n", 0},
      {"Email: a%40b.test\n", 0},                  // not how it is written
      {"some text\nEmail: c@b.test\n", 1},         // only the first line counts
      {"URI: http://example.test/c@b.test\n", 1},  // says nothing of an address
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.head);
    writeFile(directory / (keyOf("a@b.test") + ".0"), row.head + pem(root.get()));
    Certificates out;
    method.getByEmailAddress("", "a@b.test", out);
    EXPECT_EQ(out.size(), row.found);
  }
  writeFile(directory / (keyOf("a@b.test") + ".0"), "Email: c@b.test\ngarbage");
  Certificates out;
  method.getByEmailAddress("", "a@b.test", out);
  EXPECT_TRUE(out.empty());
}

// Whoever reads the file by its path, and cuts long lines into pieces of whatever size.
TEST_F(HashDir, HostileAddresses_NeitherForgeNorBreakTheFile) {
  const std::string block = pem(root.get());
  const std::string begin = "-----BEGIN CERTIFICATE-----";
  std::vector<std::string> addresses = {begin + "@x",
                                        "x@" + begin,
                                        "-----END CERTIFICATE-----@" + begin,
                                        "Email: a@b.test",
                                        "URI: http://example.test/@x",
                                        "%@%",
                                        " @ ",
                                        "\xc2\x9b@\xff",
                                        "--@--",
                                        std::string(1000000, 'a') + "@b.test"};
  for (std::size_t length = 230; length < 280; ++length) {
    addresses.push_back(std::string(length, 'a') + "@" + begin);
  }
  for (const std::string& address : addresses) {
    SCOPED_TRACE(address.substr(0, 300));
    method.add(EmailAddress(address), certificate);
    const std::filesystem::path file = directory / (keyOf(address) + ".0");
    const std::string content = readFile(file);
    EXPECT_TRUE(content.ends_with(block));
    EXPECT_EQ(content.find('\n'), content.size() - block.size() - 1) << "one line more";
    EXPECT_LT(content.size(), block.size() + 2000);
    Certificates out;
    method.getByEmailAddress("", address, out);
    EXPECT_EQ(out.size(), 1U);
    CertificateFactory::read(File::Path(file.string()), out);
    EXPECT_EQ(out.size(), 2U);
    std::filesystem::remove(file);
  }
  // What is no address writes nothing.
  for (const char* const text : {"a\n@b", "a@b\nURI: x", "a\r@b", "\x01@b", "a\x7f@b"}) {
    method.add(EmailAddress(text), certificate);
    EXPECT_TRUE(filesIn(directory).empty());
  }
}

TEST_F(HashDir, FileOfAnAddress_IsReadByTheOpenSSLCommand) {
  method.add(EmailAddress(std::string(226, 'a') + "@-----BEGIN CERTIFICATE-----"), certificate);
  const std::string file = (directory / filesIn(directory).front()).string();
  EXPECT_EQ(runCommand({"openssl", "x509", "-noout", "-in", file}).status, 0);
}

TEST_F(HashDir, NullAddress_WritesNothing) {
  method.add(EmailAddress(), certificate);
  method.add(EmailAddress(), RefCertificate());
  method.add(EmailAddress("no address"), certificate);
  EXPECT_TRUE(filesIn(directory).empty());
}

TEST_F(HashDir, CertificateAddedAgain_ReplacesTheOldOneWhole) {
  const Issued other = issueCA("CN=Other");
  const EmailAddress address("someone@example.test");
  const std::filesystem::path file = directory / (keyOf("someone@example.test") + ".0");
  method.add(address, certificate);
  // Whoever has the old file open keeps reading it: the new one is another file.
  const int old = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(old, 0);
  struct stat before = {};
  ASSERT_EQ(::fstat(old, &before), 0);
  method.add(address, handle(other));
  struct stat after = {};
  ASSERT_EQ(::stat(file.c_str(), &after), 0);
  EXPECT_NE(before.st_ino, after.st_ino);
  std::string content(static_cast<std::size_t>(before.st_size), '\0');
  EXPECT_EQ(::read(old, content.data(), content.size()), before.st_size);
  EXPECT_EQ(content, kEmailHeader + pem(root.get()));
  ::close(old);

  EXPECT_EQ(readFile(file), kEmailHeader + pem(other.get()));
  EXPECT_EQ(filesIn(directory).size(), 1U);
}

TEST_F(HashDir, EmptyCertificateAdded_ThrowsAndKeepsTheOldFile) {
  const EmailAddress address("someone@example.test");
  method.add(address, certificate);
  EXPECT_THROW(method.add(address, RefCertificate()), Exception);
  EXPECT_EQ(filesIn(directory), (std::vector<std::string>{keyOf("someone@example.test") + ".0"}));
  EXPECT_EQ(readFile(directory / filesIn(directory).front()), kEmailHeader + pem(root.get()));
}

TEST_F(HashDir, DirectoryThatCannotBeWritten_IsAnException) {
  HashDirLookupMethod nowhere((directory / "none").string());
  EXPECT_THROW(nowhere.add(EmailAddress("someone@example.test"), certificate), Exception);
  EXPECT_THROW(nowhere.add(uri, CRLs{handle(makeCRL({.issuer = &root}))}), Exception);
  const Unprivileged rights;
  ASSERT_EQ(::chmod(directory.path().c_str(), 0500), 0);
  EXPECT_THROW(method.add(EmailAddress("someone@example.test"), certificate), Exception);
  ASSERT_EQ(::chmod(directory.path().c_str(), 0700), 0);
  EXPECT_TRUE(filesIn(directory).empty());
}

// --------------------------------------------------------------------------------------------- by
// URI

TEST_F(HashDir, CRLAddedForAURI_IsFoundByItsCanonicalForm) {
  method.add(Uri("HTTP://Example.TEST:80/a/../root.crl"), CRLs{handle(makeCRL({.issuer = &root}))});
  EXPECT_EQ(filesIn(directory), (std::vector<std::string>{uriFile}));
  EXPECT_EQ(crls(uri), 1U);
  EXPECT_EQ(crls(Uri("http://EXAMPLE.test/b/../root.crl")), 1U);
  EXPECT_EQ(crls(Uri("http://example.test/other.crl")), 0U);
}

TEST_F(HashDir, CRLFile_BeginsWithItsURIAndExpiry) {
  const auto made = makeCRL({.issuer = &root, .nextUpdate = When::at(4102444800)});
  const std::string block = pem(made.get());
  method.add(uri, CRLs{CertificateRevocationListFactory::read(
                      Buffer(block.data(), static_cast<unsigned int>(block.size()), true))});
  EXPECT_EQ(readFile(directory / uriFile),
            "URI: http://example.test/root.crl\nExpires: 4102444800\n" + block);
  EXPECT_EQ(runCommand({"openssl", "crl", "-noout", "-in", (directory / uriFile).string()}).status,
            0);
}

TEST_F(HashDir, SeveralCRLsForOneURI_TheLastOneStays) {
  CRLs added;
  std::string last;
  for (int i = 0; i < 3; ++i) {
    auto one = makeCRL({.issuer = &root, .number = Serial(i + 1)});
    last = der(one.get());
    added.push_back(handle(std::move(one)));
  }
  method.add(uri, added);
  EXPECT_EQ(filesIn(directory), (std::vector<std::string>{uriFile}));
  CRLs out;
  method.getBySubject(uri, out);
  ASSERT_EQ(out.size(), 1U);
  EXPECT_EQ(der(out.front()), last);
}

TEST_F(HashDir, NoCRLsForAURI_ChangeNothing) {
  method.add(uri, CRLs());
  EXPECT_TRUE(filesIn(directory).empty());
  method.add(uri, CRLs{handle(makeCRL({.issuer = &root}))});
  method.add(uri, CRLs());
  EXPECT_EQ(crls(uri), 1U);
}

TEST_F(HashDir, FileThatNamesAnotherURI_IsPassedOver) {
  const struct {
    const char* head;
    std::size_t found;
  } rows[] = {
      {"", 1},  // as written before there was such a line
      {"URI: http://example.test/root.crl\n", 1},
      {"URI: http://example.test/root.crl\r\n", 1},
      {"URI: http://example.test/other.crl\n", 0},
      {"URI: http://example.test/root.crl2\n", 0},
      {"URI: http://example.test/root.cr\n", 0},
      {"URI: \n", 0},
      {"URI: HTTP://example.test/root.crl\n", 0},
      {"uri: http://example.test/other.crl\n", 1},  // no line of ours
      {"some text\n", 1},
      {"some text\nURI: http://example.test/other.crl\n", 1},  // only the first line counts
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.head);
    writeFile(directory / uriFile, row.head + pem(crl.get()));
    EXPECT_EQ(crls(uri), row.found);
  }
}

TEST_F(HashDir, FileThatNamesAnotherURI_IsPassedOverBeforeItIsParsed) {
  writeFile(directory / uriFile, "URI: http://example.test/other.crl\ngarbage");
  EXPECT_EQ(crls(uri), 0U);
}

TEST_F(HashDir, FileThatNamesAURI_CountsForAQueryByIssuer) {
  writeFile(directory / crlHashName(crl.get()),
            "URI: http://example.test/other.crl\n" + pem(crl.get()));
  EXPECT_EQ(crls(certificate->subject()), 1U);
}

TEST_F(HashDir, CRLOfAURIThatIsNotFresh_IsPassedOver) {
  method.add(uri, CRLs{handle(makeCRL({.issuer = &root, .lastUpdate = -48h, .nextUpdate = -1h}))});
  EXPECT_EQ(crls(uri), 0U);

  method.add(uri, CRLs{handle(makeCRL({.issuer = &root, .nextUpdate = std::nullopt}))});
  EXPECT_EQ(crls(uri), 1U);
  const timespec old{std::time(nullptr) - 25L * 3600, 0};
  const timespec times[2] = {old, old};
  ASSERT_EQ(::utimensat(AT_FDCWD, (directory / uriFile).c_str(), times, 0), 0);
  EXPECT_EQ(crls(uri), 0U);
}

// ----------------------------------------------------------------------------- as a lookup method

TEST_F(HashDir, QueriesOfOpenSSL_AreNotAnswered) {
  addToDirectory(directory.path(), root.get());
  EXPECT_TRUE(method.getBySubject(Object::TypeCertificate, certificate->subject()).empty());
  EXPECT_STREQ("HashDirLookupMethod", [&] {
    struct Named : HashDirLookupMethod {
      using HashDirLookupMethod::HashDirLookupMethod;
      const char* text() const { return name.c_str(); }
    };
    static const Named named("");
    return named.text();
  }());
}

// By itself it has nothing for OpenSSL; what is derived from it may.
TEST_F(HashDir, DerivedMethod_IsAskedByOpenSSL) {
  struct Answering : HashDirLookupMethod {
    using HashDirLookupMethod::getBySubject;
    using HashDirLookupMethod::HashDirLookupMethod;
    RefObject getBySubject(Object::Type /*type*/, const DistinguishedName& /*name*/) override {
      return answer;
    }
    RefObject answer;
  };
  auto* const answering = new Answering(directory.string());
  const RefLookupMethod owner(answering);
  answering->answer = RefObject(certificate);
  RefObjectStore store("", X509_FILETYPE_PEM);
  store->add(owner);
  const Owned<X509_STORE_CTX> context(X509_STORE_CTX_new());
  ASSERT_EQ(X509_STORE_CTX_init(context.get(), store, nullptr, nullptr), 1);
  const Owned<X509_OBJECT> found(X509_OBJECT_new());
  ASSERT_EQ(X509_STORE_CTX_get_by_subject(context.get(), X509_LU_X509,
                                          X509_get_subject_name(root.get()), found.get()),
            1);
  EXPECT_EQ(X509_OBJECT_get0_X509(found.get()), certificate->native());
}

}  // namespace
}  // namespace Velantrix::Test
