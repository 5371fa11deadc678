#include "bundle/SliceMap.hpp"

#include <cmath>

namespace Quaril {

SliceMap::iterator::~iterator() = default;

SliceMap::SliceMap() = default;
SliceMap::~SliceMap() = default;

bool SliceMap::insert(double time, const SliceWeakPtr& slice) {
  if (std::isnan(time)) return false;
  // Occurrences mostly arrive in time order: appending needs no search.
  if (slices_.empty() || slices_.rbegin()->first < time) {
    slices_.emplace_hint(slices_.end(), time, slice);
    return true;
  }
  auto position = slices_.lower_bound(time);
  if (position != slices_.end() && !(time < position->first)) {
    position->second = slice;
    return false;
  }
  slices_.emplace_hint(position, time, slice);
  return true;
}

SliceWeakPtr SliceMap::next(double& time) const {
  if (std::isnan(time)) return {};
  auto found = slices_.upper_bound(time);
  if (found == slices_.end()) return {};
  time = found->first;
  return found->second;
}

SliceWeakPtr SliceMap::prev(double& time) const {
  if (std::isnan(time)) return {};
  auto found = slices_.upper_bound(time);
  if (found == slices_.begin()) return {};
  --found;
  time = found->first;
  return found->second;
}

int SliceMap::iterate(iterator& it) const {
  int count = 0;
  for (const auto& [time, slice] : slices_) {
    if (!it.apply(time, slice)) break;
    ++count;
  }
  return count;
}

}  // namespace Quaril
