#include "bundle/Slice.hpp"

#include <gtest/gtest.h>

#include "BundleFixture.hpp"

namespace QuarilTest {
namespace {

TEST(Slice, lookUpNeverCreatesIdentitiesOrEntries) {
  BundlePtr bundle = bundleWith({1.0}, "held");
  SlicePtr empty = (*bundle)[2.0];
  EXPECT_FALSE((*empty)("unknown"));
  EXPECT_FALSE(empty->findGridID("unknown"));
  EXPECT_FALSE((*empty)("held"));
  EXPECT_TRUE(empty->getGrids().empty());
  EXPECT_EQ(bundle->getGridList()->getNumberOfGrids(), 1u);
}

TEST(Slice, bracketKeepsTheGridAndNewGridReplacesIt) {
  BundlePtr bundle;
  bundle.create();
  SlicePtr slice = (*bundle)[0.0];
  Grid* first = (*slice)["g"];
  ASSERT_NE(first, nullptr);
  EXPECT_EQ((*slice)["g"], first);
  EXPECT_EQ(first->firstLiveOwner().get(),
            static_cast<Quaril::Ownable<Grid>::Container*>(slice.get()));

  WeakPtr<Grid> old((*slice)("g"));
  Grid* second = slice->newGrid("g");
  EXPECT_NE(second, first);
  EXPECT_EQ((*slice)("g").get(), second);
  EXPECT_FALSE(old.valid()) << "the replaced grid must be released";
}

TEST(Slice, twoSlicesShareOneIdentityThatStepsBetweenThem) {
  BundlePtr bundle = bundleWith({1.0, 4.0}, "g");
  StrongPtr<GridID> id = (*bundle)[1.0]->findGridID("g");
  ASSERT_TRUE(id);
  EXPECT_EQ((*bundle)[4.0]->findGridID("g"), id);
  double t = 1.0;
  EXPECT_EQ(id->next(t), (*bundle)[4.0]);
  EXPECT_EQ(t, 4.0);
  t = 3.0;
  EXPECT_EQ(id->prev(t), (*bundle)[1.0]);
  EXPECT_EQ(t, 1.0);
}

TEST(Slice, identityFormOfBracketRegistersNothing) {
  BundlePtr bundle = bundleWith({1.0}, "g");
  StrongPtr<GridID> id = (*bundle)[1.0]->findGridID("g");
  SlicePtr later = (*bundle)[2.0];
  ASSERT_NE((*later)[id], nullptr);
  EXPECT_TRUE((*later)(id));
  double t = 5.0;
  EXPECT_EQ(id->prev(t), (*bundle)[1.0]) << "the later slice must not be recorded";

  // An empty identity is a key of its own.
  EXPECT_NE((*later)[StrongPtr<GridID>()], nullptr);
  EXPECT_FALSE((*later)(StrongPtr<GridID>()));
}

TEST(Slice, insertRefusesEmptyGridsAndRecordsItsOwnership) {
  BundlePtr bundle;
  bundle.create();
  SlicePtr slice = (*bundle)[0.0];
  EXPECT_FALSE(slice->insert("g", StrongPtr<Grid>()));
  EXPECT_FALSE(slice->findGridID("g"));

  StrongPtr<Grid> shared((*slice)("missing"));
  SlicePtr other = (*bundle)[1.0];
  StrongPtr<Grid> grid(new Grid(bundle->getGridList(), bundle->getCharts()));
  EXPECT_TRUE(slice->insert("g", grid));
  EXPECT_TRUE(other->insert("g", grid));
  EXPECT_EQ((*slice)("g"), grid);
  EXPECT_EQ((*other)("g"), grid);
  // The first slice that took the grid is its first owner.
  EXPECT_EQ(grid->firstLiveOwner().get(),
            static_cast<Quaril::Ownable<Grid>::Container*>(slice.get()));
}

TEST(Slice, newGridLinksParentOnlyWhenTheParentExists) {
  BundlePtr bundle;
  bundle.create();
  SlicePtr slice = (*bundle)[0.0];
  ASSERT_NE(slice->newGrid("child", "nobody"), nullptr);
  EXPECT_FALSE(slice->findGridID("nobody"));
  EXPECT_TRUE(slice->findGridID("child")->isChildOf(WeakPtr<GridID>()));

  (*slice)["parent"];
  slice->newGrid("second", "parent");
  EXPECT_TRUE(slice->findGridID("parent")->isParentOf(slice->findGridID("second")));

  // The parent may come with the slice's pending loader.
  int runs = 0;
  SlicePtr later = (*bundle)[1.0];
  later->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs, "loaded parent")));
  later->newGrid("loaded child", "loaded parent");
  EXPECT_TRUE(later->findGridID("loaded parent")->isParentOf(later->findGridID("loaded child")));
}

