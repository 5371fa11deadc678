#include "bundle/GridID.hpp"

#include <gtest/gtest.h>

#include "BundleFixture.hpp"

namespace Quaril::Testing {
namespace {

TEST(GridList, findIsExactNeverCreatesAndNamesCountLiveIdentities) {
  StrongPtr<GridList> list(new GridList);
  EXPECT_FALSE(list->find(""));
  StrongPtr<GridID> empty = (*list)[""];
  StrongPtr<GridID> grid = (*list)["Grid"];
  EXPECT_EQ(list->find(""), empty);
  EXPECT_EQ((*list)["Grid"], grid);
  EXPECT_EQ((*list)("Grid"), grid);
  EXPECT_FALSE(list->find("grid") || list->find("Grid "));
  std::set<std::string> names{"Grid"};  // the count is of identities, not of new names
  EXPECT_EQ(list->getGridnames(names), 2u);
  EXPECT_EQ(names.size(), 2u);
}

TEST(GridID, secondLiveParentIsRefusedUntilTheFirstDies) {
  StrongPtr<GridID> child(new GridID("child")), q(new GridID("q"));
  WeakPtr<GridID> deadParent;
  {
    StrongPtr<GridID> p(new GridID("p"));
    EXPECT_TRUE(p->insertChild(child) && p->insertChild(child));
    EXPECT_EQ(p->numberOfChildren(), 1u);
    EXPECT_FALSE(q->insertChild(child) || q->isParentOf(child));
    EXPECT_TRUE(p->isParentOf(child) && child->isChildOf(p));
    deadParent = p;
  }
  EXPECT_TRUE(child->isChildOf(deadParent)) << "a dead parent still names the same block";
  EXPECT_TRUE(q->insertChild(child) && q->isParentOf(child));
  EXPECT_TRUE(q->isChildOf(WeakPtr<GridID>()));
  EXPECT_FALSE(q->isParentOf(WeakPtr<GridID>()) || q->insertChild(WeakPtr<GridID>()));
}

}  // namespace
}  // namespace Quaril::Testing
