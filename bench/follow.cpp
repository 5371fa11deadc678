// Following a series while it is written:
//  - Latency: from a writer's sync() returning to a follower in another
//    process having taken the step up (p50, p99), for a follower woken by
//    the file system's notification against one that looks every 20 ms (the
//    fallback), both following the same syncs;
//  - RefreshAtStep: a follower taking up one new step of a series of 10^4
//    steps, in turns with one of a series of 10 (goal: a ratio of at most
//    1.1);
//  - IdleFollower: a follower's processor time while the writer syncs
//    nothing, as a share of one core (goal: at most 1%), against the
//    polling follower's.

#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "BenchSeries.hpp"
#include "RatioReporter.hpp"
#include "bundle/Bundle.hpp"
#include "formats/hdf5/Follow.hpp"
#include "formats/hdf5/Format.hpp"
#include "grid/GridConstructors.hpp"

namespace {

using namespace Quaril;
using namespace QuarilBench;
using namespace std::chrono_literals;

int64_t nanosecondsOf(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

/// In a child process: follows `name` (polling every `poll` when given),
/// writing the monotonic clock to `report` whenever it took up a step, until
/// the closing record. Starts following once a byte arrives on `start`.
[[noreturn]] void follow(const std::string& name, std::chrono::milliseconds poll, int start,
                         int report) {
  char go = 0;
  if (read(start, &go, 1) != 1) _exit(2);
  H5::Follower follower(scratch(name), poll);
  if (!follower.opened()) _exit(3);
  if (write(report, &go, 1) != 1) _exit(4);  // following now
  for (H5::SeriesUpdate update; !update.closed;) {
    if (!follower.wait(10s, update)) _exit(5);
    for (size_t i = 0; i < update.added.size(); ++i) {
      const int64_t seen = nanosecondsOf(CLOCK_MONOTONIC);
      if (write(report, &seen, sizeof(seen)) != sizeof(seen)) _exit(6);
    }
  }
  _exit(0);
}

struct Child {
  pid_t pid;
  int start, report;
};

Child startFollower(const std::string& name, std::chrono::milliseconds poll) {
  int start[2], report[2];
  if (pipe(start) != 0 || pipe(report) != 0) return {-1, -1, -1};
  const pid_t pid = fork();
  if (pid == 0) {
    close(start[1]);
    close(report[0]);
    follow(name, poll, start[0], report[1]);
  }
  close(start[0]);
  close(report[1]);
  return {pid, start[1], report[0]};
}

double percentile(std::vector<double> values, double share) {
  std::sort(values.begin(), values.end());
  return values[static_cast<size_t>(share * static_cast<double>(values.size() - 1))];
}

/// Syncs a step every 20 ms; two followers in other processes take each up,
/// one woken by notification, one polling every 20 ms.
void Latency(benchmark::State& state) {
  BundlePtr writer = boundSeries("latency.h5", 1);
  Child children[2] = {startFollower("latency.h5", 0ms), startFollower("latency.h5", 20ms)};
  char go = 1;
  for (Child& child : children) {
    if (write(child.start, &go, 1) != 1 || read(child.report, &go, 1) != 1) {
      state.SkipWithError("no follower");
      return;
    }
  }
  std::vector<double> notified, polled;
  int64_t step = 1;
  for (auto _ : state) {
    std::this_thread::sleep_for(20ms);
    addStep(writer, step++);
    if (writer->sync() != 1) state.SkipWithError("sync failed");
    const int64_t returned = nanosecondsOf(CLOCK_MONOTONIC);
    int64_t seen[2] = {0, 0};
    for (int i = 0; i < 2; ++i) {
      if (read(children[i].report, &seen[i], sizeof(seen[i])) != sizeof(seen[i])) {
        state.SkipWithError("a follower ended");
      }
    }
    // A follower may take the step up before sync() returns (it still
    // updates the descriptor): no latency then.
    notified.push_back(std::max<int64_t>(0, seen[0] - returned) * 1e-6);
    polled.push_back(std::max<int64_t>(0, seen[1] - returned) * 1e-6);
    state.SetIterationTime(notified.back() * 1e-3);
  }
  writer.reset();  // the closing record ends the followers
  for (Child& child : children) {
    waitpid(child.pid, nullptr, 0);
    close(child.start);
    close(child.report);
  }
  state.counters["p50_ms"] = percentile(notified, 0.5);
  state.counters["p99_ms"] = percentile(notified, 0.99);
  state.counters["polled_p50_ms"] = percentile(polled, 0.5);
  state.counters["polled_p99_ms"] = percentile(polled, 0.99);
  state.counters[QuarilBench::PairedRatio] =
      percentile(notified, 0.99) / std::max(percentile(polled, 0.99), 1e-3);
}
BENCHMARK(Latency)->Unit(benchmark::kMillisecond)->Iterations(200)->UseManualTime();

/// A follower taking up one new step (the refresh, and the step's grids
/// built) of a series of range(0) steps, in turns with one of 10 steps.
void RefreshAtStep(benchmark::State& state) {
  const int64_t steps = state.range(0);
  BundlePtr large = boundSeries("large.h5", steps), small = boundSeries("small.h5", 10);
  BundlePtr largeReader, smallReader;
  if (!large || !small || !H5::load(largeReader, {scratch("large.h5")}) ||
      !H5::load(smallReader, {scratch("small.h5")})) {
    state.SkipWithError("cannot bind or load");
    return;
  }
  auto timedRefresh = [](const BundlePtr& writer, BundlePtr& reader, int64_t step) {
    addStep(writer, step);
    if (writer->sync() != 1) return -1.0;
    const auto start = std::chrono::steady_clock::now();
    H5::SeriesUpdate update;
    if (!H5::refresh(*reader, update) || update.added.size() != 1) return -1.0;
    reader->getSlices().at(update.added[0])->accessSlice();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  double ours = 0, baseline = 0;
  int64_t step = 0;
  for (auto _ : state) {
    const double atSmall = timedRefresh(small, smallReader, 10 + step);
    const double atLarge = timedRefresh(large, largeReader, steps + step);
    ++step;
    if (atSmall < 0 || atLarge < 0) state.SkipWithError("refresh failed");
    baseline += atSmall;
    ours += atLarge;
    state.SetIterationTime(atLarge);
  }
  state.counters["step10_ms"] = 1e3 * baseline / static_cast<double>(state.iterations());
  state.counters[QuarilBench::PairedRatio] = ours / baseline;
}
BENCHMARK(RefreshAtStep)
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(200)
    ->UseManualTime();

/// The processor time of a follower's wait of 3 s on a series that nothing
/// is synced to, as a percentage of the wait; the paired ratio is against
/// the same follower polling every 20 ms.
void IdleFollower(benchmark::State& state) {
  BundlePtr writer = boundSeries("idle.h5", 1);
  H5::Follower notified(scratch("idle.h5")), polled(scratch("idle.h5"), 20ms);
  auto busyShare = [](H5::Follower& follower) {
    const int64_t cpu = nanosecondsOf(CLOCK_THREAD_CPUTIME_ID);
    const int64_t wall = nanosecondsOf(CLOCK_MONOTONIC);
    H5::SeriesUpdate update;
    follower.wait(3s, update);
    return 100.0 * static_cast<double>(nanosecondsOf(CLOCK_THREAD_CPUTIME_ID) - cpu) /
           static_cast<double>(nanosecondsOf(CLOCK_MONOTONIC) - wall);
  };
  double ours = 0, baseline = 0;
  for (auto _ : state) {
    ours += busyShare(notified);
    baseline += busyShare(polled);
    state.SetIterationTime(3);
  }
  state.counters["cpu_percent"] = ours / static_cast<double>(state.iterations());
  state.counters["polled_cpu_percent"] = baseline / static_cast<double>(state.iterations());
  state.counters[QuarilBench::PairedRatio] = ours / std::max(baseline, 1e-9);
}
BENCHMARK(IdleFollower)->Unit(benchmark::kMillisecond)->Iterations(2)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  H5::registerFormat();
  const int result = runWithRatios(argc, argv);
  removeScratch();
  return result;
}
