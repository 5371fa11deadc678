#include "bundle/LoaderControl.hpp"

#include <gtest/gtest.h>

#include <list>
#include <string>

#include "BundleFixture.hpp"

namespace Quaril::Testing {
namespace {

using Files = std::list<std::string>;

bool hasGrid(BundlePtr& bundle, double t, const std::string& name) {
  SlicePtr slice = (*bundle)(t);
  return slice && (*slice)(name);
}

TEST(BundlePtrLoad, handleHoldsABundleEvenWhenLoadingFailsAndKeepsWhatItHeld) {
  LoaderRegistration registration;
  BundlePtr unknown, broken;
  EXPECT_FALSE(unknown.load("data.unknown") || broken.load("broken.mem"));
  EXPECT_TRUE(unknown && broken);
  EXPECT_TRUE(unknown->getSlices().empty());
  BundlePtr held;
  Bundle* original = held.create();
  (*(*held)[5.0])["kept"];
  EXPECT_TRUE(held.load(Files{"a.mem", "b.mem"}));
  EXPECT_EQ(held.get(), original);
  EXPECT_TRUE(hasGrid(held, 5.0, "kept") && hasGrid(held, 0.0, "a.mem") &&
              hasGrid(held, 1.0, "b.mem"));
}

TEST(BundlePtrLoad, onlyALiveProgressSinkIsAttachedAndLoadingGoesOnWithout) {
  LoaderRegistration registration;
  struct Vetoing : BundleLoaderProgress {
    bool CreateSlice(double time) override { return time != 1.0; }
  };
  StrongPtr<Vetoing> live(new Vetoing);
  for (const auto& progress :
       {StrongPtr<Ostrak::LoaderProgress>(live), StrongPtr<Ostrak::LoaderProgress>(),
        deadHandle<Ostrak::LoaderProgress, Vetoing>()}) {
    BundlePtr bundle;
    EXPECT_TRUE(bundle.load(Files{"a.mem", "b.mem"}, progress));
    EXPECT_EQ(registration.loader->seenProgress, progress ? live : nullptr);
    EXPECT_EQ(bundle->getSlices().size(), progress ? 1u : 2u);
  }
}

TEST(BundleMerge, refusedWithoutStrongHandlesOrARequestAndKeepsNoHandle) {
  LoaderRegistration registration;
  Bundle onStack;
  StrongPtr<Ostrak::LoaderParameters> request(new Ostrak::LoaderParameters("a.mem"));
  EXPECT_FALSE(onStack.merge(request));
  EXPECT_EQ(request->getErrorText(), "No strong references on bundle pointer!");
  Bundle* fresh = new Bundle;
  EXPECT_FALSE(fresh->merge(Files{"a.mem"}));
  BundlePtr owner(fresh);
  EXPECT_FALSE(owner->merge(StrongPtr<Ostrak::LoaderParameters>()));
  EXPECT_EQ(registration.loader->runs, 0);
  EXPECT_TRUE(owner->merge("a.mem"));
  EXPECT_TRUE(hasGrid(owner, 0.0, "a.mem"));
  StrongPtr<Ostrak::LoaderParameters> broken(new Ostrak::LoaderParameters("broken.mem"));
  EXPECT_FALSE(owner->merge(broken));
  EXPECT_NE(broken->getErrorText().find("damaged file broken.mem"), std::string::npos);
  registration.loader->seenTarget.reset();
  EXPECT_EQ(owner.strongCount(), 1);
}

TEST(LoaderControl, providesOneGridSlotPerNameAtTimeZero) {
  BundlePtr bundle;
  bundle.create();
  LoaderControl control;
  Grid* object = control.provideLoadableGrid(*bundle, "");
  Grid* mesh = control.provideLoadableGrid(*bundle, "mesh");
  EXPECT_EQ((*(*bundle)[0.0])("Object").get(), object);
  EXPECT_NE(mesh, object);
  EXPECT_EQ(control.provideLoadableGrid(*bundle, "mesh"), mesh);
  EXPECT_EQ(bundle->getSlices().size(), 1u);
}

}  // namespace
}  // namespace Quaril::Testing
