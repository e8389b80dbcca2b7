#include "foundation/run/VerificationRun.h"
#include "store/HashNames.h"
#include "support/Files.h"
#include "unit/store/NamesIn.h"

#include <velantrix/Exception.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velantrix::Test {
namespace {

using Crypto::PKX509::DirectoryLook;
using Crypto::PKX509::HashNames;
using Crypto::PKX509::VerificationRun;

TEST(HashNames, Number_Table) {
  const struct {
    std::string_view name;
    std::optional<unsigned int> number;
  } table[] = {
      {"0a6481c9.0", 0x0a6481c9U},
      {"a6481c9.r0", 0x0a6481c9U},
      {"A6481C9.S", 0x0a6481c9U},
      {"  a6481c9.", 0x0a6481c9U},
      {"a6 481c9.0", 0xa6U},
      {"0000000000a.0", 0xaU},
      {"123456789.0", 0U},
      {".0", 0U},
      {" .0", 0U},
      {"r1.0", 0U},
      {"1.R0", std::nullopt},
      {"a6481c9", std::nullopt},
      {"", std::nullopt},
      {"0a6481c9.0~", std::nullopt},
      {"0a6481c9.\xff", std::nullopt},
      {"README.0", std::nullopt},
  };
  for (const auto& row : table) EXPECT_EQ(HashNames::numberOf(row.name), row.number) << row.name;
}

TEST(HashNames, Names_AreThoseOfTheNumberByTheirBytes) {
  const TempDir dir;
  for (const char* const name : {"1.r1", "1.0", "01.0", "1.S", "10.0", "x.0"}) {
    writeFile(dir / name, "");
  }
  std::filesystem::create_symlink("nowhere", dir / " 1.0");
  std::filesystem::create_directory(dir / "1.1");
  const HashNames names = namesIn(dir.string(), 1);
  EXPECT_FALSE(names.missing);
  std::vector<std::string> texts;
  for (const HashNames::Name& name : names.all) {
    texts.push_back(name.text);
    EXPECT_EQ(name.regular, name.text != " 1.0");
  }
  EXPECT_EQ(texts, (std::vector<std::string>{" 1.0", "01.0", "1.0", "1.S", "1.r1"}));
}

TEST(HashNames, MissingDirectory_IsNoneAndAFileIsNoDirectory) {
  const TempDir dir;
  EXPECT_TRUE(namesIn(dir.string() + "/none", 1).missing);
  writeFile(dir / "file", "");
  EXPECT_THROW(namesIn((dir / "file").string(), 1), Exception);
}

TEST(HashNames, LooksOfOneVerification_AreAMillisecondOld) {
  const auto isThere = [](const std::string& directory) {
    return DirectoryLook::recent(directory).seen.has_value();
  };
  const TempDir dir;
  const std::string inner = dir / "inner";
  EXPECT_FALSE(isThere(inner));
  std::filesystem::create_directory(inner);
  EXPECT_TRUE(isThere(inner));  // nobody verifies
  const VerificationRun run(nullptr, {});
  EXPECT_TRUE(isThere(inner));
  std::filesystem::remove(inner);
  EXPECT_FALSE(DirectoryLook::now(inner).seen);
  EXPECT_TRUE(isThere(dir.string()));  // each has its own
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (isThere(inner) && std::chrono::steady_clock::now() < end) {
  }
  EXPECT_FALSE(isThere(inner));
  EXPECT_EQ(DirectoryLook::recent(inner).error, ENOENT);
}

}  // namespace
}  // namespace Velantrix::Test
