#pragma once
// Intrusive reference counting: reference blocks, strong and weak handles.
//
// Every reference-counted object owns a ReferenceBlock from the moment it is
// built. The block outlives the object while weak handles remain, so a weak
// handle can always tell whether its object still exists.

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#define OSTRAK_KNOWS_SINGLE_THREADED 1
#endif

namespace Ostrak {

namespace detail {
/// True while the process has one thread. Counts then change with plain
/// loads and stores, as the standard library's shared pointers do: nobody can
/// race, and starting a thread orders everything before it.
inline bool singleThreaded() noexcept {
#ifdef OSTRAK_KNOWS_SINGLE_THREADED
  return __libc_single_threaded != 0;
#else
  return false;
#endif
}
}  // namespace detail

class ReferenceCounter;

/// Handles convert wherever the object pointers do.
template <class From, class To>
concept PointerConvertibleTo = std::is_convertible_v<From*, To*>;

/// Shared bookkeeping of one reference-counted object.
///
/// `strong` counts strong handles; it is 0 before the first strong handle and
/// negative once destruction has begun. `weak` counts weak handles plus one
/// hold for the living object (or, once the object is gone, for the strong
/// handles that outlived it); the block is freed when it reaches zero.
struct ReferenceBlock {
  static constexpr int32_t kDead = INT32_MIN / 2;
  static constexpr uint8_t kEndOfLifeDone = 1;
  static constexpr uint8_t kDeferredDone = 2;

  std::atomic<int32_t> strong{0};
  std::atomic<int32_t> weak{1};
  std::atomic<ReferenceCounter*> object{nullptr};
  std::atomic<uint8_t> flags{0};

  /// True while the block holds its object and destruction has not begun.
  bool alive() const noexcept {
    return object.load(std::memory_order_acquire) != nullptr &&
           strong.load(std::memory_order_acquire) >= 0;
  }

  /// Strong handles, or 0 once the object is gone.
  int32_t strongCount() const noexcept {
    int32_t s = strong.load(std::memory_order_acquire);
    return s < 0 ? 0 : s;
  }

  /// Weak handles plus strong handles (a strong handle counts in both counts).
  int32_t weakCount() const noexcept {
    int32_t holds = weak.load(std::memory_order_acquire);
    bool objectHold = object.load(std::memory_order_acquire) != nullptr;
    return holds - (objectHold ? 1 : 0) + strongCount();
  }

  void acquireStrong() noexcept { increment(strong); }
  void releaseStrong() noexcept {
    int32_t previous = decrement(strong);
    if (previous > 1) return;
    if (previous == 1) {
      endOfLife();
    } else {
      releaseInvalidStrong(previous);
    }
  }
  /// Takes a strong reference unless destruction has begun or nobody ever
  /// held the object strongly. Returns whether it succeeded.
  bool tryPromote() noexcept {
    int32_t s = strong.load(std::memory_order_relaxed);
    if (detail::singleThreaded()) {
      if (s <= 0) return false;
      strong.store(s + 1, std::memory_order_relaxed);
      return true;
    }
    while (s > 0) {
      if (strong.compare_exchange_weak(s, s + 1, std::memory_order_acq_rel,
                                       std::memory_order_relaxed)) {
        return true;
      }
    }
    return false;
  }
  void acquireWeak() noexcept { increment(weak); }
  void releaseWeak() noexcept {
    if (decrement(weak) == 1) delete this;
  }

  /// Takes a strong reference from a raw object pointer; runs the object's
  /// deferred initialisation on the first such handle. False for an object
  /// whose destruction has begun.
  bool adoptFromRaw() noexcept;

 private:
  static void increment(std::atomic<int32_t>& count) noexcept {
    if (detail::singleThreaded()) {
      count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    } else {
      count.fetch_add(1, std::memory_order_relaxed);
    }
  }
  /// Returns the previous value. Acquire-release order: whoever takes a count
  /// to its end must see every use made under the other handles.
  static int32_t decrement(std::atomic<int32_t>& count) noexcept {
    if (detail::singleThreaded()) {
      int32_t previous = count.load(std::memory_order_relaxed);
      count.store(previous - 1, std::memory_order_relaxed);
      return previous;
    }
    return count.fetch_sub(1, std::memory_order_acq_rel);
  }
  void endOfLife() noexcept;
  void releaseInvalidStrong(int32_t previous) noexcept;
};

/// Root of every reference-counted class; reached through exactly one
/// `ReferenceBase<B>` per class.
class ReferenceCounter {
 public:
  ReferenceCounter();
  /// A copy is a new object with its own block.
  ReferenceCounter(const ReferenceCounter&) : ReferenceCounter() {}
  ReferenceCounter& operator=(const ReferenceCounter&) noexcept { return *this; }
  virtual ~ReferenceCounter();

