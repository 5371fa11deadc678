#include "bundle/StorageTransformations.hpp"

#include <gtest/gtest.h>

#include <string>

#include "BundleFixture.hpp"

namespace Quaril::Testing {
namespace {

TEST(StorageTransformations, filterSettingsWithMemoryHonourAnOverrideWithoutIt) {
  struct Compressing : StorageTransformations {
    using StorageTransformations::getFilterSettings;
    FilterSettings getFilterSettings(double, const std::string& gridName, const WeakPtr<Grid>&,
                                     const SkeletonID&, const std::string&, const Field&,
                                     const std::string&, CreativeArrayBase&,
                                     const StrongPtr<FragmentID>&) const override {
      FilterSettings settings;
      settings.filter = gridName == "mesh" ? 1 : 2;
      return settings;
    }
  };
  Field field(QuarilTypeBase::getType<double>());
  MemCreator data(nullptr);
  auto withMemory = [&](const StorageTransformations& policy) {
    return policy.getFilterSettings(1.5, "mesh", {}, {}, "", field, "density", data, {}, {});
  };
  EXPECT_EQ(withMemory(Compressing()).filter, 1u);
  FilterSettings plain = withMemory(StorageTransformations());
  EXPECT_TRUE(plain.filter == 0 && plain.level == 16 && plain.minimumBytes == -1);

  // External file references follow their switch, byte for byte.
  StorageTransformations policy;
  const std::string withNul("part\0two.h5", 11);
  EXPECT_EQ(policy.getExternalFileReference("source", withNul), "");
  policy.setExternalFileReferences(true);
  EXPECT_EQ(policy.getExternalFileReference("ignored", withNul), withNul);
}

TEST(BundleSave, saversSeeThePolicySinkAndGridNamesAndAnswerForTheSave) {
  SaverRegistration savers;
  BundlePtr empty;
  StrongPtr<Ostrak::StringList> names(new Ostrak::StringList{"mesh", "particles"});
  EXPECT_EQ(empty.saveGrids("grids.mem", names), -1);
  EXPECT_FALSE(empty.save("whole.mem") || empty);

  BundlePtr bundle;
  bundle.create();
  StrongPtr<StorageTransformations> policy(new StorageTransformations);
  StrongPtr<BundleLoaderProgress> progress(new BundleLoaderProgress);
  EXPECT_TRUE(bundle.save("out.mem", progress, policy));
  auto dead = deadHandle<StorageTransformations, StorageTransformations>();
  EXPECT_TRUE(bundle->save("bare.mem", {}, dead));
  EXPECT_EQ(bundle.saveGrids("grids.mem", names, {}, policy), 1);
  EXPECT_EQ(bundle.saveGrids("whole.mem", {}), 1);
  savers.log->answer = false;
  EXPECT_FALSE(bundle.save("refused.mem"));
  EXPECT_EQ(bundle.saveGrids("grids.mem", names), 0);

  const auto& saves = savers.log->saves;
  ASSERT_EQ(saves.size(), 6u);
  auto grids = [&](size_t i) { return Ostrak::dynamic_pointer_cast<GridSaveParameters>(saves[i]); };
  EXPECT_EQ(saves[0]->getFilename(), "out.mem");
  EXPECT_EQ(saves[0]->findInterface<StorageTransformations>(), policy);
  EXPECT_EQ(saves[0]->findInterface<Ostrak::LoaderProgress>(), progress);
  EXPECT_FALSE(grids(0) || grids(3) || Binder::Parameters::of(saves[0]));
  EXPECT_EQ(saves[1]->numberOfInterfaces(), 0u);  // a dead policy is left out
  EXPECT_EQ(grids(2)->getGridNames(), names);
}

}  // namespace
}  // namespace Quaril::Testing
