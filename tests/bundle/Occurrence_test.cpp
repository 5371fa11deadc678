#include "bundle/Occurrence.hpp"

#include <gtest/gtest.h>

#include "BundleFixture.hpp"

namespace Quaril::Testing {
namespace {

// The owner chain of the sample's "uniform" positions at time 1: creator,
// field, representation, skeleton, grid, slice, bundle.
struct Chain {
  BundlePtr bundle = makeSampleBundle();
  SlicePtr slice = (*bundle)[1.0];
  StrongPtr<Grid> grid = (*slice)("uniform");
  StrongPtr<Skeleton> skeleton = grid->getSkeleton(SkeletonID(0, 0));
  StrongPtr<Representation> representation = grid->getCartesianRepresentation("");
  StrongPtr<Field> field = grid->CartesianPositions();
  StrongPtr<CreativeArrayBase> creator = field->getCreator(StrongPtr<FragmentID>());
};

TEST(Occurrence, ownerChainLeadsFromDataToItsBundleAndBreaksAtAnyMissingLink) {
  Chain chain;
  EXPECT_EQ(getPrimaryOwner(*chain.creator), chain.field);
  EXPECT_EQ(getPrimaryOwner(*chain.field), chain.representation);
  EXPECT_EQ(getPrimaryOwner(*chain.representation), chain.skeleton);
  EXPECT_EQ(getPrimaryOwner(*chain.skeleton), chain.grid);
  EXPECT_EQ(getPrimaryOwner(*chain.grid), chain.slice);
  EXPECT_EQ(getPrimaryOwner(*chain.slice), chain.bundle);
  EXPECT_EQ(getPrimaryBundle(*chain.creator), chain.bundle);
  EXPECT_EQ(getPrimaryBundle(*chain.representation), chain.bundle);

  EXPECT_FALSE(getPrimaryOwner(*Field::create<float>()));

  StrongPtr<Grid> grid = Chain().grid;  // its slice is gone
  EXPECT_FALSE(getPrimaryOwner(*grid) || getPrimaryBundle(*grid));
  // The first live owner decides even when of the wrong kind: a grid list.
  StrongPtr<Grid> listed(new Grid(chain.bundle->getGridList(), chain.bundle->getCharts()));
  listed->addOwner(*chain.bundle->getGridList());
  chain.slice->insert("listed", listed);
  EXPECT_FALSE(getPrimaryOwner(*listed) || getPrimaryBundle(*listed));
  chain.bundle->extremeUnction();
  chain.bundle.reset();
  EXPECT_FALSE(getPrimaryBundle(*chain.slice) || getPrimaryBundle(*chain.creator));
}

// A base space is entered with the last skeleton seen representing in it.
TEST(Occurrence, surveyNamesSkeletonsOfItsOwnBundleAndGridsOnly) {
  Chain chain;
  auto only = [](const char* name) {
    return StrongPtr<Ostrak::StringList>(new Ostrak::StringList{name});
  };
  Occurrence<Bundle> survey(*chain.bundle, only("uniform"));
  EXPECT_EQ(survey.RepresenterName(WeakPtr<BaseSpace>(chain.skeleton)), SkeletonID(0, 0).Name());
  ASSERT_NE(survey(WeakPtr<Skeleton>(chain.skeleton)), nullptr);
  EXPECT_EQ(survey(WeakPtr<Skeleton>(chain.skeleton))->id, SkeletonID(0, 0));
  WeakPtr<BaseSpace> chart = chain.representation->getBaseSpace();  // entered as a base space
  ASSERT_NE(survey(chart), nullptr);
  EXPECT_EQ(survey(chart)->id, SkeletonID(0, 0));

  const std::string unknown = "\t   REPRESENTED IN UNKNOWN BASESPACE\n";
  const std::string external = "\t   REPRESENTED IN EXTERNAL SKELETON CANNOT SAVE TO THIS BUNDLE\n";
  EXPECT_EQ(survey.RepresenterName(chart), unknown);
  EXPECT_EQ(survey.RepresenterName(WeakPtr<BaseSpace>()), unknown);
  EXPECT_EQ(survey.RepresenterName(WeakPtr<BaseSpace>(Chain().skeleton)), external);
  Occurrence<Bundle> restricted(*chain.bundle, only("nothing"));
  EXPECT_EQ(restricted.RepresenterName(WeakPtr<BaseSpace>(chain.skeleton)), external);
}

}  // namespace
}  // namespace Quaril::Testing
