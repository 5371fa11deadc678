// How a user starts: build a small bundle, follow a grid through time, ask
// about its structure and print its description.

#include <cstdio>
#include <vector>

#include "bundle/Bundle.hpp"
#include "bundle/BundleProperty.hpp"
#include "bundle/Occurrence.hpp"
#include "grid/GridConstructors.hpp"

int main() {
  Quaril::BundlePtr bundle;
  bundle.create();
  for (double t : {0.0, 0.5, 1.0}) {
    Quaril::SlicePtr slice = (*bundle)[t];
    Quaril::Grid* grid = (*slice)["fluid"];
    Quaril::makeUniformGrid(*grid, {16, 16, 16}, {0, 0, 0}, {0.1, 0.1, 0.1});
    Quaril::addVertexField(*grid, "pressure", std::vector<double>(16 * 16 * 16, t));
  }

  Quaril::Info<Quaril::Grid> found = bundle->findMostRecentGrid(0.7, "fluid");
  std::printf("most recent grid at 0.7 lies at %g\n", found.time);

  unsigned steps = bundle->iterate(
      "fluid",
      [](double t, Quaril::GridID& id, Quaril::Grid&) {
        std::printf("  %s at %g\n", id.getName().c_str(), t);
        return true;
      },
      false);
  std::printf("%u occurrences\n", steps);

  std::printf("uniform: %s, owned by this bundle: %s\n",
              Quaril::hasProperty(bundle, Quaril::isUniformCartesianGrid()) ? "yes" : "no",
              Quaril::getPrimaryBundle(*found.grid) == bundle ? "yes" : "no");

  unsigned long long resident = 0, producible = 0;
  bundle->getMemoryUsage(resident, producible);
  std::printf("resident %llu bytes, producible %llu bytes\n", resident, producible);
  std::printf("%s", bundle->xml().c_str());
  return 0;
}
