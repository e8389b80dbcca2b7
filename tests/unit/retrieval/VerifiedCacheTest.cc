#include "crl/CRLCache.h"
#include "foundation/base/DirectoryLock.h"
#include "foundation/base/FileStamp.h"
#include "foundation/run/VerificationRun.h"
#include "integration/OwnNamespaces.h"
#include "retrieval/VerifiedCache.h"
#include "store/HashFileHeader.h"
#include "support/ChildProcess.h"
#include "support/Handles.h"
#include "unit/store/Unprivileged.h"

#include <pkx509/FileCache.h>
#include <pkx509/HashDirLookup.h>
#include <pkx509/Statistics.h>
#include <velantrix/Exception.h>

#include <openssl/pem.h>

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <random>
#include <signal.h>
#include <stop_token>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

namespace Velantrix::Test {
namespace {

using namespace Crypto::PKX509;
using namespace std::chrono_literals;
using namespace std::string_literals;
namespace fs = std::filesystem;

using Counter = Statistics::Counter;
using Stored = VerifiedCache::Stored;

class VerifiedCacheDirectory : public testing::Test {
 protected:
  static constexpr long kDay = 86400;

  CRLOptions options(Serial number) const {
    return {.issuer = &root, .number = number, .revoked = {{.serial = "5E1A2B3C"}}};
  }
  RefCertificateRevocationList numbered(Serial number, std::chrono::hours thisUpdate = -1h) const {
    CRLOptions one = options(number);
    one.lastUpdate = thisUpdate;
    return crlHandle(one);
  }
  Stored store(const RefCertificateRevocationList& crl, const VerifiedCache::Notes& notes = {}) {
    return cache.store(uri, crl, root.key.get(), notes);
  }
  std::string content() const { return readFile(file); }
  /// What a classic writer puts there.
  void add(const RefCertificateRevocationList& crl) {
    CRLCache(directory.string()).add(uri, {crl});
  }
  bool holds(const RefCertificateRevocationList& crl) const {
    return content().ends_with("\n" + pem(crl->native()));
  }
  /// The number of the CRL that is read; empty for nothing.
  std::string number() const {
    const auto entry = cache.read(uri);
    if (!entry) return {};
    EXPECT_EQ(entry->crls.size(), 1U);
    return entry->crls.front()->crlNumber().asString();
  }
  std::vector<std::string> names() const {
    std::vector<std::string> all;
    for (const auto& entry : fs::directory_iterator(directory.path())) {
      all.push_back(entry.path().filename().string());
    }
    std::sort(all.begin(), all.end());
    return all;
  }
  static VerifiedCache::Notes noted(const std::string& etag, long secondsAgo) {
    return {{.etag = etag}, Time::then(-secondsAgo, false)};
  }

