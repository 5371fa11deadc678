#include "ostrak/ReferenceBase.hpp"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <functional>
#include <latch>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "tests/ostrak/RecordingSink.hpp"

using Ostrak::Diagnostic;
using Ostrak::StrongPtr;
using Ostrak::WeakPtr;
using OstrakTest::RecordingSink;

namespace {

struct Tally {
  std::atomic<int> built{0}, destroyed{0}, unctions{0}, deferred{0}, reachedWhileDying{0};
};

class Probe : public Ostrak::ReferenceBase<Probe> {
 public:
  explicit Probe(Tally& tally) : tally_(tally) { ++tally_.built; }
  Probe(const Probe& other) : ReferenceBase(other), tally_(other.tally_) { ++tally_.built; }
  ~Probe() override {
    // Destruction has begun: no weak handle may reach or bring back the object.
    WeakPtr<Probe> self(this);
    if (self.valid() || self.lock() || Ostrak::strongFromThis(this)) ++tally_.reachedWhileDying;
    ++tally_.destroyed;
  }
  void extremeUnction() override {
    ++tally_.unctions;
    if (onUnction) onUnction(this);
  }
  void DeferredConstructor() override { ++tally_.deferred; }

  std::function<void(Probe*)> onUnction;
  std::atomic<int> uses{0};

 private:
  Tally& tally_;
};

// The reference base is not the first base, so base and derived pointers differ.
struct Padding {
  virtual ~Padding() = default;
  long filler = 0;
};
class Derived : public Padding, public Probe {
 public:
  using Probe::Probe;
};

void use(const StrongPtr<Probe>& handle) {
  if (Probe* object = handle.get()) ++object->uses;
}

template <class Handle>
void expectBehavesAsNull(const Handle& handle) {
  EXPECT_FALSE(handle.valid() || handle || handle.get() || handle.operator->());
  EXPECT_TRUE(handle == nullptr);
  EXPECT_EQ(handle.strongCount() + handle.weakCount(), 0);
  EXPECT_FALSE(Ostrak::dynamic_pointer_cast<Derived>(handle));
}

}  // namespace

TEST(ReferenceBase, InvalidHandlesBehaveAsNullOnes) {
  Tally tally;
  expectBehavesAsNull(StrongPtr<Probe>());
  expectBehavesAsNull(WeakPtr<Probe>(nullptr));
  WeakPtr<Probe> expired = StrongPtr<Probe>(new Probe(tally));
  ASSERT_EQ(tally.destroyed, 1);
  expectBehavesAsNull(expired);
  expectBehavesAsNull(WeakPtr<Probe>(expired));
  EXPECT_TRUE(expired.expired());
  EXPECT_FALSE(expired.lock());

  // An object destroyed under a strong handle (misuse) is reported and the
  // handle turns invalid; releasing it afterwards runs no last rites.
  RecordingSink sink;
  Tally misuse;
  StrongPtr<Probe> dangling;
  {
    Probe onStack(misuse);
    dangling = StrongPtr<Probe>(&onStack);
  }
  EXPECT_EQ(sink.count(Diagnostic::InvalidPointer), 1u);
  expectBehavesAsNull(dangling);
  dangling.reset();
  EXPECT_EQ(misuse.unctions, 0);
}

TEST(ReferenceBase, HandlesOrderByBlockIdentityEvenAfterTheObjectDies) {
  Tally tally;
  std::vector<StrongPtr<Probe>> owners;
  for (int i = 0; i < 8; ++i) owners.emplace_back(new Probe(tally));
  std::set<WeakPtr<Probe>> weak(owners.begin(), owners.end());
  for (size_t i = 0; i < owners.size(); i += 2) owners[i].reset();
  // The set stays searchable and its dead members stay distinct.
  ASSERT_EQ(weak.size(), 8u);
  for (const WeakPtr<Probe>& member : weak) EXPECT_EQ(weak.count(member), 1u);
  for (size_t i = 1; i < owners.size(); i += 2) EXPECT_EQ(weak.count(owners[i]), 1u);

  // Handles through different bases of one object are one identity.
  StrongPtr<Derived> derived(new Derived(tally));
  StrongPtr<Probe> base = derived;
  ASSERT_NE(static_cast<void*>(derived.get()), static_cast<void*>(base.get()));
  EXPECT_TRUE(base == derived && WeakPtr<Probe>(derived) == base);
  EXPECT_EQ(std::hash<StrongPtr<Probe>>{}(base), std::hash<WeakPtr<Derived>>{}(derived));
  // Down-casts: an empty handle on mismatch, the same block on success.
  EXPECT_FALSE(Ostrak::dynamic_pointer_cast<Derived>(owners[1]));
  EXPECT_EQ(owners[1].strongCount(), 1);
  EXPECT_EQ(Ostrak::dynamic_pointer_cast<Derived>(base).get(), derived.get());
  EXPECT_EQ(Ostrak::dynamic_pointer_cast<Derived>(WeakPtr<Probe>(base)).get(), derived.get());
}

