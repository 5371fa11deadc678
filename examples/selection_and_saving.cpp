// Selecting a field across time, and what loading and saving answer when no
// format is registered (every failure is a result, never an exception).

#include <cstdio>
#include <vector>

#include "bundle/Binder.hpp"
#include "bundle/FieldSelector.hpp"
#include "bundle/LoaderControl.hpp"
#include "grid/GridConstructors.hpp"

int main() {
  Quaril::BundlePtr bundle;
  bundle.create();
  for (double t : {0.0, 0.5, 1.0}) {
    Quaril::Grid& grid = *(*(*bundle)[t])["fluid"];
    Quaril::makeUniformGrid(grid, {8, 8, 8}, {0, 0, 0}, {0.1, 0.1, 0.1});
    Quaril::addVertexField(grid, "pressure", std::vector<double>(512, t));
  }

  Quaril::GridSelector fluid(bundle, "fluid");
  std::printf("fluid carries doubles: %s\n",
              fluid.providesFieldTypes(Quaril::TypeList::of<double>()) ? "yes" : "no");

  double t = 0.7;
  Quaril::FieldSelector pressure(t, bundle, "fluid", "pressure");
  Ostrak::StrongPtr<Quaril::Field> values = pressure.getField("pressure");
  std::printf("pressure at 0.7 comes from %g and has %zu fragment(s)\n", t,
              values ? values->nFragments() : 0);

  try {
    Quaril::FieldSelector nothing(Quaril::BundlePtr(), 1.0, "fluid", "pressure");
  } catch (const char* text) {
    std::printf("no bundle: %s\n", text);
  }

  Quaril::BundlePtr loaded;
  Ostrak::StrongPtr<Quaril::BundleLoaderProgress> progress(new Quaril::BundleLoaderProgress);
  bool ok = loaded.load("run.h5", progress);
  std::printf("load without a format: %s, handle holds a bundle: %s\n", ok ? "ok" : "failed",
              loaded ? "yes" : "no");

  Ostrak::StrongPtr<Quaril::StorageTransformations> policy(new Quaril::StorageTransformations);
  policy->setCompressionLevel(6);
  std::printf("save without a saver: %s\n", bundle.save("copy.h5", progress, policy) ? "ok" : "no");
  int answer = bundle.saveGrids(
      "mesh-only.h5", Ostrak::StrongPtr<Ostrak::StringList>(new Ostrak::StringList{"fluid"}));
  std::printf("saveGrids answers %d\n", answer);
  Quaril::Bundle::BindingResult bound = bundle->bindToNew("live.h5", policy);
  std::printf("binding status %d, synchronised %d\n", bound.status, bundle->sync());
  return 0;
}