  TempDir directory;
  VerifiedCache cache{directory.string()};
  Issued root = issueCA("CN=Root");
  Issued namesake = issueCA("CN=Root");
  Uri uri{"HTTP://Example.test:80/root.crl?scope=all"};
  fs::path file = directory / HashDirLookupMethod::fileName(uri);
};

// ----------------------------------------------------------------------------------------- the file

TEST_F(VerifiedCacheDirectory, File_IsTheClassicOneWithThreeLinesMore) {
  const auto crl = numbered(7);
  const Time fetched = Time::now();
  EXPECT_EQ(
      store(crl, {{.etag = "\"a b\"", .lastModified = "Tue, 17 Nov 2026 08:00:00 GMT"}, fetched}),
      Stored::kStored);
  const std::string header = HashFileHeader::text(uri.canonicalized(), crl->nextUpdate()->asTime());
  EXPECT_EQ(content(),
            header + "ETag: \"a b\"\nLast-Modified: Tue, 17 Nov 2026 08:00:00 GMT\nFetched: " +
                std::to_string(fetched.seconds()) + "\n" + pem(crl->native()));
  const auto entry = cache.read(Uri("http://example.test/root.crl?scope=all"));
  ASSERT_TRUE(entry.has_value());
  EXPECT_EQ(entry->crls.front()->crlNumber().asString(), "07");
  EXPECT_EQ(entry->notes.validators.etag, "\"a b\"");
  EXPECT_EQ(entry->notes.validators.lastModified, "Tue, 17 Nov 2026 08:00:00 GMT");
  EXPECT_EQ(entry->notes.fetched, fetched);
  EXPECT_EQ(entry->stored, File::Path(file.string()).status(true).creationTime());
}

TEST_F(VerifiedCacheDirectory, FileThatHasNotChanged_IsDecodedOnceAndItsNotesStayItsOwn) {
  FileCache::clear();
  const StampClockAhead later(std::chrono::seconds(3));
  const RefCertificateRevocationList crl = numbered(1);
  ASSERT_EQ(store(crl, {{.etag = "\"first\""}, Time::now()}), Stored::kStored);
  const auto first = cache.read(uri);
  const auto again = cache.read(uri);
  EXPECT_EQ(again->crls.front().get(), first->crls.front().get());
  EXPECT_EQ(again->notes.validators.etag, "\"first\"");
  EXPECT_EQ(again->stored, first->stored);

  ASSERT_EQ(store(crl, {{.etag = "\"second\""}, Time::now()}), Stored::kSame);
  EXPECT_EQ(cache.read(uri)->notes.validators.etag, "\"second\"");
  FileCache::clear();
}

TEST_F(VerifiedCacheDirectory, EveryReader_ReadsIt) {
  // The lines are longer than the pieces in which OpenSSL reads, which cuts them anywhere.
  const auto crl = numbered(7);
  for (const std::size_t length : {1U, 200U, 240U, 245U, 250U, 256U}) {
    fs::remove(file);
    const std::string long1 = std::string(length, 'e');
    store(crl, {{.etag = long1, .lastModified = std::string(length, 'm')}, Time::now()});
    std::list<RefCertificateRevocationList> found;
    HashDirLookupMethod(directory.string()).getBySubject(uri, found);
    ASSERT_EQ(found.size(), 1U) << length;
    EXPECT_EQ(der(found.front()->native()), der(crl->native()));
    EXPECT_EQ(der(CertificateRevocationListFactory::read(File::Path(file.string()))->native()),
              der(crl->native()));
    const Owned<BIO> bio(BIO_new_file(file.c_str(), "r"));
    const Owned<X509_CRL> plain(PEM_read_bio_X509_CRL(bio.get(), nullptr, nullptr, nullptr));
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(cache.read(uri)->notes.validators.etag, long1);
    EXPECT_EQ(HashFileHeader::parse(content()).expires, crl->nextUpdate()->asTime());
    CRLCache(directory.string()).remove(uri, crl);
    EXPECT_FALSE(fs::exists(file));
  }
}

TEST_F(VerifiedCacheDirectory, ValidatorThatIsUnfit_IsLeftOut) {
  const auto crl = numbered(7);
  const std::string block = "-----BEGIN A-----";
  for (const std::string& etag : {std::string(257, 'e'), "a\nURI: b"s, "\x7f"s, "\xc3\xa4"s,
                                  "a\0b"s, std::string(239, ' ') + block}) {
    fs::remove(file);
    EXPECT_EQ(store(crl, {{.etag = etag, .lastModified = etag}, Time::now()}), Stored::kStored);
    const auto entry = cache.read(uri);
    ASSERT_TRUE(entry.has_value());
    EXPECT_TRUE(entry->notes.validators.empty());
    EXPECT_TRUE(entry->notes.fetched.has_value());
  }
}

TEST_F(VerifiedCacheDirectory, ClassicFile_IsReadWithoutNotes) {
  const auto crl = numbered(7);
  add(crl);
  EXPECT_EQ(content(), HashFileHeader::text(uri.canonicalized(), crl->nextUpdate()->asTime()) +
                           pem(crl->native()));
  auto entry = cache.read(uri);
  ASSERT_TRUE(entry.has_value());
  EXPECT_TRUE(entry->notes.validators.empty());
  EXPECT_FALSE(entry->notes.fetched.has_value());
  writeFile(file, pem(crl->native()) + "garbage");  // by hand
  EXPECT_EQ(number(), "07");
  writeFile(file, der(crl->native()));
  EXPECT_EQ(number(), "07");
}

TEST_F(VerifiedCacheDirectory, ExpiredCRL_IsReadAllTheSame) {
  CRLOptions expired = options(7);
  expired.lastUpdate = -48h;
  expired.nextUpdate = -24h;
  EXPECT_EQ(store(crlHandle(expired)), Stored::kStored);
  EXPECT_EQ(number(), "07");
}

// --------------------------------------------------------------------------------- what is read there

TEST_F(VerifiedCacheDirectory, NoFile_IsNothing) {
  EXPECT_FALSE(cache.read(uri).has_value());
  EXPECT_FALSE(VerifiedCache((directory / "missing").string()).read(uri).has_value());
  fs::create_directory(file);
  EXPECT_FALSE(cache.read(uri).has_value());
  fs::remove(file);
  ASSERT_EQ(::mkfifo(file.c_str(), 0600), 0);  // opening it would block
  EXPECT_FALSE(cache.read(uri).has_value());
}

TEST_F(VerifiedCacheDirectory, FileOfAnotherURI_IsNothing) {
  const std::string block = pem(numbered(7)->native());
  for (const std::string other :
       {"http://example.test/root.crl", "HTTP://Example.test:80/root.crl?scope=all",
        "http://example.test/root.crl?scope=all ", ""}) {
    writeFile(file, "URI: " + other + "\nExpires: 99999999999\n" + block);
    EXPECT_FALSE(cache.read(uri).has_value()) << other;
  }
}

TEST_F(VerifiedCacheDirectory, Garbage_IsAnExceptionThatNamesTheFile) {
  const std::string header = HashFileHeader::text(uri.canonicalized(), Time::then(kDay, false));
  const std::string block = pem(numbered(7)->native());
  for (const std::string& broken :
       {""s, "garbage"s, header, header + block.substr(0, block.size() / 2),
        header + pem(root.get()), std::string(1000, '\0'),
        header + "-----BEGIN X509 CRL-----\nAAAA\n-----END X509 CRL-----\n"}) {
    writeFile(file, broken);
    try {
      static_cast<void>(cache.read(uri));
      ADD_FAILURE() << broken;
    } catch (const Exception& failure) {
      EXPECT_TRUE(failure.stringParameter().starts_with(file.string() + ": "));
    }
  }
  const Unprivileged rights;
  ASSERT_EQ(::chmod(file.c_str(), 0), 0);
  EXPECT_THROW(static_cast<void>(cache.read(uri)), Exception);
}

TEST_F(VerifiedCacheDirectory, FileThatIsTooLarge_IsNotRead) {
  writeFile(file, "URI: ");
  fs::resize_file(file, (std::uintmax_t{128} << 20U) + 1);  // a hole
  EXPECT_THROW(static_cast<void>(cache.read(uri)), Exception);
  EXPECT_EQ(store(numbered(7)), Stored::kStored);
  EXPECT_EQ(number(), "07");
}

TEST_F(VerifiedCacheDirectory, NotesOfTheFuture_AreNone) {
  store(numbered(7), noted("\"a\"", -3600));
  const auto entry = cache.read(uri);
  ASSERT_TRUE(entry.has_value());
  EXPECT_FALSE(entry->notes.fetched.has_value());
  EXPECT_EQ(entry->notes.validators.etag, "\"a\"");
}

TEST_F(VerifiedCacheDirectory, WhatAVerificationReads_IsCounted) {
  store(numbered(7));
  const VerificationRun run(nullptr);
  ASSERT_TRUE(
      VerificationRun::admitDecoding(VerificationRun::kMaximumDecodedBytes - fs::file_size(file)));
  EXPECT_EQ(number(), "07");
  EXPECT_FALSE(run.fellShort());
  EXPECT_EQ(number(), "");
  EXPECT_TRUE(run.fellShort());
}

// ---------------------------------------------------------------------------------- what is replaced

TEST_F(VerifiedCacheDirectory, OnlyANewerOne_ReplacesAGoodOne) {
  const auto withoutNumber = [&](std::chrono::hours thisUpdate) {
    CRLOptions one = options(1);
    one.number = std::nullopt;
    one.lastUpdate = thisUpdate;
    return crlHandle(one);
  };
  const char* const huge = "7FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF";
  const char* const huger = "00800000000000000000000000000000000000000000";
  const struct {
    const char* name;
    RefCertificateRevocationList held;
    RefCertificateRevocationList crl;
    Stored expected;
  } rows[] = {
      {"greater number", numbered(7), numbered(8), Stored::kStored},
      {"greater number, earlier", numbered(7, -1h), numbered(8, -2h), Stored::kStored},
      {"smaller number", numbered(8), numbered(7), Stored::kOlder},
      {"smaller number, later", numbered(8, -2h), numbered(7, -1h), Stored::kOlder},
      {"same number, later", numbered(7, -2h), numbered(7, -1h), Stored::kStored},
      {"same number, earlier", numbered(7, -1h), numbered(7, -2h), Stored::kOlder},
      {"more octets", numbered("7FFF"), numbered("008000"), Stored::kStored},
      {"fewer octets", numbered("0100"), numbered("FF"), Stored::kOlder},
      {"beyond 64 bits", numbered(huge), numbered(huger), Stored::kStored},
      {"beyond 64 bits, smaller", numbered(huger), numbered(huge), Stored::kOlder},
      {"negative", numbered("-05"), numbered("-06"), Stored::kOlder},
      {"no numbers, later", withoutNumber(-2h), withoutNumber(-1h), Stored::kStored},
      {"no numbers, earlier", withoutNumber(-1h), withoutNumber(-2h), Stored::kOlder},
      {"number lost, later", numbered(7, -2h), withoutNumber(-1h), Stored::kStored},
      {"number lost, earlier", numbered(7, -1h), withoutNumber(-2h), Stored::kOlder},
      {"number won, earlier", withoutNumber(-1h), numbered(7, -2h), Stored::kOlder},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    fs::remove(file);
    ASSERT_EQ(store(row.held), Stored::kStored);
    const std::string before = content();
    EXPECT_EQ(store(row.crl), row.expected);
    EXPECT_TRUE(holds(row.expected == Stored::kStored ? row.crl : row.held));
    EXPECT_EQ(content() == before, row.expected != Stored::kStored);
    // Whoever wrote it.
    add(row.held);
    EXPECT_EQ(store(row.crl), row.expected);
  }
  EXPECT_EQ(names().size(), 1U);
}

TEST_F(VerifiedCacheDirectory, WhatTheKeyHasNotSigned_IsReplacedWhateverItsNumber) {
  const auto crl = numbered(7, -48h);
  CRLOptions forged = options("7FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF");
  forged.signer = namesake.key;
  CRLOptions damaged = options(9);
  damaged.badSignature = true;
  CRLOptions foreign = options(9);
  foreign.issuerName = "CN=Other";
  foreign.signer = namesake.key;
  const std::string good = pem(numbered(9)->native());
  const std::string header = HashFileHeader::text(uri.canonicalized(), Time::then(kDay, false));
  const std::string planted[] = {
      header + pem(crlHandle(forged)->native()), pem(crlHandle(forged)->native()),
      header + pem(crlHandle(damaged)->native()), header + pem(crlHandle(foreign)->native()),
      // another URI's, of which the name has the same 32 bits
      "URI: http://other.test/\nExpires: 99999999999\n" + good,
      header + good.substr(0, good.size() / 2), header + pem(root.get()), "garbage", ""};
  for (const std::string& one : planted) {
    SCOPED_TRACE(one);
    writeFile(file, one);
    EXPECT_EQ(store(crl), Stored::kStored);
    EXPECT_TRUE(holds(crl));
  }
  // Its entries are looked at last.
  std::string brokenEntry = der(numbered(9)->native());
  const std::size_t entry = brokenEntry.find("\x02\x04\x5e\x1a\x2b\x3c");
  ASSERT_NE(entry, std::string::npos);
  brokenEntry[entry] = '\x04';
  writeFile(file, brokenEntry);
  EXPECT_EQ(store(crl), Stored::kStored);
  EXPECT_TRUE(holds(crl));

  writeFile(file, header + good);
  const Unprivileged rights;
  ASSERT_EQ(::chmod(file.c_str(), 0), 0);
  EXPECT_EQ(store(crl), Stored::kStored);
  EXPECT_TRUE(holds(crl));
  EXPECT_EQ(names().size(), 1U);
}

TEST_F(VerifiedCacheDirectory, WhatTheKeyHasNotSigned_IsRefused) {
  CRLOptions forged = options(9);
  forged.signer = namesake.key;
  EXPECT_EQ(store(crlHandle(forged)), Stored::kRefused);
  EXPECT_EQ(cache.store(uri, numbered(9), namesake.key.get(), {}), Stored::kRefused);
  EXPECT_EQ(cache.store(uri, numbered(9), nullptr, {}), Stored::kRefused);
  EXPECT_TRUE(names().empty());
  store(numbered(1));
  EXPECT_EQ(store(crlHandle(forged)), Stored::kRefused);
  EXPECT_EQ(number(), "01");
}

TEST_F(VerifiedCacheDirectory, AnotherScopeOfTheKey_WaitsUntilItHasRunOut) {
  CRLOptions users = options(9);
  users.idp = IssuingDistributionPoint{.onlyUser = true};
  CRLOptions authorities = options(9);
  authorities.idp = IssuingDistributionPoint{.onlyCA = true};
  CRLOptions delta = options(9);
  delta.deltaBase = 1;
  CRLOptions renamed = options(9);
  renamed.issuerName = "CN=Renamed";
  const RefCertificateRevocationList all[] = {numbered(9), crlHandle(users), crlHandle(authorities),
                                              crlHandle(delta), crlHandle(renamed)};
  for (const auto& held : all) {
    for (const auto& crl : all) {
      if (&held == &crl) continue;
      add(held);
      EXPECT_EQ(store(crl), Stored::kOther);
      EXPECT_TRUE(holds(held));
    }
  }
  users.number = 10;
  ASSERT_EQ(cache.flush(uri), true);
  store(all[1]);
  EXPECT_EQ(store(crlHandle(users)), Stored::kStored);  // the same scope again

  CRLOptions past = options(9);
  past.lastUpdate = -48h;
  past.nextUpdate = -24h;
  add(crlHandle(past));
  EXPECT_EQ(store(crlHandle(users)), Stored::kStored);
}

TEST_F(VerifiedCacheDirectory, CRLThatHasRunOut_BlocksNoLaterOne) {
  CRLOptions past = options("7FFFFFFFFFFFFFFF");
  past.lastUpdate = -48h;
  past.nextUpdate = -24h;
  const auto held = crlHandle(past);
  ASSERT_EQ(store(held), Stored::kStored);
  past.lastUpdate = -72h;
  past.number = 7;
  EXPECT_EQ(store(crlHandle(past)), Stored::kOlder);
  EXPECT_TRUE(holds(held));
  EXPECT_EQ(store(numbered(7)), Stored::kStored);  // the issuer began its numbers anew
  EXPECT_EQ(number(), "07");
}

TEST_F(VerifiedCacheDirectory, PathWithDotSegments_IsNotWritten) {
  const Uri dotted("http://example.test/a/../root.crl?scope=all");
  ASSERT_EQ(dotted.canonicalized(), uri.canonicalized());
  EXPECT_EQ(cache.store(dotted, numbered(7), root.key.get(), {}), Stored::kRefused);
  EXPECT_TRUE(names().empty());
  store(numbered(7), noted("\"a\"", 7200));
  const std::string before = content();
  cache.confirm(dotted, {.etag = "\"a\""}, noted("\"b\"", 0));
  EXPECT_EQ(content(), before);
}

// -------------------------------------------------------------------------------------------- notes

TEST_F(VerifiedCacheDirectory, SameCRL_OnlyItsNotesAreNew) {
  const auto crl = numbered(7);
  store(crl, noted("\"a\"", 7200));
  const struct {
    const char* name;
    VerifiedCache::Notes notes;
    bool written;
  } rows[] = {
      {"the same", noted("\"a\"", 7200), false},
      {"an earlier exchange", noted("\"b\"", 9000), false},
      {"soon after", noted("\"a\"", 7170), false},
      {"later", noted("\"a\"", 7000), true},
      {"other validators", noted("\"b\"", 6999), true},
      {"no validators any more", {{}, Time::then(-6990, false)}, true},
      {"no time", {{.etag = "\"c\""}, std::nullopt}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const std::string before = content();
    EXPECT_EQ(store(crl, row.notes), Stored::kSame);
    EXPECT_TRUE(holds(crl));
    EXPECT_EQ(content() != before, row.written);
    EXPECT_TRUE(!row.written || cache.read(uri)->notes.validators == row.notes.validators);
  }
  add(crl);
  EXPECT_EQ(store(crl, noted("\"a\"", 10)), Stored::kSame);
  EXPECT_EQ(cache.read(uri)->notes.validators.etag, "\"a\"");
}

TEST_F(VerifiedCacheDirectory, SameCRLFromManyThreads_IsWrittenOnce) {
  const auto crl = numbered(7);
  const std::uint64_t before = Statistics::snapshot().of(Counter::kCacheStored);
  std::vector<std::thread> threads;
  std::atomic<int> stored = 0;
  const VerifiedCache::Notes notes = noted("\"a\"", 0);
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      try {
        if (store(crl, notes) == Stored::kStored) ++stored;
      } catch (const Exception&) {
        // The others took long.
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(stored, 1);
  EXPECT_EQ(Statistics::snapshot().of(Counter::kCacheStored), before + 1);
}

TEST_F(VerifiedCacheDirectory, Confirmation_ChangesTheNotesAndNothingElse) {
  const auto crl = numbered(7);
  store(crl, {{.etag = "\"a\"", .lastModified = "then"}, Time::then(-7200, false)});
  const std::string before = content();
  const LW::HTTP::Validators asked{.etag = "\"a\"", .lastModified = "then"};
  cache.confirm(uri, asked, {{}, Time::then(-7190, false)});
  EXPECT_EQ(content(), before);  // a file is not rewritten each time
  const Time now = Time::now();
  cache.confirm(uri, asked, {{}, now});
  EXPECT_EQ(cache.read(uri)->notes.validators, asked);
  EXPECT_EQ(cache.read(uri)->notes.fetched, now);
  cache.confirm(uri, asked, {{.etag = "\"b\""}, now});
  EXPECT_EQ(content(), HashFileHeader::text(uri.canonicalized(), crl->nextUpdate()->asTime(),
                                            {"\"b\"", "then", now}) +
                           pem(crl->native()));
  EXPECT_EQ(names().size(), 1U);
}

TEST_F(VerifiedCacheDirectory, ConfirmationOfSomethingElse_ChangesNothing) {
  cache.confirm(uri, {.etag = "\"a\""}, noted("\"a\"", 0));
  EXPECT_TRUE(names().empty());
  // Another has stored a newer one since the host was asked.
  store(numbered(8), noted("\"new\"", 7200));
  const std::string before = content();
  cache.confirm(uri, {.etag = "\"old\""}, noted("\"old\"", 0));
  EXPECT_EQ(content(), before);
  for (const std::string& other : {pem(numbered(9)->native()), "garbage"s,
                                   "URI: http://other.test/\nExpires: 1\nETag: \"old\"\n"s}) {
    writeFile(file, other);
    cache.confirm(uri, {.etag = "\"old\""}, noted("\"b\"", 0));
    cache.confirm(uri, {}, noted("\"b\"", 0));
    EXPECT_EQ(content(), other);
  }
}

TEST_F(VerifiedCacheDirectory, LargeFile_IsConfirmedSeldom) {
  CRLOptions large = options(7);
  large.rawExtensions = {{"1.2.3.4", false, std::string(std::size_t{4} << 20U, 'x')}};
  const Time first = Time::then(-3600, false);
  const auto after = [&](long seconds) { return Time::then(first.seconds() + seconds, true); };
  store(crlHandle(large), {{.etag = "\"a\""}, first});  // more than 5 MiB in PEM
  cache.confirm(uri, {.etag = "\"a\""}, {{}, after(359)});
  EXPECT_EQ(cache.read(uri)->notes.fetched, first);
  cache.confirm(uri, {.etag = "\"a\""}, {{}, after(360)});
  EXPECT_EQ(cache.read(uri)->notes.fetched, after(360));
}

// ------------------------------------------------------------------------------- looking and removing

TEST_F(VerifiedCacheDirectory, Visit_ShowsEveryFileByName) {
  EXPECT_THROW(VerifiedCache((directory / "missing").string()).visit([](const auto&) {}),
               Exception);
  store(numbered(7), noted("\"a\"", 10));
  writeFile(directory / "0.r0", "garbage");
  writeFile(directory / "1.r0", HashFileHeader::text("http://other.test/", Time::now()));
  writeFile(directory / "README", "not ours");
  writeFile(directory / "1.r0-tmp-0123456789abcdef", "left");
  std::vector<VerifiedCache::Listed> all;
  cache.visit([&](const VerifiedCache::Listed& one) { all.push_back(one); });
  ASSERT_EQ(all.size(), 3U);
  EXPECT_EQ(all[0].file, (directory / "0.r0").string());
  EXPECT_EQ(all[0].size, 7U);
  EXPECT_EQ(all[0].uri, "");
  EXPECT_NE(all[0].problem, "");
  EXPECT_TRUE(all[0].crl.empty());
  EXPECT_EQ(all[1].uri, "http://other.test/");
  EXPECT_NE(all[1].problem, "");
  EXPECT_EQ(all[2].file, file.string());
  EXPECT_EQ(all[2].uri, uri.canonicalized());
  EXPECT_EQ(all[2].problem, "");
  EXPECT_EQ(all[2].notes.validators.etag, "\"a\"");
  EXPECT_EQ(all[2].stored, cache.read(uri)->stored);
  ASSERT_FALSE(all[2].crl.empty());
  EXPECT_EQ(all[2].crl->crlNumber().asString(), "07");
}

TEST_F(VerifiedCacheDirectory, Flush_RemovesTheFileOfTheURI) {
  const std::uint64_t removed = Statistics::snapshot().of(Counter::kCacheRemoved);
  EXPECT_FALSE(cache.flush(uri));
  store(numbered(7));
  EXPECT_FALSE(cache.flush(Uri("http://example.test/other.crl")));
  EXPECT_TRUE(cache.flush(uri));
  EXPECT_FALSE(fs::exists(file));
  writeFile(file, "garbage");
  EXPECT_TRUE(cache.flush(uri));
  EXPECT_EQ(Statistics::snapshot().of(Counter::kCacheRemoved), removed + 2);
  writeFile(file, "URI: http://other.test/\nExpires: 1\n");
  EXPECT_FALSE(cache.flush(uri));
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(VerifiedCacheDirectory, FlushAll_RemovesAllThatIsTheCaches) {
  store(numbered(7));
  writeFile(directory / "1.r0", "garbage");
  writeFile(directory / "1.r0-tmp-0123456789abcdef", "left");
  writeFile(directory / "README", "not ours");
  fs::create_directory(directory / ".fetch");
  EXPECT_EQ(cache.flushAll().size(), 3U);
  EXPECT_EQ(names(), (std::vector<std::string>{".fetch", "README"}));
  EXPECT_TRUE(cache.flushAll().empty());
}

TEST_F(VerifiedCacheDirectory, WriterThatIsStuck_IsAnException) {
  store(numbered(7), noted("\"a\"", 7200));
  const DirectoryLock stuck(directory.string(), 0ms);
  EXPECT_THROW(store(numbered(8)), Exception);
  EXPECT_THROW(cache.flush(uri), Exception);
  EXPECT_EQ(store(numbered(6)), Stored::kOlder);  // nothing is written for it
  EXPECT_EQ(number(), "07");
}

// ------------------------------------------------------------------------------------------- faults

TEST_F(VerifiedCacheDirectory, FullDisk_LeavesTheGoodOne) {
  inOwnNamespaces([this] {
    mountMemory(directory.path().c_str(), "size=32k");
    const auto crl = numbered(7);
    EXPECT_EQ(store(crl, noted("\"a\"", 7200)), Stored::kStored);
    CRLOptions large = options(8);
    large.rawExtensions = {{"1.2.3.4", false, std::string(100000, 'x')}};
    EXPECT_THROW(store(crlHandle(large)), Exception);
    EXPECT_TRUE(holds(crl));
    writeFile(directory / "1.r0",
              "URI: http://other.test/\nExpires: 1\n" + std::string(24000, '\n'));
    EXPECT_EQ(store(numbered(8)), Stored::kStored);
    EXPECT_EQ(number(), "08");
    // What has run out makes way.
    large.rawExtensions = {{"1.2.3.4", false, std::string(12000, 'x')}};
    large.number = 9;
    EXPECT_EQ(store(crlHandle(large)), Stored::kStored);
    EXPECT_EQ(number(), "09");
    EXPECT_EQ(names().size(), 1U);
  });
}

TEST_F(VerifiedCacheDirectory, DirectoryThatCannotBeWritten_IsAnExceptionAndIsRead) {
  store(numbered(7));
  const Unprivileged rights;
  ASSERT_EQ(::chmod(directory.path().c_str(), 0500), 0);
  EXPECT_THROW(store(numbered(8)), Exception);
  EXPECT_EQ(number(), "07");
  ASSERT_EQ(::chmod(directory.path().c_str(), 0700), 0);
}

/// CRLs with these numbers, the first of them 1; large enough to be written in several pieces.
class VerifiedCacheWriters : public VerifiedCacheDirectory {
 protected:
  void make(int count) {
    for (int i = 1; i <= count; ++i) {
      CRLOptions one = options(i);
      one.rawExtensions = {{"1.2.3.4", false, std::string(20000, 'x')}};
      all.push_back(crlHandle(one));
      blocks.push_back("\n" + pem(all.back()->native()));
    }
  }
  /// The number of the whole file that is there; 0 for none.
  int held() const {
    if (!fs::exists(file)) return 0;
    const std::string now = content();
    const auto whole = std::find_if(blocks.begin(), blocks.end(), [&](const std::string& block) {
      return now.ends_with(block) && now.starts_with("URI: ");
    });
    EXPECT_NE(whole, blocks.end()) << now.size();
    return static_cast<int>(whole - blocks.begin()) + 1;
  }

  std::vector<RefCertificateRevocationList> all;
  std::vector<std::string> blocks;
};

TEST_F(VerifiedCacheWriters, WriterThatIsKilled_LeavesAWholeFileAndNothingOlder) {
  constexpr int kRounds = 200;
  make(64);
  std::mt19937 random(20260131);
  int most = 1500;  // microseconds; more where a writer has not begun to write by then
  int leftovers = 0;
  int last = 0;
  for (int round = 0; round < kRounds; ++round) {
    if (leftovers == 0) most += 100;
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
      for (std::size_t i = 0;; i = (i + 1) % all.size()) {
        try {
          store(all[i]);
        } catch (const Exception&) {
          _exit(1);
        }
      }
    }
    // Not to wait for anything: it may be at any step when it dies.
    std::this_thread::sleep_for(
        std::chrono::microseconds(std::uniform_int_distribution(0, most)(random)));
    kill(writer, SIGKILL);
    ASSERT_EQ(collect(writer), 128 + SIGKILL);
    const int now = held();
    ASSERT_GE(now, last) << "round " << round;
    last = now;
    if (last == static_cast<int>(all.size())) {
      fs::remove(file);
      last = 0;
    }
    for (const std::string& name : names()) {
      if (!name.ends_with(".r0")) ++leftovers;
    }
  }
  EXPECT_GT(leftovers, 0) << "it never died while it wrote";
  EXPECT_EQ(store(all.back()), Stored::kStored);  // no lock is left
  EXPECT_EQ(held(), static_cast<int>(all.size()));
}

TEST_F(VerifiedCacheWriters, WritersOfOlderAndNewerAtOnce_LeaveTheNewest) {
  make(24);
  std::atomic<int> running = 4;
  std::vector<std::thread> writers;
  for (int writer = 0; writer < 4; ++writer) {
    writers.emplace_back([&, writer] {
      std::mt19937 random(static_cast<unsigned int>(writer));
      std::vector<RefCertificateRevocationList> order = all;
      std::shuffle(order.begin(), order.end(), random);
      for (const auto& crl : order) {
        for (bool stored = false; !stored;) {
          try {
            store(crl);
            stored = true;
          } catch (const Exception& busy) {
            EXPECT_NE(busy.asString().find("Another writer"), std::string::npos) << busy.asString();
          }
        }
      }
      --running;
    });
  }
  int last = 0;
  while (running > 0) {
    const int now = held();
    EXPECT_GE(now, last);
    last = now;
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(held(), 24);
  EXPECT_EQ(names().size(), 1U);
}

TEST_F(VerifiedCacheWriters, ClassicWriterBesideIt_IsMendedByTheNextStore) {
  make(8);
  std::atomic<bool> done = false;
  std::thread classic([&] {
    while (!done) {
      try {
        add(all.front());
      } catch (const Exception&) {
        // The lock was not to be had.
      }
    }
  });
  for (const auto& crl : all) {
    try {
      const Stored stored = store(crl);
      EXPECT_TRUE(stored != Stored::kRefused && stored != Stored::kOther);
    } catch (const Exception&) {
      // As above.
    }
    static_cast<void>(held());
  }
  done = true;
  classic.join();
  add(all.front());
  EXPECT_EQ(store(all.back()), Stored::kStored);
  EXPECT_EQ(held(), 8);
}

// Whether what is there is newer and signed by the same key cannot be found out then.
TEST_F(VerifiedCacheDirectory, StoppedInALongSignature_LeavesWhatIsThere) {
  CRLOptions newer = options(7);
  newer.rawExtensions = {{"1.2.3.4", false, "\x04\x82\x10\x00"s + std::string(0x1000, 'x')}};
  for (int i = 0; i < 300; ++i) newer.rawExtensions.push_back(newer.rawExtensions.front());
  const auto there = crlHandle(newer);
  add(there);
  const auto older = numbered(6);
  ASSERT_TRUE(older->isSignedBy(root.key.get()));
  std::stop_source source;
  source.request_stop();
  {
    const VerificationRun run(nullptr, {.stop = source.get_token()});
    EXPECT_THROW(store(older), Exception);
    EXPECT_THROW(store(there), Exception) << "it is not refused";
  }
  EXPECT_TRUE(holds(there));
  EXPECT_EQ(store(older), Stored::kOlder);
}

}  // namespace
}  // namespace Velantrix::Test
