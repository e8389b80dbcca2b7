#include "foundation/base/DirectoryListing.h"
#include "foundation/base/FileReader.h"
#include "foundation/base/FileStamp.h"
#include "foundation/run/VerificationRun.h"
#include "store/AskMethod.h"
#include "store/CRLExpiry.h"
#include "store/FileContent.h"
#include "store/HashFileHeader.h"
#include "store/HashNames.h"
#include "store/TolerantReading.h"

#include <pkx509/HashDirLookup.h>
#include <velantrix/Exception.h>
#include <velantrix/MediaOut.h>

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <exception>
#include <iterator>
#include <memory>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

// The key of a text: the first four bytes of its SHA-1, little endian.
unsigned int keyOf(const std::string& text) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int length = 0;
  if (EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha1(), nullptr) != 1 ||
      length < 4) {
    fail({"HashDirLookupMethod", "HashDirLookup"}, "SHA-1 is not available.");
  }
  return static_cast<unsigned int>(digest[0]) | static_cast<unsigned int>(digest[1]) << 8U |
         static_cast<unsigned int>(digest[2]) << 16U | static_cast<unsigned int>(digest[3]) << 24U;
}

std::string nameOf(unsigned int key, std::string_view suffix) {
  std::array<char, 8> text{};
  const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), key, 16);
  static_cast<void>(error);  // eight digits hold every 32-bit number
  return std::string(text.data(), end).append(suffix);
}

// A directory that is not there has nothing. Where certificates are looked for it should be there.
void tellMissing(SourceUse& use, SourceRecord::Source::Wanted wanted) {
  UseFacts facts{.failure = UseFacts::Failure::kUnreadable, .errorNumber = ENOENT};
  if (wanted == SourceRecord::Source::Wanted::kCRLs) {
    use.nothing(std::move(facts));
  } else {
    use.failed(std::move(facts));
  }
}

// What there is no more time for, or memory, or another bound.
void leaveOut() {
  TolerantReading::leftOut();
  SourceUse::leftOut();
}

// Has a file read that appends to the list, and tells where that comes from or what is wrong with it.
template <class Handle, class Read>
void readAndTell(const File::Path& path, const std::list<Handle>& list, const Read& read) {
  const std::size_t before = list.size();
  try {
    if (!read()) return leaveOut();
  } catch (const std::exception& failure) {
    SourceUse::unreadable(path.asString(), failure);
    throw;
  }
  if (list.size() == before) return;
  if (const auto origin = SourceUse::originOf(path.asString())) {
    noteOrigins(std::next(list.begin(), static_cast<std::ptrdiff_t>(before)), list.end(), *origin);
  }
}

// The content that is wanted, in order; null when it is not wanted. False when there is no time to wait for it.
template <class Content>
bool readContent(const File::Path& path, const std::optional<FileStamp>& seen,
                 const IsWantedFile& isWanted, const Origin& fileReader,
                 std::shared_ptr<const Content>& out) {
  std::shared_ptr<const Content> held = contentOf<Content>(path, seen, isWanted);
  if (held == nullptr) return false;
  if (isWanted) {
    if (!isWanted(held->header())) return true;
    held->requireGood(path);
  } else {
    held->requireGood(path, fileReader);
  }
  out = std::move(held);
  return true;
}

// What is gone by now is as good as what had gone before the directory was listed.
bool isGone(const File::Path& path) {
  return !FileStamp::at(path.asString().c_str()) && errno == ENOENT;
}

// What a bound of the verification counts. Nothing where there is no file: reading it says why.
std::size_t sizeOf(const std::optional<FileStamp>& seen) {
  if (!seen || !seen->regular) return 0;
  return std::min(static_cast<std::size_t>(seen->size), kMaxInputSize);
}

}  // namespace

