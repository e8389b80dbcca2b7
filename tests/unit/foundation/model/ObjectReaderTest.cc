#include "foundation/base/FileReader.h"
#include "foundation/model/ObjectReader.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "support/PemBlock.h"
#include "support/Pki.h"

#include <velantrix/Exception.h>

#include <openssl/err.h>
#include <openssl/pem.h>

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {
namespace {

namespace Pki = Velantrix::Test;

using namespace std::string_literals;

// Wants blocks of one label, takes DER that starts like `takes`, and notes what it is offered.
class Sink : public ObjectSink {
 public:
  explicit Sink(const std::string& takes = "\x30") : takes_(takes) {}

  bool wants(std::string_view label) const override { return label == "WANTED"; }
  bool take(std::string_view label, const unsigned char* der, std::size_t length) override {
    const std::string octets(reinterpret_cast<const char*>(der), length);
    offered.push_back(std::string(label) + ':' + octets);
    return octets.starts_with(takes_);
  }

  bool hasEnough() const override { return !takesAll && !offered.empty(); }

  std::vector<std::string> offered;
  bool takesAll = true;

 private:
  std::string takes_;
};

void read(const std::string& input, ObjectSink& sink) {
  readObjects(octets(input), input.size(), sink);
}

std::string thrownBy(const std::string& input, ObjectSink& sink) {
  try {
    read(input, sink);
  } catch (const Exception& e) {
    EXPECT_EQ(e.context(), "X509::ObjectReader");
    return e.stringParameter();
  }
  return "nothing";
}

const std::string kOne = "\x30\x03\x02\x01\x01"s;
const std::string kTwo = "\x30\x03\x02\x01\x02"s;

TEST(ObjectReader, Readable_EachObjectOfTheKindIsHandedOverInOrder) {
  ERR_clear_error();
  struct Row {
    const char* name;
    std::string input;
    std::vector<std::string> offered;
  };
  const Row rows[] = {
      {"nothing", "", {}},
      {"DER", kOne, {":" + kOne}},
      {"DER end to end", kOne + kTwo + kOne, {":" + kOne, ":" + kTwo, ":" + kOne}},
      {"a block", Pki::pemBlock("WANTED", kOne), {"WANTED:" + kOne}},
      {"blocks with text around",
       "text\n" + Pki::pemBlock("WANTED", kTwo) + "text\n" + Pki::pemBlock("WANTED", kOne) + "text",
       {"WANTED:" + kTwo, "WANTED:" + kOne}},
      {"other blocks are passed over",
       Pki::pemBlock("OTHER", "\xff") + Pki::pemBlock("WANTED", kOne) + Pki::pemBlock("OTHER", "x"),
       {"WANTED:" + kOne}},
      {"other blocks only", Pki::pemBlock("OTHER", "x"), {}},
      {"an encrypted block of another kind",
       Pki::pemBlock("OTHER", "x", "Proc-Type: 4,ENCRYPTED\n"),
       {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Sink sink;
    read(row.input, sink);
    EXPECT_EQ(sink.offered, row.offered);
    EXPECT_EQ(ERR_peek_error(), 0UL);
  }
}

TEST(ObjectReader, SinkThatHasEnough_IsOfferedNoMore) {
  for (const std::string& rest : {""s, kOne, "x"s, "\x30\xff"s, Pki::pemBlock("WANTED", kOne)}) {
    Sink sink;
    sink.takesAll = false;
    read(kTwo + rest, sink);
    EXPECT_EQ(sink.offered, std::vector<std::string>{":" + kTwo});
  }
  for (const std::string& rest :
       {""s, "text"s, Pki::pemBlock("WANTED", kOne),
        Pki::pemBlock("WANTED", kOne, "Proc-Type: 4,ENCRYPTED\n"), "-----BEGIN WANTED-----\n!"s}) {
    Sink sink;
    sink.takesAll = false;
    read(Pki::pemBlock("OTHER", kOne) + Pki::pemBlock("WANTED", kTwo) + rest, sink);
    EXPECT_EQ(sink.offered, std::vector<std::string>{"WANTED:" + kTwo});
  }
  Sink sink("\x30\x03\x02\x01\x02");  // what is passed over is not enough
  sink.takesAll = false;
  EXPECT_EQ(thrownBy(kOne + kTwo, sink), "neither PEM nor DER");
}

TEST(ObjectReader, Unreadable_Throws) {
  ERR_clear_error();
  const std::string good = Pki::pemBlock("WANTED", kOne);
  struct Row {
    const char* name;
    std::string input;
    const char* reason;
  };
  const Row rows[] = {
      {"text", "hello\n", "neither PEM nor DER"},
      {"an element that is no SEQUENCE", "\x02\x01\x01", "neither PEM nor DER"},
      {"cut short", kOne.substr(0, 4), "neither PEM nor DER"},
      {"indefinite length", "\x30\x80\x02\x01\x01\0\0"s, "neither PEM nor DER"},
      {"octet after DER", kOne + "\n", "neither PEM nor DER from octet 5"},
      {"cut short later", kOne + kTwo + "\x30\x09", "neither PEM nor DER from octet 10"},
      {"block that the sink does not take", good + Pki::pemBlock("WANTED", "x"),
       "malformed WANTED"},
      {"block without an end", good.substr(0, good.size() - 10), "malformed PEM block"},
      {"encrypted block of the kind", Pki::pemBlock("WANTED", kOne, "Proc-Type: 4,ENCRYPTED\n"),
       "encrypted WANTED"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Sink sink;
    EXPECT_EQ(thrownBy(row.input, sink), row.reason);
    EXPECT_EQ(ERR_peek_error(), 0UL);
  }
}

// Plain blocks are decoded here, all others by OpenSSL; nobody sees which it was.
TEST(ObjectReader, BlocksOfAnyForm_AreHandedOverInOrder) {
  struct ObjectsOfTwoKinds : Sink {
    bool wants(std::string_view label) const override {
      return label == PEM_STRING_X509 || label == PEM_STRING_X509_CRL ||
             label == PEM_STRING_X509_OLD;
    }
  };
  const std::string certificate = Pki::pemBlock(PEM_STRING_X509, kOne);
  const std::string crl = Pki::pemBlock(PEM_STRING_X509_CRL, kTwo);
  std::string spaced = certificate;
  spaced.insert(spaced.find("-----\n") + 5, " ");
  const std::string input = certificate + "text\n" + spaced + crl +
                            Pki::pemBlock("PRIVATE KEY", "x") +
                            Pki::pemBlock(PEM_STRING_X509_OLD, kOne) + certificate + "text";
  const std::string offered = "CERTIFICATE:" + kOne;
  ObjectsOfTwoKinds sink;
  read(input, sink);
  EXPECT_EQ(sink.offered, (std::vector<std::string>{offered, offered, "X509 CRL:" + kTwo,
                                                    "X509 CERTIFICATE:" + kOne, offered}));
  ObjectsOfTwoKinds broken;
  EXPECT_EQ(thrownBy(certificate + Pki::pemBlock(PEM_STRING_X509, "x"), broken),
            "malformed CERTIFICATE");
  ObjectsOfTwoKinds first;
  first.takesAll = false;
  read(certificate + crl, first);
  EXPECT_EQ(first.offered, std::vector<std::string>{offered});
}

// In DER input nothing says of what kind an element is.
TEST(ObjectReader, DerThatTheSinkDoesNotTake_IsPassedOverWhenItIsSomethingKnown) {
  const std::string certificate = Pki::der(Pki::issue({}).get());
  Sink sink(kOne);
  read(kOne + certificate + kOne, sink);
  EXPECT_EQ(sink.offered, (std::vector<std::string>{":" + kOne, ":" + certificate, ":" + kOne}));
  Sink none(kOne);
  EXPECT_EQ(thrownBy(kTwo, none), "neither PEM nor DER");
  EXPECT_EQ(thrownBy(certificate + kTwo, none),
            "neither PEM nor DER from octet " + std::to_string(certificate.size()));
}

TEST(ObjectReader, ExceptionOfTheSink_ReachesTheCaller) {
  struct Failing : Sink {
    bool take(std::string_view, const unsigned char*, std::size_t) override { throw 7; }
  };
  for (const std::string& input : {kOne, Pki::pemBlock("WANTED", kOne)}) {
    Failing sink;
    EXPECT_THROW(read(input, sink), int);
  }
}

TEST(ObjectReader, InputAboveTheLimit_IsRefusedUnread) {
  const std::vector<unsigned char> large(kMaxInputSize + 1, ' ');
  Sink sink;
  try {
    readObjects(large.data(), large.size(), sink);
    ADD_FAILURE() << "read";
  } catch (const Exception& e) {
    EXPECT_EQ(e.stringParameter(), "larger than 128 MiB");
  }
}

}  // namespace
}  // namespace Velantrix::Crypto::PKX509
