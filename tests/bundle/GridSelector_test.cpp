#include "bundle/GridSelector.hpp"

#include <gtest/gtest.h>

#include "BundleFixture.hpp"

namespace Quaril::Testing {
namespace {

TEST(GridSelector, fieldTypesAreSoughtOnTheVerticesOfLoadedSlicesAtEveryTime) {
  BundlePtr bundle = makeSampleBundle();
  GridSelector uniform(bundle, "uniform");
  EXPECT_TRUE(uniform.providesFieldTypes(TypeList::of<int32_t>()));  // time 1
  EXPECT_TRUE(uniform.providesFieldTypes(TypeList::of<tvector>()));  // time 4
  EXPECT_FALSE(uniform.providesFieldTypes(TypeList::of<float>()));   // another grid's type
  // Cell fields are not on the vertices' Cartesian representation.
  EXPECT_FALSE(GridSelector(bundle, "surface").providesFieldTypes(TypeList::of<float>()));
  // Occurring without any Cartesian representation is not occurring nowhere.
  EXPECT_FALSE(GridSelector(bundleWith({1}, "g"), "g").providesFieldTypes(TypeList::of<char>()));
  // Without a bundle, types or occurrence, every type is provided.
  EXPECT_TRUE(GridSelector(BundlePtr(), "uniform").providesFieldTypes(TypeList::of<char>()));
  EXPECT_TRUE(uniform.providesFieldTypes(TypeList()));
  EXPECT_TRUE(GridSelector(bundle, "nowhere").providesFieldTypes(TypeList::of<char>()));

  int runs = 0;
  addRecordingLoader((*bundle)[4.0], runs);
  EXPECT_FALSE(uniform.providesFieldTypes(TypeList::of<tvector>()));
  EXPECT_EQ(runs, 0);
  (*bundle)[4.0]->accessSlice();
  EXPECT_TRUE(uniform.providesFieldTypes(TypeList::of<tvector>()));
}

}  // namespace
}  // namespace Quaril::Testing
