#include "bundle/Bundle.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "BundleFixture.hpp"
#include "ostrak/SaveRegistry.hpp"

namespace QuarilTest {
namespace {

// ---- handle, notifiers, ages, storage -------------------------------------------------

TEST(BundlePtr, createNeverMakesASecondBundleForALiveHandle) {
  BundlePtr handle;
  EXPECT_FALSE(handle);
  Bundle* bundle = handle.create();
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(handle.create(), bundle);
  BundlePtr copy = handle;
  EXPECT_EQ(copy.create(), bundle);
}

class CountingCreator : public Ostrak::SaveInterfaceCreator<Bundle> {
 public:
  struct Saver : Ostrak::Interface<CountingCreator> {};
  StrongPtr<Ostrak::InterfaceBase> create(Bundle&) const override {
    ++calls;
    return StrongPtr<Ostrak::InterfaceBase>(new Saver);
  }
  mutable int calls = 0;
};

TEST(BundlePtr, saverCreatorsAttachOncePerBundle) {
  StrongPtr<CountingCreator> creator(new CountingCreator);
  Ostrak::SaveRegistry<Bundle>::add(creator);
  {
    BundlePtr handle;
    handle.create();
    BundlePtr copy(handle);
    BundlePtr again(handle.get());  // a raw-pointer handle on a bundle that had one
    EXPECT_EQ(creator->calls, 1);
    EXPECT_TRUE(handle->findInterface(typeid(CountingCreator)));
    Bundle onStack;
    EXPECT_FALSE(onStack.findInterface(typeid(CountingCreator)));
  }
  Ostrak::SaveRegistry<Bundle>::remove(creator);
}

TEST(Bundle, notifierAddedTwiceIsCalledOnce) {
  struct Counting : Bundle::Notifier {
    int calls = 0;
    void bundleModified(const Bundle&) override { ++calls; }
  };
  BundlePtr bundle;
  bundle.create();
  StrongPtr<Counting> notifier(new Counting);
  bundle->addNotifier(notifier);
  bundle->addNotifier(notifier);
  bundle->announceModification();
  EXPECT_EQ(notifier->calls, 1);
}

TEST(Bundle, ownershipAgeOnlyMovesForward) {
  Ostrak::Ageable older;
  Ostrak::Ageable::advanceGlobalTime();
  BundlePtr bundle;
  bundle.create();
  Ostrak::Age age = bundle->getAge();
  bundle->updateOwnershipAge(older);
  EXPECT_EQ(bundle->getAge(), age);
  Ostrak::Ageable younger;
  younger.touch();
  EXPECT_EQ(bundle->updateOwnershipAge(younger).getAge(), younger.getAge());
}

TEST(Bundle, storageIsSynchronisedOnSyncAndOnceAtTheEnd) {
  int syncs = 0;
  {
    BundlePtr bundle;
    bundle.create();
    EXPECT_EQ(bundle->sync(), 0);
    bundle->setStorage(StrongPtr<Quaril::StorageBinding>(new CountingStorage(syncs)));
    EXPECT_EQ(bundle->sync(), 1);
  }
  EXPECT_EQ(syncs, 2);
}

TEST(Bundle, processOwnershipNeedsAnItemAndABinding) {
  using MemHandle = StrongPtr<Quaril::MemBase, Quaril::Cacheable>;
  BundlePtr bundle;
  bundle.create();
  Ostrak::Intercube target, source;
  EXPECT_TRUE(bundle->processOwnership(target, source));
  source.addInterface(StrongPtr<Ostrak::InterfaceBase>(new Ostrak::SaveItem<MemHandle>()));
  EXPECT_FALSE(bundle->processOwnership(target, source));
  int syncs = 0;
  bundle->setStorage(StrongPtr<Quaril::StorageBinding>(new CountingStorage(syncs)));
  EXPECT_TRUE(bundle->processOwnership(target, source));
  EXPECT_EQ(syncs, 1);
}

TEST(Bundle, endOfLifeLeavesNoSlicesAndReleasesPendingLoadersUnrun) {
  int runs = 0;
  WeakPtr<Slice> slice;
  StrongPtr<GridID> id;
  {
    BundlePtr bundle = bundleWith({1.0, 2.0}, "g");
    (*bundle)[3.0]->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs)));
    slice = (*bundle)[1.0];
    id = (*bundle)[1.0]->findGridID("g");
    bundle->extremeUnction();
    EXPECT_TRUE(bundle->getSlices().empty());
    EXPECT_EQ(bundle->minTime(), 0.0);
  }
  EXPECT_EQ(runs, 0);
  EXPECT_FALSE(slice.valid());
  // An identity held elsewhere outlives its bundle; its slices are gone.
  ASSERT_TRUE(id);
  double t = 5.0;
  EXPECT_FALSE(id->prev(t).valid());
}

