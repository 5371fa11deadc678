#include "bundle/BundleProperty.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <stdexcept>

#include "BundleFixture.hpp"
#include "bundle/GridSelector.hpp"
#include "grid/GridConstructors.hpp"
#include "ostrak/Diagnostics.hpp"

namespace QuarilTest {
namespace {

using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;
using Quaril::SkeletonID;

// ---- mesh kinds ---------------------------------------------------------------------------

// Positions made by hand: a vertex skeleton whose Cartesian representation
// holds "Positions" with the given creators (fragment name "" = unfragmented).
void handMadePositions(
    Grid& grid, const std::map<std::string, StrongPtr<Quaril::CreativeArrayBase>>& creators) {
  StrongPtr<Quaril::Skeleton> vertices = grid.makeSkeleton(SkeletonID(0, 0), 8);
  StrongPtr<Quaril::Representation> representation = grid.makeCartesianRepresentation(vertices, "");
  StrongPtr<Quaril::Field> positions = Quaril::Field::create<point>();
  for (const auto& [name, creator] : creators) {
    StrongPtr<Quaril::FragmentID> fragment;
    if (!name.empty()) fragment = StrongPtr<Quaril::FragmentID>(new Quaril::FragmentID(name));
    positions->setCreator(creator, fragment);
  }
  representation->setField(Grid::PositionsName, positions);
}

StrongPtr<Quaril::MemBase, Quaril::Cacheable> uniformBlock() {
  return StrongPtr<Quaril::MemBase, Quaril::Cacheable>(
      new Quaril::UniformCartesianArray(point{0, 0, 0}, tvector{1, 1, 1}, {2, 2, 2}));
}

const std::vector<point> kCube = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0},
                                  {0, 0, 1}, {1, 0, 1}, {0, 1, 1}, {1, 1, 1}};

const std::map<std::string, std::function<void(Grid&)>>& meshKinds() {
  static const std::map<std::string, std::function<void(Grid&)>> kinds = {
      {"empty", [](Grid&) {}},
      {"uniform",
       [](Grid& grid) {
         Quaril::makeUniformGrid(grid, {3, 3, 3}, {0, 0, 0}, {1, 1, 1});
       }},
      {"twoBlocks",
       [](Grid& grid) {
         Quaril::makeFragmentedUniformGrid(grid, {{"a", {2, 2, 2}, {0, 0, 0}, {1, 1, 1}},
                                                  {"b", {2, 2, 2}, {1, 0, 0}, {1, 1, 1}}});
       }},
      {"oneNamedBlock",
       [](Grid& grid) {
         Quaril::makeFragmentedUniformGrid(grid, {{"a", {2, 2, 2}, {0, 0, 0}, {1, 1, 1}}});
       }},
      {"curvilinear",
       [](Grid& grid) {
         Quaril::makeCurvilinearGrid(grid, {2, 2, 2}, kCube);
       }},
      {"pointCloud", [](Grid& grid) { Quaril::makePointCloud(grid, kCube); }},
      {"triangles",
       [](Grid& grid) {
         Quaril::makeTriangleSurface(grid, kCube, {{0, 1, 2}, {1, 2, 3}});
       }},
      {"noFragments", [](Grid& grid) { handMadePositions(grid, {}); }},
      {"unproducible",
       [](Grid& grid) {
         handMadePositions(
             grid, {{"", StrongPtr<Quaril::CreativeArrayBase>(
                             new Quaril::DeferredCreator(Quaril::QuarilTypeBase::getType<point>(),
                                                         Quaril::DynamicSize(), nullptr))}});
       }},
      {"deferredUniform",
       [](Grid& grid) {
         handMadePositions(
             grid, {{"", StrongPtr<Quaril::CreativeArrayBase>(
                             new Quaril::DeferredCreator(Quaril::QuarilTypeBase::getType<point>(),
                                                         Quaril::DynamicSize(), uniformBlock))}});
       }},
  };
  return kinds;
}

BundlePtr bundleOf(const std::string& kind) {
  BundlePtr bundle;
  bundle.create();
  meshKinds().at(kind)(*(*(*bundle)[0.0])["g"]);
  return bundle;
}

struct Expectation {
  const char* kind;
  bool uniform, fragmentedUniform, curvilinear, explicitCoordinates, cartesian, vertices, triangles;
};

