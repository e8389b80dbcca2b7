// Which files of a hash directory are opened, and which CRLs are fresh enough.
#include "unit/store/Model.h"

#include <pkx509/HashDirLookup.h>
#include <velantrix/Exception.h>
#include <velantrix/Time.h>

#include <ctime>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <type_traits>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using namespace std::chrono_literals;

static_assert(std::is_base_of_v<File::Processor, DirectoryParser>);
static_assert(!std::is_copy_constructible_v<DirectoryParser>);

constexpr unsigned int kKey = 0x0a1b2c3d;
constexpr long kHour = 3600;

void setModified(const std::filesystem::path& file, std::time_t time) {
  const timespec times[2] = {{time, 0}, {time, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

struct Scan {
  DirectoryParser parser(unsigned int key, Object::Type type) {
    return DirectoryParser(key, type, certificates, crls);
  }
  std::list<RefCertificate> certificates;
  std::list<RefCertificateRevocationList> crls;
};

// ------------------------------------------------------------------------------------------ names

struct NameRow {
  std::string name;
  unsigned int key;
  bool certificate;
  bool crl;
};

const std::string kZeros(300, '0');

const NameRow kNameRows[] = {
    // The names that the library and `openssl rehash` give.
    {"a1b2c3d.0", kKey, true, false},
    {"a1b2c3d.r0", kKey, true, true},
    {"0a1b2c3d.0", kKey, true, false},
    {"0a1b2c3d.r0", kKey, true, true},
    {"0a1b2c3d.1", kKey, true, false},
    {"0a1b2c3d.r17", kKey, true, true},
    {"0.0", 0, true, false},
    {"00000000.0", 0, true, false},
    {"ffffffff.0", 0xffffffff, true, false},
    // It is a number that is compared, whatever it looks like.
    {"A1B2C3D.0", kKey, true, false},
    {"a1B2c3D.r0", kKey, true, true},
    {"0000000000000000000000a1b2c3d.0", kKey, true, false},
    {kZeros + "a1b2c3d.0", kKey, true, false},
    {" a1b2c3d.0", kKey, true, false},
    {"   a1b2c3d.0", kKey, true, false},
    {"a1b2c3d .0", kKey, true, false},
    {"a1b2c3d 1.0", kKey, true, false},
    {"a1b 2c3d.0", 0xa1b, true, false},
    {"a1b2c3d.", kKey, true, false},
    {"a1b2c3d.0.1", kKey, true, false},
    {"a1b2c3d.0.r0", kKey, true, false},
    {"a1b2c3d.r0.0", kKey, true, true},
    {"a1b2c3d..r0", kKey, true, false},
    {"a1b2c3d. r0", kKey, true, false},
    {"a1b2c3d.r", kKey, true, true},
    {"a1b2c3d.rS", kKey, true, true},
    {"a1b2c3d.S", kKey, true, false},
    {"a1b2c3d.f00", kKey, true, false},
    {"a1b2c3dr.0", kKey, true, false},
    {"a1b2c3dS.0", kKey, true, false},
    {"a1b2c3dr1.r0", kKey, true, true},
    // What is no number is 0.
    {"ra1b2c3d.0", kKey, false, false},
    {"ra1b2c3d.0", 0, true, false},
    {"Sa1b2c3d.r0", 0, true, true},
    {".0", 0, true, false},
    {".r0", 0, true, true},
    {".0", kKey, false, false},
    {"   .0", 0, true, false},
    // So is one that does not fit into 32 bits.
    {"100000000.0", 0, true, false},
    {"10a1b2c3d.0", kKey, false, false},
    {"10a1b2c3d.0", 0, true, false},
    {"100000000.0", 0xffffffff, false, false},
    {std::string(300, 'f') + ".0", 0, true, false},
    {std::string(300, 'f') + ".0", 0xffffffff, false, false},
    // Another key.
    {"a1b2c3e.0", kKey, false, false},
    {"a1b2c3.0", kKey, false, false},
    {"a1b2c3d0.0", kKey, false, false},
    // No dot.
    {"a1b2c3d", kKey, false, false},
    {"", 0, false, false},
    // Letters that no name has: each of them alone, before and behind the dot.
    {"a1b2c3dg.0", kKey, false, false},
    {"a1b2c3d.0g", kKey, false, false},
    {"-a1b2c3d.0", kKey, false, false},
    {"a1b2c3d.0-", kKey, false, false},
    {"+a1b2c3d.0", kKey, false, false},
    {"a1b2c3d_.0", kKey, false, false},
    {"a1b2c3d.0_", kKey, false, false},
    {"a1b2c3dR.0", kKey, false, false},
    {"a1b2c3d.R0", kKey, false, false},
    {"a1b2c3d.s0", kKey, false, false},
    {"0xa1b2c3d.0", kKey, false, false},
    {"0xa1b2c3d.0", 0, false, false},
    {"a1b2c3d.0~", kKey, false, false},
    {"\ta1b2c3d.0", kKey, false, false},
    {"a1b2c3d\n.0", kKey, false, false},
    {std::string("a1b2c3d\0.0", 10), kKey, false, false},
    // The usual extensions.
    {"a1b2c3d.pem", kKey, false, false},
    {"a1b2c3d.crl", kKey, false, false},
    {"a1b2c3d.crt", kKey, false, false},
    {"a1b2c3d.cer", kKey, true, false},  // all of its letters are in the set
    {"a1b2c3d.der", kKey, true, false},
    {"a1b2c3d.r0.pem", kKey, false, false},
    {"a1b2c3d.r0-tmp-0123456789abcdef", kKey, false, false},
    // Bytes beyond ASCII, also as broken UTF-8.
    {"a1b2c3d\xc3\xa4.0", kKey, false, false},
    {"a1b2c3d.0\xff", kKey, false, false},
    {"\xd9\xa1.0", kKey, false, false},  // ARABIC-INDIC DIGIT ONE
};

TEST(DirectoryParser, Names_AreJudgedByTheirLettersAndTheirNumber) {
  for (const NameRow& row : kNameRows) {
    Scan scan;
    EXPECT_EQ(scan.parser(row.key, Object::TypeCertificate).wants(row.name), row.certificate)
        << '"' << row.name << "\" for the certificates of " << std::hex << row.key;
    EXPECT_EQ(scan.parser(row.key, Object::TypeCRL).wants(row.name), row.crl)
        << '"' << row.name << "\" for the CRLs of " << std::hex << row.key;
    EXPECT_FALSE(scan.parser(row.key, Object::TypeNone).wants(row.name)) << row.name;
    EXPECT_FALSE(scan.parser(row.key, Object::TypeCrossCertificatePair).wants(row.name))
        << row.name;
  }
}

TEST(DirectoryParser, EveryCharacter_IsEitherInTheSetOrNot) {
  Scan scan;
  const DirectoryParser parser = scan.parser(kKey, Object::TypeCertificate);
  const std::string accepted = " .0123456789ABCDEFabcdefrS";
  for (int c = 0; c < 256; ++c) {
    const std::string name = std::string("a1b2c3d.") + static_cast<char>(c);
    EXPECT_EQ(parser.wants(name), accepted.find(static_cast<char>(c)) != std::string::npos) << c;
  }
}

TEST(DirectoryParser, Process_GoesOnAndOpensOnlyWhatItWants) {
  // There is no such file: opening it fails, passing it over does not.
  for (const NameRow& row : kNameRows) {
    if (row.name.empty() || row.name.find('\0') != std::string::npos) continue;
    const File::Path path("/nonexistent", row.name);
    for (const Object::Type type : {Object::TypeCertificate, Object::TypeCRL}) {
      Scan scan;
      DirectoryParser parser = scan.parser(row.key, type);
      if (type == Object::TypeCertificate ? row.certificate : row.crl) {
        EXPECT_THROW(parser.process(path), Exception) << '"' << row.name << '"';
      } else {
        EXPECT_EQ(parser.process(path), 0) << '"' << row.name << '"';
      }
    }
  }
}

TEST(DirectoryParser, OtherTypes_LoadNothing) {
  const Issued root = issueCA("CN=Root");
  const TempDir directory;
  writeFile(directory / "a1b2c3d.r0", pem(root.get()) + pem(makeCRL({.issuer = &root}).get()));
  for (const Object::Type type : {Object::TypeNone, Object::TypeCrossCertificatePair}) {
    Scan scan;
    DirectoryParser parser = scan.parser(kKey, type);
    EXPECT_EQ(parser.process(File::Path(directory.string(), "a1b2c3d.r0")), 0);
    EXPECT_TRUE(scan.certificates.empty());
    EXPECT_TRUE(scan.crls.empty());
  }
}

// ---------------------------------------------------------------------------------------- contents

TEST(DirectoryParser, CertificateFile_GivesAllItsCertificatesInOrder) {
  const Issued a = issueCA("CN=A");
  const Issued b = issueCA("CN=B");
  const TempDir directory;
  writeFile(directory / "a1b2c3d.0", pem(b.get()) + pem(a.get()));
  Scan scan;
  scan.certificates = {handle(a)};
  DirectoryParser parser = scan.parser(kKey, Object::TypeCertificate);
  EXPECT_EQ(parser.process(File::Path(directory.string(), "a1b2c3d.0")), 0);
  ASSERT_EQ(scan.certificates.size(), 3U);
  auto found = scan.certificates.begin();
  EXPECT_EQ(X509_cmp(*found, a.get()), 0);
  EXPECT_EQ(X509_cmp(*++found, b.get()), 0);
  EXPECT_EQ(X509_cmp(*++found, a.get()), 0);
}

TEST(DirectoryParser, CRLFileInACertificateScan_GivesNothingAndIsNoError) {
  const Issued root = issueCA("CN=Root");
  const TempDir directory;
  for (const std::string& content :
       {pem(makeCRL({.issuer = &root}).get()), der(makeCRL({.issuer = &root}).get())}) {
    writeFile(directory / "a1b2c3d.r0", content);
    Scan scan;
    DirectoryParser parser = scan.parser(kKey, Object::TypeCertificate);
    EXPECT_EQ(parser.process(File::Path(directory.string(), "a1b2c3d.r0")), 0);
    EXPECT_TRUE(scan.certificates.empty());
    EXPECT_TRUE(scan.crls.empty());
  }
}

TEST(DirectoryParser, CertificateUnderACRLName_IsReadByACertificateScanOnly) {
  const Issued root = issueCA("CN=Root");
  const TempDir directory;
  writeFile(directory / "a1b2c3d.r0", pem(root.get()));
  Scan scan;
  DirectoryParser certificates = scan.parser(kKey, Object::TypeCertificate);
  DirectoryParser crls = scan.parser(kKey, Object::TypeCRL);
  EXPECT_EQ(certificates.process(File::Path(directory.string(), "a1b2c3d.r0")), 0);
  EXPECT_EQ(crls.process(File::Path(directory.string(), "a1b2c3d.r0")), 0);
  EXPECT_EQ(scan.certificates.size(), 1U);
  EXPECT_TRUE(scan.crls.empty());
}

TEST(DirectoryParser, EmptyFile_GivesNothing) {
  const TempDir directory;
  writeFile(directory / "a1b2c3d.r0", "");
  for (const Object::Type type : {Object::TypeCertificate, Object::TypeCRL}) {
    Scan scan;
    DirectoryParser parser = scan.parser(kKey, type);
    EXPECT_EQ(parser.process(File::Path(directory.string(), "a1b2c3d.r0")), 0);
    EXPECT_TRUE(scan.certificates.empty());
    EXPECT_TRUE(scan.crls.empty());
  }
}

TEST(DirectoryParser, SeveralCRLsInAFile_GiveTheFirst) {
  const Issued root = issueCA("CN=Root");
  const auto first = makeCRL({.issuer = &root, .number = Serial(1)});
  const auto second = makeCRL({.issuer = &root, .number = Serial(2)});
  const TempDir directory;
  writeFile(directory / "a1b2c3d.r0", pem(first.get()) + pem(second.get()));
  Scan scan;
  DirectoryParser parser = scan.parser(kKey, Object::TypeCRL);
  EXPECT_EQ(parser.process(File::Path(directory.string(), "a1b2c3d.r0")), 0);
  ASSERT_EQ(scan.crls.size(), 1U);
  EXPECT_EQ(der(scan.crls.front()), der(first.get()));
}

// --------------------------------------------------------------------------------------- freshness

/// A parser whose `now` is known to the second.
class Freshness : public testing::Test {
 protected:
  /// Whether the CRL that `makeFile` writes is loaded. It gets the parser's time.
  template <class MakeFile>
  bool loaded(MakeFile makeFile) {
    while (true) {
      // By the parser's clock: time() may lag behind it by some milliseconds.
      const std::time_t before = Time::now().seconds();
      Scan scan;
      DirectoryParser parser = scan.parser(kKey, Object::TypeCRL);
      if (Time::now().seconds() != before) continue;  // a second ended meanwhile
      makeFile(before);
      EXPECT_EQ(parser.process(File::Path(file.string())), 0);
      return !scan.crls.empty();
    }
  }
  bool loadedWithAge(long seconds, std::optional<When> nextUpdate = std::nullopt) {
    return loaded([&](std::time_t now) {
      writeFile(file, pem(makeCRL({.issuer = &root, .nextUpdate = nextUpdate}).get()));
      setModified(file, now - seconds);
    });
  }
  bool loadedWithNextUpdate(long seconds) {
    return loaded([&](std::time_t now) {
      writeFile(
          file,
          pem(makeCRL({.issuer = &root, .lastUpdate = -48h, .nextUpdate = When::at(now + seconds)})
                  .get()));
    });
  }

  Issued root = issueCA("CN=Root");
  TempDir directory;
  std::filesystem::path file = directory / "a1b2c3d.r0";
};

TEST_F(Freshness, WithoutNextUpdate_TheFileMayBeADayOld) {
  EXPECT_TRUE(loadedWithAge(0));
  EXPECT_TRUE(loadedWithAge(23 * kHour));
  EXPECT_TRUE(loadedWithAge(24 * kHour)) << "exactly a day is not earlier";
  EXPECT_FALSE(loadedWithAge(24 * kHour + 1));
  EXPECT_FALSE(loadedWithAge(25 * kHour));
}

TEST_F(Freshness, FileFromTheFuture_CountsFromItsBirth) { EXPECT_TRUE(loadedWithAge(-25 * kHour)); }

TEST_F(Freshness, WithNextUpdate_ItDecidesAndTheFilesAgeDoesNot) {
  EXPECT_TRUE(loadedWithNextUpdate(3600));
  EXPECT_TRUE(loadedWithNextUpdate(0)) << "now is not earlier than now";
  EXPECT_FALSE(loadedWithNextUpdate(-1));
  EXPECT_FALSE(loadedWithNextUpdate(-24 * kHour));
  EXPECT_TRUE(loadedWithAge(25 * kHour, When(1h)));
}

TEST_F(Freshness, ThroughALink_TheFileItLeadsToCounts) {
  const std::filesystem::path target = directory / "target.pem";
  const auto linked = [&](long age) {
    return loaded([&](std::time_t now) {
      writeFile(target, pem(makeCRL({.issuer = &root, .nextUpdate = std::nullopt}).get()));
      setModified(target, now - age);
      std::filesystem::remove(file);
      std::filesystem::create_symlink(target, file);
    });
  };
  EXPECT_TRUE(linked(23 * kHour));
  EXPECT_FALSE(linked(25 * kHour));
}

}  // namespace
}  // namespace Velantrix::Test