  /// Last rites, run exactly once when the last strong handle goes, before
  /// destruction. Weak handles still reach the object meanwhile.
  virtual void extremeUnction() {}

  /// Deferred initialisation, run once on the first strong handle made from a
  /// raw pointer to this object.
  virtual void DeferredConstructor() {}

  ReferenceBlock* referenceBlock() const noexcept { return block_; }
  int32_t strongCount() const noexcept { return block_->strongCount(); }
  int32_t weakCount() const noexcept { return block_->weakCount(); }

 private:
  ReferenceBlock* block_;
};

/// The reference base of a class family; `B` names the family.
template <class B>
class ReferenceBase : public ReferenceCounter {
 protected:
  ReferenceBase() = default;
  ReferenceBase(const ReferenceBase&) = default;
  ReferenceBase& operator=(const ReferenceBase&) = default;
  ~ReferenceBase() override = default;
};

template <class T, class B>
class WeakPtr;

namespace detail {
struct AdoptBlock {};
template <class T>
ReferenceBlock* blockOf(T* object) noexcept {
  return object ? static_cast<const ReferenceCounter*>(object)->referenceBlock() : nullptr;
}
}  // namespace detail

/// Strong handle: keeps its object alive. `B` names the reference base whose
/// block is used; handles convert implicitly wherever the pointers do.
/// Handles order and compare by block identity, never by contents; an invalid
/// handle behaves as a null one in every other operation.
template <class T, class B = T>
class StrongPtr {
 public:
  using element_type = T;

  StrongPtr() noexcept = default;
  StrongPtr(std::nullptr_t) noexcept {}

  /// Takes a strong reference on `object` (null gives a null handle) and runs
  /// its deferred initialisation if no raw-pointer handle has done so yet.
  explicit StrongPtr(T* object) noexcept {
    ReferenceBlock* block = detail::blockOf(object);
    if (block && block->adoptFromRaw()) {
      block_ = block;
      ptr_ = object;
    }
  }

  StrongPtr(const StrongPtr& other) noexcept : block_(other.block_), ptr_(other.ptr_) {
    if (block_) block_->acquireStrong();
  }
  StrongPtr(StrongPtr&& other) noexcept
      : block_(std::exchange(other.block_, nullptr)), ptr_(std::exchange(other.ptr_, nullptr)) {}

  template <PointerConvertibleTo<T> U, class C>
  StrongPtr(const StrongPtr<U, C>& other) noexcept
      : block_(other.referenceBlock()), ptr_(other.rawPointer()) {
    if (block_) block_->acquireStrong();
  }
  template <PointerConvertibleTo<T> U, class C>
  StrongPtr(StrongPtr<U, C>&& other) noexcept
      : block_(other.referenceBlock()), ptr_(other.rawPointer()) {
    other.release();
  }

  /// Promotion: null when the object is gone or its destruction has begun.
  template <PointerConvertibleTo<T> U, class C>
  explicit StrongPtr(const WeakPtr<U, C>& weak) noexcept {
    ReferenceBlock* block = weak.referenceBlock();
    if (block && weak.rawPointer() && block->object.load(std::memory_order_acquire) &&
        block->tryPromote()) {
      block_ = block;
      ptr_ = weak.rawPointer();
    }
  }

  ~StrongPtr() {
    if (block_) block_->releaseStrong();
  }

  StrongPtr& operator=(const StrongPtr& other) noexcept {
    StrongPtr(other).swap(*this);
    return *this;
  }
  StrongPtr& operator=(StrongPtr&& other) noexcept {
    StrongPtr(std::move(other)).swap(*this);
    return *this;
  }
  template <PointerConvertibleTo<T> U, class C>
  StrongPtr& operator=(const StrongPtr<U, C>& other) noexcept {
    StrongPtr(other).swap(*this);
    return *this;
  }
  StrongPtr& operator=(std::nullptr_t) noexcept {
    reset();
    return *this;
  }

