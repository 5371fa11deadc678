// The HDF5 format against the HDF5 C API in the same run:
//  - Save: 100 time steps of a 64^3 float field, written to a new file and
//    flushed to disk, in turns with the C API writing the same arrays as 100
//    data sets of one file, flushed the same way (the ratio of the two);
//  - FullLoad: opening that file and reading every array into memory that is
//    kept until all are read (prefetch, over the cores), in turns with the C
//    API reading the same arrays (its time beside ours, and the ratio);
//  - Open / Open_Baseline: opening files of 10^4 steps of 10 grids and of
//    10^5 steps of one grid, against a walk over all of the file's objects;
//  - Check: a check of that file in turns with a full load of it;
//  - SaveChecksums / LoadChecksums: the cost of the arrays' checksums, a
//    save and a full load with them in turns with the same without (the
//    load also with both files read from the disk, not the page cache);
//    arrays with checksums are placed by the file's directory and read in
//    parallel, those without through libhdf5;
//  - OpenMemory: heap bytes per time step right after opening;
//  - SyncAtStep: the sync of one more step into a bound series of 10^4 steps,
//    in turns with the same into a series of 10 (the ratio of the two);
//  - SyncDurability: a sync that survives the program's crash, in turns with
//    one that also survives a power loss;
//  - LazyRead: one array of an open bundle read on request, against H5Dread
//    of it;
//  - CompressedSave / CompressedLoad: zstd-1 and LZ4 (after shuffling),
//    against the C API writing and reading the same arrays through the same
//    registered filters; the compression ratio beside;
//  - CompressedData: a save and full load with zstd-1 or LZ4 of the demo's
//    fields and of random doubles, against the same without compression;
//    throughput (MB/s of the arrays) and compression ratio beside.

#include <fcntl.h>
#include <hdf5.h>
#include <malloc.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "BenchSeries.hpp"
#include "RatioReporter.hpp"
#include "bundle/Bundle.hpp"
#include "bundle/Prefetch.hpp"
#include "field/CreativeArrayBase.hpp"
#include "formats/hdf5/Format.hpp"
#include "grid/GridConstructors.hpp"
#include "tools/DemoData.hpp"

