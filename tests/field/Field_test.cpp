#include "field/Field.hpp"

#include <gtest/gtest.h>

#include <vector>

namespace Quaril {
namespace {

using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;

StrongPtr<CreativeArrayBase> pointsCreator(uint64_t n) {
  return StrongPtr<MemCreator>(
      new MemCreator(StrongPtr<MemArray<1, point>>(new MemArray<1, point>({n}))));
}

StrongPtr<FragmentID> fragment(const std::string& name) {
  return StrongPtr<FragmentID>(new FragmentID(name));
}

TEST(Field, creatorNamesItsFieldAsOwnerUntilItsLastFragmentGoes) {
  StrongPtr<Field> field = Field::create<point>();
  StrongPtr<CreativeArrayBase> creator = pointsCreator(4);
  ASSERT_TRUE(field->setCreator(creator));
  EXPECT_EQ(Ostrak::dynamic_pointer_cast<Field>(creator->firstLiveOwner().lock()), field);
  StrongPtr<CreativeArrayBase> replacement = pointsCreator(5);
  ASSERT_TRUE(field->setCreator(replacement));
  EXPECT_FALSE(creator->isOwnedBy(*field));
  EXPECT_TRUE(replacement->isOwnedBy(*field));

  auto a = fragment("a"), b = fragment("b");
  field->setCreator(creator, a);
  field->setCreator(creator, b);
  field->setCreator(nullptr, a);
  EXPECT_TRUE(creator->isOwnedBy(*field));
  field->setCreator(nullptr, b);
  EXPECT_FALSE(creator->isOwnedBy(*field));
  EXPECT_EQ(field->nFragments(), 1u);

  StrongPtr<Field> vectors = Field::create<tvector>();
  EXPECT_FALSE(vectors->setCreator(pointsCreator(3))) << "another element type";
  EXPECT_EQ(vectors->nFragments(), 0u);
}

TEST(Field, emptyFragmentAddressesUnfragmentedOrSoleFragmentOnly) {
  StrongPtr<Field> positions = Field::create<point>();
  EXPECT_FALSE(positions->getData());
  auto uniform = StrongPtr<UniformCartesianArray>(
      new UniformCartesianArray(point{}, tvector{1, 1, 1}, {2, 2, 2}));
  positions->setCreator(StrongPtr<MemCreator>(new MemCreator(uniform)));
  EXPECT_EQ(positions->getData(), uniform);

  StrongPtr<Field> blocks = Field::create<point>();
  auto first = fragment("block0");
  blocks->setCreator(pointsCreator(2), first);
  EXPECT_EQ(blocks->getCreator(), blocks->getCreator(first));
  blocks->setCreator(pointsCreator(2), fragment("block1"));
  EXPECT_FALSE(blocks->getCreator() || blocks->getData());
  EXPECT_TRUE(blocks->getData(first));
  EXPECT_FALSE(blocks->getData(fragment("block0"))) << "fragments are identities, not names";
}

TEST(Field, iterationStopsOnFalseAndHonoursSelector) {
  struct Recorder : FragmentIterator {
    std::vector<StrongPtr<FragmentID>> visited;
    size_t stopAfter = 1000;
    bool apply(const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>&) override {
      visited.push_back(id);
      return visited.size() < stopAfter;
    }
  };
  StrongPtr<Field> field = Field::create<point>();
  std::vector<StrongPtr<FragmentID>> fragments;
  for (int i = 0; i < 4; ++i) {
    fragments.push_back(fragment("f" + std::to_string(i)));
    field->setCreator(pointsCreator(1), fragments.back());
  }
  Recorder all, stopping, selected;
  EXPECT_EQ(field->iterate(all), 4);
  stopping.stopAfter = 2;
  EXPECT_EQ(field->iterate(stopping), 1);
  EXPECT_EQ(stopping.visited.size(), 2u);
  auto selector = StrongPtr<FragmentSelector>(new FragmentSelector{fragments[2]});
  EXPECT_EQ(field->iterate(selected, selector), 1);
  EXPECT_EQ(selected.visited, std::vector<StrongPtr<FragmentID>>{fragments[2]});
}

TEST(Field, getDataTurnsCachingOn) {
  StrongPtr<Field> field = Field::create<double>();
  auto creator = StrongPtr<DeferredCreator>(new DeferredCreator(
      QuarilTypeBase::getType<double>(), DynamicSize{2},
      [] { return StrongPtr<MemBase, Cacheable>(new MemArray<1, double>({2})); }));
  creator->setCaching(false);
  field->setCreator(creator);
  ASSERT_TRUE(field->getData());
  EXPECT_TRUE(creator->isCaching());
}

}  // namespace
}  // namespace Quaril