  void reset() noexcept { StrongPtr().swap(*this); }
  void swap(StrongPtr& other) noexcept {
    std::swap(block_, other.block_);
    std::swap(ptr_, other.ptr_);
  }

  bool valid() const noexcept { return ptr_ && block_ && block_->alive(); }
  explicit operator bool() const noexcept { return valid(); }
  bool operator!() const noexcept { return !valid(); }

  T* get() const noexcept { return valid() ? ptr_ : nullptr; }
  T* operator->() const noexcept { return get(); }
  T& operator*() const noexcept { return *get(); }

  /// Counts of the object's handles; 0 for an invalid handle, as for a null one.
  int32_t strongCount() const noexcept { return valid() ? block_->strongCount() : 0; }
  int32_t weakCount() const noexcept { return valid() ? block_->weakCount() : 0; }

  // Raw access for the handle machinery; no validity test.
  ReferenceBlock* referenceBlock() const noexcept { return block_; }
  T* rawPointer() const noexcept { return ptr_; }
  /// Forgets the block without releasing it (ownership moved elsewhere).
  void release() noexcept {
    block_ = nullptr;
    ptr_ = nullptr;
  }
  /// Wraps a block on which a strong reference has already been taken.
  StrongPtr(detail::AdoptBlock, ReferenceBlock* block, T* object) noexcept
      : block_(block), ptr_(object) {}

 private:
  ReferenceBlock* block_ = nullptr;
  T* ptr_ = nullptr;
};

/// Weak handle: reaches its object while it exists, never keeps it alive.
template <class T, class B = T>
class WeakPtr {
 public:
  using element_type = T;

  WeakPtr() noexcept = default;
  WeakPtr(std::nullptr_t) noexcept {}
  explicit WeakPtr(T* object) noexcept : block_(detail::blockOf(object)), ptr_(object) {
    if (block_) block_->acquireWeak();
  }
  WeakPtr(const WeakPtr& other) noexcept : block_(other.block_), ptr_(other.ptr_) {
    if (block_) block_->acquireWeak();
  }
  WeakPtr(WeakPtr&& other) noexcept
      : block_(std::exchange(other.block_, nullptr)), ptr_(std::exchange(other.ptr_, nullptr)) {}
  template <PointerConvertibleTo<T> U, class C>
  WeakPtr(const WeakPtr<U, C>& other) noexcept
      : block_(other.referenceBlock()), ptr_(other.rawPointer()) {
    if (block_) block_->acquireWeak();
  }
  template <PointerConvertibleTo<T> U, class C>
  WeakPtr(const StrongPtr<U, C>& strong) noexcept
      : block_(strong.referenceBlock()), ptr_(strong.rawPointer()) {
    if (block_) block_->acquireWeak();
  }
  ~WeakPtr() {
    if (block_) block_->releaseWeak();
  }

  WeakPtr& operator=(const WeakPtr& other) noexcept {
    WeakPtr(other).swap(*this);
    return *this;
  }
  WeakPtr& operator=(WeakPtr&& other) noexcept {
    WeakPtr(std::move(other)).swap(*this);
    return *this;
  }
  template <PointerConvertibleTo<T> U, class C>
  WeakPtr& operator=(const WeakPtr<U, C>& other) noexcept {
    WeakPtr(other).swap(*this);
    return *this;
  }
  template <PointerConvertibleTo<T> U, class C>
  WeakPtr& operator=(const StrongPtr<U, C>& other) noexcept {
    WeakPtr(other).swap(*this);
    return *this;
  }
  WeakPtr& operator=(std::nullptr_t) noexcept {
    reset();
    return *this;
  }

  void reset() noexcept { WeakPtr().swap(*this); }
  void swap(WeakPtr& other) noexcept {
    std::swap(block_, other.block_);
    std::swap(ptr_, other.ptr_);
  }

