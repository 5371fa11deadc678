#pragma once
// Structural properties of bundles and grids, and the question whether any
// slice of a bundle has one.

#include <string>

#include "bundle/Bundle.hpp"
#include "grid/SkeletonID.hpp"

namespace Quaril {

class GridSelector;

/// A predicate over slices.
class BundleProperty {
 public:
  class Anything;

  virtual ~BundleProperty();
  /// Whether `slice` has the property; `gridname` narrows it to one grid
  /// (empty: any grid of the slice).
  virtual bool checkSlice(Slice& slice, const std::string& gridname) const = 0;
};

/// Every slice has it.
class BundleProperty::Anything : public BundleProperty {
 public:
  bool checkSlice(Slice& slice, const std::string& gridname) const override;
};

/// A predicate over grids, lifted to slices: a slice has it when the named
/// grid has it, or, for an empty name, when any of its grids has it.
class GridProperty : public BundleProperty {
 public:
  bool checkSlice(Slice& slice, const std::string& gridname) const override;
  virtual bool checkGrid(const Grid& grid) const = 0;
};

// The checkers below classify a grid by the storage of the positions of its
// Cartesian representation ("Positions"). Asking them produces the position
// data of deferred creators (with caching on).

/// Positions of at most one fragment, an unfragmented producible creator
/// whose data is procedural uniform Cartesian.
class isUniformCartesianGrid : public GridProperty {
 public:
  bool checkGrid(const Grid& grid) const override;
};

/// Every fragment producible and uniform Cartesian (true without fragments).
class isFragmentedUniformCartesianGrid : public GridProperty {
 public:
  bool checkGrid(const Grid& grid) const override;
};

/// Some producible fragment holds a three-dimensional array of points.
class isCurvilinearGrid : public GridProperty {
 public:
  bool checkGrid(const Grid& grid) const override;
};

/// Some producible fragment holds stored points, and at least one fragment
/// is producible.
class hasExplicitCartesianCoordinates : public GridProperty {
 public:
  bool checkGrid(const Grid& grid) const override;
};

/// The Cartesian positions field exists and stores points. No data is produced.
class hasCartesianCoordinates : public GridProperty {
 public:
  bool checkGrid(const Grid& grid) const override;
};

/// The grid has a skeleton under this identity.
class SkeletonExistence : public GridProperty, public SkeletonID {
 public:
  explicit SkeletonExistence(const SkeletonID& id) : SkeletonID(id) {}
  bool checkGrid(const Grid& grid) const override;
};

/// Whether some examined slice of `bundle` has `property`. Slices with
/// pending loaders are passed over, except the first slice, which the walk
/// loads. False for a bundle without slices.
bool hasProperty(const Bundle& bundle, const BundleProperty& property);
/// As above; false for an empty or dead handle.
bool hasProperty(BundlePtr bundle, const BundleProperty& property);
/// As above for the selector's bundle, asking about the selector's grid.
bool hasProperty(const GridSelector& selector, const BundleProperty& property);

}  // namespace Quaril
