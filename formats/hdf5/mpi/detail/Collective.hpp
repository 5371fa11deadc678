#pragma once
// Small MPI helpers of the collective save and sync: ranks agree on one
// outcome, exchange texts and find their offsets. Every helper is collective:
// all ranks of the communicator call it, in the same order. None of them
// changes the caller's communicator: each works on a duplicate whose MPI
// failures are returned (and thrown as Failure) instead of aborting.

#include "formats/hdf5/detail/Hdf5.hpp"

#include <mpi.h>

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#ifndef H5_HAVE_PARALLEL
#error "the collective helpers need an HDF5 built with MPI"
#endif

namespace Quaril::H5::detail {

/// A duplicate of a communicator, freed on every path, on which MPI calls
/// return their failures. Duplicating is collective: every rank of `comm`
/// constructs one. A failure of the duplication itself follows `comm`'s own
/// error handler, since that is the only one there is yet.
class Communicator {
 public:
  explicit Communicator(MPI_Comm comm);
  ~Communicator();
  Communicator(const Communicator&) = delete;
  Communicator& operator=(const Communicator&) = delete;

  MPI_Comm get() const noexcept { return comm_; }
  int rank() const noexcept { return rank_; }
  int size() const noexcept { return size_; }

 private:
  MPI_Comm comm_ = MPI_COMM_NULL;
  int rank_ = 0;
  int size_ = 1;
};

/// Throws a Failure naming `what` and MPI's reason unless `code` is
/// MPI_SUCCESS.
void checkMpi(int code, const std::string& what);

/// Every rank passes what failed for it (nothing when it succeeded); every
/// rank gets the error of the lowest-numbered failing rank, as
/// "rank N: <error>", or nothing when no rank failed. Throws a Failure when
/// MPI itself fails.
std::optional<std::string> agreeOnFailure(MPI_Comm comm,
                                          const std::optional<std::string>& localError);

/// Runs `action` on this rank, catching whatever it throws, and agrees with
/// the other ranks as agreeOnFailure does: nothing when it succeeded on every
/// rank, otherwise the lowest failing rank's error on every rank.
template <class Action>
std::optional<std::string> collectively(MPI_Comm comm, Action&& action) {
  return agreeOnFailure(comm, failureOf(std::forward<Action>(action)));
}

/// Every rank's text, in rank order, on every rank. Refuses with a Failure,
/// on every rank alike, when the texts together exceed what one MPI call
/// addresses (2^31 - 1 bytes).
std::vector<std::string> allGatherText(MPI_Comm comm, const std::string& mine);

/// The counts and offsets of texts of `sizes` bytes laid end to end, as one
/// MPI gather takes them; a Failure when they exceed 2^31 - 1 bytes.
struct GatherLayout {
  std::vector<int> counts;
  std::vector<int> offsets;
  int total = 0;
};
GatherLayout gatherLayout(const std::vector<uint64_t>& sizes);

/// `text` of rank `root`, on every rank (the others' `text` is ignored).
std::string broadcastText(MPI_Comm comm, const std::string& text, int root);

/// File access settings that open a file through MPI-IO on all ranks of
/// `comm` (HDF5 keeps a duplicate of it).
PropertyList mpioFileAccess(MPI_Comm comm);

}  // namespace Quaril::H5::detail
