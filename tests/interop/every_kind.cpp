// The C++ side of the ParaView check of every mesh kind:
//   interop_every_kind FOLDER
// saves the sample bundle of the tests, with a fragmented grid added, as
// FOLDER/every_kind.h5 (and so its descriptor FOLDER/every_kind.h5.xmf) and
// prints, as JSON, what a reader of the descriptor should see of it:
//
//   {"times": [...], "left_out": [names that must appear nowhere],
//    "steps": [{"time": t, "grids": {NAME: {
//        "points", "cells", "cell_dimension",        // 0 for a point cloud
//        "point_arrays", "cell_arrays",              // sorted names
//        "ranges": {ARRAY: [[min, max] per component]},
//        "bounds": [xmin, xmax, ymin, ymax, zmin, zmax],
//        "fragments": {NAME: {"points", "cells"}}    // fragmented grids only
//    }}}]}
//
// Everything is taken from the bundle in memory, not from the file, so that
// what the descriptor or the file get wrong shows.

#include <algorithm>
#include <array>
#include <cstdint>
#include <iostream>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "formats/hdf5/Format.hpp"
#include "tests/bundle/BundleFixture.hpp"

using namespace Quaril;
using Json = nlohmann::json;

namespace {

/// Reads component `c` of element `i` of `data` as a double.
using ComponentReader = double (*)(const MemBase& data, uint64_t i, int c);

template <class T>
double readAs(const MemBase& data, uint64_t i, int c) {
  const int components = data.getTypeDescriptor().components();
  return static_cast<double>(static_cast<const T*>(data.rawData())[i * components + c]);
}

template <class... Types>
ComponentReader readerAmong(const QuarilTypeBase& component) {
  ComponentReader found = nullptr;
  ((found = component.is<Types>() ? &readAs<Types> : found), ...);
  return found;
}

/// The reader of `type`'s components; null for a type XDMF has no number type
/// for (long double, bool, ...), which a descriptor leaves out.
ComponentReader readerOf(const QuarilTypeBase& type) {
  return readerAmong<float, double, char, int8_t, uint8_t, int16_t, uint16_t, int32_t, uint32_t,
                     int64_t, uint64_t, long long, unsigned long long>(type.componentType());
}

/// The data of each fragment of `field`, by fragment name ("" unfragmented).
std::map<std::string, StrongPtr<MemBase, Cacheable>> dataOf(const Field& field) {
  struct Collect : FragmentIterator {
    std::map<std::string, StrongPtr<MemBase, Cacheable>> found;
    bool apply(const StrongPtr<FragmentID>& fragment,
               const StrongPtr<CreativeArrayBase>& creator) override {
      found[fragment ? fragment->Name() : ""] = creator->getData();
      return true;
    }
  } collect;
  field.iterate(collect);
  return collect.found;
}

/// [[min, max] per component] over every fragment of `field`.
Json rangesOf(const Field& field, ComponentReader read) {
  const int components = field.getElementDescriptor().components();
  std::vector<std::array<double, 2>> ranges(
      components, {std::numeric_limits<double>::max(), std::numeric_limits<double>::lowest()});
  for (const auto& [fragment, data] : dataOf(field)) {
    for (uint64_t i = 0; i < data->nElements(); ++i) {
      for (int c = 0; c < components; ++c) {
        const double value = read(*data, i, c);
        ranges[c] = {std::min(ranges[c][0], value), std::max(ranges[c][1], value)};
      }
    }
  }
  Json out = Json::array();
  for (const auto& range : ranges) out.push_back({range[0], range[1]});
  return out;
}

/// The Cartesian representation's fields of `skeleton`, sorted by name.
std::map<std::string, StrongPtr<Field>> fieldsOf(const Grid& grid,
                                                 const StrongPtr<Skeleton>& skeleton) {
  std::map<std::string, StrongPtr<Field>> fields;
  if (!skeleton) return fields;
  if (StrongPtr<Representation> rep = grid.getCartesianRepresentation(skeleton, "")) {
    rep->iterate([&](const StrongPtr<FieldID>& id, const StrongPtr<Field>& field) {
      fields[id->Name()] = field;
      return true;
    });
  }
  return fields;
}

/// The vertex skeleton (0, 0).
StrongPtr<Skeleton> verticesOf(const Grid& grid) {
  StrongPtr<Skeleton> vertices;
  grid.iterate([&](const SkeletonID& id, const StrongPtr<Skeleton>& skeleton) {
    if (id == SkeletonID(0, 0)) vertices = skeleton;
    return !vertices;
  });
  return vertices;
}

Json describe(const Grid& grid, std::set<std::string>& leftOut) {
  const StrongPtr<Skeleton> vertices = verticesOf(grid), cells = getCellSkeleton(grid);
  Json out;
  out["points"] = vertices->getNumberOfElements();
  // A point cloud is a Polyvertex of one point per element: a vertex cell each.
  out["cells"] = cells ? cells->getNumberOfElements() : vertices->getNumberOfElements();
  out["cell_dimension"] = cells ? cells->getDimension() : 0;
  out["point_arrays"] = out["cell_arrays"] = Json::array();
  out["ranges"] = Json::object();
  for (const auto& [list, skeleton] :
       {std::pair{"point_arrays", vertices}, {"cell_arrays", cells}}) {
    for (const auto& [name, field] : fieldsOf(grid, skeleton)) {
      if (name == Grid::PositionsName) continue;  // the geometry
      const ComponentReader read = readerOf(field->getElementDescriptor());
      if (!read) {
        leftOut.insert(name);
        continue;
      }
      out[list].push_back(name);
      out["ranges"][name] = rangesOf(*field, read);
    }
  }

  std::array<double, 6> bounds{};
  bounds[0] = bounds[2] = bounds[4] = std::numeric_limits<double>::max();
  bounds[1] = bounds[3] = bounds[5] = std::numeric_limits<double>::lowest();
  auto cover = [&](const Pelorn::PhysicalSpace::point& p) {
    const double xyz[3] = {p.x, p.y, p.z};
    for (int axis = 0; axis < 3; ++axis) {
      bounds[2 * axis] = std::min(bounds[2 * axis], xyz[axis]);
      bounds[2 * axis + 1] = std::max(bounds[2 * axis + 1], xyz[axis]);
    }
  };
  const auto positions = dataOf(*fieldsOf(grid, vertices).at(Grid::PositionsName));
  for (const auto& [fragment, data] : positions) {
    if (auto* uniform = dynamic_cast<const UniformCartesianArray*>(data.get())) {
      for (uint64_t i = 0; i < uniform->nElements(); ++i) cover((*uniform)[i]);
      if (positions.size() > 1) {
        uint64_t cellCount = 1;
        for (uint64_t extent : uniform->extents()) cellCount *= extent > 1 ? extent - 1 : 1;
        out["fragments"][fragment] = {{"points", uniform->nElements()}, {"cells", cellCount}};
      }
    } else {
      const auto* stored = static_cast<const Pelorn::PhysicalSpace::point*>(data->rawData());
      for (uint64_t i = 0; i < data->nElements(); ++i) cover(stored[i]);
    }
  }
  out["bounds"] = bounds;
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: interop_every_kind FOLDER\n";
    return 2;
  }
  H5::registerFormat();
  // Uniform (with refinement levels at time 2), curvilinear with a cell
  // field, a point cloud, a triangle surface; and here a fragmented grid and
  // a long double field, which the descriptor must leave out.
  BundlePtr bundle = Testing::makeSampleBundle();
  for (double t : {3.0, 5.0}) {
    Grid& blocks = Testing::gridIn(bundle, t, "blocks");
    const auto made = makeFragmentedUniformGrid(
        blocks,
        {{"west", {3, 2, 2}, {0, 0, t}, {0.5, 1, 1}}, {"east", {2, 2, 1}, {2, 0, 0}, {1, 2, 1}}});
    const auto id = addVertexField(
        blocks, "id",
        std::map<std::string, std::vector<int32_t>>{
            {"west", std::vector<int32_t>(12, static_cast<int32_t>(t))}, {"east", {-1, 2, 3, 40}}});
    if (!made || !id) {
      std::cerr << made.error << id.error << "\n";
      return 1;
    }
  }
  if (const auto precise = addVertexField(Testing::gridIn(bundle, 1, "points"), "precise",
                                          std::vector<long double>{1, 2, 3});
      !precise) {
    std::cerr << precise.error << "\n";
    return 1;
  }

  const std::string file = std::string(argv[1]) + "/every_kind.h5";
  if (H5::Outcome saved = H5::save(*bundle, file); !saved) {
    std::cerr << saved.error << "\n";
    return 1;
  }

  Json out{{"times", Json::array()}, {"steps", Json::array()}};
  std::set<std::string> leftOut;
  for (const auto& [time, slice] : bundle->getSlices()) {
    Json step{{"time", time}, {"grids", Json::object()}};
    for (const auto& [id, grid] : slice->getGrids()) {
      if (verticesOf(*grid)) step["grids"][id->getName()] = describe(*grid, leftOut);
    }
    out["times"].push_back(time);
    out["steps"].push_back(step);
  }
  out["left_out"] = leftOut;
  std::cout << out.dump(1) << "\n";
  return 0;
}
