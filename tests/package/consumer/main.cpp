// A program of another project: writes a bundle to a file, reads it back,
// and checks what it reads. Exit status 0 when all is as written.

#include <cstdio>
#include <string>
#include <vector>

#include "formats/hdf5/Format.hpp"
#include "grid/GridConstructors.hpp"

int main(int argc, char** argv) {
  const std::string file = argc > 1 ? argv[1] : "consumer.h5";
  Quaril::H5::registerFormat();
  Quaril::BundlePtr written;
  written.create();
  for (double t : {0.0, 1.0}) {
    Quaril::Grid& grid = *(*(*written)[t])["cloud"];
    Quaril::makePointCloud(grid, {{t, 0, 0}, {0, t, 0}});
    Quaril::addVertexField(grid, "mass", std::vector<double>{t, 2 * t});
  }
  if (const Quaril::H5::Outcome saved = Quaril::H5::save(*written, file); !saved) {
    std::fprintf(stderr, "%s\n", saved.error.c_str());
    return 1;
  }
  Quaril::BundlePtr read;
  if (const Quaril::H5::Outcome loaded = Quaril::H5::load(read, {file}); !loaded) {
    std::fprintf(stderr, "%s\n", loaded.error.c_str());
    return 1;
  }
  const Quaril::Bundle::GridInfo found = read->findMostRecentGrid(1.5, "cloud");
  if (!found.grid) return 1;
  auto mass = found.grid->getCartesianRepresentation()->findField("mass")->getData();
  const double second = static_cast<const double*>(mass->rawData())[1];
  std::printf("mass at t = 1: %g\n", second);
  return second == 2.0 ? 0 : 1;
}
