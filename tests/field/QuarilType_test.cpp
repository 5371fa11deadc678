#include "field/QuarilType.hpp"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <thread>
#include <tuple>
#include <vector>

#include "field/MemBase.hpp"

namespace Quaril {
namespace {

using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;

struct Velocity {
  float u, v;
};
struct RacedType {};

TEST(QuarilType, descriptorsAreUniquePerTypeAcrossCallsAndThreads) {
  EXPECT_EQ(&QuarilTypeBase::getType<const double>(), &QuarilTypeBase::getType<double>());
  EXPECT_NE(&QuarilTypeBase::getType<double>(), &QuarilTypeBase::getType<float>());
  EXPECT_NE(&QuarilTypeBase::getType<long>(), &QuarilTypeBase::getType<long long>());
  std::vector<const QuarilTypeBase*> seen(8);
  std::vector<std::thread> threads;
  for (auto& slot : seen)
    threads.emplace_back([&slot] { slot = &QuarilTypeBase::getType<RacedType>(); });
  for (auto& thread : threads) thread.join();
  for (const QuarilTypeBase* type : seen) EXPECT_EQ(type, seen.front());
}

TEST(QuarilType, storedNamesMapBackWithoutPriorUseAndNameTheirComponents) {
  // Looked up before any use of the types, as a reader of stored data does.
  const QuarilTypeBase* int16 = QuarilTypeBase::findType("int16");
  const QuarilTypeBase* longlong = QuarilTypeBase::findType("longlong");
  EXPECT_EQ(int16, &QuarilTypeBase::getType<int16_t>());
  EXPECT_EQ(longlong, &QuarilTypeBase::getType<long long>());
  const QuarilTypeBase* real = &QuarilTypeBase::getType<double>();
  const QuarilTypeBase* triple = &QuarilTypeBase::getType<std::array<uint32_t, 3>>();
  for (auto [name, type, component] :
       {std::tuple{"point", &QuarilTypeBase::getType<point>(), real},
        {"tvector", &QuarilTypeBase::getType<tvector>(), real},
        {"uint32x3", triple, &QuarilTypeBase::getType<uint32_t>()}}) {
    EXPECT_EQ(type->name(), name);
    EXPECT_EQ(QuarilTypeBase::findType(name), type);
    EXPECT_EQ(&type->componentType(), component) << name;
    EXPECT_EQ(type->components(), 3) << name;
    EXPECT_EQ(type->size(), 3 * component->size()) << name;
  }
  EXPECT_EQ(QuarilTypeBase::findType("no such type"), nullptr);
  EXPECT_EQ(QuarilTypeBase::getType<void>().size(), 0u);
  EXPECT_NE(QuarilTypeBase::getType<Velocity>().name().find("Velocity"), std::string::npos);
  auto triples = makeMemArray(*triple, DynamicSize{4});
  ASSERT_TRUE(triples);
  EXPECT_EQ(&triples->getTypeDescriptor(), triple);
}

TEST(TypeList, orderFollowsIdentityNotInsertionAndCopiesAreIndependent) {
  const QuarilTypeBase& d = QuarilTypeBase::getType<double>();
  const QuarilTypeBase& f = QuarilTypeBase::getType<float>();
  const QuarilTypeBase& p = QuarilTypeBase::getType<point>();
  TypeList forward{&d, &f, &p};
  TypeList backward;
  EXPECT_TRUE(backward.insert(p) && backward.insert(f) && backward.insert(d));
  EXPECT_FALSE(backward.insert(f));
  EXPECT_EQ(forward, backward);

  TypeList scalars = TypeList::of<double, float>();
  TypeList copy = scalars;
  copy.insert(p);
  EXPECT_EQ(scalars.size(), 2u);
  EXPECT_TRUE(containsType(copy, typeid(point)) && containsType(scalars, typeid(double)));
  EXPECT_FALSE(containsType(scalars, typeid(point)) || containsType(scalars, typeid(int)));
  EXPECT_TRUE(copy.erase(d));
  EXPECT_FALSE(copy.contains(d));
  EXPECT_FALSE(containsType(TypeList(), typeid(void)));
}

}  // namespace
}  // namespace Quaril
