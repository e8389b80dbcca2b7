// Every file has its room, and rooms include what they declare.
#include "house/Rooms.h"
#include "support/Files.h"

#include <gtest/gtest.h>
#include <stdexcept>

namespace Velantrix::Test {
namespace {

using Findings = std::vector<std::string>;

std::string joined(const Findings& findings) {
  std::string text;
  for (const std::string& finding : findings) text += finding + '\n';
  return text;
}

Tree libraryTree() { return readTree(PKX509_ROOT, {"src", "include"}); }

TEST(Rooms, EveryFileIncludesOnlyWhatItsRoomDeclares) {
  EXPECT_EQ(joined(contradictions(parseRooms(readFile(PKX509_ROOMS)), libraryTree())), "");
}

TEST(Rooms, NoneHasMoreThanAQuarterOfTheLibrary) {
  EXPECT_EQ(joined(tooLarge(libraryTree(), 0.25)), "");
}

TEST(Rooms, PlacesThatAnEngineerLooksFor) {
  const Tree tree = libraryTree();
  EXPECT_TRUE(tree.contains("src/foundation/net/http/HTTPConnection.h"));
  EXPECT_TRUE(tree.contains("src/foundation/net/NetworkBudget.h"));
  EXPECT_TRUE(tree.contains("src/crl/CRLContainer.cc"));
}

// A house of two floors and an attic that is in order, for the tests below to disturb.
constexpr char kDeclarations[] =
    "room low\n"
    "room mid\n"
    "depends mid low\n"
    "room top\n"
    "depends top mid\n"
    "calls-up mid top it asks back\n"
    "header low velantrix/Low.h\n";

Tree inOrder() {
  return {{"include/velantrix/Low.h", "#pragma once\n"},
          {"src/low/Low.cc", "#include <velantrix/Low.h>\n\n#include <vector>\n"},
          {"src/mid/Mid.cc", "#include \"mid/Mid.h\"\n#include \"top/Top.h\"\n"},
          {"src/mid/Mid.h", "#include <velantrix/Low.h>\n"},
          {"src/top/Top.h", "#include \"mid/Mid.h\"\n"}};
}

TEST(RoomsInspection, HouseInOrder_HasNoFindings) {
  EXPECT_EQ(joined(contradictions(parseRooms(kDeclarations), inOrder())), "");
}

TEST(RoomsInspection, WhatIsOutOfOrder_IsSaid) {
  const struct {
    const char* what;
    std::string declarations;
    Tree files;
    Findings findings;
  } rows[] = {
      {"quoted include of a room above",
       "",
       {{"src/low/Low.cc", "// nothing\n#include \"mid/Mid.h\"\n"}},
       {"src/low/Low.cc:2 includes mid/Mid.h of mid, which low does not declare"}},
      {"include by a path of its own",
       "",
       {{"src/low/Low.cc", " #  include\t\"../mid/Mid.h\"\n"}},
       {"src/low/Low.cc:1 includes ../mid/Mid.h of mid, which low does not declare"}},
      {"angle include in a public header",
       "header top pkx509/Top.h\n",
       {{"include/pkx509/Top.h", ""}, {"include/velantrix/Low.h", "#include <pkx509/Top.h>\n"}},
       {"include/velantrix/Low.h:1 includes pkx509/Top.h of top, which low does not declare"}},
      {"rooms do not inherit what those below them declare",
       "",
       {{"src/top/Top.cc", "#include <velantrix/Low.h>\n"}},
       {"src/top/Top.cc:1 includes velantrix/Low.h of low, which top does not declare"}},
      {"folder without a declaration",
       "",
       {{"src/cellar/Door.h", ""}},
       {"src/cellar/Door.h lies in no declared room"}},
      {"public header without a room",
       "",
       {{"include/pkx509/Top.h", ""}},
       {"include/pkx509/Top.h lies in no declared room"}},
      {"public header that does not exist",
       "header mid pkx509/Gone.h\n",
       {},
       {"mid declares the header pkx509/Gone.h, which does not exist"}},
      {"declared for nothing",
       "depends top low\n",
       {},
       {"top declares low and includes nothing of it"}},
      {"circle of two",
       "depends low mid\n",
       {{"src/low/Low.h", "#include \"mid/Mid.h\"\n"}},
       {"low and mid depend on each other", "mid and low depend on each other"}},
      {"exception that is none",
       "room other\ncalls-up other low it may as well\n",
       {{"src/other/Other.cc", "#include <velantrix/Low.h>\n"}},
       {"other calls up to low, which is not above it"}},
      {"exception without use",
       "calls-up low top some day\n",
       {},
       {"low calls up to top and includes nothing of it"}},
      {"exception without a reason",
       "calls-up low top\n",
       {{"src/low/Low.cc", "#include \"top/Top.h\"\n"}},
       {"low calls up to top without a reason"}},
  };
  for (const auto& row : rows) {
    Tree tree = inOrder();
    for (const auto& [path, content] : row.files) tree[path] = content;
    const Rooms rooms = parseRooms(kDeclarations + row.declarations);
    EXPECT_EQ(contradictions(rooms, tree), row.findings) << row.what;
  }
}

TEST(RoomsInspection, LargeRoom_IsSaid) {
  const Tree tree = {
      {"src/a/A.cc", "1\n2\n"}, {"src/b/B.cc", "1\n2\n3\n"}, {"include/x/C.h", "1\n2\n"}};
  EXPECT_EQ(joined(tooLarge(tree, 0.5)), "src/b has 3 of 5 lines\n");
  EXPECT_EQ(joined(tooLarge(tree, 0.6)), "");
}

TEST(RoomsInspection, DeclarationsThatAreNone_AreErrors) {
  for (const char* text : {"", "rom low\n", "header a velantrix/X.h\nheader b velantrix/X.h\n"}) {
    EXPECT_THROW(parseRooms(text), std::runtime_error) << text;
  }
}

}  // namespace
}  // namespace Velantrix::Test