TEST(ReferenceBase, EndOfLifeRunsOnceAndWeakHandlesReachTheDyingObject) {
  Tally tally;
  RecordingSink sink;
  auto* raw = new Probe(tally);
  StrongPtr<Probe> owner(raw);
  WeakPtr<Probe> weak(owner);
  raw->onUnction = [&](Probe* self) {
    EXPECT_EQ(weak.get(), self);
    // Handles taken and dropped here must not start a second end of life.
    for (int i = 0; i < 3; ++i) {
      StrongPtr<Probe> promoted = weak.lock();
      EXPECT_EQ(promoted.get(), self);
      StrongPtr<Probe> fromRaw(self);
      EXPECT_TRUE(Ostrak::strongFromThis(self));
    }
  };
  owner.reset();
  EXPECT_TRUE(tally.unctions == 1 && tally.destroyed == 1 && tally.reachedWhileDying == 0);
  EXPECT_TRUE(sink.reports().empty());
  EXPECT_NE(weak.referenceBlock(), nullptr) << "the block outlives the object for weak handles";

  // Last rites that throw are reported; the object is still destroyed.
  auto* throwing = new Probe(tally);
  throwing->onUnction = [](Probe*) { throw std::runtime_error("no rites today"); };
  StrongPtr<Probe>{throwing}.reset();
  EXPECT_EQ(tally.destroyed, 2);
  EXPECT_EQ(sink.count(Diagnostic::HookException), 1u);
}

TEST(ReferenceBase, StrongHandleKeptPastEndOfLifeCancelsDestruction) {
  Tally tally;
  RecordingSink sink;
  auto* raw = new Probe(tally);
  StrongPtr<Probe> owner(raw);
  StrongPtr<Probe> rescued;
  // Were the last rites run a second time, they would rescue the object again.
  raw->onUnction = [&](Probe* self) { rescued = Ostrak::strongFromThis(self); };
  {
    Ostrak::SourceCodeLineGuard marker("ostrak/Example.cpp:12");
    owner.reset();
  }
  EXPECT_TRUE(tally.unctions == 1 && tally.destroyed == 0);
  ASSERT_EQ(sink.count(Diagnostic::CancelledDestruction), 1u);
  const std::string report = sink.reports().front().text;  // names the class and the position
  EXPECT_TRUE(report.find("Probe") != report.npos && report.find("Example.cpp:12") != report.npos)
      << report;
  EXPECT_EQ(rescued.strongCount(), 1);
  WeakPtr<Probe> weak(rescued);
  EXPECT_TRUE(weak.lock());
  rescued.reset();
  EXPECT_TRUE(tally.unctions == 1 && tally.destroyed == 1 && tally.reachedWhileDying == 0);
  EXPECT_EQ(sink.count(Diagnostic::CancelledDestruction), 1u);
  EXPECT_FALSE(weak.lock());
}

TEST(ReferenceBase, DeferredConstructorRunsOnceOnTheFirstRawHandle) {
  Tally tally;
  auto* raw = new Probe(tally);
  WeakPtr<Probe> weak(raw);
  // Nobody holds the object strongly yet: nothing to promote or share.
  EXPECT_FALSE(weak.lock() || Ostrak::strongFromThis(raw));
  EXPECT_EQ(tally.deferred, 0);

  StrongPtr<Probe> first(raw);
  StrongPtr<Probe> copy = first;
  StrongPtr<Probe> again(raw);
  StrongPtr<Probe> promoted = weak.lock();
  StrongPtr<Probe> moved = std::move(copy);
  EXPECT_EQ(tally.deferred, 1);
  EXPECT_TRUE(first.strongCount() == 4 && first.weakCount() == 5);

  // A copy of the object is a new object: its own block, its own initialisation.
  StrongPtr<Probe> twin(new Probe(*raw));
  EXPECT_EQ(tally.deferred, 2);
  EXPECT_EQ(twin.strongCount(), 1);
}

