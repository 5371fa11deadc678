#include "bundle/FieldSelector.hpp"

#include <utility>

namespace Quaril {

namespace {

/// The field called `fieldname` of `representation`: null without a
/// representation, the empty null field when the name is unknown.
StrongPtr<Field> fieldIn(const StrongPtr<Representation>& representation,
                         const std::string& fieldname) {
  if (!representation) return {};
  StrongPtr<FieldID> id = representation->findFieldID(fieldname);
  if (!id) return Field::NullPtrField();
  return representation->findField(id);
}

}  // namespace

FieldSelector::FieldSelector() = default;

FieldSelector::FieldSelector(const BundlePtr& bundle, double time, const std::string& gridname,
                             const std::string& fieldname)
    : GridSelector(bundle, gridname) {
  if (!setFieldSource(time, fieldname))
    throw "FieldSelector::FieldSelector(): ERROR: Could not create Field!!";
}

FieldSelector::FieldSelector(double& time, const BundlePtr& bundle, const std::string& gridname,
                             const std::string& fieldname)
    : GridSelector(bundle, gridname) {
  if (findFieldSource(time, fieldname)) time = source_.time;
}

FieldSelector::FieldSelector(const FieldSelector& other)
    : GridSelector(other), source_(other.source_), skeletonID_(other.skeletonID_) {}

FieldSelector::FieldSelector(const FieldSelector& other, const std::string& fieldname,
                             const TypeList& types)
    : FieldSelector(other) {
  selectField(fieldname, types);
}

// The source is time, slice and grid; a skeleton that came with the record
// is not kept alive by the selector.
FieldSelector::FieldSelector(const GridSelector& grid, const Info<Grid>& source)
    : GridSelector(grid) {
  source_.time = source.time;
  source_.slice = source.slice;
  source_.grid = source.grid;
}

FieldSelector::FieldSelector(FieldSelector&& other) noexcept
    : GridSelector(std::move(other)),
      selection_(std::move(other.selection_)),
      source_(std::move(other.source_)),
      skeletonID_(other.skeletonID_) {}

FieldSelector& FieldSelector::operator=(const FieldSelector& other) {
  if (this == &other) return *this;  // keeps its own selection: nothing is copied
  GridSelector::operator=(other);
  selection_.reset();
  source_ = other.source_;
  skeletonID_ = other.skeletonID_;
  return *this;
}

FieldSelector& FieldSelector::operator=(FieldSelector&& other) noexcept {
  if (this == &other) return *this;
  GridSelector::operator=(std::move(other));
  selection_ = std::move(other.selection_);
  source_ = std::move(other.source_);
  skeletonID_ = other.skeletonID_;
  return *this;
}

FieldSelector::~FieldSelector() = default;

FieldSelection* FieldSelector::Selection() {
  if (!selection_) selection_ = StrongPtr<FieldSelection>(new FieldSelection);
  return selection_.get();
}

const FieldSelection* FieldSelector::Selection() const {
  if (selection_) return selection_.get();
  // Built once, under the thread-safe initialisation of local statics.
  static const StrongPtr<FieldSelection> empty(new FieldSelection);
  return empty.get();
}

int FieldSelector::NumberOfAvailableFields() const {
  return selection_ ? selection_->getNumberOfFields() : 0;
}

std::string FieldSelector::getFieldName() const {
  return selection_ ? selection_->getFieldName() : std::string();
}

void FieldSelector::selectField(const std::string& name, const TypeList& types) {
  Selection()->setUniqueField(name, types);
}

bool FieldSelector::canSearch() const {
  return bundle.valid() && !gridname.empty();
}

bool FieldSelector::findFieldSource(double time, const std::string& fieldname) {
  if (!canSearch()) return false;
  selectField(fieldname, TypeList());
  Info<Grid> found = bundle->findMostRecentGrid(time, gridname);
  source_.time = found.time;
  source_.slice = found.slice;
  source_.grid = found.grid;
  source_.skeleton.reset();
  return source_.grid.valid();
}

bool FieldSelector::findFieldSource(const BundlePtr& bundle, double time,
                                    const std::string& gridname, const std::string& fieldname) {
  this->bundle = bundle;
  this->gridname = gridname;
  return findFieldSource(time, fieldname);
}

bool FieldSelector::setFieldSource(double time, const std::string& fieldname) {
  if (!canSearch()) return false;
  selectField(fieldname, TypeList());
  source_.time = time;
  source_.skeleton.reset();
  Bundle* owner = bundle.create();  // the live bundle of the handle; never a new one here
  double exact = time;
  SlicePtr slice = (*owner)(exact);
  source_.slice = slice;
  if (slice)
    source_.grid = (*slice)(gridname);
  else
    source_.grid.reset();
  // True even without slice or grid: the search itself was possible.
  return true;
}

StrongPtr<Field> FieldSelector::getPositions(const StrongPtr<ChartID>& chart) const {
  if (!source_.grid) return {};
  return source_.grid->getVertexPositions(chart);
}

StrongPtr<Field> FieldSelector::getCartesianPositions() const {
  if (!source_.grid) return {};
  return source_.grid->CartesianPositions();
}

StrongPtr<Field> FieldSelector::getField(const StrongPtr<ChartID>& chart,
                                         const std::string& fieldname) const {
  if (!source_.grid) return {};
  return fieldIn(source_.grid->getRepresentation(chart, skeletonID_), fieldname);
}

StrongPtr<Field> FieldSelector::getField(const std::string& fieldname, int level,
                                         const std::string& chartname) const {
  if (level != 0) return fieldIn(refinedRepresentation(level), fieldname);
  if (!source_.grid) return {};
  StrongPtr<ChartID> chart = source_.grid->findCartesianChart(chartname);
  if (!chart) return {};
  return fieldIn(source_.grid->getRepresentation(chart, skeletonID_), fieldname);
}

StrongPtr<Representation> FieldSelector::getCartesianRepresentation(int level) const {
  if (level != 0) return refinedRepresentation(level);
  if (!source_.grid) return {};
  return source_.grid->getCartesianRepresentation("");
}

StrongPtr<Representation> FieldSelector::refinedRepresentation(int level) const {
  if (!bundle) return {};
  double time = source_.time;
  Info<Grid> found = bundle->findPreviousRefinementLevel(time, gridname, level, nullptr, 0);
  if (!found.grid || !found.skeleton) return {};
  // Other levels always use the default chart, whatever chart level 0 used.
  return found.grid->getCartesianRepresentation(found.skeleton, "");
}

bool operator==(const FieldSelector& a, const FieldSelector& b) {
  if (a.bundle.get() != b.bundle.get()) return false;
  if (a.gridname != b.gridname) return false;
  const bool leftSelected = a.selection_.valid();
  if (leftSelected != b.selection_.valid()) return false;
  if (leftSelected && !(*a.selection_ == *b.selection_)) return false;
  // Neither before the other: a NaN time equals any time.
  if (a.source_.time < b.source_.time || b.source_.time < a.source_.time) return false;
  return a.source_.slice.get() == b.source_.slice.get();
}

}  // namespace Quaril
