#pragma once
// Memory objects: arrays of elements held in memory, and the procedural
// positions of a uniform grid.

#include <array>
#include <atomic>
#include <concepts>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>

#include "field/DynamicSize.hpp"
#include "field/PhysicalSpace.hpp"
#include "field/QuarilType.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Quaril {

/// The reference base of memory objects. Carries a usage mark, so that a
/// cache can tell which objects were used least recently.
class Cacheable : public Ostrak::ReferenceBase<Cacheable> {
 public:
  Cacheable() noexcept;
  Cacheable(const Cacheable& other) noexcept;
  Cacheable& operator=(const Cacheable&) = delete;
  ~Cacheable() override;

  /// Marks the object as used now, on a process-wide use clock.
  void markAsUsed() noexcept;
  /// The use clock's time at the last `markAsUsed` (0 when never used).
  /// Larger means more recent.
  uint64_t getLastUse() const noexcept { return lastUse_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> lastUse_{0};
};

/// A memory object: an element type, a size and the bytes that hold it.
class MemBase : public Cacheable {
 public:
  MemBase(const QuarilTypeBase& type, DynamicSize size);
  ~MemBase() override;

  const QuarilTypeBase& getTypeDescriptor() const noexcept { return *type_; }
  const DynamicSize& getSize() const noexcept { return size_; }
  uint64_t nElements() const noexcept { return size_.elements(); }
  /// Bytes this object holds for its elements (a procedural array: the bytes
  /// of its parameters).
  virtual uint64_t getMemoryUsage() const noexcept = 0;

  /// The stored elements, contiguous, first index fastest, so that a writer
  /// can store any array generically; null when the elements are computed
  /// rather than stored (UniformCartesianArray).
  virtual const void* rawData() const noexcept = 0;
  virtual void* rawData() noexcept = 0;

 private:
  const QuarilTypeBase* type_;
  DynamicSize size_;
};

/// An array of stored elements of type `T`, contiguous, first index fastest.
template <class T>
class TypedArray : public MemBase {
 public:
  using value_type = T;

  T* data() noexcept { return elements_; }
  const T* data() const noexcept { return elements_; }
  /// Element `index` in storage order; unchecked.
  T& operator[](uint64_t index) noexcept { return elements_[index]; }
  const T& operator[](uint64_t index) const noexcept { return elements_[index]; }
  T* begin() noexcept { return elements_; }
  T* end() noexcept { return elements_ + nElements(); }
  const T* begin() const noexcept { return elements_; }
  const T* end() const noexcept { return elements_ + nElements(); }

  uint64_t getMemoryUsage() const noexcept override { return nElements() * sizeof(T); }
  const void* rawData() const noexcept override { return elements_; }
  void* rawData() noexcept override { return elements_; }

 protected:
  explicit TypedArray(DynamicSize size) : MemBase(QuarilTypeBase::getType<T>(), std::move(size)) {}
  /// Derived classes hand over their storage once it exists.
  void setElements(T* elements) noexcept { elements_ = elements; }

 private:
  T* elements_ = nullptr;
};

/// Asks an array to leave its elements uninitialised, for a reader that
/// overwrites all of them at once (types with constructors still run them).
struct Uninitialised {};

/// An `N`-dimensional array that owns its elements; they start
/// value-initialised (zero for arithmetic types) unless made Uninitialised.
template <int N, class T>
class MemArray : public TypedArray<T> {
  static_assert(N >= 1, "a MemArray has at least one dimension");

 public:
  using Extents = std::array<uint64_t, N>;

  /// Allocates the elements. Throws std::bad_alloc when they do not fit in
  /// memory (also for a byte count beyond the address space).
  explicit MemArray(const Extents& extents)
      : TypedArray<T>(DynamicSize(extents)), storage_(allocate(this->nElements(), true)) {
    this->setElements(storage_.get());
  }
  MemArray(const Extents& extents, Uninitialised)
      : TypedArray<T>(DynamicSize(extents)), storage_(allocate(this->nElements(), false)) {
    this->setElements(storage_.get());
  }

