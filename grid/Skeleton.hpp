#pragma once
// Skeletons: the sets of elements of one dimension that make up a grid.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>

#include "grid/BaseSpace.hpp"
#include "grid/Representation.hpp"

namespace Quaril {

/// A skeleton's representations, keyed by the base space each is relative
/// to (ordered by the identity of that base space, which is held weakly so
/// that a skeleton relative to itself or to a sibling forms no cycle).
using RepresentationMap = std::map<WeakPtr<BaseSpace>, StrongPtr<Representation>>;

/// A set of elements of one dimension: vertices (0), edges (1), faces (2),
/// cells (3). It knows how many elements it has and its isotropic refinement
/// factor (1 = unrefined, 2 = every edge halved, ...), and owns its
/// representations. Owned by the grids that hold it; a base space itself, so
/// that other skeletons can be represented relative to it.
/// Not synchronised: a skeleton is built by one thread at a time.
class Skeleton : public BaseSpace, public Ownable<BaseSpace> {
 public:
  /// A skeleton of `nElements` elements of dimension `dimension`, refined by
  /// `refinement` (values below 1 are taken as 1).
  Skeleton(int dimension, uint64_t nElements, int refinement = 1);
  ~Skeleton() override;
  Skeleton(const Skeleton&) = delete;
  Skeleton& operator=(const Skeleton&) = delete;

  int getDimension() const noexcept { return dimension_; }
  uint64_t getNumberOfElements() const noexcept { return nElements_; }
  int getIsotropicRefinementFactor() const noexcept { return refinement_; }

  /// The representation relative to `base`, or null when there is none.
  StrongPtr<Representation> getRepresentation(const WeakPtr<BaseSpace>& base) const;
  /// The representation relative to `base`, made when missing; this
  /// skeleton is recorded as its owner. Null when `base` is null or gone.
  StrongPtr<Representation> makeRepresentation(const WeakPtr<BaseSpace>& base);

  size_t nRepresentations() const noexcept { return representations_.size(); }
  /// Calls `visit` on each (base space, representation) in map order until it
  /// returns false; returns the number of calls made. `visit` must not add
  /// representations to this skeleton.
  int iterate(const std::function<bool(const WeakPtr<BaseSpace>&,
                                       const StrongPtr<Representation>&)>& visit) const;

 private:
  int dimension_;
  int refinement_;
  uint64_t nElements_;
  RepresentationMap representations_;
};

}  // namespace Quaril
