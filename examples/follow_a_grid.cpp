// Loading a file and following one grid through time: the most recent
// occurrence before a time, and a walk over all of them.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "formats/hdf5/Format.hpp"
#include "grid/GridConstructors.hpp"

namespace {

int followTheProbe(const std::filesystem::path& file) {
  {
    // A point cloud written every 0.25, a probe only every 0.5.
    Quaril::BundlePtr run;
    run.create();
    for (int step = 0; step < 8; ++step) {
      const double t = 0.25 * step;
      Quaril::makePointCloud(*(*(*run)[t])["cloud"], {{t, 0, 0}, {0, t, 0}});
      if (step % 2 == 0) Quaril::makePointCloud(*(*(*run)[t])["probe"], {{0, 0, t}});
    }
    if (!Quaril::H5::save(*run, file)) return 1;
  }

  Quaril::BundlePtr bundle;
  if (const Quaril::H5::Outcome loaded = Quaril::H5::load(bundle, {file}); !loaded) {
    std::fprintf(stderr, "%s\n", loaded.error.c_str());
    return 1;
  }
  // The probe as of t = 1.3: its last occurrence at or before then.
  const Quaril::Bundle::GridInfo probe = bundle->findMostRecentGrid(1.3, "probe");
  if (!probe.grid) return 1;
  std::printf("probe as of 1.3 was written at %g\n", probe.slice.lock()->getTime());

  // Every occurrence of the probe, in time order; each step is read as it comes.
  const unsigned steps = bundle->iterate(
      "probe",
      [](double t, Quaril::GridID& id, Quaril::Grid& grid) {
        std::printf("  %s at %g: %zu field(s)\n", id.getName().c_str(), t,
                    grid.getCartesianRepresentation()->nFields());
        return true;
      },
      false);
  std::printf("%u occurrences\n", steps);
  return steps == 4 && probe.slice.lock()->getTime() == 1.0 ? 0 : 1;
}

}  // namespace

int main() {
  Quaril::H5::registerFormat();
  // A folder of our own, so that runs side by side do not share a file.
  std::string folder = (std::filesystem::temp_directory_path() / "quaril-follow-XXXXXX").string();
  if (!mkdtemp(folder.data())) return 1;
  const int status = followTheProbe(std::filesystem::path(folder) / "follow.h5");
  std::filesystem::remove_all(folder);
  return status;
}
