#include "ostrak/Intercube.hpp"

#include <gtest/gtest.h>

#include <functional>

using Ostrak::InterfaceBase;
using Ostrak::InterfaceIterationParameter;
using Ostrak::StrongPtr;

namespace {

struct Color {};
struct Shape {};
struct Sound {};

// An interface that answers a fixed value and counts its visits.
template <class Tag>
class Answering : public Ostrak::Interface<Tag> {
 public:
  explicit Answering(bool answer, std::function<void()> sideEffect = {})
      : answer_(answer), sideEffect_(std::move(sideEffect)) {}
  bool apply(const StrongPtr<InterfaceIterationParameter>&) override {
    ++visits;
    if (sideEffect_) sideEffect_();
    return answer_;
  }
  bool apply_const(const StrongPtr<InterfaceIterationParameter>&) const override {
    ++constVisits;
    return answer_;
  }
  int visits = 0;
  mutable int constVisits = 0;

 private:
  bool answer_;
  std::function<void()> sideEffect_;
};

template <class Tag>
StrongPtr<Answering<Tag>> make(bool answer, std::function<void()> sideEffect = {}) {
  return StrongPtr<Answering<Tag>>(new Answering<Tag>(answer, std::move(sideEffect)));
}

}  // namespace

TEST(Intercube, NullInterfaceIsIgnoredAndASecondOfOneTypeReplacesTheFirst) {
  Ostrak::Intercube cube;
  cube.addInterface(StrongPtr<InterfaceBase>());
  EXPECT_EQ(cube.numberOfInterfaces(), 0u);

  auto first = make<Color>(false);
  auto second = make<Color>(true);
  cube.addInterface(first);
  cube.addInterface(second);
  EXPECT_EQ(cube.numberOfInterfaces(), 1u);
  EXPECT_TRUE(cube.findInterface(typeid(Color)) == second);
  EXPECT_EQ(first.strongCount(), 1);  // the replaced interface was released

  EXPECT_EQ((cube.findInterface<Color, Answering<Color>>().get()), second.get());
  EXPECT_FALSE((cube.findInterface<Color, Answering<Shape>>()));
  EXPECT_FALSE(cube.findInterface<Shape>());

  // Copies share the interfaces but not the table.
  Ostrak::Intercube copy = cube;
  EXPECT_TRUE(copy.removeInterface(typeid(Color)));
  EXPECT_FALSE(copy.removeInterface(typeid(Color)));
  EXPECT_TRUE(cube.findInterface<Color>());
}

TEST(Intercube, IterationVisitsAllAndAnswersTrueWhenAnyAnswersTrue) {
  Ostrak::Intercube cube;
  StrongPtr<InterfaceIterationParameter> parameter(new InterfaceIterationParameter);
  EXPECT_FALSE(cube.iterateInterfaces(parameter));

  auto color = make<Color>(false);
  auto shape = make<Shape>(false);
  cube.addInterface(color);
  cube.addInterface(shape);
  EXPECT_FALSE(cube.iterateInterfaces(parameter));
  EXPECT_FALSE(cube.const_iterateInterfaces(parameter));

  auto sound = make<Sound>(true);
  cube.addInterface(sound);
  EXPECT_TRUE(cube.iterateInterfaces(parameter));
  EXPECT_TRUE(static_cast<const Ostrak::Intercube&>(cube).const_iterateInterfaces(parameter));

  // An answer of true does not cut the visit short.
  Ostrak::Intercube agreeing;
  auto yesColor = make<Color>(true);
  auto yesShape = make<Shape>(true);
  auto yesSound = make<Sound>(true);
  agreeing.addInterface(yesColor);
  agreeing.addInterface(yesShape);
  agreeing.addInterface(yesSound);
  EXPECT_TRUE(agreeing.iterateInterfaces(parameter));
  EXPECT_TRUE(agreeing.const_iterateInterfaces(parameter));
  EXPECT_EQ(yesColor->visits + yesShape->visits + yesSound->visits, 3);
  EXPECT_EQ(yesColor->constVisits + yesShape->constVisits + yesSound->constVisits, 3);

  // An interface that detaches the others while visited does not disturb
  // the iteration in progress: every interface present at its start answers.
  Ostrak::Intercube changing;
  auto remover = make<Color>(false, [&] {
    changing.removeInterface(typeid(Shape));
    changing.removeInterface(typeid(Sound));
  });
  changing.addInterface(remover);
  changing.addInterface(make<Shape>(false));
  changing.addInterface(make<Sound>(true));
  EXPECT_TRUE(changing.iterateInterfaces(parameter));
  EXPECT_EQ(changing.numberOfInterfaces(), 1u);
}
