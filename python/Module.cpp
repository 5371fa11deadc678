// The Python module `quaril`: bundles, slices and grids as Python objects,
// field data as numpy arrays that are views on the library's memory.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <deque>
#include <filesystem>
#include <limits>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "bundle/Prefetch.hpp"
#include "bundle/ValuesOverTime.hpp"
#include "formats/hdf5/Catalog.hpp"
#include "formats/hdf5/Follow.hpp"
#include "grid/GridConstructors.hpp"
#include "grid/GridWalk.hpp"
#include "tools/Check.hpp"
#include "tools/Copy.hpp"
#include "tools/Summary.hpp"

namespace py = pybind11;

namespace Quaril::Python {
namespace {

using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;
using Data = StrongPtr<MemBase, Cacheable>;

// ---- element types ------------------------------------------------------------

/// Calls `visit(tag)` with a value of the scalar type described by `type`;
/// false when it is none that numpy has.
template <class Visit>
bool withScalarType(const QuarilTypeBase& type, Visit&& visit) {
  bool found = false;
  auto tryType = [&](auto tag) {
    using T = decltype(tag);
    if (!found && type.is<T>()) {
      visit(tag);
      found = true;
    }
  };
  tryType(bool{});
  tryType(int8_t{});
  tryType(uint8_t{});
  tryType(int16_t{});
  tryType(uint16_t{});
  tryType(int32_t{});
  tryType(uint32_t{});
  tryType(long{});
  tryType(static_cast<unsigned long>(0));
  tryType(static_cast<long long>(0));
  tryType(static_cast<unsigned long long>(0));
  tryType(float{});
  tryType(double{});
  tryType(static_cast<long double>(0));
  // Character types are integers of their size to numpy.
  if (!found && (type.is<char>() || type.is<char8_t>())) {
    visit(type.is<char>() ? int8_t{} : uint8_t{}), found = true;
  }
  if (!found && type.is<char16_t>()) visit(uint16_t{}), found = true;
  if (!found && (type.is<char32_t>() || type.is<wchar_t>())) visit(int32_t{}), found = true;
  return found;
}

py::dtype dtypeOf(const QuarilTypeBase& type) {
  py::dtype result;
  if (!withScalarType(type.componentType(),
                      [&](auto tag) { result = py::dtype::of<decltype(tag)>(); })) {
    throw py::type_error("elements of type " + type.name() + " have no numpy type");
  }
  return result;
}

/// The shape numpy sees: extents slowest first, then the components.
std::vector<py::ssize_t> shapeOf(const DynamicSize& size, const QuarilTypeBase& type) {
  std::vector<py::ssize_t> shape;
  for (int d = size.rank() - 1; d >= 0; --d) shape.push_back(static_cast<py::ssize_t>(size[d]));
  if (type.components() > 1) shape.push_back(type.components());
  return shape;
}

/// A numpy array viewing `data`; it keeps the data alive, not the bundle.
py::array viewOf(const Data& data, const QuarilTypeBase& type) {
  if (!data) throw py::value_error("no data");
  if (!data->rawData()) {
    // Computed data (uniform positions): copied out element by element.
    if (const auto* uniform = dynamic_cast<const UniformCartesianArray*>(data.get())) {
      py::array_t<double> positions(shapeOf(data->getSize(), type));
      double* out = positions.mutable_data();
      for (uint64_t i = 0; i < data->nElements(); ++i) {
        const point p = (*uniform)[i];
        out[3 * i] = p.x, out[3 * i + 1] = p.y, out[3 * i + 2] = p.z;
      }
      return positions;
    }
    throw py::value_error("the data are not stored as an array");
  }
  auto* held = new Data(data);
  py::capsule owner(held, [](void* pointer) { delete static_cast<Data*>(pointer); });
  return py::array(dtypeOf(type), shapeOf(data->getSize(), type), {},
                   const_cast<void*>(data->rawData()), owner);
}

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

/// quaril.follow: the steps of a series, those there first, then each as
/// its sync lands, until the closing record or `idle` seconds without news.
struct PyFollow {
  std::unique_ptr<H5::Follower> follower;
  std::deque<double> queued;  ///< times to yield, in order
  std::optional<double> idle;
  bool ended = false;
};

[[noreturn]] void raiseOSError(const std::string& text) {
  PyErr_SetString(PyExc_OSError, text.c_str());
  throw py::error_already_set();
}

/// The grids of `slice` that could not be read: they keep their place.
std::vector<H5::Problem> unreadableGrids(const PySlice& slice) {
  slice.slice->accessSlice();
  std::vector<H5::Problem> found;
  for (H5::Problem& problem : H5::problems(*slice.bundle)) {
    if (problem.lost && !problem.grid.empty() && problem.time == slice.slice->getTime() &&
        !(*slice.slice)(problem.grid)) {
      found.push_back(std::move(problem));
    }
  }
  return found;
}

/// Raises OSError naming why the grid `name` of `slice` could not be read,
/// when it could not.
void requireReadable(const PySlice& slice, const std::string& name) {
  for (const H5::Problem& problem : unreadableGrids(slice)) {
    if (problem.grid == name) raiseOSError(problem.text());
  }
}

/// The names of the grids of `slice`, those that could not be read too.
std::vector<std::string> sliceGridNames(const PySlice& slice) {
  std::vector<std::string> names;
  slice.slice->accessSlice();
  for (const auto& [id, grid] : slice.slice->getGrids()) {
    if (id && grid) names.push_back(id->getName());
  }
  for (const H5::Problem& problem : unreadableGrids(slice)) names.push_back(problem.grid);
  std::sort(names.begin(), names.end());
  return names;
}

PyGrid gridAt(const BundlePtr& bundle, const SlicePtr& slice, const std::string& name) {
  requireReadable({bundle, slice}, name);
  StrongPtr<Grid> grid = (*slice)(name);
  if (!grid)
    throw py::key_error("no grid \"" + name + "\" at time " + Tools::formatTime(slice->getTime()));
  return {bundle, grid, name, slice->getTime()};
}

/// The field `name` of `grid`, on its vertices ("vertices"), its cells or
/// other skeletons ("cells"), or anywhere (""), the unrefined vertices first.
StrongPtr<Field> findField(const Grid& grid, const std::string& name, const std::string& on) {
  StrongPtr<Field> found;
  forEachPlacedField(grid, [&](const SkeletonID& id, const Skeleton&, const FieldID& fieldID,
                               const StrongPtr<Field>& field) {
    const bool onVertices = id.dimension() == 0;
    if (found || fieldID.Name() != name || (on == "vertices" && !onVertices) ||
        (on == "cells" && onVertices)) {
      return;
    }
    found = field;
  });
  return found;
}

py::object fieldValues(const PyGrid& grid, const std::string& name, const std::string& on) {
  const StrongPtr<Field> field = findField(*grid.grid, name, on);
  if (!field) throw py::key_error("no field \"" + name + "\" on grid \"" + grid.name + "\"");
  std::vector<py::array> arrays;
  std::string error;
  forEachFragment(*field,
                  [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
                    const Data data = creator ? creator->getData() : Data();
                    if (!data) {
                      error = creator ? creator->lastError() : "a fragment has no data";
                      return;
                    }
                    arrays.push_back(viewOf(data, field->getElementDescriptor()));
                  });
  if (!error.empty()) raiseOSError(error);
  if (arrays.size() == 1) return arrays.front();
  return py::cast(arrays);
}

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

/// The part `region` (ints and slices over the array's axes, as numpy
/// orders them) of field `name`, reading only the box that holds it.
py::object fieldRegion(const PyGrid& grid, const std::string& name, const std::string& on,
                       const py::tuple& region) {
  const StrongPtr<Field> field = findField(*grid.grid, name, on);
  if (!field) throw py::key_error("no field \"" + name + "\" on grid \"" + grid.name + "\"");
  if (field->nFragments() != 1) {
    throw py::value_error("field \"" + name + "\" is fragmented: read its fragments whole");
  }
  StrongPtr<CreativeArrayBase> creator;
  forEachFragment(*field, [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& c) {
    creator = c;
  });
  if (!creator) raiseOSError("field \"" + name + "\" has no data");
  const DynamicSize size = creator->getSize();
  const int rank = size.rank();
  const QuarilTypeBase& type = field->getElementDescriptor();
  const bool components = shapeOf(size, type).size() > static_cast<size_t>(rank);
  if (region.size() > static_cast<size_t>(rank) + (components ? 1 : 0)) {
    throw py::index_error("a region of " + std::to_string(region.size()) +
                          " axes for an array of " + std::to_string(rank + (components ? 1 : 0)));
  }
  std::vector<uint64_t> first(static_cast<size_t>(rank)), count(static_cast<size_t>(rank));
  py::list after;  // what is left to take of the box, numpy's order
  for (int axis = 0; axis < rank; ++axis) {
    const size_t dimension = static_cast<size_t>(rank - 1 - axis);
    const auto extent = static_cast<py::ssize_t>(size[static_cast<int>(dimension)]);
    const py::object key = static_cast<size_t>(axis) < region.size()
                               ? py::object(region[static_cast<size_t>(axis)])
                               : py::object(py::slice(py::none(), py::none(), py::none()));
    if (py::isinstance<py::slice>(key)) {
      py::ssize_t start = 0, stop = 0, step = 0, length = 0;
      if (!key.cast<py::slice>().compute(extent, &start, &stop, &step, &length)) {
        throw py::error_already_set();
      }
      if (step <= 0 || length == 0) throw py::value_error("an empty or reversed region");
      first[dimension] = static_cast<uint64_t>(start);
      count[dimension] = static_cast<uint64_t>((length - 1) * step + 1);
      after.append(py::slice(py::none(), py::none(), py::int_(step)));
    } else {
      py::ssize_t index = key.cast<py::ssize_t>();
      if (index < 0) index += extent;
      if (index < 0 || index >= extent) throw py::index_error("index out of the region's axis");
      first[dimension] = static_cast<uint64_t>(index);
      count[dimension] = 1;
      after.append(py::int_(0));
    }
  }
  if (components && region.size() > static_cast<size_t>(rank)) after.append(region[rank]);
  StrongPtr<MemBase, Cacheable> box;
  {
    py::gil_scoped_release unlocked;
    box = creator->getRegion(first, count);
  }
  if (!box) raiseOSError(creator->lastError());
  return viewOf(box, type)[py::tuple(after)];
}

/// Where field `name` of `grid` lives, and the shape and type of each of
/// its fragments' arrays, without reading them: {"on", "shapes", "dtype"}.
py::dict fieldLayout(const PyGrid& grid, const std::string& name) {
  std::string on;
  StrongPtr<Field> field;
  forEachPlacedField(*grid.grid, [&](const SkeletonID& id, const Skeleton&, const FieldID& fieldID,
                                     const StrongPtr<Field>& found) {
    if (field || fieldID.Name() != name) return;
    field = found;
    on = id.dimension() == 0 ? "vertices" : "cells";
  });
  if (!field) throw py::key_error("no field \"" + name + "\" on grid \"" + grid.name + "\"");
  const QuarilTypeBase& type = field->getElementDescriptor();
  py::list shapes;
  forEachFragment(*field,
                  [&](const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) {
                    if (creator)
                      shapes.append(py::tuple(py::cast(shapeOf(creator->getSize(), type))));
                  });
  py::dict layout;
  layout["on"] = on;
  layout["shapes"] = shapes;
  layout["dtype"] = dtypeOf(type);
  return layout;
}

/// The element type of `array` as a field: float64 with a last axis of 3 is
/// a vector (`tvector`), anything else a scalar of the array's type.
const QuarilTypeBase& fieldTypeOf(const py::array& array, bool& vector) {
  const py::dtype type = array.dtype();
  vector =
      type.is(py::dtype::of<double>()) && array.ndim() >= 2 && array.shape(array.ndim() - 1) == 3;
  if (vector) return QuarilTypeBase::getType<tvector>();
  const QuarilTypeBase* found = nullptr;
  auto tryType = [&](auto tag) {
    if (!found && type.is(py::dtype::of<decltype(tag)>()))
      found = &QuarilTypeBase::getType<decltype(tag)>();
  };
  tryType(bool{}), tryType(int8_t{}), tryType(uint8_t{}), tryType(int16_t{}), tryType(uint16_t{});
  tryType(int32_t{}), tryType(uint32_t{}), tryType(int64_t{}), tryType(uint64_t{});
  tryType(float{}), tryType(double{}), tryType(static_cast<long double>(0));
  if (!found)
    throw py::type_error("arrays of dtype " + py::repr(type).cast<std::string>() +
                         " cannot be stored");
  return *found;
}

void addField(PyGrid& grid, const std::string& name, const py::array& given,
              const std::string& on) {
  if (on != "vertices" && on != "cells")
    throw py::value_error("on must be \"vertices\" or \"cells\"");
  bool vector = false;
  const QuarilTypeBase& type = fieldTypeOf(given, vector);
  const py::array array = py::array::ensure(given, py::array::c_style);
  const MakeResult<Field> made = detail::addField(
      *grid.grid, on == "cells", name, type, 1,
      [&](const std::string&, const DynamicSize& size, std::string& error) -> Data {
        if (static_cast<uint64_t>(array.nbytes()) != size.elements() * type.size()) {
          error = "the array holds " + std::to_string(array.size()) + " values, not " +
                  std::to_string(size.elements() * type.components());
          return {};
        }
        Data data = makeMemArray(type, size, false);
        std::memcpy(data->rawData(), array.data(),
                    static_cast<size_t>(array.nbytes()));  // the one copy
        return data;
      },
      "");
  if (!made) throw py::value_error(made.error);
}

std::vector<point> pointsOf(
    const py::array_t<double, py::array::c_style | py::array::forcecast>& array) {
  if (array.ndim() != 2 || array.shape(1) != 3)
    throw py::value_error("points must be an (n, 3) array");
  std::vector<point> points;
  points.reserve(static_cast<size_t>(array.shape(0)));
  for (py::ssize_t i = 0; i < array.shape(0); ++i) {
    points.push_back(point{array.at(i, 0), array.at(i, 1), array.at(i, 2)});
  }
  return points;
}

template <class T>
void check(const MakeResult<T>& made) {
  if (!made) throw py::value_error(made.error);
}

std::vector<std::string> fieldNames(const Grid& grid) {
  std::vector<std::string> names;
  forEachPlacedField(grid, [&](const SkeletonID&, const Skeleton&, const FieldID& id,
                               const StrongPtr<Field>&) { names.push_back(id.Name()); });
  return names;
}

std::string describe(const PyGrid& grid) {
  std::string text =
      "<quaril.Grid \"" + grid.name + "\" at t=" + Tools::formatTime(grid.time) + ": ";
  const std::vector<std::string> names = fieldNames(*grid.grid);
  for (size_t i = 0; i < names.size(); ++i) text += (i ? ", " : "") + names[i];
  return text + (names.empty() ? "no fields>" : ">");
}

/// A binding of a bundle to a series, as a context manager.
struct PyBinding {
  BundlePtr bundle;
  std::string path;
  void sync() {
    if (bundle->sync() != 1) raiseOSError(H5::lastSync(*bundle).error);
  }
  void release() {
    if (!bundle->getStorage()) return;
    const int synced = bundle->sync();
    const std::string error = H5::lastSync(*bundle).error;
    bundle->setStorage({});
    if (synced != 1) raiseOSError(error);
  }
};

py::object evolution(const BundlePtr& bundle, const std::string& name) {
  const StrongPtr<GridID> id = bundle->getGridList()->find(name);
  if (!id) throw py::key_error("no grid \"" + name + "\"");
  std::vector<double> times;
  for (const auto& [time, slice] : id->getSliceMap().entries()) times.push_back(time);
  // A generator that reads each step only when it is reached.
  py::module_ builtins = py::module_::import("builtins");
  return builtins.attr("iter")(
      py::cpp_function([bundle, name, times, index = size_t(0)]() mutable -> py::object {
        while (index < times.size()) {
          const double time = times[index++];
          double found = time;
          if (SlicePtr slice = (*bundle)(found)) {
            if (StrongPtr<Grid> grid = (*slice)(name))
              return py::make_tuple(time, PyGrid{bundle, grid, name, time});
          }
        }
        throw py::stop_iteration();
      }),
      py::none());
}

/// The next step of a follow, waiting for it without the interpreter's lock
/// and in short stretches, so that Ctrl-C ends the wait.
py::tuple nextStep(PyFollow& follow) {
  using namespace std::chrono;
  const auto deadline = follow.idle ? steady_clock::now() + duration_cast<steady_clock::duration>(
                                                                duration<double>(*follow.idle))
                                    : steady_clock::time_point::max();
  while (follow.queued.empty() && !follow.ended) {
    if (follow.follower->closed() || steady_clock::now() >= deadline) {
      follow.ended = true;
      break;
    }
    const auto left = deadline - steady_clock::now();
    const auto stretch = std::min<steady_clock::duration>(left, milliseconds(200));
    H5::SeriesUpdate update;
    H5::Outcome waited;
    {
      py::gil_scoped_release unlocked;
      waited = follow.follower->wait(duration_cast<milliseconds>(stretch), update);
    }
    if (!waited) raiseOSError(waited.error);
    follow.queued.insert(follow.queued.end(), update.added.begin(), update.added.end());
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  }
  if (follow.queued.empty()) throw py::stop_iteration();
  const double time = follow.queued.front();
  follow.queued.pop_front();
  const BundlePtr& bundle = follow.follower->bundle();
  return py::make_tuple(time, PySlice{bundle, bundle->getSlices().at(time)});
}

}  // namespace
}  // namespace Quaril::Python

