#include "bundle/Bundle.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

#include "BundleFixture.hpp"

namespace Quaril::Testing {
namespace {

const double kNaN = std::numeric_limits<double>::quiet_NaN();

bool sameTime(double a, double b) {
  return a == b || (std::isnan(a) && std::isnan(b));
}

TEST(Bundle, handleCreatesOneBundleAndAttachesSaversOnce) {
  SaverRegistration savers;
  BundlePtr handle;
  Bundle* bundle = handle.create();
  BundlePtr copy = handle;
  EXPECT_EQ(copy.create(), bundle);
  BundlePtr again(handle.get());  // a raw-pointer handle on a bundle that had one
  EXPECT_EQ(savers.log->created, 1);
  EXPECT_FALSE(Bundle().findInterface(typeid(SaverRegistration::Saver)));
}

TEST(Bundle, storageSyncsOnRequestForOwnedItemsAndOnceAtTheEndBeforeTheSlicesGo) {
  int syncs = 0, runs = 0;
  WeakPtr<Slice> slice;
  StrongPtr<GridID> id;
  {
    BundlePtr bundle = bundleWith({1.0, 2.0}, "g");
    EXPECT_EQ(bundle->sync(), 0);
    Ostrak::Intercube target, source;
    EXPECT_TRUE(bundle->processOwnership(target, source));  // nothing to take over
    using Item = Ostrak::SaveItem<StrongPtr<MemBase, Cacheable>>;
    source.addInterface(StrongPtr<Ostrak::InterfaceBase>(new Item()));
    EXPECT_FALSE(bundle->processOwnership(target, source));  // no binding
    bundle->setStorage(StrongPtr<StorageBinding>(new CountingStorage(syncs)));
    EXPECT_TRUE(bundle->processOwnership(target, source));
    EXPECT_EQ(bundle->sync(), 2);
    addRecordingLoader((*bundle)[3.0], runs);
    slice = (*bundle)[1.0];
    id = (*bundle)[1.0]->findGridID("g");
  }
  EXPECT_EQ(syncs, 3);
  EXPECT_EQ(runs, 0) << "a bound slice loads at its end unless the binding went first";
  double t = 5.0;  // an identity held elsewhere outlives its bundle, not its slices
  EXPECT_FALSE(slice.valid() || id->prev(t).valid());

  {  // without a strong handle: no last rites, and still the binding goes first
    Bundle onStack;
    onStack.setStorage(StrongPtr<StorageBinding>(new CountingStorage(syncs)));
    addRecordingLoader(onStack[2.0], runs);
    slice = onStack[1.0];
  }
  EXPECT_TRUE(syncs == 3 && runs == 0);
  EXPECT_FALSE(slice.valid());
}

TEST(Bundle, trackedChangesListEachChangedSliceOnceAndReadsNothing) {
  BundlePtr bundle = bundleWith({1.0, 2.0, 3.0}, "g");
  makePointCloud(gridIn(bundle, 1, "g"), {{0, 0, 0}});
  EXPECT_TRUE(bundle->takeChangedSlices().empty()) << "nothing before tracking starts";
  bundle->trackSliceChanges();
  StrongPtr<Grid> shared = (*(*bundle)[2.0])("g");
  (*bundle)[3.0]->insert("shared", shared);
  bundle->takeChangedSlices();
  StrongPtr<Field> positions = gridIn(bundle, 1, "g").CartesianPositions();
  struct Change {
    const char* what;
    std::function<void()> make;
    std::vector<double> listed;
  };
  const std::vector<Change> changes{
      {"reading",
       [&] {
         double t = 2.0;
         (*bundle)(t)->xml();
         (*(*bundle)[1.0])("g")->CartesianPositions()->getData();
       },
       {}},
      {"a new slice and a grid in an old one",
       [&] {
         (*bundle)[0.5];
         (*(*bundle)[3.0])["h"];
       },
       {0.5, 3.0}},
      {"a grid held by two slices gets a skeleton",
       [&] {
         makePointCloud(*shared, {{1, 1, 1}});
       },
       {2.0, 3.0}},
      {"a field on a held skeleton, a fragment of a held field",
       [&] {
         addVertexField(*shared, "mass", std::vector<double>{1});
         positions->setCreator(StrongPtr<CreativeArrayBase>(
                                   new MemCreator(MemArray<1, point>::create(DynamicSize{1}))),
                               StrongPtr<FragmentID>(new FragmentID("b")));
       },
       {1.0, 2.0, 3.0}},
      {"attributes of a grid and of a slice set",
       [&] {
         gridIn(bundle, 1, "g").setAttribute("a", int64_t{1});
         (*bundle)[0.5]->setAttribute("b", 2.0);
       },
       {0.5, 1.0}},
      {"a grid attribute removed", [&] { gridIn(bundle, 1, "g").removeAttribute("a"); }, {1.0}},
      {"removing an attribute that is not there",
       [&] { (*bundle)[0.5]->removeAttribute("c"); },
       {}},
  };
  for (const Change& change : changes) {
    change.make();
    EXPECT_EQ(bundle->takeChangedSlices(), change.listed) << change.what;
  }
}

TEST(Bundle, exactLookUpNeverCreatesAndNaNMatchesNothing) {
  BundlePtr bundle = bundleWith({1.0}, "g");
  SlicePtr a = (*bundle)[1.0];
  EXPECT_NE((*bundle)[std::nextafter(1.0, 2.0)], a);
  EXPECT_FALSE((*bundle)[kNaN]);
  for (double t : {1.5, kNaN}) EXPECT_FALSE((*bundle)(t) || bundle->getUniqueGrid(t).second);
  EXPECT_EQ(bundle->getSlices().size(), 2u);
  double exact = 1.0;
  EXPECT_EQ((*bundle)(exact), a);
  EXPECT_EQ(bundle->getUniqueGrid(1.0).second, (*a)("g"));
}

TEST(Bundle, findPrevIsExactOnlyAtTheFirstSliceFindNextIsAlwaysEmptyAndTheRangeIsFixed) {
  BundlePtr bundle = bundleWith({1.0, 2.0, 3.0}, "g");
  struct Case {
    double asked, found, after;  // found NaN: no slice
  };
  for (Case c : {Case{0.5, kNaN, 1.0}, {1.0, 1.0, 1.0}, {3.0, 2.0, 2.0}, {9.0, 3.0, 3.0}}) {
    double t = c.asked;
    EXPECT_EQ(bundle->findPrev(t), std::isnan(c.found) ? SlicePtr() : (*bundle)[c.found])
        << c.asked;
    EXPECT_EQ(t, c.after) << c.asked;
  }
  double next = 1.0;
  EXPECT_FALSE(bundle->findNext(next));
  EXPECT_EQ(next, 1.0);
  EXPECT_TRUE(bundle->minTime() == 1.0 && bundle->maxTime() == 3.0);
  EXPECT_EQ(bundle->getTimeRange("g", true), (std::pair(0.0, 1.0)));

  BundlePtr empty;
  empty.create();
  EXPECT_FALSE(empty->findPrev(next) || empty->firstSlice().second);
  EXPECT_EQ(empty->minTime() + empty->maxTime(), 0.0);
  EXPECT_EQ(empty->getTimeRange("", false), (std::pair(0.0, 1.0)));
}

TEST(Bundle, gridSearchesFindNextGivesUpAfterTheFirstSliceFindPrevBeforeTheLast) {
  BundlePtr bundle = bundleWith({2.0, 3.0}, "g");
  (*bundle)[1.0];
  for (double t : {0.0, 4.0, kNaN}) EXPECT_FALSE(bundle->findNext(t, "g")) << t;
  EXPECT_EQ(bundle->findNext(2.0, "g").time, 2.0);
  EXPECT_EQ(bundle->findNext(2.5, "g").time, 3.0);
  BundlePtr gap = bundleWith({1.0, 3.0}, "g");
  (*gap)[2.0];
  (*gap)[4.0];
  EXPECT_EQ(gap->findNext(1.5, "g").time, 3.0);
  EXPECT_FALSE(gap->findNext(3.5, "g")) << "the walk must end at the end of the map";

  for (double t : {4.0, 5.0, 0.5, kNaN}) EXPECT_FALSE(gap->findPrev(t, "g")) << t;
  EXPECT_EQ(gap->findPrev(3.0, "g").time, 3.0);
  EXPECT_EQ(gap->findPrev(2.5, "g").time, 1.0);
  EXPECT_EQ(gap->findPrev(1.5, (*gap)[1.0]->findGridID("g")).time, 1.0);
  EXPECT_FALSE(gap->findPrev(1.5, StrongPtr<GridID>()));

  BundlePtr empty;
  empty.create();
  EXPECT_FALSE(empty->findFirst("g", false) || empty->findLast("g", false) ||
               empty->findNext(0.0, "g") || empty->findPrev(0.0, "g"));
}

TEST(Bundle, unloadedSlicesAreSkippedOnlyWhenAsked) {
  BundlePtr bundle = bundleWith({1.0, 3.0}, "g");
  int runs = 0;
  addRecordingLoader((*bundle)[2.0], runs, "late");
  addRecordingLoader((*bundle)[2.5], runs, "g");
  auto any = [](double, GridID&, Grid&) { return true; };
  EXPECT_FALSE(bundle->findFirst("late", true));
  EXPECT_EQ(bundle->NumberOfGrids("late", true), 0u);
  EXPECT_EQ(bundle->iterate("g", any, true), 2u);
  EXPECT_EQ(runs, 0);
  EXPECT_EQ(bundle->findFirst("late", false).time, 2.0);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(bundle->findLast("late", true).time, 2.0);
  EXPECT_EQ(bundle->iterate("g", any, false), 3u);
  EXPECT_EQ(runs, 2);
}

TEST(Bundle, mostRecentGridFollowsTheIdentityAndKeepsTheTimeWhenNothingIsFound) {
  BundlePtr bundle = bundleWith({1.0, 4.0}, "g");
  (*bundle)[2.0];
  Info<Grid> found = bundle->findMostRecentGrid(3.0, "g");
  EXPECT_EQ(found.time, 1.0);
  EXPECT_EQ(found.grid, (*(*bundle)[1.0])("g"));
  EXPECT_EQ(found.slice, (*bundle)[1.0]);
  Info<Grid> before = bundle->findPreviousGrid(0.5, "g");
  EXPECT_FALSE(before || before.slice);
  EXPECT_EQ(before.time, 0.5);
  EXPECT_FALSE(bundle->findMostRecentGrid(3.0, "unknown"));
  // An identity of another bundle is mapped to this bundle's own.
  StrongPtr<GridID> foreign = (*bundleWith({0.0}, "g"))[0.0]->findGridID("g");
  EXPECT_EQ(bundle->findMostRecentGrid(5.0, foreign).time, 4.0);
  EXPECT_FALSE(bundle->findMostRecentGrid(5.0, StrongPtr<GridID>()));
}

TEST(Bundle, rangedCountsIncludeBothEndsInEitherOrderAndStopAtTheEnd) {
  BundlePtr bundle = bundleWith({1.0, 2.0, 3.0, 4.0, 5.0, 6.0}, "g");
  (*bundle)[2.5];
  struct AddsSlice : Slice::Loader {  // adds a slice inside the range while it is counted
    explicit AddsSlice(Bundle& bundle) : bundle(bundle) {}
    bool load(const WeakPtr<Slice>&) override {
      (*bundle[4.5])["g"];
      return true;
    }
    Bundle& bundle;
  };
  (*bundle)[3.0]->addLoader(StrongPtr<Slice::Loader>(new AddsSlice(*bundle)));
  EXPECT_EQ(bundle->NumberOfGrids(1.0, 4.0, "g", false), 4u);
  EXPECT_EQ(bundle->NumberOfGrids(5.0, 4.0, "g", false), 3u);
  EXPECT_EQ(bundle->getNrSlicesOfGridInTimeRange(5.0, 1.0, "g", false), 6u);
  EXPECT_EQ(bundle->NumberOfGrids("g", false), 7u);
  EXPECT_EQ(bundle->NumberOfGrids(kNaN, 1.0, "g", false), 0u);
}

struct Recorder : EvolutionIterator<Grid> {
  std::vector<double> times;
  size_t stopAfter = 1000;
  bool apply(double time, GridID&, Grid&) override {
    times.push_back(time);
    return times.size() < stopAfter;
  }
};

TEST(Bundle, walksCountTheCallThatStopsAndStartWhereTheyShould) {
  BundlePtr bundle = bundleWith({1.0, 2.0, 3.0}, "g");
  struct Case {
    int direction;  // 0: all, 1: forward, -1: backward
    double from;
    size_t stopAfter;
    std::vector<double> visited;
    double after;
  };
  const std::vector<Case> cases = {
      {0, kNaN, 1, {1.0}, kNaN},    {0, kNaN, 9, {1.0, 2.0, 3.0}, kNaN},
      {1, 2.0, 9, {2.0, 3.0}, 3.0}, {1, 3.5, 9, {}, 3.5},
      {1, kNaN, 9, {}, kNaN},       {-1, 2.5, 9, {2.0, 1.0}, 1.0},
      {-1, 3.0, 9, {}, 3.0},        {-1, 0.5, 9, {}, 0.5},
  };
  for (const Case& c : cases) {
    Recorder recorder;
    recorder.stopAfter = c.stopAfter;
    double t = c.from;
    unsigned visits = c.direction == 0  ? bundle->iterate("g", recorder, false)
                      : c.direction > 0 ? bundle->iterateForward(t, "g", recorder, false)
                                        : bundle->iterateBackward(t, "g", recorder, false);
    EXPECT_EQ(visits, c.visited.size()) << c.direction << " from " << c.from;
    EXPECT_EQ(recorder.times, c.visited) << c.direction << " from " << c.from;
    EXPECT_TRUE(sameTime(t, c.after)) << c.direction << " from " << c.from;
  }
  StrongPtr<GridID> id = (*bundle)[1.0]->findGridID("g");
  EXPECT_EQ(bundle->iterate(
                id, [](double, const GridID&, Grid&) { return true; }, false),
            3u);
  // The walk holds each slice it visits; one dropped from the table later is passed over.
  auto dropLater = [&](double t, GridID&, Grid&) {
    if (t == 1.0) const_cast<Bundle::SliceTable&>(bundle->getSlices()).at(2.0).reset();
    return true;
  };
  EXPECT_EQ(bundle->iterate("g", dropLater, false), 2u);
}

// A grid "g" at each time whose vertex skeletons carry the given factors.
BundlePtr refinedBundle(const std::vector<double>& times, const std::vector<int>& factors) {
  BundlePtr bundle;
  bundle.create();
  for (double t : times)
    for (size_t i = 0; i < factors.size(); ++i)
      gridIn(bundle, t, "g").makeSkeleton(SkeletonID(0, static_cast<int>(i)), 8, factors[i]);
  return bundle;
}

TEST(Bundle, refinementLevelsAskForPowersOfTwoModulo32AndLaterFindsGoToTheIterator) {
  BundlePtr bundle = refinedBundle({1.0, 2.0}, {1, 16});
  for (auto [level, factor] : {std::pair{0, 1}, {4, 16}, {32, 1}, {36, 16}}) {
    double t = 5.0;
    Info<Grid> found = bundle->findPreviousRefinementLevel(t, "g", level, nullptr, 0);
    ASSERT_TRUE(found.skeleton) << level;
    EXPECT_EQ(found.skeleton->getIsotropicRefinementFactor(), factor) << level;
    EXPECT_EQ(t, 2.0);
  }
  double t = 0.5;  // before the first slice: its time is reported, `t` is kept
  Info<Grid> early = bundle->findPreviousRefinementLevel(t, "g", 0, nullptr, 0);
  EXPECT_FALSE(early.grid);
  EXPECT_TRUE(early.time == 1.0 && t == 0.5);

  struct Collect : EvolutionIterator<Skeleton> {
    std::vector<double> times;
    bool apply(double time, Grid&, Skeleton&) override {
      times.push_back(time);
      return true;
    }
  } collect;
  (*(*bundle)[3.0])["g"]->makeSkeleton(SkeletonID(0, 0), 8, 16);
  t = 1.5;
  EXPECT_EQ(bundle->findPreviousRefinementLevel(t, "g", 4, &collect, 0).time, 1.0);
  EXPECT_EQ(collect.times, (std::vector<double>{1.0, 2.0, 3.0}));
  auto last = std::prev(bundle->getSlices().end());
  EXPECT_FALSE(bundle->findNextRefinementLevel(last, "g", 4, 0).grid);
  EXPECT_EQ(last, bundle->getSlices().end());
}

TEST(Bundle, singleSliceWithoutTheLevelPrintsNoLevelFound) {
  struct Case {
    std::vector<double> times;
    const char* grid;
    std::string printed;
  };
  for (const Case& c :
       {Case{{1.0}, "g", "No level 3 found\n"}, {{1.0}, "other", ""}, {{1.0, 2.0}, "g", ""}}) {
    BundlePtr bundle = refinedBundle(c.times, {1});
    double t = 1.0;
    testing::internal::CaptureStdout();
    Info<Grid> missing = bundle->findPreviousRefinementLevel(t, c.grid, 3, nullptr, 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), c.printed) << c.times.size() << c.grid;
    EXPECT_FALSE(missing.grid || missing.time);
  }
}

TEST(BundleXml, timesAsPercentLgNamesUnescapedAndDeadSlicesLeftOutWithoutLoading) {
  const std::vector<std::pair<double, std::string>> cases = {
      {0.00001, "1e-05"}, {100000, "100000"},       {1000000, "1e+06"}, {-2.5, "-2.5"},
      {0, "0"},           {1234567, "1.23457e+06"}, {0.5, "0.5"}};
  for (const auto& [time, text] : cases) {
    BundlePtr bundle;
    bundle.create();
    (*bundle)[time];
    EXPECT_EQ(bundle->xml(), " <SLICE>\n  <TIME>" + text + "</TIME>\n </SLICE>\n") << text;
  }
  BundlePtr bundle;
  bundle.create();
  EXPECT_EQ(bundle->xml(), "");
  for (double t : {1.0, 2.0, 3.0}) (*bundle)[t]->makeGridID("no grid yet");
  const_cast<Bundle::SliceTable&>(bundle->getSlices()).at(2.0).reset();
  int runs = 0;
  addRecordingLoader((*bundle)[1.0], runs, "g");
  Grid* grid = (*(*bundle)[3.0])["a<b&c"];
  EXPECT_EQ(bundle->xml(), " <SLICE>\n  <TIME>1</TIME>\n </SLICE>\n <SLICE>\n  <TIME>3</TIME>\n" +
                               ("   <GRID>\n    <ID>a<b&c</ID>\n" + grid->xml()) +
                               "   </GRID>\n </SLICE>\n");
  EXPECT_EQ(runs, 0);
}

}  // namespace
}  // namespace Quaril::Testing
