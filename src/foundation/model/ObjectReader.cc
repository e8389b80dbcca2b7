#include "foundation/model/ObjectReader.h"

#include "foundation/base/Fail.h"
#include "foundation/base/FileReader.h"
#include "foundation/base/PemBlock.h"
#include "foundation/openssl/Der.h"
#include "foundation/openssl/MemoryCheck.h"
#include "foundation/openssl/ObjectShape.h"
#include "foundation/openssl/OpenSSLOwners.h"

#include <openssl/pem.h>

#include <new>
#include <optional>
#include <span>
#include <string>
#include <string_view>
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

// Where all octets are one element, which `own` holds, they are handed over.
bool takeElement(const unsigned char* der, std::size_t size, Octets* own, ObjectSink& sink) {
  const bool isAll = own != nullptr && own->data() == der && own->size() == size;
  return isAll ? sink.takeOctets({}, *own) : sink.take({}, der, size);
}

// False when the first element is nothing known, so that the input may still be text that happens
// to start with the octet of a SEQUENCE, which is the digit 0.
bool readDer(const unsigned char* data, std::size_t length, Octets* own, ObjectSink& sink) {
  std::size_t position = 0;
  while (position < length) {
    const unsigned char* der = data + position;
    const std::size_t size = sequenceSize(der, length - position);
    const bool taken = size != 0 && takeElement(der, size, own, sink);
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

// Text that is read block by block, by whoever can.
class PemText {
 public:
  PemText(const unsigned char* data, std::size_t length)
      : rest_(reinterpret_cast<const char*>(data), length) {}

  bool isEmpty() const noexcept { return rest_.empty(); }

  // The next block where it has one of the labels and is plain PEM; others are for OpenSSL to judge.
  std::optional<PemBlock> takePlain(std::span<const std::string_view> labels) {
    std::optional<PemBlock> block = plainPemBlock(rest_, labels);
    if (block) {
      rest_.remove_prefix(block->size);
      input_.reset();
    }
    return block;
  }

  // As PEM_read_bio, which only undoes the armour. It never decrypts, so no passphrase is wanted.
  bool take(Block& block) {
    if (input_ == nullptr) {
      input_.reset(BIO_new_mem_buf(rest_.data(), static_cast<int>(rest_.size())));
      if (input_ == nullptr) throw std::bad_alloc();
    }
    const bool taken =
        PEM_read_bio(input_.get(), &block.label, &block.header, &block.der, &block.length) == 1;
    rest_.remove_prefix(rest_.size() - BIO_ctrl_pending(input_.get()));
    return taken;
  }

 private:
  std::string_view rest_;
  Owned<BIO> input_;  // of the rest; made anew when somebody else has read of it
};

// The labels of plain blocks that the sink wants. Keys are never among them: their octets would have to be
// wiped.
std::vector<std::string_view> plainLabels(const ObjectSink& sink) {
  std::vector<std::string_view> labels;
  for (const std::string_view label : {PEM_STRING_X509, PEM_STRING_X509_CRL}) {
    if (sink.wants(label)) labels.push_back(label);
  }
  return labels;
}

// False when the sink has enough.
bool readPlainBlock(PemBlock& block, ObjectSink& sink) {
  if (sink.takeOctets(block.label, block.content)) return !sink.hasEnough();
  sink.refuse("malformed " + std::string(block.label));
  return true;
}

// The same.
bool readBlock(const Block& block, ObjectSink& sink) {
  const std::string label = block.label;
  if (!sink.wants(label)) return true;
  if (*block.header != '\0') {
    sink.refuse("encrypted " + label);
  } else if (!sink.take(label, block.der, static_cast<std::size_t>(block.length))) {
    sink.refuse("malformed " + label);
  } else {
    return !sink.hasEnough();
  }
  return true;
}

void readPem(const unsigned char* data, std::size_t length, ObjectSink& sink) {
  const std::vector<std::string_view> labels = plainLabels(sink);
  PemText text(data, length);
  for (std::size_t blocks = 0; blocks == 0 || !text.isEmpty(); ++blocks) {
    const ErrorScope errors;
    if (std::optional<PemBlock> plain = text.takePlain(labels)) {
      if (!readPlainBlock(*plain, sink)) return;
      continue;
    }
    const MemoryCheck memory;
    Block block;
    if (!text.take(block)) {
      const unsigned long error = ERR_peek_last_error();
      memory.orThrow();
      if (ERR_GET_LIB(error) != ERR_LIB_PEM || ERR_GET_REASON(error) != PEM_R_NO_START_LINE) {
        sink.refuse("malformed PEM block");
      } else if (blocks == 0) {
        sink.refuse("neither PEM nor DER");
      }
      return;
    }
    if (!readBlock(block, sink)) return;
  }
}

// `own` holds the octets, where that is known; else it is null.
void readObjects(const unsigned char* data, std::size_t length, Octets* own, ObjectSink& sink) {
  if (length > kMaxInputSize) fail(kHere, "larger than 128 MiB");
  const ErrorScope errors;
  if (!readDer(data, length, own, sink)) readPem(data, length, sink);
}

}  // namespace

ObjectSink::~ObjectSink() = default;

bool ObjectSink::takeOctets(std::string_view label, Octets& der) {
  return take(label, der.data(), der.size());
}

bool ObjectSink::hasEnough() const { return false; }

void ObjectSink::refuse(const std::string& reason) { fail(kHere, reason); }

void readObjects(const unsigned char* data, std::size_t length, ObjectSink& sink) {
  readObjects(data, length, nullptr, sink);
}

void readObjects(Octets& data, ObjectSink& sink) {
  readObjects(data.data(), data.size(), &data, sink);
}

void readObjects(const File::Path& path, ObjectSink& sink, const Origin& origin,
                 unsigned int line) {
  Octets content = readOctets(path);
  try {
    readObjects(content, sink);
  } catch (const Exception& e) {
    fail(origin, path.asString() + ": " + e.stringParameter(), line);
  }
}

}  // namespace Velantrix::Crypto::PKX509
