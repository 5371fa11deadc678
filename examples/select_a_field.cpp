// Selecting a field across time with FieldSelector and reading its values:
// at each time the field comes from the most recent step that holds it.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bundle/FieldSelector.hpp"
#include "formats/hdf5/Format.hpp"
#include "grid/GridConstructors.hpp"

namespace {

int selectDensity(const std::filesystem::path& file) {
  {
    Quaril::BundlePtr run;
    run.create();
    for (double t : {0.0, 1.0, 2.0}) {
      Quaril::Grid& grid = *(*(*run)[t])["fluid"];
      Quaril::makeUniformGrid(grid, {4, 4, 1}, {0, 0, 0}, {1, 1, 1});
      Quaril::addVertexField(grid, "density", std::vector<double>(16, 1000 + t));
    }
    if (!Quaril::H5::save(*run, file)) return 1;
  }

  Quaril::BundlePtr bundle;
  if (!Quaril::H5::load(bundle, {file})) return 1;
  double sum = 0;
  for (double asked : {0.5, 1.5, 2.5}) {
    double t = asked;  // becomes the time of the step the field comes from
    Quaril::FieldSelector density(t, bundle, "fluid", "density");
    Ostrak::StrongPtr<Quaril::Field> field = density.getField("density");
    if (!field) return 1;
    auto data = field->getData();  // read from the file now
    const double first = static_cast<const double*>(data->rawData())[0];
    std::printf("density at %g comes from %g: %g\n", asked, t, first);
    sum += first;
  }
  return sum == 1000 + 1001 + 1002 ? 0 : 1;
}

}  // namespace

int main() {
  Quaril::H5::registerFormat();
  // A folder of our own, so that runs side by side do not share a file.
  std::string folder = (std::filesystem::temp_directory_path() / "quaril-select-XXXXXX").string();
  if (!mkdtemp(folder.data())) return 1;
  const int status = selectDensity(std::filesystem::path(folder) / "select.h5");
  std::filesystem::remove_all(folder);
  return status;
}