TEST(Bundle, bundleWithoutHandlesTearsDownItsSlicesCleanly) {
  WeakPtr<Slice> slice;
  int syncs = 0;
  int runs = 0;
  {
    Bundle onStack;
    onStack.setStorage(StrongPtr<Quaril::StorageBinding>(new CountingStorage(syncs)));
    onStack[2.0]->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs)));
    SlicePtr held = onStack[1.0];
    (*held)["g"];
    slice = held;
    EXPECT_EQ((*held)("g").get(), (*held)["g"]);
  }
  EXPECT_FALSE(slice.valid());
  EXPECT_EQ(runs, 0) << "the binding goes before the slices";
  EXPECT_EQ(syncs, 0) << "no last rites without a strong handle";
}

// ---- time navigation ---------------------------------------------------------------------

TEST(Bundle, bracketFindsExactTimesOnly) {
  BundlePtr bundle;
  bundle.create();
  SlicePtr a = (*bundle)[1.0];
  EXPECT_EQ((*bundle)[1.0], a);
  SlicePtr b = (*bundle)[std::nextafter(1.0, 2.0)];
  EXPECT_NE(a, b);
  EXPECT_FALSE((*bundle)[std::nan("")]);
  EXPECT_EQ(bundle->getSlices().size(), 2u);

  double between = 1.5;
  EXPECT_FALSE((*bundle)(between));
  double nan = std::nan("");
  EXPECT_FALSE((*bundle)(nan));
  EXPECT_EQ(bundle->getSlices().size(), 2u);
  double exact = 1.0;
  EXPECT_EQ((*bundle)(exact), a);
}

TEST(Bundle, findPrevReturnsTheExactSliceOnlyAtTheFirstTime) {
  BundlePtr bundle = bundleWith({1.0, 2.0, 3.0}, "g");
  double t = 0.5;
  EXPECT_FALSE(bundle->findPrev(t));
  EXPECT_EQ(t, 1.0);
  t = 1.0;
  EXPECT_EQ(bundle->findPrev(t), (*bundle)[1.0]);
  EXPECT_EQ(t, 1.0);
  t = 3.0;
  EXPECT_EQ(bundle->findPrev(t), (*bundle)[2.0]);
  EXPECT_EQ(t, 2.0);
  t = 9.0;
  EXPECT_EQ(bundle->findPrev(t), (*bundle)[3.0]);
  EXPECT_EQ(t, 3.0);

  double next = 1.0;
  EXPECT_FALSE(bundle->findNext(next));
  EXPECT_EQ(next, 1.0);
}

TEST(Bundle, boundsOfEmptyAndFilledBundles) {
  BundlePtr bundle;
  bundle.create();
  EXPECT_EQ(bundle->minTime(), 0.0);
  EXPECT_EQ(bundle->maxTime(), 0.0);
  EXPECT_EQ(bundle->firstSlice().first, 0.0);
  EXPECT_FALSE(bundle->firstSlice().second);
  double t = 1.0;
  EXPECT_FALSE(bundle->findPrev(t));
  EXPECT_EQ(bundle->getTimeRange("g", true), (std::pair<double, double>(0.0, 1.0)));

  (*bundle)[-2.0];
  (*bundle)[7.0];
  EXPECT_EQ(bundle->minTime(), -2.0);
  EXPECT_EQ(bundle->maxTime(), 7.0);
  EXPECT_EQ(bundle->firstSlice().second, (*bundle)[-2.0]);
  EXPECT_EQ(bundle->getTimeRange("", false), (std::pair<double, double>(0.0, 1.0)));
}

TEST(Bundle, uniqueGridAtATime) {
  BundlePtr bundle = bundleWith({1.0}, "g");
  EXPECT_EQ(bundle->getUniqueGrid(1.0).second, (*(*bundle)[1.0])("g"));
  EXPECT_FALSE(bundle->getUniqueGrid(2.0).first);
  EXPECT_FALSE(bundle->getUniqueGrid(2.0).second);
}

