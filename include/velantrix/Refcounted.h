/// @file
/// Intrusively counted objects and the handles that hold them.
///
/// A handle is in one of three states, and code that tests handles must keep them apart:
///
/// | state            | `if (handle)` | `empty()` | `counted()` | `get()`  | `operator->`       |
/// |------------------|---------------|-----------|-------------|----------|--------------------|
/// | empty            | no            | true      | null        | null     | throws             |
/// | holds null       | no            | false     | non-null    | null     | returns null       |
/// | holds an object  | yes           | false     | non-null    | non-null | returns the object |
///
/// @code
///   struct Thing : public RefImpl {
///     void work() {}
///   };
///   Ref<Thing> a(new Thing);        // adopts the count of 1 that a new object carries
///   Ref<Thing> b(a);                // a second owner
///   if (b) b->work();
/// @endcode
///
/// **Threads.** Counts are atomic, so handles to one object may be copied and released on different
/// threads. One handle object is used by one thread at a time.
#pragma once

#include <velantrix/Export.h>
#include <velantrix/NonCopyable.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace Velantrix {

template <class T>
class RefCounted;

/// The base of every counted object. It deletes itself, through its virtual destructor, when its
/// last holder lets go.
class PKX509_EXPORT RefImpl {
 public:
  RefImpl(const RefImpl&) = delete;
  RefImpl& operator=(const RefImpl&) = delete;
  virtual ~RefImpl();

  /// How many holders own the object. A snapshot, meant for tests and diagnosis.
  std::int32_t referenceCount() const noexcept {
    return references_.load(std::memory_order_acquire);
  }

 protected:
  /// The count starts at 1: whoever allocates the object owns it.
  RefImpl() noexcept = default;

 private:
  template <class T>
  friend class RefCounted;

  void acquire() const noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  /// True for exactly one caller: the one that has to delete the object.
  bool release() const noexcept { return references_.fetch_sub(1, std::memory_order_acq_rel) == 1; }

  mutable std::atomic<std::int32_t> references_{1};
};

namespace detail {
[[noreturn]] PKX509_EXPORT void throwNullSharedObject();
[[noreturn]] PKX509_EXPORT void throwEmptyHandle(const char* operation, unsigned int line);
}  // namespace detail

/// Holds exactly one pointer, which may be null, and one count of the object behind it.
template <class T>
class RefCounted {
 public:
  /// @param object what to hold
  /// @param share  false adopts the count that @p object already carries; true takes a new one, and
  ///               throws `Exception` for a null @p object
  RefCounted(T* object, bool share) : object_(object) {
    if (share) {
      if (object == nullptr) detail::throwNullSharedObject();
      counted(object)->acquire();
    }
  }
  RefCounted(const RefCounted&) = delete;
  RefCounted& operator=(const RefCounted&) = delete;
  virtual ~RefCounted() {
    if (object_ != nullptr && counted(object_)->release()) delete counted(object_);
  }

  /// Identity: both hold the same object, or both hold null.
  virtual bool operator==(const RefCounted<T>& other) const { return object_ == other.object_; }

  /// The held object, borrowed; may be null.
  T* get() const noexcept { return object_; }

 private:
  static const RefImpl* counted(const T* object) noexcept { return object; }

  T* object_;
};

/// Makes @p target a holder of what @p source holds; the primitive under every copy of a `Ref`.
///
/// Copying a holder onto itself changes no count. A null @p source empties the target; a source
/// that holds null gives a new holder of null, never an empty target.
template <class T>
void RefCountedImplCopy(RefCounted<T>*& target, const RefCounted<T>* source) {
  if (target == source) return;
  // The new holder comes first: the source may live inside the object that is let go here.
  RefCounted<T>* const copy =
      source == nullptr ? nullptr : new RefCounted<T>(source->get(), source->get() != nullptr);
  delete std::exchange(target, copy);
}

/// A handle. See the table at the top of this file for its states.
template <class T>
class Ref {
 public:
  /// An empty handle.
  Ref() noexcept = default;
  /// Adopts a freshly allocated object, whose count of 1 becomes this handle's. When the holder
  /// cannot be allocated the object is released and the allocation failure goes on.
  explicit Ref(T* object) {
    try {
      counted_ = new RefCounted<T>(object, false);
    } catch (...) {
      const RefImpl* orphan = object;
      delete orphan;
      throw;
    }
  }
  /// Adopts a holder; null makes an empty handle.
  explicit Ref(RefCounted<T>* holder) noexcept : counted_(holder) {}
  Ref(const Ref& other) { RefCountedImplCopy(counted_, other.counted_); }
  Ref(Ref&& other) noexcept : counted_(std::exchange(other.counted_, nullptr)) {}
  // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): RefCountedImplCopy does.
  Ref& operator=(const Ref& other) {
    RefCountedImplCopy(counted_, static_cast<const RefCounted<T>*>(other.counted_));
    return *this;
  }
  Ref& operator=(Ref&& other) noexcept {
    if (this != &other) delete std::exchange(counted_, std::exchange(other.counted_, nullptr));
    return *this;
  }
  virtual ~Ref() {
    delete counted_;
    counted_ = nullptr;
  }

  /// True when the handle holds nothing at all. A handle that holds null is not empty.
  bool empty() const noexcept { return counted_ == nullptr; }
  /// True when the handle holds an object, which `operator->` then reaches. A handle that converts
  /// to an OpenSSL pointer as well is tested by this one: it is not asked for its pointer.
  explicit operator bool() const noexcept { return get() != nullptr; }
  /// True when the handle holds no object.
  friend bool operator==(const Ref& handle, std::nullptr_t) noexcept { return !handle; }
  /// The held object, borrowed; null for an empty handle and for one that holds null. Never throws.
  T* get() const noexcept { return counted_ == nullptr ? nullptr : counted_->get(); }
  /// The holder itself, borrowed; null for an empty handle.
  const RefCounted<T>* counted() const noexcept { return counted_; }

  /// @throws Exception with code 1 on an empty handle. A handle that holds null returns null.
  T* operator->() {
    if (counted_ == nullptr) detail::throwEmptyHandle("operator->", kNonConstArrowLine);
    return counted_->get();
  }
  /// @throws Exception with code 1 on an empty handle.
  const T* operator->() const {
    if (counted_ == nullptr) detail::throwEmptyHandle("operator->", kConstArrowLine);
    return counted_->get();
  }
  /// @throws Exception with code 1 on an empty handle.
  T& operator*() {
    if (counted_ == nullptr) detail::throwEmptyHandle("operator*", kStarLine);
    return *counted_->get();
  }

 private:
  // Callers and their logs know the three checks by these lines, so they stay what they are.
  static constexpr unsigned int kNonConstArrowLine = 359;
  static constexpr unsigned int kConstArrowLine = 368;
  static constexpr unsigned int kStarLine = 377;

  RefCounted<T>* counted_ = nullptr;
};

}  // namespace Velantrix
