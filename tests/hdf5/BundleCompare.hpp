#pragma once
// Structural comparison of two bundles, down to the bytes of every array.

#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "bundle/Bundle.hpp"

namespace Quaril::Testing {

namespace detail {

inline std::string baseName(const Grid& grid, const BaseSpace* base) {
  if (auto* chart = dynamic_cast<const ChartID*>(base)) {
    return "chart " + chart->Name() + "/" + std::to_string(chart->getDimension()) +
           (chart->isCartesian() ? "c" : "");
  }
  std::string name = "unknown base";
  grid.iterate([&](const SkeletonID& id, const StrongPtr<Skeleton>& skeleton) {
    if (skeleton.get() == base) name = id.Name();
    return true;
  });
  return name;
}

inline std::string dataDifference(const MemBase& a, const MemBase& b) {
  if (&a.getTypeDescriptor() != &b.getTypeDescriptor()) {
    return "types " + a.getTypeDescriptor().name() + " and " + b.getTypeDescriptor().name();
  }
  if (!(a.getSize() == b.getSize()))
    return "sizes " + a.getSize().str() + " and " + b.getSize().str();
  auto* ua = dynamic_cast<const UniformCartesianArray*>(&a);
  auto* ub = dynamic_cast<const UniformCartesianArray*>(&b);
  if (ua || ub) {
    if (!ua || !ub) return "uniform and stored positions";
    const bool same = !std::memcmp(&ua->origin(), &ub->origin(), sizeof(ua->origin())) &&
                      !std::memcmp(&ua->spacing(), &ub->spacing(), sizeof(ua->spacing()));
    return same ? "" : "uniform origins or spacings";
  }
  const size_t bytes = a.nElements() * a.getTypeDescriptor().size();
  if (bytes && std::memcmp(a.rawData(), b.rawData(), bytes) != 0) return "values";
  return "";
}

/// Fragments of a field by name ("" for the unfragmented part).
inline std::map<std::string, StrongPtr<CreativeArrayBase>> fragmentsOf(const Field& field) {
  struct Collect : FragmentIterator {
    std::map<std::string, StrongPtr<CreativeArrayBase>> found;
    bool apply(const StrongPtr<FragmentID>& fragment,
               const StrongPtr<CreativeArrayBase>& creator) override {
      found[fragment ? "fragment " + fragment->Name() : ""] = creator;
      return true;
    }
  } collect;
  field.iterate(collect);
  return collect.found;
}

inline std::string fieldDifference(const Field& a, const Field& b) {
  if (&a.getElementDescriptor() != &b.getElementDescriptor()) {
    return "element types " + a.getElementDescriptor().name() + " and " +
           b.getElementDescriptor().name();
  }
  auto fa = fragmentsOf(a), fb = fragmentsOf(b);
  if (fa.size() != fb.size()) return "fragment counts";
  for (const auto& [name, creator] : fa) {
    auto other = fb.find(name);
    if (other == fb.end()) return "missing " + name;
    auto da = creator->getData(), db = other->second->getData();
    if (!da || !db) return name + ": data cannot be produced";
    std::string difference = dataDifference(*da, *db);
    if (!difference.empty()) return name + ": " + difference;
  }
  return "";
}

/// Every field of a grid by "skeleton / base / field".
inline std::map<std::string, StrongPtr<Field>> fieldsOf(const Grid& grid, std::string& shape) {
  std::map<std::string, StrongPtr<Field>> fields;
  std::ostringstream out;
  grid.iterate([&](const SkeletonID& id, const StrongPtr<Skeleton>& skeleton) {
    out << id.Name() << ":" << skeleton->getNumberOfElements() << "x"
        << skeleton->getIsotropicRefinementFactor() << " ";
    // Representations are ordered by address in memory; list them by name.
    std::set<std::string> bases;
    skeleton->iterate([&](const WeakPtr<BaseSpace>& base, const StrongPtr<Representation>& rep) {
      const std::string where = id.Name() + " / " + baseName(grid, base.get());
      bases.insert("[" + where + "] ");
      rep->iterate([&](const StrongPtr<FieldID>& fieldId, const StrongPtr<Field>& field) {
        fields[where + " / " + fieldId->Name()] = field;
        return true;
      });
      return true;
    });
    for (const std::string& base : bases) out << base;
    return true;
  });
  shape = out.str();
  return fields;
}

inline std::string gridDifference(const Grid& a, const Grid& b) {
  if (a.attributes() != b.attributes()) return "grid attributes";
  std::string shapeA, shapeB;
  auto fa = fieldsOf(a, shapeA), fb = fieldsOf(b, shapeB);
  if (shapeA != shapeB) return "skeletons " + shapeA + "and " + shapeB;
  if (fa.size() != fb.size()) return "field counts";
  for (const auto& [name, field] : fa) {
    auto other = fb.find(name);
    if (other == fb.end()) return "missing field " + name;
    std::string difference = fieldDifference(*field, *other->second);
    if (!difference.empty()) return name + ": " + difference;
  }
  return "";
}

inline std::string parentName(const Bundle& bundle, const std::string& name) {
  auto id = bundle.getGridList()->find(name);
  const GridID* parent = id ? id->getParent().get() : nullptr;
  return parent ? parent->getName() : "<none>";
}

}  // namespace detail

/// The first difference between two bundles ("" when there is none): slice
/// times bit for bit, attributes, grid names and parents, skeletons,
/// representations, fields, fragments and the bytes of every array. Loads
/// what it compares.
inline std::string differences(const Bundle& a, const Bundle& b) {
  if (a.attributes() != b.attributes()) return "bundle attributes";
  const auto& sa = a.getSlices();
  const auto& sb = b.getSlices();
  if (sa.size() != sb.size()) {
    return std::to_string(sa.size()) + " and " + std::to_string(sb.size()) + " slices";
  }
  for (auto ia = sa.begin(), ib = sb.begin(); ia != sa.end(); ++ia, ++ib) {
    const std::string at = "at time " + std::to_string(ia->first) + ": ";
    if (std::memcmp(&ia->first, &ib->first, sizeof(double)) != 0)
      return at + "times differ in bits";
    ia->second->accessSlice();
    ib->second->accessSlice();
    if (ia->second->attributes() != ib->second->attributes()) return at + "slice attributes";
    std::map<std::string, StrongPtr<Grid>> ga, gb;
    for (const auto& [id, grid] : ia->second->getGrids()) ga[id->getName()] = grid;
    for (const auto& [id, grid] : ib->second->getGrids()) gb[id->getName()] = grid;
    if (ga.size() != gb.size()) return at + "grid counts";
    for (const auto& [name, grid] : ga) {
      auto other = gb.find(name);
      if (other == gb.end()) return at + "missing grid \"" + name + "\"";
      if (detail::parentName(a, name) != detail::parentName(b, name)) {
        return at + "parents of \"" + name + "\"";
      }
      std::string difference = detail::gridDifference(*grid, *other->second);
      if (!difference.empty()) return at + "grid \"" + name + "\": " + difference;
    }
  }
  return "";
}

}  // namespace Quaril::Testing
