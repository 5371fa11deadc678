#include "field/MemBase.hpp"

#include <gtest/gtest.h>

#include <cstdint>

#include "field/DynamicSize.hpp"

namespace Quaril {
namespace {

using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;

TEST(DynamicSize, elementCountHandlesRankZeroZeroExtentsAndOverflow) {
  const std::vector<std::pair<DynamicSize, uint64_t>> cases = {
      {DynamicSize(), 0},
      {DynamicSize{4, 5, 6}, 120},
      {DynamicSize{4, 0, 6}, 0},
      {DynamicSize{UINT64_MAX, 2}, UINT64_MAX},
      {DynamicSize{UINT64_MAX, 2, 0}, 0}};
  for (const auto& [size, elements] : cases) EXPECT_EQ(size.elements(), elements) << size.str();
  EXPECT_EQ((DynamicSize{4, 5, 6}).str(), "4x5x6");
  EXPECT_EQ((DynamicSize{3})[1] + (DynamicSize{3})[-1], 0u);  // out of range reads 0
}

TEST(MemArray, firstIndexRunsFastestAndBadShapesAreRefused) {
  MemArray<3, int> array({2, 3, 4});
  EXPECT_EQ(array[0], 0);  // elements start zeroed
  array(1, 2, 3) = 7;
  EXPECT_EQ(static_cast<const int*>(array.rawData())[1 + 2 * 2 + 3 * 2 * 3], 7);
  EXPECT_EQ(array.getMemoryUsage(), 24 * sizeof(int));

  EXPECT_FALSE((MemArray<2, float>::create(DynamicSize{5})));
  EXPECT_FALSE((MemArray<2, float>::create(DynamicSize())));
  EXPECT_TRUE((MemArray<2, float>::create(DynamicSize{5, 0})));
  EXPECT_THROW((MemArray<2, double>({UINT64_MAX / 2, 4})), std::bad_alloc);
}

TEST(MemArray, makeMemArrayBuildsEveryBuiltinTypeAndRefusesOthers) {
  struct Opaque {};
  for (const char* name : {"bool", "int8", "uint64", "float", "double", "point", "tvector"}) {
    const QuarilTypeBase* type = QuarilTypeBase::findType(name);
    ASSERT_NE(type, nullptr) << name;
    StrongPtr<MemBase, Cacheable> array = makeMemArray(*type, DynamicSize{3, 2});
    ASSERT_TRUE(array) << name;
    EXPECT_EQ(&array->getTypeDescriptor(), type);
    EXPECT_EQ(array->getMemoryUsage(), 6 * type->size());
  }
  auto points = makeMemArray(QuarilTypeBase::getType<point>(), DynamicSize{2, 2, 2});
  EXPECT_TRUE((Ostrak::dynamic_pointer_cast<MemArray<3, point>>(points)));
  EXPECT_FALSE(makeMemArray(QuarilTypeBase::getType<Opaque>(), DynamicSize{3}));
  EXPECT_FALSE(makeMemArray(QuarilTypeBase::getType<double>(), DynamicSize()));
  EXPECT_FALSE(makeMemArray(QuarilTypeBase::getType<double>(), DynamicSize{1, 1, 1, 1, 1}));
}

}  // namespace
}  // namespace Quaril
