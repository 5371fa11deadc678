#pragma once
// One-call constructors of common meshes on a Grid, and adding fields to them.
//
// Every constructor records owners along the whole chain (creator -> field ->
// representation -> skeleton -> grid) and changes nothing when it fails: the
// result then carries an error text and a null handle.

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "field/CreativeArrayBase.hpp"
#include "field/Field.hpp"
#include "field/MemBase.hpp"
#include "field/PhysicalSpace.hpp"
#include "grid/Grid.hpp"

namespace Quaril {

/// The vertex indices of one triangle (element type "uint32x3").
using TriangleIndices = std::array<uint32_t, 3>;

/// The name of the field of vertex index triples that makes the triangles of
/// a surface out of its vertices.
inline constexpr const char* TrianglesName = "Triangles";

/// What a constructor made, or why it made nothing.
template <class T>
struct MakeResult {
  StrongPtr<T> made;  ///< null on failure
  std::string error;  ///< empty on success
  explicit operator bool() const noexcept { return static_cast<bool>(made); }
};

/// Vertices per axis of a structured block (1 along unused axes).
using BlockExtents = std::array<uint64_t, 3>;

/// One block of a fragmented uniform grid.
struct UniformBlock {
  std::string name;  ///< fragment name; empty: "block<number>"
  BlockExtents vertices{};
  Pelorn::PhysicalSpace::point origin;
  Pelorn::PhysicalSpace::tvector spacing;
};

/// A uniform grid: `vertices` points per axis from `origin` in steps of
/// `spacing`. The vertex skeleton SkeletonID(0, 0) gets the positions as a
/// UniformCartesianArray (no stored points) in the Cartesian chart
/// `chartname` (empty: the default chart); the cells become the skeleton
/// (d, 0), d being the number of axes with more than one vertex. Returns the
/// vertex skeleton; fails when the grid has vertices already, an extent is
/// 0, the element count overflows or the chart is unknown.
MakeResult<Skeleton> makeUniformGrid(Grid& grid, const BlockExtents& vertices,
                                     const Pelorn::PhysicalSpace::point& origin,
                                     const Pelorn::PhysicalSpace::tvector& spacing,
                                     const std::string& chartname = "");

/// A curvilinear grid whose positions are `positions` (stored as given,
/// not copied), with cells as for a uniform grid. Fails as makeUniformGrid,
/// and for null positions.
MakeResult<Skeleton> makeCurvilinearGrid(
    Grid& grid, const StrongPtr<MemArray<3, Pelorn::PhysicalSpace::point>>& positions,
    const std::string& chartname = "");
/// As above from `points` (first index fastest), which must number
/// vertices[0] * vertices[1] * vertices[2].
MakeResult<Skeleton> makeCurvilinearGrid(Grid& grid, const BlockExtents& vertices,
                                         const std::vector<Pelorn::PhysicalSpace::point>& points,
                                         const std::string& chartname = "");

/// A point cloud: vertices only, positions stored as a MemArray<1, point>.
/// Fails when the grid has vertices already or `points` is empty.
MakeResult<Skeleton> makePointCloud(Grid& grid,
                                    const std::vector<Pelorn::PhysicalSpace::point>& points,
                                    const std::string& chartname = "");

/// A triangle surface: the vertices with their positions, and the skeleton
/// (2, 0) of the triangles, whose representation relative to the vertex
/// skeleton holds the field "Triangles" of vertex index triples. Returns the
/// triangle skeleton; fails when the grid has vertices already, `points` is
/// empty or an index does not name a point.
MakeResult<Skeleton> makeTriangleSurface(Grid& grid,
                                         const std::vector<Pelorn::PhysicalSpace::point>& points,
                                         const std::vector<TriangleIndices>& triangles,
                                         const std::string& chartname = "");

/// A uniform grid in several blocks: the positions field has one fragment
/// per block, each a UniformCartesianArray; the vertex and cell counts are
/// summed over the blocks. Returns the vertex skeleton; fails when there is
/// no block, a block is invalid as in makeUniformGrid, or two blocks have
/// the same name.
MakeResult<Skeleton> makeFragmentedUniformGrid(Grid& grid, const std::vector<UniformBlock>& blocks,
                                               const std::string& chartname = "");

/// Adds refinement levels to a grid of uniform positions (one or several
/// uniform blocks): for each factor 2, 4, ..., 2^levels that no vertex
/// skeleton has yet, a vertex skeleton (0, next index) with that isotropic
/// factor and its own Cartesian positions, every block's spacing divided by
/// the factor (the same fragment identities as the unrefined positions).
/// Returns the finest level's skeleton; fails when `levels` is not in
/// 1..30, or the vertex positions are missing or not uniform. May produce
/// the unrefined positions through their creators.
MakeResult<Skeleton> addRefinementLevels(Grid& grid, int levels, const std::string& chartname = "");

/// The grid's cells: the skeleton (d, 0) of the highest dimension d >= 1,
/// or null when the grid has only vertices.
StrongPtr<Skeleton> getCellSkeleton(const Grid& grid);

namespace detail {

/// Makes one fragment's array of `size`, or sets `error` and returns null.
using FragmentMaker = std::function<StrongPtr<MemBase, Cacheable>(
    const std::string& fragment, const DynamicSize& size, std::string& error)>;

/// Adds a field of `type` named `name` to the vertices (`onCells` false) or
/// the cells, one fragment per positions fragment (cells of a surface: one
/// unfragmented array); `nGiven` is the number of fragments values were given for.
MakeResult<Field> addField(Grid& grid, bool onCells, const std::string& name,
                           const QuarilTypeBase& type, size_t nGiven, const FragmentMaker& make,
                           const std::string& chartname);

/// A MemArray of `size` (rank 1 to 3) holding a copy of `values`.
template <class T>
StrongPtr<MemBase, Cacheable> makeArray(const DynamicSize& size, const std::vector<T>& values,
                                        std::string& error) {
  if (values.size() != size.elements()) {
    error = "expected " + std::to_string(size.elements()) + " values, got " +
            std::to_string(values.size());
    return {};
  }
  auto fill = [&](auto array) -> StrongPtr<MemBase, Cacheable> {
    if (!array) return {};
    std::copy(values.begin(), values.end(), array->begin());
    return array;
  };
  switch (size.rank()) {
    case 1:
      return fill(MemArray<1, T>::create(size));
    case 2:
      return fill(MemArray<2, T>::create(size));
    case 3:
      return fill(MemArray<3, T>::create(size));
    default:
      error = "arrays of rank " + std::to_string(size.rank()) + " are not supported";
      return {};
  }
}

template <class T>
FragmentMaker byFragment(const std::map<std::string, std::vector<T>>& values) {
  return [&values](const std::string& fragment, const DynamicSize& size,
                   std::string& error) -> StrongPtr<MemBase, Cacheable> {
    auto found = values.find(fragment);
    if (found == values.end()) {
      error = "no values for fragment \"" + fragment + "\"";
      return {};
    }
    return makeArray(size, found->second, error);
  };
}

}  // namespace detail

/// Adds the vertex field `name` of element type `T` (any arithmetic type,
/// point, tvector, ...) to the vertices' Cartesian representation, next to
/// the positions and shaped like them. `values` are in the positions' order
/// (first index fastest). The positions must not be fragmented. Fails when
/// the grid has no positions in that chart, a field of that name exists, or
/// the number of values differs from the number of vertices.
template <class T>
MakeResult<Field> addVertexField(Grid& grid, const std::string& name, const std::vector<T>& values,
                                 const std::string& chartname = "") {
  return detail::addField(
      grid, false, name, QuarilTypeBase::getType<T>(), 1,
      [&values](const std::string&, const DynamicSize& size, std::string& error) {
        return detail::makeArray(size, values, error);
      },
      chartname);
}

/// As above for fragmented positions: values per fragment name, one entry
/// for each fragment of the positions (the name "" for an unfragmented one).
template <class T>
MakeResult<Field> addVertexField(Grid& grid, const std::string& name,
                                 const std::map<std::string, std::vector<T>>& values,
                                 const std::string& chartname = "") {
  return detail::addField(grid, false, name, QuarilTypeBase::getType<T>(), values.size(),
                          detail::byFragment(values), chartname);
}

/// Adds the cell field `name` of element type `T` to the cells' Cartesian
/// representation. On a structured grid the values follow the vertex
/// ordering with one less along each used axis; on a triangle surface one
/// value per triangle. The positions (structured grids) must not be
/// fragmented. Fails when the grid has no cells, a field of that name
/// exists there, or the number of values differs from the number of cells.
template <class T>
MakeResult<Field> addCellField(Grid& grid, const std::string& name, const std::vector<T>& values,
                               const std::string& chartname = "") {
  return detail::addField(
      grid, true, name, QuarilTypeBase::getType<T>(), 1,
      [&values](const std::string&, const DynamicSize& size, std::string& error) {
        return detail::makeArray(size, values, error);
      },
      chartname);
}

/// As above for a fragmented structured grid: values per fragment name.
template <class T>
MakeResult<Field> addCellField(Grid& grid, const std::string& name,
                               const std::map<std::string, std::vector<T>>& values,
                               const std::string& chartname = "") {
  return detail::addField(grid, true, name, QuarilTypeBase::getType<T>(), values.size(),
                          detail::byFragment(values), chartname);
}

}  // namespace Quaril