// ---- grid look-up across time -----------------------------------------------------------------

TEST(Bundle, unloadedSlicesAreSkippedOnlyWhenAsked) {
  BundlePtr bundle;
  bundle.create();
  (*bundle)[1.0];
  int runs = 0;
  (*bundle)[2.0]->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs, "late")));
  EXPECT_FALSE(bundle->findFirst("late", true));
  EXPECT_EQ(bundle->NumberOfGrids("late", true), 0u);
  EXPECT_EQ(runs, 0);
  Quaril::Info<Grid> found = bundle->findFirst("late", false);
  EXPECT_TRUE(found);
  EXPECT_EQ(found.time, 2.0);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(bundle->findLast("late", true).time, 2.0);
}

TEST(Bundle, findNextGivesUpAfterTheFirstSlice) {
  BundlePtr bundle = bundleWith({2.0, 3.0}, "g");
  (*bundle)[1.0];
  EXPECT_FALSE(bundle->findNext(0.0, "g")) << "the first slice lacks the grid";
  EXPECT_EQ(bundle->findNext(2.0, "g").time, 2.0);
  EXPECT_EQ(bundle->findNext(2.5, "g").time, 3.0);
  EXPECT_FALSE(bundle->findNext(4.0, "g"));

  BundlePtr gap = bundleWith({1.0, 3.0}, "g");
  (*gap)[2.0];
  (*gap)[4.0];
  EXPECT_EQ(gap->findNext(1.5, "g").time, 3.0);
  EXPECT_FALSE(gap->findNext(3.5, "g")) << "the walk must end at the end of the map";
}

TEST(Bundle, findPrevIsEmptyAtOrBeyondTheLastTime) {
  BundlePtr bundle = bundleWith({1.0, 2.0, 3.0}, "g");
  EXPECT_FALSE(bundle->findPrev(3.0, "g"));
  EXPECT_FALSE(bundle->findPrev(5.0, "g"));
  EXPECT_FALSE(bundle->findPrev(0.5, "g"));
  EXPECT_EQ(bundle->findPrev(2.0, "g").time, 2.0);
  EXPECT_EQ(bundle->findPrev(2.5, "g").time, 2.0);
  StrongPtr<GridID> id = (*bundle)[1.0]->findGridID("g");
  EXPECT_EQ(bundle->findPrev(1.5, id).time, 1.0);
  EXPECT_FALSE(bundle->findPrev(1.5, StrongPtr<GridID>()));
}

TEST(Bundle, mostRecentGridFollowsTheIdentityAndKeepsTheTimeWhenNothingIsFound) {
  BundlePtr bundle = bundleWith({1.0, 4.0}, "g");
  (*bundle)[2.0];
  Quaril::Info<Grid> found = bundle->findMostRecentGrid(3.0, "g");
  EXPECT_EQ(found.time, 1.0);
  EXPECT_EQ(found.grid, (*(*bundle)[1.0])("g"));
  EXPECT_EQ(found.slice, (*bundle)[1.0]);

  Quaril::Info<Grid> before = bundle->findPreviousGrid(0.5, "g");
  EXPECT_FALSE(before);
  EXPECT_EQ(before.time, 0.5);
  EXPECT_FALSE(before.slice);
  EXPECT_FALSE(bundle->findMostRecentGrid(3.0, "unknown"));

  // An identity of another bundle is mapped to this bundle's own.
  BundlePtr other = bundleWith({0.0}, "g");
  StrongPtr<GridID> foreign = (*other)[0.0]->findGridID("g");
  EXPECT_EQ(bundle->findMostRecentGrid(5.0, foreign).time, 4.0);
  EXPECT_FALSE(bundle->findMostRecentGrid(5.0, StrongPtr<GridID>()));
}

TEST(Bundle, countsIncludeBothEndsInEitherOrder) {
  BundlePtr bundle = bundleWith({1.0, 2.0, 5.0, 6.0}, "g");
  (*bundle)[3.0];
  EXPECT_EQ(bundle->NumberOfGrids("g", false), 4u);
  EXPECT_EQ(bundle->NumberOfGrids(1.0, 5.0, "g", false), 3u);
  EXPECT_EQ(bundle->NumberOfGrids(5.0, 1.0, "g", false), 3u);
  EXPECT_EQ(bundle->getNrSlicesOfGridInTimeRange(5.0, 1.0, "g", false), 3u);
  EXPECT_EQ(bundle->NumberOfGrids(std::nan(""), 1.0, "g", false), 0u);
}

