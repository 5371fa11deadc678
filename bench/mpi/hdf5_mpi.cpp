// Aggregate write throughput of a collective save against each rank saving
// its own file with the serial path, and of a series synced together step by
// step against each rank syncing its own series, measured in the same run.
// Run under mpiexec (make bench-mpi runs it on 1 and 2 ranks); rank 0 prints
// the ratios.

#include <mpi.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "formats/hdf5/mpi/Parallel.hpp"
#include "grid/GridConstructors.hpp"

namespace {

using namespace Quaril;

constexpr int Steps = 20;
constexpr uint32_t Edge = 64;  // a 64^3 block of floats per rank and step: 1 MiB
constexpr int Rounds = 5;

/// Adds step `step` of rank `rank` to `bundle`: its block of grid "blocks".
void addStep(const BundlePtr& bundle, int rank, int step) {
  const std::string name = "rank" + std::to_string(rank);
  std::map<std::string, std::vector<float>> values{
      {name, std::vector<float>(size_t{Edge} * Edge * Edge)}};
  std::vector<float>& v = values[name];
  for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<float>(i % 977) + step + rank;
  Grid& grid = *(*(*bundle)[step * 0.1])["blocks"];
  makeFragmentedUniformGrid(
      grid, {{name, {Edge, Edge, Edge}, {static_cast<double>(rank) * Edge, 0, 0}, {1, 1, 1}}});
  addVertexField(grid, "density", values);
}

/// Rank `rank`'s bundle of all steps.
BundlePtr bundleOf(int rank) {
  BundlePtr bundle(new Bundle);
  for (int step = 0; step < Steps; ++step) addStep(bundle, rank, step);
  return bundle;
}

/// Seconds that `write` takes on the slowest rank.
template <class Write>
double timed(Write&& write) {
  MPI_Barrier(MPI_COMM_WORLD);
  const auto start = std::chrono::steady_clock::now();
  if (!write()) MPI_Abort(MPI_COMM_WORLD, 1);
  MPI_Barrier(MPI_COMM_WORLD);
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Seconds that the syncs of a run take on the slowest rank: a new bundle is
/// bound by `bind`, then each step is added and synced by `sync`.
template <class Bind, class Sync>
double timedSyncs(int rank, Bind&& bind, Sync&& sync) {
  BundlePtr run(new Bundle);
  if (!bind(*run)) MPI_Abort(MPI_COMM_WORLD, 1);
  double seconds = 0;
  for (int step = 0; step < Steps; ++step) {
    addStep(run, rank, step);
    seconds += timed([&] { return sync(*run); });
  }
  return seconds;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  MPI_Init(&argc, &argv);
  int rank = 0, size = 1;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  H5::registerFormat();
  char folder[4096] = {};
  if (rank == 0) {
    const std::string pattern =
        (std::filesystem::temp_directory_path() / "quaril-bench-XXXXXX").string();
    std::snprintf(folder, sizeof folder, "%s", pattern.c_str());
    if (!mkdtemp(folder)) MPI_Abort(MPI_COMM_WORLD, 1);
  }
  MPI_Bcast(folder, sizeof folder, MPI_CHAR, 0, MPI_COMM_WORLD);
  const std::string shared = std::string(folder) + "/collective.h5";
  const std::string own = std::string(folder) + "/rank" + std::to_string(rank) + ".h5";
  const BundlePtr bundle = bundleOf(rank);
  // Make every array resident before timing either side.
  H5::save(*bundle, own);

  const std::string sharedSeries = std::string(folder) + "/collective-series.h5";
  const std::string ownSeries = std::string(folder) + "/rank" + std::to_string(rank) + "-series.h5";
  std::vector<double> collective, perRank, collectiveSyncs, perRankSyncs;
  for (int round = 0; round < Rounds; ++round) {
    collectiveSyncs.push_back(timedSyncs(
        rank,
        [&](Bundle& run) { return H5::bindCollectively(MPI_COMM_WORLD, run, sharedSeries).ok; },
        [&](const Bundle& run) {
          const H5::Outcome synced = H5::syncCollectively(MPI_COMM_WORLD, run);
          if (!synced) std::fprintf(stderr, "rank %d: %s\n", rank, synced.error.c_str());
          return synced.ok;
        }));
    perRankSyncs.push_back(timedSyncs(
        rank, [&](Bundle& run) { return run.bindToNew(ownSeries).status == 1; },
        [](const Bundle& run) { return run.sync() == 1; }));
    collective.push_back(timed([&] {
      const H5::Outcome saved = H5::saveCollectively(MPI_COMM_WORLD, *bundle, shared);
      if (!saved) std::fprintf(stderr, "rank %d: %s\n", rank, saved.error.c_str());
      return saved.ok;
    }));
    perRank.push_back(timed([&] { return H5::save(*bundle, own).ok; }));
  }
  const double bytes = double{Edge} * Edge * Edge * sizeof(float) * Steps * size;
  const double mine = bytes / median(collective) / (1 << 20);
  const double baseline = bytes / median(perRank) / (1 << 20);
  const double synced = bytes / median(collectiveSyncs) / (1 << 20);
  const double syncedBaseline = bytes / median(perRankSyncs) / (1 << 20);
  if (rank == 0) {
    std::printf(
        "%d rank(s), %d steps of %u^3 floats per rank: collective save %.0f MiB/s, "
        "one serial file per rank %.0f MiB/s, ratio %.2f\n",
        size, Steps, Edge, mine, baseline, mine / baseline);
    std::printf(
        "%d rank(s), one sync per step: series synced together %.0f MiB/s, "
        "one serial series per rank %.0f MiB/s, ratio %.2f\n",
        size, synced, syncedBaseline, synced / syncedBaseline);
    std::filesystem::remove_all(folder);
  }
  MPI_Finalize();
  return 0;
}
