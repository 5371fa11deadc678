#include "field/CreativeArrayBase.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "ostrak/Diagnostics.hpp"

namespace {

using Quaril::Cacheable;
using Quaril::DeferredCreator;
using Quaril::DynamicSize;
using Quaril::MemArray;
using Quaril::MemBase;
using Quaril::MemCreator;
using Quaril::QuarilTypeBase;
using Quaril::StrongPtr;

StrongPtr<MemBase, Cacheable> tenDoubles() {
  return StrongPtr<MemArray<1, double>>(new MemArray<1, double>({10}));
}

StrongPtr<DeferredCreator> deferredDoubles(DeferredCreator::Producer producer) {
  return StrongPtr<DeferredCreator>(
      new DeferredCreator(QuarilTypeBase::getType<double>(), DynamicSize{10}, std::move(producer)));
}

// Collects the object core's reports for the duration of a test.
class DiagnosticsCapture {
 public:
  DiagnosticsCapture()
      : previous_(Ostrak::setDiagnosticsSink(
            [this](Ostrak::Diagnostic, const std::string& text) { texts.push_back(text); })) {}
  ~DiagnosticsCapture() { Ostrak::setDiagnosticsSink(previous_); }
  std::vector<std::string> texts;

 private:
  Ostrak::DiagnosticsSink previous_;
};

TEST(DeferredCreator, producesOnceThenAgainOnlyAfterDrop) {
  auto creator = deferredDoubles(tenDoubles);
  EXPECT_TRUE(creator->isProducible());
  EXPECT_FALSE(creator->isResident());
  EXPECT_EQ(creator->productions(), 0u);

  StrongPtr<MemBase, Cacheable> first = creator->getData();
  ASSERT_TRUE(first);
  EXPECT_EQ(creator->getData(), first);
  EXPECT_EQ(creator->productions(), 1u);
  EXPECT_TRUE(creator->isResident());
  EXPECT_GT(first->getLastUse(), 0u);

  creator->dropCache();
  EXPECT_FALSE(creator->isResident());
  StrongPtr<MemBase, Cacheable> second = creator->getData();
  ASSERT_TRUE(second);
  EXPECT_NE(second, first);
  EXPECT_EQ(creator->productions(), 2u);

  creator->setCaching(false);
  EXPECT_FALSE(creator->isResident());
  creator->getData();
  creator->getData();
  EXPECT_EQ(creator->productions(), 4u);
  EXPECT_FALSE(creator->isResident());
}

TEST(DeferredCreator, failingProducersYieldNullWithoutEscaping) {
  DiagnosticsCapture capture;
  auto throwing = deferredDoubles(
      []() -> StrongPtr<MemBase, Cacheable> { throw std::runtime_error("file vanished"); });
  EXPECT_NO_THROW(EXPECT_FALSE(throwing->getData()));
  EXPECT_NE(throwing->lastError().find("file vanished"), std::string::npos);
  ASSERT_EQ(capture.texts.size(), 1u);

  auto empty = deferredDoubles([] { return StrongPtr<MemBase, Cacheable>(); });
  EXPECT_FALSE(empty->getData());
  EXPECT_FALSE(empty->lastError().empty());

  auto wrongType =
      deferredDoubles([] { return StrongPtr<MemBase, Cacheable>(new MemArray<1, float>({10})); });
  EXPECT_FALSE(wrongType->getData());
  EXPECT_NE(wrongType->lastError().find("float"), std::string::npos);

  auto none = deferredDoubles(nullptr);
  EXPECT_FALSE(none->isProducible());
  EXPECT_FALSE(none->getData());

  // A producer that asks its own creator must not deadlock.
  DeferredCreator* self = nullptr;
  auto reentrant = deferredDoubles([&self] { return self->getData(); });
  self = reentrant.get();
  EXPECT_FALSE(reentrant->getData());

  // After a failure a working producer result clears the error.
  bool fail = true;
  auto flaky =
      deferredDoubles([&fail] { return fail ? StrongPtr<MemBase, Cacheable>() : tenDoubles(); });
  EXPECT_FALSE(flaky->getData());
  fail = false;
  EXPECT_TRUE(flaky->getData());
  EXPECT_TRUE(flaky->lastError().empty());
}

TEST(CreativeArrayBase, memoryCountersFollowProductionAndDrop) {
  auto creator = deferredDoubles(tenDoubles);
  unsigned long long resident = 0, producible = 0;
  creator->getMemoryUsage(resident, producible);
  EXPECT_EQ(resident, 0u);
  EXPECT_EQ(producible, 80u);

  StrongPtr<MemBase, Cacheable> data = creator->getData();
  resident = producible = 0;
  creator->getMemoryUsage(resident, producible);
  EXPECT_EQ(resident, 80u);
  EXPECT_EQ(producible, 0u);

  creator->dropCache();
  resident = producible = 0;
  creator->getMemoryUsage(resident, producible);
  EXPECT_EQ(resident, 0u);
  EXPECT_EQ(producible, 80u);

  // Counters accumulate, so one pair can sum a whole grid.
  creator->getMemoryUsage(resident, producible);
  EXPECT_EQ(producible, 160u);

  auto unknownSize = StrongPtr<DeferredCreator>(
      new DeferredCreator(QuarilTypeBase::getType<double>(), DynamicSize(), tenDoubles));
  resident = producible = 0;
  unknownSize->getMemoryUsage(resident, producible);
  EXPECT_EQ(producible, 0u);
  unknownSize->getData();
  EXPECT_EQ(unknownSize->getSize(), DynamicSize{10});
}

TEST(MemCreator, keepsItsContentThroughDropAndRefusesNull) {
  StrongPtr<MemBase, Cacheable> data = tenDoubles();
  StrongPtr<MemCreator> creator(new MemCreator(data));
  EXPECT_TRUE(creator->isProducible());
  EXPECT_TRUE(creator->getTypeDescriptor().is<double>());
  creator->dropCache();
  creator->setCaching(false);
  EXPECT_TRUE(creator->isResident());
  EXPECT_EQ(creator->getData(), data);
  unsigned long long resident = 0, producible = 0;
  creator->getMemoryUsage(resident, producible);
  EXPECT_EQ(resident, 80u);

  StrongPtr<MemCreator> empty(new MemCreator(nullptr));
  EXPECT_FALSE(empty->isProducible());
  EXPECT_FALSE(empty->getData());
  EXPECT_TRUE(empty->getTypeDescriptor().is<void>());
}

}  // namespace