  /// An array of the size `size`; null when its rank is not `N`. Throws
  /// std::bad_alloc as the constructor does.
  static StrongPtr<MemArray> create(const DynamicSize& size) {
    if (size.rank() != N) return {};
    return StrongPtr<MemArray>(new MemArray(extentsOf(size)));
  }
  static StrongPtr<MemArray> create(const DynamicSize& size, Uninitialised) {
    if (size.rank() != N) return {};
    return StrongPtr<MemArray>(new MemArray(extentsOf(size), Uninitialised{}));
  }

  /// The extent of dimension `dimension` (0 outside 0..N-1).
  uint64_t extent(int dimension) const noexcept { return this->getSize()[dimension]; }

  /// The element at the multi-index, first index fastest; unchecked.
  template <std::integral... Index>
  T& operator()(Index... index) noexcept {
    static_assert(sizeof...(Index) == N, "one index per dimension");
    return storage_[linear({static_cast<uint64_t>(index)...})];
  }
  template <std::integral... Index>
  const T& operator()(Index... index) const noexcept {
    static_assert(sizeof...(Index) == N, "one index per dimension");
    return storage_[linear({static_cast<uint64_t>(index)...})];
  }

 private:
  static std::unique_ptr<T[]> allocate(uint64_t count, bool zeroed) {
    if (count > SIZE_MAX / sizeof(T)) throw std::bad_alloc();
    const auto n = static_cast<std::size_t>(count);
    return std::unique_ptr<T[]>(zeroed ? new T[n]() : new T[n]);
  }
  static Extents extentsOf(const DynamicSize& size) {
    Extents extents{};
    for (int d = 0; d < N; ++d) extents[static_cast<std::size_t>(d)] = size[d];
    return extents;
  }
  uint64_t linear(const Extents& index) const noexcept {
    uint64_t offset = 0;
    for (int d = N - 1; d >= 0; --d) {
      offset = offset * extent(d) + index[static_cast<std::size_t>(d)];
    }
    return offset;
  }

  std::unique_ptr<T[]> storage_;
};

/// The vertex positions of a uniform grid, computed from an origin, a spacing
/// and three extents: position(i, j, k) = origin + (i dx, j dy, k dz). Stores
/// no points, so it is not a TypedArray; its element type is point.
class UniformCartesianArray : public MemBase {
 public:
  using point = Pelorn::PhysicalSpace::point;
  using tvector = Pelorn::PhysicalSpace::tvector;

  UniformCartesianArray(const point& origin, const tvector& spacing,
                        const std::array<uint64_t, 3>& extents);
  ~UniformCartesianArray() override;

  const point& origin() const noexcept { return origin_; }
  const tvector& spacing() const noexcept { return spacing_; }
  /// Vertices per dimension (the same numbers as getSize()).
  std::array<uint64_t, 3> extents() const noexcept {
    return {getSize()[0], getSize()[1], getSize()[2]};
  }
  /// The position of vertex (i, j, k); indices are not checked.
  point operator()(uint64_t i, uint64_t j, uint64_t k) const noexcept {
    return {origin_.x + static_cast<double>(i) * spacing_.x,
            origin_.y + static_cast<double>(j) * spacing_.y,
            origin_.z + static_cast<double>(k) * spacing_.z};
  }
  /// The position of the vertex with linear index `index` (first index fastest).
  point operator[](uint64_t index) const noexcept;

  uint64_t getMemoryUsage() const noexcept override;
  const void* rawData() const noexcept override { return nullptr; }
  void* rawData() noexcept override { return nullptr; }

 private:
  point origin_;
  tvector spacing_;
};

/// A new MemArray of rank 1 to 4 and element type `type`, for a reader that
/// learns the type and size from a file: the built-in types (every arithmetic
/// type, point, tvector) are supported. Null for another type or rank.
/// Elements start zero, or uninitialised when `zeroed` is false (the reader
/// then overwrites them all). Throws std::bad_alloc when the elements do not
/// fit in memory.
StrongPtr<MemBase, Cacheable> makeMemArray(const QuarilTypeBase& type, const DynamicSize& size,
                                           bool zeroed = true);

}  // namespace Quaril
