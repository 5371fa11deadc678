// Writing a time series to a file: a uniform grid with a field per step,
// saved once, then read back to show what the file holds.

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "formats/hdf5/Format.hpp"
#include "grid/GridConstructors.hpp"

namespace {

int writeAndRead(const std::filesystem::path& file) {
  Quaril::BundlePtr run;
  run.create();
  for (int step = 0; step < 20; ++step) {
    const double t = 0.05 * step;
    Quaril::Grid& fluid = *(*(*run)[t])["fluid"];
    Quaril::makeUniformGrid(fluid, {16, 16, 16}, {0, 0, 0}, {0.1, 0.1, 0.1});
    std::vector<float> temperature(16 * 16 * 16);
    for (size_t i = 0; i < temperature.size(); ++i) {
      temperature[i] = static_cast<float>(300 + 10 * std::sin(t + 0.01 * i));
    }
    Quaril::addVertexField(fluid, "temperature", temperature);
  }
  if (const Quaril::H5::Outcome saved = Quaril::H5::save(*run, file); !saved) {
    std::fprintf(stderr, "%s\n", saved.error.c_str());
    return 1;
  }

  Quaril::BundlePtr read;
  if (const Quaril::H5::Outcome loaded = Quaril::H5::load(read, {file}); !loaded) {
    std::fprintf(stderr, "%s\n", loaded.error.c_str());
    return 1;
  }
  unsigned long long resident = 0, deferred = 0;
  read->getMemoryUsage(resident, deferred);
  std::printf("%s: %zu steps from %g to %g, %llu bytes in memory\n", file.filename().c_str(),
              read->getSlices().size(), read->getSlices().begin()->first,
              read->getSlices().rbegin()->first, resident);
  return read->getSlices().size() == 20 ? 0 : 1;
}

}  // namespace

int main() {
  Quaril::H5::registerFormat();
  // A folder of our own, so that runs side by side do not share a file.
  std::string folder = (std::filesystem::temp_directory_path() / "quaril-series-XXXXXX").string();
  if (!mkdtemp(folder.data())) return 1;
  const int status = writeAndRead(std::filesystem::path(folder) / "series.h5");
  std::filesystem::remove_all(folder);
  return status;
}
