#include "bundle/Occurrence.hpp"

#include <gtest/gtest.h>

#include "BundleFixture.hpp"
#include "grid/GridConstructors.hpp"

namespace QuarilTest {
namespace {

using Quaril::CreativeArrayBase;
using Quaril::Field;
using Quaril::getPrimaryBundle;
using Quaril::getPrimaryOwner;
using Quaril::Occurrence;
using Quaril::Representation;
using Quaril::Skeleton;
using Quaril::SkeletonID;

// The chain of one uniform grid "g" at time 0: creator, field, representation,
// skeleton, grid, slice.
struct Chain {
  BundlePtr bundle;
  SlicePtr slice;
  StrongPtr<Grid> grid;
  StrongPtr<Skeleton> skeleton;
  StrongPtr<Representation> representation;
  StrongPtr<Field> field;
  StrongPtr<CreativeArrayBase> creator;

  Chain() {
    bundle.create();
    slice = (*bundle)[0.0];
    Quaril::makeUniformGrid(*(*slice)["g"], {2, 2, 2}, {0, 0, 0}, {1, 1, 1});
    grid = (*slice)("g");
    skeleton = grid->getSkeleton(SkeletonID(0, 0));
    representation = grid->getCartesianRepresentation("");
    field = grid->CartesianPositions();
    creator = field->getCreator(StrongPtr<Quaril::FragmentID>());
  }
};

TEST(Occurrence, ownerChainLeadsFromDataToItsBundle) {
  Chain chain;
  ASSERT_TRUE(chain.creator);
  EXPECT_EQ(getPrimaryOwner(*chain.creator), chain.field);
  EXPECT_EQ(getPrimaryOwner(*chain.field), chain.representation);
  EXPECT_EQ(getPrimaryOwner(*chain.representation), chain.skeleton);
  EXPECT_EQ(getPrimaryOwner(*chain.skeleton), chain.grid);
  EXPECT_EQ(getPrimaryOwner(*chain.grid), chain.slice);
  EXPECT_EQ(getPrimaryOwner(*chain.slice), chain.bundle);
  EXPECT_EQ(getPrimaryBundle(*chain.creator), chain.bundle);
  EXPECT_EQ(getPrimaryBundle(*chain.field), chain.bundle);
  EXPECT_EQ(getPrimaryBundle(*chain.representation), chain.bundle);
  EXPECT_EQ(getPrimaryBundle(*chain.skeleton), chain.bundle);
  EXPECT_EQ(getPrimaryBundle(*chain.grid), chain.bundle);
}

TEST(Occurrence, chainBrokenAtEachLevelGivesNoBundle) {
  {  // the bundle is gone
    Chain chain;
    chain.bundle->extremeUnction();
    chain.bundle.reset();
    EXPECT_FALSE(getPrimaryBundle(*chain.slice));
    EXPECT_FALSE(getPrimaryBundle(*chain.creator));
  }
  {  // the slice is gone, the grid lives on
    Chain chain;
    StrongPtr<Grid> grid = chain.grid;
    Chain fresh;
    chain = fresh;
    EXPECT_FALSE(getPrimaryOwner(*grid));
    EXPECT_FALSE(getPrimaryBundle(*grid));
  }
  {  // a replaced grid keeps naming the slice that let it go
    Chain chain;
    chain.slice->newGrid("g");
    EXPECT_EQ(getPrimaryOwner(*chain.grid), chain.slice);
  }
  {  // a representation that no skeleton owns
    Chain chain;
    StrongPtr<Representation> loose(new Representation(chain.grid->findCartesianChart("")));
    StrongPtr<Field> field = Field::create<double>();
    loose->setField("loose", field);
    EXPECT_EQ(getPrimaryOwner(*field), loose);
    EXPECT_FALSE(getPrimaryBundle(*field));
  }
  {  // every owner gone
    StrongPtr<Field> orphan = Field::create<float>();
    EXPECT_FALSE(getPrimaryOwner(*orphan));
    EXPECT_FALSE(getPrimaryBundle(*orphan));
  }
}

TEST(Occurrence, firstLiveOwnerDecidesEvenWhenOfTheWrongKind) {
  Chain chain;
  SlicePtr second = (*chain.bundle)[1.0];
  second->insert("g", chain.grid);
  EXPECT_EQ(getPrimaryOwner(*chain.grid), chain.slice) << "a later live owner does not win";

  // A grid whose first owner is a grid list, not a slice: no owner, although
  // a slice follows in the list.
  StrongPtr<Grid> listed(new Grid(chain.bundle->getGridList(), chain.bundle->getCharts()));
  listed->addOwner(*chain.bundle->getGridList());
  chain.slice->insert("listed", listed);
  EXPECT_FALSE(getPrimaryOwner(*listed));
  EXPECT_FALSE(getPrimaryBundle(*listed));
}

TEST(Occurrence, surveyNamesSkeletonsOfItsBundleOnly) {
  Chain chain;
  Occurrence<Quaril::Bundle> survey(*chain.bundle, {});
  WeakPtr<Quaril::BaseSpace> vertices(chain.skeleton);
  EXPECT_EQ(survey.RepresenterName(vertices), SkeletonID(0, 0).Name());
  ASSERT_NE(survey(WeakPtr<Skeleton>(chain.skeleton)), nullptr);
  EXPECT_EQ(survey(WeakPtr<Skeleton>(chain.skeleton))->id, SkeletonID(0, 0));

  // The positions are relative to the chart, which is entered as a base space.
  WeakPtr<Quaril::BaseSpace> chart = chain.representation->getBaseSpace();
  ASSERT_NE(survey(chart), nullptr);
  EXPECT_EQ(survey(chart)->id, SkeletonID(0, 0));
  EXPECT_EQ(survey.RepresenterName(chart), "\t   REPRESENTED IN UNKNOWN BASESPACE\n");
  EXPECT_EQ(survey.RepresenterName(WeakPtr<Quaril::BaseSpace>()),
            "\t   REPRESENTED IN UNKNOWN BASESPACE\n");

  Chain other;
  EXPECT_EQ(survey.RepresenterName(WeakPtr<Quaril::BaseSpace>(other.skeleton)),
            "\t   REPRESENTED IN EXTERNAL SKELETON CANNOT SAVE TO THIS BUNDLE\n");
}

TEST(Occurrence, surveyRestrictedToUnknownNamesFindsNothing) {
  Chain chain;
  Occurrence<Quaril::Bundle> survey(
      *chain.bundle, StrongPtr<Ostrak::StringList>(new Ostrak::StringList{"nothing"}));
  EXPECT_TRUE(survey.survey().skeletons.empty());
  EXPECT_TRUE(survey.survey().baseSpaces.empty());
  EXPECT_EQ(survey.RepresenterName(WeakPtr<Quaril::BaseSpace>(chain.skeleton)),
            "\t   REPRESENTED IN EXTERNAL SKELETON CANNOT SAVE TO THIS BUNDLE\n");
}

}  // namespace
}  // namespace QuarilTest
