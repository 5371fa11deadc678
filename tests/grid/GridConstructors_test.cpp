#include "grid/GridConstructors.hpp"

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "GridTestSupport.hpp"

namespace {

using namespace GridTest;
using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;

/// Skeleton identity -> (elements, refinement factor).
using SkeletonTable = std::map<SkeletonID, std::pair<uint64_t, int>>;

SkeletonTable skeletonsOf(const Grid& grid) {
  SkeletonTable table;
  grid.iterate([&](const SkeletonID& id, const StrongPtr<Skeleton>& skeleton) {
    table[id] = {skeleton->getNumberOfElements(), skeleton->getIsotropicRefinementFactor()};
    return true;
  });
  return table;
}

/// Fragment name -> data of a field, produced through its creators.
std::map<std::string, StrongPtr<MemBase, Cacheable>> dataOf(const Field& field) {
  struct Collector : FragmentIterator {
    std::map<std::string, StrongPtr<MemBase, Cacheable>> data;
    bool apply(const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>& c) override {
      data[id ? id->Name() : ""] = c->getData();
      return true;
    }
  } collector;
  field.iterate(collector);
  return collector.data;
}

/// The data as the array type a constructor must have made; throws, failing
/// the test, when they are not.
template <class Array>
const Array& as(const StrongPtr<MemBase, Cacheable>& data) {
  if (auto* array = dynamic_cast<const Array*>(data.get())) return *array;
  throw std::runtime_error(std::string("not a ") + typeid(Array).name());
}

std::vector<point> cube() {
  std::vector<point> points;
  for (int k = 0; k < 2; ++k)
    for (int j = 0; j < 2; ++j)
      for (int i = 0; i < 2; ++i) points.push_back({1.0 * i, 2.0 * j, 3.0 * k + i * 0.5});
  return points;
}

/// Checks what every constructor promises (the skeletons, positions in the
/// Cartesian chart on the vertices covering every vertex, complete owner
/// chains) and returns the positions' data by fragment name.
std::map<std::string, StrongPtr<MemBase, Cacheable>> checkedPositions(
    const StrongPtr<Grid>& grid, const MakeResult<Skeleton>& result,
    const SkeletonTable& skeletons) {
  EXPECT_TRUE(result && result.error.empty()) << result.error;
  EXPECT_EQ(skeletonsOf(*grid), skeletons);
  StrongPtr<Field> positions = grid->CartesianPositions();
  if (!positions) return {};
  EXPECT_EQ(positions, grid->getVertexPositions(grid->findCartesianChart()));
  EXPECT_EQ(grid->getCartesianRepresentation(),
            grid->getRepresentation(grid->findCartesianChart(), SkeletonID(0, 0)));
  EXPECT_TRUE(ownerChainsComplete(grid));
  uint64_t points = 0;
  auto data = dataOf(*positions);
  for (const auto& [fragment, array] : data) points += array ? array->nElements() : 0;
  EXPECT_EQ(points, skeletons.at(SkeletonID(0, 0)).first);
  return data;
}

TEST(GridConstructors, everyMeshKindHasItsSkeletonsPositionsAndOwnerChains) {
  auto uniform = newGrid(), plane = newGrid(), curved = newGrid(), cloud = newGrid(),
       surface = newGrid(), blocks = newGrid();
  auto data =
      checkedPositions(uniform, makeUniformGrid(*uniform, {3, 4, 5}, {1, 2, 3}, {.5, .25, 2}),
                       {{{0, 0}, {60, 1}}, {{3, 0}, {24, 1}}});
  EXPECT_EQ(as<UniformCartesianArray>(data[""])(2, 1, 1), (point{2, 2.25, 5}));
  EXPECT_EQ(data[""]->getSize(), (DynamicSize{3, 4, 5}));
  checkedPositions(plane, makeUniformGrid(*plane, {3, 4, 1}, {}, {1, 1, 1}),
                   {{{0, 0}, {12, 1}}, {{2, 0}, {6, 1}}});
  data = checkedPositions(curved, makeCurvilinearGrid(*curved, {2, 2, 2}, cube()),
                          {{{0, 0}, {8, 1}}, {{3, 0}, {1, 1}}});
  EXPECT_EQ((as<MemArray<3, point>>(data[""])(1, 0, 1)), (point{1, 0, 3.5}));
  data = checkedPositions(cloud, makePointCloud(*cloud, {{0, 0, 0}, {1, 1, 1}, {2, 2, 2}}),
                          {{{0, 0}, {3, 1}}});
  EXPECT_EQ((as<MemArray<1, point>>(data[""])[2]), (point{2, 2, 2}));
  data = checkedPositions(
      blocks,
      makeFragmentedUniformGrid(
          *blocks, {{"", {2, 2, 2}, {}, {1, 1, 1}}, {"east", {3, 2, 2}, {1, 0, 0}, {1, 1, 1}}}),
      {{{0, 0}, {20, 1}}, {{3, 0}, {3, 1}}});
  EXPECT_EQ(data.size(), 2u);
  EXPECT_EQ(as<UniformCartesianArray>(data["east"])(0, 0, 0), (point{1, 0, 0}));

  // A surface's triangles are vertex index triples relative to the vertices.
  MakeResult<Skeleton> triangles = makeTriangleSurface(
      *surface, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}}, {{0, 1, 2}, {1, 3, 2}});
  checkedPositions(surface, triangles, {{{0, 0}, {4, 1}}, {{2, 0}, {2, 1}}});
  EXPECT_EQ(triangles.made, surface->getSkeleton(SkeletonID(2, 0)));
  StrongPtr<Skeleton> vertices = surface->getSkeleton(SkeletonID(0, 0));
  StrongPtr<Representation> connectivity = triangles.made->getRepresentation(vertices);
  ASSERT_TRUE(connectivity);
  EXPECT_EQ(connectivity->getBaseSpace(), WeakPtr<BaseSpace>(vertices));
  StrongPtr<Field> indices = connectivity->findField(TrianglesName);
  ASSERT_TRUE(indices);
  EXPECT_EQ((as<TypedArray<TriangleIndices>>(indices->getData())[1]), (TriangleIndices{1, 3, 2}));
}

