#pragma once
// The skeletons of a grid, by SkeletonID.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>

#include "grid/Skeleton.hpp"
#include "grid/SkeletonID.hpp"

namespace Quaril {

/// The skeletons of a grid, keyed by `SkeletonID`. Owns its skeletons: every
/// insertion records the map as the skeleton's owner. An empty map allocates
/// nothing. Not synchronised: built by one thread at a time.
class SkeletonMap : public Ownable<BaseSpace>::Container {
 public:
  SkeletonMap() noexcept = default;
  ~SkeletonMap() override;
  SkeletonMap(const SkeletonMap&) = delete;
  SkeletonMap& operator=(const SkeletonMap&) = delete;

  /// The skeleton stored under `id`, or null.
  StrongPtr<Skeleton> getSkeleton(const SkeletonID& id) const;

  /// Stores `skeleton` under `id`, replacing (and disowning) the skeleton
  /// stored there before, and records this map as its owner. False, and
  /// nothing changes, when `skeleton` is null, `id` is invalid or its
  /// dimension differs from the skeleton's.
  bool setSkeleton(const SkeletonID& id, const StrongPtr<Skeleton>& skeleton);

  /// Makes a skeleton of `nElements` elements of `id`'s dimension with the
  /// given refinement factor and stores it under `id`. Null, and nothing
  /// changes, when `id` is invalid or already taken.
  StrongPtr<Skeleton> makeSkeleton(const SkeletonID& id, uint64_t nElements, int refinement = 1);

  /// The index after the highest one used by a skeleton of `dimension` (0
  /// when there is none); -1 for a negative dimension or when none is left.
  int nextIndex(int dimension) const;

  size_t nSkeletons() const noexcept { return skeletons_.size(); }

  /// Calls `visit` on each (identity, skeleton) in identity order until it
  /// returns false; returns the number of calls made. `visit` must not add
  /// skeletons to this map.
  int iterate(
      const std::function<bool(const SkeletonID&, const StrongPtr<Skeleton>&)>& visit) const;

  /// Adds this map's memory use to two counters, each array counted once
  /// however many fields, representations and skeletons share it:
  /// - `first`: bytes of array data resident in memory now (data held by
  ///   in-memory creators and the caches of deferred creators);
  /// - `second`: bytes that deferred creators could produce but do not hold
  ///   now, i.e. what loading the rest of the grid would add.
  /// Procedural arrays (uniform positions) count with the few bytes they
  /// store. Nothing is produced or loaded. Returns the bytes added to `first`,
  /// modulo 2^32.
  unsigned getMemoryUsage(unsigned long long& first, unsigned long long& second) const;

  /// The skeleton of dimension `extra` with isotropic refinement factor
  /// `factor` (the lowest index wins when several have it). `extra` is the
  /// dimension searched: 0, the usual value, asks for a vertex skeleton, i.e.
  /// a refinement level of the grid's vertices. Null when there is no such
  /// skeleton (also for a negative `extra` or a `factor` below 1).
  StrongPtr<Skeleton> findIsotropicRefinementFactor(int factor, int extra) const;

 protected:
  const std::map<SkeletonID, StrongPtr<Skeleton>>& skeletons() const noexcept { return skeletons_; }

 private:
  /// Drops this map from `skeleton`'s owners unless it still holds the
  /// skeleton under another identity.
  void disown(const StrongPtr<Skeleton>& skeleton);

  std::map<SkeletonID, StrongPtr<Skeleton>> skeletons_;
};

}  // namespace Quaril