TEST(Bundle, rangedCountStopsAtItsEndEvenWhenLoadersAddSlices) {
  BundlePtr bundle = bundleWith({1.0, 2.0, 3.0, 4.0, 6.0}, "g");
  struct AddsSlice : Slice::Loader {
    explicit AddsSlice(Bundle& bundle) : bundle(bundle) {}
    bool load(const WeakPtr<Slice>&) override {
      (*bundle[4.5])["g"];
      return true;
    }
    Bundle& bundle;
  };
  (*bundle)[3.0]->addLoader(StrongPtr<Slice::Loader>(new AddsSlice(*bundle)));
  EXPECT_EQ(bundle->NumberOfGrids(1.0, 4.0, "g", false), 4u);
  EXPECT_EQ(bundle->NumberOfGrids(4.0, 5.0, "g", false), 2u);
}

TEST(Bundle, emptyBundleFindsNothing) {
  BundlePtr bundle;
  bundle.create();
  EXPECT_FALSE(bundle->findFirst("g", false));
  EXPECT_FALSE(bundle->findLast("g", false));
  EXPECT_FALSE(bundle->findNext(0.0, "g"));
  EXPECT_FALSE(bundle->findPrev(0.0, "g"));
  EXPECT_FALSE(bundle->findMostRecentGrid(0.0, "g"));
  EXPECT_EQ(bundle->NumberOfGrids("g", false), 0u);
  EXPECT_EQ(bundle->NumberOfGrids(0.0, 1.0, "g", false), 0u);
}

TEST(Bundle, sliceDyingDuringAWalkIsSkipped) {
  BundlePtr bundle = bundleWith({1.0, 2.0, 3.0}, "g");
  // The walk holds each slice it visits; erasing a later one through the
  // handle table makes the walk pass it over.
  unsigned visits = bundle->iterate(
      "g",
      [&](double t, GridID&, Grid&) {
        if (t == 1.0) const_cast<Bundle::SliceTable&>(bundle->getSlices()).at(2.0).reset();
        return true;
      },
      false);
  EXPECT_EQ(visits, 2u);
}

// ---- evolution --------------------------------------------------------------------------------

struct Recorder : Quaril::EvolutionIterator<Grid> {
  std::vector<double> times;
  size_t stopAfter = 1000;
  bool apply(double time, GridID&, Grid&) override {
    times.push_back(time);
    return times.size() < stopAfter;
  }
};

TEST(Bundle, iterateCountsTheCallThatStops) {
  BundlePtr bundle = bundleWith({1.0, 2.0}, "g");
  Recorder once;
  once.stopAfter = 1;
  EXPECT_EQ(bundle->iterate("g", once, false), 1u);
  Recorder none;
  EXPECT_EQ(bundle->iterate("missing", none, false), 0u);
  EXPECT_TRUE(none.times.empty());
  StrongPtr<GridID> id = (*bundle)[1.0]->findGridID("g");
  EXPECT_EQ(bundle->iterate(
                id, [](double, const GridID&, Grid&) { return true; }, false),
            2u);
}

TEST(Bundle, iterateForwardStartsAtTheExactTimeAndReportsTheLastVisit) {
  BundlePtr bundle = bundleWith({1.0, 2.0, 3.0}, "g");
  Recorder all;
  double t = 2.0;
  EXPECT_EQ(bundle->iterateForward(t, "g", all, false), 2u);
  EXPECT_EQ(all.times, (std::vector<double>{2.0, 3.0}));
  EXPECT_EQ(t, 3.0);
  Recorder late;
  t = 3.5;
  EXPECT_EQ(bundle->iterateForward(t, "g", late, false), 0u);
}

TEST(Bundle, iterateBackwardNeedsASliceAfterTheTime) {
  BundlePtr bundle = bundleWith({1.0, 2.0, 3.0}, "g");
  Recorder atEnd;
  double t = 3.0;
  EXPECT_EQ(bundle->iterateBackward(t, "g", atEnd, false), 0u);
  EXPECT_EQ(t, 3.0);
  Recorder between;
  t = 2.5;
  EXPECT_EQ(bundle->iterateBackward(t, "g", between, false), 2u);
  EXPECT_EQ(between.times, (std::vector<double>{2.0, 1.0}));
  EXPECT_EQ(t, 1.0);
  Recorder before;
  t = 0.5;
  EXPECT_EQ(bundle->iterateBackward(t, "g", before, false), 0u);
}

