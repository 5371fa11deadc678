#include "bundle/FieldSelector.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <utility>
#include <vector>

#include "BundleFixture.hpp"

namespace Quaril::Testing {
namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

StrongPtr<Grid> gridAt(const BundlePtr& bundle, double t, const std::string& name) {
  SlicePtr slice = (*bundle)(t);
  return slice ? (*slice)(name) : StrongPtr<Grid>();
}

TEST(FieldSelector, sourceIsTheLatestOccurrenceAtOrBeforeTheTimeOrExactlyAtItCreatingNothing) {
  BundlePtr bundle = makeSampleBundle();
  const size_t slices = bundle->getSlices().size(), ids = bundle->getGridIdentifiers().size();
  // at, between slices, on a slice without the grid, after all, before all
  for (auto [asked, found] : {std::pair{1.0, 1.0}, {2.5, 2.0}, {3.0, 2.0}, {9.0, 4.0}, {.5, .5}}) {
    double t = asked;
    FieldSelector selector(t, bundle, "uniform", "density");
    EXPECT_EQ(t, found);
    EXPECT_TRUE(selector.getSource().slice.lock() == (*bundle)(found)) << asked;
    EXPECT_EQ(selector.getSource().grid, gridAt(bundle, found, "uniform")) << asked;
    EXPECT_EQ(selector.getFieldName(), "density");
  }
  FieldSelector selector;
  EXPECT_FALSE(selector.findFieldSource(bundle, 2, "", "density"));
  EXPECT_TRUE(!selector);  // refused before selecting anything
  EXPECT_FALSE(selector.findFieldSource(bundle, kNaN, "uniform", "density"));
  EXPECT_TRUE(selector.findFieldSource(bundle, 9, "curvilinear", "temperature"));
  EXPECT_EQ(selector.getSourceTime(), 3.0);

  FieldSelector exact(bundle, 3, "uniform", "density");  // a slice without the grid
  EXPECT_TRUE(exact.getSource().slice.lock() == (*bundle)[3.0]);
  EXPECT_FALSE(exact.getSource().grid);
  for (double t : {2.5, kNaN}) {
    EXPECT_TRUE(exact.setFieldSource(t, "flags"));
    EXPECT_FALSE(exact.getSource().slice.lock() || exact.getSource().grid);
  }
  EXPECT_TRUE(std::isnan(exact.getSourceTime()));
  EXPECT_EQ(bundle->getSlices().size(), slices);
  EXPECT_EQ(bundle->getGridIdentifiers().size(), ids);
}

TEST(FieldSelector, exactConstructorThrowsItsTextOnlyWithoutBundleOrGridName) {
  auto thrown = [](auto make) -> std::string {
    try {
      make();
    } catch (const char* text) {
      return text;
    }
    return "";
  };
  const std::string error = "FieldSelector::FieldSelector(): ERROR: Could not create Field!!";
  BundlePtr bundle = makeSampleBundle();
  EXPECT_EQ(thrown([] { FieldSelector(BundlePtr(), 1, "uniform", "density"); }), error);
  EXPECT_EQ(thrown([&] { FieldSelector(bundle, 1, "", "density"); }), error);
  EXPECT_EQ(thrown([&] { FieldSelector(bundle, 1, "nowhere", "nothing"); }), "");
}

TEST(FieldSelector, levelZeroFieldsComeFromTheSourceGridOtherLevelsFromEarlierTimes) {
  BundlePtr bundle = makeSampleBundle();
  StrongPtr<Grid> grid = gridAt(bundle, 2, "uniform");
  StrongPtr<ChartID> chart = grid->findCartesianChart();
  FieldSelector uniform(bundle, 2, "uniform", "density");
  EXPECT_EQ(uniform.getField("density"), grid->getCartesianRepresentation()->findField("density"));
  EXPECT_EQ(uniform.getField(chart, "density"), uniform.getField("density"));
  EXPECT_EQ(uniform.getField("flags"), Field::NullPtrField());  // only at time 1
  EXPECT_FALSE(uniform.getField("density", 0, "no such chart"));
  EXPECT_EQ(uniform.getPositions(chart), grid->CartesianPositions());
  EXPECT_EQ(uniform.getCartesianPositions(), grid->CartesianPositions());
  FieldSelector cells(bundle, 2, "curvilinear", "pressure");
  EXPECT_FALSE(cells.getField("pressure"));
  cells.setSkeletonID(SkeletonID(2, 0));
  EXPECT_TRUE(cells.getField("pressure"));
  FieldSelector noGrid(bundle, 2.5, "uniform", "density");
  EXPECT_FALSE(noGrid.getField("density") || noGrid.getCartesianPositions() ||
               noGrid.getCartesianRepresentation(0));

  auto level1 = grid->getCartesianRepresentation(grid->findIsotropicRefinementFactor(2, 0), "");
  FieldSelector latest(bundle, 4, "uniform", "density");
  EXPECT_FALSE(latest.getField("density"));  // not at time 4 itself
  ASSERT_TRUE(latest.getField("density", 1));
  EXPECT_EQ(latest.getField("density", 1), level1->findField("density"));
  EXPECT_EQ(latest.getField("density", 1, "no such chart"), latest.getField("density", 1));
  EXPECT_EQ(latest.getCartesianRepresentation(1), level1);
  EXPECT_TRUE(latest.getField("Positions", 2));
  EXPECT_FALSE(latest.getField("density", 2) || latest.getField("density", 3));
  EXPECT_FALSE(FieldSelector(bundle, 1, "uniform", "density").getField("density", 1));

  // A source taken from a search record keeps no skeleton alive.
  GridSelector grids(bundle, "uniform");
  Info<Grid> found = grids.getRefinementLevel(3.0, 1, 0);  // level 1 is at time 2 only
  ASSERT_TRUE(found.time == 2.0 && found.skeleton && found.grid == grid);
  const int32_t holders = found.skeleton.strongCount();
  FieldSelector fromRecord(grids, found);
  EXPECT_EQ(found.skeleton.strongCount(), holders);
  EXPECT_FALSE(FieldSelector(fromRecord).getSource().skeleton);
  EXPECT_EQ(fromRecord.getSource().grid, found.grid);
  EXPECT_TRUE(!fromRecord);
}

TEST(FieldSelector, equalityIgnoresSourceGridAndTreatsNaNTimeAsAnyTime) {
  BundlePtr bundle = makeSampleBundle();
  EXPECT_TRUE(FieldSelector() == FieldSelector());
  FieldSelector at2(bundle, 2, "uniform", "density");
  double t = 2.5;
  EXPECT_TRUE(at2 == FieldSelector(t, bundle, "uniform", "density"));
  EXPECT_FALSE(at2 == FieldSelector(bundle, 1, "uniform", "density") ||
               at2 == FieldSelector(bundle, 2, "curvilinear", "density") ||
               at2 == FieldSelector(makeSampleBundle(), 2, "uniform", "density") ||
               at2 == FieldSelector(bundle, 2, "uniform", "flags"));
  FieldSelector wider(bundle, 2, "uniform", "density");
  wider.Selection()->setFieldType("flags", QuarilTypeBase::getType<int32_t>(), false);
  EXPECT_TRUE(at2 == wider);
  EXPECT_FALSE(at2 == FieldSelector(at2));  // the copy has no selection
  EXPECT_TRUE(FieldSelector(bundle, kNaN, "uniform", "density") ==
              FieldSelector(bundle, 100, "uniform", "density"));

  Info<Grid> source;
  source.time = 2;
  source.slice = (*bundle)[2.0];
  source.grid = gridAt(bundle, 2, "uniform");
  GridSelector grid(bundle, "uniform");
  FieldSelector ownGrid(grid, source);
  source.grid = gridAt(bundle, 2, "curvilinear");
  EXPECT_TRUE(ownGrid == FieldSelector(grid, source));
  source.slice = (*bundle)[3.0];
  EXPECT_FALSE(ownGrid == FieldSelector(grid, source));  // same time, another slice
}

TEST(FieldSelector, copiesLeaveTheSelectionBehindMovesTakeItAlongAndNoneIsShared) {
  BundlePtr bundle = makeSampleBundle();
  FieldSelector original(bundle, 2, "curvilinear", "temperature");
  original.setSkeletonID(SkeletonID(2, 0));
  const FieldSelection* selection = original.Selection();
  FieldSelector copy(original);
  EXPECT_TRUE(!copy);
  EXPECT_EQ(copy.getField("pressure"), original.getField("pressure"));  // same skeleton
  FieldSelector withField(original, "pressure", TypeList::of<double>());
  EXPECT_EQ(withField.Selection()->getFieldType("pressure"), TypeList::of<double>());
  EXPECT_EQ(original.getFieldName(), "temperature");
  FieldSelector assigned(bundle, 1, "uniform", "density");
  assigned = original;
  EXPECT_TRUE(!assigned && assigned.gridname == "curvilinear");
  FieldSelector moved(std::move(original));
  FieldSelector target;
  target = std::move(moved);
  EXPECT_EQ(target.Selection(), selection);
  EXPECT_EQ(target.getSourceTime(), 2.0);

  // Without a selection all see one shared empty selection, which selecting never fills.
  const FieldSelection* shared = std::as_const(copy).Selection();
  target.clearSelection();
  EXPECT_EQ(std::as_const(target).Selection(), shared);
  target.selectField("density", TypeList::of<double>());
  EXPECT_EQ(target.NumberOfAvailableFields(), 1);
  EXPECT_EQ(shared->getNumberOfFields(), 0);
}

// ---- the selection ---------------------------------------------------------------------

const QuarilTypeBase& doubles = QuarilTypeBase::getType<double>();
const QuarilTypeBase& floats = QuarilTypeBase::getType<float>();

TEST(FieldSelection, singleFieldAnswersOnlyForAUniqueSelectionAndEmptyNamesOnlyThroughIt) {
  FieldSelection selection;
  for (const QuarilTypeBase* type : {&doubles, &doubles, &floats})
    selection.setFieldType("a", *type, true);  // appends once per type
  EXPECT_EQ(selection.getFieldType("a"), (TypeList::of<double, float>()));
  selection.setFieldType("b", floats, false);
  EXPECT_TRUE(selection.getFieldName().empty() && selection.getFieldType().empty());
  EXPECT_FALSE(selection.setFieldType("", floats, true));
  selection.setUniqueField("", TypeList::of<int32_t>());
  EXPECT_EQ(selection.getNumberOfFields(), 1);
  EXPECT_EQ(selection.getFieldType(), TypeList::of<int32_t>());
}

TEST(FieldSelection, equalityFollowsThePrefixRule) {
  FieldSelection empty, a, ab, aFloat, b, aa;
  a.setFieldType("a", doubles, false);
  ab.setFieldType("a", doubles, false);
  ab.setFieldType("b", floats, false);
  aFloat.setFieldType("a", floats, false);
  b.setFieldType("b", floats, false);
  aa.setFieldType("aa", doubles, false);
  EXPECT_TRUE(empty == ab && a == ab && ab == a);  // a leading part matches
  EXPECT_FALSE(a == aFloat || ab == b);
  EXPECT_FALSE(a == aa);  // names must agree in length too
  aFloat.setFieldType("a", doubles, true);
  EXPECT_FALSE(a == aFloat);  // type counts differ
}

}  // namespace
}  // namespace Quaril::Testing
