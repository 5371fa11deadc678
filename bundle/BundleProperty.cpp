#include "bundle/BundleProperty.hpp"

#include "bundle/GridSelector.hpp"
#include "field/Field.hpp"
#include "field/MemBase.hpp"
#include "field/PhysicalSpace.hpp"
#include "ostrak/Diagnostics.hpp"

namespace Quaril {

using Ostrak::StrongPtr;
using point = Pelorn::PhysicalSpace::point;

// Source positions reported to the object core's diagnostics.
namespace {
constexpr const char* kSurveyEntry = "bundle/BundleProperty.cpp:27";
constexpr const char* kSurveyResult = "bundle/BundleProperty.cpp:57";
constexpr const char* kUniformCheck = "bundle/BundleProperty.cpp:171";
}  // namespace

BundleProperty::~BundleProperty() = default;

bool BundleProperty::Anything::checkSlice(Slice&, const std::string&) const {
  return true;
}

// ---- the walk over slices ---------------------------------------------------------------

namespace {

class SliceCheck : public EvolutionIterator<Slice> {
 public:
  SliceCheck(const BundleProperty& property, const std::string& gridname)
      : property_(property), gridname_(gridname) {}

  bool apply(ParameterSet&, Slice& slice) override {
    if (slice.hasPendingLoaders()) return true;
    if (!property_.checkSlice(slice, gridname_)) return true;
    found = true;
    return false;
  }

  bool found = false;

 private:
  const BundleProperty& property_;
  const std::string& gridname_;
};

bool survey(const Bundle& bundle, const BundleProperty& property, const std::string& gridname) {
  Ostrak::SourceCodeLineGuard marker(kSurveyEntry);
  SliceCheck check(property, gridname);
  bundle.iterate(bundle.getParameters(), check);
  Ostrak::setLastKnownSourceCodeLine(kSurveyResult);
  return check.found;
}

}  // namespace

bool hasProperty(const Bundle& bundle, const BundleProperty& property) {
  return survey(bundle, property, "");
}

bool hasProperty(BundlePtr bundle, const BundleProperty& property) {
  if (!bundle) return false;
  return hasProperty(*bundle.create(), property);
}

bool hasProperty(const GridSelector& selector, const BundleProperty& property) {
  if (!selector.bundle) return false;
  return survey(*selector.bundle, property, selector.gridname);
}

// ---- grids --------------------------------------------------------------------------------

bool GridProperty::checkSlice(Slice& slice, const std::string& gridname) const {
  if (!gridname.empty()) {
    StrongPtr<Grid> grid = slice(gridname);
    return grid && checkGrid(*grid);
  }
  struct AnyGrid : GridIterator {
    explicit AnyGrid(const GridProperty& property) : property(property) {}
    bool apply(GridID&, Grid& grid) override {
      found = property.checkGrid(grid);
      return !found;
    }
    const GridProperty& property;
    bool found = false;
  } any(*this);
  slice.iterate(any);
  return any.found;
}

namespace {

StrongPtr<Field> positionsOf(const Grid& grid) {
  StrongPtr<Representation> representation = grid.getCartesianRepresentation("");
  if (!representation) return {};
  return representation->findField(representation->findFieldID(Grid::PositionsName));
}

// The creator test: a live creator that can produce its data. The data are
// then produced with caching on (null when production fails).
struct Produced {
  bool passes = false;
  StrongPtr<MemBase, Cacheable> data;
};

Produced produce(const StrongPtr<CreativeArrayBase>& creator) {
  Produced result;
  if (!creator || !creator->isProducible()) return result;
  result.passes = true;
  creator->setCaching(true);
  result.data = creator->getData();
  return result;
}

template <class Array>
bool holds(const StrongPtr<MemBase, Cacheable>& data) {
  return dynamic_cast<const Array*>(data.get()) != nullptr;
}

// Visits every fragment's creator test until `visit` answers false.
template <class Visit>
void eachFragment(const Field& field, Visit&& visit) {
  struct Adapter : FragmentIterator {
    explicit Adapter(Visit& visit) : visit(visit) {}
    bool apply(const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) override {
      return visit(produce(creator));
    }
    Visit& visit;
  } adapter(visit);
  field.iterate(adapter);
}

}  // namespace

bool isUniformCartesianGrid::checkGrid(const Grid& grid) const {
  Ostrak::SourceCodeLineGuard marker(kUniformCheck);
  StrongPtr<Field> positions = positionsOf(grid);
  if (!positions || positions->nFragments() > 1) return false;
  if (!produce(positions->getCreator(StrongPtr<FragmentID>())).passes) return false;
  return holds<UniformCartesianArray>(positions->getData(StrongPtr<FragmentID>()));
}

bool isFragmentedUniformCartesianGrid::checkGrid(const Grid& grid) const {
  StrongPtr<Field> positions = positionsOf(grid);
  if (!positions) return false;
  bool uniform = true;
  eachFragment(*positions, [&](const Produced& fragment) {
    uniform = fragment.passes && holds<UniformCartesianArray>(fragment.data);
    return uniform;
  });
  return uniform;
}

bool isCurvilinearGrid::checkGrid(const Grid& grid) const {
  StrongPtr<Field> positions = positionsOf(grid);
  if (!positions) return false;
  bool curvilinear = false;
  eachFragment(*positions, [&](const Produced& fragment) {
    curvilinear = fragment.passes && holds<MemArray<3, point>>(fragment.data);
    return !curvilinear;
  });
  return curvilinear;
}

bool hasExplicitCartesianCoordinates::checkGrid(const Grid& grid) const {
  StrongPtr<Field> positions = positionsOf(grid);
  if (!positions) return false;
  bool seen = false;
  bool stored = false;
  eachFragment(*positions, [&](const Produced& fragment) {
    if (fragment.passes) {
      seen = true;
      if (holds<TypedArray<point>>(fragment.data)) stored = true;
    }
    return true;
  });
  return seen && stored;
}

bool hasCartesianCoordinates::checkGrid(const Grid& grid) const {
  StrongPtr<Field> positions = grid.CartesianPositions();
  if (!positions) return false;
  const std::type_info& stored = positions->getFieldStorageType();
  return stored.name() == typeid(point).name() || stored == typeid(point);
}

bool SkeletonExistence::checkGrid(const Grid& grid) const {
  return grid.getSkeleton(*this).valid();
}

}  // namespace Quaril