TEST(GridConstructors, refinementLevelsAddVertexSkeletonsWithTheirOwnPositions) {
  auto grid = newGrid();
  ASSERT_TRUE(makeUniformGrid(*grid, {3, 3, 1}, {1, 1, 1}, {1, 1, 1}));
  MakeResult<Skeleton> finest = addRefinementLevels(*grid, 2);
  ASSERT_TRUE(finest) << finest.error;
  EXPECT_EQ(
      skeletonsOf(*grid),
      (SkeletonTable{{{0, 0}, {9, 1}}, {{0, 1}, {25, 2}}, {{0, 2}, {81, 4}}, {{2, 0}, {4, 1}}}));
  EXPECT_EQ(finest.made, grid->findIsotropicRefinementFactor(4, 0));
  const auto& positions = as<UniformCartesianArray>(
      grid->getCartesianRepresentation(finest.made, "")->findField("Positions")->getData());
  EXPECT_EQ(positions.extents(), (BlockExtents{9, 9, 1}));
  EXPECT_EQ(positions(8, 4, 0), (point{3, 2, 1}));
  EXPECT_TRUE(ownerChainsComplete(grid));
  ASSERT_TRUE(addRefinementLevels(*grid, 3));  // only missing levels are added
  EXPECT_EQ(grid->nSkeletons(), 5u);
  EXPECT_EQ(grid->getSkeleton(SkeletonID(0, 3))->getIsotropicRefinementFactor(), 8);

  // Blocks are refined one by one and keep their fragment identities.
  auto blocks = newGrid();
  ASSERT_TRUE(makeFragmentedUniformGrid(
      *blocks, {{"a", {2, 2, 2}, {}, {1, 1, 1}}, {"b", {2, 3, 2}, {1, 0, 0}, {1, 1, 1}}}));
  MakeResult<Skeleton> refined = addRefinementLevels(*blocks, 1);
  ASSERT_TRUE(refined) << refined.error;
  EXPECT_EQ(refined.made->getNumberOfElements(), 27u + 45u);
  StrongPtr<Field> fine =
      blocks->getCartesianRepresentation(refined.made, "")->findField("Positions");
  StrongPtr<Field> coarse = blocks->CartesianPositions();
  struct Fragments : FragmentIterator {
    std::vector<StrongPtr<FragmentID>> ids;
    bool apply(const StrongPtr<FragmentID>& id, const StrongPtr<CreativeArrayBase>&) override {
      ids.push_back(id);
      return true;
    }
  } coarseIDs, fineIDs;
  coarse->iterate(coarseIDs);
  fine->iterate(fineIDs);
  EXPECT_EQ(coarseIDs.ids, fineIDs.ids);
}

