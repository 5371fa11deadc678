#include "bundle/BundleProperty.hpp"

#include <gtest/gtest.h>

#include "BundleFixture.hpp"

namespace Quaril::Testing {
namespace {

// Positions made by hand: a vertex skeleton whose Cartesian representation
// holds "Positions" with the given creator, or with no fragment at all.
void handMadePositions(Grid& grid, DeferredCreator::Producer producer, bool withCreator = true) {
  StrongPtr<Field> positions = Field::create<point>();
  if (withCreator)
    positions->setCreator(StrongPtr<CreativeArrayBase>(
        new DeferredCreator(QuarilTypeBase::getType<point>(), DynamicSize(), std::move(producer))));
  grid.makeCartesianRepresentation(grid.makeSkeleton(SkeletonID(0, 0), 8), "")
      ->setField(Grid::PositionsName, positions);
}

TEST(BundleProperty, everyCheckerAgainstEveryMeshKind) {
  const std::vector<point> cube = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0},
                                   {0, 0, 1}, {1, 0, 1}, {0, 1, 1}, {1, 1, 1}};
  auto block = [](const char* name, double x) {
    return UniformBlock{name, {2, 2, 2}, {x, 0, 0}, {1, 1, 1}};
  };
  auto uniform = [] {
    return StrongPtr<MemBase, Cacheable>(new UniformCartesianArray({}, {1, 1, 1}, {2, 2, 2}));
  };
  isUniformCartesianGrid uni;
  isFragmentedUniformCartesianGrid fragmented;
  isCurvilinearGrid curvilinear;
  hasExplicitCartesianCoordinates explicitly;
  hasCartesianCoordinates cartesian;
  SkeletonExistence vertices(SkeletonID(0, 0)), triangles(SkeletonID(2, 0));
  const std::vector<std::pair<const GridProperty*, const char*>> checkers = {
      {&uni, "uniform"},         {&fragmented, "fragmented uniform"}, {&curvilinear, "curvilinear"},
      {&explicitly, "explicit"}, {&cartesian, "Cartesian"},           {&vertices, "vertices"},
      {&triangles, "triangles"}};
  BundlePtr bundle;
  bundle.create();
  gridIn(bundle, 0, "empty");
  makeUniformGrid(gridIn(bundle, 0, "uniform"), {3, 3, 3}, {}, {1, 1, 1});
  makeFragmentedUniformGrid(gridIn(bundle, 0, "two blocks"), {block("a", 0), block("b", 1)});
  makeFragmentedUniformGrid(gridIn(bundle, 0, "one named block"), {block("a", 0)});
  makeCurvilinearGrid(gridIn(bundle, 0, "curvilinear"), {2, 2, 2}, cube);
  makePointCloud(gridIn(bundle, 0, "point cloud"), cube);
  makeTriangleSurface(gridIn(bundle, 0, "triangles"), cube, {{0, 1, 2}});
  handMadePositions(gridIn(bundle, 0, "no fragments"), nullptr, false);
  handMadePositions(gridIn(bundle, 0, "unproducible"), nullptr);
  handMadePositions(gridIn(bundle, 0, "deferred uniform"), uniform);
  // kind, then the answer of each checker in their order
  const std::vector<std::pair<const char*, const char*>> kinds = {
      {"empty", "0000000"},           {"uniform", "1100110"},      {"two blocks", "0100110"},
      {"one named block", "1100110"}, {"curvilinear", "0011110"},  {"point cloud", "0001110"},
      {"triangles", "0001111"},       {"no fragments", "0100110"}, {"unproducible", "0000110"},
      {"deferred uniform", "1100110"}};
  for (const auto& [kind, answers] : kinds) {
    for (size_t i = 0; i < checkers.size(); ++i) {
      EXPECT_EQ(hasProperty(GridSelector(bundle, kind), *checkers[i].first), answers[i] == '1')
          << kind << " " << checkers[i].second;
    }
  }
}

TEST(BundleProperty, bundleQuestionsAskAnyGridAndNeedALiveBundleAndASlice) {
  BundlePtr sample = makeSampleBundle();
  SlicePtr slice = (*sample)[1.0];
  isUniformCartesianGrid uniform;
  EXPECT_TRUE(uniform.checkSlice(*slice, "") && uniform.checkSlice(*slice, "uniform"));
  EXPECT_FALSE(uniform.checkSlice(*slice, "points") || uniform.checkSlice(*slice, "missing"));
  EXPECT_TRUE(hasProperty(sample, isCurvilinearGrid()));
  EXPECT_FALSE(hasProperty(GridSelector(BundlePtr(), "uniform"), uniform));

  BundlePtr bundle;
  bundle.create();
  EXPECT_FALSE(hasProperty(bundle, BundleProperty::Anything()));
  (*bundle)[0.0];
  EXPECT_TRUE(hasProperty(bundle, BundleProperty::Anything()));
  EXPECT_FALSE(hasProperty(BundlePtr(), BundleProperty::Anything()));
}

TEST(BundleProperty, onlyTheFirstOfThePendingSlicesIsLoadedAndExamined) {
  struct UniformLoader : Slice::Loader {
    explicit UniformLoader(int& runs) : runs(runs) {}
    bool load(const WeakPtr<Slice>& slice) override {
      ++runs;
      makeUniformGrid(*(*slice.get())["g"], {2, 2, 2}, {0, 0, 0}, {1, 1, 1});
      return true;
    }
    int& runs;
  };
  int runs = 0;
  for (double first : {1.0, 0.0}) {  // the pending slice comes second, then first
    BundlePtr bundle = bundleWith({0.5}, "g");
    (*bundle)[first]->addLoader(StrongPtr<Slice::Loader>(new UniformLoader(runs)));
    EXPECT_EQ(hasProperty(bundle, isUniformCartesianGrid()), first == 0.0);
    EXPECT_EQ(runs, first == 0.0 ? 1 : 0);
  }
}

}  // namespace
}  // namespace Quaril::Testing
