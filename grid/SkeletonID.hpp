#pragma once
// The name of a skeleton within a grid: the dimension of its elements and an
// index among the grid's skeletons of that dimension.

#include <compare>
#include <string>

namespace Quaril {

/// Identifies a skeleton in a grid's skeleton map. `SkeletonID(0, 0)` names
/// the grid's vertices; further vertex skeletons (refinement levels, for
/// example) use higher indices. Ordered by dimension, then index.
class SkeletonID {
 public:
  /// The vertices, `SkeletonID(0, 0)`.
  constexpr SkeletonID() noexcept = default;
  constexpr SkeletonID(int dimension, int index) noexcept : dimension_(dimension), index_(index) {}

  constexpr int dimension() const noexcept { return dimension_; }
  constexpr int index() const noexcept { return index_; }
  /// False when the dimension or the index is negative; such an identity
  /// names no skeleton and every skeleton map refuses it.
  constexpr bool isValid() const noexcept { return dimension_ >= 0 && index_ >= 0; }

  /// A readable name, "Skeleton(dimension,index)", e.g. "Skeleton(0,0)".
  std::string Name() const;

  friend constexpr auto operator<=>(const SkeletonID&, const SkeletonID&) noexcept = default;
  friend constexpr bool operator==(const SkeletonID&, const SkeletonID&) noexcept = default;

 private:
  int dimension_ = 0;
  int index_ = 0;
};

}  // namespace Quaril