TEST(Bundle, unloadedSlicesAreNeitherVisitedNorCounted) {
  BundlePtr bundle = bundleWith({1.0, 3.0}, "g");
  int runs = 0;
  (*bundle)[2.0]->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs, "g")));
  Recorder skipping;
  EXPECT_EQ(bundle->iterate("g", skipping, true), 2u);
  EXPECT_EQ(runs, 0);
  Recorder loading;
  EXPECT_EQ(bundle->iterate("g", loading, false), 3u);
  EXPECT_EQ(runs, 1);
}

TEST(Bundle, sliceWalkLoadsTheFirstSliceAndSetsTheTimeParameter) {
  struct Times : Quaril::EvolutionIterator<Slice> {
    std::vector<double> times;
    size_t sizes = 0;
    bool apply(Quaril::ParameterSet& parameters, Slice&) override {
      sizes = parameters.size();
      times.push_back(*parameters.find("time")->getDouble());
      return true;
    }
  };
  BundlePtr bundle;
  bundle.create();
  int runs = 0;
  (*bundle)[1.0]->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs)));
  (*bundle)[2.0]->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs)));
  Quaril::ParameterList parameters;
  parameters.push_back(StrongPtr<Quaril::Parameter>(new Quaril::Parameter("step", int64_t{3})));
  Times times;
  EXPECT_EQ(bundle->iterate(parameters, times), 2u);
  EXPECT_EQ(runs, 1) << "only the first slice is loaded";
  EXPECT_EQ(times.times, (std::vector<double>{1.0, 2.0}));
  EXPECT_EQ(times.sizes, 2u);
}

// ---- refinement levels
// ----------------------------------------------------------------------------

// A grid "g" at each time whose vertex skeletons carry the given factors.
BundlePtr refinedBundle(const std::vector<double>& times, const std::vector<int>& factors) {
  BundlePtr bundle;
  bundle.create();
  for (double t : times) {
    Grid* grid = (*(*bundle)[t])["g"];
    for (size_t i = 0; i < factors.size(); ++i) {
      grid->makeSkeleton(Quaril::SkeletonID(0, static_cast<int>(i)), 8, factors[i]);
    }
  }
  return bundle;
}

TEST(Bundle, refinementLevelsAskForPowersOfTwoModulo32) {
  BundlePtr bundle = refinedBundle({1.0, 2.0}, {1, 16});
  double t = 5.0;
  Quaril::Info<Grid> level0 = bundle->findPreviousRefinementLevel(t, "g", 0, nullptr, 0);
  ASSERT_TRUE(level0.skeleton);
  EXPECT_EQ(level0.skeleton->getIsotropicRefinementFactor(), 1);
  EXPECT_EQ(t, 2.0);
  t = 5.0;
  EXPECT_EQ(bundle->findPreviousRefinementLevel(t, "g", 4, nullptr, 0)
                .skeleton->getIsotropicRefinementFactor(),
            16);
  t = 5.0;
  EXPECT_EQ(bundle->findPreviousRefinementLevel(t, "g", 32, nullptr, 0)
                .skeleton->getIsotropicRefinementFactor(),
            1);
  t = 5.0;
  testing::internal::CaptureStdout();
  EXPECT_FALSE(bundle->findPreviousRefinementLevel(t, "g", 2, nullptr, 0).grid);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "two slices print nothing";
}

TEST(Bundle, singleSliceWithoutTheLevelPrintsOnce) {
  BundlePtr bundle = refinedBundle({1.0}, {1});
  double t = 1.0;
  testing::internal::CaptureStdout();
  Quaril::Info<Grid> missing = bundle->findPreviousRefinementLevel(t, "g", 3, nullptr, 0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "No level 3 found\n");
  EXPECT_FALSE(missing.grid);
  EXPECT_EQ(missing.time, 0.0);
  testing::internal::CaptureStdout();
  EXPECT_FALSE(bundle->findPreviousRefinementLevel(t, "other", 3, nullptr, 0).grid);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "") << "a missing grid prints nothing";
}

