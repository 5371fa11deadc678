// Strong and weak handles of the object core against std::shared_ptr and
// std::weak_ptr doing the same work in the same run. The run ends with one
// ratio line per operation (ours / std; below 1 means ours is faster).
//
// Both kinds of handles count without atomic instructions while the process
// has a single thread, so each operation is measured in both states: first
// while the process has one thread, then (after the two-thread runs, which
// contend for one object) in a process that has started threads.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ostrak/ReferenceBase.hpp"

namespace {

struct Payload : Ostrak::ReferenceBase<Payload> {
  int value = 1;
};
struct StdPayload {
  int value = 1;
};

// One object per kind shared by every thread of the threaded variants, so that
// the threads contend for the same counts.
const Ostrak::StrongPtr<Payload>& sharedOstrak() {
  static const Ostrak::StrongPtr<Payload> handle(new Payload);
  return handle;
}
const std::shared_ptr<StdPayload>& sharedStd() {
  static const std::shared_ptr<StdPayload> handle = std::make_shared<StdPayload>();
  return handle;
}

void ostrakCopyAndDrop(benchmark::State& state) {
  Ostrak::StrongPtr<Payload> local(new Payload);
  const Ostrak::StrongPtr<Payload>& source = state.threads() > 1 ? sharedOstrak() : local;
  for (auto _ : state) {
    Ostrak::StrongPtr<Payload> copy = source;
    benchmark::DoNotOptimize(copy);
  }
}
void stdCopyAndDrop(benchmark::State& state) {
  std::shared_ptr<StdPayload> local = std::make_shared<StdPayload>();
  const std::shared_ptr<StdPayload>& source = state.threads() > 1 ? sharedStd() : local;
  for (auto _ : state) {
    std::shared_ptr<StdPayload> copy = source;
    benchmark::DoNotOptimize(copy);
  }
}

void ostrakPromoteAndDrop(benchmark::State& state) {
  Ostrak::StrongPtr<Payload> local(new Payload);
  const Ostrak::WeakPtr<Payload> weak(state.threads() > 1 ? sharedOstrak() : local);
  for (auto _ : state) {
    Ostrak::StrongPtr<Payload> strong = weak.lock();
    benchmark::DoNotOptimize(strong);
  }
}
void stdPromoteAndDrop(benchmark::State& state) {
  std::shared_ptr<StdPayload> local = std::make_shared<StdPayload>();
  const std::weak_ptr<StdPayload> weak(state.threads() > 1 ? sharedStd() : local);
  for (auto _ : state) {
    std::shared_ptr<StdPayload> strong = weak.lock();
    benchmark::DoNotOptimize(strong);
  }
}

// Starts and joins one thread, after which the C library no longer reports
// the process as single-threaded and both kinds of handles use atomic
// instructions even when one thread uses them.
void leaveSingleThreadedMode() {
  std::thread([] {}).join();
}

template <void (*Body)(benchmark::State&)>
void afterThreads(benchmark::State& state) {
  leaveSingleThreadedMode();
  Body(state);
}

struct Operation {
  const char* name;
  const char* label;
  void (*ours)(benchmark::State&);
  void (*theirs)(benchmark::State&);
  int threads;
};

// In run order; each pair runs back to back so that both sides see the same
// machine state. The first two run while the process still has one thread.
const Operation kOperations[] = {
    {"copyAndDrop", "strong copy and drop", ostrakCopyAndDrop, stdCopyAndDrop, 1},
    {"promoteAndDrop", "weak-to-strong promotion and drop", ostrakPromoteAndDrop, stdPromoteAndDrop,
     1},
    {"copyAndDrop2Threads", "strong copy and drop, 2 threads, one object", ostrakCopyAndDrop,
     stdCopyAndDrop, 2},
    {"promoteAndDrop2Threads", "promotion and drop, 2 threads, one object", ostrakPromoteAndDrop,
     stdPromoteAndDrop, 2},
    {"copyAndDropThreadedProcess", "strong copy and drop, multi-threaded process",
     afterThreads<ostrakCopyAndDrop>, afterThreads<stdCopyAndDrop>, 1},
    {"promoteAndDropThreadedProcess", "promotion and drop, multi-threaded process",
     afterThreads<ostrakPromoteAndDrop>, afterThreads<stdPromoteAndDrop>, 1},
};

std::string runName(const Operation& operation, const char* side) {
  std::string name = std::string(operation.name) + "/" + side;
  if (operation.threads > 1) name += "/threads:" + std::to_string(operation.threads);
  return name;
}

void registerOperations() {
  for (const Operation& operation : kOperations) {
    std::string base = operation.name;
    auto* ours = benchmark::RegisterBenchmark((base + "/ostrak").c_str(), operation.ours);
    auto* theirs = benchmark::RegisterBenchmark((base + "/std").c_str(), operation.theirs);
    if (operation.threads > 1) {
      ours->Threads(operation.threads);
      theirs->Threads(operation.threads);
    }
  }
}

// Remembers the time per iteration of every run, in nanoseconds, besides
// printing it.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (!run.error_occurred && run.run_type == Run::RT_Iteration) {
        times[run.benchmark_name()] =
            run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit) * 1e9;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> times;
};

void printRatios(const std::map<std::string, double>& times) {
  std::printf("\nratio ours / std (below 1: ours is faster)\n");
  for (const Operation& operation : kOperations) {
    auto ours = times.find(runName(operation, "ostrak"));
    auto theirs = times.find(runName(operation, "std"));
    if (ours == times.end() || theirs == times.end() || theirs->second <= 0) continue;
    std::printf("  %-46s %.2f  (%.2f vs %.2f ns per operation)\n", operation.label,
                ours->second / theirs->second, ours->second, theirs->second);
  }
}

}  // namespace

int main(int argc, char** argv) {
  registerOperations();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  printRatios(reporter.times);
  return 0;
}
