#include "grid/SkeletonID.hpp"

#include <gtest/gtest.h>

#include <set>

namespace {

using Quaril::SkeletonID;

TEST(SkeletonID, orderIsByDimensionThenIndexAndNamesAreDistinct) {
  EXPECT_EQ(SkeletonID(), SkeletonID(0, 0));
  EXPECT_LT(SkeletonID(0, 5), SkeletonID(1, 0));
  EXPECT_LT(SkeletonID(1, 0), SkeletonID(1, 1));
  EXPECT_FALSE(SkeletonID(2, 0) < SkeletonID(1, 9));
  EXPECT_NE(SkeletonID(0, 1), SkeletonID(1, 0));

  std::set<SkeletonID> ids{{2, 0}, {0, 1}, {0, 0}, {1, 3}};
  std::set<std::string> names;
  for (const SkeletonID& id : ids) names.insert(id.Name());
  EXPECT_EQ(names.size(), ids.size());
  EXPECT_EQ(ids.begin()->Name(), "Skeleton(0,0)");
  EXPECT_EQ(SkeletonID(3, 12).Name(), "Skeleton(3,12)");
}

TEST(SkeletonID, negativePartsAreInvalid) {
  EXPECT_TRUE(SkeletonID(0, 0).isValid());
  EXPECT_FALSE(SkeletonID(-1, 0).isValid());
  EXPECT_FALSE(SkeletonID(0, -1).isValid());
}

}  // namespace