PYBIND11_MODULE(_core, module) {
  using namespace Quaril;
  using namespace Quaril::Python;
  module.doc() = "Time-dependent scientific data: bundles of time steps holding grids with fields.";
  H5::registerFormat();

  auto gridClass =
      py::class_<PyGrid>(module, "Grid", "A mesh at one time step, with its fields.")
          .def_readonly("name", &PyGrid::name)
          .def_readonly("time", &PyGrid::time)
          .def_property_readonly(
              "fields", [](const PyGrid& grid) { return fieldNames(*grid.grid); },
              "Names of the grid's fields (vertices and cells)")
          .def("layout", &fieldLayout, py::arg("name"),
               "Where field `name` lives and its arrays' shapes and dtype, reading no data: "
               "{'on': 'vertices' | 'cells', 'shapes': [one per fragment], 'dtype'}")
          .def(
              "field",
              [](const PyGrid& grid, const std::string& name, const std::string& on,
                 const py::object& region) -> py::object {
                if (region.is_none()) return fieldValues(grid, name, on);
                return fieldRegion(grid, name, on,
                                   py::isinstance<py::tuple>(region) ? region.cast<py::tuple>()
                                                                     : py::make_tuple(region));
              },
              py::arg("name"), py::arg("on") = "", py::arg("region") = py::none(),
              "The values of field `name` as a numpy array (a list of arrays for a fragmented "
              "field); points and vectors as (n, 3). Reads lazily loaded data now. With `region` "
              "(ints and slices over the array's axes, e.g. (5, slice(0, 2))), only the box that "
              "holds it is read, unchecked by the array's checksum")
          .def_property_readonly(
              "uniform",
              [](const PyGrid& grid) -> py::object {
                const StrongPtr<Field> positions = grid.grid->CartesianPositions();
                if (!positions || positions->nFragments() != 1) return py::none();
                const Data data = positions->getData();
                const auto* uniform = dynamic_cast<const UniformCartesianArray*>(data.get());
                if (!uniform) return py::none();
                const point o = uniform->origin();
                const tvector s = uniform->spacing();
                py::dict result;
                result["origin"] = py::make_tuple(o.x, o.y, o.z);
                result["spacing"] = py::make_tuple(s.x, s.y, s.z);
                result["extents"] = uniform->extents();
                return result;
              },
              "For a uniform grid: {'origin', 'spacing', 'extents'}; None otherwise")
          .def(
              "set_uniform",
              [](PyGrid& grid, std::array<uint64_t, 3> extents, std::array<double, 3> origin,
                 std::array<double, 3> spacing) {
                check(makeUniformGrid(*grid.grid, extents, point{origin[0], origin[1], origin[2]},
                                      tvector{spacing[0], spacing[1], spacing[2]}));
              },
              py::arg("extents"), py::arg("origin") = std::array<double, 3>{0, 0, 0},
              py::arg("spacing") = std::array<double, 3>{1, 1, 1}, "Makes the grid uniform")
          .def(
              "set_points",
              [](PyGrid& grid,
                 const py::array_t<double, py::array::c_style | py::array::forcecast>& points) {
                check(makePointCloud(*grid.grid, pointsOf(points)));
              },
              py::arg("points"), "Makes the grid a point cloud of an (n, 3) array")
          .def(
              "set_triangles",
              [](PyGrid& grid,
                 const py::array_t<double, py::array::c_style | py::array::forcecast>& points,
                 const py::array_t<uint32_t, py::array::c_style | py::array::forcecast>& cells) {
                if (cells.ndim() != 2 || cells.shape(1) != 3)
                  throw py::value_error("cells must be an (m, 3) array");
                std::vector<TriangleIndices> triangles(static_cast<size_t>(cells.shape(0)));
                std::memcpy(triangles.data(), cells.data(),
                            triangles.size() * sizeof(TriangleIndices));
                check(makeTriangleSurface(*grid.grid, pointsOf(points), triangles));
              },
              py::arg("points"), py::arg("cells"), "Makes the grid a triangle surface")
          .def("add_field", &addField, py::arg("name"), py::arg("array"),
               py::arg("on") = "vertices",
               "Adds a field from a numpy array (copied once); float64 (..., 3) arrays are vectors")
          .def("__repr__", &describe)
          // A mapping of field names to values, as `field(name)` reads them.
          .def("keys", [](const PyGrid& grid) { return fieldNames(*grid.grid); })
          .def("__iter__",
               [](const PyGrid& grid) { return py::iter(py::cast(fieldNames(*grid.grid))); })
          .def("__len__", [](const PyGrid& grid) { return fieldNames(*grid.grid).size(); })
          .def("__contains__",
               [](const PyGrid& grid, const std::string& name) {
                 return static_cast<bool>(findField(*grid.grid, name, ""));
               })
          .def(
              "__getitem__",
              [](const PyGrid& grid, const std::string& name) {
                return fieldValues(grid, name, "");
              },
              "The values of field `name`, as field(name)")
          .def(
              "get",
              [](const PyGrid& grid, const std::string& name, const py::object& otherwise) {
                return findField(*grid.grid, name, "") ? fieldValues(grid, name, "") : otherwise;
              },
              py::arg("name"), py::arg("default") = py::none())
          .def("items", [](const PyGrid& grid) {
            py::list items;
            for (const std::string& name : fieldNames(*grid.grid)) {
              items.append(py::make_tuple(name, fieldValues(grid, name, "")));
            }
            return items;
          });
  withAttributes(gridClass, [](const PyGrid& grid) -> Ostrak::Attributes& { return *grid.grid; });

  auto sliceClass =
      py::class_<PySlice>(module, "Slice", "The grids of one time step.")
          .def_property_readonly("time",
                                 [](const PySlice& slice) { return slice.slice->getTime(); })
          .def_property_readonly("grids", &sliceGridNames)
          .def(
              "__getitem__",
              [](PySlice& slice, const std::string& name) {
                requireReadable(slice, name);
                Grid* grid = (*slice.slice)[name];
                if (!grid) throw py::key_error(name);
                return PyGrid{slice.bundle, (*slice.slice)(name), name, slice.slice->getTime()};
              },
              "The grid `name`, made when missing")
          .def(
              "grid",
              [](const PySlice& slice, const std::string& name) {
                return gridAt(slice.bundle, slice.slice, name);
              },
              "The grid `name`; KeyError when there is none")
          .def("__contains__",
               [](const PySlice& slice, const std::string& name) {
                 if ((*slice.slice)(name)) return true;
                 for (const H5::Problem& problem : unreadableGrids(slice)) {
                   if (problem.grid == name) return true;
                 }
                 return false;
               })
          .def("__len__",
               [](const PySlice& slice) {
                 slice.slice->accessSlice();
                 return slice.slice->getGrids().size() + unreadableGrids(slice).size();
               })
          // A mapping of grid names to grids (though slice[name] makes a missing one).
          .def("keys", &sliceGridNames)
          .def("__iter__",
               [](const PySlice& slice) { return py::iter(py::cast(sliceGridNames(slice))); })
          .def(
              "get",
              [](const PySlice& slice, const std::string& name, const py::object& otherwise) {
                return (*slice.slice)(name) ? py::cast(gridAt(slice.bundle, slice.slice, name))
                                            : otherwise;
              },
              py::arg("name"), py::arg("default") = py::none())
          .def("items",
               [](const PySlice& slice) {
                 py::list items;
                 for (const std::string& name : sliceGridNames(slice)) {
                   items.append(py::make_tuple(name, gridAt(slice.bundle, slice.slice, name)));
                 }
                 return items;
               })
          .def("__repr__", [](const PySlice& slice) {
            const std::vector<std::string> names = sliceGridNames(slice);
            std::string text = "<quaril.Slice t=" + Tools::formatTime(slice.slice->getTime()) +
                               ": " + std::to_string(names.size()) + " grids";
            for (size_t i = 0; i < names.size(); ++i) text += (i ? ", " : " (") + names[i];
            return text + (names.empty() ? ">" : ")>");
          });
  withAttributes(sliceClass,
                 [](const PySlice& slice) -> Ostrak::Attributes& { return *slice.slice; });

  py::class_<PyFollow>(module, "Follow",
                       "The steps of a series as they land: (time, Slice) pairs; see follow()")
      .def("__iter__", [](PyFollow& follow) -> PyFollow& { return follow; })
      .def("__next__", &nextStep)
      .def_property_readonly(
          "bundle", [](const PyFollow& follow) { return PyBundle{follow.follower->bundle()}; },
          "The bundle that holds every step taken up so far")
      .def_property_readonly(
          "closed", [](const PyFollow& follow) { return follow.follower->closed(); },
          "Whether the series ended with its writer's closing record")
      .def("__repr__", [](const PyFollow& follow) {
        return "<quaril.Follow " + std::to_string(follow.follower->bundle()->getSlices().size()) +
               " steps" + (follow.follower->closed() ? ", closed>" : ">");
      });

  const auto timesArray = [](const std::vector<double>& times) {
    return py::array_t<double>(static_cast<py::ssize_t>(times.size()), times.data());
  };
  py::class_<H5::Catalog, std::shared_ptr<H5::Catalog>>(
      module, "Catalog",
      "What a file or series holds, by grid and time, read once from its index without making "
      "a bundle; load() makes bundles of chosen times from it")
      .def(py::init([](const std::filesystem::path& path) {
             H5::registerFormat();
             std::shared_ptr<H5::Catalog> catalog;
             H5::Outcome opened;
             {
               py::gil_scoped_release unlocked;
               opened = H5::Catalog::open(path.string(), catalog);
             }
             if (!opened) raiseOSError(path.string() + ": " + opened.error);
             return catalog;
           }),
           py::arg("path"), "Opens the file or series `path`; OSError with the reason on failure")
      .def_property_readonly("path", &H5::Catalog::path)
      .def_property_readonly("grids", &H5::Catalog::gridNames, "The grids' names, sorted")
      .def_property_readonly(
          "times", [=](const H5::Catalog& catalog) { return timesArray(catalog.times()); },
          "Every time, ascending")
      .def(
          "times_of",
          [=](const H5::Catalog& catalog, const std::string& name) {
            return timesArray(catalog.timesOf(name));
          },
          py::arg("name"), "The times at which grid `name` is stored (none for another name)")
      .def(
          "load",
          [](const H5::Catalog& catalog, const std::vector<double>& times) {
            PyBundle loaded;
            const H5::Outcome done = catalog.load(loaded.bundle, times);
            if (!done) raiseOSError(done.error);
            return loaded;
          },
          py::arg("times"),
          "A bundle of the slices at `times` (others left out), read lazily as load() reads")
      .def("__repr__", [](const H5::Catalog& catalog) {
        return "<quaril.Catalog " + catalog.path() + ": " + std::to_string(catalog.times().size()) +
               " times, " + std::to_string(catalog.gridNames().size()) + " grids>";
      });

  py::class_<PyBinding>(module, "Binding", "A bundle bound to a file: sync() writes what is new.")
      .def("sync", &PyBinding::sync, "Writes what is new since the last sync; OSError on failure")
      .def("release", &PyBinding::release, "Syncs once more and unbinds")
      .def("__enter__", [](PyBinding& binding) -> PyBinding& { return binding; })
      .def("__exit__", [](PyBinding& binding, py::args) { binding.release(); })
      .def("__repr__",
           [](const PyBinding& binding) { return "<quaril.Binding " + binding.path + ">"; });

  auto bundleClass =
      py::class_<PyBundle>(module, "Bundle", "A time-dependent data set: time steps holding grids.")
          .def(py::init([] {
            PyBundle made;
            made.bundle.create();
            return made;
          }))
          .def_property_readonly("times",
                                 [](const PyBundle& bundle) {
                                   std::vector<double> times;
                                   for (const auto& [time, slice] : bundle.bundle->getSlices()) {
                                     if (slice) times.push_back(time);
                                   }
                                   return py::array_t<double>(
                                       static_cast<py::ssize_t>(times.size()), times.data());
                                 })
          .def_property_readonly("grids",
                                 [](const PyBundle& bundle) {
                                   std::set<std::string> names;
                                   bundle.bundle->getGridList()->getGridnames(names);
                                   return std::vector<std::string>(names.begin(), names.end());
                                 })
          .def("__len__", [](const PyBundle& bundle) { return bundle.bundle->getSlices().size(); })
          .def("__iter__",
               [](const PyBundle& bundle) {
                 py::list steps;
                 for (const auto& [time, slice] : bundle.bundle->getSlices()) {
                   if (slice) steps.append(py::make_tuple(time, PySlice{bundle.bundle, slice}));
                 }
                 return py::iter(steps);
               })
          .def(
              "__getitem__",
              [](PyBundle& bundle, double t) {
                SlicePtr slice = (*bundle.bundle)[t];
                if (!slice) throw py::key_error("no time step at NaN");
                return PySlice{bundle.bundle, slice};
              },
              "The time step at exactly `t`, made when missing")
          .def(
              "slice",
              [](const PyBundle& bundle, double t) {
                double found = t;
                SlicePtr slice = (*bundle.bundle)(found);
                if (!slice) throw py::key_error("no time step at " + Tools::formatTime(t));
                return PySlice{bundle.bundle, slice};
              },
              py::arg("t"), "The time step at exactly `t`; KeyError when there is none")
          .def(
              "most_recent",
              [](const PyBundle& bundle, double t, const std::string& name) -> py::object {
                const Bundle::GridInfo found = bundle.bundle->findMostRecentGrid(t, name);
                SlicePtr slice = found.slice.lock();
                if (!found.grid || !slice) return py::none();
                return py::cast(PyGrid{bundle.bundle, found.grid, name, slice->getTime()});
              },
              py::arg("t"), py::arg("name"),
              "The grid `name` as of time `t` (at or before it), or None")
          .def(
              "evolution",
              [](const PyBundle& bundle, const std::string& name) {
                return evolution(bundle.bundle, name);
              },
              py::arg("name"), "A generator of (time, grid) over every step that holds `name`")
          .def(
              "values_over_time",
              [](const PyBundle& bundle, const std::string& grid, const std::string& field,
                 const std::vector<uint64_t>& index,
                 std::optional<std::pair<std::optional<double>, std::optional<double>>> times) {
                // numpy's order of axes, slowest first, is the reverse of the arrays'.
                const std::vector<uint64_t> element(index.rbegin(), index.rend());
                double first = -std::numeric_limits<double>::infinity();
                double last = std::numeric_limits<double>::infinity();
                if (times && times->first) first = *times->first;
                if (times && times->second) last = *times->second;
                ValuesOverTime read;
                {
                  py::gil_scoped_release unlocked;
                  read = valuesOverTime(*bundle.bundle, grid, field, element, first, last);
                }
                if (!read.values) raiseOSError(read.error);
                const QuarilTypeBase& type = read.values->getTypeDescriptor();
                return py::make_tuple(
                    py::array_t<double>(static_cast<py::ssize_t>(read.times.size()),
                                        read.times.data()),
                    viewOf(read.values, type));
              },
              py::arg("grid"), py::arg("field"), py::arg("index"), py::arg("times") = py::none(),
              "(times, values): field `field` of grid `grid` at element `index` (numpy's "
              "order) at every step in times=(first, last) that holds the grid, each step "
              "reading only that element where it can; OSError naming the step where it cannot")
          .def(
              "prefetch",
              [](const PyBundle& bundle, unsigned threads,
                 std::optional<std::pair<std::optional<double>, std::optional<double>>> times) {
                double first = -std::numeric_limits<double>::infinity();
                double last = std::numeric_limits<double>::infinity();
                if (times && times->first) first = *times->first;
                if (times && times->second) last = *times->second;
                py::gil_scoped_release unlocked;
                return prefetch(*bundle.bundle, threads, first, last);
              },
              py::arg("threads") = 0, py::arg("times") = py::none(),
              "Reads every array of the steps in times=(first, last) now, spread over `threads` "
              "threads (0: one per core); returns how many could not be read (see problems)")
          .def(
              "times_of",
              [](const PyBundle& bundle, const std::string& name) {
                const StrongPtr<GridID> id = bundle.bundle->getGridList()->find(name);
                if (!id) throw py::key_error("no grid \"" + name + "\"");
                std::vector<double> times;
                for (const auto& [time, slice] : id->getSliceMap().entries()) times.push_back(time);
                return py::array_t<double>(static_cast<py::ssize_t>(times.size()), times.data());
              },
              py::arg("name"), "The times of the steps that hold grid `name`, reading no step")
          .def(
              "first",
              [](const PyBundle& bundle, const std::string& name) -> py::object {
                py::object steps = evolution(bundle.bundle, name);
                py::object next = py::module_::import("builtins").attr("next")(steps, py::none());
                return next;
              },
              py::arg("name"), "(time, grid) of the first step that holds `name`, or None")
          .def(
              "last",
              [](const PyBundle& bundle, const std::string& name) -> py::object {
                const StrongPtr<GridID> id = bundle.bundle->getGridList()->find(name);
                if (!id || id->getSliceMap().empty()) return py::none();
                double t = id->getSliceMap().entries().rbegin()->first;
                const Bundle::GridInfo found = bundle.bundle->findMostRecentGrid(t, name);
                if (!found.grid) return py::none();
                return py::make_tuple(t, PyGrid{bundle.bundle, found.grid, name, t});
              },
              py::arg("name"), "(time, grid) of the last step that holds `name`, or None")
          .def("xml",
               [](const PyBundle& bundle) {
                 for (const auto& [time, slice] : bundle.bundle->getSlices()) {
                   if (slice) slice->accessSlice();
                 }
                 return bundle.bundle->xml();
               })
          .def(
              "memory",
              [](const PyBundle& bundle) {
                unsigned long long resident = 0, deferred = 0;
                bundle.bundle->getMemoryUsage(resident, deferred);
                return py::make_tuple(resident, deferred);
              },
              "(resident, deferred): bytes of field data in memory, and still to be read")
          .def(
              "save",
              [](const PyBundle& bundle, const std::filesystem::path& path,
                 std::optional<std::vector<std::string>> grids, const py::object& compress,
                 bool xdmf, bool skipDamaged) {
                StrongPtr<H5::StorageOptions> policy(new H5::StorageOptions);
                if (!compress.is_none()) {
                  // A deflate level, or a codec by name ("zstd", "lz4:...", ...).
                  const std::string text = py::isinstance<py::int_>(compress)
                                               ? std::to_string(compress.cast<int>())
                                               : compress.cast<std::string>();
                  std::string error;
                  const std::optional<Tools::Compression> parsed =
                      Tools::parseCompression(text, error);
                  if (!parsed) throw py::value_error(error);
                  policy->setCompression(parsed->codec, parsed->level);
                }
                policy->setWriteXdmf(xdmf);
                policy->setSkipDamaged(skipDamaged);
                StrongPtr<Ostrak::StringList> names;
                if (grids) {
                  names = StrongPtr<Ostrak::StringList>(new Ostrak::StringList);
                  for (const std::string& name : *grids) names->push_back(name);
                }
                const H5::Outcome saved =
                    H5::save(*bundle.bundle, path.string(), policy, {}, names);
                if (!saved) raiseOSError(saved.error);
              },
              py::arg("path"), py::arg("grids") = py::none(), py::arg("compress") = py::none(),
              py::arg("xdmf") = true, py::arg("skip_damaged") = false,
              "Saves the bundle (only `grids` when given) as one file, atomically, with PATH.xmf "
              "for visualisation programs unless xdmf=False; compress: a deflate level, or "
              "'zstd[:LEVEL]', 'lz4', 'deflate[:LEVEL]'. OSError on failure, also when it would "
              "lose what could not be read (leave that out with skip_damaged=True)")
          .def(
              "bind",
              [](PyBundle& bundle, const std::filesystem::path& file, bool append, bool xdmf,
                 bool skipDamaged, bool durable) {
                const std::string path = file.string();
                StrongPtr<H5::StorageOptions> policy(new H5::StorageOptions);
                policy->setWriteXdmf(xdmf);
                policy->setSkipDamaged(skipDamaged);
                policy->setDurability(durable ? H5::Durability::PowerLoss : H5::Durability::Crash);
                const Bundle::BindingResult bound = append ? bundle.bundle->bindTo(path, policy)
                                                           : bundle.bundle->bindToNew(path, policy);
                if (bound.status != 1)
                  raiseOSError(bound.text.empty() ? H5::lastSync(*bundle.bundle).error
                                                  : bound.text);
                return PyBinding{bundle.bundle, path};
              },
              py::arg("path"), py::arg("append") = false, py::arg("xdmf") = true,
              py::arg("skip_damaged") = false, py::arg("durable") = false,
              "Binds the bundle to a series at `path` (a new one, or the existing one with "
              "append=True); each sync() adds what is new, and keeps PATH.xmf up to date unless "
              "xdmf=False. A completed sync survives the program's crash or kill; with "
              "durable=True also a power loss (each sync flushes to disk). A context manager "
              "that syncs and unbinds at its end.")
          .def_property_readonly(
              "problems", [](const PyBundle& bundle) { return H5::problems(*bundle.bundle); },
              "What of its files could not be read so far (slices are read on first use)")
          .def(
              "refresh",
              [](PyBundle& bundle) {
                H5::SeriesUpdate update;
                H5::Outcome refreshed;
                {
                  py::gil_scoped_release unlocked;
                  refreshed = H5::refresh(*bundle.bundle, update);
                }
                if (!refreshed) raiseOSError(refreshed.error);
                return py::make_tuple(update.added, update.changed);
              },
              "Takes up what was synced to the series the bundle was loaded from since it last "
              "looked; returns the times (added, changed). OSError when it was loaded from no "
              "series")
          .def("sync",
               [](PyBundle& bundle) {
                 if (!bundle.bundle->getStorage()) throw py::value_error("the bundle is not bound");
                 PyBinding{bundle.bundle, ""}.sync();
               })
          // A mapping of times to slices (iteration gives (time, slice) pairs, as items()).
          .def("keys",
               [](const PyBundle& bundle) {
                 std::vector<double> times;
                 for (const auto& [time, slice] : bundle.bundle->getSlices()) {
                   if (slice) times.push_back(time);
                 }
                 return times;
               })
          .def("__contains__",
               [](const PyBundle& bundle, double t) {
                 const auto found = bundle.bundle->getSlices().find(t);
                 return found != bundle.bundle->getSlices().end() && found->second;
               })
          .def(
              "get",
              [](const PyBundle& bundle, double t, const py::object& otherwise) -> py::object {
                const auto found = bundle.bundle->getSlices().find(t);
                if (found == bundle.bundle->getSlices().end() || !found->second) return otherwise;
                return py::cast(PySlice{bundle.bundle, found->second});
              },
              py::arg("t"), py::arg("default") = py::none())
          .def("items",
               [](const PyBundle& bundle) {
                 py::list items;
                 for (const auto& [time, slice] : bundle.bundle->getSlices()) {
                   if (slice) items.append(py::make_tuple(time, PySlice{bundle.bundle, slice}));
                 }
                 return items;
               })
          .def("_repr_html_",
               [](const PyBundle& bundle) {
                 // What `bundle-tool info` prints, for notebooks.
                 std::string html = "<pre>";
                 for (char c : Tools::formatSummary(Tools::summarize(*bundle.bundle))) {
                   html += c == '<'   ? "&lt;"
                           : c == '>' ? "&gt;"
                           : c == '&' ? "&amp;"
                                      : std::string(1, c);
                 }
                 return html + "</pre>";
               })
          .def("__repr__", [](const PyBundle& bundle) {
            const auto& slices = bundle.bundle->getSlices();
            std::string text = "<quaril.Bundle " + std::to_string(slices.size()) + " steps";
            if (!slices.empty()) {
              text += " from " + Tools::formatTime(slices.begin()->first) + " to " +
                      Tools::formatTime(slices.rbegin()->first);
            }
            std::set<std::string> names;
            bundle.bundle->getGridList()->getGridnames(names);
            text += ", " + std::to_string(names.size()) + " grids";
            size_t shown = 0;
            for (const std::string& name : names) {
              if (shown == 8) {
                text += ", ...";
                break;
              }
              text += (shown++ ? ", " : " (") + name;
            }
            return text + (names.empty() ? ">" : ")>");
          });
  withAttributes(bundleClass,
                 [](const PyBundle& bundle) -> Ostrak::Attributes& { return *bundle.bundle; });

  py::class_<H5::Problem>(module, "Problem",
                          "A part of a file that could not be read, and where and why")
      .def_readonly("file", &H5::Problem::file)
      .def_readonly("where", &H5::Problem::where)
      .def_readonly("reason", &H5::Problem::reason)
      .def_property_readonly("grid",
                             [](const H5::Problem& problem) -> std::optional<std::string> {
                               if (problem.grid.empty()) return std::nullopt;
                               return problem.grid;
                             })
      .def_property_readonly("time",
                             [](const H5::Problem& problem) -> std::optional<double> {
                               if (std::isnan(problem.time)) return std::nullopt;
                               return problem.time;
                             })
      .def_readonly("lost", &H5::Problem::lost)
      .def("__str__", &H5::Problem::text)
      .def("__repr__",
           [](const H5::Problem& problem) { return "<quaril.Problem " + problem.text() + ">"; });

  py::class_<H5::CheckReport>(module, "CheckReport", "What a check read, and every problem")
      .def_readonly("file", &H5::CheckReport::file)
      .def_readonly("problems", &H5::CheckReport::problems)
      .def_readonly("grids", &H5::CheckReport::grids)
      .def_readonly("arrays", &H5::CheckReport::arrays)
      .def_readonly("bytes", &H5::CheckReport::bytes)
      .def_property_readonly("ok", &H5::CheckReport::ok)
      .def("__bool__", &H5::CheckReport::ok)
      .def("__str__", &Tools::formatCheckReport)
      .def("__repr__", [](const H5::CheckReport& report) {
        const std::string text = Tools::formatCheckReport(report);
        return "<quaril.CheckReport " + text.substr(0, text.find('\n')) + ">";
      });

  module.def(
      "check",
      [](const std::filesystem::path& path) {
        const H5::Outcome readable = Tools::requireReadable({path.string()});
        if (!readable) raiseOSError(readable.error);
        py::gil_scoped_release unlocked;
        return H5::checkFile(path.string());
      },
      py::arg("path"),
      "Reads everything of a file or series, one array at a time, and reports every problem "
      "with where it is; the report is true when everything reads");
  module.def(
      "follow",
      [](const std::filesystem::path& path, std::optional<double> idle) {
        if (idle && !(*idle >= 0 && std::isfinite(*idle))) {
          throw py::value_error("idle must be a number of seconds, 0 or more");
        }
        H5::registerFormat();
        PyFollow follow;
        {
          py::gil_scoped_release unlocked;
          follow.follower = std::make_unique<H5::Follower>(path.string());
        }
        if (!follow.follower->opened()) raiseOSError(follow.follower->opened().error);
        for (const auto& [time, slice] : follow.follower->bundle()->getSlices()) {
          follow.queued.push_back(time);
        }
        follow.idle = idle;
        return follow;
      },
      py::arg("path"), py::arg("idle") = py::none(),
      "Yields (time, Slice) for every step of a series already there, then each new one as its "
      "sync completes; ends at the writer's closing record, or after `idle` seconds without news");
  module.def(
      "write_xdmf",
      [](const std::filesystem::path& path) {
        const H5::Outcome written = H5::writeXdmf(path.string());
        if (!written) raiseOSError(written.error);
      },
      py::arg("path"),
      "Writes PATH.xmf anew, through which visualisation programs read the file or series "
      "(not while it is bound); OSError on failure");
  module.def(
      "load",
      [](const py::object& paths) {
        std::vector<std::string> files;
        if (py::isinstance<py::str>(paths) || py::hasattr(paths, "__fspath__")) {
          files.push_back(
              py::str(py::module_::import("os").attr("fspath")(paths)).cast<std::string>());
        } else {
          for (const py::handle path : paths) {
            files.push_back(
                py::str(py::module_::import("os").attr("fspath")(path)).cast<std::string>());
          }
        }
        PyBundle loaded;
        const H5::Outcome opened = Tools::openFiles(loaded.bundle, files);
        if (!opened) raiseOSError(opened.error);
        return loaded;
      },
      py::arg("paths"),
      "Opens a file (or several, merged) lazily; OSError with the reason on failure");
}
