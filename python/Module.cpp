// The Python module `quaril`: bundles, slices and grids as Python objects,
// field data as numpy arrays that are views on the library's memory. Each
// part binds its own classes and functions.

#include "python/Objects.hpp"

PYBIND11_MODULE(_core, module) {
  using namespace Quaril;
  module.doc() = "Time-dependent scientific data: bundles of time steps holding grids with fields.";
  H5::registerFormat();
  Python::bindGrid(module);
  Python::bindBundle(module);
  Python::bindFiles(module);
}
