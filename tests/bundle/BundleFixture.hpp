#pragma once
// Shared helpers of the bundle tests.

#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "bundle/GridSelector.hpp"

namespace QuarilTest {

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;
using Quaril::Bundle;
using Quaril::BundlePtr;
using Quaril::Grid;
using Quaril::GridID;
using Quaril::Slice;
using Quaril::SlicePtr;

/// A bundle with the grid `name` at each of `times`.
inline BundlePtr bundleWith(const std::vector<double>& times, const std::string& name) {
  BundlePtr bundle;
  bundle.create();
  for (double t : times) (*(*bundle)[t])[name];
  return bundle;
}

/// A loader that records its runs and may create a grid in its slice.
class RecordingLoader : public Slice::Loader {
 public:
  explicit RecordingLoader(int& runs, std::string gridName = "")
      : runs_(runs), gridName_(std::move(gridName)) {}
  bool load(const WeakPtr<Slice>& slice) override {
    ++runs_;
    if (!gridName_.empty() && slice) (*slice.get())[gridName_];
    return true;
  }

 private:
  int& runs_;
  std::string gridName_;
};

/// A storage binding that counts synchronisations.
class CountingStorage : public Quaril::StorageBinding {
 public:
  explicit CountingStorage(int& calls) : calls_(calls) {}
  int32_t synchronize(const Bundle&, const StrongPtr<Quaril::MemBase, Quaril::Cacheable>&,
                      Ostrak::Intercube&) override {
    return ++calls_;
  }

 private:
  int& calls_;
};

}  // namespace QuarilTest

// ---- real meshes over several time steps, for the selector tests ----------------

#include "grid/GridConstructors.hpp"

namespace QuarilTest {

/// A uniform 3x3x3 grid `name` in the slice at `t` (made when missing).
inline Grid& addUniformGrid(const BundlePtr& bundle, double t, const std::string& name) {
  Grid& grid = *(*(*bundle)[t])[name];
  Quaril::makeUniformGrid(grid, {3, 3, 3}, {0, 0, 0}, {1, 1, 1});
  return grid;
}

/// A curvilinear 2x2x1 grid `name` in the slice at `t`.
inline Grid& addCurvilinearGrid(const BundlePtr& bundle, double t, const std::string& name) {
  Grid& grid = *(*(*bundle)[t])[name];
  Quaril::makeCurvilinearGrid(grid, {2, 2, 1}, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1.5, 0}});
  return grid;
}

/// A double field `name` on the vertex skeleton of refinement factor
/// `factor`, relative to the default Cartesian chart.
inline StrongPtr<Quaril::Field> addRefinedField(Grid& grid, int factor, const std::string& name) {
  StrongPtr<Quaril::Skeleton> skeleton = grid.findIsotropicRefinementFactor(factor, 0);
  StrongPtr<Quaril::Representation> representation = grid.makeCartesianRepresentation(skeleton);
  if (!representation) return {};
  auto values =
      Quaril::MemArray<1, double>::create(Quaril::DynamicSize{skeleton->getNumberOfElements()});
  StrongPtr<Quaril::Field> field = Quaril::Field::create<double>();
  field->setCreator(StrongPtr<Quaril::CreativeArrayBase>(new Quaril::MemCreator(values)));
  representation->setField(name, field);
  return field;
}

/// The evolution the selector tests look at:
///
///   time  "uniform" (3x3x3)                    "curvilinear" (2x2x1)        "empty"
///   1     density: double, flags: int32        -                            no skeletons
///   2     density: double; levels 1 and 2,     temperature: float,          -
///         level 1 carrying density: double     cell field pressure: double
///   3     -                                    temperature: float           -
///   4     velocity: tvector                    -                            -
///   5     -                                    -                            no skeletons
inline BundlePtr selectorEvolution() {
  using Pelorn::PhysicalSpace::tvector;
  BundlePtr bundle;
  bundle.create();
  const std::vector<double> ramp(27, 1.5);

  Grid& first = addUniformGrid(bundle, 1, "uniform");
  Quaril::addVertexField(first, "density", ramp);
  Quaril::addVertexField(first, "flags", std::vector<int32_t>(27, 7));
  (*(*bundle)[1])["empty"];

  Grid& refined = addUniformGrid(bundle, 2, "uniform");
  Quaril::addVertexField(refined, "density", ramp);
  Quaril::addRefinementLevels(refined, 2);
  addRefinedField(refined, 2, "density");
  for (double t : {2.0, 3.0}) {
    Grid& curved = addCurvilinearGrid(bundle, t, "curvilinear");
    Quaril::addVertexField(curved, "temperature", std::vector<float>(4, 20.f));
  }
  Quaril::addCellField(*(*(*bundle)[2])["curvilinear"], "pressure", std::vector<double>(1, 1e5));

  Grid& last = addUniformGrid(bundle, 4, "uniform");
  Quaril::addVertexField(last, "velocity", std::vector<tvector>(27, tvector{1, 0, 0}));
  (*(*bundle)[5])["empty"];
  return bundle;
}

}  // namespace QuarilTest
