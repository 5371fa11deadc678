#include "formats/hdf5/mpi/detail/Collective.hpp"

#include <algorithm>
#include <limits>

namespace Quaril::H5::detail {

namespace {

/// The most elements one MPI call takes: its counts and offsets are ints.
constexpr uint64_t mostPerCall = std::numeric_limits<int>::max();

/// `text` of `root` on every rank of `communicator`, in pieces that one MPI
/// call each carries.
std::string broadcastOn(const Communicator& communicator, const std::string& text, int root) {
  require(root >= 0 && root < communicator.size(), "cannot broadcast from rank " +
                                                       std::to_string(root) + " of " +
                                                       std::to_string(communicator.size()));
  const bool isRoot = communicator.rank() == root;
  uint64_t size = isRoot ? text.size() : 0;
  checkMpi(MPI_Bcast(&size, 1, MPI_UINT64_T, root, communicator.get()),
           "cannot broadcast the size of a text");
  std::string result = isRoot ? text : std::string(size, '\0');
  for (uint64_t done = 0; done < size;) {
    const int piece = static_cast<int>(std::min(size - done, mostPerCall));
    checkMpi(MPI_Bcast(result.data() + done, piece, MPI_CHAR, root, communicator.get()),
             "cannot broadcast a text");
    done += static_cast<uint64_t>(piece);
  }
  return result;
}

}  // namespace

void checkMpi(int code, const std::string& what) {
  if (code == MPI_SUCCESS) return;
  char reason[MPI_MAX_ERROR_STRING] = {};
  int length = 0;
  if (MPI_Error_string(code, reason, &length) != MPI_SUCCESS || length <= 0) {
    throw Failure(what + ": MPI error " + std::to_string(code));
  }
  throw Failure(what + ": " + std::string(reason, static_cast<size_t>(length)));
}

Communicator::Communicator(MPI_Comm comm) {
  int initialized = 0, finalized = 0;
  MPI_Initialized(&initialized);
  MPI_Finalized(&finalized);
  require(initialized && !finalized, "MPI is not running");
  require(comm != MPI_COMM_NULL, "no communicator");
  checkMpi(MPI_Comm_dup(comm, &comm_), "cannot duplicate the communicator");
  try {
    checkMpi(MPI_Comm_set_errhandler(comm_, MPI_ERRORS_RETURN),
             "cannot make MPI return its failures");
    checkMpi(MPI_Comm_rank(comm_, &rank_), "cannot find this rank");
    checkMpi(MPI_Comm_size(comm_, &size_), "cannot count the ranks");
  } catch (...) {
    MPI_Comm_free(&comm_);
    throw;
  }
}

Communicator::~Communicator() {
  int finalized = 0;
  MPI_Finalized(&finalized);
  if (comm_ != MPI_COMM_NULL && !finalized) MPI_Comm_free(&comm_);
}

std::optional<std::string> agreeOnFailure(MPI_Comm comm,
                                          const std::optional<std::string>& localError) {
  Communicator communicator(comm);
  // The lowest failing rank; the number of ranks stands for "none".
  const int mine = localError ? communicator.rank() : communicator.size();
  int lowest = 0;
  checkMpi(MPI_Allreduce(&mine, &lowest, 1, MPI_INT, MPI_MIN, communicator.get()),
           "cannot agree on the outcome");
  if (lowest == communicator.size()) return std::nullopt;
  const std::string error = broadcastOn(communicator, localError.value_or(""), lowest);
  return "rank " + std::to_string(lowest) + ": " + error;
}

GatherLayout gatherLayout(const std::vector<uint64_t>& sizes) {
  GatherLayout layout;
  uint64_t total = 0;
  for (uint64_t size : sizes) {
    require(size <= mostPerCall - total, "the texts of " + std::to_string(sizes.size()) +
                                             " ranks exceed " + std::to_string(mostPerCall) +
                                             " bytes, more than one MPI call carries");
    layout.counts.push_back(static_cast<int>(size));
    layout.offsets.push_back(static_cast<int>(total));
    total += size;
  }
  layout.total = static_cast<int>(total);
  return layout;
}

std::vector<std::string> allGatherText(MPI_Comm comm, const std::string& mine) {
  Communicator communicator(comm);
  const uint64_t mySize = mine.size();
  std::vector<uint64_t> sizes(static_cast<size_t>(communicator.size()));
  checkMpi(
      MPI_Allgather(&mySize, 1, MPI_UINT64_T, sizes.data(), 1, MPI_UINT64_T, communicator.get()),
      "cannot gather the sizes of texts");
  // Every rank sees the same sizes, so every rank refuses alike.
  const GatherLayout layout = gatherLayout(sizes);
  std::string bytes(static_cast<size_t>(layout.total), '\0');
  checkMpi(MPI_Allgatherv(mine.data(), layout.counts[static_cast<size_t>(communicator.rank())],
                          MPI_CHAR, bytes.data(), layout.counts.data(), layout.offsets.data(),
                          MPI_CHAR, communicator.get()),
           "cannot gather texts");
  std::vector<std::string> texts;
  texts.reserve(sizes.size());
  for (size_t rank = 0; rank < sizes.size(); ++rank) {
    texts.push_back(bytes.substr(static_cast<size_t>(layout.offsets[rank]),
                                 static_cast<size_t>(layout.counts[rank])));
  }
  return texts;
}

std::string broadcastText(MPI_Comm comm, const std::string& text, int root) {
  Communicator communicator(comm);
  return broadcastOn(communicator, text, root);
}

PropertyList mpioFileAccess(MPI_Comm comm) {
  PropertyList access(H5Pcreate(H5P_FILE_ACCESS), "file access settings");
  check(H5Pset_fapl_mpio(access.id(), comm, MPI_INFO_NULL), "cannot open files through MPI-IO");
  check(H5Pset_libver_bounds(access.id(), H5F_LIBVER_V18, H5F_LIBVER_LATEST), "file format bounds");
  // Rank 0 writes all metadata (HDF5 would spread the writes over the
  // ranks), so the other ranks write only their own data.
  H5AC_cache_config_t cache{};
  cache.version = H5AC__CURR_CACHE_CONFIG_VERSION;
  check(H5Pget_mdc_config(access.id(), &cache), "metadata cache settings");
  cache.metadata_write_strategy = H5AC_METADATA_WRITE_STRATEGY__PROCESS_0_ONLY;
  check(H5Pset_mdc_config(access.id(), &cache), "metadata cache settings");
  return access;
}

}  // namespace Quaril::H5::detail
