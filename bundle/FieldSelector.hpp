#pragma once
// The selector of one field of one grid of a bundle, with the time step the
// field is taken from.

#include <string>

#include "bundle/Bundle.hpp"
#include "bundle/FieldSelection.hpp"
#include "bundle/GridSelector.hpp"
#include "field/Field.hpp"
#include "field/QuarilType.hpp"
#include "grid/GlobalCharts.hpp"
#include "grid/Grid.hpp"
#include "grid/Representation.hpp"
#include "grid/SkeletonID.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Quaril {

/// A grid selector that also names the wanted field (its selection) and
/// where in time the field is taken from (its source: a time, the slice at
/// that time and the grid found there). Fields are looked up on the skeleton
/// `getSkeletonID()`, the vertices unless changed.
///
/// A plain copy leaves the selection behind: the copy starts without one.
/// A move takes it along. Used by one thread at a time.
class FieldSelector : public GridSelector {
 public:
  /// No bundle, no grid name, no selection, an empty source at time 0.0.
  FieldSelector();
  /// Selects `fieldname` on `gridname` at exactly `time` (see
  /// setFieldSource). Throws the text "FieldSelector::FieldSelector():
  /// ERROR: Could not create Field!!" as a `const char*` when `bundle` is
  /// empty or dead or `gridname` is empty.
  FieldSelector(const BundlePtr& bundle, double time, const std::string& gridname,
                const std::string& fieldname);
  /// Selects `fieldname` on the latest occurrence of `gridname` at or before
  /// `time` (see findFieldSource) and writes that occurrence's time into
  /// `time`; `time` is left alone when none is found. Never throws.
  FieldSelector(double& time, const BundlePtr& bundle, const std::string& gridname,
                const std::string& fieldname);
  /// Bundle, grid name, source and skeleton of `other`, without a selection.
  FieldSelector(const FieldSelector& other);
  /// Bundle, grid name, source and skeleton of `other`, with a selection of
  /// its own holding `fieldname` with `types` as the only field.
  FieldSelector(const FieldSelector& other, const std::string& fieldname, const TypeList& types);
  /// Bundle and grid name of `grid`, the given source, no selection.
  FieldSelector(const GridSelector& grid, const Info<Grid>& source);
  /// Takes everything of `other` along, the selection included.
  FieldSelector(FieldSelector&& other) noexcept;
  /// As the copy constructor: takes bundle, grid name, source and skeleton of
  /// `other` and ends without a selection. Assigning a selector to itself
  /// changes nothing.
  FieldSelector& operator=(const FieldSelector& other);
  /// Takes everything of `other` along, the selection included.
  FieldSelector& operator=(FieldSelector&& other) noexcept;
  ~FieldSelector() override;

  // ---- selection ------------------------------------------------------------

  /// The selection, created empty when there is none.
  FieldSelection* Selection();
  /// The selection, or one process-wide empty selection when there is none.
  const FieldSelection* Selection() const;
  /// Drops the selection; the selector becomes invalid, its source stays.
  void clearSelection() noexcept { selection_.reset(); }
  /// True when the selector has no live selection.
  bool operator!() const noexcept { return !selection_.valid(); }
  /// Number of selected fields; 0 without a selection.
  int NumberOfAvailableFields() const;
  /// The only selected field's name; empty without a selection or when
  /// several fields are selected.
  std::string getFieldName() const;
  /// Makes `name` with `types` the only selected field.
  void selectField(const std::string& name, const TypeList& types);

  // ---- source ---------------------------------------------------------------

  /// Selects `fieldname` (any type) and takes as source the latest
  /// occurrence of the grid at or before `time`. False, changing nothing,
  /// without a live bundle or a grid name; otherwise whether a live grid was
  /// found (the source is replaced either way). Creates nothing in the bundle.
  bool findFieldSource(double time, const std::string& fieldname);
  /// Replaces bundle and grid name, then findFieldSource(time, fieldname).
  bool findFieldSource(const BundlePtr& bundle, double time, const std::string& gridname,
                       const std::string& fieldname);
  /// Selects `fieldname` (any type) and takes as source the slice at exactly
  /// `time` and the grid there; both stay empty when missing. False without
  /// a live bundle or a grid name, otherwise true, whether or not a slice
  /// and grid were found. Creates nothing in the bundle.
  bool setFieldSource(double time, const std::string& fieldname);

  /// The source: time, slice and grid.
  const Info<Grid>& getSource() const noexcept { return source_; }
  double getSourceTime() const noexcept { return source_.time; }
  /// The skeleton on which level-0 fields are looked up.
  const SkeletonID& getSkeletonID() const noexcept { return skeletonID_; }
  void setSkeletonID(const SkeletonID& id) noexcept { skeletonID_ = id; }

  // ---- data -----------------------------------------------------------------

  /// The source grid's vertex positions relative to `chart`; null without a
  /// live source grid or when it has none.
  StrongPtr<Field> getPositions(const StrongPtr<ChartID>& chart) const;
  /// The source grid's vertex positions relative to its default Cartesian
  /// chart; null without a live source grid or when it has none.
  StrongPtr<Field> getCartesianPositions() const;
  /// The field `fieldname` of the selector's skeleton relative to `chart` on
  /// the source grid. Null when the grid or representation is missing; the
  /// empty `Field::NullPtrField()` when the representation lacks the field.
  StrongPtr<Field> getField(const StrongPtr<ChartID>& chart, const std::string& fieldname) const;
  /// The field `fieldname` at refinement level `level`. Level 0: on the
  /// source grid, relative to the Cartesian chart `chartname`. Other levels:
  /// on the latest grid at or before the source time that has that level,
  /// relative to the default Cartesian chart (`chartname` is not used). Null
  /// when a grid, chart or representation is missing; `Field::NullPtrField()`
  /// when the representation lacks the field.
  StrongPtr<Field> getField(const std::string& fieldname, int level = 0,
                            const std::string& chartname = "") const;
  /// Level 0: the source grid's vertex representation relative to the
  /// default Cartesian chart. Other levels: the representation that
  /// getField at that level searches. Null when missing.
  StrongPtr<Representation> getCartesianRepresentation(int level = 0) const;

  /// Equal when bundle, grid name, selections (both missing, or both present
  /// and equal as selections), source time (neither less than the other, so
  /// NaN equals any time) and source slice agree. Source grids and skeletons
  /// are not compared.
  friend bool operator==(const FieldSelector& a, const FieldSelector& b);

 private:
  /// Whether there is a live bundle and a grid name to search with.
  bool canSearch() const;
  /// The Cartesian representation of the level `level` (not 0) found at or
  /// before the source time.
  StrongPtr<Representation> refinedRepresentation(int level) const;

  StrongPtr<FieldSelection> selection_;
  Info<Grid> source_;
  SkeletonID skeletonID_{0, 0};
};

}  // namespace Quaril
