#include "grid/GridConstructors.hpp"

#include <algorithm>
#include <cstdint>
#include <set>
#include <utility>

namespace Quaril {
namespace {

using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;

const SkeletonID kVertices(0, 0);

/// Adds `value` to `sum`; false when the sum does not fit.
bool addChecked(uint64_t& sum, uint64_t value) {
  return !__builtin_add_overflow(sum, value, &sum);
}
bool multiplyChecked(uint64_t& product, uint64_t value) {
  return !__builtin_mul_overflow(product, value, &product);
}

/// The structure of a block of vertices: its counts and its cells. An axis
/// with one vertex is unused and contributes no cell extent.
struct BlockCounts {
  uint64_t vertices = 1;
  uint64_t cells = 1;
  int cellDimension = 0;
};

bool countBlock(const std::vector<uint64_t>& extents, BlockCounts& counts, std::string& error) {
  counts = BlockCounts{};
  for (uint64_t n : extents) {
    if (n == 0) {
      error = "an extent is 0";
      return false;
    }
    if (!multiplyChecked(counts.vertices, n)) {
      error = "the number of vertices does not fit in 64 bits";
      return false;
    }
    if (n > 1) {
      counts.cells *= n - 1;  // at most the vertex count, so it fits
      ++counts.cellDimension;
    }
  }
  if (counts.cellDimension == 0) counts.cells = 0;
  return true;
}

/// The extents of a structured block's cells: one less along each used axis.
DynamicSize cellExtents(const DynamicSize& vertices) {
  std::vector<uint64_t> extents = vertices.extents();
  for (uint64_t& n : extents) {
    if (n > 1) --n;
  }
  return DynamicSize(std::move(extents));
}

/// What a new mesh puts into the grid, checked before anything is stored.
struct MeshPlan {
  StrongPtr<ChartID> chart;
  StrongPtr<Field> positions;
  uint64_t vertices = 0;
  uint64_t cells = 0;
  int cellDimension = 0;
};

/// Checks that `grid` can take a new mesh in chart `chartname`.
bool prepare(const Grid& grid, const std::string& chartname, MeshPlan& plan, std::string& error) {
  plan.chart = grid.findCartesianChart(chartname);
  if (!plan.chart) {
    error = "unknown Cartesian chart \"" + chartname + "\"";
    return false;
  }
  if (grid.getSkeleton(kVertices)) {
    error = "the grid has vertices already";
    return false;
  }
  return true;
}

StrongPtr<CreativeArrayBase> holdInMemory(const StrongPtr<MemBase, Cacheable>& data) {
  return StrongPtr<CreativeArrayBase>(new MemCreator(data));
}

/// Stores a checked plan: the vertex skeleton with its positions and, when
/// the plan has cells, the cell skeleton.
MakeResult<Skeleton> install(Grid& grid, const MeshPlan& plan) {
  if (plan.cellDimension > 0 && grid.getSkeleton(SkeletonID(plan.cellDimension, 0))) {
    return {{}, "the grid has a skeleton " + SkeletonID(plan.cellDimension, 0).Name() + " already"};
  }
  StrongPtr<Skeleton> vertices = grid.makeSkeleton(kVertices, plan.vertices);
  vertices->makeRepresentation(plan.chart)->setField(Grid::PositionsName, plan.positions);
  if (plan.cellDimension > 0) grid.makeSkeleton(SkeletonID(plan.cellDimension, 0), plan.cells);
  return {vertices, {}};
}

/// Plans a structured mesh whose positions are `data` of `extents`.
MakeResult<Skeleton> makeStructured(Grid& grid, const StrongPtr<MemBase, Cacheable>& data,
                                    const std::string& chartname) {
  MeshPlan plan;
  std::string error;
  BlockCounts counts;
  if (!prepare(grid, chartname, plan, error) ||
      !countBlock(data->getSize().extents(), counts, error)) {
    return {{}, error};
  }
  plan.vertices = counts.vertices;
  plan.cells = counts.cells;
  plan.cellDimension = counts.cellDimension;
  plan.positions = Field::create<point>();
  plan.positions->setCreator(holdInMemory(data));
  return install(grid, plan);
}

StrongPtr<MemArray<1, point>> pointArray(const std::vector<point>& points) {
  auto array = MemArray<1, point>::create(DynamicSize{points.size()});
  std::copy(points.begin(), points.end(), array->begin());
  return array;
}

/// One block of uniform positions, as found in a positions field.
struct UniformFragment {
  StrongPtr<FragmentID> fragment;
  StrongPtr<UniformCartesianArray> data;
};

/// Collects the blocks of uniform positions; false when a fragment is not
/// uniform or cannot be produced.
class UniformCollector : public FragmentIterator {
 public:
  bool apply(const StrongPtr<FragmentID>& fragment,
             const StrongPtr<CreativeArrayBase>& creator) override {
    StrongPtr<MemBase, Cacheable> data = creator ? creator->getData() : nullptr;
    auto uniform = Ostrak::dynamic_pointer_cast<UniformCartesianArray>(data);
    if (!uniform) {
      uniform_ = false;
      return false;
    }
    blocks.push_back({fragment, uniform});
    return true;
  }
  bool allUniform() const { return uniform_ && !blocks.empty(); }
  std::vector<UniformFragment> blocks;

