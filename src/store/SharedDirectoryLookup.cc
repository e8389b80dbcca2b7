#include "store/SharedDirectoryLookup.h"

#include "foundation/base/NoCancellation.h"
#include "foundation/openssl/NameHash.h"
#include "foundation/openssl/OpenSSLOwners.h"
#include "store/HashedFile.h"
#include "store/Lending.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

namespace Velantrix::Crypto::PKX509 {

namespace {

// One of the directories, and how far the CRLs of each hash have been read: OpenSSL's reads on from
// there, in the same store.
struct Directory {
  std::string name;
  int fileType;
  std::map<unsigned long, int> readCRLs = {};
};

// What hangs on a lookup. OpenSSL's lookups may be asked by several threads.
struct Directories {
  std::vector<Directory> all = {};
  std::size_t handedOver = 0;  // that many of them OpenSSL's lookup has
  bool leftToOpenSSL = false;  // it has one that this does not know, and their order counts
  std::mutex mutex = {};
};

Directories& directoriesOf(const X509_LOOKUP* lookup) {
  return *static_cast<Directories*>(X509_LOOKUP_get_method_data(lookup));
}

int s_new_item(X509_LOOKUP* lookup) {
  const std::nothrow_t noException;
  auto* const made = new (noException) Directories;
  return made != nullptr && X509_LOOKUP_set_method_data(lookup, made) == 1 ? 1 : 0;
}

void s_free(X509_LOOKUP* lookup) { delete &directoriesOf(lookup); }

void add(std::vector<Directory>& all, std::string_view list, int fileType) {
  while (!list.empty()) {
    const std::size_t end = std::min(list.find(':'), list.size());
    const std::string_view name = list.substr(0, end);
    list.remove_prefix(std::min(end + 1, list.size()));
    const bool known = std::any_of(all.begin(), all.end(),
                                   [&](const Directory& other) { return other.name == name; });
    if (!name.empty() && !known) all.push_back({std::string(name), fileType});
  }
}

X509_LOOKUP* lookupOfOpenSSL(X509_STORE* store) {
  return X509_STORE_add_lookup(store, X509_LOOKUP_hash_dir());  // the one that there is
}

// Tells OpenSSL's lookup of all directories. Else it has none, and looks for nothing in vain.
void handOver(X509_STORE* store, Directories& directories) {
  X509_LOOKUP* const lookup = lookupOfOpenSSL(store);
  for (std::size_t& next = directories.handedOver; next < directories.all.size(); ++next) {
    const Directory& directory = directories.all[next];
    static_cast<void>(X509_LOOKUP_ctrl(lookup, X509_L_ADD_DIR, directory.name.c_str(),
                                       directory.fileType, nullptr));
  }
}

int s_ctrl(X509_LOOKUP* lookup, int command, const char* text, long number, char** answer) {
  if (command != X509_L_ADD_DIR) return 0;
  X509_STORE* const store = X509_LOOKUP_get_store(lookup);
  Directories& directories = directoriesOf(lookup);
  const std::lock_guard lock(directories.mutex);
  const bool isNamed = text != nullptr && *text != '\0';
  // Of other types there is one by which OpenSSL's looks for directories in the environment.
  const bool isOurs = number == X509_FILETYPE_PEM || number == X509_FILETYPE_ASN1;
  if (isOurs && isNamed) {
    try {
      add(directories.all, text, static_cast<int>(number));
    } catch (const std::exception&) {
      return 0;
    }
    if (directories.leftToOpenSSL) handOver(store, directories);
    return 1;
  }
  if (!isOurs) {
    handOver(store, directories);
    directories.leftToOpenSSL = true;
  }
  return X509_LOOKUP_ctrl(lookupOfOpenSSL(store), X509_L_ADD_DIR, text, number, answer);
}

// One question: by_dir.c, get_cert_by_subject_ex().
class DirectoryQuestion {
 public:
  DirectoryQuestion(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name,
                    X509_OBJECT* ret)
      : lookup_(lookup),
        store_(X509_LOOKUP_get_store(lookup)),
        type_(type),
        name_(name),
        ret_(ret) {}

  bool ask(std::vector<Directory>& directories) {
    const std::optional<std::uint32_t> hash = nameHash(name_);
    if (!hash) return false;
    hash_ = *hash;
    return std::any_of(directories.begin(), directories.end(), [&](Directory& directory) {
      const bool isRead = load(directory) > 0;
      return (isRead || looksAfterNoFile()) && takeFromStore();
    });
  }

 private:
  // OpenSSL 3.0 looks for what stands before the fault of a first file that is damaged. 3.5 does not, and
  // finds nothing there.
  static bool looksAfterNoFile() noexcept {
    constexpr unsigned long kFirstAfter30 = 0x30100000;
    return OpenSSL_version_num() < kFirstAfter30;
  }

  // Adds what the files of the name hold to the store. How many there are.
  int load(Directory& directory) const {
    int number = firstOf(directory);
    while (loadFile(pathIn(directory, number), directory.fileType)) ++number;
    if (type_ == X509_LU_CRL && number > 0) directory.readCRLs[hash_] = number;
    return number;
  }