TEST(BundleProperty, everyCheckerAgainstEveryMeshKind) {
  const std::vector<Expectation> table = {
      // kind             uni    fragU  curv   expl   cart   (0,0)  (2,0)
      {"empty", false, false, false, false, false, false, false},
      {"uniform", true, true, false, false, true, true, false},
      {"twoBlocks", false, true, false, false, true, true, false},
      {"oneNamedBlock", true, true, false, false, true, true, false},
      {"curvilinear", false, false, true, true, true, true, false},
      {"pointCloud", false, false, false, true, true, true, false},
      {"triangles", false, false, false, true, true, true, true},
      {"noFragments", false, true, false, false, true, true, false},
      {"unproducible", false, false, false, false, true, true, false},
      {"deferredUniform", true, true, false, false, true, true, false},
  };
  ASSERT_EQ(table.size(), meshKinds().size());
  for (const Expectation& row : table) {
    BundlePtr bundle = bundleOf(row.kind);
    EXPECT_EQ(hasProperty(bundle, Quaril::isUniformCartesianGrid()), row.uniform) << row.kind;
    EXPECT_EQ(hasProperty(bundle, Quaril::isFragmentedUniformCartesianGrid()),
              row.fragmentedUniform)
        << row.kind;
    EXPECT_EQ(hasProperty(bundle, Quaril::isCurvilinearGrid()), row.curvilinear) << row.kind;
    EXPECT_EQ(hasProperty(bundle, Quaril::hasExplicitCartesianCoordinates()),
              row.explicitCoordinates)
        << row.kind;
    EXPECT_EQ(hasProperty(bundle, Quaril::hasCartesianCoordinates()), row.cartesian) << row.kind;
    EXPECT_EQ(hasProperty(bundle, Quaril::SkeletonExistence(SkeletonID(0, 0))), row.vertices)
        << row.kind;
    EXPECT_EQ(hasProperty(bundle, Quaril::SkeletonExistence(SkeletonID(2, 0))), row.triangles)
        << row.kind;
  }
}

TEST(BundleProperty, anythingNeedsASlice) {
  BundlePtr bundle;
  bundle.create();
  EXPECT_FALSE(hasProperty(bundle, Quaril::BundleProperty::Anything()));
  (*bundle)[0.0];
  EXPECT_TRUE(hasProperty(bundle, Quaril::BundleProperty::Anything()));
  EXPECT_FALSE(hasProperty(BundlePtr(), Quaril::BundleProperty::Anything()));
}

TEST(BundleProperty, pendingSlicesAfterTheFirstAreNeverExamined) {
  BundlePtr bundle = bundleOf("empty");
  int runs = 0;
  struct UniformLoader : Slice::Loader {
    explicit UniformLoader(int& runs) : runs(runs) {}
    bool load(const WeakPtr<Slice>& slice) override {
      ++runs;
      Quaril::makeUniformGrid(*(*slice.get())["g"], {2, 2, 2}, {0, 0, 0}, {1, 1, 1});
      return true;
    }
    int& runs;
  };
  (*bundle)[1.0]->addLoader(StrongPtr<Slice::Loader>(new UniformLoader(runs)));
  EXPECT_FALSE(hasProperty(bundle, Quaril::isUniformCartesianGrid()));
  EXPECT_EQ(runs, 0);

  // A pending first slice is loaded by the walk and then examined.
  BundlePtr pendingFirst;
  pendingFirst.create();
  (*pendingFirst)[0.0]->addLoader(StrongPtr<Slice::Loader>(new UniformLoader(runs)));
  EXPECT_TRUE(hasProperty(pendingFirst, Quaril::isUniformCartesianGrid()));
  EXPECT_EQ(runs, 1);
}

TEST(BundleProperty, gridNameNarrowsTheQuestion) {
  BundlePtr bundle = bundleOf("uniform");
  meshKinds().at("curvilinear")(*(*(*bundle)[0.0])["h"]);
  SlicePtr slice = (*bundle)[0.0];
  Quaril::isUniformCartesianGrid uniform;
  EXPECT_TRUE(uniform.checkSlice(*slice, ""));
  EXPECT_TRUE(uniform.checkSlice(*slice, "g"));
  EXPECT_FALSE(uniform.checkSlice(*slice, "h"));
  EXPECT_FALSE(uniform.checkSlice(*slice, "missing"));

  Quaril::GridSelector selector;
  selector.bundle = bundle;
  selector.gridname = "h";
  EXPECT_FALSE(hasProperty(selector, uniform));
  EXPECT_TRUE(hasProperty(selector, Quaril::isCurvilinearGrid()));
  selector.bundle = BundlePtr();
  EXPECT_FALSE(hasProperty(selector, Quaril::isCurvilinearGrid()));
}

TEST(BundleProperty, sourceMarkerIsRestoredOnEveryExit) {
  struct Throwing : Quaril::GridProperty {
    bool checkGrid(const Grid&) const override {
      seen = Ostrak::getLastKnownSourceCodeLine();
      throw std::runtime_error("checker failed");
    }
    mutable std::string seen;
  };
  Ostrak::setLastKnownSourceCodeLine("caller.cpp:1");
  BundlePtr bundle = bundleOf("uniform");
  EXPECT_TRUE(hasProperty(bundle, Quaril::isUniformCartesianGrid()));
  EXPECT_STREQ(Ostrak::getLastKnownSourceCodeLine(), "caller.cpp:1");

  Throwing throwing;
  EXPECT_THROW(hasProperty(bundle, throwing), std::runtime_error);
  EXPECT_EQ(throwing.seen, "bundle/BundleProperty.cpp:27");
  EXPECT_STREQ(Ostrak::getLastKnownSourceCodeLine(), "caller.cpp:1");
}

}  // namespace
}  // namespace QuarilTest
