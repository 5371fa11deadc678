// The collective helpers on every rank of MPI_COMM_WORLD. Each test makes the
// same collective calls in the same order on every rank, whatever its
// expectations find, so that a failure never leaves a rank waiting.

#include "formats/hdf5/detail/Collective.hpp"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Quaril::H5::detail {
namespace {

int worldRank() {
  int rank = 0;
  MPI_Comm_rank(MPI_COMM_WORLD, &rank);
  return rank;
}

int worldSize() {
  int size = 1;
  MPI_Comm_size(MPI_COMM_WORLD, &size);
  return size;
}

using Outcome = std::optional<std::string>;

TEST(Collective, agreeOnFailureGivesTheLowestFailingRanksErrorToEveryRank) {
  struct Case {
    const char* name;
    std::function<Outcome(int rank, int size)> localError;
    std::function<Outcome(int size)> expected;
  };
  const std::vector<Case> cases = {
      {"no rank fails", [](int, int) -> Outcome { return std::nullopt; },
       [](int) -> Outcome { return std::nullopt; }},
      {"the last rank fails",
       [](int rank, int size) -> Outcome {
         if (rank == size - 1) return "disk full";
         return std::nullopt;
       },
       [](int size) -> Outcome { return "rank " + std::to_string(size - 1) + ": disk full"; }},
      {"every rank from 1 on fails",
       [](int rank, int) -> Outcome {
         if (rank >= 1) return "broken on " + std::to_string(rank);
         return std::nullopt;
       },
       [](int size) -> Outcome {
         if (size == 1) return std::nullopt;
         return "rank 1: broken on 1";
       }},
      {"every rank fails",
       [](int rank, int) -> Outcome { return "broken on " + std::to_string(rank); },
       [](int) -> Outcome { return "rank 0: broken on 0"; }},
      {"an empty error is still a failure",
       [](int rank, int size) -> Outcome {
         if (rank == size - 1) return "";
         return std::nullopt;
       },
       [](int size) -> Outcome { return "rank " + std::to_string(size - 1) + ": "; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Outcome agreed = agreeOnFailure(MPI_COMM_WORLD, c.localError(worldRank(), worldSize()));
    EXPECT_EQ(agreed, c.expected(worldSize()));
  }
}

TEST(Collective, collectivelyCatchesWhateverOneRankThrows) {
  struct Case {
    const char* name;
    std::function<void()> throwIt;
    std::string expectedText;
  };
  const std::vector<Case> cases = {
      {"the format's failure", [] { throw Failure("cannot write \"values\""); },
       "cannot write \"values\""},
      {"a standard exception", [] { throw std::out_of_range("index 7"); }, "index 7"},
      {"something else", [] { throw 42; }, "stopped by an exception"},
  };
  const int last = worldSize() - 1;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Outcome agreed = collectively(MPI_COMM_WORLD, [&] {
      if (worldRank() == last) c.throwIt();
    });
    ASSERT_TRUE(agreed.has_value());
    const std::string prefix = "rank " + std::to_string(last) + ": ";
    EXPECT_EQ(agreed->rfind(prefix, 0), 0u) << *agreed;
    EXPECT_NE(agreed->find(c.expectedText), std::string::npos) << *agreed;
  }
  int ran = 0;
  EXPECT_EQ(collectively(MPI_COMM_WORLD, [&] { ++ran; }), std::nullopt);
  EXPECT_EQ(ran, 1);
}

TEST(Collective, helpersLeaveTheCallersCommunicatorAlone) {
  MPI_Comm mine = MPI_COMM_NULL;
  ASSERT_EQ(MPI_Comm_dup(MPI_COMM_WORLD, &mine), MPI_SUCCESS);
  MPI_Comm_set_errhandler(mine, MPI_ERRORS_ARE_FATAL);
  EXPECT_EQ(agreeOnFailure(mine, std::nullopt), std::nullopt);
  EXPECT_EQ(allGatherText(mine, "x").size(), static_cast<size_t>(worldSize()));
  MPI_Errhandler handler = MPI_ERRHANDLER_NULL;
  MPI_Comm_get_errhandler(mine, &handler);
  EXPECT_TRUE(handler == MPI_ERRORS_ARE_FATAL);
  MPI_Errhandler_free(&handler);
  MPI_Comm_free(&mine);
}

/// Bytes that differ from rank to rank and from place to place, so that a
/// text put at the wrong offset or cut short does not compare equal.
std::string patterned(size_t length, int rank) {
  std::string text(length, '\0');
  for (size_t i = 0; i < length; ++i) text[i] = static_cast<char>((i * 31 + rank * 7) % 256);
  return text;
}

TEST(Collective, allGatherTextGivesEveryRankEveryTextInRankOrder) {
  struct Case {
    const char* name;
    std::function<std::string(int rank, int size)> text;
  };
  const std::vector<Case> cases = {
      {"every text empty", [](int, int) { return std::string(); }},
      {"sizes differing by rank",
       [](int rank, int) { return patterned(static_cast<size_t>(rank) * 3 + 1, rank); }},
      {"only rank 0 has text", [](int rank, int) { return rank == 0 ? patterned(5, 0) : ""; }},
      {"one rank of 1 MiB among short ones",
       [](int rank, int size) {
         return patterned(rank == size - 1 ? size_t{1} << 20 : 10 + static_cast<size_t>(rank),
                          rank);
       }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<std::string> expected;
    for (int rank = 0; rank < worldSize(); ++rank) expected.push_back(c.text(rank, worldSize()));
    const std::vector<std::string> gathered =
        allGatherText(MPI_COMM_WORLD, c.text(worldRank(), worldSize()));
    EXPECT_TRUE(gathered == expected);
  }
}

TEST(Collective, gatherLayoutRefusesWhatOneMpiCallCannotCarry) {
  constexpr uint64_t most = std::numeric_limits<int>::max();
  struct Case {
    const char* name;
    std::vector<uint64_t> sizes;
    bool fits;
    std::vector<int> offsets;
  };
  const std::vector<Case> cases = {
      {"nothing", {0, 0}, true, {0, 0}},
      {"texts end to end", {3, 0, 5}, true, {0, 3, 3}},
      {"exactly the most", {most - 1, 1}, true, {0, static_cast<int>(most - 1)}},
      {"one byte too many", {most, 1}, false, {}},
      {"one text too big", {uint64_t{1} << 40}, false, {}},
      {"sizes whose sum wraps around", {std::numeric_limits<uint64_t>::max(), 2}, false, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    if (!c.fits) {
      EXPECT_THROW(gatherLayout(c.sizes), Failure);
      continue;
    }
    const GatherLayout layout = gatherLayout(c.sizes);
    EXPECT_EQ(layout.offsets, c.offsets);
    EXPECT_EQ(layout.counts.size(), c.sizes.size());
    EXPECT_EQ(static_cast<uint64_t>(layout.offsets.back()) + c.sizes.back(),
              static_cast<uint64_t>(layout.total));
  }
}

TEST(Collective, broadcastTextGivesRootsTextToEveryRank) {
  for (int root = 0; root < worldSize(); ++root) {
    SCOPED_TRACE("root " + std::to_string(root));
    const std::string rootText = patterned(1000 * static_cast<size_t>(root) + 1, root);
    const std::string sent = worldRank() == root ? rootText : "ignored on this rank";
    EXPECT_EQ(broadcastText(MPI_COMM_WORLD, sent, root), rootText);
  }
  const std::string empty = worldRank() == worldSize() - 1 ? "" : "not empty";
  EXPECT_EQ(broadcastText(MPI_COMM_WORLD, empty, worldSize() - 1), "");
  EXPECT_THROW(broadcastText(MPI_COMM_WORLD, "x", worldSize()), Failure);
  EXPECT_THROW(broadcastText(MPI_COMM_WORLD, "x", -1), Failure);
}

TEST(Collective, exclusivePrefixSumAddsTheRanksBelow) {
  struct Case {
    const char* name;
    std::function<uint64_t(int rank)> mine;
  };
  const std::vector<Case> cases = {
      {"zeros", [](int) { return uint64_t{0}; }},
      {"rank plus one", [](int rank) { return static_cast<uint64_t>(rank) + 1; }},
      {"counts beyond 32 bits",
       [](int rank) { return (uint64_t{1} << 40) * (static_cast<uint64_t>(rank) + 1); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    uint64_t expected = 0;
    for (int rank = 0; rank < worldRank(); ++rank) expected += c.mine(rank);
    EXPECT_EQ(exclusivePrefixSum(MPI_COMM_WORLD, c.mine(worldRank())), expected);
  }
}

// ---- parallel HDF5 ---------------------------------------------------------------

int64_t valueAt(uint64_t index) {
  return static_cast<int64_t>(index) * 7919 - 3;
}

std::string makeTemporaryFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "quaril-mpi-XXXXXX").string();
  require(mkdtemp(pattern.data()) != nullptr, "cannot make a temporary folder");
  return pattern;
}

/// Rank `rank`'s share of the dataset, written on its own (no collective
/// transfer).
void writeShare(hid_t dataset, hsize_t perRank, int rank) {
  std::vector<int64_t> values(perRank);
  const hsize_t start = perRank * static_cast<hsize_t>(rank);
  for (hsize_t i = 0; i < perRank; ++i) values[i] = valueAt(start + i);
  Dataspace file(H5Dget_space(dataset), "the dataset's extents");
  check(H5Sselect_hyperslab(file.id(), H5S_SELECT_SET, &start, nullptr, &perRank, nullptr),
        "cannot select this rank's share");
  Dataspace memory(H5Screate_simple(1, &perRank, nullptr), "the share's extents");
  check(H5Dwrite(dataset, H5T_NATIVE_INT64, memory.id(), file.id(), H5P_DEFAULT, values.data()),
        "cannot write this rank's share");
}

TEST(ParallelHdf5, ranksWriteSharesOfOneFileThatSerialAccessReads) {
  Session session;
  const int rank = worldRank();
  const int size = worldSize();
  constexpr hsize_t perRank = 1000;
  std::string folder;
  const Outcome made = collectively(MPI_COMM_WORLD, [&] {
    if (rank == 0) folder = makeTemporaryFolder();
  });
  ASSERT_EQ(made, std::nullopt);
  folder = broadcastText(MPI_COMM_WORLD, folder, 0);
  const std::string path = folder + "/shares.h5";

  const Outcome written = collectively(MPI_COMM_WORLD, [&] {
    PropertyList access = mpioFileAccess(MPI_COMM_WORLD);
    File file(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, access.id()),
              "cannot create " + path);
    Dataset dataset = writeDataset(file.id(), "values", H5T_STD_I64LE, H5T_NATIVE_INT64,
                                   {perRank * static_cast<hsize_t>(size)}, nullptr);
    writeShare(dataset.id(), perRank, rank);
    dataset.close("cannot close the dataset");
    file.close("cannot close " + path);
  });
  EXPECT_EQ(written, std::nullopt);

  const Outcome read = collectively(MPI_COMM_WORLD, [&] {
    if (rank != 0 || written) return;
    File file = openFile(path);  // the default driver: no MPI-IO
    const std::vector<int64_t> values = readVector<int64_t>(file.id(), "values");
    require(values.size() == perRank * static_cast<size_t>(size),
            "the file holds " + std::to_string(values.size()) + " values");
    for (size_t i = 0; i < values.size(); ++i) {
      require(values[i] == valueAt(i), "value " + std::to_string(i) + " is " +
                                           std::to_string(values[i]) + ", expected " +
                                           std::to_string(valueAt(i)));
    }
  });
  EXPECT_EQ(read, std::nullopt);

  if (rank == 0) std::filesystem::remove_all(folder);
}

}  // namespace
}  // namespace Quaril::H5::detail