// Every object is held by every thread; the threads copy, promote and drop
// handles while the last holder of each object lets go at an unforeseeable
// moment. A promotion after destruction began, a second end of life or a lost
// count shows in the tallies (and as a use after free under the sanitizers).
TEST(ReferenceBase, ThreadsCopyingPromotingAndDroppingDestroyEveryObjectOnce) {
  constexpr int kThreads = 8, kObjects = 16, kRounds = 30, kSteps = 200;
  RecordingSink sink;  // a promotion may outlive last rites and cancel a destruction
  std::array<Tally, kObjects> tallies;
  for (int round = 0; round < kRounds; ++round) {
    std::vector<StrongPtr<Probe>> owners;
    std::vector<WeakPtr<Probe>> watchers;
    for (Tally& tally : tallies) {
      owners.emplace_back(new Probe(tally));
      // Slow last rites let other threads' promotions land during them.
      owners.back()->onUnction = [](Probe* self) {
        use(WeakPtr<Probe>(self).lock());
        std::this_thread::yield();
      };
      watchers.emplace_back(owners.back());
    }
    std::latch start(kThreads);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
      threads.emplace_back([&, thread, mine = owners]() mutable {
        start.arrive_and_wait();
        for (int step = 0; step < kSteps; ++step) {
          size_t i = static_cast<size_t>(step + thread) % kObjects;
          if (mine[i]) {
            StrongPtr<Probe> again = WeakPtr<Probe>(StrongPtr<Probe>(mine[i])).lock();
            EXPECT_TRUE(again);
            use(again);
            // Each thread lets go at its own moment, so most objects die while
            // other threads still try to promote them.
            if (step >= (thread * 37 + static_cast<int>(i) * 11 + round * 7) % (kSteps / 2))
              mine[i].reset();
          }
          use(watchers[i].lock());
        }
      });
    }
    owners.clear();  // the threads hold the only strong handles now
    for (std::thread& thread : threads) thread.join();
    for (int i = 0; i < kObjects; ++i) {
      EXPECT_EQ(tallies[i].destroyed, round + 1) << "object " << i << " round " << round;
      EXPECT_EQ(tallies[i].unctions, round + 1) << "object " << i << " round " << round;
      // Only the watcher still holds the block, so dropping it frees the block.
      EXPECT_EQ(watchers[i].referenceBlock()->weak.load(), 1);
    }
  }
  for (const Tally& tally : tallies)
    EXPECT_TRUE(tally.built == kRounds && !tally.reachedWhileDying);
}

// A handle taken by another thread during the last rites and dropped as they
// end, or after: whichever drop comes last destroys the object, exactly once,
// and the report of the cancelled destruction never touches the object.
TEST(ReferenceBase, ThreadRescuingDuringLastRitesLetsTheObjectDieOnce) {
  RecordingSink sink;
  Tally tally;
  for (int attempt = 0; attempt < 50; ++attempt) {
    auto* raw = new Probe(tally);
    StrongPtr<Probe> owner(raw);
    WeakPtr<Probe> weak(owner);
    std::atomic<bool> dying{false}, rescued{false};
    raw->onUnction = [&](Probe*) {
      dying = true;
      while (!rescued) std::this_thread::yield();
    };
    std::thread rescuer([&] {
      while (!dying) std::this_thread::yield();
      StrongPtr<Probe> handle = weak.lock();
      EXPECT_TRUE(handle);
      rescued = true;
      // Every other time, hold on until the last rites are over.
      while (attempt % 2 == 1 && handle.strongCount() > 1) std::this_thread::yield();
    });
    owner.reset();
    rescuer.join();
    EXPECT_EQ(tally.destroyed, attempt + 1);
    EXPECT_FALSE(weak.lock());
  }
  EXPECT_EQ(tally.unctions, 50);
  EXPECT_EQ(tally.reachedWhileDying, 0);
  EXPECT_GE(sink.count(Diagnostic::CancelledDestruction), 25u);
}
