#include "grid/SkeletonMap.hpp"

#include <climits>
#include <set>
#include <utility>

namespace Quaril {
namespace {

/// Adds each creator's bytes once, however often it is reached.
class MemoryCounter : public FragmentIterator {
 public:
  MemoryCounter(unsigned long long& first, unsigned long long& second)
      : first_(first), second_(second) {}

  bool apply(const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) override {
    if (creator && seen_.insert(creator.referenceBlock()).second) {
      creator->getMemoryUsage(first_, second_);
    }
    return true;
  }

 private:
  unsigned long long& first_;
  unsigned long long& second_;
  std::set<const void*> seen_;
};

}  // namespace

SkeletonMap::~SkeletonMap() = default;

StrongPtr<Skeleton> SkeletonMap::getSkeleton(const SkeletonID& id) const {
  auto found = skeletons_.find(id);
  return found == skeletons_.end() ? StrongPtr<Skeleton>() : found->second;
}

bool SkeletonMap::setSkeleton(const SkeletonID& id, const StrongPtr<Skeleton>& skeleton) {
  if (!skeleton || !id.isValid() || skeleton->getDimension() != id.dimension()) return false;
  auto found = skeletons_.find(id);
  StrongPtr<Skeleton> previous;
  if (found == skeletons_.end()) {
    skeletons_.emplace(id, skeleton);
  } else {
    previous = std::exchange(found->second, skeleton);
  }
  skeleton->addOwner(*this);
  if (previous && previous != skeleton) disown(previous);
  return true;
}

StrongPtr<Skeleton> SkeletonMap::makeSkeleton(const SkeletonID& id, uint64_t nElements,
                                              int refinement) {
  if (!id.isValid() || skeletons_.count(id) != 0) return {};
  StrongPtr<Skeleton> skeleton(new Skeleton(id.dimension(), nElements, refinement));
  skeletons_.emplace(id, skeleton);
  skeleton->addOwner(*this);
  return skeleton;
}

int SkeletonMap::nextIndex(int dimension) const {
  if (dimension < 0) return -1;
  auto next = skeletons_.upper_bound(SkeletonID(dimension, INT_MAX));
  if (next == skeletons_.begin()) return 0;
  --next;
  if (next->first.dimension() != dimension) return 0;
  return next->first.index() == INT_MAX ? -1 : next->first.index() + 1;
}

int SkeletonMap::iterate(
    const std::function<bool(const SkeletonID&, const StrongPtr<Skeleton>&)>& visit) const {
  int calls = 0;
  for (const auto& [id, skeleton] : skeletons_) {
    ++calls;
    if (!visit(id, skeleton)) break;
  }
  return calls;
}

unsigned SkeletonMap::getMemoryUsage(unsigned long long& first, unsigned long long& second) const {
  if (skeletons_.empty()) return 0;
  const unsigned long long before = first;
  MemoryCounter counter(first, second);
  for (const auto& entry : skeletons_) {
    if (!entry.second) continue;
    entry.second->iterate([&](const WeakPtr<BaseSpace>&, const StrongPtr<Representation>& rep) {
      if (rep) {
        rep->iterate([&](const StrongPtr<FieldID>&, const StrongPtr<Field>& field) {
          if (field) field->iterate(counter);
          return true;
        });
      }
      return true;
    });
  }
  return static_cast<unsigned>(first - before);
}

StrongPtr<Skeleton> SkeletonMap::findIsotropicRefinementFactor(int factor, int extra) const {
  if (extra < 0 || factor < 1) return {};
  for (auto entry = skeletons_.lower_bound(SkeletonID(extra, 0));
       entry != skeletons_.end() && entry->first.dimension() == extra; ++entry) {
    if (entry->second && entry->second->getIsotropicRefinementFactor() == factor) {
      return entry->second;
    }
  }
  return {};
}

void SkeletonMap::disown(const StrongPtr<Skeleton>& skeleton) {
  for (const auto& entry : skeletons_) {
    if (entry.second == skeleton) return;
  }
  skeleton->removeOwner(*this);
}

}  // namespace Quaril
