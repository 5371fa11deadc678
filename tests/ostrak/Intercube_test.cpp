#include "ostrak/Intercube.hpp"

#include <gtest/gtest.h>

#include <functional>

using Ostrak::StrongPtr;

namespace {

struct Color {};
struct Shape {};
struct Sound {};

// An interface that answers a fixed value, counts its visits and may act when visited.
template <class Tag>
struct Answering : Ostrak::Interface<Tag> {
  explicit Answering(bool answer, std::function<void()> act = {}) : answer(answer), act(act) {}
  bool apply(const StrongPtr<Ostrak::InterfaceIterationParameter>&) override {
    if (act) act();
    return ++visits, answer;
  }
  bool apply_const(const StrongPtr<Ostrak::InterfaceIterationParameter>&) const override {
    return ++visits, answer;
  }
  bool answer;
  std::function<void()> act;
  mutable int visits = 0;
};

template <class Tag>
StrongPtr<Answering<Tag>> make(bool answer, std::function<void()> act = {}) {
  return StrongPtr<Answering<Tag>>(new Answering<Tag>(answer, std::move(act)));
}

}  // namespace

TEST(Intercube, NullInterfaceIsIgnoredAndASecondOfOneTypeReplacesTheFirst) {
  Ostrak::Intercube cube;
  cube.addInterface(StrongPtr<Ostrak::InterfaceBase>());
  EXPECT_EQ(cube.numberOfInterfaces(), 0u);
  auto first = make<Color>(false), second = make<Color>(true);
  cube.addInterface(first);
  cube.addInterface(second);
  EXPECT_EQ(cube.numberOfInterfaces(), 1u);
  EXPECT_EQ(first.strongCount(), 1);  // the replaced interface was released
  EXPECT_EQ((cube.findInterface<Color, Answering<Color>>().get()), second.get());
  EXPECT_FALSE((cube.findInterface<Color, Answering<Shape>>()) || cube.findInterface<Shape>());
  Ostrak::Intercube copy = cube;  // copies share the interfaces, not the table
  EXPECT_TRUE(copy.removeInterface(typeid(Color)));
  EXPECT_FALSE(copy.removeInterface(typeid(Color)));
  EXPECT_TRUE(cube.findInterface<Color>());
}

TEST(Intercube, IterationVisitsAllPresentAtItsStartAndAnswersWhetherAnyAnsweredTrue) {
  StrongPtr<Ostrak::InterfaceIterationParameter> parameter(new Ostrak::InterfaceIterationParameter);
  Ostrak::Intercube cube;
  EXPECT_FALSE(cube.iterateInterfaces(parameter));
  auto shape = make<Shape>(false);
  cube.addInterface(shape);
  EXPECT_FALSE(cube.const_iterateInterfaces(parameter));
  auto color = make<Color>(true);
  auto sound = make<Sound>(true, [&] {
    // Detaching the others while visited must not disturb the visit in progress.
    cube.removeInterface(typeid(Color));
    cube.removeInterface(typeid(Shape));
  });
  cube.addInterface(color);
  cube.addInterface(sound);
  EXPECT_TRUE(std::as_const(cube).const_iterateInterfaces(parameter));
  EXPECT_TRUE(cube.iterateInterfaces(parameter));
  // A true answer does not cut the visit short.
  EXPECT_TRUE(shape->visits == 3 && color->visits == 2 && sound->visits == 2);
  EXPECT_EQ(cube.numberOfInterfaces(), 1u);
}
