#include "field/QuarilType.hpp"
#include <array>
#include "field/MemBase.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <thread>
#include <vector>

namespace {

using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;
using Quaril::containsType;
using Quaril::QuarilTypeBase;
using Quaril::TypeList;

struct Velocity {
  float u, v;
};
struct RacedType {};

TEST(QuarilType, descriptorsAreUniquePerTypeAcrossCallsAndThreads) {
  EXPECT_EQ(&QuarilTypeBase::getType<double>(), &QuarilTypeBase::getType<double>());
  EXPECT_EQ(&QuarilTypeBase::getType<const double>(), &QuarilTypeBase::getType<double>());
  EXPECT_NE(&QuarilTypeBase::getType<double>(), &QuarilTypeBase::getType<float>());
  EXPECT_NE(&QuarilTypeBase::getType<long>(), &QuarilTypeBase::getType<long long>());

  std::vector<const QuarilTypeBase*> seen(8);
  std::vector<std::thread> threads;
  for (auto& slot : seen) {
    threads.emplace_back([&slot] { slot = &QuarilTypeBase::getType<RacedType>(); });
  }
  for (auto& thread : threads) thread.join();
  for (const QuarilTypeBase* type : seen) EXPECT_EQ(type, seen.front());
}

TEST(QuarilType, namesAndComponentsDescribeTheElement) {
  const QuarilTypeBase& p = QuarilTypeBase::getType<point>();
  EXPECT_EQ(p.name(), "point");
  EXPECT_EQ(p.size(), 3 * sizeof(double));
  EXPECT_EQ(p.components(), 3);
  EXPECT_EQ(&p.componentType(), &QuarilTypeBase::getType<double>());
  EXPECT_EQ(p.getTypeInfo(), typeid(point));
  EXPECT_EQ(QuarilTypeBase::getType<tvector>().name(), "tvector");
  EXPECT_EQ(QuarilTypeBase::getType<std::int32_t>().name(), "int32");
  EXPECT_EQ(QuarilTypeBase::getType<std::uint8_t>().name(), "uint8");
  EXPECT_EQ(&QuarilTypeBase::getType<float>().componentType(), &QuarilTypeBase::getType<float>());
  EXPECT_EQ(QuarilTypeBase::getType<void>().size(), 0u);
  EXPECT_NE(QuarilTypeBase::getType<Velocity>().name().find("Velocity"), std::string::npos);
}

TEST(QuarilType, findTypeMapsStoredNamesBackWithoutPriorUse) {
  EXPECT_EQ(QuarilTypeBase::findType("int16"), &QuarilTypeBase::getType<std::int16_t>());
  EXPECT_EQ(QuarilTypeBase::findType("tvector"), &QuarilTypeBase::getType<tvector>());
  EXPECT_EQ(QuarilTypeBase::findType("longlong"), &QuarilTypeBase::getType<long long>());
  EXPECT_EQ(QuarilTypeBase::findType("no such type"), nullptr);
  EXPECT_EQ(QuarilTypeBase::findType(""), nullptr);
}

TEST(TypeList, orderFollowsIdentityNotInsertion) {
  const QuarilTypeBase& d = QuarilTypeBase::getType<double>();
  const QuarilTypeBase& f = QuarilTypeBase::getType<float>();
  const QuarilTypeBase& p = QuarilTypeBase::getType<point>();
  TypeList forward{&d, &f, &p};
  TypeList backward;
  EXPECT_TRUE(backward.insert(p));
  EXPECT_TRUE(backward.insert(f));
  EXPECT_TRUE(backward.insert(d));
  EXPECT_FALSE(backward.insert(f));
  EXPECT_EQ(forward, backward);
  EXPECT_EQ(backward.size(), 3u);

  const Ostrak::ReferenceBlock* previous = nullptr;
  for (const auto& entry : backward) {
    EXPECT_TRUE(entry.valid());
    EXPECT_LT(previous, entry.referenceBlock());
    previous = entry.referenceBlock();
  }
}

TEST(TypeList, copiesAreIndependentAndContainsTypeMatchesTypeInfo) {
  TypeList scalars = TypeList::of<double, float>();
  TypeList copy = scalars;
  copy.insert(QuarilTypeBase::getType<point>());
  EXPECT_EQ(scalars.size(), 2u);
  EXPECT_TRUE(containsType(copy, typeid(point)));
  EXPECT_FALSE(containsType(scalars, typeid(point)));
  EXPECT_TRUE(containsType(scalars, typeid(double)));
  EXPECT_FALSE(containsType(scalars, typeid(int)));

  EXPECT_TRUE(copy.erase(QuarilTypeBase::getType<double>()));
  EXPECT_FALSE(copy.contains(QuarilTypeBase::getType<double>()));
  copy.clear();
  EXPECT_TRUE(copy.empty());
  EXPECT_FALSE(containsType(copy, typeid(float)));
  EXPECT_FALSE(containsType(TypeList(), typeid(void)));
}

TEST(QuarilType, fixedArraysAreDescribedByTheirComponents) {
  const QuarilTypeBase& triple = QuarilTypeBase::getType<std::array<uint32_t, 3>>();
  EXPECT_EQ(triple.name(), "uint32x3");
  EXPECT_EQ(triple.components(), 3);
  EXPECT_EQ(&triple.componentType(), &QuarilTypeBase::getType<uint32_t>());
  EXPECT_EQ(QuarilTypeBase::findType("uint32x3"), &triple);
  auto array = Quaril::makeMemArray(triple, Quaril::DynamicSize{std::vector<uint64_t>{4}});
  ASSERT_TRUE(array);
  EXPECT_EQ(&array->getTypeDescriptor(), &triple);
}

}  // namespace
