#include "formats/hdf5/detail/Layout.hpp"

#include <map>

#include <nlohmann/json.hpp>

namespace Quaril::H5::detail::layout {

namespace {

using Json = nlohmann::json;

/// The element of `list` for which `same` holds; null when none.
template <class Same>
Json* findIn(Json& list, Same&& same) {
  for (Json& element : list) {
    if (same(element)) return &element;
  }
  return nullptr;
}

/// The native HDF5 type of a scalar element type, by its readable name.
hid_t scalarType(const QuarilTypeBase& type) {
  const std::string& name = type.name();
  const bool isSigned = name.rfind("u", 0) != 0;
  if (name == "float") return H5T_NATIVE_FLOAT;
  if (name == "double") return H5T_NATIVE_DOUBLE;
  if (name == "longdouble") return H5T_NATIVE_LDOUBLE;
  if (name == "bool" || name == "char8") return H5T_NATIVE_UINT8;
  if (name == "char") return H5T_NATIVE_CHAR;
  if (name == "char16") return H5T_NATIVE_UINT16;
  if (name == "char32") return H5T_NATIVE_UINT32;
  if (name == "wchar") return sizeof(wchar_t) == 4 ? H5T_NATIVE_INT32 : H5T_NATIVE_UINT16;
  static const std::map<std::string, int> integers{
      {"int8", 1},  {"uint8", 1},  {"int16", 2}, {"uint16", 2}, {"int32", 4},    {"uint32", 4},
      {"int64", 8}, {"uint64", 8}, {"long", 8},  {"ulong", 8},  {"longlong", 8}, {"ulonglong", 8}};
  auto found = integers.find(name);
  if (found == integers.end() || static_cast<size_t>(found->second) != type.size()) {
    return H5I_INVALID_HID;
  }
  switch (found->second) {
    case 1:
      return isSigned ? H5T_NATIVE_INT8 : H5T_NATIVE_UINT8;
    case 2:
      return isSigned ? H5T_NATIVE_INT16 : H5T_NATIVE_UINT16;
    case 4:
      return isSigned ? H5T_NATIVE_INT32 : H5T_NATIVE_UINT32;
    default:
      return isSigned ? H5T_NATIVE_INT64 : H5T_NATIVE_UINT64;
  }
}

}  // namespace

StoredType storedType(const QuarilTypeBase& type) {
  const QuarilTypeBase& component = type.componentType();
  if (type.components() < 1 ||
      component.size() * static_cast<size_t>(type.components()) != type.size()) {
    return {};
  }
  return {scalarType(component), type.components()};
}

std::vector<hsize_t> fileExtents(const DynamicSize& size, const StoredType& type) {
  std::vector<hsize_t> extents(size.extents().rbegin(), size.extents().rend());
  if (type.components > 1) extents.push_back(static_cast<hsize_t>(type.components));
  return extents;
}

DynamicSize arraySize(const std::vector<hsize_t>& extents, const StoredType& type) {
  std::vector<uint64_t> sizes(extents.rbegin(), extents.rend());
  if (type.components > 1) {
    if (sizes.empty() || sizes.front() != static_cast<uint64_t>(type.components)) return {};
    sizes.erase(sizes.begin());
  }
  if (sizes.empty() || sizes.size() > 4) return {};
  return DynamicSize(std::move(sizes));
}

Json* sameSkeleton(Json& skeletons, const Json& like) {
  return findIn(skeletons, [&](const Json& held) {
    return held.at(Dimension) == like.at(Dimension) &&
           held.at(SkeletonIndex) == like.at(SkeletonIndex);
  });
}

Json* sameRepresentation(Json& representations, const Json& like) {
  return findIn(representations, [&](const Json& held) {
    return held.value(Chart, Json()) == like.value(Chart, Json()) &&
           held.value(RelativeSkeleton, Json()) == like.value(RelativeSkeleton, Json());
  });
}

Json* sameField(Json& fields, const Json& like) {
  return findIn(fields, [&](const Json& held) { return held.at(FieldName) == like.at(FieldName); });
}

Json* sameFragment(Json& fragments, const Json& like) {
  return findIn(fragments, [&](const Json& held) {
    return held.value(Fragment, "") == like.value(Fragment, "");
  });
}

}  // namespace Quaril::H5::detail::layout
