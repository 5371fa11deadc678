#include "ostrak/ReferenceBase.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <functional>
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
  std::atomic<int> built{0};
  std::atomic<int> destroyed{0};
  std::atomic<int> unctions{0};
  std::atomic<int> deferred{0};
  std::atomic<int> reachedWhileDying{0};
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

// Touches the object through a handle that may be empty.
void use(const StrongPtr<Probe>& handle) {
  if (Probe* object = handle.get()) ++object->uses;
}

template <class Handle>
void expectBehavesAsNull(const Handle& handle) {
  EXPECT_FALSE(handle.valid());
  EXPECT_FALSE(handle);
  EXPECT_TRUE(!handle);
  EXPECT_TRUE(handle == nullptr);
  EXPECT_EQ(handle.get(), nullptr);
  EXPECT_EQ(handle.operator->(), nullptr);
  EXPECT_EQ(handle.strongCount(), 0);
  EXPECT_EQ(handle.weakCount(), 0);
  EXPECT_FALSE(Ostrak::dynamic_pointer_cast<Derived>(handle));
}

}  // namespace

TEST(ReferenceBase, InvalidHandlesBehaveAsNullOnes) {
  Tally tally;
  expectBehavesAsNull(StrongPtr<Probe>());
  expectBehavesAsNull(WeakPtr<Probe>(nullptr));

  WeakPtr<Probe> expired;
  {
    StrongPtr<Probe> owner(new Probe(tally));
    expired = owner;
  }
  ASSERT_EQ(tally.destroyed, 1);
  expectBehavesAsNull(expired);
  expectBehavesAsNull(WeakPtr<Probe>(expired));
  EXPECT_TRUE(expired.expired());
  EXPECT_FALSE(expired.lock());

  EXPECT_EQ(tally.reachedWhileDying, 0);

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
  for (auto it = weak.begin(); it != weak.end(); ++it) {
    EXPECT_EQ(weak.count(*it), 1u);
    if (std::next(it) != weak.end()) {
      EXPECT_FALSE(*it == *std::next(it));
    }
  }
  for (const StrongPtr<Probe>& owner : owners) {
    if (owner) {
      EXPECT_EQ(weak.count(WeakPtr<Probe>(owner)), 1u);
    }
  }

  // Handles through different bases of one object are one identity.
  StrongPtr<Derived> derived(new Derived(tally));
  StrongPtr<Probe> base = derived;
  ASSERT_NE(static_cast<void*>(derived.get()), static_cast<void*>(base.get()));
  EXPECT_TRUE(base == derived);
  EXPECT_TRUE(WeakPtr<Probe>(derived) == base);
  EXPECT_EQ(std::hash<StrongPtr<Probe>>{}(base), std::hash<WeakPtr<Derived>>{}(derived));
  EXPECT_FALSE(base == owners[1]);

  // Down-casts: an empty handle on mismatch, the same block on success.
  EXPECT_FALSE(Ostrak::dynamic_pointer_cast<Derived>(owners[1]));
  EXPECT_EQ(owners[1].strongCount(), 1);
  StrongPtr<Derived> cast = Ostrak::dynamic_pointer_cast<Derived>(base);
  EXPECT_EQ(cast.get(), derived.get());
  EXPECT_EQ(base.strongCount(), 3);
  EXPECT_EQ(Ostrak::dynamic_pointer_cast<Derived>(WeakPtr<Probe>(base)).get(), derived.get());
  EXPECT_FALSE(Ostrak::dynamic_pointer_cast<Derived>(WeakPtr<Probe>(owners[1])));
}

TEST(ReferenceBase, EndOfLifeRunsOnceAndWeakHandlesReachTheDyingObject) {
  Tally tally;
  RecordingSink sink;
  auto* raw = new Probe(tally);
  StrongPtr<Probe> owner(raw);
  WeakPtr<Probe> weak(owner);
  raw->onUnction = [&](Probe* self) {
    EXPECT_TRUE(weak.valid());
    EXPECT_EQ(weak.get(), self);
    // Handles taken and dropped here must not start a second end of life.
    for (int i = 0; i < 3; ++i) {
      StrongPtr<Probe> promoted = weak.lock();
      EXPECT_EQ(promoted.get(), self);
      StrongPtr<Probe> copy = promoted;
      StrongPtr<Probe> fromRaw(self);
      EXPECT_TRUE(Ostrak::strongFromThis(self));
    }
  };
  owner.reset();
  EXPECT_EQ(tally.unctions, 1);
  EXPECT_EQ(tally.destroyed, 1);
  EXPECT_EQ(tally.deferred, 1);
  EXPECT_EQ(tally.reachedWhileDying, 0);
  EXPECT_TRUE(sink.reports().empty());
  // The block outlives the object while a weak handle names it.
  EXPECT_NE(weak.referenceBlock(), nullptr);
  EXPECT_FALSE(weak.lock());

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
  owner.reset();
  EXPECT_EQ(tally.unctions, 1);
  EXPECT_EQ(tally.destroyed, 0);
  ASSERT_EQ(sink.count(Diagnostic::CancelledDestruction), 1u);
  EXPECT_NE(sink.reports().front().text.find("Probe"), std::string::npos);
  ASSERT_TRUE(rescued);
  EXPECT_EQ(rescued.strongCount(), 1);

  WeakPtr<Probe> weak(rescued);
  EXPECT_TRUE(weak.lock());
  rescued.reset();
  EXPECT_EQ(tally.unctions, 1);
  EXPECT_EQ(tally.destroyed, 1);
  EXPECT_EQ(sink.count(Diagnostic::CancelledDestruction), 1u);
  EXPECT_FALSE(weak.lock());
  EXPECT_EQ(tally.reachedWhileDying, 0);
}

