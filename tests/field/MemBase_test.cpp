#include "field/MemBase.hpp"

#include <gtest/gtest.h>

#include <cstdint>

#include "field/DynamicSize.hpp"

namespace {

using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;
using Quaril::Cacheable;
using Quaril::DynamicSize;
using Quaril::MemArray;
using Quaril::MemBase;
using Quaril::QuarilTypeBase;
using Quaril::StrongPtr;
using Quaril::TypedArray;
using Quaril::UniformCartesianArray;

TEST(DynamicSize, elementCountHandlesRankZeroZeroExtentsAndOverflow) {
  EXPECT_EQ(DynamicSize().elements(), 0u);
  EXPECT_EQ(DynamicSize().str(), "");
  EXPECT_EQ((DynamicSize{4, 5, 6}).elements(), 120u);
  EXPECT_EQ((DynamicSize{4, 5, 6}).str(), "4x5x6");
  EXPECT_EQ((DynamicSize{4, 0, 6}).elements(), 0u);
  EXPECT_EQ((DynamicSize{UINT64_MAX, 2}).elements(), UINT64_MAX);
  EXPECT_EQ((DynamicSize{UINT64_MAX, 2, 0}).elements(), 0u);
  EXPECT_EQ((DynamicSize{3})[1], 0u);
  EXPECT_EQ((DynamicSize{3})[-1], 0u);
}

TEST(MemArray, firstIndexRunsFastestInRawStorage) {
  MemArray<3, int> array({2, 3, 4});
  array(1, 2, 3) = 7;
  const int* raw = static_cast<const int*>(array.rawData());
  EXPECT_EQ(raw[1 + 2 * 2 + 3 * 2 * 3], 7);
  EXPECT_EQ(array.nElements(), 24u);
  EXPECT_EQ(array.getMemoryUsage(), 24 * sizeof(int));
  EXPECT_EQ(array.getTypeDescriptor().name(), "int32");
  EXPECT_EQ(array[0], 0);  // elements start zeroed
}

TEST(MemArray, createRefusesWrongRankAndHugeSizesThrowBadAlloc) {
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
    StrongPtr<MemBase, Cacheable> array = Quaril::makeMemArray(*type, DynamicSize{3, 2});
    ASSERT_TRUE(array) << name;
    EXPECT_EQ(&array->getTypeDescriptor(), type);
    EXPECT_EQ(array->getMemoryUsage(), 6 * type->size());
  }
  auto points = Quaril::makeMemArray(QuarilTypeBase::getType<point>(), DynamicSize{2, 2, 2});
  EXPECT_TRUE((Ostrak::dynamic_pointer_cast<MemArray<3, point>>(points)));
  EXPECT_FALSE(Quaril::makeMemArray(QuarilTypeBase::getType<Opaque>(), DynamicSize{3}));
  EXPECT_FALSE(Quaril::makeMemArray(QuarilTypeBase::getType<double>(), DynamicSize()));
  EXPECT_FALSE(Quaril::makeMemArray(QuarilTypeBase::getType<double>(), DynamicSize{1, 1, 1, 1, 1}));
}

TEST(UniformCartesianArray, computesPositionsAndStoresNone) {
  StrongPtr<UniformCartesianArray> grid(
      new UniformCartesianArray(point{1, 2, 3}, tvector{0.5, 1, 2}, {3, 4, 5}));
  EXPECT_EQ((*grid)(2, 3, 4), (point{2, 5, 11}));
  EXPECT_EQ((*grid)[2 + 3 * 3 + 4 * 12], (point{2, 5, 11}));
  EXPECT_EQ(grid->nElements(), 60u);
  EXPECT_EQ(grid->rawData(), nullptr);
  EXPECT_TRUE(grid->getTypeDescriptor().is<point>());
  StrongPtr<MemBase, Cacheable> base = grid;
  EXPECT_FALSE((Ostrak::dynamic_pointer_cast<TypedArray<point>>(base)));
}

TEST(Cacheable, useMarksGrowWithEachUse) {
  MemArray<1, double> a({1});
  MemArray<1, double> b({1});
  EXPECT_EQ(a.getLastUse(), 0u);
  a.markAsUsed();
  b.markAsUsed();
  EXPECT_LT(a.getLastUse(), b.getLastUse());
  a.markAsUsed();
  EXPECT_GT(a.getLastUse(), b.getLastUse());
}

}  // namespace
