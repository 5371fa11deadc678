// quaril.Grid: a mesh at one time step, its fields as numpy arrays, read
// whole or by region, and the fields and meshes a script adds.

#include "python/Objects.hpp"

#include <cstring>
#include <string>
#include <vector>

#include "grid/GridConstructors.hpp"
#include "grid/GridWalk.hpp"
#include "tools/Summary.hpp"

namespace Quaril::Python {
namespace {

using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;

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

}  // namespace

void bindGrid(py::module_& module) {
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
}

}  // namespace Quaril::Python
