#include "field/CreativeArrayBase.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "ostrak/Diagnostics.hpp"

namespace Quaril {
namespace {

StrongPtr<MemBase, Cacheable> tenDoubles() {
  return StrongPtr<MemArray<1, double>>(new MemArray<1, double>({10}));
}

StrongPtr<DeferredCreator> deferredDoubles(DeferredCreator::Producer producer,
                                           DynamicSize size = DynamicSize{10}) {
  return StrongPtr<DeferredCreator>(
      new DeferredCreator(QuarilTypeBase::getType<double>(), size, std::move(producer)));
}

/// The (resident, producible) byte counts of `creator`.
std::pair<unsigned long long, unsigned long long> usage(const CreativeArrayBase& creator) {
  unsigned long long resident = 0, producible = 0;
  creator.getMemoryUsage(resident, producible);
  return {resident, producible};
}

TEST(DeferredCreator, producesOnceThenAgainOnlyAfterDropOrWithoutCaching) {
  auto creator = deferredDoubles(tenDoubles);
  EXPECT_EQ(usage(*creator), std::pair(0ull, 80ull));
  StrongPtr<MemBase, Cacheable> first = creator->getData();
  EXPECT_EQ(creator->getData(), first);
  EXPECT_EQ(creator->productions(), 1u);
  EXPECT_GT(first->getLastUse(), 0u);
  EXPECT_EQ(usage(*creator), std::pair(80ull, 0ull));
  creator->dropCache();
  EXPECT_FALSE(creator->isResident());
  EXPECT_NE(creator->getData(), first);
  creator->setCaching(false);
  EXPECT_FALSE(creator->isResident());
  creator->getData();
  EXPECT_EQ(creator->productions(), 3u);

  auto unknownSize = deferredDoubles(tenDoubles, DynamicSize());
  EXPECT_EQ(usage(*unknownSize), std::pair(0ull, 0ull));
  unknownSize->getData();
  EXPECT_EQ(unknownSize->getSize(), DynamicSize{10});
}

TEST(DeferredCreator, failingProducersYieldNullWithAReasonWithoutEscaping) {
  std::vector<std::string> reports;
  Ostrak::DiagnosticsSink previous = Ostrak::setDiagnosticsSink(
      [&](Ostrak::Diagnostic, const std::string& text) { reports.push_back(text); });
  auto throwing = deferredDoubles(
      []() -> StrongPtr<MemBase, Cacheable> { throw std::runtime_error("file vanished"); });
  EXPECT_NO_THROW(EXPECT_FALSE(throwing->getData()));
  EXPECT_NE(throwing->lastError().find("file vanished"), std::string::npos);
  EXPECT_EQ(reports.size(), 1u);
  // A producer that says why it cannot produce is no failing hook: its
  // reason is kept as it is, and nothing is reported.
  auto damaged = deferredDoubles(
      []() -> StrongPtr<MemBase, Cacheable> { throw ProductionFailure("a.h5: bad checksum"); });
  EXPECT_FALSE(damaged->getData());
  EXPECT_EQ(damaged->lastError(), "a.h5: bad checksum");
  EXPECT_EQ(reports.size(), 1u);
  Ostrak::setDiagnosticsSink(previous);

  auto wrongType =
      deferredDoubles([] { return StrongPtr<MemBase, Cacheable>(new MemArray<1, float>({10})); });
  EXPECT_FALSE(wrongType->getData());
  EXPECT_NE(wrongType->lastError().find("float"), std::string::npos);
  auto none = deferredDoubles(nullptr);
  EXPECT_FALSE(none->isProducible() || none->getData());
  DeferredCreator* self = nullptr;  // a producer asking its own creator must not deadlock
  auto reentrant = deferredDoubles([&self] { return self->getData(); });
  self = reentrant.get();
  EXPECT_FALSE(reentrant->getData());

  bool fail = true;  // an empty result is a failure; a later success clears it
  auto flaky =
      deferredDoubles([&fail] { return fail ? StrongPtr<MemBase, Cacheable>() : tenDoubles(); });
  EXPECT_FALSE(flaky->getData());
  EXPECT_FALSE(flaky->lastError().empty());
  fail = false;
  EXPECT_TRUE(flaky->getData());
  EXPECT_TRUE(flaky->lastError().empty());
}

TEST(MemCreator, keepsItsContentThroughDropAndRefusesNull) {
  StrongPtr<MemBase, Cacheable> data = tenDoubles();
  StrongPtr<MemCreator> creator(new MemCreator(data));
  creator->dropCache();
  creator->setCaching(false);
  EXPECT_EQ(creator->getData(), data);
  EXPECT_EQ(usage(*creator), std::pair(80ull, 0ull));
  StrongPtr<MemCreator> empty(new MemCreator(nullptr));
  EXPECT_FALSE(empty->isProducible() || empty->getData());
  EXPECT_TRUE(empty->getTypeDescriptor().is<void>());
}

}  // namespace
}  // namespace Quaril