TEST(Slice, uniqueGridCountsEntriesWithEmptyGrids) {
  BundlePtr bundle;
  bundle.create();
  SlicePtr slice = (*bundle)[0.0];
  EXPECT_FALSE(slice->getUniqueGrid().first);
  (*slice)["only"];
  auto [id, grid] = slice->getUniqueGrid();
  EXPECT_EQ(id, slice->findGridID("only"));
  EXPECT_EQ(grid, (*slice)("only"));
  slice->makeGridID("empty");  // an entry without a grid
  EXPECT_FALSE(slice->getUniqueGrid().first);
  EXPECT_FALSE(slice->getUniqueGrid().second);
}

TEST(Slice, iterateFiltersByNameAndStops) {
  struct Collect : Quaril::GridIterator {
    std::vector<std::string> names;
    size_t stopAfter = 100;
    bool apply(GridID& id, Grid&) override {
      names.push_back(id.getName());
      return names.size() < stopAfter;
    }
  };
  BundlePtr bundle;
  bundle.create();
  SlicePtr slice = (*bundle)[0.0];
  for (const char* name : {"a", "b", "c"}) (*slice)[name];
  slice->makeGridID("no grid");

  Collect all;
  EXPECT_EQ(slice->iterate(all), 3u);
  Collect some;
  EXPECT_EQ(slice->iterate(some, StrongPtr<Ostrak::StringList>(new Ostrak::StringList{"b", "x"})),
            1u);
  EXPECT_EQ(some.names, std::vector<std::string>{"b"});
  Collect none;
  EXPECT_EQ(slice->iterate(none, StrongPtr<Ostrak::StringList>(new Ostrak::StringList{"x"})), 0u);
  EXPECT_TRUE(none.names.empty());
  Collect first;
  first.stopAfter = 1;
  EXPECT_EQ(slice->iterate(first), 0u);
  EXPECT_EQ(first.names.size(), 1u);
}

TEST(Slice, loaderThatReentersItsSliceRunsOnce) {
  BundlePtr bundle;
  bundle.create();
  SlicePtr slice = (*bundle)[0.0];
  int runs = 0;
  slice->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs, "loaded")));
  EXPECT_TRUE(slice->hasPendingLoaders());
  EXPECT_TRUE((*slice)("loaded"));
  EXPECT_EQ(runs, 1);
  EXPECT_FALSE(slice->hasPendingLoaders());
  EXPECT_TRUE(slice->accessSlice());
  EXPECT_EQ(runs, 1);

  // Asking for an identity is an access too: the loader may create it.
  SlicePtr later = (*bundle)[1.0];
  later->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs, "late")));
  EXPECT_TRUE(later->findGridID("late"));
  EXPECT_EQ(runs, 2);
}