// Hands the files of a directory to a parser, in the order of their names' bytes.
struct HashDirScan {
  // False when there is no such directory.
  static bool run(const std::string& directory, DirectoryParser& parser,
                  const DirectoryLook& look) {
    const HashNames names = HashNames::in(directory, parser.hash, look);
    for (const HashNames::Name& name : names.all) {
      if (parser.wants(name.text)) load(File::Path(directory, name.text), name.regular, parser);
    }
    return !names.missing;
  }

  // The same, told of where it is a directory of trusted certificates or of CRLs. What is found goes to
  // the end of the list.
  template <class Handle>
  static void run(const std::string& directory, DirectoryParser& parser,
                  const std::list<Handle>& out) {
    const DirectoryLook look = DirectoryLook::recent(directory);
    if (directory.empty()) {
      run(directory, parser, look);
      return;
    }
    SourceUse use(SourceRecord::Source::Kind::kDirectory, wantedOf(&out), directory);
    const std::size_t before = out.size();
    try {
      if (!run(directory, parser, look)) return tellMissing(use, wantedOf(&out));
    } catch (const std::exception& failure) {
      use.failed(unreadableFacts(directory, failure));
      throw;
    }
    use.found(out.size() - before);
  }

 private:
  // One look at the file has to do: verifications look at a dozen of them.
  static void load(const File::Path& path, bool regular, DirectoryParser& parser) {
    const std::optional<FileStamp> seen = FileStamp::at(path.asString().c_str());
    if (seen ? !seen->regular : leadsNowhere(errno)) return;
    // What the directory says to be a file is the parser's to complain about.
    if (!seen && !regular) failSystem(kOfDirectories, path.asString(), errno);
    try {
      parser.load(path, seen);
    } catch (const Exception&) {
      // `openssl rehash` takes all links away before it makes them anew.
      if (!isGone(path)) throw;
    }
  }
};

HashDirLookupMethod::HashDirLookupMethod(const std::string& directory)
    : LookupMethod("HashDirLookupMethod"), directory_(directory) {}

HashDirLookupMethod::~HashDirLookupMethod() = default;

void HashDirLookupMethod::getBySubject(const DistinguishedName& subject,
                                       std::list<RefCertificate>& out) {
  std::list<RefCertificateRevocationList> crls;
  DirectoryParser parser(subject.hash(), Object::TypeCertificate, out, crls);
  HashDirScan::run(directory_, parser, out);
}

void HashDirLookupMethod::getBySubject(const DistinguishedName& issuer,
                                       std::list<RefCertificateRevocationList>& out) {
  std::list<RefCertificate> certificates;
  DirectoryParser parser(issuer.hash(), Object::TypeCRL, certificates, out);
  HashDirScan::run(directory_, parser, out);
}

void HashDirLookupMethod::getBySubject(const Uri& uri,
                                       std::list<RefCertificateRevocationList>& out) {
  std::list<RefCertificate> certificates;
  const std::string& canonical = uri.canonicalized();
  DirectoryParser parser(keyOf(canonical), Object::TypeCRL, certificates, out, canonical);
  HashDirScan::run(directory_, parser, DirectoryLook::now(directory_));
}

void HashDirLookupMethod::getByEmailAddress(const std::string& base, const std::string& address,
                                            std::list<RefCertificate>& out) {
  getByEmailAddress(base, EmailAddress(address), out);
}

void HashDirLookupMethod::getByEmailAddress(const std::string& /*base*/,
                                            const EmailAddress& address,
                                            std::list<RefCertificate>& out) {
  std::list<RefCertificateRevocationList> crls;
  DirectoryParser parser(keyOf(address.address()), Object::TypeCertificate, out, crls,
                         HashFileHeader::emailText(address));
  HashDirScan::run(directory_, parser, DirectoryLook::now(directory_));
}

void HashDirLookupMethod::add(const EmailAddress& address, const RefCertificate& certificate) {
  if (address.isNull()) return;
  const File::Path path(directory_, nameOf(keyOf(address.address()), ".0"));
  const std::string header = HashFileHeader::text(address);
  FileMediaOut out(path.asString());
  out.write(header.data(), header.size());
  certificate->writePEM(out);
}

