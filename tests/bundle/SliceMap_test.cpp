#include "bundle/SliceMap.hpp"

#include <gtest/gtest.h>

#include <cmath>

#include "BundleFixture.hpp"

namespace QuarilTest {
namespace {

using Quaril::SliceMap;
using Quaril::SliceWeakPtr;

TEST(SliceMap, nextIsStrictAndPrevIsInclusive) {
  BundlePtr bundle;
  bundle.create();
  SliceMap map;
  map.insert(1.0, (*bundle)[1.0]);
  map.insert(2.0, (*bundle)[2.0]);

  double t = 1.0;
  EXPECT_EQ(map.next(t), (*bundle)[2.0]);
  EXPECT_EQ(t, 2.0);
  t = 1.0;
  EXPECT_EQ(map.prev(t), (*bundle)[1.0]);
  EXPECT_EQ(t, 1.0);
  t = 1.5;
  EXPECT_EQ(map.prev(t), (*bundle)[1.0]);
  EXPECT_EQ(t, 1.0);

  t = 2.0;
  EXPECT_FALSE(map.next(t));
  EXPECT_EQ(t, 2.0);
  t = 0.5;
  EXPECT_FALSE(map.prev(t));
  EXPECT_EQ(t, 0.5);
  t = std::nan("");
  EXPECT_FALSE(map.prev(t));
  EXPECT_FALSE(map.next(t));
}

TEST(SliceMap, emptyMapLeavesTimeAlone) {
  SliceMap map;
  double t = 3.0;
  EXPECT_FALSE(map.next(t));
  EXPECT_FALSE(map.prev(t));
  EXPECT_EQ(t, 3.0);
}

TEST(SliceMap, insertAtSameTimeKeepsOneEntryWithTheSecondSlice) {
  BundlePtr bundle;
  bundle.create();
  SliceMap map;
  EXPECT_TRUE(map.insert(1.0, (*bundle)[1.0]));
  EXPECT_FALSE(map.insert(1.0, (*bundle)[2.0]));
  EXPECT_FALSE(map.insert(std::nan(""), (*bundle)[2.0]));
  ASSERT_EQ(map.size(), 1u);
  double t = 1.0;
  EXPECT_EQ(map.prev(t), (*bundle)[2.0]);
}

TEST(SliceMap, iterateCountsOnlyTrueAnswers) {
  struct StopAfter : SliceMap::iterator {
    int calls = 0;
    int limit;
    explicit StopAfter(int limit) : limit(limit) {}
    bool apply(double, const SliceWeakPtr&) override { return ++calls < limit; }
  };
  SliceMap map;
  for (double t : {1.0, 2.0, 3.0}) map.insert(t, SliceWeakPtr());
  StopAfter first(1);
  EXPECT_EQ(map.iterate(first), 0);
  EXPECT_EQ(first.calls, 1);
  StopAfter all(100);
  EXPECT_EQ(map.iterate(all), 3);
  SliceMap empty;
  EXPECT_EQ(empty.iterate(all), 0);
}

}  // namespace
}  // namespace QuarilTest
