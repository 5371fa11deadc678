#include "field/Field.hpp"

#include <gtest/gtest.h>

#include <vector>

#include "field/BinderBase.hpp"

namespace {

using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;
using Quaril::Cacheable;
using Quaril::CreativeArrayBase;
using Quaril::DeferredCreator;
using Quaril::DynamicSize;
using Quaril::Field;
using Quaril::FragmentID;
using Quaril::FragmentSelector;
using Quaril::MemArray;
using Quaril::MemBase;
using Quaril::MemCreator;
using Quaril::QuarilTypeBase;
using Quaril::StrongPtr;
using Quaril::UniformCartesianArray;

using CreatorOwner = Ostrak::Ownable<CreativeArrayBase>::Container;

StrongPtr<CreativeArrayBase> pointsCreator(uint64_t n) {
  return StrongPtr<MemCreator>(
      new MemCreator(StrongPtr<MemArray<1, point>>(new MemArray<1, point>({n}))));
}

struct Recorder : Quaril::FragmentIterator {
  std::vector<StrongPtr<FragmentID>> visited;
  size_t stopAfter = 1000;
  bool apply(const StrongPtr<FragmentID>& fragment, const StrongPtr<CreativeArrayBase>&) override {
    visited.push_back(fragment);
    return visited.size() < stopAfter;
  }
};

TEST(Field, creatorNamesItsFieldAsOwnerAndLosesItWhenReplaced) {
  StrongPtr<Field> field = Field::create<point>();
  StrongPtr<CreativeArrayBase> creator = pointsCreator(4);
  ASSERT_TRUE(field->setCreator(creator));
  auto owner = Ostrak::dynamic_pointer_cast<Field>(creator->firstLiveOwner().lock());
  EXPECT_EQ(owner, field);

  StrongPtr<CreativeArrayBase> replacement = pointsCreator(5);
  ASSERT_TRUE(field->setCreator(replacement));
  EXPECT_FALSE(creator->isOwnedBy(*field));
  EXPECT_TRUE(replacement->isOwnedBy(*field));
  EXPECT_EQ(field->getCreator(), replacement);

  // A creator shared by two fragments stays owned until its last fragment goes.
  auto a = StrongPtr<FragmentID>(new FragmentID("a"));
  auto b = StrongPtr<FragmentID>(new FragmentID("b"));
  field->setCreator(creator, a);
  field->setCreator(creator, b);
  field->setCreator(nullptr, a);
  EXPECT_TRUE(creator->isOwnedBy(*field));
  field->setCreator(nullptr, b);
  EXPECT_FALSE(creator->isOwnedBy(*field));
  EXPECT_EQ(field->nFragments(), 1u);
}

TEST(Field, creatorOfAnotherElementTypeIsRefused) {
  StrongPtr<Field> field = Field::create<tvector>();
  EXPECT_FALSE(field->setCreator(pointsCreator(3)));
  EXPECT_EQ(field->nFragments(), 0u);
  EXPECT_EQ(field->getElementType(), typeid(tvector));
  EXPECT_EQ(field->getFieldStorageType(), typeid(tvector));
}

TEST(Field, emptyFragmentAddressesUnfragmentedOrSoleFragmentOnly) {
  StrongPtr<Field> positions = Field::create<point>();
  EXPECT_FALSE(positions->getData());
  auto uniform = StrongPtr<UniformCartesianArray>(
      new UniformCartesianArray(point{}, tvector{1, 1, 1}, {2, 2, 2}));
  positions->setCreator(StrongPtr<MemCreator>(new MemCreator(uniform)));
  EXPECT_EQ(positions->getData(), uniform);
  EXPECT_EQ(positions->getData({}), positions->getData(StrongPtr<FragmentID>()));

  StrongPtr<Field> blocks = Field::create<point>();
  auto first = StrongPtr<FragmentID>(new FragmentID("block0"));
  blocks->setCreator(pointsCreator(2), first);
  EXPECT_EQ(blocks->getCreator(), blocks->getCreator(first));
  blocks->setCreator(pointsCreator(2), StrongPtr<FragmentID>(new FragmentID("block1")));
  EXPECT_FALSE(blocks->getCreator());
  EXPECT_FALSE(blocks->getData());
  EXPECT_TRUE(blocks->getData(first));
  EXPECT_FALSE(blocks->getData(StrongPtr<FragmentID>(new FragmentID("block0"))));
}

TEST(Field, iterationStopsOnFalseAndHonoursSelector) {
  StrongPtr<Field> field = Field::create<point>();
  std::vector<StrongPtr<FragmentID>> fragments;
  for (int i = 0; i < 4; ++i) {
    fragments.emplace_back(new FragmentID("f" + std::to_string(i)));
    field->setCreator(pointsCreator(1), fragments.back());
  }
  Recorder all;
  EXPECT_EQ(field->iterate(all), 4);
  Recorder stopping;
  stopping.stopAfter = 2;
  EXPECT_EQ(field->iterate(stopping), 1);
  EXPECT_EQ(stopping.visited.size(), 2u);

  Recorder selected;
  auto selector = StrongPtr<FragmentSelector>(new FragmentSelector{fragments[2]});
  EXPECT_EQ(field->iterate(selected, selector), 1);
  ASSERT_EQ(selected.visited.size(), 1u);
  EXPECT_EQ(selected.visited[0], fragments[2]);
}

TEST(Field, getDataTurnsCachingOnAndMemoryCountersFollowIt) {
  StrongPtr<Field> field = Field::create<double>();
  auto creator = StrongPtr<DeferredCreator>(
      new DeferredCreator(QuarilTypeBase::getType<double>(), DynamicSize{2, 3}, [] {
        return StrongPtr<MemBase, Cacheable>(new MemArray<2, double>({2, 3}));
      }));
  creator->setCaching(false);
  field->setCreator(creator);
  EXPECT_FALSE(field->setCreator(pointsCreator(2)));  // wrong element type
  unsigned long long first = 0, second = 0;
  field->getMemoryUsage(first, second);
  EXPECT_EQ(first, 0u);
  EXPECT_EQ(second, 48u);

  ASSERT_TRUE(field->getData());
  EXPECT_TRUE(creator->isCaching());
  first = second = 0;
  field->getMemoryUsage(first, second);
  EXPECT_EQ(first, 48u);
  EXPECT_EQ(second, 0u);
  EXPECT_EQ(creator->productions(), 1u);
}

TEST(Field, nullFieldAndBinderHoldNothingSurprising) {
  EXPECT_FALSE(Field::NullPtrField());
  EXPECT_EQ(&Field::NullPtrField(), &Field::NullPtrField());
  StrongPtr<Quaril::BinderBase> binder(new Quaril::BinderBase("out.h5"));
  EXPECT_EQ(binder->getFilename(), "out.h5");
}

}  // namespace
