#include "formats/hdf5/detail/Shape.hpp"

#include <set>
#include <type_traits>
#include <utility>

#include <nlohmann/json.hpp>

#include "formats/hdf5/detail/Hdf5.hpp"
#include "grid/GridConstructors.hpp"

namespace Quaril::H5::detail {

namespace {

using Json = nlohmann::json;

/// The element type stored under `name`. Besides the types the field layer
/// always knows, the triangles' vertex triples: a process that reads a
/// surface before it made one has not described them yet.
const QuarilTypeBase* elementType(const std::string& name) {
  static const QuarilTypeBase& triangles = QuarilTypeBase::getType<TriangleIndices>();
  (void)triangles;
  return QuarilTypeBase::findType(name);
}

/// How error texts name what a value of type T must be.
template <class T>
std::string kindOf() {
  if constexpr (std::is_same_v<T, std::string>) return "a text";
  if constexpr (std::is_same_v<T, bool>) return "true or false";
  if constexpr (std::is_same_v<T, std::array<double, 3>>) return "a list of three numbers";
  return "a number";
}

/// The value of `key` in the structure's `object`; fails naming the key,
/// and what its value must be, where `what` is.
template <class T>
T valueOf(const Json& object, const char* key, const std::string& what) {
  const auto found = object.is_object() ? object.find(key) : object.end();
  require(found != object.end(),
          [&] { return what + ": the key " + inQuotes(key) + " is missing"; });
  if constexpr (std::is_same_v<T, std::string>) {
    require(found->is_string(), [&] { return what + ": " + inQuotes(key) + " must be a text"; });
  }
  try {
    return found->get<T>();
  } catch (const Json::exception&) {
    throw Failure(what + ": " + inQuotes(key) + " must be " + kindOf<T>());
  }
}

/// The list under `key` in the structure's `object`.
const Json& listOf(const Json& object, const char* key, const std::string& what) {
  const auto found = object.is_object() ? object.find(key) : object.end();
  require(found != object.end(),
          [&] { return what + ": the key " + inQuotes(key) + " is missing"; });
  require(found->is_array(), [&] { return what + ": " + inQuotes(key) + " must be a list"; });
  return *found;
}

/// A number of the structure within [low, high].
template <class T>
T numberIn(const Json& object, const char* key, T low, T high) {
  const auto found = object.is_object() ? object.find(key) : object.end();
  require(found != object.end(), [&] { return "the key " + inQuotes(key) + " is missing"; });
  const Json& value = *found;
  require(value.is_number_integer(), std::string("\"") + key + "\" is not an integer");
  const T number = value.get<T>();
  require(number >= low && number <= high, std::string("\"") + key + "\" is out of range");
  return number;
}

/// The array extents of the structure, first extent first.
DynamicSize extentsOf(const Json& object, const std::string& what) {
  const Json& list = object.at(layout::Extents);
  require(list.is_array() && !list.empty() && list.size() <= 4,
          what + ": extents must list 1 to 4 numbers");
  std::vector<uint64_t> extents;
  for (const Json& extent : list) {
    require(
        extent.is_number_unsigned() || (extent.is_number_integer() && extent.get<int64_t>() >= 0),
        what + ": an extent is not a count");
    extents.push_back(extent.get<uint64_t>());
  }
  DynamicSize size(std::move(extents));
  require(size.elements() != UINT64_MAX, what + ": its extents overflow");
  return size;
}

/// Where the fragment `described` stands, with the rank that wrote it.
FragmentPlace placeOf(const Json& described, size_t position, size_t count,
                      const std::string& what) {
  FragmentPlace place{position, count};
  if (!described.contains(layout::WriterRank)) return place;
  const Json& writer = described.at(layout::WriterRank);
  require(writer.is_array() && writer.size() == 2 && writer[0].is_number_unsigned() &&
              writer[1].is_number_unsigned() &&
              writer[0].get<uint64_t>() < writer[1].get<uint64_t>() &&
              writer[1].get<uint64_t>() <= INT32_MAX,
          what + ": its writer rank is not [rank, ranks]");
  place.rank = writer[0].get<int>();
  place.ranks = writer[1].get<int>();
  return place;
}

void readUniform(const Json& uniform, const QuarilTypeBase& type, GridShape::Fragment& fragment) {
  require(type.is<Pelorn::PhysicalSpace::point>(),
          fragment.what + ": uniform positions must be points");
  fragment.uniform = true;
  fragment.origin = valueOf<std::array<double, 3>>(uniform, layout::Origin, fragment.what);
  fragment.spacing = valueOf<std::array<double, 3>>(uniform, layout::Spacing, fragment.what);
  fragment.size = extentsOf(uniform, fragment.what);
  require(fragment.size.rank() == 3, fragment.what + ": uniform extents must be three numbers");
  fragment.counts = {fragment.size[0], fragment.size[1], fragment.size[2]};
}

void readArray(const Json& described, const QuarilTypeBase& type, GridShape::Fragment& fragment) {
  fragment.dataset = valueOf<std::string>(described, layout::Dataset, fragment.what);
  require(!fragment.dataset.empty() && fragment.dataset.find('/') == std::string::npos,
          fragment.what + ": bad data set name " + inQuotes(fragment.dataset));
  fragment.size = extentsOf(described, fragment.what);
  require(fragment.size.elements() <= UINT64_MAX / type.size(),
          fragment.what + ": its extents overflow");
}

GridShape::Field readField(const Json& described) {
  GridShape::Field field;
  field.name = valueOf<std::string>(described, layout::FieldName, "a field");
  const std::string what = "field " + inQuotes(field.name);
  const std::string typeName = valueOf<std::string>(described, layout::ElementType, what);
  require(!field.name.empty(), "a field has no name");
  field.type = elementType(typeName);
  require(field.type != nullptr, what + ": unknown element type " + inQuotes(typeName));
  field.stored = layout::storedType(*field.type);
  require(field.stored.component >= 0,
          what + ": elements of type " + inQuotes(typeName) + " cannot be read");
  field.partial = described.value(layout::Partial, false);
  const Json& fragments = listOf(described, layout::Fragments, what);
  std::set<std::pair<bool, std::string>> seen;
  for (size_t position = 0; position < fragments.size(); ++position) {
    const Json& fragmentJson = fragments[position];
    GridShape::Fragment& fragment = field.fragments.emplace_back();
    fragment.named = fragmentJson.contains(layout::Fragment);
    if (fragment.named) fragment.name = valueOf<std::string>(fragmentJson, layout::Fragment, what);
    fragment.what = what + (fragment.named ? " fragment " + inQuotes(fragment.name) : "");
    require(seen.emplace(fragment.named, fragment.name).second, fragment.what + " appears twice");
    fragment.place = placeOf(fragmentJson, position, fragments.size(), fragment.what);
    if (fragmentJson.contains(layout::Uniform)) {
      readUniform(fragmentJson.at(layout::Uniform), *field.type, fragment);
    } else {
      readArray(fragmentJson, *field.type, fragment);
    }
  }
  return field;
}

GridShape::Representation readRepresentation(const Json& rep) {
  GridShape::Representation shape;
  shape.onChart = rep.contains(layout::Chart);
  if (shape.onChart) {
    shape.chart = valueOf<std::string>(rep, layout::Chart, "a representation");
    shape.chartDimension = numberIn<int>(rep, layout::ChartDimension, 1, 64);
    shape.cartesian = valueOf<bool>(rep, layout::ChartCartesian, "a representation");
  } else {
    const Json& id = rep.at(layout::RelativeSkeleton);
    require(id.is_array() && id.size() == 2, "\"skeleton\" must be [dimension, index]");
    shape.skeleton = {id[0].get<int>(), id[1].get<int>()};
  }
  std::set<std::string> names;
  for (const Json& field : listOf(rep, layout::Fields, "a representation")) {
    shape.fields.push_back(readField(field));
    require(names.insert(shape.fields.back().name).second,
            "field " + inQuotes(shape.fields.back().name) + " appears twice");
  }
  return shape;
}

}  // namespace

std::string inQuotes(const std::string& text) {
  return "\"" + text + "\"";
}

GridShape shapeOf(const Json& structure) {
  try {
    GridShape shape;
    shape.hasAttributes = structure.value(layout::HasAttributes, false);
    shape.partial = structure.value(layout::Partial, false);
    std::set<std::pair<int, int>> seen;
    for (const Json& skeleton : listOf(structure, layout::Skeletons, "the grid")) {
      GridShape::Skeleton& made = shape.skeletons.emplace_back();
      made.dimension = numberIn<int>(skeleton, layout::Dimension, 0, 64);
      made.index = numberIn<int>(skeleton, layout::SkeletonIndex, 0, INT32_MAX);
      made.elements = numberIn<uint64_t>(skeleton, layout::Elements, 0, UINT64_MAX);
      made.refinement = numberIn<int>(skeleton, layout::Refinement, 1, 1 << 30);
      require(seen.emplace(made.dimension, made.index).second,
              SkeletonID(made.dimension, made.index).Name() + " appears twice");
    }
    // Representations after all skeletons: one may be relative to a later one.
    size_t i = 0;
    for (const Json& skeleton : structure.at(layout::Skeletons)) {
      for (const Json& rep :
           listOf(skeleton, layout::Representations,
                  SkeletonID(shape.skeletons[i].dimension, shape.skeletons[i].index).Name())) {
        shape.skeletons[i].representations.push_back(readRepresentation(rep));
      }
      ++i;
    }
    return shape;
  } catch (const Json::exception& error) {
    throw Failure("its structure: " + jsonReason(error.what(), error.id));
  } catch (const Failure& failure) {
    throw Failure(std::string("its structure: ") + failure.what());
  }
}

std::string jsonReason(std::string text, int id) {
  // The library's own tag, "[json.exception.kind.id] ", is not ours to show.
  if (!text.empty() && text[0] == '[') {
    const size_t end = text.find("] ");
    if (end != std::string::npos) text.erase(0, end + 2);
  }
  if (id == 403) {  // "key 'name' not found"
    const size_t open = text.find('\''), close = text.rfind('\'');
    if (open != std::string::npos && close > open) {
      return "the key " + inQuotes(text.substr(open + 1, close - open - 1)) + " is missing";
    }
  }
  if (id == 302) return "a value of the wrong kind (" + text + ")";
  if (id >= 101 && id <= 199) return "it is not JSON (" + text + ")";
  return text;
}

}  // namespace Quaril::H5::detail