namespace {

using namespace Quaril;
using namespace QuarilBench;
constexpr int Steps = 100;
constexpr uint64_t Edge = 64;

std::vector<float> field(int step) {
  std::vector<float> values(Edge * Edge * Edge);
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<float>(step) + i * 1e-6f;
  return values;
}

const BundlePtr& seriesBundle() {
  static const BundlePtr bundle = [] {
    BundlePtr made;
    made.create();
    for (int step = 0; step < Steps; ++step) {
      Grid& grid = *(*(*made)[step * 0.1])["fluid"];
      makeUniformGrid(grid, {Edge, Edge, Edge}, {0, 0, 0}, {1, 1, 1});
      addVertexField(grid, "density", field(step));
    }
    return made;
  }();
  return bundle;
}

void flushToDisk(const std::string& path) {
  int fd = open(path.c_str(), O_RDONLY);
  fsync(fd);
  close(fd);
}

/// The baseline's file: the same arrays as 100 data sets, created with
/// `create` (their layout and filters), flushed to disk.
void writeBaseline(const std::string& path, const std::vector<std::vector<float>>& arrays,
                   hid_t create = H5P_DEFAULT) {
  hid_t file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
  const hsize_t dims[3] = {Edge, Edge, Edge};
  hid_t space = H5Screate_simple(3, dims, nullptr);
  for (int step = 0; step < Steps; ++step) {
    hid_t dataset = H5Dcreate2(file, std::to_string(step).c_str(), H5T_NATIVE_FLOAT, space,
                               H5P_DEFAULT, create, H5P_DEFAULT);
    H5Dwrite(dataset, H5T_NATIVE_FLOAT, H5S_ALL, H5S_ALL, H5P_DEFAULT, arrays[step].data());
    H5Dclose(dataset);
  }
  H5Sclose(space);
  H5Fclose(file);
  flushToDisk(path);
}

std::vector<std::vector<float>> baselineArrays() {
  std::vector<std::vector<float>> arrays;
  for (int step = 0; step < Steps; ++step) arrays.push_back(field(step));
  return arrays;
}

/// Times `baseline` and `ours` in turns (after `prepare`, untimed), reporting
/// ours as the benchmark's time, the baseline's beside it and the ratio of
/// the two: on a noisy machine both see the same phases, and the same warm
/// page cache and heap.
template <class Prepare, class Baseline, class Ours>
void inTurns(benchmark::State& state, Prepare&& prepare, Baseline&& baseline, Ours&& ours) {
  double oursTotal = 0, baselineTotal = 0;
  for (auto _ : state) {
    prepare();
    const auto start = std::chrono::steady_clock::now();
    baseline();
    const auto middle = std::chrono::steady_clock::now();
    ours();
    const auto end = std::chrono::steady_clock::now();
    baselineTotal += std::chrono::duration<double>(middle - start).count();
    const double time = std::chrono::duration<double>(end - middle).count();
    oursTotal += time;
    state.SetIterationTime(time);
  }
  state.counters["baseline_ms"] = 1e3 * baselineTotal / static_cast<double>(state.iterations());
  state.counters[QuarilBench::PairedRatio] = oursTotal / baselineTotal;
  state.SetBytesProcessed(state.iterations() * Steps * Edge * Edge * Edge * 4);
}

/// Times our save and the baseline's in turns, as FullLoad does: the disk's
/// flushes vary more from run to run than the two differ.
void Save(benchmark::State& state) {
  const BundlePtr& bundle = seriesBundle();
  const std::vector<std::vector<float>> arrays = baselineArrays();
  inTurns(
      state,
      [] {
        std::filesystem::remove(scratch("baseline.h5"));
        std::filesystem::remove(scratch("series.h5"));
      },
      [&] { writeBaseline(scratch("baseline.h5"), arrays); },
      [&] {
        if (!H5::save(*bundle, scratch("series.h5"))) state.SkipWithError("save failed");
      });
}
BENCHMARK(Save)->Unit(benchmark::kMillisecond)->Iterations(10)->Repetitions(3)->UseManualTime();

double loadedSum = 0;

/// Loads the file `name` of the series' steps and reads every array.
void loadFile(const std::string& name) {
  BundlePtr bundle;
  H5::load(bundle, {scratch(name)});
  prefetch(*bundle);  // every array now, over the cores
  for (const auto& [time, slice] : bundle->getSlices()) {
    auto data = (*slice)("fluid")->getCartesianRepresentation()->findField("density")->getData();
    loadedSum += static_cast<const float*>(data->rawData())[1];
  }
}

void loadSeries() {
  loadFile("series.h5");
}

/// Reads every array of the baseline's file, keeping all of them until the
/// last is read, as a loaded bundle keeps them.
void loadBaseline(const std::string& name = "baseline.h5") {
  std::vector<std::unique_ptr<float[]>> arrays(Steps);
  hid_t file = H5Fopen(scratch(name).c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  for (int step = 0; step < Steps; ++step) {
    hid_t dataset = H5Dopen2(file, std::to_string(step).c_str(), H5P_DEFAULT);
    std::unique_ptr<float[]>& values = arrays[static_cast<size_t>(step)];
    values.reset(new float[Edge * Edge * Edge]);
    H5Dread(dataset, H5T_NATIVE_FLOAT, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.get());
    loadedSum += values[1];
    H5Dclose(dataset);
  }
  H5Fclose(file);
}

/// Times our load and the baseline's in turns, reporting ours as the
/// benchmark's time and the baseline's beside it: on a noisy machine both
/// see the same phases, and the same warm page cache and heap.
void FullLoad(benchmark::State& state) {
  if (!H5::save(*seriesBundle(), scratch("series.h5"))) state.SkipWithError("save failed");
  writeBaseline(scratch("baseline.h5"), baselineArrays());
  loadSeries();
  loadBaseline();
  inTurns(
      state, [] {}, [] { loadBaseline(); }, loadSeries);
  benchmark::DoNotOptimize(loadedSum);
}
BENCHMARK(FullLoad)->Unit(benchmark::kMillisecond)->Iterations(20)->Repetitions(5)->UseManualTime();

/// Times a check of the series file (every structure and array read, one at
/// a time) in turns with a full load of it: the check's throughput against
/// the load's is the inverse of the ratio (goal: at least 0.8, a ratio of at
/// most 1.25).
void Check(benchmark::State& state) {
  if (!H5::save(*seriesBundle(), scratch("series.h5"))) state.SkipWithError("save failed");
  loadSeries();
  inTurns(
      state, [] {}, loadSeries,
      [&] {
        if (!H5::checkFile(scratch("series.h5")).ok()) state.SkipWithError("check failed");
      });
}
BENCHMARK(Check)->Unit(benchmark::kMillisecond)->Iterations(20)->Repetitions(3)->UseManualTime();

/// The cost of the arrays' checksums: a save that stores them in turns with
/// one that does not, and a full load that verifies every array in turns
/// with one of a file without them (goal: a ratio of at most 1.03).
void SaveChecksums(benchmark::State& state) {
  Ostrak::StrongPtr<H5::StorageOptions> without(new H5::StorageOptions);
  without->setChecksums(false);
  inTurns(
      state,
      [] {
        std::filesystem::remove(scratch("plain.h5"));
        std::filesystem::remove(scratch("summed.h5"));
      },
      [&] {
        if (!H5::save(*seriesBundle(), scratch("plain.h5"), without)) state.SkipWithError("save");
      },
      [&] {
        if (!H5::save(*seriesBundle(), scratch("summed.h5"))) state.SkipWithError("save");
      });
}
BENCHMARK(SaveChecksums)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10)
    ->Repetitions(3)
    ->UseManualTime();

void LoadChecksums(benchmark::State& state) {
  Ostrak::StrongPtr<H5::StorageOptions> without(new H5::StorageOptions);
  without->setChecksums(false);
  if (!H5::save(*seriesBundle(), scratch("plain.h5"), without) ||
      !H5::save(*seriesBundle(), scratch("summed.h5"))) {
    state.SkipWithError("save failed");
  }
  loadFile("plain.h5");
  loadFile("summed.h5");
  inTurns(
      state, [] {}, [] { loadFile("plain.h5"); }, [] { loadFile("summed.h5"); });
  benchmark::DoNotOptimize(loadedSum);
}
BENCHMARK(LoadChecksums)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(20)
    ->Repetitions(5)
    ->UseManualTime();

/// Drops the file `name`'s pages from the page cache, so that the next
/// read comes from the disk (the pages are clean: every save flushes).
void evict(const std::string& name) {
  const int descriptor = open(scratch(name).c_str(), O_RDONLY);
  posix_fadvise(descriptor, 0, 0, POSIX_FADV_DONTNEED);
  close(descriptor);
}

/// The same as LoadChecksums with both files read from the disk, as a
/// first load after a run reads them: verifying is hidden by the reads.
void LoadChecksumsFromDisk(benchmark::State& state) {
  Ostrak::StrongPtr<H5::StorageOptions> without(new H5::StorageOptions);
  without->setChecksums(false);
  if (!H5::save(*seriesBundle(), scratch("plain.h5"), without) ||
      !H5::save(*seriesBundle(), scratch("summed.h5"))) {
    state.SkipWithError("save failed");
  }
  inTurns(
      state,
      [] {
        evict("plain.h5");
        evict("summed.h5");
      },
      [] { loadFile("plain.h5"); }, [] { loadFile("summed.h5"); });
  benchmark::DoNotOptimize(loadedSum);
}
BENCHMARK(LoadChecksumsFromDisk)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10)
    ->Repetitions(3)
    ->UseManualTime();

