// numpy's view of the library's arrays: their dtypes and shapes, and arrays
// that view the library's memory without a copy.

#include "python/Objects.hpp"

#include <string>
#include <vector>

#include "grid/GridConstructors.hpp"

namespace Quaril::Python {

using Pelorn::PhysicalSpace::point;

namespace {

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

}  // namespace

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

py::array_t<double> timesArray(const std::vector<double>& times) {
  return py::array_t<double>(static_cast<py::ssize_t>(times.size()), times.data());
}

}  // namespace Quaril::Python