TEST(Bundle, previousLevelBeforeTheFirstSliceReportsItsTime) {
  BundlePtr bundle = refinedBundle({1.0, 2.0}, {1});
  double t = 0.5;
  Quaril::Info<Grid> result = bundle->findPreviousRefinementLevel(t, "g", 0, nullptr, 0);
  EXPECT_EQ(result.time, 1.0);
  EXPECT_FALSE(result.grid);
  EXPECT_EQ(t, 0.5);
}

TEST(Bundle, nextLevelFromTheLastSliceIsEmpty) {
  BundlePtr bundle = refinedBundle({1.0, 2.0}, {1, 2});
  auto position = std::prev(bundle->getSlices().end());
  EXPECT_FALSE(bundle->findNextRefinementLevel(position, "g", 1, 0).grid);
  EXPECT_EQ(position, bundle->getSlices().end());
  position = bundle->getSlices().begin();
  Quaril::Info<Grid> next = bundle->findNextRefinementLevel(position, "g", 1, 0);
  EXPECT_EQ(next.time, 2.0);
  EXPECT_EQ(position->first, 2.0);
}

TEST(Bundle, previousLevelHandsLaterFindsToTheIterator) {
  struct Collect : Quaril::EvolutionIterator<Quaril::Skeleton> {
    std::vector<double> times;
    bool apply(double time, Grid&, Quaril::Skeleton&) override {
      times.push_back(time);
      return true;
    }
  };
  BundlePtr bundle = refinedBundle({1.0, 2.0, 3.0}, {1, 2});
  double t = 1.5;
  Collect collect;
  Quaril::Info<Grid> result = bundle->findPreviousRefinementLevel(t, "g", 1, &collect, 0);
  EXPECT_EQ(result.time, 1.0);
  EXPECT_EQ(collect.times, (std::vector<double>{1.0, 2.0, 3.0}));
}

}  // namespace
}  // namespace QuarilTest

// ---- XML description -------------------------------------------------------------------------

namespace QuarilTest {
namespace {

TEST(BundleXml, emptyBundlesAndSlicesWriteNothing) {
  BundlePtr bundle;
  bundle.create();
  EXPECT_EQ(bundle->xml(), "");
  SlicePtr slice = (*bundle)[1.0];
  EXPECT_EQ(slice->xml(), "");
  slice->makeGridID("no grid yet");
  EXPECT_EQ(slice->xml(), "") << "an identity without a grid leaves no trace";
  EXPECT_EQ(bundle->xml(), " <SLICE>\n  <TIME>1</TIME>\n </SLICE>\n");
}

TEST(BundleXml, linesCarryExactBlanksAndUnescapedNames) {
  BundlePtr bundle;
  bundle.create();
  Grid* grid = (*(*bundle)[1.5])["a<b&c"];
  EXPECT_EQ(bundle->xml(), " <SLICE>\n  <TIME>1.5</TIME>\n   <GRID>\n    <ID>a<b&c</ID>\n" +
                               grid->xml() + "   </GRID>\n </SLICE>\n");
}

TEST(BundleXml, timesAreFormattedAsPercentLg) {
  const std::vector<std::pair<double, std::string>> cases = {
      {0.00001, "1e-05"}, {100000, "100000"},       {1000000, "1e+06"}, {-2.5, "-2.5"},
      {0, "0"},           {1234567, "1.23457e+06"}, {0.5, "0.5"}};
  for (const auto& [time, text] : cases) {
    BundlePtr bundle;
    bundle.create();
    (*bundle)[time];
    EXPECT_EQ(bundle->xml(), " <SLICE>\n  <TIME>" + text + "</TIME>\n </SLICE>\n") << text;
  }
}

TEST(BundleXml, deadSlicesAreLeftOutWhileNeighboursStay) {
  BundlePtr bundle;
  bundle.create();
  (*bundle)[1.0];
  (*bundle)[2.0];
  (*bundle)[3.0];
  const_cast<Bundle::SliceTable&>(bundle->getSlices()).at(2.0).reset();
  EXPECT_EQ(bundle->xml(),
            " <SLICE>\n  <TIME>1</TIME>\n </SLICE>\n <SLICE>\n  <TIME>3</TIME>\n </SLICE>\n");
}

TEST(BundleXml, describingLoadsNothing) {
  BundlePtr bundle;
  bundle.create();
  int runs = 0;
  (*bundle)[1.0]->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs, "g")));
  bundle->xml();
  EXPECT_EQ(runs, 0);
}

}  // namespace
}  // namespace QuarilTest
