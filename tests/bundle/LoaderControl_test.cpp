#include "bundle/LoaderControl.hpp"

#include <gtest/gtest.h>

#include <list>
#include <string>

#include "PersistenceFixture.hpp"

namespace QuarilTest {
namespace {

using Files = std::list<std::string>;

bool hasGrid(BundlePtr& bundle, double t, const std::string& name) {
  return (*bundle)(t) && (*bundle)(t)->operator()(name);
}

TEST(BundlePtrLoad, handleHoldsABundleEvenWhenLoadingFailsAndKeepsWhatItHeld) {
  StrongPtr<MemoryLoader> loader(new MemoryLoader);
  LoaderRegistration registration(loader);

  BundlePtr unknown, broken;
  EXPECT_FALSE(unknown.load("data.unknown"));
  EXPECT_FALSE(broken.load("broken.mem"));
  EXPECT_TRUE(unknown && broken);
  EXPECT_TRUE(unknown->getSlices().empty());

  BundlePtr held;
  Bundle* original = held.create();
  (*(*held)[5.0])["kept"];
  EXPECT_TRUE(held.load(Files{"a.mem", "b.mem"}));
  EXPECT_EQ(held.get(), original);
  EXPECT_EQ(loader->seenTarget, held);
  EXPECT_TRUE(hasGrid(held, 5.0, "kept") && hasGrid(held, 0.0, "a.mem") &&
              hasGrid(held, 1.0, "b.mem"));
}

TEST(BundlePtrLoad, onlyALiveProgressSinkIsAttachedAndLoadingGoesOnWithout) {
  StrongPtr<MemoryLoader> loader(new MemoryLoader);
  LoaderRegistration registration(loader);
  struct Vetoing : Quaril::BundleLoaderProgress {
    bool CreateSlice(double time) override { return time != 1.0; }
  };

  StrongPtr<Vetoing> live(new Vetoing);
  BundlePtr withSink;
  EXPECT_TRUE(withSink.load(Files{"a.mem", "b.mem"}, live));
  EXPECT_EQ(loader->seenProgress, live);  // found under LoaderProgress
  EXPECT_EQ(withSink->getSlices().size(), 1u);

  auto dead = deadHandle<Ostrak::LoaderProgress, Vetoing>();
  ASSERT_FALSE(dead);
  for (const auto& progress : {StrongPtr<Ostrak::LoaderProgress>(), dead}) {
    BundlePtr bundle;
    EXPECT_TRUE(bundle.load(Files{"a.mem", "b.mem"}, progress));
    EXPECT_FALSE(loader->seenProgress);
    EXPECT_EQ(bundle->getSlices().size(), 2u);
  }
}

TEST(BundleMerge, refusedWithoutStrongHandlesOrARequest) {
  StrongPtr<MemoryLoader> loader(new MemoryLoader);
  LoaderRegistration registration(loader);

  Bundle onStack;
  StrongPtr<Ostrak::LoaderParameters> request(new Ostrak::LoaderParameters("a.mem"));
  EXPECT_FALSE(onStack.merge(request));
  EXPECT_EQ(request->getErrorText(), "No strong references on bundle pointer!");
  EXPECT_FALSE(onStack.merge("a.mem"));
  Bundle* fresh = new Bundle;
  EXPECT_FALSE(fresh->merge(Files{"a.mem"}));
  BundlePtr owner(fresh);
  EXPECT_FALSE(owner->merge(StrongPtr<Ostrak::LoaderParameters>()));
  EXPECT_EQ(loader->runs, 0);
  EXPECT_TRUE(onStack.getSlices().empty() && owner->getSlices().empty());

  EXPECT_TRUE(owner->merge("a.mem"));
  EXPECT_EQ(loader->seenTarget, owner);
  EXPECT_TRUE(hasGrid(owner, 0.0, "a.mem"));
  StrongPtr<Ostrak::LoaderParameters> broken(new Ostrak::LoaderParameters("broken.mem"));
  EXPECT_FALSE(owner->merge(broken));
  EXPECT_NE(broken->getErrorText().find("damaged file broken.mem"), std::string::npos);
  loader->seenTarget.reset();
  EXPECT_EQ(owner.strongCount(), 1);  // the merges kept no handle
}

TEST(BundleLoad, returnsTheBundleTheLoaderLeftInTheTarget) {
  struct Replacing : MemoryLoader {
    bool load(const StrongPtr<Ostrak::LoaderParameters>&, ldrpar& target) override {
      target.target = StrongPtr<Bundle>(new Bundle);
      return true;
    }
  };
  LoaderRegistration registration(StrongPtr<Replacing>(new Replacing));
  BundlePtr target;
  target.create();
  bool ok = false;
  StrongPtr<Ostrak::LoaderParameters> request(new Ostrak::LoaderParameters("x.mem"));
  StrongPtr<Bundle> result = Bundle::load(ok, request, target);
  EXPECT_TRUE(ok && result && result != target);

  EXPECT_EQ(Bundle::load(ok, {}, target), target);
  EXPECT_FALSE(ok);
}

TEST(LoaderControl, providesOneGridSlotPerNameAtTimeZero) {
  BundlePtr bundle;
  bundle.create();
  Quaril::LoaderControl control;
  Quaril::Grid* object = control.provideLoadableGrid(*bundle, "");
  Quaril::Grid* mesh = control.provideLoadableGrid(*bundle, "mesh");
  ASSERT_TRUE(object && mesh);
  EXPECT_EQ((*bundle)[0.0]->operator()("Object").get(), object);
  EXPECT_NE(mesh, object);
  EXPECT_EQ(control.provideLoadableGrid(*bundle, "mesh"), mesh);
  EXPECT_EQ(bundle->getSlices().size(), 1u);
}

}  // namespace
}  // namespace QuarilTest
