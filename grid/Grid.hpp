#pragma once
// Grids: a skeleton map with charts, owned by the slices that hold it.

#include <string>

#include "grid/GlobalCharts.hpp"
#include "grid/SkeletonMap.hpp"
#include "ostrak/Ageable.hpp"
#include "ostrak/Attributes.hpp"

namespace Quaril {

class Grid;

/// A container of grids that ages as its grids change (in the bundle
/// library, the list of grid identities).
class GridContainer : public Ownable<Grid>::Container, public Ostrak::Ageable {
 public:
  GridContainer() = default;
  ~GridContainer() override;
};

/// A mesh with fields: a skeleton map whose vertex skeleton `SkeletonID(0, 0)`
/// carries the positions, the field "Positions" of its representation
/// relative to a Cartesian chart. Owned by slices (which record themselves
/// as owners); owns its skeletons. The one-call constructors of common mesh
/// kinds are in grid/GridConstructors.hpp.
///
/// Memory use (`getMemoryUsage(first, second)`, inherited): `first` gains
/// the bytes resident now, `second` the bytes that deferred creators could
/// still produce; see `SkeletonMap::getMemoryUsage`.
///
/// Refinement levels (`findIsotropicRefinementFactor(factor, extra)`,
/// inherited): `extra` is the dimension of the skeleton searched, 0 for the
/// vertex skeletons that carry refinement levels; see `SkeletonMap`.
///
/// Named attributes (`Ostrak::SaveableAttributes`) travel with the grid
/// into files.
///
/// An empty grid holds no allocation beyond itself and its reference block,
/// since bundles make one per slice and grid name. Not synchronised.
class Grid : public SkeletonMap, public Ownable<Grid>, public Ostrak::SaveableAttributes {
 public:
  /// The name of the vertex positions field.
  static constexpr const char* PositionsName = "Positions";

  /// A grid in `container` (kept apart from the owner list: the container
  /// is not an owner) using the charts `charts`, which may be null for a
  /// grid that needs no chart.
  Grid(const WeakPtr<GridContainer>& container, const StrongPtr<GlobalCharts>& charts);
  ~Grid() override;

  WeakPtr<GridContainer> getContainer() const { return container_; }
  const StrongPtr<GlobalCharts>& getCharts() const noexcept { return charts_; }

  /// The Cartesian chart called `name`, the default chart for an empty
  /// name. Null when the grid has no charts or no such Cartesian chart exists.
  StrongPtr<ChartID> findCartesianChart(const std::string& name = "") const;

  /// The representation of skeleton `id` relative to `chart`, or null when
  /// either is missing.
  StrongPtr<Representation> getRepresentation(const StrongPtr<ChartID>& chart,
                                              const SkeletonID& id) const;
  /// The vertices' representation relative to the Cartesian chart
  /// `chartname` (default chart when empty), or null.
  StrongPtr<Representation> getCartesianRepresentation(const std::string& chartname = "") const;
  /// `skeleton`'s representation relative to the Cartesian chart
  /// `chartname` (default chart when empty), or null.
  StrongPtr<Representation> getCartesianRepresentation(const StrongPtr<Skeleton>& skeleton,
                                                       const std::string& chartname) const;
  /// As `getCartesianRepresentation(skeleton, chartname)`, but made when
  /// missing. Null when `skeleton` is null or the chart is unknown.
  StrongPtr<Representation> makeCartesianRepresentation(const StrongPtr<Skeleton>& skeleton,
                                                        const std::string& chartname = "");

  /// The field "Positions" of the vertices' representation relative to
  /// `chart`, or null.
  StrongPtr<Field> getVertexPositions(const StrongPtr<ChartID>& chart) const;
  /// The field "Positions" relative to the default Cartesian chart, or null.
  StrongPtr<Field> CartesianPositions() const;

  /// The grid's description: one line per skeleton, representation and
  /// field (name, element type, fragment count, extents), indented by blanks
  /// from five on, each line ending in a line feed, e.g.
  /// `     <SKELETON dimension="0" index="0" elements="8" refinement="1">`.
  /// Names are written unescaped. Empty for a grid without skeletons.
  /// Loads nothing.
  std::string xml() const;

 protected:
  /// A grid whose attributes change counts as changed (Ostrak::OwnerBase).
  void attributesChanged() override { markChanged(); }

 private:
  /// The attribute naming a representation's base space in `xml`.
  std::string describeBaseSpace(const WeakPtr<BaseSpace>& base) const;

  WeakPtr<GridContainer> container_;
  StrongPtr<GlobalCharts> charts_;
};

}  // namespace Quaril