  // False when there is none, or something is wrong with it.
  bool loadFile(const std::string& path, int fileType) const {
    const bool areCRLs = type_ == X509_LU_CRL;
    const HashedFile file = HashedFile::at(
        path, areCRLs ? HashedFile::Kind::kCRLs : HashedFile::Kind::kCertificates, fileType);
    if (file.state == HashedFile::State::kMissing) return false;
    if (file.state == HashedFile::State::kWhole && file.content->has(name_) && file.addTo(store_)) {
      return true;
    }
    // What OpenSSL makes of it in its queue of errors stays there if nothing is found.
    return (areCRLs ? X509_load_crl_file(lookup_, path.c_str(), fileType)
                    : X509_load_cert_file(lookup_, path.c_str(), fileType)) != 0;
  }

  int firstOf(const Directory& directory) const {
    if (type_ != X509_LU_CRL) return 0;
    const auto read = directory.readCRLs.find(hash_);
    return read == directory.readCRLs.end() ? 0 : read->second;
  }

  std::string pathIn(const Directory& directory, int number) const {
    std::array<char, 32> name{};
    const int size = std::snprintf(name.data(), name.size(), "/%08lx.%s%d", hash_,
                                   type_ == X509_LU_CRL ? "r" : "", number);
    return std::string(directory.name).append(name.data(), static_cast<std::size_t>(size));
  }

  // The first one of that name that the store has, from wherever.
  bool takeFromStore() const {
    if (X509_STORE_lock(store_) != 1) return false;
    STACK_OF(X509_OBJECT)* const objects = X509_STORE_get0_objects(store_);
    if (sk_X509_OBJECT_is_sorted(objects) == 0) sk_X509_OBJECT_sort(objects);
    const X509_OBJECT* const found = X509_OBJECT_retrieve_by_subject(objects, type_, name_);
    X509_STORE_unlock(store_);
    if (found == nullptr) return false;
    return type_ == X509_LU_CRL ? lend(X509_OBJECT_get0_X509_CRL(found), ret_)
                                : lend(X509_OBJECT_get0_X509(found), ret_);
  }

  X509_LOOKUP* lookup_;  // all borrowed
  X509_STORE* store_;
  X509_LOOKUP_TYPE type_;
  const X509_NAME* name_;
  X509_OBJECT* ret_;
  unsigned long hash_ = 0;
};

bool answer(Directories& directories, DirectoryQuestion&& question) noexcept {
  try {
    const std::lock_guard lock(directories.mutex);
    return !directories.leftToOpenSSL && question.ask(directories.all);
  } catch (const std::exception&) {
    return false;  // for want of memory
  }
}

int s_get_by_subject(X509_LOOKUP* lookup, X509_LOOKUP_TYPE type, const X509_NAME* name,
                     X509_OBJECT* ret) {
  if (name == nullptr || (type != X509_LU_X509 && type != X509_LU_CRL)) return 0;
  const NoCancellation untilReturn;
  if (!answer(directoriesOf(lookup), DirectoryQuestion(lookup, type, name, ret))) return 0;
  ERR_clear_error();  // as OpenSSL's does when it has an answer
  return 1;
}

Owned<X509_LOOKUP_METHOD> makeTable() {
  Owned<X509_LOOKUP_METHOD> table(X509_LOOKUP_meth_new("Shared content of hash directories"));
  const bool filled = table != nullptr &&
                      X509_LOOKUP_meth_set_new_item(table.get(), s_new_item) == 1 &&
                      X509_LOOKUP_meth_set_free(table.get(), s_free) == 1 &&
                      X509_LOOKUP_meth_set_ctrl(table.get(), s_ctrl) == 1 &&
                      X509_LOOKUP_meth_set_get_by_subject(table.get(), s_get_by_subject) == 1;
  if (!filled) table.reset();
  return table;
}

// One for all stores, which OpenSSL may ask until the process ends. Null when there is no memory for it.
// Without a lock, which a forked child might find held.
X509_LOOKUP_METHOD* table() {
  static std::atomic<X509_LOOKUP_METHOD*> shared = nullptr;
  if (X509_LOOKUP_METHOD* const made = shared.load()) return made;
  Owned<X509_LOOKUP_METHOD> table = makeTable();
  X509_LOOKUP_METHOD* others = nullptr;
  if (table == nullptr || !shared.compare_exchange_strong(others, table.get())) return others;
  return table.release();
}

}  // namespace

int addDirectories(X509_STORE* store, const std::string& directories, int fileType) {
  X509_LOOKUP_METHOD* const method = table();
  X509_LOOKUP* const ours = method == nullptr ? nullptr : X509_STORE_add_lookup(store, method);
  X509_LOOKUP* const behind = lookupOfOpenSSL(store);
  if (behind == nullptr) return 0;
  return X509_LOOKUP_ctrl(ours == nullptr ? behind : ours, X509_L_ADD_DIR, directories.c_str(),
                          fileType, nullptr);
}

}  // namespace Velantrix::Crypto::PKX509
