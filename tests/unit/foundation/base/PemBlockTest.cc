#include "foundation/base/PemBlock.h"
#include "support/Pki.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <gtest/gtest.h>
#include <random>
#include <string>

namespace Velantrix {
namespace {

using namespace std::string_literals;

constexpr std::string_view kLabel = "X509 CRL";
constexpr std::string_view kLabels[] = {"X509 CRL", "CERTIFICATE REQUEST"};
const std::string kBegin = "-----BEGIN X509 CRL-----\n";
const std::string kEnd = "-----END X509 CRL-----\n";
const std::string kLine = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ+/\n";

// A block, and how much of the text has been read.
struct Read {
  std::string content;
  std::size_t size;

  bool operator==(const Read&) const = default;
};

std::optional<Read> plain(const std::string& text) {
  const std::optional<PemBlock> block = plainPemBlock(text, kLabels);
  if (!block) return std::nullopt;
  return Read{std::string(block->content.begin(), block->content.end()), block->size};
}

std::optional<Read> byOpenSSL(const std::string& text) {
  const Crypto::ErrorScope errors;
  const Crypto::Owned<BIO> input(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  char* label = nullptr;
  char* header = nullptr;
  unsigned char* content = nullptr;
  long size = 0;
  const int done = PEM_read_bio(input.get(), &label, &header, &content, &size);
  const Crypto::OwnedMemory<char> labelOwner(label);
  const Crypto::OwnedMemory<char> headerOwner(header);
  const Crypto::OwnedMemory<unsigned char> contentOwner(content);
  if (done != 1 || label != kLabel || *header != '\0') return std::nullopt;
  return Read{std::string(reinterpret_cast<const char*>(content), static_cast<std::size_t>(size)),
              text.size() - BIO_ctrl_pending(input.get())};
}

TEST(PemBlock, PlainBlocks_AreReadAsOpenSSLReadsThem) {
  const std::string texts[] = {
      kBegin + kLine + kEnd,
      kBegin + kLine + kLine + "QUJD\n" + kEnd + "more",
      kBegin + kLine + "QUI=\n" + kEnd,
      kBegin + "QQ==\n" + kEnd,
      kBegin + "QUJD\nQUJD\nQQ==\n" + kEnd,
      kBegin + "QUJD\n-----END X509 CRL-----",
      "URI: http://a.b/c\nExpires: 1\n\n\tsome text\n" + kBegin + kLine + kEnd + kBegin,
      "-----BEGIN X509 CRL-----\r\nQUJD\r\nQQ==\r\n-----END X509 CRL-----\r\nx",
      kBegin + std::string(76, 'A') + "\n" + std::string(8, 'B') + "\n" + kEnd,
  };
  for (const std::string& text : texts) {
    ASSERT_TRUE(plain(text).has_value()) << text;
    EXPECT_EQ(plain(text), byOpenSSL(text)) << text;
  }
}

TEST(PemBlock, Block_HasTheLabelThatItStartsWith) {
  const std::string request =
      "-----BEGIN CERTIFICATE REQUEST-----\nQUJD\n-----END CERTIFICATE REQUEST-----\n";
  const std::string crl = kBegin + "QQ==\n" + kEnd;
  const std::optional<PemBlock> first = plainPemBlock(request + crl, kLabels);
  ASSERT_TRUE(first.has_value());
  EXPECT_EQ(first->label, "CERTIFICATE REQUEST");
  EXPECT_EQ(first->size, request.size());
  const std::optional<PemBlock> second = plainPemBlock(crl + request, kLabels);
  ASSERT_TRUE(second.has_value());
  EXPECT_EQ(second->label, "X509 CRL");
  EXPECT_FALSE(plainPemBlock(crl, {}).has_value());
}

TEST(PemBlock, WhatSomeMayReadInAnotherWay_IsNotRead) {
  const std::string texts[] = {
      "",
      kBegin,
      kBegin + kEnd,
      kBegin + "\n" + kEnd,
      kBegin + kLine,
      kBegin + kLine + "-----END X509 CRL----",
      kBegin + kLine + "-----END X509 CRL----- \n",
      kBegin + kLine + "-----END CERTIFICATE-----\n",
      kBegin + kLine + "-----END CERTIFICATE REQUEST-----\n",
      "-----BEGIN X509 CRL\n" + kLine + kEnd,
      "-----BEGIN X509 CRL CRL-----\n" + kLine + kEnd,
      kBegin + kLine + "\n" + kLine + kEnd,
      kBegin + "\n" + kLine + kEnd,
      kBegin + " " + kLine + kEnd,
      kBegin + "QUJD \n" + kEnd,
      kBegin + "QUJ\n" + kEnd,
      kBegin + "QUJDR\n" + kEnd,
      kBegin + "QU=D\n" + kEnd,
      kBegin + "Q===\n" + kEnd,
      kBegin + "====\n" + kEnd,
      kBegin + "QUJ=\n" + kEnd,  // bits are left
      kBegin + "QX==\n" + kEnd,
      kBegin + "QQ==\nQUJD\n" + kEnd,
      kBegin + "QUJD\nQUJDQUJD\n" + kEnd,
      kBegin + "QUJDQUJD\nQUJD\nQUJDQUJD\n" + kEnd,
      kBegin + "Proc-Type: 4,ENCRYPTED\n\nQUJD\n" + kEnd,
      kBegin + "QUJD\0\n"s + kEnd,
      kBegin + "QU\xc3\xa4\n" + kEnd,
      kBegin + std::string(300, 'A') + "\n" + kEnd,
      "-----BEGIN X509 CRL----- \n" + kLine + kEnd,
      "\xef\xbb\xbf" + kBegin + kLine + kEnd,
      "a\0b\n"s + kBegin + kLine + kEnd,
      std::string(300, 'x') + "\n" + kBegin + kLine + kEnd,
      std::string(20000, '\n') + kBegin + kLine + kEnd,
      "-----BEGIN CERTIFICATE-----\nQUJD\n-----END CERTIFICATE-----\n" + kBegin + kLine + kEnd,
      "-----BEGIN X509 CRL----- QUJD -----END X509 CRL-----\n",
  };
  for (const std::string& text : texts) EXPECT_FALSE(plain(text).has_value()) << text;
}

// Whatever is changed: what is read OpenSSL reads in the same way.
TEST(PemBlock, ChangedBlocks_AreReadAsOpenSSLDoesOrNotAtAll) {
  constexpr int kMany = 4000;
  const std::string block = "a: b\n" + kBegin + kLine + kLine + "QUJDQQ==\n" + kEnd + "x\n";
  std::mt19937 random(20260101);
  const auto below = [&random](std::size_t bound) { return random() % bound; };
  const std::string telling = "\n\r \t\0-=:+/A\x80"s;
  int read = 0;
  for (int i = 0; i < kMany; ++i) {
    std::string text = block;
    const std::size_t place = below(text.size());
    const char other = telling[below(telling.size())];
    switch (below(4)) {
      case 0:
        text[place] = other;
        break;
      case 1:
        text.insert(place, 1, other);
        break;
      case 2:
        text.erase(place, 1 + below(5));
        break;
      default:
        text[place] = static_cast<char>(text[place] ^ (1 << below(8)));
    }
    const std::optional<Read> here = plain(text);
    if (!here) continue;
    ++read;
    ASSERT_EQ(here, byOpenSSL(text)) << text;
  }
  EXPECT_GT(read, kMany / 10);
}

}  // namespace
}  // namespace Velantrix