  bool valid() const noexcept { return ptr_ && block_ && block_->alive(); }
  explicit operator bool() const noexcept { return valid(); }
  bool operator!() const noexcept { return !valid(); }
  /// True when the handle was set but its object is gone or dying.
  bool expired() const noexcept { return !valid(); }

  T* get() const noexcept { return valid() ? ptr_ : nullptr; }
  T* operator->() const noexcept { return get(); }
  T& operator*() const noexcept { return *get(); }

  /// A strong handle, or null when the object is gone or dying.
  StrongPtr<T, B> lock() const noexcept { return StrongPtr<T, B>(*this); }

  /// Counts of the object's handles; 0 for an invalid handle, as for a null one.
  int32_t strongCount() const noexcept { return valid() ? block_->strongCount() : 0; }
  int32_t weakCount() const noexcept { return valid() ? block_->weakCount() : 0; }

  ReferenceBlock* referenceBlock() const noexcept { return block_; }
  T* rawPointer() const noexcept { return ptr_; }

 private:
  ReferenceBlock* block_ = nullptr;
  T* ptr_ = nullptr;
};

// Identity of the block decides equality and order, so that ordered
// containers of handles stay ordered when objects die.
template <class T, class B, class U, class C>
bool operator==(const StrongPtr<T, B>& a, const StrongPtr<U, C>& b) noexcept {
  return a.referenceBlock() == b.referenceBlock();
}
template <class T, class B, class U, class C>
std::strong_ordering operator<=>(const StrongPtr<T, B>& a, const StrongPtr<U, C>& b) noexcept {
  return std::compare_three_way{}(a.referenceBlock(), b.referenceBlock());
}
template <class T, class B, class U, class C>
bool operator==(const WeakPtr<T, B>& a, const WeakPtr<U, C>& b) noexcept {
  return a.referenceBlock() == b.referenceBlock();
}
template <class T, class B, class U, class C>
std::strong_ordering operator<=>(const WeakPtr<T, B>& a, const WeakPtr<U, C>& b) noexcept {
  return std::compare_three_way{}(a.referenceBlock(), b.referenceBlock());
}
template <class T, class B, class U, class C>
bool operator==(const WeakPtr<T, B>& a, const StrongPtr<U, C>& b) noexcept {
  return a.referenceBlock() == b.referenceBlock();
}
template <class T, class B>
bool operator==(const StrongPtr<T, B>& a, std::nullptr_t) noexcept {
  return !a.valid();
}
template <class T, class B>
bool operator==(const WeakPtr<T, B>& a, std::nullptr_t) noexcept {
  return !a.valid();
}

/// Down-cast of a strong handle: null on mismatch or for an invalid handle.
template <class U, class T, class B>
StrongPtr<U> dynamic_pointer_cast(const StrongPtr<T, B>& handle) noexcept {
  U* target = dynamic_cast<U*>(handle.get());
  if (!target) return {};
  handle.referenceBlock()->acquireStrong();
  return StrongPtr<U>(detail::AdoptBlock{}, handle.referenceBlock(), target);
}

/// Down-cast of a weak handle: null on mismatch or for an invalid handle.
template <class U, class T, class B>
WeakPtr<U> dynamic_pointer_cast(const WeakPtr<T, B>& handle) noexcept {
  U* target = dynamic_cast<U*>(handle.get());
  return target ? WeakPtr<U>(target) : WeakPtr<U>();
}

/// A strong handle on an object reached by reference or raw pointer, without
/// running deferred initialisation; null when nobody holds the object
/// strongly or its destruction has begun.
template <class T>
StrongPtr<T> strongFromThis(T* object) noexcept {
  ReferenceBlock* block = detail::blockOf(object);
  if (!block || !block->tryPromote()) return {};
  return StrongPtr<T>(detail::AdoptBlock{}, block, object);
}

}  // namespace Ostrak

template <class T, class B>
struct std::hash<Ostrak::StrongPtr<T, B>> {
  size_t operator()(const Ostrak::StrongPtr<T, B>& handle) const noexcept {
    return std::hash<const void*>{}(handle.referenceBlock());
  }
};
template <class T, class B>
struct std::hash<Ostrak::WeakPtr<T, B>> {
  size_t operator()(const Ostrak::WeakPtr<T, B>& handle) const noexcept {
    return std::hash<const void*>{}(handle.referenceBlock());
  }
};
