// The collective helpers on every rank of MPI_COMM_WORLD. Each test makes the
// same collective calls in the same order on every rank, whatever its
// expectations find, so that a failure never leaves a rank waiting.

#include "formats/hdf5/mpi/detail/Collective.hpp"

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

TEST(Collective, everyRankGetsTheReasonOfTheLowestFailingRank) {
  struct Case {
    const char* name;
    std::function<void(int rank, int size)> act;  // on each rank
    std::function<Outcome(int size)> expected;
  };
  auto rankOf = [](int rank) { return "rank " + std::to_string(rank) + ": "; };
  auto onLast = [](auto&& thrown) {
    return [thrown](int rank, int size) {
      if (rank == size - 1) throw thrown;
    };
  };
  const std::vector<Case> cases = {
      {"no rank fails", [](int, int) {}, [](int) -> Outcome { return std::nullopt; }},
      {"the last rank fails", onLast(Failure("disk full")),
       [&](int size) -> Outcome { return rankOf(size - 1) + "disk full"; }},
      {"every rank from 1 on fails",
       [](int rank, int) {
         if (rank >= 1) throw Failure("broken on " + std::to_string(rank));
       },
       [&](int size) -> Outcome {
         if (size == 1) return std::nullopt;
         return rankOf(1) + "broken on 1";
       }},
      {"every rank fails",
       [](int rank, int) { throw Failure("broken on " + std::to_string(rank)); },
       [&](int) -> Outcome { return rankOf(0) + "broken on 0"; }},
      {"an empty reason is still a failure", onLast(Failure("")),
       [&](int size) -> Outcome { return rankOf(size - 1); }},
      {"a standard exception", onLast(std::out_of_range("index 7")),
       [&](int size) -> Outcome { return rankOf(size - 1) + "stopped by an exception: index 7"; }},
      {"something else", onLast(42),
       [&](int size) -> Outcome { return rankOf(size - 1) + "stopped by an exception"; }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Outcome agreed = collectively(MPI_COMM_WORLD, [&] { c.act(worldRank(), worldSize()); });
    EXPECT_EQ(agreed, c.expected(worldSize()));
  }
  // A rank's own outcome, passed as it is, is agreed on in the same way.
  EXPECT_EQ(agreeOnFailure(MPI_COMM_WORLD, worldRank() == 0 ? Outcome("late") : std::nullopt),
            rankOf(0) + "late");
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
    SCOPED_TRACE("root " + std::to_string(root));  // rank 0 sends an empty text
    const std::string sent(1000 * static_cast<size_t>(root), static_cast<char>('a' + root));
    EXPECT_EQ(broadcastText(MPI_COMM_WORLD, worldRank() == root ? sent : "ignored", root), sent);
  }
  EXPECT_THROW(broadcastText(MPI_COMM_WORLD, "x", worldSize()), Failure);
  EXPECT_THROW(broadcastText(MPI_COMM_WORLD, "x", -1), Failure);
}

}  // namespace
}  // namespace Quaril::H5::detail
