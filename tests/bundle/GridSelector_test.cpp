#include "bundle/GridSelector.hpp"

#include <gtest/gtest.h>

#include <cstdint>

#include "BundleFixture.hpp"

namespace QuarilTest {
namespace {

using Quaril::GridSelector;
using Quaril::TypeList;

TEST(GridSelector, providesEveryTypeWithoutBundleTypesOrOccurrence) {
  BundlePtr bundle = selectorEvolution();
  EXPECT_TRUE(GridSelector(BundlePtr(), "uniform").providesFieldTypes(TypeList::of<char>()));
  EXPECT_TRUE(GridSelector(bundle, "uniform").providesFieldTypes(TypeList()));
  EXPECT_TRUE(GridSelector(bundle, "nowhere").providesFieldTypes(TypeList::of<char>()));
}

TEST(GridSelector, fieldTypesAreSoughtOnTheVerticesAtEveryTime) {
  BundlePtr bundle = selectorEvolution();
  GridSelector uniform(bundle, "uniform");
  EXPECT_TRUE(uniform.providesFieldTypes(TypeList::of<int32_t>()));
  EXPECT_TRUE(uniform.providesFieldTypes(TypeList::of<Pelorn::PhysicalSpace::tvector>()));
  EXPECT_FALSE(uniform.providesFieldTypes(TypeList::of<float>()));  // another grid's type
  // The cell field "pressure" is not on the vertices' Cartesian representation.
  EXPECT_FALSE(GridSelector(bundle, "curvilinear").providesFieldTypes(TypeList::of<double>()));
  // Occurring without any Cartesian representation is not occurring nowhere.
  EXPECT_FALSE(GridSelector(bundle, "empty").providesFieldTypes(TypeList::of<double>()));
}

TEST(GridSelector, unloadedSlicesAreNotSearchedForTypes) {
  BundlePtr bundle;
  bundle.create();
  addUniformGrid(bundle, 1, "mesh");
  Quaril::addVertexField(addUniformGrid(bundle, 2, "mesh"), "density", std::vector<double>(27));
  int runs = 0;
  (*bundle)[2]->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs)));
  GridSelector selector(bundle, "mesh");
  EXPECT_FALSE(selector.providesFieldTypes(TypeList::of<double>()));
  EXPECT_EQ(runs, 0);
  (*bundle)[2]->accessSlice();
  EXPECT_TRUE(selector.providesFieldTypes(TypeList::of<double>()));
}

TEST(GridSelector, refinementLevelComesFromTheArgumentOrTheSelectorsBundle) {
  BundlePtr bundle = selectorEvolution();
  GridSelector selector(bundle, "uniform");
  Quaril::Info<Grid> level1 = selector.getRefinementLevel(4.5, 1, 0);
  ASSERT_TRUE(level1.skeleton);
  EXPECT_EQ(level1.time, 2.0);
  EXPECT_EQ(level1.skeleton->getIsotropicRefinementFactor(), 2);
  EXPECT_EQ(level1.grid, (*(*bundle)[2])("uniform"));
  EXPECT_EQ(selector.getRefinementLevel(2, 2, 0).skeleton->getIsotropicRefinementFactor(), 4);

  BundlePtr other;
  other.create();
  Quaril::addRefinementLevels(addUniformGrid(other, 7, "uniform"), 1);
  EXPECT_EQ(selector.getRefinementLevel(8, 1, 0, other).time, 7.0);
  EXPECT_EQ(GridSelector(BundlePtr(), "uniform").getRefinementLevel(8, 1, 0, other).time, 7.0);

  Quaril::Info<Grid> nothing = GridSelector().getRefinementLevel(8, 1, 0);
  EXPECT_EQ(nothing.time, 0.0);
  EXPECT_FALSE(nothing.slice.lock() || nothing.grid || nothing.skeleton);
}

}  // namespace
}  // namespace QuarilTest
