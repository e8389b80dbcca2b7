// What is made of the content of files, kept for the whole process and shared by whoever asks.
//
//   struct Chain : FileObjects::Value { ... };            // each class of its own is a kind of its own
//   const auto seen = FileStamp::at(path.asString().c_str());
//   const std::shared_ptr<const Chain> chain = FileObjects::get<Chain>(
//       path, seen,
//       [](const unsigned char* content, std::size_t length, bool kept) {
//         return std::make_shared<const Chain>(content, length);
//       });
//   if (chain == nullptr) ...                             // no time to wait for who is making it
//
// It is as if the file were read and made something of each time. What shows that it need not be is the
// `FileStamp`, which holds for files of local file systems that have not changed for two seconds; others are
// read each time. What was not used for longest makes way when `FileCache::limit()` is reached.
//
// A file that several threads want at once is read by one; the others wait for it, until their
// verification's deadline or until it is asked to stop. No lock is held meanwhile.
//
// A child that is forked has what its parent has, and waits for no thread of the parent's.
#pragma once

#include "foundation/base/FileStamp.h"
#include "foundation/base/Octets.h"

#include <velantrix/File.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <type_traits>

namespace Velantrix::Crypto::PKX509 {

class OwnReading;

class FileObjects {
 public:
  // What is kept. It does not change, but for what it computes for itself.
  struct Value {
    Value() = default;
    Value(const Value&) = delete;
    Value& operator=(const Value&) = delete;
    virtual ~Value();
    // What it takes of the process's memory at present, about. Cheap; asked with a lock held.
    virtual std::size_t memory() const noexcept = 0;
  };

  // What was read of a file.
  struct Read {
    std::shared_ptr<const Value> value;
    std::optional<FileStamp> lasts =
        {};  // under which stamp it will do; none: it is not to be kept
  };

  // The T of what the file holds now. Null when waiting for another thread that makes it has been ended:
  // the verification has fallen short then.
  //
  // @param seen  what `FileStamp::at()` has for the path in this look-up
  // @param make  (const unsigned char* content, std::size_t length, bool kept) -> std::shared_ptr<const T>,
  //              or (Octets& content, bool kept), which may take them away;
  //              `kept` is false where it is for this caller alone. When it throws, nothing is kept: what is
  //              to be remembered of damaged files belongs into the T.
  // @param suits (const T&) -> bool: whether a T that was made for another will do
  // @throws what `readFile()` throws, each time anew, and what `make` throws
  template <class T, class Make, class Suits>
  static std::shared_ptr<const T> get(const File::Path& path, const std::optional<FileStamp>& seen,
                                      const Make& make, const Suits& suits) {
    const MakeValue makeValue = [&make](Octets& content,
                                        bool kept) -> std::shared_ptr<const Value> {
      if constexpr (std::is_invocable_v<const Make&, Octets&, bool>) {
        return make(content, kept);
      } else {
        return make(content.data(), content.size(), kept);
      }
    };
    return std::static_pointer_cast<const T>(
        ask({&kKind<T>, path, seen, isFileToKeep(seen),
             [&](bool forAll) { return readFileInto(path, forAll, makeValue); },
             [&suits](const Value& value) { return suits(static_cast<const T&>(value)); }}));
  }
  template <class T, class Make>
  static std::shared_ptr<const T> get(const File::Path& path, const std::optional<FileStamp>& seen,
                                      const Make& make) {
    return get<T>(path, seen, make, [](const T&) { return true; });
  }

  // The same of what is no regular file, or is read in another way.
  //
  // @param read (bool forAll) -> Read; `forAll` is false where it is for this caller alone
  template <class T, class ReadIt, class Suits>
  static std::shared_ptr<const T> getRead(const File::Path& path,
                                          const std::optional<FileStamp>& seen, const ReadIt& read,
                                          const Suits& suits) {
    return std::static_pointer_cast<const T>(
        ask({&kKind<T>, path, seen, seen.has_value(),
             [&read](bool forAll) -> Read { return read(forAll); },
             [&suits](const Value& value) { return suits(static_cast<const T&>(value)); }}));
  }
  template <class T, class ReadIt>
  static std::shared_ptr<const T> getRead(const File::Path& path,
                                          const std::optional<FileStamp>& seen,
                                          const ReadIt& read) {
    return getRead<T>(path, seen, read, [](const T&) { return true; });
  }

 private:
  // Its address stands for the type.
  template <class T>
  static inline char kKind = 0;

  using MakeValue = std::function<std::shared_ptr<const Value>(Octets&, bool)>;

  struct Question {
    const void* kind;
    const File::Path& path;
    const std::optional<FileStamp>& seen;
    bool mayLast;  // unless it is too new, or of another machine
    std::function<Read(bool forAll)> read;
    std::function<bool(const Value&)> suits;
  };
  friend struct FileMemory;

  static bool isFileToKeep(const std::optional<FileStamp>& seen) noexcept;
  static Read readFileInto(const File::Path& path, bool forAll, const MakeValue& make);
  static std::shared_ptr<const Value> ask(const Question& question);
  static std::shared_ptr<const Value> readForAll(const Question& question, OwnReading& reading);
};

}  // namespace Velantrix::Crypto::PKX509
