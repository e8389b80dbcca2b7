#include <velantrix/Exception.h>

#include <gtest/gtest.h>
#include <string>

namespace {

using Velantrix::Exception;

TEST(Exception, AsString_ContextParameterAndPlace_AreOneLine) {
  const Exception e = Exception("OCSP::Response", 4, "OCSP", 17).stringParameter("Decode failed.");
  EXPECT_EQ(e.asString(), "OCSP::Response: Decode failed. (4, OCSP:17)");
  EXPECT_STREQ(e.what(), "OCSP::Response: Decode failed. (4, OCSP:17)");
}

TEST(Exception, AsString_NoParameter_LeavesItOut) {
  EXPECT_EQ(Exception("operator->", 1, "Handle", 359).asString(), "operator-> (1, Handle:359)");
}

TEST(Exception, AsString_NoFile_LeavesThePlaceOut) {
  EXPECT_EQ(Exception("It failed.", 4, nullptr, 0).asString(), "It failed. (4)");
  EXPECT_EQ(Exception("It", 4, nullptr, 0).stringParameter("failed").asString(), "It: failed (4)");
}

TEST(Exception, AsString_LineEndInFileName_StaysOneLine) {
  const Exception e = Exception("File", 4, "File", 1).stringParameter("/tmp/a\nb\x7f: gone");
  EXPECT_EQ(e.asString(), "File: /tmp/a\\0Ab\\7F: gone (4, File:1)");
  EXPECT_EQ(e.stringParameter(), "/tmp/a\nb\x7f: gone");
}

TEST(Exception, Getters_AnswerWhatWasGiven) {
  const Exception e("Context", 1, "Source", 9);
  EXPECT_EQ(e.context(), "Context");
  EXPECT_EQ(e.code(), 1);
  EXPECT_STREQ(e.file(), "Source");
  EXPECT_EQ(e.line(), 9U);
  EXPECT_EQ(e.stringParameter(), "");
  EXPECT_EQ(Exception("Context", 4, nullptr, 0).file(), nullptr);
}

TEST(Exception, Copy_OriginalGone_KeepsEverything) {
  auto* original = new Exception("Context", 4, std::string("Source").c_str(), 9);
  original->stringParameter("detail");
  const Exception copy(*original);
  Exception assigned("other", 1, nullptr, 0);
  assigned = *original;
  delete original;
  for (const Exception& e : {copy, assigned}) {
    EXPECT_EQ(e.asString(), "Context: detail (4, Source:9)");
    EXPECT_STREQ(e.file(), "Source");
  }
}

TEST(Exception, StringParameter_GivenInTheThrowExpression_IsThrownWithTheException) {
  try {
    throw Exception("Context", 4, "Source", 9).stringParameter("detail");
  } catch (const std::exception& e) {
    EXPECT_STREQ(e.what(), "Context: detail (4, Source:9)");
  }
}

}  // namespace