TEST(ReferenceBase, DeferredConstructorRunsOnceOnTheFirstRawHandle) {
  Tally tally;
  auto* raw = new Probe(tally);
  WeakPtr<Probe> weak(raw);
  // Nobody holds the object strongly yet: nothing to promote or share.
  EXPECT_FALSE(weak.lock());
  EXPECT_FALSE(Ostrak::strongFromThis(raw));
  EXPECT_EQ(tally.deferred, 0);

  StrongPtr<Probe> first(raw);
  EXPECT_EQ(tally.deferred, 1);
  StrongPtr<Probe> copy = first;
  StrongPtr<Probe> again(raw);
  StrongPtr<Probe> promoted = weak.lock();
  StrongPtr<Probe> fromThis = Ostrak::strongFromThis(raw);
  StrongPtr<Probe> moved = std::move(copy);
  EXPECT_EQ(tally.deferred, 1);
  EXPECT_EQ(first.strongCount(), 5);
  EXPECT_EQ(first.weakCount(), 6);

  // A copy of the object is a new object: its own block, its own initialisation.
  StrongPtr<Probe> twin(new Probe(*raw));
  EXPECT_EQ(tally.deferred, 2);
  EXPECT_FALSE(twin == first);
  EXPECT_EQ(twin.strongCount(), 1);
}

// Every object is held by every thread; the threads copy, promote and drop
// handles while the last holder of each object lets go at an unforeseeable
// moment. A promotion after destruction began, a second end of life or a lost
// count shows in the tallies (and as a use after free under the sanitizers).
TEST(ReferenceBase, ThreadsCopyingPromotingAndDroppingDestroyEveryObjectOnce) {
  constexpr int kThreads = 8;
  constexpr int kObjects = 16;
  constexpr int kRounds = 30;
  constexpr int kSteps = 200;
  RecordingSink sink;  // a promotion may outlive last rites and cancel a destruction
  std::array<Tally, kObjects> tallies;
  std::vector<WeakPtr<Probe>> watchers(kObjects);
  std::vector<std::vector<StrongPtr<Probe>>> held(kThreads);
  std::barrier sync(kThreads + 1);

  auto work = [&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      sync.arrive_and_wait();
      std::vector<StrongPtr<Probe>> mine = std::move(held[thread]);
      std::vector<WeakPtr<Probe>> weak(watchers.begin(), watchers.end());
      for (int step = 0; step < kSteps; ++step) {
        size_t i = static_cast<size_t>(step + thread) % kObjects;
        if (mine[i]) {
          StrongPtr<Probe> copy = mine[i];
          WeakPtr<Probe> weakCopy(copy);
          StrongPtr<Probe> again = weakCopy.lock();
          EXPECT_TRUE(again);
          use(again);
          // Each thread lets go at its own moment, so most objects die while
          // other threads still try to promote them.
          if (step >= (thread * 37 + static_cast<int>(i) * 11 + round * 7) % (kSteps / 2))
            mine[i].reset();
        }
        use(weak[i].lock());
      }
      mine.clear();
      weak.clear();
      sync.arrive_and_wait();
    }
  };
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) threads.emplace_back(work, thread);

  for (int round = 0; round < kRounds; ++round) {
    for (int i = 0; i < kObjects; ++i) {
      StrongPtr<Probe> owner(new Probe(tallies[i]));
      // Slow last rites let other threads' promotions land during them.
      owner->onUnction = [](Probe* self) {
        use(WeakPtr<Probe>(self).lock());
        std::this_thread::yield();
      };
      watchers[i] = owner;
      for (auto& handles : held) handles.push_back(owner);
    }
    sync.arrive_and_wait();  // the threads hold the only strong handles now
    sync.arrive_and_wait();
    for (int i = 0; i < kObjects; ++i) {
      EXPECT_EQ(tallies[i].destroyed, round + 1) << "object " << i << " round " << round;
      EXPECT_EQ(tallies[i].unctions, round + 1) << "object " << i << " round " << round;
      EXPECT_TRUE(watchers[i].expired());
      // Only the watcher still holds the block, so dropping it frees the block.
      EXPECT_EQ(watchers[i].referenceBlock()->weak.load(), 1);
    }
  }
  for (std::thread& thread : threads) thread.join();
  for (const Tally& tally : tallies) {
    EXPECT_EQ(tally.built, kRounds);
    EXPECT_EQ(tally.reachedWhileDying, 0);
  }
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
    std::atomic<bool> dying{false};
    std::atomic<bool> rescued{false};
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
