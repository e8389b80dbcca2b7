#include "Content.h"
#include "Input.h"
#include "OpenSSLOwners.h"
#include "Status.h"

#include <velantrix/Buffer.h>
#include <velantrix/CertificateFactory.h>
#include <velantrix/Exception.h>

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string_view>
#include <utility>

namespace Velantrix::Tool {

using namespace Crypto::PKX509;

namespace {

using Objects = std::vector<InputObject>;

Buffer borrow(std::string_view bytes) {
  return Buffer(bytes.data(), static_cast<unsigned int>(bytes.size()), false);
}

void append(Objects& objects, std::list<RefCertificate>&& certificates) {
  for (RefCertificate& certificate : certificates) {
    objects.push_back({.certificate = std::move(certificate), .crl = {}, .problem = {}});
  }
}

void appendCRL(Objects& objects, std::string_view bytes) {
  try {
    RefCertificateRevocationList crl = CertificateRevocationListFactory::read(borrow(bytes));
    if (!crl.empty()) objects.push_back({.certificate = {}, .crl = std::move(crl), .problem = {}});
  } catch (const Exception& error) {
    objects.push_back({.certificate = {}, .crl = {}, .problem = reasonOf(error)});
  }
}

void appendCertificates(Objects& objects, std::string_view bytes) {
  try {
    std::list<RefCertificate> certificates;
    CertificateFactory::read(borrow(bytes), certificates);
    append(objects, std::move(certificates));
  } catch (const Exception& error) {
    objects.push_back({.certificate = {}, .crl = {}, .problem = reasonOf(error)});
  }
}

// The size of the DER SEQUENCE that @p bytes start with; 0 when it does not end within them.
std::size_t sequenceSize(std::string_view bytes) {
  const ErrorMark errors;
  const auto* const begin = reinterpret_cast<const unsigned char*>(bytes.data());
  const unsigned char* content = begin;
  long length = 0;
  int tag = 0;
  int tagClass = 0;
  const int form =
      ASN1_get_object(&content, &length, &tag, &tagClass, static_cast<long>(bytes.size()));
  // 0x80 is an error, which includes an end beyond the input; bit 0 is the indefinite length.
  if ((form & 0x81) != 0 || tag != V_ASN1_SEQUENCE || tagClass != V_ASN1_UNIVERSAL) return 0;
  return static_cast<std::size_t>(content - begin) + static_cast<std::size_t>(length);
}

// DER objects end to end. False, with nothing appended, when the first element is nothing that the
// library knows: the input may still be text that happens to start with the octet of a SEQUENCE.
bool readDer(Objects& objects, std::string_view content) {
  for (std::size_t position = 0; position < content.size();) {
    const std::string_view rest = content.substr(position);
    const std::string_view element = rest.substr(0, sequenceSize(rest));
    std::list<RefCertificate> certificates;
    try {
      if (element.empty()) throw ToolError("no DER");
      CertificateFactory::read(borrow(element), certificates);
    } catch (const std::exception&) {
      if (position == 0) return false;
      objects.push_back({.certificate = {},
                         .crl = {},
                         .problem = "neither PEM nor DER from octet " + std::to_string(position)});
      return true;
    }
    if (certificates.empty()) {
      appendCRL(objects, element);
    } else {
      append(objects, std::move(certificates));
    }
    position += element.size();
  }
  return true;
}

// One block as PEM_read_bio hands it out. Blocks that are passed over may be private keys: the
// octets are wiped.
struct Block {
  Block() = default;
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  ~Block() {
    OPENSSL_free(label);
    OPENSSL_free(header);
    OPENSSL_clear_free(der, static_cast<std::size_t>(length));
  }

  char* label = nullptr;
  char* header = nullptr;
  unsigned char* der = nullptr;
  long length = 0;
};

// The block as a PEM input of its own, which the library judges like any other.
std::string armoured(const Block& block) {
  const Owned<BIO> out(BIO_new(BIO_s_mem()));
  if (out == nullptr ||
      PEM_write_bio(out.get(), block.label, block.header, block.der, block.length) <= 0) {
    throw ToolError("no memory for a PEM block");
  }
  char* data = nullptr;  // borrowed from the BIO
  const long length = BIO_get_mem_data(out.get(), &data);
  return length > 0 ? std::string(data, static_cast<std::size_t>(length)) : std::string();
}

void readPem(Objects& objects, std::string_view content) {
  static constexpr std::string_view kCertificates[] = {PEM_STRING_X509, PEM_STRING_X509_OLD,
                                                       PEM_STRING_X509_TRUSTED};
  const Owned<BIO> input(BIO_new_mem_buf(content.data(), static_cast<int>(content.size())));
  if (input == nullptr) throw ToolError("no memory for the input");
  for (std::size_t blocks = 0;; ++blocks) {
    const ErrorMark errors;
    Block block;
    if (PEM_read_bio(input.get(), &block.label, &block.header, &block.der, &block.length) != 1) {
      const unsigned long error = ERR_peek_last_error();
      const bool atEnd =
          ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
      if (!atEnd) {
        objects.push_back({.certificate = {}, .crl = {}, .problem = "malformed PEM block"});
      } else if (blocks == 0) {
        objects.push_back({.certificate = {}, .crl = {}, .problem = "neither PEM nor DER"});
      }
      return;
    }
    const std::string_view label = block.label;
    if (label == PEM_STRING_X509_CRL) {
      appendCRL(objects, armoured(block));
    } else if (std::find(std::begin(kCertificates), std::end(kCertificates), label) !=
               std::end(kCertificates)) {
      appendCertificates(objects, armoured(block));
    }
  }
}

}  // namespace

std::vector<InputObject> readObjects(const std::string& file) {
  const std::string content = contentOf(file);
  Objects objects;
  try {
    if (!content.empty() && !readDer(objects, content)) readPem(objects, content);
  } catch (const std::exception& error) {
    throw ToolError(describe(nameOf(file), error));
  }
  if (objects.empty()) {
    throw ToolError(nameOf(file) + ": there is no certificate and no CRL in it");
  }
  return objects;
}

}  // namespace Velantrix::Tool