TEST(GridConstructors, badInputIsRefusedWithAReasonAndChangesNothing) {
  auto empty = newGrid(), curved = newGrid(), cloud = newGrid(), blocks = newGrid();
  ASSERT_TRUE(makeCurvilinearGrid(*curved, {2, 2, 2}, cube()));
  ASSERT_TRUE(makePointCloud(*cloud, {{}, {}}));
  ASSERT_TRUE(
      makeFragmentedUniformGrid(*blocks, {{"a", {2, 2, 1}, {}, {}}, {"b", {2, 2, 1}, {}, {}}}));
  std::map<const Grid*, std::string> before;
  for (const auto& grid : {empty, curved, cloud, blocks}) before[grid.get()] = grid->xml();
  // Whether an attempt on `grid` failed with a reason and left the grid as it was.
  auto refused = [&](const Grid& grid, const auto& result) {
    return !result && !result.error.empty() && grid.xml() == before.at(&grid);
  };
  const UniformBlock x{"x", {2, 2, 2}, {}, {}};
  std::vector<int> eight(8), seven(7), two(2), four(4);
  using Values = std::map<std::string, std::vector<int>>;
  EXPECT_TRUE(refused(*empty, makeUniformGrid(*empty, {2, 0, 2}, {}, {}))) << "zero extent";
  EXPECT_TRUE(refused(*empty, makeUniformGrid(*empty, {2, 2, 2}, {}, {}, "unknown"))) << "chart";
  EXPECT_TRUE(refused(*empty, makeUniformGrid(*empty, {1ull << 32, 1ull << 32, 2}, {}, {})))
      << "vertex count overflow";
  EXPECT_TRUE(refused(*empty, makeCurvilinearGrid(*empty, {2, 2, 2}, {{}}))) << "point count";
  EXPECT_TRUE(refused(*empty, makePointCloud(*empty, {}))) << "no points";
  EXPECT_TRUE(refused(*empty, makeTriangleSurface(*empty, {{}, {}, {}}, {{0, 1, 3}})))
      << "index out of range";
  EXPECT_TRUE(refused(*empty, makeFragmentedUniformGrid(*empty, {x, x}))) << "duplicate blocks";
  EXPECT_TRUE(refused(*empty, addRefinementLevels(*empty, 1))) << "refining nothing";
  EXPECT_TRUE(refused(*curved, makePointCloud(*curved, {{}}))) << "vertices exist already";
  EXPECT_TRUE(refused(*curved, addRefinementLevels(*curved, 1))) << "refining curvilinear";
  EXPECT_TRUE(refused(*curved, addRefinementLevels(*curved, 31))) << "too many levels";
  EXPECT_TRUE(refused(*curved, addVertexField(*curved, "f", seven))) << "too few values";
  EXPECT_TRUE(refused(*curved, addVertexField(*curved, "Positions", std::vector<point>(8))))
      << "name taken";
  EXPECT_TRUE(refused(*curved, addCellField(*curved, "c", two))) << "wrong cell count";
  EXPECT_TRUE(refused(*curved, addVertexField(*curved, "f", eight, "unknown"))) << "field chart";
  EXPECT_TRUE(refused(*cloud, addCellField(*cloud, "c", two))) << "no cells";
  EXPECT_TRUE(refused(*blocks, addVertexField(*blocks, "f", eight))) << "one vector, two blocks";
  EXPECT_TRUE(refused(*blocks, addVertexField(*blocks, "f", Values{{"a", four}, {"c", four}})))
      << "unknown fragment name";
}

