#include "bundle/StorageTransformations.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "PersistenceFixture.hpp"

namespace QuarilTest {
namespace {

using Quaril::DynamicSize;
using Quaril::FilterSettings;
using Quaril::SkeletonID;
using Quaril::StorageTransformations;

// The arguments of the fragment-level hooks.
struct Fragment {
  Quaril::Field field{Quaril::QuarilTypeBase::getType<double>()};
  StrongPtr<Quaril::CreativeArrayBase> data{new Quaril::MemCreator({})};
  StrongPtr<Quaril::FragmentID> fragment{new Quaril::FragmentID("block0")};
  Quaril::FieldID fieldID{"density"};
  WeakPtr<Quaril::Grid> grid;

  FilterSettings filter(const StorageTransformations& policy) const {
    return policy.getFilterSettings(1.5, "mesh", grid, {}, "", field, "density", *data, fragment);
  }
  FilterSettings filterWithMemory(const StorageTransformations& policy) const {
    return policy.getFilterSettings(1.5, "mesh", grid, {}, "", field, "density", *data, fragment,
                                    {});
  }
};

TEST(StorageTransformations, defaultsWriteEverythingUnfilteredInOneChunkInline) {
  StorageTransformations policy;
  Fragment f;
  const double nan = std::numeric_limits<double>::quiet_NaN();
  for (double t : {0.0, -1e300, nan, std::numeric_limits<double>::infinity()}) {
    EXPECT_TRUE(policy.isSaveableTime(t));
    EXPECT_TRUE(policy.isSaveableField(f.fieldID, f.field, f.grid, "", t, "", {}));
    EXPECT_TRUE(policy.isSaveableFragment({}, {}, f.fieldID, f.field, f.grid, "", t, "", {-1, 0}));
  }
  EXPECT_FALSE(policy.SkipStorage(0, "", f.grid, {}, "", f.field, "", *f.data, f.fragment));
  EXPECT_FALSE(policy.EnableNumericalShift("density", {}) ||
               policy.WriteAsSinglePrecision("density", {}) ||
               policy.ComputeRangeAttributeOnWriting("density", *f.data));
  EXPECT_EQ(policy.getExternalLocation(0, "mesh", {}, "", "density"),
            (std::pair<std::string, std::string>()));
  EXPECT_EQ(policy.getExternalLocationPrefix(0, "mesh", {}, "", "density"), "");
  for (uint32_t elementBytes : {0u, 8u, 0xffffffffu})
    EXPECT_EQ(policy.computeChunkSize(DynamicSize{7, 3, 2}, elementBytes), (DynamicSize{7, 3, 2}));

  FilterSettings settings = f.filterWithMemory(policy);
  EXPECT_TRUE(settings.filter == 0 && settings.level == 16 && settings.minimumBytes == -1 &&
              settings.parameters == decltype(settings.parameters){} && settings.flags == 0);

  EXPECT_FALSE(policy.getIOPerformance());
  EXPECT_EQ(policy.getChunkByteLimit(), -1);
  EXPECT_EQ(policy.getCompressionLevel(), -1);
  EXPECT_EQ(policy.getMaximumThreads(), -1);
  EXPECT_FALSE(policy.getOverwrite() || policy.getVerbose() || policy.getExternalFileReferences());
  EXPECT_TRUE(policy.getSaveAttributes());
  EXPECT_EQ(policy.getBytesWritten(), 0u);
  EXPECT_EQ(policy.getLayoutVersion(), (std::array<uint32_t, 2>{0, 0}));
  EXPECT_TRUE(policy.writtenTimes().empty() && policy.writtenFields().empty() &&
              policy.writtenGrids().empty() && policy.empty());
  EXPECT_EQ(policy.max_load_factor(), 1.0f);
}

TEST(StorageTransformations, externalFileReferenceFollowsItsSwitchByteForByte) {
  StorageTransformations policy;
  const std::string withNul("part\0two.h5", 11);
  EXPECT_EQ(policy.getExternalFileReference("source", withNul), "");
  policy.setExternalFileReferences(true);
  EXPECT_EQ(policy.getExternalFileReference("ignored", withNul), withNul);
  EXPECT_EQ(policy.getExternalFileReference("ignored", ""), "");
}

TEST(StorageTransformations, filterSettingsWithMemoryHonourAnOverrideWithout) {
  struct Compressing : StorageTransformations {
    using StorageTransformations::getFilterSettings;
    FilterSettings getFilterSettings(double, const std::string& gridName,
                                     const WeakPtr<Quaril::Grid>&, const SkeletonID&,
                                     const std::string&, const Quaril::Field&, const std::string&,
                                     Quaril::CreativeArrayBase&,
                                     const StrongPtr<Quaril::FragmentID>&) const override {
      FilterSettings settings;
      settings.filter = gridName == "mesh" ? 1 : 2;
      return settings;
    }
  };
  Fragment f;
  EXPECT_EQ(f.filterWithMemory(Compressing()).filter, 1u);
  EXPECT_EQ(f.filterWithMemory(StorageTransformations()), FilterSettings());
  EXPECT_EQ(f.filter(StorageTransformations()), FilterSettings());
}

// ---- saving through the savers attached to a bundle --------------------------------

TEST(BundleSave, saversFindThePolicyAndProgressSinkAndRunWithoutThem) {
  SaverRegistration savers;
  BundlePtr bundle;
  bundle.create();
  StrongPtr<StorageTransformations> policy(new StorageTransformations);
  StrongPtr<Quaril::BundleLoaderProgress> progress(new Quaril::BundleLoaderProgress);

  EXPECT_TRUE(bundle.save("out.mem", progress, policy));
  auto dead = deadHandle<StorageTransformations, StorageTransformations>();
  EXPECT_TRUE(bundle->save("bare.mem", {}, dead));
  savers.log->answer = false;
  EXPECT_FALSE(bundle.save("refused.mem"));

  const auto& saves = savers.log->saves;
  ASSERT_EQ(saves.size(), 3u);
  EXPECT_EQ(saves[0].filename, "out.mem");
  EXPECT_EQ(saves[0].transformations, policy);
  EXPECT_EQ(saves[0].progress, progress);
  EXPECT_FALSE(saves[0].grids || saves[0].parameters);
  EXPECT_EQ(saves[1].interfaces, 0u);
  EXPECT_TRUE(savers.log->binds.empty());
}

TEST(BundlePtrSaveGrids, answersMinusOneZeroOrOneAndNamesTheGrids) {
  SaverRegistration savers;
  StrongPtr<Ostrak::StringList> names(new Ostrak::StringList{"mesh", "particles"});
  BundlePtr empty;
  EXPECT_EQ(empty.saveGrids("grids.mem", names), -1);
  EXPECT_FALSE(empty.save("whole.mem"));
  EXPECT_FALSE(empty);

  BundlePtr bundle;
  bundle.create();
  StrongPtr<StorageTransformations> policy(new StorageTransformations);
  EXPECT_EQ(bundle.saveGrids("grids.mem", names, {}, policy), 1);
  EXPECT_EQ(bundle.saveGrids("whole.mem", {}), 1);
  savers.log->answer = false;
  EXPECT_EQ(bundle.saveGrids("grids.mem", names), 0);
  EXPECT_EQ(bundle.saveGrids("whole.mem", {}), 0);

  const auto& saves = savers.log->saves;
  ASSERT_EQ(saves.size(), 4u);
  ASSERT_TRUE(saves[0].grids);
  EXPECT_EQ(saves[0].grids->getGridNames(), names);
  EXPECT_EQ(saves[0].transformations, policy);
  EXPECT_FALSE(saves[1].grids);
  EXPECT_EQ(saves[1].filename, "whole.mem");
}

}  // namespace
}  // namespace QuarilTest
