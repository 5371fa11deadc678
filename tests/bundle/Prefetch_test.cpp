#include "bundle/Prefetch.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "BundleFixture.hpp"

namespace Quaril::Testing {
namespace {

/// Producers that wait, each, until `needed` of them run at once (or a
/// few seconds have passed): with fewer threads the wait runs out.
struct Meeting {
  std::mutex mutex;
  std::condition_variable changed;
  int running = 0, met = 0, needed = 2;

  bool meet() {
    std::unique_lock<std::mutex> lock(mutex);
    ++running;
    changed.notify_all();
    const bool together = changed.wait_for(lock, std::chrono::seconds(10),
                                           [&] { return running >= needed || met > 0; });
    if (together) ++met;
    return together;
  }
};

TEST(Prefetch, producesEachArrayOfTheChosenSlicesOnceOverSeveralThreads) {
  BundlePtr bundle;
  bundle.create();
  Meeting meeting;
  std::vector<StrongPtr<DeferredCreator>> creators;  // by time 1, 2, 3; two fields each
  for (double t : {1.0, 2.0, 3.0}) {
    Grid& grid = gridIn(bundle, t, "cloud");
    makePointCloud(grid, {{t, 0, 0}});
    for (const char* name : {"good", "bad"}) {
      const bool fails = std::string(name) == "bad" && t == 3.0;
      auto creator = StrongPtr<DeferredCreator>(
          new DeferredCreator(QuarilTypeBase::getType<double>(), DynamicSize{1},
                              [&meeting, fails, t]() -> StrongPtr<MemBase, Cacheable> {
                                if (!meeting.meet()) return {};
                                if (fails) throw ProductionFailure("damaged");
                                auto values = MemArray<1, double>::create(DynamicSize{1});
                                (*values)[0] = t;
                                return values;
                              }));
      StrongPtr<Field> field = Field::create<double>();
      field->setCreator(creator);
      grid.getCartesianRepresentation()->setField(name, field);
      creators.push_back(creator);
    }
  }
  // Slices 2 and 3 only: four arrays, one of which fails.
  EXPECT_EQ(prefetch(*bundle, 4, 1.5, 3.0), 1u);
  EXPECT_GE(meeting.met, 2) << "the producers did not run at the same time";
  for (size_t i = 0; i < creators.size(); ++i) {
    EXPECT_EQ(creators[i]->productions(), i < 2 ? 0u : 1u) << i;
    EXPECT_EQ(creators[i]->isResident(), i >= 2 && i != 5) << i;
  }
  EXPECT_EQ(creators[5]->lastError(), "damaged");
  // What is held is not read again; one thread does the rest.
  EXPECT_EQ(prefetch(*bundle, 1), 1u) << "the failed one is tried again";
  EXPECT_EQ(creators[2]->productions(), 1u);
  EXPECT_EQ(creators[0]->productions(), 1u);
  EXPECT_EQ(creators[5]->productions(), 2u);
  EXPECT_EQ(prefetch(*bundle, 0, 9, 10), 0u) << "no slice in the range";
}

}  // namespace
}  // namespace Quaril::Testing
