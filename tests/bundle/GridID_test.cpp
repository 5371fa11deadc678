#include "bundle/GridID.hpp"

#include <gtest/gtest.h>

#include "BundleFixture.hpp"

namespace QuarilTest {
namespace {

using Quaril::GridList;

TEST(GridList, findIsExactAndNeverCreates) {
  StrongPtr<GridList> list(new GridList);
  EXPECT_FALSE(list->find(""));
  StrongPtr<GridID> empty = (*list)[""];
  EXPECT_EQ(list->find(""), empty);

  StrongPtr<GridID> grid = (*list)["Grid"];
  EXPECT_EQ((*list)["Grid"], grid);
  EXPECT_EQ((*list)("Grid"), grid);
  EXPECT_FALSE(list->find("grid"));
  EXPECT_FALSE(list->find("Grid "));
  EXPECT_EQ(list->getNumberOfGrids(), 2u);
}

TEST(GridList, indexAnswersForEveryNameAmongMany) {
  StrongPtr<GridList> list(new GridList);
  std::vector<StrongPtr<GridID>> ids;
  for (int i = 0; i < 2000; ++i) ids.push_back((*list)["g" + std::to_string(i)]);
  for (int i = 0; i < 2000; ++i) EXPECT_EQ(list->find("g" + std::to_string(i)), ids[i]);
  EXPECT_EQ(list->getNumberOfGrids(), 2000u);
}

TEST(GridList, getGridnamesCountsLiveIdentitiesEvenWhenNamesAreKnown) {
  StrongPtr<GridList> list(new GridList);
  std::set<std::string> names;
  EXPECT_EQ(list->getGridnames(names), 0u);
  (*list)["a"];
  (*list)["b"];
  EXPECT_EQ(list->getGridnames(names), 2u);
  EXPECT_EQ(list->getGridnames(names), 2u);
  EXPECT_EQ(names, (std::set<std::string>{"a", "b"}));
}

TEST(GridID, secondLiveParentIsRefusedUntilTheFirstDies) {
  StrongPtr<GridID> child(new GridID("child"));
  StrongPtr<GridID> q(new GridID("q"));
  {
    StrongPtr<GridID> p(new GridID("p"));
    EXPECT_TRUE(p->insertChild(child));
    EXPECT_TRUE(p->insertChild(child));
    EXPECT_EQ(p->numberOfChildren(), 1u);
    EXPECT_FALSE(q->insertChild(child));
    EXPECT_TRUE(p->isParentOf(child));
    EXPECT_FALSE(q->isParentOf(child));
    EXPECT_TRUE(child->isChildOf(p));
  }
  EXPECT_TRUE(q->insertChild(child));
  EXPECT_TRUE(q->isParentOf(child));
}

TEST(GridID, linksWithEmptyHandles) {
  StrongPtr<GridID> orphan(new GridID("orphan"));
  EXPECT_TRUE(orphan->isChildOf(WeakPtr<GridID>()));
  EXPECT_FALSE(orphan->isParentOf(WeakPtr<GridID>()));
  EXPECT_FALSE(orphan->insertChild(WeakPtr<GridID>()));

  // A parent that died still names the same block.
  StrongPtr<GridID> child(new GridID("child"));
  WeakPtr<GridID> deadParent;
  {
    StrongPtr<GridID> parent(new GridID("parent"));
    parent->insertChild(child);
    deadParent = parent;
  }
  EXPECT_TRUE(child->isChildOf(deadParent));
  EXPECT_FALSE(child->isChildOf(WeakPtr<GridID>()));
}

TEST(GridID, iterateStopsWithoutCountingTheRefusingChild) {
  struct Counter : GridID::Iterator {
    int calls = 0;
    bool answer;
    explicit Counter(bool answer) : answer(answer) {}
    bool apply(const WeakPtr<GridID>&) override {
      ++calls;
      return answer;
    }
  };
  StrongPtr<GridID> parent(new GridID("parent"));
  Counter none(true);
  EXPECT_EQ(parent->iterate(none), 0u);
  EXPECT_EQ(none.calls, 0);

  StrongPtr<GridID> a(new GridID("a"));
  StrongPtr<GridID> b(new GridID("b"));
  parent->insertChild(a);
  parent->insertChild(b);
  Counter refuse(false);
  EXPECT_EQ(parent->iterate(refuse), 0u);
  EXPECT_EQ(refuse.calls, 1);
  Counter all(true);
  EXPECT_EQ(parent->iterate(all), 2u);
}

}  // namespace
}  // namespace QuarilTest