TEST(Slice, pendingLoadersRunAtEndOfLifeOnlyWhenTheBundleIsBound) {
  for (bool bound : {false, true}) {
    BundlePtr bundle;
    bundle.create();
    int syncs = 0;
    if (bound) bundle->setStorage(StrongPtr<Quaril::StorageBinding>(new CountingStorage(syncs)));
    int runs = 0;
    WeakPtr<Grid> grid;
    {
      // A slice that only a caller holds: the bundle does not file it.
      StrongPtr<Slice> slice(new Slice(*bundle, bundle->getCharts()));
      grid = WeakPtr<Grid>(slice->newGrid("kept"));
      slice->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs)));
    }
    EXPECT_EQ(runs, bound ? 1 : 0) << "bound=" << bound;
    EXPECT_FALSE(grid.valid()) << "the grid map must be emptied";
  }
}

TEST(Slice, memoryUsageOfEmptySliceLeavesCountersAlone) {
  BundlePtr bundle;
  bundle.create();
  SlicePtr slice = (*bundle)[0.0];
  unsigned long long first = 7, second = 9;
  EXPECT_EQ(slice->getMemoryUsage(first, second), 0u);
  EXPECT_EQ(first, 7u);
  EXPECT_EQ(second, 9u);
}

TEST(Slice, sliceNoLongerFiledRecordsNoTime) {
  BundlePtr bundle;
  bundle.create();
  SlicePtr slice = (*bundle)[1.0];
  bundle->extremeUnction();
  ASSERT_NE((*slice)["g"], nullptr);
  EXPECT_TRUE(slice->findGridID("g")->getSliceMap().empty());
  EXPECT_FALSE(bundle->findPreviousGrid(1.0, "g"));
}

TEST(Slice, sliceWithoutBundleAnswersByNameWithNothing) {
  SlicePtr survivor;
  {
    BundlePtr bundle = bundleWith({1.0}, "g");
    survivor = (*bundle)[1.0];
  }
  EXPECT_FALSE(survivor->getIDList());
  EXPECT_EQ(survivor->getOwningBundle(), nullptr);
  EXPECT_FALSE((*survivor)("g"));
  EXPECT_EQ((*survivor)["g"], nullptr);
  EXPECT_EQ(survivor->getGrids().size(), 1u) << "a held slice keeps its grids";
}

}  // namespace
}  // namespace QuarilTest

namespace QuarilTest {
namespace {

TEST(Slice, largeSlicesFindWhatSmallOnesFind) {
  BundlePtr bundle;
  bundle.create();
  SlicePtr slice = (*bundle)[0.0];
  std::vector<Grid*> grids;
  for (int i = 0; i < 100; ++i) grids.push_back((*slice)["g" + std::to_string(i)]);
  Grid* replaced = slice->newGrid("g50");
  StrongPtr<Grid> inserted(new Grid(bundle->getGridList(), bundle->getCharts()));
  slice->insert("g70", inserted);
  slice->makeGridID("empty");
  for (int i = 0; i < 100; ++i) {
    const std::string name = "g" + std::to_string(i);
    Grid* expected = i == 50 ? replaced : i == 70 ? inserted.get() : grids[i];
    EXPECT_EQ((*slice)(name).get(), expected) << name;
    EXPECT_EQ((*slice)(slice->findGridID(name)).get(), expected) << name;
    EXPECT_EQ((*slice)[name], expected) << name;
  }
  EXPECT_FALSE((*slice)("empty"));
  EXPECT_FALSE((*slice)("g100"));
  EXPECT_EQ(slice->getGrids().size(), 101u);

  // Identities foreign to the bundle are found by identity, never by name.
  StrongPtr<GridID> foreign(new GridID("g1"));
  StrongPtr<GridID> stranger(new GridID("stranger"));
  Grid* foreignGrid = (*slice)[foreign];
  Grid* strangerGrid = (*slice)[stranger];
  EXPECT_EQ((*slice)(foreign).get(), foreignGrid);
  EXPECT_EQ((*slice)(stranger).get(), strangerGrid);
  EXPECT_EQ((*slice)("g1").get(), grids[1]);
  EXPECT_FALSE((*slice)("stranger"));
  EXPECT_EQ((*slice)(slice->findGridID("g2")).get(), grids[2]);
}

}  // namespace
}  // namespace QuarilTest