 private:
  bool uniform_ = true;
};

/// One refinement level, checked before anything is stored.
struct LevelPlan {
  int factor = 1;
  uint64_t vertices = 0;
  StrongPtr<Field> positions;
};

bool planLevel(const std::vector<UniformFragment>& blocks, int factor, LevelPlan& level,
               std::string& error) {
  level.factor = factor;
  level.vertices = 0;
  level.positions = Field::create<point>();
  for (const UniformFragment& block : blocks) {
    BlockExtents extents = block.data->extents();
    for (uint64_t& n : extents) {
      if (n <= 1) continue;
      --n;
      if (!multiplyChecked(n, static_cast<uint64_t>(factor)) || !addChecked(n, 1)) {
        error = "the refined extents do not fit in 64 bits";
        return false;
      }
    }
    BlockCounts counts;
    if (!countBlock({extents.begin(), extents.end()}, counts, error)) return false;
    if (!addChecked(level.vertices, counts.vertices)) {
      error = "the number of vertices does not fit in 64 bits";
      return false;
    }
    StrongPtr<MemBase, Cacheable> data(new UniformCartesianArray(
        block.data->origin(), block.data->spacing() * (1.0 / factor), extents));
    level.positions->setCreator(holdInMemory(data), block.fragment);
  }
  return true;
}

/// The fragments of a new field and the extents of each.
using FragmentShapes = std::vector<std::pair<StrongPtr<FragmentID>, DynamicSize>>;

class ShapeCollector : public FragmentIterator {
 public:
  explicit ShapeCollector(bool cells) : cells_(cells) {}
  bool apply(const StrongPtr<FragmentID>& fragment,
             const StrongPtr<CreativeArrayBase>& creator) override {
    DynamicSize size = creator ? creator->getSize() : DynamicSize();
    if (size.rank() == 0) {
      unknown_ = true;
      return false;
    }
    shapes.emplace_back(fragment, cells_ ? cellExtents(size) : size);
    return true;
  }
  bool complete() const { return !unknown_; }
  FragmentShapes shapes;