/// A file of `steps` time steps of `grids` one-point clouds each, made once.
std::string manyStepsFile(int64_t steps, int64_t grids) {
  const std::string path =
      scratch("steps-" + std::to_string(steps) + "x" + std::to_string(grids) + ".h5");
  if (std::filesystem::exists(path)) return path;
  BundlePtr bundle;
  bundle.create();
  for (int64_t step = 0; step < steps; ++step) {
    SlicePtr slice = (*bundle)[static_cast<double>(step)];
    for (int64_t g = 0; g < grids; ++g) {
      makePointCloud(*(*slice)["grid" + std::to_string(g)], {{static_cast<double>(step), 0, 0}});
    }
  }
  H5::save(*bundle, path);
  return path;
}

void Open(benchmark::State& state) {
  const std::string path = manyStepsFile(state.range(0), state.range(1));
  for (auto _ : state) {
    BundlePtr bundle;
    if (!H5::load(bundle, {path})) state.SkipWithError("load failed");
    state.PauseTiming();
    bundle.reset();
    // glibc sorts the freed bundle's small blocks at the next large request;
    // that belongs to the freeing, not to the next open.
    std::free(std::malloc(1 << 20));
    state.ResumeTiming();
  }
}
BENCHMARK(Open)
    ->Args({10000, 10})
    ->Args({100000, 1})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

