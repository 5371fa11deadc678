// The collective helpers on every rank of MPI_COMM_WORLD. Each test makes the
// same collective calls in the same order on every rank, whatever its
// expectations find, so that a failure never leaves a rank waiting.

#include "formats/hdf5/detail/Collective.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/mpi/Ranks.hpp"

namespace Quaril::H5::detail {
namespace {

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

}  // namespace
}  // namespace Quaril::H5::detail
