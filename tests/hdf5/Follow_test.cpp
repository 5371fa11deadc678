// Following a series while it is written: each completed sync is seen once,
// in order, never torn, also when the writer is killed.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "formats/hdf5/Follow.hpp"
#include "tests/hdf5/FileFixture.hpp"

namespace Quaril::Testing {
namespace {

using namespace std::chrono_literals;

void addStep(const BundlePtr& bundle, double t) {
  makePointCloud(gridIn(bundle, t, "tracer"), {{t, 0, 0}});
  addVertexField(gridIn(bundle, t, "tracer"), "id", std::vector<int64_t>{static_cast<int64_t>(t)});
}

int64_t idAt(const Bundle& bundle, double t) {
  auto grid = (*bundle.getSlices().at(t))("tracer");
  auto ids = grid->getCartesianRepresentation()->findField("id")->getData();
  return ids ? static_cast<const int64_t*>(ids->rawData())[0] : -1;
}

// Each kind of sync, and what a follower's refresh says of it.
TEST_F(FileTest, aRefreshTakesUpEachSyncOnce) {
  struct Case {
    const char* what;
    std::function<void(BundlePtr& writer)> sync;
    std::vector<double> added, changed;
    bool closed;
  };
  BundlePtr writer;
  writer.create();
  addStep(writer, 0);
  ASSERT_EQ(writer->bindToNew(path("run.h5")).status, 1);
  BundlePtr follower;
  ASSERT_TRUE(H5::load(follower, {path("run.h5")}).ok);
  const std::vector<Case> cases{
      {"nothing synced", [](BundlePtr&) {}, {}, {}, false},
      {"one new step",
       [](BundlePtr& w) {
         addStep(w, 1);
         ASSERT_EQ(w->sync(), 1);
       },
       {1},
       {},
       false},
      {"two syncs before one refresh",
       [](BundlePtr& w) {
         addStep(w, 2);
         ASSERT_EQ(w->sync(), 1);
         addStep(w, 3);
         ASSERT_EQ(w->sync(), 1);
       },
       {2, 3},
       {},
       false},
      {"a field added to a step seen",
       [](BundlePtr& w) {
         addVertexField(gridIn(w, 1, "tracer"), "mass", std::vector<double>{2.5});
         ASSERT_EQ(w->sync(), 1);
       },
       {},
       {1},
       false},
      {"a sync that writes nothing", [](BundlePtr& w) { ASSERT_EQ(w->sync(), 1); }, {}, {}, false},
      {"the binding released", [](BundlePtr& w) { w.reset(); }, {}, {}, true},
      {"a new binding goes on",
       [this](BundlePtr& w) {
         ASSERT_TRUE(H5::load(w, {path("run.h5")}).ok);
         ASSERT_EQ(w->bindTo(path("run.h5")).status, 1);
         addStep(w, 4);
         ASSERT_EQ(w->sync(), 1);
       },
       {4},
       {},
       false}};
  for (const Case& test : cases) {
    test.sync(writer);
    H5::SeriesUpdate update;
    ASSERT_TRUE(H5::refresh(*follower, update)) << test.what;
    EXPECT_EQ(update.added, test.added) << test.what;
    EXPECT_EQ(update.changed, test.changed) << test.what;
    EXPECT_EQ(update.closed, test.closed) << test.what;
    ASSERT_TRUE(H5::refresh(*follower, update)) << test.what;
    EXPECT_TRUE(update.empty()) << test.what << ": nothing is new twice";
  }
  EXPECT_EQ(differences(*follower, *loaded(path("run.h5"))), "");
  auto mass =
      (*follower->getSlices().at(1))("tracer")->getCartesianRepresentation()->findField("mass");
  ASSERT_TRUE(mass) << "a changed step is read again";
}

TEST_F(FileTest, aRefreshThatCannotFollowSaysWhyAndChangesNothing) {
  BundlePtr writer;
  writer.create();
  addStep(writer, 0);
  ASSERT_TRUE(H5::save(*writer, path("single.h5")).ok);
  ASSERT_EQ(writer->bindToNew(path("run.h5")).status, 1);
  BundlePtr single, series;
  ASSERT_TRUE(H5::load(single, {path("single.h5")}).ok);
  ASSERT_TRUE(H5::load(series, {path("run.h5")}).ok);
  ASSERT_EQ(idAt(*series, 0), 0);  // read before its part goes
  H5::SeriesUpdate update;
  EXPECT_EQ(H5::refresh(*single, update).error, "the bundle was loaded from no series");
  // Started anew by another binding: its parts are others.
  writer.reset();
  BundlePtr other;
  other.create();
  addStep(other, 7);
  ASSERT_EQ(other->bindToNew(path("run.h5")).status, 1);
  const H5::Outcome replaced = H5::refresh(*series, update);
  EXPECT_NE(replaced.error.find("started anew"), std::string::npos) << replaced.error;
  EXPECT_EQ(series->getSlices().size(), 1u);
  EXPECT_EQ(idAt(*series, 0), 0);
}

/// Binds `file` anew and syncs `steps` steps, `pause` apart, telling
/// `report` each step's number once its sync returned; then ends, closing
/// the series, unless it was killed before.
[[noreturn]] void writeSteps(const std::string& file, int report, int steps,
                             std::chrono::microseconds pause) {
  BundlePtr bundle;
  bundle.create();
  addStep(bundle, 0);
  if (bundle->bindToNew(file).status != 1) _exit(2);
  for (int64_t step = 0; step < steps; ++step) {
    if (step > 0) {
      std::this_thread::sleep_for(pause);
      addStep(bundle, static_cast<double>(step));
      if (bundle->sync() != 1) _exit(3);
    }
    if (write(report, &step, sizeof(step)) != sizeof(step)) _exit(4);
  }
  bundle.reset();
  _exit(0);
}

// A follower in another process sees every completed sync once and in
// order, whether the writer ends (closing the series) or is killed.
TEST_F(FileTest, aFollowerSeesExactlyTheCompletedSyncs) {
  std::mt19937 random(20261125);
  for (int trial = 0; trial < 20; ++trial) {
    const bool killed = trial % 2 == 1;
    const std::string file = path("followed" + std::to_string(trial) + ".h5");
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    const pid_t child = fork();
    if (child == 0) {
      close(report[0]);
      writeSteps(file, report[1], killed ? 1000 : 12, 2ms);
    }
    close(report[1]);
    int64_t first = -1;
    ASSERT_EQ(read(report[0], &first, sizeof(first)), static_cast<ssize_t>(sizeof(first)));
    H5::Follower follower(file);
    ASSERT_TRUE(follower.opened()) << follower.opened().error;
    std::vector<double> seen;
    for (const auto& [time, slice] : follower.bundle()->getSlices()) seen.push_back(time);
    if (killed) {
      std::this_thread::sleep_for(
          std::chrono::milliseconds(std::uniform_int_distribution<int>(5, 40)(random)));
      kill(child, SIGKILL);
    }
    for (H5::SeriesUpdate update; !update.closed;) {
      ASSERT_TRUE(follower.wait(killed ? 300ms : 5s, update));
      if (update.empty() && !update.closed) break;  // idle: the writer was killed
      EXPECT_TRUE(update.changed.empty());
      seen.insert(seen.end(), update.added.begin(), update.added.end());
    }
    int status = 0;
    waitpid(child, &status, 0);
    int64_t reported = first, completed = first;
    while (read(report[0], &reported, sizeof(reported)) == sizeof(reported)) completed = reported;
    close(report[0]);
    EXPECT_EQ(follower.closed(), !killed) << "trial " << trial;
    // Every reported sync is seen, in order, once; one more may be, whose
    // sync completed just before the kill could be reported.
    ASSERT_TRUE(static_cast<int64_t>(seen.size()) == completed + 1 ||
                (killed && static_cast<int64_t>(seen.size()) == completed + 2))
        << "trial " << trial << ": " << seen.size() << " seen, " << completed + 1 << " synced";
    for (size_t step = 0; step < seen.size(); ++step) {
      ASSERT_EQ(seen[step], static_cast<double>(step)) << "trial " << trial;
      ASSERT_EQ(idAt(*follower.bundle(), seen[step]), static_cast<int64_t>(step))
          << "trial " << trial << ": a torn step";
    }
  }
}

}  // namespace
}  // namespace Quaril::Testing