void HashDirLookupMethod::add(const Uri& uri, const std::list<RefCertificateRevocationList>& crls) {
  if (crls.empty()) return;
  const File::Path path(directory_, fileName(uri));
  for (const RefCertificateRevocationList& crl : crls) {
    const std::string header =
        HashFileHeader::text(uri.canonicalized(), expiryOf(crl, Time::now()));
    FileMediaOut out(path.asString());
    out.write(header.data(), header.size());
    crl->writePEM(out);
  }
}

std::string HashDirLookupMethod::fileName(const Uri& uri) {
  return nameOf(keyOf(uri.canonicalized()), ".r0");
}

DirectoryParser::DirectoryParser(unsigned int key, Object::Type objectType,
                                 std::list<RefCertificate>& certificateList,
                                 std::list<RefCertificateRevocationList>& crlList)
    : DirectoryParser(key, objectType, certificateList, crlList, std::string()) {}

DirectoryParser::DirectoryParser(unsigned int key, Object::Type objectType,
                                 std::list<RefCertificate>& certificateList,
                                 std::list<RefCertificateRevocationList>& crlList,
                                 const std::string& writtenFor)
    : now(Time::now()),
      hash(key),
      type(objectType),
      certificates(certificateList),
      crls(crlList),
      origin(writtenFor) {}

DirectoryParser::~DirectoryParser() = default;

bool DirectoryParser::wants(std::string_view fileName) const {
  if (HashNames::numberOf(fileName) != hash) return false;
  if (type == Object::TypeCRL) return fileName.substr(fileName.find('.') + 1).starts_with('r');
  return type == Object::TypeCertificate;
}

int DirectoryParser::process(const File::Path& path) {
  if (wants(path.name())) load(path, FileStamp::at(path.asString().c_str()));
  return 0;
}

void DirectoryParser::load(const File::Path& path, const std::optional<FileStamp>& seen) {
  if (!VerificationRun::admitStep() || !VerificationRun::admitDecoding(sizeOf(seen))) {
    return leaveOut();
  }
  readOneOf(path.asString(), [&] {
    if (type == Object::TypeCertificate) {
      readAndTell(path, certificates, [&] { return loadCertificates(path, seen); });
    } else {
      readAndTell(path, crls, [&] { return loadCRL(path, seen); });
    }
  });
}

bool DirectoryParser::loadCertificates(const File::Path& path,
                                       const std::optional<FileStamp>& seen) {
  IsWantedFile isWanted;
  if (!origin.empty()) {
    isWanted = [this](const HashFileHeader& header) {
      return header.email.value_or(origin) == origin;
    };
  }
  std::shared_ptr<const CertificatesInFile> held;
  if (!readContent(path, seen, isWanted, {"X509::CertificateFactory", "CertificateFactory"},
                   held)) {
    return false;
  }
  if (held != nullptr) held->appendTo(certificates);
  return true;
}

bool DirectoryParser::loadCRL(const File::Path& path, const std::optional<FileStamp>& seen) {
  IsWantedFile isWanted;
  if (!origin.empty()) {
    isWanted = [this](const HashFileHeader& header) {
      return header.uri.value_or(origin) == origin;
    };
  }
  std::shared_ptr<const WholeCRLInFile> held;
  if (!readContent(path, seen, isWanted,
                   {"X509::CertificateRevocationListFactory", "CertificateRevocationListFactory"},
                   held)) {
    return false;
  }
  if (held == nullptr || held->crl.empty()) return true;
  const RefCertificateRevocationList& crl = held->crl;
  if (TolerantReading::current() != nullptr) {
    crls.push_back(crl);
    return true;
  }
  // The file is looked at only where the CRL does not say when it runs out.
  const Time since = crl->nextUpdate().empty() ? path.status(true).creationTime() : now;
  if (!(expiryOf(crl, since) < now)) crls.push_back(crl);
  return true;
}

}  // namespace Velantrix::Crypto::PKX509