void Open_Baseline(benchmark::State& state) {
  const std::string path = manyStepsFile(state.range(0), state.range(1));
  for (auto _ : state) {
    hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
    uint64_t objects = 0;
    H5Ovisit2(
        file, H5_INDEX_NAME, H5_ITER_NATIVE,
        [](hid_t, const char*, const H5O_info_t*, void* count) -> herr_t {
          ++*static_cast<uint64_t*>(count);
          return 0;
        },
        &objects, H5O_INFO_BASIC);
    H5Fclose(file);
    state.counters["objects"] = static_cast<double>(objects);
  }
}
BENCHMARK(Open_Baseline)
    ->Args({10000, 10})
    ->Args({100000, 1})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseRealTime();

void OpenMemory(benchmark::State& state) {
  const std::string path = manyStepsFile(state.range(0), 1);
  for (auto _ : state) {
    const size_t before = mallinfo2().uordblks;
    BundlePtr bundle;
    H5::load(bundle, {path});
    state.counters["bytes_per_step"] =
        static_cast<double>(mallinfo2().uordblks - before) / static_cast<double>(state.range(0));
    state.PauseTiming();
    bundle.reset();
    state.ResumeTiming();
  }
}
BENCHMARK(OpenMemory)->Arg(100000)->Unit(benchmark::kMillisecond)->Iterations(1);

/// A new bundle bound to the series `name`, its steps left in the file.
BundlePtr rebound(const std::string& name) {
  BundlePtr bundle;
  bundle.create();
  if (bundle->bindTo(scratch(name)).status != 1) return {};
  return bundle;
}

/// The sync of one new step into a series of range(0) steps, held in memory
/// too (range(1) 0) or only in the file (1), in turns with the same sync
/// into a series of 10 steps held alike.
void SyncAtStep(benchmark::State& state) {
  const int64_t steps = state.range(0);
  BundlePtr large = boundSeries("large.h5", steps), small = boundSeries("small.h5", 10);
  if (state.range(1) == 1) {
    large.reset();
    small.reset();
    large = rebound("large.h5");
    small = rebound("small.h5");
  }
  if (!large || !small) {
    state.SkipWithError("cannot bind");
    return;
  }
  auto timedSync = [](const BundlePtr& bundle, int64_t step) {
    addStep(bundle, step);
    const auto start = std::chrono::steady_clock::now();
    const bool synced = bundle->sync() == 1;
    const double time =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return synced ? time : -1;
  };
  double ours = 0, baseline = 0;
  int64_t step = 0;
  for (auto _ : state) {
    const double atSmall = timedSync(small, 10 + step);
    const double atLarge = timedSync(large, steps + step);
    ++step;
    if (atSmall < 0 || atLarge < 0) state.SkipWithError("sync failed");
    baseline += atSmall;
    ours += atLarge;
    state.SetIterationTime(atLarge);
  }
  state.counters["step10_ms"] = 1e3 * baseline / static_cast<double>(state.iterations());
  state.counters[QuarilBench::PairedRatio] = ours / baseline;
}
BENCHMARK(SyncAtStep)
    ->Args({10000, 0})
    ->Args({10000, 1})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(100)
    ->UseManualTime();

