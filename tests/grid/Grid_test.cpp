#include "grid/Grid.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "GridTestSupport.hpp"
#include "grid/GridConstructors.hpp"

// Counts allocations, so that a test can tell what building an object costs.
// The replacements pair malloc with free, which the compiler cannot see. The
// address sanitizer brings its own allocator, so they are left out there.
namespace {
std::atomic<long> allocationCount{0};
}
#if defined(__SANITIZE_ADDRESS__)
#define GRID_TEST_COUNTS_ALLOCATIONS 0
#else
#define GRID_TEST_COUNTS_ALLOCATIONS 1
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
  allocationCount.fetch_add(1, std::memory_order_relaxed);
  if (void* block = std::malloc(size ? size : 1)) return block;
  throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  allocationCount.fetch_add(1, std::memory_order_relaxed);
  return std::malloc(size ? size : 1);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}
#pragma GCC diagnostic pop
#endif

namespace {

using namespace GridTest;
using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;

TEST(Grid, emptyGridAllocatesOnlyItselfAndDescribesNothing) {
  StrongPtr<GlobalCharts> charts(new GlobalCharts);
  const long before = allocationCount.load();
  auto* grid = new Grid(nullptr, charts);
  const long made = allocationCount.load() - before;
  StrongPtr<Grid> held(grid);
  if (GRID_TEST_COUNTS_ALLOCATIONS) {
    EXPECT_EQ(made, 2) << "the object and its reference block only";
  }
  EXPECT_LT(sizeof(Grid), 300u);
  EXPECT_EQ(held->xml(), "");
  EXPECT_EQ(held->nSkeletons(), 0u);
  EXPECT_FALSE(held->CartesianPositions());
  EXPECT_FALSE(held->getCartesianRepresentation());
}

TEST(Grid, chartLookupRefusesUnknownAndNonCartesianCharts) {
  auto grid = newGrid();
  StrongPtr<ChartID> standard = grid->findCartesianChart();
  ASSERT_TRUE(standard);
  EXPECT_EQ(standard->Name(), GlobalCharts::DefaultName);
  EXPECT_EQ(standard->getDimension(), 3);
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
  EXPECT_FALSE(chartless->findCartesianChart());
  EXPECT_FALSE(makeUniformGrid(*chartless, {2, 2, 2}, {}, {1, 1, 1}));
  EXPECT_EQ(chartless->nSkeletons(), 0u);
}

TEST(Grid, containerIsKeptApartFromOwners) {
  StrongPtr<GridContainer> container(new GridContainer);
  StrongPtr<Grid> grid(new Grid(WeakPtr<GridContainer>(container), nullptr));
  EXPECT_EQ(grid->getContainer(), WeakPtr<GridContainer>(container));
  EXPECT_EQ(grid->owners(), nullptr);
}

TEST(SkeletonMap, insertionsRecordOwnersAndReplacementsDropThem) {
  auto grid = newGrid();
  auto other = newGrid();
  StrongPtr<Skeleton> edges(new Skeleton(1, 12));
  EXPECT_FALSE(grid->setSkeleton(SkeletonID(2, 0), edges)) << "dimension mismatch";
  EXPECT_FALSE(grid->setSkeleton(SkeletonID(1, -1), edges));
  EXPECT_FALSE(grid->setSkeleton(SkeletonID(1, 0), nullptr));
  EXPECT_EQ(edges->owners(), nullptr);

  ASSERT_TRUE(grid->setSkeleton(SkeletonID(1, 0), edges));
  ASSERT_TRUE(other->setSkeleton(SkeletonID(1, 4), edges));
  EXPECT_TRUE(edges->isOwnedBy(*grid));
  EXPECT_TRUE(edges->isOwnedBy(*other));
  EXPECT_EQ(Ostrak::dynamic_pointer_cast<Grid>(edges->firstLiveOwner().lock()), grid);

  // Still held under a second identity: keeps the owner until both go.
  ASSERT_TRUE(grid->setSkeleton(SkeletonID(1, 1), edges));
  ASSERT_TRUE(grid->setSkeleton(SkeletonID(1, 0), StrongPtr<Skeleton>(new Skeleton(1, 3))));
  EXPECT_TRUE(edges->isOwnedBy(*grid));
  ASSERT_TRUE(grid->setSkeleton(SkeletonID(1, 1), StrongPtr<Skeleton>(new Skeleton(1, 3))));
  EXPECT_FALSE(edges->isOwnedBy(*grid));

  // The first live owner moves on when a grid dies.
  grid.reset();
  EXPECT_EQ(Ostrak::dynamic_pointer_cast<Grid>(edges->firstLiveOwner().lock()), other);

  EXPECT_FALSE(other->makeSkeleton(SkeletonID(1, 4), 5)) << "taken";
  EXPECT_FALSE(other->makeSkeleton(SkeletonID(-1, 0), 5));
  EXPECT_EQ(other->nextIndex(1), 5);
  EXPECT_EQ(other->nextIndex(0), 0);
  EXPECT_EQ(other->nextIndex(2), 0);
  EXPECT_EQ(other->nextIndex(-1), -1);
}

TEST(SkeletonMap, refinementFactorIsSearchedInTheDimensionGivenAsExtra) {
  auto grid = newGrid();
  grid->makeSkeleton(SkeletonID(0, 0), 8, 1);
  StrongPtr<Skeleton> level1 = grid->makeSkeleton(SkeletonID(0, 1), 27, 2);
  grid->makeSkeleton(SkeletonID(0, 2), 27, 2);  // a second one with the same factor
  StrongPtr<Skeleton> level2 = grid->makeSkeleton(SkeletonID(0, 3), 125, 4);
  StrongPtr<Skeleton> edges = grid->makeSkeleton(SkeletonID(1, 0), 54, 2);

  EXPECT_EQ(grid->findIsotropicRefinementFactor(1, 0), grid->getSkeleton(SkeletonID(0, 0)));
  EXPECT_EQ(grid->findIsotropicRefinementFactor(2, 0), level1) << "lowest index wins";
  EXPECT_EQ(grid->findIsotropicRefinementFactor(4, 0), level2);
  EXPECT_EQ(grid->findIsotropicRefinementFactor(2, 1), edges);
  EXPECT_FALSE(grid->findIsotropicRefinementFactor(8, 0));
  EXPECT_FALSE(grid->findIsotropicRefinementFactor(4, 1));
  EXPECT_FALSE(grid->findIsotropicRefinementFactor(2, -1));
  EXPECT_FALSE(grid->findIsotropicRefinementFactor(0, 0));
  EXPECT_FALSE(grid->findIsotropicRefinementFactor(1 << 31, 0));
  EXPECT_EQ(StrongPtr<Skeleton>(new Skeleton(0, 1, 0))->getIsotropicRefinementFactor(), 1);
}

TEST(SkeletonMap, memoryCountersFollowDeferredDataAndCountSharedArraysOnce) {
  auto grid = newGrid();
  ASSERT_TRUE(makeUniformGrid(*grid, {10, 10, 10}, {}, {1, 1, 1}));
  unsigned long long resident = 0, producible = 0;
  grid->getMemoryUsage(resident, producible);
  const unsigned long long positionsBytes = resident;
  EXPECT_GT(positionsBytes, 0u);
  EXPECT_LT(positionsBytes, 1000u * sizeof(point)) << "uniform positions store no points";
  EXPECT_EQ(producible, 0u);

  int productions = 0;
  StrongPtr<CreativeArrayBase> deferred(new DeferredCreator(
      QuarilTypeBase::getType<double>(), DynamicSize{10, 10, 10}, [&productions] {
        ++productions;
        return StrongPtr<MemBase, Cacheable>(new MemArray<3, double>({10, 10, 10}));
      }));
  StrongPtr<Field> pressure = Field::create<double>();
  StrongPtr<Field> alias = Field::create<double>();
  pressure->setCreator(deferred);
  alias->setCreator(deferred);
  StrongPtr<Representation> vertices = grid->getCartesianRepresentation();
  ASSERT_TRUE(vertices->setField("pressure", pressure));
  ASSERT_TRUE(vertices->setField("alias", alias));

  const unsigned long long bytes = 1000 * sizeof(double);
  resident = producible = 0;
  EXPECT_EQ(grid->getMemoryUsage(resident, producible), positionsBytes);
  EXPECT_EQ(resident, positionsBytes);
  EXPECT_EQ(producible, bytes) << "a creator shared by two fields counts once";
  EXPECT_EQ(productions, 0) << "counting loads nothing";

  ASSERT_TRUE(pressure->getData());
  resident = producible = 0;
  EXPECT_EQ(grid->getMemoryUsage(resident, producible), positionsBytes + bytes);
  EXPECT_EQ(resident, positionsBytes + bytes);
  EXPECT_EQ(producible, 0u);

  deferred->dropCache();
  resident = 7, producible = 3;  // the counters are added to, not reset
  grid->getMemoryUsage(resident, producible);
  EXPECT_EQ(resident, 7 + positionsBytes);
  EXPECT_EQ(producible, 3 + bytes);
  EXPECT_EQ(productions, 1);

  StrongPtr<Grid> empty = newGrid();
  resident = producible = 0;
  EXPECT_EQ(empty->getMemoryUsage(resident, producible), 0u);
  EXPECT_EQ(resident + producible, 0u);
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
  EXPECT_FALSE(representation->setField(StrongPtr<FieldID>(new FieldID("f")), first))
      << "a second identity of one name";
  EXPECT_FALSE(representation->setField("", first));
  EXPECT_FALSE(representation->setField("g", nullptr));
  EXPECT_EQ(representation->nFields(), 1u);

  StrongPtr<Field> second = Field::create<float>();
  EXPECT_EQ(representation->setField("f", second), id) << "the identity is reused";
  EXPECT_FALSE(first->isOwnedBy(*representation));
  EXPECT_EQ(representation->findField("f"), second);
  EXPECT_TRUE(representation->removeField(id));
  EXPECT_FALSE(second->isOwnedBy(*representation));
  EXPECT_FALSE(representation->removeField(id));
  EXPECT_FALSE(representation->findField(id));
  EXPECT_FALSE(representation->findFieldID("f"));
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
