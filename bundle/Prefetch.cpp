#include "bundle/Prefetch.hpp"

#include <algorithm>
#include <atomic>
#include <thread>
#include <vector>

#include "grid/GridWalk.hpp"

namespace Quaril {

size_t prefetch(const Bundle& bundle, unsigned threads, double first, double last) {
  std::vector<StrongPtr<CreativeArrayBase>> creators;
  for (const auto& [time, slice] : bundle.getSlices()) {
    if (!slice || time < first || time > last) continue;
    slice->accessSlice();
    for (const auto& [id, grid] : slice->getGrids()) {
      if (!grid) continue;
      forEachField(*grid, [&](const StrongPtr<Field>& field) {
        if (!field) return;
        forEachFragment(*field, [&](const auto&, const StrongPtr<CreativeArrayBase>& creator) {
          if (creator && !creator->isResident()) creators.push_back(creator);
        });
      });
    }
  }
  if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
  threads = static_cast<unsigned>(std::min<size_t>(threads, creators.size()));
  std::atomic<size_t> next{0}, failed{0};
  const auto work = [&] {
    for (size_t i; (i = next.fetch_add(1)) < creators.size();) {
      if (!creators[i]->getData()) failed.fetch_add(1);
    }
  };
  std::vector<std::thread> helpers;
  for (unsigned t = 1; t < threads; ++t) helpers.emplace_back(work);
  work();
  for (std::thread& helper : helpers) helper.join();
  return failed.load();
}

}  // namespace Quaril
