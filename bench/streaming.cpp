// Streaming through a file larger than one gibibyte: every array of every
// time step is read once and dropped again. The peak resident memory this
// adds must stay within three time steps plus a constant. Printed beside it,
// as the baseline of the same run: the peak that reading the same arrays one
// at a time into one reused buffer with the HDF5 C API adds.

#include <hdf5.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "field/CreativeArrayBase.hpp"
#include "formats/hdf5/Format.hpp"
#include "grid/GridConstructors.hpp"

namespace {

using namespace Quaril;
using Ostrak::StrongPtr;

constexpr int Steps = 64;
constexpr uint64_t Edge = 128;
constexpr uint64_t Values = Edge * Edge * Edge;
const char* const FieldNames[] = {"density", "pressure"};
constexpr uint64_t StepBytes = 2 * Values * sizeof(float);

/// A size of this process from /proc/self/status ("VmHWM:", the peak
/// resident size since the last reset; "VmRSS:", the resident size now).
uint64_t statusBytes(const std::string& key) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(key, 0) == 0) return std::stoull(line.substr(key.size())) * 1024;
  }
  return 0;
}

/// Starts a new peak at the present resident size (Linux 4.0 and later).
bool resetPeak() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
  clear.flush();
  return static_cast<bool>(clear);
}

/// A creator that makes its step's values only when asked, so that the
/// writer holds one array at a time.
StrongPtr<CreativeArrayBase> valuesOf(int step, int field) {
  return StrongPtr<CreativeArrayBase>(new DeferredCreator(
      QuarilTypeBase::getType<float>(), DynamicSize{Edge, Edge, Edge},
      [step, field]() -> StrongPtr<MemBase, Cacheable> {
        auto array = MemArray<3, float>::create(DynamicSize{Edge, Edge, Edge});
        float* values = static_cast<float*>(array->rawData());
        for (uint64_t i = 0; i < Values; ++i) {
          values[i] = static_cast<float>(step * 2 + field) + static_cast<float>(i % 97);
        }
        return StrongPtr<MemBase, Cacheable>(array);
      }));
}

/// Writes the file in a child process, so that the writing does not raise
/// the peak of this one. True when it was written.
bool writeFile(const std::string& path) {
  const pid_t child = fork();
  if (child == 0) {
    BundlePtr bundle;
    bundle.create();
    for (int step = 0; step < Steps; ++step) {
      Grid& grid = *(*(*bundle)[step * 0.5])["fluid"];
      makeUniformGrid(grid, {Edge, Edge, Edge}, {0, 0, 0}, {1, 1, 1});
      auto representation = grid.getCartesianRepresentation();
      for (int field = 0; field < 2; ++field) {
        StrongPtr<Field> made(new Field(QuarilTypeBase::getType<float>()));
        made->setCreator(valuesOf(step, field));
        representation->setField(FieldNames[field], made);
      }
    }
    H5::Outcome saved = H5::save(*bundle, path);
    if (!saved) std::fprintf(stderr, "%s\n", saved.error.c_str());
    _exit(saved ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// Visits every fragment of every field of every slice once, dropping each
/// after use. Returns the number of arrays read, -1 on a failure.
int visitAll(const std::string& path, double& sum) {
  BundlePtr bundle;
  if (!H5::load(bundle, {path})) return -1;
  int arrays = 0;
  for (const auto& [time, slice] : bundle->getSlices()) {
    slice->accessSlice();
    for (const auto& [id, grid] : slice->getGrids()) {
      auto representation = grid->getCartesianRepresentation();
      for (const char* name : FieldNames) {
        StrongPtr<Field> field = representation ? representation->findField(name) : nullptr;
        if (!field) return -1;
        StrongPtr<CreativeArrayBase> creator = field->getCreator();
        {
          auto data = creator->getData();
          if (!data) return -1;
          sum += static_cast<const float*>(data->rawData())[Values - 1];
        }
        creator->dropCache();
        ++arrays;
      }
    }
  }
  return arrays;
}

/// The baseline: the same arrays with the C API into one reused buffer.
int readAllWithTheCApi(const std::string& path, double& sum) {
  std::vector<float> buffer(Values);
  hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  if (file < 0) return -1;
  hid_t arrays = H5Gopen2(file, "arrays", H5P_DEFAULT);
  int read = 0;
  H5G_info_t info{};
  H5Gget_info(arrays, &info);
  for (hsize_t i = 0; i < info.nlinks; ++i) {
    char name[64];
    H5Lget_name_by_idx(arrays, ".", H5_INDEX_NAME, H5_ITER_INC, i, name, sizeof(name), H5P_DEFAULT);
    hid_t dataset = H5Dopen2(arrays, name, H5P_DEFAULT);
    if (H5Dread(dataset, H5T_NATIVE_FLOAT, H5S_ALL, H5S_ALL, H5P_DEFAULT, buffer.data()) >= 0) {
      sum += buffer[Values - 1];
      ++read;
    }
    H5Dclose(dataset);
  }
  H5Gclose(arrays);
  H5Fclose(file);
  return read;
}

/// The peak resident bytes that `visit` adds.
template <class Visit>
int64_t peakGrowth(Visit&& visit, int& arrays) {
  resetPeak();
  const uint64_t before = statusBytes("VmRSS:");
  arrays = visit();
  return static_cast<int64_t>(statusBytes("VmHWM:")) - static_cast<int64_t>(before);
}

}  // namespace

int main() {
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  H5::registerFormat();
  std::string pattern =
      (std::filesystem::temp_directory_path() / "quaril-streaming-XXXXXX").string();
  if (!mkdtemp(pattern.data())) return 1;
  const std::filesystem::path folder(pattern);
  const std::string path = (folder / "stream.h5").string();
  int result = 1;
  if (!resetPeak()) {
    std::printf("this system cannot reset the peak resident size; nothing measured\n");
    result = 0;
  } else if (!writeFile(path)) {
    std::printf("writing %s failed\n", path.c_str());
  } else {
    double sum = 0;
    int ours = 0, baseline = 0;
    const int64_t baselineGrowth =
        peakGrowth([&] { return readAllWithTheCApi(path, sum); }, baseline);
    const int64_t growth = peakGrowth([&] { return visitAll(path, sum); }, ours);
    const double mib = 1024.0 * 1024.0;
    std::printf("file            %10.1f MiB, %d steps\n",
                static_cast<double>(std::filesystem::file_size(path)) / mib, Steps);
    std::printf("one step        %10.1f MiB (2 fields of %llu^3 floats)\n",
                static_cast<double>(StepBytes) / mib, static_cast<unsigned long long>(Edge));
    std::printf("peak growth     %10.1f MiB visiting %d arrays, dropping each after use\n",
                static_cast<double>(growth) / mib, ours);
    std::printf("baseline growth %10.1f MiB reading %d arrays into one buffer (C API)\n",
                static_cast<double>(baselineGrowth) / mib, baseline);
    std::printf("\nRatios:\n");
    std::printf("  peak growth / one step (bound: 3 and a constant)  %8.2f\n",
                static_cast<double>(growth) / static_cast<double>(StepBytes));
    std::printf(
        "  peak growth / baseline growth                     %8.2f\n",
        static_cast<double>(growth) / static_cast<double>(std::max<int64_t>(baselineGrowth, 1)));
    result = ours == 2 * Steps && baseline == 2 * Steps && sum != 0 ? 0 : 1;
    if (result != 0) std::printf("the visit did not read every array\n");
  }
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
  return result;
}
