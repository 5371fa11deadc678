#include "grid/Grid.hpp"

#include <gtest/gtest.h>

#include <tuple>

#include "GridTestSupport.hpp"
#include "grid/GridConstructors.hpp"

namespace {

using namespace GridTest;
using Pelorn::PhysicalSpace::point;

TEST(Grid, chartLookupRefusesUnknownAndNonCartesianCharts) {
  auto grid = newGrid();
  EXPECT_EQ(grid->xml(), "");
  EXPECT_FALSE(grid->CartesianPositions() || grid->getCartesianRepresentation());
  EXPECT_EQ(grid->findCartesianChart()->Name(), GlobalCharts::DefaultName);
  EXPECT_FALSE(grid->findCartesianChart("nowhere"));

  StrongPtr<GlobalCharts> charts = grid->getCharts();
  ASSERT_TRUE(charts->makeChart("polar", 2, false));
  EXPECT_FALSE(grid->findCartesianChart("polar"));
  EXPECT_FALSE(charts->makeChart("polar", 3, false)) << "same name, other dimension";
  EXPECT_FALSE(charts->makeChart("", 3));
  StrongPtr<ChartID> local = charts->makeChart("local", 3);
  EXPECT_EQ(grid->findCartesianChart("local"), local);
  EXPECT_EQ(charts->makeChart("local", 3), local);
  EXPECT_EQ(charts->size(), 3u);

  StrongPtr<Grid> chartless(new Grid(nullptr, nullptr));
  EXPECT_FALSE(chartless->findCartesianChart() ||
               makeUniformGrid(*chartless, {2, 2, 2}, {}, {1, 1, 1}));
}

TEST(SkeletonID, orderIsByDimensionThenIndexAndNegativePartsAreInvalid) {
  EXPECT_TRUE(SkeletonID(0, 5) < SkeletonID(1, 0) && SkeletonID(1, 0) < SkeletonID(1, 1));
  EXPECT_FALSE(SkeletonID(2, 0) < SkeletonID(1, 9) || SkeletonID(0, 1) == SkeletonID(1, 0));
  EXPECT_EQ(SkeletonID(3, 12).Name(), "Skeleton(3,12)");
  EXPECT_FALSE(SkeletonID(-1, 0).isValid() || SkeletonID(0, -1).isValid());
}

TEST(SkeletonMap, insertionsRecordOwnersAndReplacementsDropThem) {
  auto grid = newGrid();
  auto other = newGrid();
  StrongPtr<Skeleton> edges(new Skeleton(1, 12));
  EXPECT_FALSE(grid->setSkeleton(SkeletonID(2, 0), edges)) << "dimension mismatch";
  EXPECT_FALSE(grid->setSkeleton(SkeletonID(1, -1), edges) ||
               grid->setSkeleton(SkeletonID(1, 0), nullptr));
  EXPECT_EQ(edges->owners(), nullptr);
  ASSERT_TRUE(grid->setSkeleton(SkeletonID(1, 0), edges));
  ASSERT_TRUE(other->setSkeleton(SkeletonID(1, 4), edges));
  EXPECT_TRUE(edges->isOwnedBy(*grid) && edges->isOwnedBy(*other));
  EXPECT_EQ(Ostrak::dynamic_pointer_cast<Grid>(edges->firstLiveOwner().lock()), grid);

  // Still held under a second identity: keeps the owner until both go.
  ASSERT_TRUE(grid->setSkeleton(SkeletonID(1, 1), edges));
  ASSERT_TRUE(grid->setSkeleton(SkeletonID(1, 0), StrongPtr<Skeleton>(new Skeleton(1, 3))));
  EXPECT_TRUE(edges->isOwnedBy(*grid));
  ASSERT_TRUE(grid->setSkeleton(SkeletonID(1, 1), StrongPtr<Skeleton>(new Skeleton(1, 3))));
  EXPECT_FALSE(edges->isOwnedBy(*grid));
  grid.reset();  // the first live owner moves on when a grid dies
  EXPECT_EQ(Ostrak::dynamic_pointer_cast<Grid>(edges->firstLiveOwner().lock()), other);

  EXPECT_FALSE(other->makeSkeleton(SkeletonID(1, 4), 5)) << "taken";
  EXPECT_FALSE(other->makeSkeleton(SkeletonID(-1, 0), 5));
  for (auto [dimension, next] : {std::pair{1, 5}, {0, 0}, {2, 0}, {-1, -1}})
    EXPECT_EQ(other->nextIndex(dimension), next) << dimension;
}

TEST(SkeletonMap, refinementFactorIsSearchedInTheDimensionGivenAsExtra) {
  auto grid = newGrid();
  StrongPtr<Skeleton> level0 = grid->makeSkeleton(SkeletonID(0, 0), 8, 1);
  StrongPtr<Skeleton> level1 = grid->makeSkeleton(SkeletonID(0, 1), 27, 2);
  grid->makeSkeleton(SkeletonID(0, 2), 27, 2);  // a second one with the same factor
  StrongPtr<Skeleton> level2 = grid->makeSkeleton(SkeletonID(0, 3), 125, 4);
  StrongPtr<Skeleton> edges = grid->makeSkeleton(SkeletonID(1, 0), 54, 2);
  // (factor, dimension given as extra) -> the skeleton found
  const std::vector<std::tuple<int, int, StrongPtr<Skeleton>>> cases = {
      {1, 0, level0}, {2, 0, level1}, {4, 0, level2}, {2, 1, edges},   {8, 0, {}},
      {4, 1, {}},     {2, -1, {}},    {0, 0, {}},     {1 << 31, 0, {}}};
  for (const auto& [factor, dimension, found] : cases)
    EXPECT_EQ(grid->findIsotropicRefinementFactor(factor, dimension), found) << factor << dimension;
  EXPECT_EQ(StrongPtr<Skeleton>(new Skeleton(0, 1, 0))->getIsotropicRefinementFactor(), 1);
}

TEST(SkeletonMap, memoryCountersFollowDeferredDataAndCountSharedArraysOnce) {
  auto grid = newGrid();
  ASSERT_TRUE(makeUniformGrid(*grid, {10, 10, 10}, {}, {1, 1, 1}));
  unsigned long long resident = 0, producible = 0;
  grid->getMemoryUsage(resident, producible);
  const unsigned long long positions = resident, bytes = 1000 * sizeof(double);
  EXPECT_LT(positions, 1000u * sizeof(point)) << "uniform positions store no points";
  int productions = 0;
  StrongPtr<CreativeArrayBase> deferred(new DeferredCreator(
      QuarilTypeBase::getType<double>(), DynamicSize{10, 10, 10}, [&productions] {
        ++productions;
        return StrongPtr<MemBase, Cacheable>(new MemArray<3, double>({10, 10, 10}));
      }));
  for (const char* name : {"pressure", "alias"}) {
    StrongPtr<Field> field = Field::create<double>();
    field->setCreator(deferred);
    ASSERT_TRUE(grid->getCartesianRepresentation()->setField(name, field));
  }
  // (resident, producible) before production, after it, and after a drop; the
  // counters are added to, never reset.
  auto usage = [&] {
    unsigned long long first = 7, second = 3;
    grid->getMemoryUsage(first, second);
    return std::pair(first - 7, second - 3);
  };
  EXPECT_EQ(usage(), std::pair(positions, bytes)) << "a shared creator counts once";
  EXPECT_EQ(productions, 0) << "counting loads nothing";
  ASSERT_TRUE(deferred->getData());
  EXPECT_EQ(usage(), std::pair(positions + bytes, 0ull));
  deferred->dropCache();
  EXPECT_EQ(usage(), std::pair(positions, bytes));
  EXPECT_EQ(productions, 1);
}

TEST(Representation, fieldNamesStayUniqueAndRemovedFieldsLoseTheirOwner) {
  auto grid = newGrid();
  StrongPtr<Skeleton> vertices = grid->makeSkeleton(SkeletonID(0, 0), 4);
  StrongPtr<Representation> representation = grid->makeCartesianRepresentation(vertices);
  ASSERT_TRUE(representation);
  EXPECT_EQ(grid->makeCartesianRepresentation(vertices), representation);
  EXPECT_EQ(representation->getBaseSpace(), WeakPtr<BaseSpace>(grid->findCartesianChart()));
  EXPECT_FALSE(grid->makeCartesianRepresentation(vertices, "unknown"));
  EXPECT_FALSE(vertices->makeRepresentation(nullptr));

  StrongPtr<Field> first = Field::create<float>();
  StrongPtr<FieldID> id = representation->setField("f", first);
  ASSERT_TRUE(id);
  EXPECT_TRUE(first->isOwnedBy(*representation));
  EXPECT_FALSE(representation->setField(StrongPtr<FieldID>(new FieldID("f")), first) ||
               representation->setField("", first) || representation->setField("g", nullptr));

  StrongPtr<Field> second = Field::create<float>();
  EXPECT_EQ(representation->setField("f", second), id) << "the identity is reused";
  EXPECT_FALSE(first->isOwnedBy(*representation));
  EXPECT_EQ(representation->findField("f"), second);
  EXPECT_TRUE(representation->removeField(id));
  EXPECT_FALSE(second->isOwnedBy(*representation));
  EXPECT_FALSE(representation->removeField(id) || representation->findField(id) ||
               representation->findFieldID("f"));
}

TEST(Grid, xmlDescribesSkeletonsRepresentationsAndFields) {
  auto grid = newGrid();
  ASSERT_TRUE(makeUniformGrid(*grid, {2, 3, 1}, {}, {1, 1, 1}));
  ASSERT_TRUE(addVertexField(*grid, "t<&>", std::vector<float>(6)));
  EXPECT_EQ(grid->xml(),
            "     <SKELETON dimension=\"0\" index=\"0\" elements=\"6\" refinement=\"1\">\n"
            "      <REPRESENTATION chart=\"DefaultCartesian\">\n"
            "       <FIELD name=\"Positions\" type=\"point\" fragments=\"1\" extents=\"2x3x1\"/>\n"
            "       <FIELD name=\"t<&>\" type=\"float\" fragments=\"1\" extents=\"2x3x1\"/>\n"
            "      </REPRESENTATION>\n"
            "     </SKELETON>\n"
            "     <SKELETON dimension=\"2\" index=\"0\" elements=\"2\" refinement=\"1\"/>\n");

  auto blocks = newGrid();
  ASSERT_TRUE(makeFragmentedUniformGrid(
      *blocks, {{"b", {2, 2, 2}, {}, {1, 1, 1}}, {"a", {3, 2, 2}, {5, 0, 0}, {1, 1, 1}}}));
  EXPECT_NE(blocks->xml().find("       <FIELD name=\"Positions\" type=\"point\" fragments=\"2\">\n"
                               "        <FRAGMENT name=\"a\" extents=\"3x2x2\"/>\n"
                               "        <FRAGMENT name=\"b\" extents=\"2x2x2\"/>\n"
                               "       </FIELD>\n"),
            std::string::npos)
      << blocks->xml();

  auto surface = newGrid();
  ASSERT_TRUE(makeTriangleSurface(*surface, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {{0, 1, 2}}));
  EXPECT_NE(surface->xml().find("      <REPRESENTATION skeleton=\"Skeleton(0,0)\">\n"),
            std::string::npos)
      << surface->xml();
}

}  // namespace
