#include "bundle/Slice.hpp"

#include <gtest/gtest.h>

#include "BundleFixture.hpp"

namespace Quaril::Testing {
namespace {

TEST(Slice, lookUpsCreateNothingAndOneIdentityStepsBetweenSlices) {
  BundlePtr bundle = bundleWith({1.0, 4.0}, "g");
  SlicePtr empty = (*bundle)[2.0];
  EXPECT_FALSE((*empty)("unknown") || empty->findGridID("unknown") || (*empty)("g"));
  EXPECT_TRUE(empty->getGrids().empty());
  EXPECT_EQ(bundle->getGridList()->getNumberOfGrids(), 1u);
  StrongPtr<GridID> id = (*bundle)[1.0]->findGridID("g");
  EXPECT_EQ((*bundle)[4.0]->findGridID("g"), id);
  double t = 1.0;
  EXPECT_EQ(id->next(t), (*bundle)[4.0]);
  // The identity form of [] makes a grid but records no time in the identity.
  ASSERT_NE((*empty)[id], nullptr);
  EXPECT_TRUE((*empty)(id));
  t = 2.5;
  EXPECT_EQ(id->prev(t), (*bundle)[1.0]);
  EXPECT_FALSE((*empty)(StrongPtr<GridID>()));  // an empty identity is a key of its own
  EXPECT_NE((*empty)[StrongPtr<GridID>()], nullptr);
}

TEST(Slice, replacingAGridReleasesItWhileTheFirstSliceStaysOwnerAndParentsAreLinked) {
  BundlePtr bundle = bundleWith({0.0}, "g");
  SlicePtr slice = (*bundle)[0.0], other = (*bundle)[1.0];
  WeakPtr<Grid> old((*slice)("g"));
  Grid* second = slice->newGrid("g");
  EXPECT_EQ((*slice)["g"], second);
  EXPECT_FALSE(old.valid()) << "the replaced grid must be released";
  EXPECT_FALSE(slice->insert("h", StrongPtr<Grid>()) || slice->findGridID("h"));
  StrongPtr<Grid> shared(new Grid(bundle->getGridList(), bundle->getCharts()));
  EXPECT_TRUE(slice->insert("h", shared) && other->insert("h", shared));
  EXPECT_EQ((*other)("h"), shared);
  EXPECT_EQ(shared->firstLiveOwner().get(), slice.get());

  ASSERT_NE(slice->newGrid("child", "nobody"), nullptr);
  EXPECT_FALSE(slice->findGridID("nobody"));
  EXPECT_TRUE(slice->findGridID("child")->isChildOf(WeakPtr<GridID>()));
  slice->newGrid("second", "g");
  EXPECT_TRUE(slice->findGridID("g")->isParentOf(slice->findGridID("second")));
  int runs = 0;  // the parent may come with the slice's pending loader
  addRecordingLoader(other, runs, "loaded parent");
  other->newGrid("loaded child", "loaded parent");
  EXPECT_TRUE(other->findGridID("loaded parent")->isParentOf(other->findGridID("loaded child")));
}

TEST(Slice, uniqueGridCountsEntriesWithoutGridsAndIterateCountsUpToTheRefusal) {
  BundlePtr bundle = bundleWith({0.0}, "a");
  SlicePtr slice = (*bundle)[0.0];
  EXPECT_EQ(slice->getUniqueGrid().second, (*slice)("a"));
  slice->makeGridID("no grid");
  EXPECT_FALSE(slice->getUniqueGrid().first || slice->getUniqueGrid().second);
  (*slice)["b"];
  struct Refusing : GridIterator {
    std::string refused;
    bool apply(GridID& id, Grid&) override { return id.getName() != refused; }
  } iterator;
  iterator.refused = "b";
  using Names = Ostrak::StringList;
  EXPECT_EQ(slice->iterate(iterator, StrongPtr<Names>(new Names{"a", "x"})), 1u);
  EXPECT_EQ(slice->iterate(iterator, StrongPtr<Names>(new Names{"b"})), 0u);  // refusal uncounted
  iterator.refused = "";
  EXPECT_EQ(slice->iterate(iterator), 2u) << "an entry without a grid is not visited";
}

TEST(Slice, loaderRunsOnceOnFirstAccessAndAtEndOfLifeOnlyWhenTheBundleIsBound) {
  BundlePtr bundle;
  bundle.create();
  SlicePtr slice = (*bundle)[0.0];
  int runs = 0;
  addRecordingLoader(slice, runs, "loaded");  // creating the grid reenters the slice
  EXPECT_TRUE(slice->hasPendingLoaders());
  EXPECT_TRUE((*slice)("loaded"));
  slice->accessSlice();
  EXPECT_EQ(runs, 1);
  SlicePtr later = (*bundle)[1.0];  // asking for an identity is an access too
  addRecordingLoader(later, runs, "late");
  EXPECT_TRUE(later->findGridID("late"));
  EXPECT_EQ(runs, 2);

  for (bool bound : {false, true}) {
    int syncs = 0;
    if (bound) bundle->setStorage(StrongPtr<StorageBinding>(new CountingStorage(syncs)));
    WeakPtr<Grid> grid;
    {  // a slice that only a caller holds: the bundle does not file it
      StrongPtr<Slice> unfiled(new Slice(*bundle, bundle->getCharts()));
      grid = WeakPtr<Grid>(unfiled->newGrid("kept"));
      addRecordingLoader(unfiled, runs);
    }
    EXPECT_EQ(runs, bound ? 3 : 2) << "bound=" << bound;
    EXPECT_FALSE(grid.valid()) << "the grid map must be emptied";
    bundle->setStorage({});
  }
}

TEST(Slice, sliceOutlivingItsFilingRecordsNoTimeAndFindsNothingByName) {
  BundlePtr bundle;
  bundle.create();
  SlicePtr unfiled = (*bundle)[1.0];
  bundle->extremeUnction();
  ASSERT_NE((*unfiled)["g"], nullptr);
  EXPECT_TRUE(unfiled->findGridID("g")->getSliceMap().empty());
  EXPECT_FALSE(bundle->findPreviousGrid(1.0, "g"));

  SlicePtr survivor = (*bundleWith({1.0}, "g"))[1.0];
  EXPECT_FALSE(survivor->getIDList() || survivor->getOwningBundle() || (*survivor)("g"));
  EXPECT_EQ((*survivor)["g"], nullptr);
  EXPECT_EQ(survivor->getGrids().size(), 1u) << "a held slice keeps its grids";
}

// From 32 grids on a slice indexes its grids by name; the index must answer
// as the plain map does, also for replaced, inserted and foreign entries.
TEST(Slice, largeSlicesFindWhatSmallOnesFind) {
  BundlePtr bundle;
  bundle.create();
  SlicePtr slice = (*bundle)[0.0];
  std::vector<Grid*> grids;
  for (int i = 0; i < 100; ++i) grids.push_back((*slice)["g" + std::to_string(i)]);
  grids[50] = slice->newGrid("g50");
  StrongPtr<Grid> inserted(new Grid(bundle->getGridList(), bundle->getCharts()));
  slice->insert("g70", inserted);
  grids[70] = inserted.get();
  slice->makeGridID("empty");
  for (int i = 0; i < 100; ++i) {
    const std::string name = "g" + std::to_string(i);
    EXPECT_EQ((*slice)(name).get(), grids[i]) << name;
    EXPECT_EQ((*slice)(slice->findGridID(name)).get(), grids[i]) << name;
    EXPECT_EQ((*slice)[name], grids[i]) << name;
  }
  EXPECT_FALSE((*slice)("empty") || (*slice)("g100"));
  // Identities foreign to the bundle are found by identity, never by name.
  StrongPtr<GridID> foreign(new GridID("g1")), stranger(new GridID("stranger"));
  Grid* foreignGrid = (*slice)[foreign];
  EXPECT_EQ((*slice)(foreign).get(), foreignGrid);
  EXPECT_NE((*slice)[stranger], nullptr);
  EXPECT_EQ((*slice)("g1").get(), grids[1]);
  EXPECT_FALSE((*slice)("stranger"));
}

}  // namespace
}  // namespace Quaril::Testing