TEST(GridConstructors, fragmentedFieldsFollowThePositionsFragments) {
  auto grid = newGrid();
  ASSERT_TRUE(makeFragmentedUniformGrid(
      *grid, {{"a", {2, 2, 1}, {}, {1, 1, 1}}, {"b", {3, 2, 1}, {1, 0, 0}, {1, 1, 1}}}));
  MakeResult<Field> vertexField = addVertexField(
      *grid, "v",
      std::map<std::string, std::vector<int>>{{"a", {1, 2, 3, 4}}, {"b", {5, 6, 7, 8, 9, 10}}});
  MakeResult<Field> cellField = addCellField(
      *grid, "c", std::map<std::string, std::vector<double>>{{"a", {0.5}}, {"b", {1.5, 2.5}}});
  ASSERT_TRUE(vertexField && cellField) << vertexField.error << cellField.error;
  auto vertexData = dataOf(*vertexField.made);
  ASSERT_EQ(vertexData.size(), 2u);
  EXPECT_EQ(vertexData.at("b")->getSize(), (DynamicSize{3, 2, 1}));
  EXPECT_EQ((as<TypedArray<int>>(vertexData.at("b"))[5]), 10);
  EXPECT_EQ(dataOf(*cellField.made).at("b")->getSize(), (DynamicSize{2, 1, 1}));
  EXPECT_EQ(grid->getCartesianRepresentation(getCellSkeleton(*grid), "")->findField("c"),
            cellField.made);
  EXPECT_TRUE(ownerChainsComplete(grid));
}

template <class T>
T sample(int i) {
  if constexpr (std::is_same_v<T, point>)
    return point{1.0 * i, 0, -1.0 * i};
  else if constexpr (std::is_same_v<T, tvector>)
    return tvector{0, 1.0 * i, 2};
  else if constexpr (std::is_same_v<T, bool>)
    return i % 2 == 1;
  else
    return static_cast<T>(i + 1);
}

template <class T>
class ElementTypes : public ::testing::Test {};
using AllElementTypes =
    ::testing::Types<bool, char, signed char, unsigned char, wchar_t, char8_t, char16_t, char32_t,
                     short, unsigned short, int, unsigned, long, unsigned long, long long,
                     unsigned long long, float, double, long double, point, tvector>;
TYPED_TEST_SUITE(ElementTypes, AllElementTypes);

TYPED_TEST(ElementTypes, vertexAndCellFieldsKeepTheirValuesAndType) {
  using T = TypeParam;
  auto grid = newGrid();
  ASSERT_TRUE(makeUniformGrid(*grid, {3, 2, 1}, {}, {1, 1, 1}));
  std::vector<T> vertexValues, cellValues;
  for (int i = 0; i < 6; ++i) vertexValues.push_back(sample<T>(i));
  for (int i = 0; i < 2; ++i) cellValues.push_back(sample<T>(i + 3));
  MakeResult<Field> onVertices = addVertexField(*grid, "v", vertexValues);
  MakeResult<Field> onCells = addCellField(*grid, "c", cellValues);
  ASSERT_TRUE(onVertices && onCells) << onVertices.error << onCells.error;
  EXPECT_EQ(onVertices.made->getElementType(), typeid(T));
  EXPECT_EQ(grid->getCartesianRepresentation()->findField("v"), onVertices.made);
  const auto& vertexData = as<MemArray<3, T>>(onVertices.made->getData());
  const auto& cellData = as<MemArray<3, T>>(onCells.made->getData());
  EXPECT_EQ(vertexData.getSize(), (DynamicSize{3, 2, 1}));
  EXPECT_EQ(cellData.getSize(), (DynamicSize{2, 1, 1}));
  EXPECT_TRUE(std::equal(vertexValues.begin(), vertexValues.end(), vertexData.begin()));
  EXPECT_TRUE(std::equal(cellValues.begin(), cellValues.end(), cellData.begin()));
  EXPECT_TRUE(ownerChainsComplete(grid));

  // A surface's cell field has one value per triangle.
  auto surface = newGrid();
  ASSERT_TRUE(makeTriangleSurface(*surface, {{}, {}, {}, {}}, {{0, 1, 2}, {1, 2, 3}}));
  MakeResult<Field> perTriangle = addCellField(*surface, "c", cellValues);
  ASSERT_TRUE(perTriangle) << perTriangle.error;
  EXPECT_EQ(perTriangle.made->getCreator()->getSize(), (DynamicSize{2}));
}

}  // namespace
