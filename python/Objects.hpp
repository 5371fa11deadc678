#pragma once
// What the parts of the Python module share: the Python objects, numpy's
// view of the library's arrays, and the binders that each part makes.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/Format.hpp"

namespace Quaril::Python {

namespace py = pybind11;
using Data = StrongPtr<MemBase, Cacheable>;

// ---- Python objects ------------------------------------------------------------

struct PyGrid {
  BundlePtr bundle;
  StrongPtr<Grid> grid;
  std::string name;
  double time;
};

struct PySlice {
  BundlePtr bundle;
  SlicePtr slice;
};

struct PyBundle {
  BundlePtr bundle;
};

/// A binding of a bundle to a series, as a context manager.
struct PyBinding {
  BundlePtr bundle;
  std::string path;
  void sync();
  void release();
};

[[noreturn]] void raiseOSError(const std::string& text);

// ---- numpy's view of the library's arrays (Arrays.cpp) -----------------------

/// numpy's dtype of elements of `type` (their scalar type). Throws TypeError.
py::dtype dtypeOf(const QuarilTypeBase& type);
/// The shape numpy sees: extents slowest first, then the components.
std::vector<py::ssize_t> shapeOf(const DynamicSize& size, const QuarilTypeBase& type);
/// A numpy array viewing `data`; it keeps the data alive, not the bundle.
py::array viewOf(const Data& data, const QuarilTypeBase& type);
/// `times` as a numpy array of float64 (a copy).
py::array_t<double> timesArray(const std::vector<double>& times);

/// Adds `attributes` (getter) and set_attribute (setter) to the class `on`,
/// whose objects hold their Ostrak::Attributes at `of(object)`.
template <class Class, class Of>
void withAttributes(py::class_<Class>& on, Of of) {
  on.def_property_readonly(
        "attributes", [of](const Class& object) { return py::cast(of(object).attributes()); },
        "The attributes, as a dict (a copy): numbers, texts, and lists of either")
      .def(
          "set_attribute",
          [of](Class& object, const std::string& name, const Ostrak::AttributeValue& value) {
            of(object).setAttribute(name, value);
          },
          py::arg("name"), py::arg("value"),
          "Sets attribute `name` to an int, float, str, or a list of one of them");
}

// ---- the binders, one per part of the module ---------------------------------

/// quaril.Grid (Grids.cpp).
void bindGrid(py::module_& module);
/// quaril.Slice and quaril.Bundle (Bundles.cpp).
void bindBundle(py::module_& module);
/// Files and series: load, check, follow, write_xdmf, Catalog, Binding,
/// Problem, CheckReport (Files.cpp).
void bindFiles(py::module_& module);

}  // namespace Quaril::Python
