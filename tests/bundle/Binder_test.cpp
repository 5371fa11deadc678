#include "bundle/Binder.hpp"

#include <gtest/gtest.h>

#include <string>

#include "BundleFixture.hpp"
#include "PersistenceFixture.hpp"

namespace QuarilTest {
namespace {

using Quaril::Binder;

TEST(BundleBindTo, addsDefaultParametersOnlyWhenNoLiveOnesCame) {
  SaverRegistration savers;
  Bundle neverHeld;  // no creator attached a saver to it
  EXPECT_EQ(neverHeld.bindTo("unbound.mem").status, 0);
  EXPECT_FALSE(neverHeld.getStorage());

  BundlePtr bundle;
  bundle.create();
  Bundle::BindingResult result = bundle->bindTo("existing.mem");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.text, "bound to existing.mem");
  EXPECT_TRUE(bundle->getStorage());

  StrongPtr<Ostrak::LoaderParameters> loaded(new Ostrak::LoaderParameters("existing.mem"));
  StrongPtr<Binder::Parameters> given(new Binder::Parameters(loaded, false));
  bundle->bindTo("given.mem", StrongPtr<Quaril::StorageTransformations>(), given);
  bundle->bindTo("dead.mem", deadHandle<Ostrak::InterfaceBase, Binder::Parameters>(false));

  const auto& binds = savers.log->binds;
  ASSERT_EQ(binds.size(), 3u);
  EXPECT_TRUE(binds[0].parameters->bindsExistingFile());
  EXPECT_FALSE(binds[0].parameters->getLoadRequest());
  EXPECT_EQ(binds[0].interfaces, 1u);
  EXPECT_EQ(binds[1].parameters, given);
  EXPECT_EQ(binds[1].parameters->getLoadRequest(), loaded);
  EXPECT_EQ(binds[1].interfaces, 1u);
  EXPECT_TRUE(binds[2].parameters->bindsExistingFile());
  EXPECT_TRUE(savers.log->saves.empty());  // binding is no one-time save
}

TEST(BundleBindToNew, alwaysSuppliesParametersForANewFile) {
  SaverRegistration savers;
  BundlePtr bundle;
  bundle.create();
  StrongPtr<Quaril::StorageTransformations> policy(new Quaril::StorageTransformations);
  EXPECT_EQ(bundle->bindToNew("new.mem", policy).status, 2);
  bundle->bindToNew("bare.mem");

  const auto& binds = savers.log->binds;
  ASSERT_EQ(binds.size(), 2u);
  EXPECT_FALSE(binds[0].parameters->bindsExistingFile() ||
               binds[1].parameters->bindsExistingFile());
  EXPECT_EQ(binds[0].transformations, policy);
  EXPECT_EQ(binds[1].interfaces, 1u);
}

TEST(BoundBundle, synchronisesOnceAtItsEndAndLeavesPendingSliceLoadersUnrun) {
  SaverRegistration savers;
  int loaderRuns = 0;
  {
    BundlePtr bundle;
    bundle.create();
    bundle->bindTo("bound.mem");
    EXPECT_EQ(bundle->sync(), 1);
    (*bundle)[2.0]->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(loaderRuns, "late")));
  }
  EXPECT_EQ(savers.log->synchronizations, 2);
  EXPECT_EQ(loaderRuns, 0);
}

}  // namespace
}  // namespace QuarilTest
