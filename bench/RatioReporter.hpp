#pragma once
// A console reporter that also prints, at the end of the run, the ratio of
// every benchmark "Name/args" to its baseline "Name_Baseline/args".

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace QuarilBench {

/// A counter that carries a benchmark's ratio to a baseline measured in
/// turns with it (paired), instead of a separate "_Baseline" benchmark.
inline constexpr const char* PairedRatio = "ratio";

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      // With repetitions, their median stands for the benchmark (noisy
      // machines); otherwise the one run.
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.run_type != Run::RT_Iteration && !median) continue;
      const std::string name = run.run_name.str();
      if (!median && medians_.count(name)) continue;
      if (median) medians_.insert(name);
      // Benchmarks of input and output measure the wall clock ("/real_time",
      // or timed by hand: "/manual_time").
      const bool wall = name.find("/real_time") != std::string::npos ||
                        name.find("/manual_time") != std::string::npos;
      times_[name] = wall ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
      auto paired = run.counters.find(PairedRatio);
      if (paired != run.counters.end()) pairedRatios_[name] = paired->second.value;
    }
  }

  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nRatios (ours / baseline, lower is better):\n");
    for (const auto& [name, ratio] : pairedRatios_) {
      std::printf("  %-60s %8.2f (paired)\n", name.c_str(), ratio);
    }
    for (const auto& [name, time] : times_) {
      std::string baseline = baselineOf(name);
      auto found = times_.find(baseline);
      if (baseline.empty() || found == times_.end() || found->second <= 0) continue;
      std::printf("  %-60s %8.2f\n", name.c_str(), time / found->second);
    }
  }

 private:
  // "Family/args" -> "Family_Baseline/args"; empty for baselines themselves.
  static std::string baselineOf(const std::string& name) {
    if (name.find("_Baseline") != std::string::npos) return {};
    size_t slash = name.find('/');
    std::string family = name.substr(0, slash);
    std::string rest = slash == std::string::npos ? "" : name.substr(slash);
    return family + "_Baseline" + rest;
  }

  std::map<std::string, double> times_;
  std::set<std::string> medians_;
  std::map<std::string, double> pairedRatios_;
};

/// Runs the registered benchmarks with the ratio reporter.
inline int runWithRatios(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}

}  // namespace QuarilBench
