// Collective saves and loads on every rank of MPI_COMM_WORLD. As in the
// helpers' tests, every rank makes the same collective calls in the same
// order whatever its expectations find.

#include "formats/hdf5/mpi/Parallel.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "formats/hdf5/mpi/detail/Collective.hpp"
#include "grid/GridWalk.hpp"
#include "tests/hdf5/FileFixture.hpp"
#include "tests/mpi/Ranks.hpp"

namespace Quaril::Testing {
namespace {

using Ostrak::StrongPtr;

/// A folder that all ranks share, made by rank 0 and removed with the test.
class SharedFolderTest : public FileTest {
 protected:
  void SetUp() override {
    H5::registerFormat();
    std::string made;
    if (worldRank() == 0) {
      made = (std::filesystem::temp_directory_path() / "quaril-mpi-XXXXXX").string();
      if (!mkdtemp(made.data())) made.clear();
    }
    folder_ = H5::detail::broadcastText(MPI_COMM_WORLD, made, 0);
    ASSERT_FALSE(folder_.empty());
  }
  void TearDown() override {
    MPI_Barrier(MPI_COMM_WORLD);
    if (worldRank() == 0) FileTest::TearDown();
  }
};

/// The fragments of rank `rank` of grid "blocks": two blocks of a row,
/// named after rank `rank - shift`.
std::vector<UniformBlock> blocksOf(int rank, int shift) {
  std::vector<UniformBlock> blocks;
  for (int j = 0; j < 2; ++j) {
    const double x = 2.0 * (2 * rank + j);
    blocks.push_back({"r" + std::to_string(rank - shift) + "." + std::to_string(j),
                      {2, 2, 2},
                      {x, 0, 0},
                      {1, 1, 1}});
  }
  return blocks;
}

/// A change of one rank's values in grid "blocks".
struct Changed {
  int rank = -1;
  double pressure = 0;
  int32_t id = 0;
};

/// Fills `grid` with the fragments of `ranks` (named after rank - `shift`)
/// and their fields "p" (double) and "id" (int32) at time `t`.
void fillBlocks(Grid& grid, double t, const std::vector<int>& ranks, int shift = 0,
                Changed changed = {}) {
  std::vector<UniformBlock> blocks;
  std::map<std::string, std::vector<double>> pressure;
  std::map<std::string, std::vector<int32_t>> ids;
  for (int rank : ranks) {
    const bool change = rank == changed.rank;
    for (const UniformBlock& block : blocksOf(rank, shift)) {
      blocks.push_back(block);
      for (int i = 0; i < 8; ++i) {
        pressure[block.name].push_back(t + rank * 100 + block.origin.x + i / 8.0 +
                                       (change ? changed.pressure : 0));
        ids[block.name].push_back(rank * 1000 + i + (change ? changed.id : 0));
      }
    }
  }
  makeFragmentedUniformGrid(grid, blocks);
  addVertexField(grid, "p", pressure);
  addVertexField(grid, "id", ids);
  grid.setAttribute("solver", std::string("multigrid"));
}

/// The bundle that ranks `ranks` hold together: grid "blocks" with their
/// fragments of a double and an int32 field at three times, attributes, and
/// (with `shared`) a grid whose name is not UTF-8, held unfragmented.
BundlePtr bundleOf(const std::vector<int>& ranks, bool shared, int shift = 0) {
  BundlePtr bundle(new Bundle);
  for (double t : {-0.0, 0.25, 1e300}) {
    fillBlocks(gridIn(bundle, t, "blocks"), t, ranks, shift);
    if (shared) {
      Grid& other = gridIn(bundle, t, "lid \xff");
      makeUniformGrid(other, {2, 1, 1}, {0, 0, 0}, {1, 1, 1});
      addVertexField(other, "t", std::vector<float>{1.5f, static_cast<float>(t)});
    }
  }
  (*bundle)[0.25]->setAttribute("cycle", int64_t{25});
  bundle->setAttribute("title", std::string("a run on ranks"));
  return bundle;
}

/// Whether every rank holds the same `text`.
bool sameOnEveryRank(const std::string& text) {
  const std::vector<std::string> texts = H5::detail::allGatherText(MPI_COMM_WORLD, text);
  return std::set<std::string>(texts.begin(), texts.end()).size() == 1;
}

std::vector<int> allRanks() {
  std::vector<int> ranks;
  for (int rank = 0; rank < worldSize(); ++rank) ranks.push_back(rank);
  return ranks;
}

/// How the fragments of grid "blocks" in `back` differ from those of rank
/// `rank` in `all`, which holds the fragments of every rank.
std::string ownFragmentsDifference(const Bundle& all, const Bundle& back, int rank) {
  for (const auto& [time, slice] : all.getSlices()) {
    const std::string at = "at " + std::to_string(time) + ": ";
    const auto found = back.getSlices().find(time);
    if (found == back.getSlices().end()) return at + "no slice";
    for (const char* name : {"p", "id"}) {
      auto field = [&](const Slice& held) {
        return held("blocks")->getCartesianRepresentation()->findField(name);
      };
      const auto expected = detail::fragmentsOf(*field(*slice));
      const auto got = detail::fragmentsOf(*field(*found->second));
      std::set<std::string> names;
      for (const auto& [fragment, creator] : got) names.insert(fragment);
      const std::string own = "fragment r" + std::to_string(rank) + ".";
      if (names != std::set<std::string>{own + "0", own + "1"}) return at + name + ": fragments";
      for (const auto& [fragment, creator] : got) {
        const std::string difference =
            detail::dataDifference(*expected.at(fragment)->getData(), *creator->getData());
        if (!difference.empty()) return at + name + " " + fragment + ": " + difference;
      }
    }
  }
  return "";
}

TEST_F(SharedFolderTest, collectiveFileIsTheBundleOfAllRanksAndEachRankLoadsBackItsOwn) {
  const int rank = worldRank();
  const std::string file = path("run.h5");
  BundlePtr mine = bundleOf({rank}, rank == 0);
  const H5::Outcome saved = H5::saveCollectively(MPI_COMM_WORLD, *mine, file);
  ASSERT_TRUE(saved.ok) << saved.error;
  if (rank == 0) {
    BundlePtr loaded;
    ASSERT_TRUE(H5::load(loaded, {file}).ok);
    EXPECT_EQ(differences(*bundleOf(allRanks(), true), *loaded), "");
    EXPECT_TRUE(H5::check(file).ok) << "every array matches its checksum";
    const hid_t handle = H5Fopen(file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
    EXPECT_GT(H5Lexists(handle, "index/array_checksums", H5P_DEFAULT), 0);
    H5Fclose(handle);
    EXPECT_EQ(listing(), (std::vector<std::string>{"run.h5", "run.h5.xmf"}));
  }
  // Back on every rank: its own fragments of every field, nothing else.
  BundlePtr back;
  ASSERT_TRUE(H5::loadCollectively(MPI_COMM_WORLD, back, file).ok);
  const BundlePtr expected = bundleOf(allRanks(), true);
  EXPECT_EQ(ownFragmentsDifference(*expected, *back, rank), "");
  for (const auto& [time, slice] : expected->getSlices()) {
    const StrongPtr<Grid> lid = (*(*back)[time])("lid \xff");
    ASSERT_TRUE(lid) << "an unfragmented grid goes to every rank";
    EXPECT_EQ(detail::gridDifference(*(*slice)("lid \xff"), *lid), "");
  }
}

/// The rank's policy: isSaved (after the data are written) throws while
/// `refuse` is set.
class RefusesWhenAsked : public StorageTransformations {
 public:
  explicit RefusesWhenAsked(bool refuse = false) : refuse(refuse) {}
  void isSaved(const StrongPtr<CreativeArrayBase>&, const StrongPtr<FragmentID>&, const FieldID&,
               const Field&, const Ostrak::WeakPtr<Grid>&, const std::string&, double,
               const std::string&, const SkeletonID&) override {
    if (refuse) throw std::runtime_error("isSaved refuses");
  }
  bool refuse;
};

TEST_F(SharedFolderTest, aFailureOnOneRankFailsTheSaveOnEveryRankAndKeepsTheOldFile) {
  const int rank = worldRank();
  const int last = worldSize() - 1;
  const std::string file = path("run.h5");
  {
    BundlePtr before = bundleOf({rank}, false);
    ASSERT_TRUE(H5::saveCollectively(MPI_COMM_WORLD, *before, file).ok);
  }
  const std::string oldFile = rank == 0 ? fileBytes(file) : "";
  const std::string oldDescriptor = rank == 0 ? fileBytes(file + ".xmf") : "";
  struct Case {
    const char* name;
    int ranksNeeded;
    std::function<BundlePtr()> bundle;
    std::function<StrongPtr<StorageTransformations>()> policy;
    int fullDiskOn;  // the rank whose disk is full; -1: none
    std::string expected;
  };
  auto plain = [&] { return bundleOf({rank}, false); };
  auto none = [] { return StrongPtr<StorageTransformations>(); };
  auto big = [&] {
    BundlePtr bundle = plain();
    if (rank == last) addBigGrid(bundle, 0.25);
    return bundle;
  };
  const std::string lastRank = "rank " + std::to_string(last) + ": ";
  const std::vector<Case> cases = {
      {"a hook throws on the last rank after writing", 1, plain,
       [&]() -> StrongPtr<StorageTransformations> {
         return StrongPtr<StorageTransformations>(new RefusesWhenAsked(rank == last));
       },
       -1, lastRank + "stopped by an exception: isSaved refuses"},
      {"the disk of the last rank is full as the data are written", 2, big, none, last,
       lastRank + "cannot write"},
      // Rank 0 writes the metadata in HDF5's collective flush; it makes sure
      // of the room before.
      {"the disk of rank 0 is full", 1, plain, none, 0, "rank 0: no room for"},
      {"rank 1 names its fragments as rank 0 does", 2,
       [&] { return bundleOf({rank}, false, rank == 1 ? 1 : 0); }, none, -1,
       "rank 1 holds its fragment \"r0."},
      {"rank 1 holds a field of another type", 2,
       [&] {
         BundlePtr bundle = plain();
         if (rank == 1) {
           Grid& grid = gridIn(bundle, 1e300, "blocks");
           grid.getCartesianRepresentation()->setField("id", Field::create<float>());
         }
         return bundle;
       },
       none, -1, "field \"id\": the ranks hold it with different element types"},
      {"filters are asked for", 1, plain,
       [] {
         StrongPtr<StorageTransformations> policy(new StorageTransformations);
         policy->setCompressionLevel(4);
         return policy;
       },
       -1, "a collective save cannot filter data (switch the filters off)"},
  };
  for (const Case& test : cases) {
    if (worldSize() < test.ranksNeeded) continue;
    SCOPED_TRACE(test.name);
    BundlePtr bundle = test.bundle();
    rlimit previous{};
    getrlimit(RLIMIT_FSIZE, &previous);
    const bool limited = rank == test.fullDiskOn;
    if (limited) {
      signal(SIGXFSZ, SIG_IGN);
      const rlimit small{16 << 10, previous.rlim_max};
      setrlimit(RLIMIT_FSIZE, &small);
    }
    const H5::Outcome saved = H5::saveCollectively(MPI_COMM_WORLD, *bundle, file, test.policy());
    if (limited) {
      setrlimit(RLIMIT_FSIZE, &previous);
      signal(SIGXFSZ, SIG_DFL);
    }
    EXPECT_FALSE(saved.ok);
    EXPECT_NE(saved.error.find(test.expected), std::string::npos) << saved.error;
    EXPECT_TRUE(sameOnEveryRank(saved.error));
    if (rank == 0) {
      EXPECT_EQ(fileBytes(file), oldFile);
      EXPECT_EQ(fileBytes(file + ".xmf"), oldDescriptor);
      EXPECT_EQ(listing(), (std::vector<std::string>{"run.h5", "run.h5.xmf"}));
    }
    MPI_Barrier(MPI_COMM_WORLD);
  }
}

// ---- a series written together ----------------------------------------------------

TEST_F(SharedFolderTest, aSeriesSyncedTogetherHoldsEveryRanksFragmentsAfterEverySync) {
  const int rank = worldRank();
  const int last = worldSize() - 1;
  const std::string series = path("run.h5");
  BundlePtr mine = bundleOf({rank}, rank == 0);
  const H5::Outcome bound = H5::bindCollectively(MPI_COMM_WORLD, *mine, series);
  ASSERT_TRUE(bound.ok) << bound.error;

  // Each step changes the bundle of one rank, or of all, syncs them together,
  // and checks the series against the bundle of all ranks.
  BundlePtr expected = bundleOf(allRanks(), true);
  enum Kind { NewTime, Nothing, NewData, NewGrid, NewField };
  struct Step {
    const char* name;
    Kind kind;
    double t;
    Changed changed;
    size_t parts;
  };
  const std::vector<Step> steps = {
      {"nothing new since the binding", Nothing, 0.5, {}, 1},
      {"a new time on every rank", NewTime, 0.5, {}, 2},
      {"the last rank gives its fragments new data: every rank adds its skeletons",
       NewData,
       0.5,
       {last, 5, 0},
       3},
      {"rank 0 makes its grid anew: every rank writes that grid whole",
       NewGrid,
       0.25,
       {0, 1000, 0},
       4},
      {"the last rank makes its field \"id\" anew: every rank writes that field whole",
       NewField,
       1e300,
       {last, 0, 7},
       5},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.name);
    const double t = step.t;
    if (step.kind == NewTime) fillBlocks(gridIn(mine, t, "blocks"), t, {rank});
    if (step.kind >= NewData && rank == step.changed.rank) {
      BundlePtr scratch(new Bundle);
      Grid& made =
          step.kind == NewGrid ? *(*mine)[t]->newGrid("blocks") : gridIn(scratch, t, "blocks");
      fillBlocks(made, t, {rank}, 0, step.changed);
      const StrongPtr<Representation> held = gridIn(mine, t, "blocks").getCartesianRepresentation();
      const StrongPtr<Representation> fresh = made.getCartesianRepresentation();
      if (step.kind == NewField) held->setField("id", fresh->findField("id"));
      if (step.kind == NewData) {
        // New creators in the fragments the field has.
        const StrongPtr<Field> field = held->findField("p");
        forEachFragment(*fresh->findField("p"), [&](const auto& name, const auto& creator) {
          forEachFragment(*field, [&](const StrongPtr<FragmentID>& fragment, const auto&) {
            if (fragment->Name() == name->Name()) field->setCreator(creator, fragment);
          });
        });
      }
    }
    if (step.kind != Nothing) {
      fillBlocks(*(*expected)[t]->newGrid("blocks"), t, allRanks(), 0, step.changed);
    }
    const H5::Outcome synced = H5::syncCollectively(MPI_COMM_WORLD, *mine);
    ASSERT_TRUE(synced.ok) << synced.error;
    if (rank == 0) {
      EXPECT_EQ(differences(*expected, *loaded(series)), "");
      EXPECT_EQ(partsOf(series).size(), step.parts);
    }
    MPI_Barrier(MPI_COMM_WORLD);
  }
  if (rank == 0) {
    EXPECT_TRUE(H5::check(series).ok);
    EXPECT_EQ(withoutRoom(series + ".xmf"), describedAnew(series));
  }
  // Back on every rank: its own fragments, also those a later part replaced.
  BundlePtr back;
  ASSERT_TRUE(H5::loadCollectively(MPI_COMM_WORLD, back, series).ok);
  EXPECT_EQ(ownFragmentsDifference(*expected, *back, rank), "");
  // A plain sync reaches one rank only: it does nothing, and says why.
  EXPECT_EQ(mine->sync(), 0);
  EXPECT_NE(H5::lastSync(*mine).error.find("syncCollectively"), std::string::npos);
  // Going on with the series from what was loaded back writes only what is new.
  mine.reset();
  ASSERT_TRUE(H5::continueCollectively(MPI_COMM_WORLD, *back, series).ok);
  fillBlocks(gridIn(back, 2, "blocks"), 2, {rank});
  fillBlocks(gridIn(expected, 2, "blocks"), 2, allRanks());
  ASSERT_TRUE(H5::syncCollectively(MPI_COMM_WORLD, *back).ok);
  if (rank == 0) {
    EXPECT_EQ(differences(*expected, *loaded(series)), "");
    EXPECT_EQ(partsOf(series).size(), 6u);
  }
  MPI_Barrier(MPI_COMM_WORLD);
}

TEST_F(SharedFolderTest, aSyncThatFailsOnOneRankLeavesTheSeriesAsItWasAndTheNextWritesItAll) {
  const int rank = worldRank();
  const int last = worldSize() - 1;
  const std::string series = path("run.h5");
  BundlePtr mine = bundleOf({rank}, false);
  const H5::Outcome refused = H5::syncCollectively(MPI_COMM_WORLD, *mine);
  EXPECT_NE(refused.error.find("not bound collectively"), std::string::npos) << refused.error;
  StrongPtr<RefusesWhenAsked> policy(new RefusesWhenAsked);
  ASSERT_TRUE(H5::bindCollectively(MPI_COMM_WORLD, *mine, series, policy).ok);
  const std::string journal = rank == 0 ? fileBytes(series) : "";
  const std::string descriptor = rank == 0 ? fileBytes(series + ".xmf") : "";
  fillBlocks(gridIn(mine, 0.5, "blocks"), 0.5, {rank});
  policy->refuse = rank == last;
  const H5::Outcome failed = H5::syncCollectively(MPI_COMM_WORLD, *mine);
  EXPECT_FALSE(failed.ok);
  EXPECT_NE(failed.error.find("rank " + std::to_string(last) +
                              ": stopped by an exception: isSaved refuses"),
            std::string::npos)
      << failed.error;
  EXPECT_TRUE(sameOnEveryRank(failed.error));
  EXPECT_EQ(H5::lastSync(*mine).error, failed.error.empty() ? "" : series + ": " + failed.error);
  if (rank == 0) {
    EXPECT_EQ(fileBytes(series), journal);
    EXPECT_EQ(fileBytes(series + ".xmf"), descriptor);
    EXPECT_EQ(partsOf(series).size(), 1u) << "the failed sync's part is gone";
  }
  policy->refuse = false;
  const H5::Outcome synced = H5::syncCollectively(MPI_COMM_WORLD, *mine);
  ASSERT_TRUE(synced.ok) << synced.error;
  EXPECT_TRUE(H5::lastSync(*mine).ok);
  BundlePtr expected = bundleOf(allRanks(), false);
  fillBlocks(gridIn(expected, 0.5, "blocks"), 0.5, allRanks());
  if (rank == 0) {
    EXPECT_EQ(differences(*expected, *loaded(series)), "");
  }
  // Taken up by new bundles, the series gives each rank its own fragments.
  mine.reset();
  BundlePtr fresh(new Bundle);
  ASSERT_TRUE(H5::continueCollectively(MPI_COMM_WORLD, *fresh, series).ok);
  EXPECT_EQ(ownFragmentsDifference(*expected, *fresh, rank), "");
  if (rank == 0) {
    EXPECT_EQ(partsOf(series).size(), 2u) << "nothing new to write";
  }
  MPI_Barrier(MPI_COMM_WORLD);
}

}  // namespace
}  // namespace Quaril::Testing
