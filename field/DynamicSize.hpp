#pragma once
// The extents of an array whose rank is known only at run time.

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace Quaril {

/// Rank and extents of an array, first extent first (the first index runs
/// fastest in the arrays of this layer). A default-constructed size has rank
/// 0 and means "no size known".
class DynamicSize {
 public:
  DynamicSize() = default;
  DynamicSize(std::initializer_list<uint64_t> extents) : extents_(extents) {}
  explicit DynamicSize(std::vector<uint64_t> extents) : extents_(std::move(extents)) {}
  template <std::size_t N>
  explicit DynamicSize(const std::array<uint64_t, N>& extents)
      : extents_(extents.begin(), extents.end()) {}

  int rank() const noexcept { return static_cast<int>(extents_.size()); }
  /// The extent of dimension `dimension`; 0 outside the rank.
  uint64_t operator[](int dimension) const noexcept {
    return dimension >= 0 && dimension < rank() ? extents_[static_cast<std::size_t>(dimension)] : 0;
  }
  const std::vector<uint64_t>& extents() const noexcept { return extents_; }

  /// The number of elements: the product of the extents, 0 for rank 0, and
  /// UINT64_MAX when the product does not fit in 64 bits.
  uint64_t elements() const noexcept;

  /// The extents as text, "4x5x6"; "" for rank 0.
  std::string str() const;

  friend bool operator==(const DynamicSize&, const DynamicSize&) = default;

 private:
  std::vector<uint64_t> extents_;
};

}  // namespace Quaril