 private:
  bool cells_;
  bool unknown_ = false;
};

}  // namespace

MakeResult<Skeleton> makeUniformGrid(Grid& grid, const BlockExtents& vertices, const point& origin,
                                     const tvector& spacing, const std::string& chartname) {
  if (std::find(vertices.begin(), vertices.end(), uint64_t{0}) != vertices.end()) {
    return {{}, "an extent is 0"};
  }
  return makeStructured(
      grid, StrongPtr<MemBase, Cacheable>(new UniformCartesianArray(origin, spacing, vertices)),
      chartname);
}

MakeResult<Skeleton> makeCurvilinearGrid(Grid& grid, const StrongPtr<MemArray<3, point>>& positions,
                                         const std::string& chartname) {
  if (!positions) return {{}, "no positions given"};
  return makeStructured(grid, positions, chartname);
}

MakeResult<Skeleton> makeCurvilinearGrid(Grid& grid, const BlockExtents& vertices,
                                         const std::vector<point>& points,
                                         const std::string& chartname) {
  BlockCounts counts;
  std::string error;
  if (!countBlock({vertices.begin(), vertices.end()}, counts, error)) return {{}, error};
  if (counts.vertices != points.size()) {
    return {{},
            "expected " + std::to_string(counts.vertices) + " points, got " +
                std::to_string(points.size())};
  }
  MeshPlan plan;
  if (!prepare(grid, chartname, plan, error)) return {{}, error};
  auto positions = StrongPtr<MemArray<3, point>>(new MemArray<3, point>(vertices));
  std::copy(points.begin(), points.end(), positions->begin());
  return makeCurvilinearGrid(grid, positions, chartname);
}

MakeResult<Skeleton> makePointCloud(Grid& grid, const std::vector<point>& points,
                                    const std::string& chartname) {
  if (points.empty()) return {{}, "no points given"};
  MeshPlan plan;
  std::string error;
  if (!prepare(grid, chartname, plan, error)) return {{}, error};
  plan.vertices = points.size();
  plan.positions = Field::create<point>();
  plan.positions->setCreator(holdInMemory(pointArray(points)));
  return install(grid, plan);
}

MakeResult<Skeleton> makeTriangleSurface(Grid& grid, const std::vector<point>& points,
                                         const std::vector<TriangleIndices>& triangles,
                                         const std::string& chartname) {
  if (points.empty()) return {{}, "no points given"};
  for (size_t t = 0; t < triangles.size(); ++t) {
    for (uint32_t index : triangles[t]) {
      if (index >= points.size()) {
        return {{},
                "triangle " + std::to_string(t) + " names vertex " + std::to_string(index) +
                    " of " + std::to_string(points.size())};
      }
    }
  }
  MeshPlan plan;
  std::string error;
  if (!prepare(grid, chartname, plan, error)) return {{}, error};
  const SkeletonID triangleID(2, 0);
  if (grid.getSkeleton(triangleID)) {
    return {{}, "the grid has a skeleton " + triangleID.Name() + " already"};
  }
  auto connectivity = MemArray<1, TriangleIndices>::create(DynamicSize{triangles.size()});
  std::copy(triangles.begin(), triangles.end(), connectivity->begin());
  StrongPtr<Field> triangleField = Field::create<TriangleIndices>();
  triangleField->setCreator(holdInMemory(connectivity));
  plan.vertices = points.size();
  plan.positions = Field::create<point>();
  plan.positions->setCreator(holdInMemory(pointArray(points)));

  StrongPtr<Skeleton> vertices = install(grid, plan).made;
  StrongPtr<Skeleton> surface = grid.makeSkeleton(triangleID, triangles.size());
  surface->makeRepresentation(vertices)->setField(TrianglesName, triangleField);
  return {surface, {}};
}

MakeResult<Skeleton> makeFragmentedUniformGrid(Grid& grid, const std::vector<UniformBlock>& blocks,
                                               const std::string& chartname) {
  if (blocks.empty()) return {{}, "no blocks given"};
  MeshPlan plan;
  std::string error;
  if (!prepare(grid, chartname, plan, error)) return {{}, error};
  plan.positions = Field::create<point>();
  std::set<std::string> names;
  for (size_t b = 0; b < blocks.size(); ++b) {
    const UniformBlock& block = blocks[b];
    std::string name = block.name.empty() ? "block" + std::to_string(b) : block.name;
    BlockCounts counts;
    if (!countBlock({block.vertices.begin(), block.vertices.end()}, counts, error)) {
      return {{}, "block \"" + name + "\": " + error};
    }
    if (!names.insert(name).second) return {{}, "two blocks are named \"" + name + "\""};
    if (!addChecked(plan.vertices, counts.vertices) || !addChecked(plan.cells, counts.cells)) {
      return {{}, "the number of elements does not fit in 64 bits"};
    }
    plan.cellDimension = std::max(plan.cellDimension, counts.cellDimension);
    StrongPtr<MemBase, Cacheable> data(
        new UniformCartesianArray(block.origin, block.spacing, block.vertices));
    plan.positions->setCreator(holdInMemory(data), StrongPtr<FragmentID>(new FragmentID(name)));
  }
  return install(grid, plan);
}

MakeResult<Skeleton> addRefinementLevels(Grid& grid, int levels, const std::string& chartname) {
  if (levels < 1 || levels > 30) return {{}, "levels must lie in 1..30"};
  StrongPtr<Field> positions = grid.getVertexPositions(grid.findCartesianChart(chartname));
  if (!positions) return {{}, "the grid has no vertex positions in that chart"};
  UniformCollector collector;
  positions->iterate(collector);
  if (!collector.allUniform()) return {{}, "the vertex positions are not uniform"};

  std::vector<LevelPlan> plans;
  for (int level = 1; level <= levels; ++level) {
    const int factor = 1 << level;
    if (grid.findIsotropicRefinementFactor(factor, 0)) continue;
    LevelPlan plan;
    std::string error;
    if (!planLevel(collector.blocks, factor, plan, error)) return {{}, error};
    plans.push_back(std::move(plan));
  }
  if (grid.nextIndex(0) < 0 || grid.nextIndex(0) > INT32_MAX - static_cast<int>(plans.size())) {
    return {{}, "no free vertex skeleton index"};
  }
  StrongPtr<ChartID> chart = grid.findCartesianChart(chartname);
  for (const LevelPlan& plan : plans) {
    StrongPtr<Skeleton> skeleton =
        grid.makeSkeleton(SkeletonID(0, grid.nextIndex(0)), plan.vertices, plan.factor);
    skeleton->makeRepresentation(chart)->setField(Grid::PositionsName, plan.positions);
  }
  return {grid.findIsotropicRefinementFactor(1 << levels, 0), {}};
}

StrongPtr<Skeleton> getCellSkeleton(const Grid& grid) {
  StrongPtr<Skeleton> cells;
  grid.iterate([&](const SkeletonID& id, const StrongPtr<Skeleton>& skeleton) {
    if (id.dimension() >= 1 && id.index() == 0 && skeleton) cells = skeleton;
    return true;
  });
  return cells;
}

namespace detail {

MakeResult<Field> addField(Grid& grid, bool onCells, const std::string& name,
                           const QuarilTypeBase& type, size_t nGiven, const FragmentMaker& make,
                           const std::string& chartname) {
  if (name.empty()) return {{}, "a field needs a name"};
  StrongPtr<Skeleton> vertices = grid.getSkeleton(kVertices);
  if (!vertices) return {{}, "the grid has no vertices"};
  StrongPtr<ChartID> chart = grid.findCartesianChart(chartname);
  if (!chart) return {{}, "unknown Cartesian chart \"" + chartname + "\""};
  StrongPtr<Skeleton> target = onCells ? getCellSkeleton(grid) : vertices;
  if (!target) return {{}, "the grid has no cells"};
  StrongPtr<Representation> existing = target->getRepresentation(chart);
  if (existing && existing->findFieldID(name)) {
    return {{}, "a field named \"" + name + "\" exists already"};
  }

  FragmentShapes shapes;
  if (onCells && target->getRepresentation(vertices)) {
    // Cells made of vertices (a surface): one value per cell.
    shapes.emplace_back(StrongPtr<FragmentID>(), DynamicSize{target->getNumberOfElements()});
  } else {
    StrongPtr<Field> positions = grid.getVertexPositions(chart);
    if (!positions) return {{}, "the grid has no vertex positions in that chart"};
    ShapeCollector collector(onCells);
    positions->iterate(collector);
    if (!collector.complete()) return {{}, "the size of the vertex positions is not known"};
    shapes = std::move(collector.shapes);
  }
  if (shapes.size() != nGiven) {
    return {{},
            "values given for " + std::to_string(nGiven) + " fragment(s), the positions have " +
                std::to_string(shapes.size())};
  }

  StrongPtr<Field> field(new Field(type));
  for (const auto& [fragment, size] : shapes) {
    std::string error;
    StrongPtr<MemBase, Cacheable> data = make(fragment ? fragment->Name() : "", size, error);
    if (!data) return {{}, error.empty() ? "no array could be made" : error};
    if (!field->setCreator(holdInMemory(data), fragment)) {
      return {{}, "the array's element type differs from the field's"};
    }
  }
  grid.makeCartesianRepresentation(target, chartname)->setField(name, field);
  return {field, {}};
}

}  // namespace detail
}  // namespace Quaril