/// A lazy read of one array of an open bundle (its creator's first
/// getData(), the grid already built), in turns with H5Dopen and H5Dread of
/// the same array in the C API's open file (goal: a ratio of at most 1.0).
void LazyRead(benchmark::State& state) {
  if (!H5::save(*seriesBundle(), scratch("series.h5"))) state.SkipWithError("save failed");
  BundlePtr bundle;
  H5::load(bundle, {scratch("series.h5")});
  std::vector<Ostrak::StrongPtr<CreativeArrayBase>> creators;
  for (const auto& [time, slice] : bundle->getSlices()) {
    creators.push_back(
        (*slice)("fluid")->getCartesianRepresentation()->findField("density")->getCreator());
  }
  hid_t file = H5Fopen(scratch("series.h5").c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  hid_t arrays = H5Gopen2(file, "arrays", H5P_DEFAULT);
  std::unique_ptr<float[]> values(new float[Edge * Edge * Edge]);
  size_t next = 0;
  inTurns(
      state, [] {},
      [&] {
        // One grid per step, one stored array per grid: entry `next`, array 0.
        hid_t dataset = H5Dopen2(arrays, (std::to_string(next) + ".0").c_str(), H5P_DEFAULT);
        H5Dread(dataset, H5T_NATIVE_FLOAT, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.get());
        H5Dclose(dataset);
        loadedSum += values[1];
      },
      [&] {
        const auto data = creators[next]->getData();
        loadedSum += static_cast<const float*>(data->rawData())[1];
        creators[next]->dropCache();
        next = (next + 1) % creators.size();
      });
  H5Gclose(arrays);
  H5Fclose(file);
  state.SetBytesProcessed(state.iterations() * Edge * Edge * Edge * 4);
  benchmark::DoNotOptimize(loadedSum);
}
BENCHMARK(LazyRead)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(200)
    ->Repetitions(3)
    ->UseManualTime();

/// The codecs as the compressed benchmarks name them: range(0) 0 is zstd at
/// level 1, 1 is LZ4.
struct BenchCodec {
  H5::Codec codec;
  unsigned filter;
  unsigned parameter;  ///< zstd's level, LZ4's block size (0: one per chunk)
};
BenchCodec benchCodec(int64_t which) {
  return which == 0 ? BenchCodec{H5::Codec::Zstd, 32015, 1} : BenchCodec{H5::Codec::Lz4, 32004, 0};
}

/// The baseline's arrays written by the C API as one chunk each, shuffled
/// and compressed by the same registered filter.
void writeCompressedBaseline(const std::string& path, const std::vector<std::vector<float>>& arrays,
                             const BenchCodec& codec) {
  const hsize_t dims[3] = {Edge, Edge, Edge};
  hid_t create = H5Pcreate(H5P_DATASET_CREATE);
  H5Pset_chunk(create, 3, dims);
  H5Pset_shuffle(create);
  H5Pset_filter(create, codec.filter, H5Z_FLAG_MANDATORY, 1, &codec.parameter);
  writeBaseline(path, arrays, create);
  H5Pclose(create);
}

Ostrak::StrongPtr<H5::StorageOptions> compressing(const BenchCodec& codec) {
  Ostrak::StrongPtr<H5::StorageOptions> options(new H5::StorageOptions);
  options->setCompression(codec.codec, static_cast<int>(codec.parameter));
  return options;
}

/// Saves compressed with zstd-1 (range(0) 0) or LZ4 (1), in turns with the C
/// API writing the same arrays through the same filter on one thread; the
/// throughput of ours in MB/s of raw data and the compression ratio beside.
void CompressedSave(benchmark::State& state) {
  const BenchCodec codec = benchCodec(state.range(0));
  const std::vector<std::vector<float>> arrays = baselineArrays();
  const auto options = compressing(codec);
  inTurns(
      state, [] {}, [&] { writeCompressedBaseline(scratch("packed-baseline.h5"), arrays, codec); },
      [&] {
        if (!H5::save(*seriesBundle(), scratch("packed.h5"), options)) state.SkipWithError("save");
      });
  const double raw = static_cast<double>(Steps * Edge * Edge * Edge * sizeof(float));
  state.counters["compression"] =
      raw / static_cast<double>(std::filesystem::file_size(scratch("packed.h5")));
}
BENCHMARK(CompressedSave)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(5)
    ->Repetitions(3)
    ->UseManualTime();

/// Loads (every array read) what CompressedSave wrote, in turns with the C
/// API reading the same compressed arrays.
void CompressedLoad(benchmark::State& state) {
  const BenchCodec codec = benchCodec(state.range(0));
  if (!H5::save(*seriesBundle(), scratch("packed.h5"), compressing(codec))) {
    state.SkipWithError("save failed");
  }
  writeCompressedBaseline(scratch("packed-baseline.h5"), baselineArrays(), codec);
  inTurns(
      state, [] {}, [] { loadBaseline("packed-baseline.h5"); }, [] { loadFile("packed.h5"); });
  benchmark::DoNotOptimize(loadedSum);
}
BENCHMARK(CompressedLoad)
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->Iterations(10)
    ->Repetitions(3)
    ->UseManualTime();

/// The demo's data set (range 0) or 20 steps of 64^3 random doubles (1),
/// with the bytes of their arrays.
std::pair<BundlePtr, double> benchData(int64_t which) {
  if (which == 0) {
    BundlePtr demo = Tools::makeDemoBundle();
    unsigned long long resident = 0, producible = 0;
    for (const auto& [time, slice] : demo->getSlices()) slice->getMemoryUsage(resident, producible);
    return {demo, static_cast<double>(resident + producible)};
  }
  BundlePtr random;
  random.create();
  std::mt19937_64 generator(20261125);
  std::uniform_real_distribution<double> uniform(-1, 1);
  for (int step = 0; step < 20; ++step) {
    Grid& grid = *(*(*random)[static_cast<double>(step)])["fluid"];
    makeUniformGrid(grid, {Edge, Edge, Edge}, {0, 0, 0}, {1, 1, 1});
    std::vector<double> values(Edge * Edge * Edge);
    for (double& value : values) value = uniform(generator);
    addVertexField(grid, "noise", values);
  }
  return {random, 20.0 * Edge * Edge * Edge * sizeof(double)};
}

/// Saves data set range(1) compressed with codec range(0) and loads it whole
/// (prefetch), in turns with the same without compression.
void CompressedData(benchmark::State& state) {
  const auto [bundle, bytes] = benchData(state.range(1));
  const auto packedBy = compressing(benchCodec(state.range(0)));
  double saving = 0, loading = 0, plain = 0;
  const auto saveAndLoad = [&](const std::string& name,
                               const Ostrak::StrongPtr<H5::StorageOptions>& options, double* save) {
    const auto start = std::chrono::steady_clock::now();
    if (!H5::save(*bundle, scratch(name), options)) state.SkipWithError("save failed");
    const auto saved = std::chrono::steady_clock::now();
    BundlePtr loaded;
    if (!H5::load(loaded, {scratch(name)}) || prefetch(*loaded) != 0) state.SkipWithError("load");
    const auto end = std::chrono::steady_clock::now();
    if (save) {
      *save += std::chrono::duration<double>(saved - start).count();
      loading += std::chrono::duration<double>(end - saved).count();
    }
    return std::chrono::duration<double>(end - start).count();
  };
  for (auto _ : state) {
    plain += saveAndLoad("data-plain.h5", {}, nullptr);
    state.SetIterationTime(saveAndLoad("data-packed.h5", packedBy, &saving));
  }
  const double runs = static_cast<double>(state.iterations());
  state.counters["save_MBps"] = bytes * runs / saving / 1e6;
  state.counters["load_MBps"] = bytes * runs / loading / 1e6;
  state.counters["compression"] =
      bytes / static_cast<double>(std::filesystem::file_size(scratch("data-packed.h5")));
  state.counters["baseline_ms"] = 1e3 * plain / runs;
  state.counters[QuarilBench::PairedRatio] = (saving + loading) / plain;
}
BENCHMARK(CompressedData)
    ->ArgsProduct({{0, 1}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->UseManualTime();

/// The sync of one step into a series bound with Durability::Crash (nothing
/// flushed to disk), in turns with the same into one bound with
/// Durability::PowerLoss (part, folder and journal flushed).
void SyncDurability(benchmark::State& state) {
  auto bind = [](const std::string& name, H5::Durability durability) {
    Ostrak::StrongPtr<H5::StorageOptions> options(new H5::StorageOptions);
    options->setDurability(durability);
    return boundSeries(name, 1, options);
  };
  BundlePtr crash = bind("crash.h5", H5::Durability::Crash),
            flushed = bind("flushed.h5", H5::Durability::PowerLoss);
  if (!crash || !flushed) {
    state.SkipWithError("cannot bind");
    return;
  }
  int64_t step = 1;
  double ours = 0, baseline = 0;
  for (auto _ : state) {
    addStep(crash, step);
    addStep(flushed, step++);
    auto start = std::chrono::steady_clock::now();
    const bool flushedOk = flushed->sync() == 1;
    auto middle = std::chrono::steady_clock::now();
    const bool crashOk = crash->sync() == 1;
    auto end = std::chrono::steady_clock::now();
    if (!flushedOk || !crashOk) state.SkipWithError("sync failed");
    baseline += std::chrono::duration<double>(middle - start).count();
    const double time = std::chrono::duration<double>(end - middle).count();
    ours += time;
    state.SetIterationTime(time);
  }
  state.counters["power_loss_ms"] = 1e3 * baseline / static_cast<double>(state.iterations());
  state.counters[QuarilBench::PairedRatio] = ours / baseline;
}
BENCHMARK(SyncDurability)->Unit(benchmark::kMillisecond)->Iterations(200)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  // Both sides keep freed memory for reuse: on virtual machines a fresh page
  // costs microseconds, and otherwise whichever side glibc happens to give
  // fresh pages is measured mostly on page faults.
  mallopt(M_MMAP_THRESHOLD, 256 << 20);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  H5::registerFormat();
  const int result = runWithRatios(argc, argv);
  removeScratch();
  return result;
}
