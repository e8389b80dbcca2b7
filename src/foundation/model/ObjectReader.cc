#include "foundation/model/ObjectReader.h"

#include "foundation/base/Fail.h"
#include "foundation/base/FileReader.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/MemoryCheck.h"
#include "foundation/openssl/ObjectShape.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/pem.h>

#include <new>
#include <optional>
#include <string>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

constexpr Origin kHere{"X509::ObjectReader", "ObjectReader"};

// The size of the DER SEQUENCE that @p data starts with; 0 when it starts with none that ends
// within the input.
std::size_t sequenceSize(const unsigned char* data, std::size_t length) {
  const std::optional<DerHeader> header = derHeader(data, data + length);
  if (!header || !header->is(V_ASN1_SEQUENCE) || header->next == nullptr) return 0;
  return static_cast<std::size_t>(header->next - data);
}

// False when the first element is nothing known, so that the input may still be text that happens
// to start with the octet of a SEQUENCE, which is the digit 0.
bool readDer(const unsigned char* data, std::size_t length, ObjectSink& sink) {
  std::size_t position = 0;
  while (position < length) {
    const unsigned char* der = data + position;
    const std::size_t size = sequenceSize(der, length - position);
    const bool taken = size != 0 && sink.take({}, der, size);
    if (!taken && (size == 0 || !isKnownObject(der, size))) {
      if (position == 0) return false;
      sink.refuse("neither PEM nor DER from octet " + std::to_string(position));
      return true;
    }
    if (taken && sink.hasEnough()) return true;
    position += size;
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

// PEM_read_bio only undoes the armour. It never decrypts, so no passphrase is wanted.
void readPem(const unsigned char* data, std::size_t length, ObjectSink& sink) {
  const Owned<BIO> input(BIO_new_mem_buf(data, static_cast<int>(length)));
  if (input == nullptr) throw std::bad_alloc();
  for (std::size_t blocks = 0;; ++blocks) {
    const ErrorScope errors;
    const MemoryCheck memory;
    Block block;
    if (PEM_read_bio(input.get(), &block.label, &block.header, &block.der, &block.length) != 1) {
      const unsigned long error = ERR_peek_last_error();
      memory.orThrow();
      if (ERR_GET_LIB(error) != ERR_LIB_PEM || ERR_GET_REASON(error) != PEM_R_NO_START_LINE) {
        sink.refuse("malformed PEM block");
      } else if (blocks == 0) {
        sink.refuse("neither PEM nor DER");
      }
      return;
    }
    const std::string label = block.label;
    if (!sink.wants(label)) continue;
    if (*block.header != '\0') {
      sink.refuse("encrypted " + label);
    } else if (!sink.take(label, block.der, static_cast<std::size_t>(block.length))) {
      sink.refuse("malformed " + label);
    } else if (sink.hasEnough()) {
      return;
    }
  }
}

}  // namespace

ObjectSink::~ObjectSink() = default;

bool ObjectSink::hasEnough() const { return false; }

void ObjectSink::refuse(const std::string& reason) { fail(kHere, reason); }

void readObjects(const unsigned char* data, std::size_t length, ObjectSink& sink) {
  if (length > kMaxInputSize) fail(kHere, "larger than 128 MiB");
  const ErrorScope errors;
  if (!readDer(data, length, sink)) readPem(data, length, sink);
}

void readObjects(const File::Path& path, ObjectSink& sink, const Origin& origin,
                 unsigned int line) {
  const std::vector<unsigned char> content = readFile(path);
  try {
    readObjects(content.data(), content.size(), sink);
  } catch (const Exception& e) {
    fail(origin, path.asString() + ": " + e.stringParameter(), line);
  }
}

}  // namespace Velantrix::Crypto::PKX509
