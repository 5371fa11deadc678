#pragma once
// A file that all ranks of a communicator write together: each rank plans
// its part, the plans are merged (CollectivePlan.hpp), every rank makes the
// file's groups and data sets through parallel HDF5, and then writes its own
// arrays' bytes at their offsets. Rank 0 puts the file in place once every
// rank has succeeded. Every function here is collective.

#include <mpi.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/detail/Planner.hpp"
#include "formats/hdf5/mpi/detail/Collective.hpp"
#include "formats/hdf5/mpi/detail/CollectivePlan.hpp"

namespace Quaril::H5::detail {

/// Runs `action` on rank 0 only and agrees on its outcome.
template <class Action>
std::optional<std::string> onRankZero(MPI_Comm comm, int rank, Action&& action) {
  return agreeOnFailure(comm, rank == 0 ? failureOf(std::forward<Action>(action)) : std::nullopt);
}

/// The plans of all ranks, and the file they make together: the same on
/// every rank.
struct Together {
  std::vector<RankPlan> plans;
  Merged merged;
  bool empty() const noexcept { return merged.index.times.empty() && !merged.bundleAttributes; }
};

/// Rank 0's file name and whether rank 0's policy writes descriptors: what
/// counts for the file the ranks write together.
struct RankZeroTarget {
  std::string path;
  bool xdmf = false;
};
RankZeroTarget targetOfRankZero(MPI_Comm ranks, const std::string& filename,
                                const StorageTransformations* policy);

/// Plans this rank's part of the file `path` as `request` asks, and merges
/// the plans of all ranks. Throws the failure the ranks agreed on.
Together planTogether(MPI_Comm ranks, int rank, const Bundle& bundle, const std::string& path,
                      WriteRequest request);

/// Writes the file the ranks make together as `path`: rank 0 makes a new
/// file beside it, all ranks write it and make their isSaved calls, and
/// once all succeeded rank 0 runs `replace` with the new file's name, which
/// puts it in place. On failure rank 0 removes the new file. Throws the
/// failure the ranks agreed on.
void writeTogether(MPI_Comm ranks, int rank, const std::string& path, const Together& together,
                   const std::function<void(const std::string&)>& replace);

/// Saves the bundles of all ranks of `comm` as the one file `filename` (rank
/// 0's name), with its descriptor unless rank 0's policy says otherwise.
void saveTogether(MPI_Comm comm, const Bundle& bundle, const std::string& filename,
                  const Ostrak::StrongPtr<StorageTransformations>& transformations,
                  const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress,
                  const Ostrak::StrongPtr<Ostrak::StringList>& gridNames);

}  // namespace Quaril::H5::detail
