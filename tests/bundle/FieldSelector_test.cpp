#include "bundle/FieldSelector.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <thread>
#include <utility>
#include <vector>

#include "BundleFixture.hpp"

namespace QuarilTest {
namespace {

using Quaril::Field;
using Quaril::FieldSelection;
using Quaril::FieldSelector;
using Quaril::SkeletonID;
using Quaril::TypeList;

const double kNaN = std::numeric_limits<double>::quiet_NaN();

SlicePtr sliceAt(const BundlePtr& bundle, double t) {
  return (*bundle)(t);
}

StrongPtr<Grid> gridAt(const BundlePtr& bundle, double t, const std::string& name) {
  SlicePtr slice = sliceAt(bundle, t);
  return slice ? (*slice)(name) : StrongPtr<Grid>();
}

/// What a look-up must not change: the slices and the grid identities.
std::pair<size_t, size_t> contentsOf(const BundlePtr& bundle) {
  return {bundle->getSlices().size(), bundle->getGridIdentifiers().size()};
}

TEST(FieldSelector, sourceIsTheLatestOccurrenceAtOrBeforeTheTime) {
  BundlePtr bundle = selectorEvolution();
  const auto before = contentsOf(bundle);
  // (asked, found): at, between (no slice), on a slice without the grid, after all.
  for (auto [asked, found] : {std::pair{1.0, 1.0}, {2.5, 2.0}, {3.0, 2.0}, {10.0, 4.0}}) {
    SCOPED_TRACE(asked);
    double t = asked;
    FieldSelector selector(t, bundle, "uniform", "density");
    EXPECT_EQ(t, found);
    EXPECT_TRUE(selector.getSource().slice.lock() == sliceAt(bundle, found));
    EXPECT_EQ(selector.getSource().grid, gridAt(bundle, found, "uniform"));
    EXPECT_EQ(selector.getFieldName(), "density");
  }
  double early = 0.5;
  FieldSelector none(early, bundle, "uniform", "density");
  EXPECT_EQ(early, 0.5);
  EXPECT_FALSE(none.getSource().slice.lock() || none.getSource().grid);
  EXPECT_FALSE(none.findFieldSource(kNaN, "density"));
  EXPECT_TRUE(none.findFieldSource(bundle, 9, "curvilinear", "temperature"));
  EXPECT_EQ(none.getSourceTime(), 3.0);

  FieldSelector unnamed;
  EXPECT_FALSE(unnamed.findFieldSource(bundle, 2, "", "density"));
  EXPECT_TRUE(!unnamed);  // refused before selecting anything
  EXPECT_EQ(contentsOf(bundle), before);
}

TEST(FieldSelector, exactSourceIsTrueWithoutSliceAndThrowsOnlyWithoutBundleOrName) {
  BundlePtr bundle = selectorEvolution();
  const auto before = contentsOf(bundle);
  FieldSelector selector(bundle, 3, "uniform", "density");  // a slice without the grid
  EXPECT_TRUE(selector.getSource().slice.lock() == sliceAt(bundle, 3));
  EXPECT_FALSE(selector.getSource().grid);
  for (double t : {2.5, kNaN}) {
    EXPECT_TRUE(selector.setFieldSource(t, "flags"));
    EXPECT_FALSE(selector.getSource().slice.lock() || selector.getSource().grid);
  }
  EXPECT_TRUE(std::isnan(selector.getSourceTime()));
  EXPECT_EQ(contentsOf(bundle), before);

  auto thrown = [](auto make) -> std::string {
    try {
      make();
    } catch (const char* text) {
      return text;
    }
    return "";
  };
  const std::string error = "FieldSelector::FieldSelector(): ERROR: Could not create Field!!";
  EXPECT_EQ(thrown([] { FieldSelector(BundlePtr(), 1, "uniform", "density"); }), error);
  EXPECT_EQ(thrown([&] { FieldSelector(bundle, 1, "", "density"); }), error);
  EXPECT_EQ(thrown([&] { FieldSelector(bundle, 1, "nowhere", "nothing"); }), "");
}

TEST(FieldSelector, levelZeroFieldsComeFromTheSourceGridSkeletonAndChart) {
  BundlePtr bundle = selectorEvolution();
  FieldSelector uniform(bundle, 2, "uniform", "density");
  StrongPtr<Grid> grid = gridAt(bundle, 2, "uniform");
  StrongPtr<Quaril::ChartID> chart = grid->findCartesianChart();
  EXPECT_EQ(uniform.getField("density"), grid->getCartesianRepresentation()->findField("density"));
  EXPECT_EQ(uniform.getField(chart, "density"), uniform.getField("density"));
  EXPECT_TRUE(uniform.getField("density")->getElementDescriptor().is<double>());
  EXPECT_EQ(uniform.getField("flags"), Field::NullPtrField());  // only at time 1
  EXPECT_FALSE(uniform.getField("density", 0, "no such chart"));
  EXPECT_EQ(uniform.getPositions(chart), grid->CartesianPositions());
  EXPECT_EQ(uniform.getCartesianPositions(), grid->CartesianPositions());

  FieldSelector cells(bundle, 2, "curvilinear", "pressure");
  EXPECT_FALSE(cells.getField("pressure"));
  cells.setSkeletonID(SkeletonID(2, 0));
  EXPECT_TRUE(cells.getField("pressure")->getElementDescriptor().is<double>());

  FieldSelector noGrid(bundle, 2.5, "uniform", "density");
  EXPECT_FALSE(noGrid.getField("density") || noGrid.getField(chart, "density") ||
               noGrid.getCartesianPositions() || noGrid.getCartesianRepresentation(0));
}

TEST(FieldSelector, otherLevelsAreSoughtBackInTimeIgnoringTheChartName) {
  BundlePtr bundle = selectorEvolution();
  StrongPtr<Grid> refined = gridAt(bundle, 2, "uniform");
  auto level1 =
      refined->getCartesianRepresentation(refined->findIsotropicRefinementFactor(2, 0), "");
  ASSERT_TRUE(level1);

  FieldSelector latest(bundle, 4, "uniform", "density");
  EXPECT_FALSE(latest.getField("density"));  // not at time 4 itself
  ASSERT_TRUE(latest.getField("density", 1));
  EXPECT_EQ(latest.getField("density", 1), level1->findField("density"));
  EXPECT_EQ(latest.getField("density", 1, "no such chart"), latest.getField("density", 1));
  EXPECT_EQ(latest.getCartesianRepresentation(1), level1);
  EXPECT_EQ(latest.getCartesianRepresentation(0),
            gridAt(bundle, 4, "uniform")->getCartesianRepresentation());
  EXPECT_TRUE(latest.getField("Positions", 2));
  EXPECT_FALSE(latest.getField("density", 2));  // that level has positions only
  EXPECT_FALSE(latest.getField("density", 3));
  EXPECT_FALSE(FieldSelector(bundle, 1, "uniform", "density").getField("density", 1));
}

TEST(FieldSelector, sourceFromARecordKeepsNoSkeletonAlive) {
  BundlePtr bundle = selectorEvolution();
  Quaril::GridSelector grid(bundle, "uniform");
  Quaril::Info<Grid> found = grid.getRefinementLevel(3.0, 1, 0);
  ASSERT_TRUE(found.skeleton);
  const int32_t holders = found.skeleton.strongCount();
  FieldSelector selector(grid, found);
  EXPECT_EQ(found.skeleton.strongCount(), holders);
  EXPECT_FALSE(FieldSelector(selector).getSource().skeleton);
  EXPECT_EQ(selector.getSource().grid, found.grid);
  EXPECT_EQ(selector.getSourceTime(), found.time);
  EXPECT_TRUE(!selector);
}

TEST(FieldSelector, equalityIgnoresSourceGridAndTreatsNaNTimeAsAnyTime) {
  BundlePtr bundle = selectorEvolution();
  EXPECT_TRUE(FieldSelector() == FieldSelector());
  FieldSelector at2(bundle, 2, "uniform", "density");
  double t = 2.5;
  EXPECT_TRUE(at2 == FieldSelector(t, bundle, "uniform", "density"));
  EXPECT_FALSE(at2 == FieldSelector(bundle, 1, "uniform", "density"));
  EXPECT_FALSE(at2 == FieldSelector(bundle, 2, "curvilinear", "density"));
  EXPECT_FALSE(at2 == FieldSelector(selectorEvolution(), 2, "uniform", "density"));
  EXPECT_FALSE(at2 == FieldSelector(bundle, 2, "uniform", "flags"));
  FieldSelector wider(bundle, 2, "uniform", "density");
  wider.Selection()->setFieldType("flags", Quaril::QuarilTypeBase::getType<int32_t>(), false);
  EXPECT_TRUE(at2 == wider);
  EXPECT_FALSE(at2 == FieldSelector(at2));  // the copy has no selection

  Quaril::Info<Grid> source;
  source.time = 2;
  source.slice = sliceAt(bundle, 2);
  source.grid = gridAt(bundle, 2, "uniform");
  Quaril::GridSelector grid(bundle, "uniform");
  FieldSelector ownGrid(grid, source);
  source.grid = gridAt(bundle, 2, "curvilinear");
  EXPECT_TRUE(ownGrid == FieldSelector(grid, source));
  source.slice = sliceAt(bundle, 3);
  EXPECT_FALSE(ownGrid == FieldSelector(grid, source));  // same time, another slice

  FieldSelector nan(bundle, kNaN, "uniform", "density");
  EXPECT_TRUE(nan == FieldSelector(bundle, 100, "uniform", "density"));
}

TEST(FieldSelector, copiesLeaveTheSelectionBehindAndMovesTakeItAlong) {
  BundlePtr bundle = selectorEvolution();
  FieldSelector original(bundle, 2, "curvilinear", "temperature");
  original.setSkeletonID(SkeletonID(2, 0));
  const FieldSelection* selection = original.Selection();

  FieldSelector copy(original);
  EXPECT_TRUE(!copy);
  EXPECT_EQ(copy.getSource().grid, original.getSource().grid);
  EXPECT_EQ(copy.getField("pressure"), original.getField("pressure"));  // same skeleton

  FieldSelector withField(original, "pressure", TypeList::of<double>());
  EXPECT_NE(withField.Selection(), selection);
  EXPECT_EQ(withField.Selection()->getFieldType("pressure"), TypeList::of<double>());
  EXPECT_EQ(original.getFieldName(), "temperature");

  FieldSelector assigned(bundle, 1, "uniform", "density");
  assigned = original;
  EXPECT_TRUE(!assigned);
  EXPECT_EQ(assigned.gridname, "curvilinear");

  FieldSelector moved(std::move(original));
  FieldSelector target;
  target = std::move(moved);
  EXPECT_EQ(target.Selection(), selection);
  EXPECT_EQ(target.getSourceTime(), 2.0);
}

TEST(FieldSelector, emptySelectionIsOneSharedObjectThatNobodyFills) {
  std::vector<const FieldSelection*> seen(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); ++i)
    threads.emplace_back([&seen, i] {
      const FieldSelector selector;
      seen[i] = selector.Selection();
    });
  for (std::thread& thread : threads) thread.join();
  const FieldSelection* shared = seen.front();
  ASSERT_NE(shared, nullptr);
  for (const FieldSelection* each : seen) EXPECT_EQ(each, shared);

  FieldSelector writer;
  writer.selectField("density", TypeList::of<double>());
  EXPECT_EQ(writer.NumberOfAvailableFields(), 1);
  EXPECT_EQ(shared->getNumberOfFields(), 0);
  writer.clearSelection();
  EXPECT_TRUE(!writer);
  EXPECT_EQ(writer.NumberOfAvailableFields(), 0);
  EXPECT_EQ(std::as_const(writer).Selection(), shared);
}

}  // namespace
}  // namespace QuarilTest
