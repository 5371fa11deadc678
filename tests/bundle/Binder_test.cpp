#include "bundle/Binder.hpp"

#include <gtest/gtest.h>

#include "BundleFixture.hpp"

namespace Quaril::Testing {
namespace {

TEST(BundleBindTo, addsDefaultParametersOnlyWhenNoLiveOnesCameAndBindToNewAlwaysDoes) {
  SaverRegistration savers;
  Bundle neverHeld;  // no creator attached a saver to it
  EXPECT_EQ(neverHeld.bindTo("unbound.mem").status, 0);
  BundlePtr bundle;
  bundle.create();
  Bundle::BindingResult result = bundle->bindTo("existing.mem");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.text, "bound to existing.mem");
  EXPECT_TRUE(bundle->getStorage());
  StrongPtr<Ostrak::LoaderParameters> loaded(new Ostrak::LoaderParameters("existing.mem"));
  StrongPtr<Binder::Parameters> given(new Binder::Parameters(loaded, false));
  bundle->bindTo("given.mem", StrongPtr<StorageTransformations>(), given);
  bundle->bindTo("dead.mem", deadHandle<Ostrak::InterfaceBase, Binder::Parameters>(false));
  StrongPtr<StorageTransformations> policy(new StorageTransformations);
  EXPECT_EQ(bundle->bindToNew("new.mem", policy).status, 2);

  const auto& binds = savers.log->binds;
  ASSERT_EQ(binds.size(), 4u);
  auto parameters = [&](size_t i) { return Binder::Parameters::of(binds[i]); };
  EXPECT_TRUE(parameters(0)->bindsExistingFile() && parameters(2)->bindsExistingFile());
  EXPECT_EQ(parameters(1), given);
  EXPECT_EQ(parameters(1)->getLoadRequest(), loaded);
  EXPECT_FALSE(parameters(3)->bindsExistingFile());
  EXPECT_EQ(binds[3]->findInterface<StorageTransformations>(), policy);
  EXPECT_TRUE(binds[0]->numberOfInterfaces() == 1 && binds[1]->numberOfInterfaces() == 1);
  EXPECT_TRUE(savers.log->saves.empty());  // binding is no one-time save
  bundle.reset();
  EXPECT_EQ(savers.log->synchronizations, 1) << "a bound bundle syncs once at its end";
}

}  // namespace
}  // namespace Quaril::Testing
