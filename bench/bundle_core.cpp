// Bundle core at scale, each operation beside a baseline of plain standard
// containers holding the same data: std::map<double, std::unordered_map<
// std::string, std::shared_ptr<GridStandIn>>>.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "RatioReporter.hpp"
#include "bundle/Bundle.hpp"

namespace {

using Quaril::Bundle;
using Quaril::BundlePtr;
using Quaril::Grid;
using Quaril::GridID;

struct GridStandIn {
  double payload = 0;
};
using Baseline = std::map<double, std::unordered_map<std::string, std::shared_ptr<GridStandIn>>>;

std::vector<std::string> gridNames(int count) {
  std::vector<std::string> names;
  for (int i = 0; i < count; ++i) names.push_back("grid" + std::to_string(i));
  return names;
}

BundlePtr buildBundle(int slices, const std::vector<std::string>& names) {
  BundlePtr bundle;
  bundle.create();
  for (int t = 0; t < slices; ++t) {
    Quaril::SlicePtr slice = (*bundle)[t];
    for (const std::string& name : names) (*slice)[name];
  }
  return bundle;
}

Baseline buildBaseline(int slices, const std::vector<std::string>& names) {
  Baseline baseline;
  for (int t = 0; t < slices; ++t) {
    auto& slice = baseline[t];
    for (const std::string& name : names) {
      auto& grid = slice[name];
      if (!grid) grid = std::make_shared<GridStandIn>();
    }
  }
  return baseline;
}

// ---- building -----------------------------------------------------------------------

void Build(benchmark::State& state) {
  const std::vector<std::string> names = gridNames(10);
  for (auto _ : state) {
    BundlePtr bundle = buildBundle(static_cast<int>(state.range(0)), names);
    benchmark::DoNotOptimize(bundle.get());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * 10);
}
BENCHMARK(Build)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(2);

void Build_Baseline(benchmark::State& state) {
  const std::vector<std::string> names = gridNames(10);
  for (auto _ : state) {
    Baseline baseline = buildBaseline(static_cast<int>(state.range(0)), names);
    benchmark::DoNotOptimize(baseline.size());
  }
  state.SetItemsProcessed(state.iterations() * state.range(0) * 10);
}
BENCHMARK(Build_Baseline)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(2);

// ---- slice look-up by name ----------------------------------------------------------------

void SliceLookup(benchmark::State& state) {
  const std::vector<std::string> names = gridNames(static_cast<int>(state.range(0)));
  BundlePtr bundle = buildBundle(1, names);
  Quaril::SlicePtr slice = (*bundle)[0.0];
  std::mt19937 random(7);
  std::uniform_int_distribution<size_t> pick(0, names.size() - 1);
  for (auto _ : state) benchmark::DoNotOptimize((*slice)(names[pick(random)]).get());
}
BENCHMARK(SliceLookup)->Arg(100)->Arg(10000);

void SliceLookup_Baseline(benchmark::State& state) {
  const std::vector<std::string> names = gridNames(static_cast<int>(state.range(0)));
  Baseline baseline = buildBaseline(1, names);
  auto& slice = baseline.begin()->second;
  std::mt19937 random(7);
  std::uniform_int_distribution<size_t> pick(0, names.size() - 1);
  for (auto _ : state) {
    auto found = slice.find(names[pick(random)]);
    benchmark::DoNotOptimize(found == slice.end() ? nullptr : found->second.get());
  }
}
BENCHMARK(SliceLookup_Baseline)->Arg(100)->Arg(10000);

// ---- searches over 10^5 slices ----------------------------------------------------------

constexpr int kSlices = 100000;

// One data set for all searches: grid "grid0" at every slice, "sparse" at
// every 10th slice.
struct SearchData {
  BundlePtr bundle;
  Baseline baseline;
  SearchData() {
    std::vector<std::string> names = gridNames(10);
    bundle = buildBundle(kSlices, names);
    baseline = buildBaseline(kSlices, names);
    for (int t = 0; t < kSlices; t += 10) {
      (*(*bundle)[t])["sparse"];
      baseline[t]["sparse"] = std::make_shared<GridStandIn>();
    }
  }
};

SearchData& searchData() {
  static SearchData data;
  return data;
}

// Baseline: the latest slice at or before t holding `name`.
const GridStandIn* baselinePrevious(const Baseline& baseline, double t, const std::string& name) {
  auto entry = baseline.upper_bound(t);
  while (entry != baseline.begin()) {
    --entry;
    auto found = entry->second.find(name);
    if (found != entry->second.end()) return found->second.get();
  }
  return nullptr;
}

void MostRecentGrid(benchmark::State& state) {
  const Bundle& bundle = *searchData().bundle;
  std::mt19937 random(11);
  std::uniform_real_distribution<double> time(0, kSlices);
  for (auto _ : state) benchmark::DoNotOptimize(bundle.findMostRecentGrid(time(random), "sparse"));
}
BENCHMARK(MostRecentGrid);

void MostRecentGrid_Baseline(benchmark::State& state) {
  const Baseline& baseline = searchData().baseline;
  std::mt19937 random(11);
  std::uniform_real_distribution<double> time(0, kSlices);
  for (auto _ : state) benchmark::DoNotOptimize(baselinePrevious(baseline, time(random), "sparse"));
}
BENCHMARK(MostRecentGrid_Baseline);

void FindPrev(benchmark::State& state) {
  const Bundle& bundle = *searchData().bundle;
  std::mt19937 random(13);
  std::uniform_real_distribution<double> time(0, kSlices - 1);
  for (auto _ : state) benchmark::DoNotOptimize(bundle.findPrev(time(random), "sparse"));
}
BENCHMARK(FindPrev);

void FindPrev_Baseline(benchmark::State& state) {
  const Baseline& baseline = searchData().baseline;
  std::mt19937 random(13);
  std::uniform_real_distribution<double> time(0, kSlices - 1);
  for (auto _ : state) benchmark::DoNotOptimize(baselinePrevious(baseline, time(random), "sparse"));
}
BENCHMARK(FindPrev_Baseline);

// Ranges of 1000 time steps at random places.
void NumberOfGrids(benchmark::State& state) {
  const Bundle& bundle = *searchData().bundle;
  std::mt19937 random(17);
  std::uniform_real_distribution<double> time(0, kSlices - 1000);
  for (auto _ : state) {
    double t0 = time(random);
    benchmark::DoNotOptimize(bundle.NumberOfGrids(t0 + 1000, t0, "grid3", false));
  }
}
BENCHMARK(NumberOfGrids);

void NumberOfGrids_Baseline(benchmark::State& state) {
  const Baseline& baseline = searchData().baseline;
  std::mt19937 random(17);
  std::uniform_real_distribution<double> time(0, kSlices - 1000);
  for (auto _ : state) {
    double t0 = time(random);
    unsigned count = 0;
    for (auto entry = baseline.lower_bound(t0); entry != baseline.upper_bound(t0 + 1000); ++entry) {
      if (entry->second.count("grid3")) ++count;
    }
    benchmark::DoNotOptimize(count);
  }
}
BENCHMARK(NumberOfGrids_Baseline);

// ---- evolution walk -------------------------------------------------------------------------

void IterateEvolution(benchmark::State& state) {
  const Bundle& bundle = *searchData().bundle;
  double sum = 0;
  for (auto _ : state) {
    bundle.iterate(
        "grid5",
        [&](double t, GridID&, Grid&) {
          sum += t;
          return true;
        },
        false);
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * kSlices);
}
BENCHMARK(IterateEvolution)->Unit(benchmark::kMillisecond);

void IterateEvolution_Baseline(benchmark::State& state) {
  const Baseline& baseline = searchData().baseline;
  double sum = 0;
  auto visit = [&](double t, GridStandIn&) {
    sum += t;
    return true;
  };
  for (auto _ : state) {
    for (const auto& [t, grids] : baseline) {
      auto found = grids.find("grid5");
      if (found != grids.end() && !visit(t, *found->second)) break;
    }
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * kSlices);
}
BENCHMARK(IterateEvolution_Baseline)->Unit(benchmark::kMillisecond);

// ---- memory -----------------------------------------------------------------------------------

size_t heapInUse() {
  return mallinfo2().uordblks;
}

// Heap bytes per (slice, grid) entry of grids without data, reported as a
// counter; the time column is the build time.
void MemoryPerEntry(benchmark::State& state) {
  const std::vector<std::string> names = gridNames(10);
  const int slices = static_cast<int>(state.range(0));
  for (auto _ : state) {
    size_t before = heapInUse();
    BundlePtr bundle = buildBundle(slices, names);
    size_t after = heapInUse();
    state.counters["bytes_per_entry"] =
        static_cast<double>(after - before) / (static_cast<double>(slices) * names.size());
  }
}
BENCHMARK(MemoryPerEntry)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(1);

void MemoryPerEntry_Baseline(benchmark::State& state) {
  const std::vector<std::string> names = gridNames(10);
  const int slices = static_cast<int>(state.range(0));
  for (auto _ : state) {
    size_t before = heapInUse();
    Baseline baseline = buildBaseline(slices, names);
    size_t after = heapInUse();
    state.counters["bytes_per_entry"] =
        static_cast<double>(after - before) / (static_cast<double>(slices) * names.size());
  }
}
BENCHMARK(MemoryPerEntry_Baseline)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(1);

}  // namespace

int main(int argc, char** argv) {
  return QuarilBench::runWithRatios(argc, argv);
}
