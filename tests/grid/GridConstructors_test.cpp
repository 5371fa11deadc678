#include "grid/GridConstructors.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <map>
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
    bool apply(const StrongPtr<FragmentID>& fragment,
               const StrongPtr<CreativeArrayBase>& creator) override {
      data[fragment ? fragment->Name() : ""] = creator->getData();
      return true;
    }
  } collector;
  field.iterate(collector);
  return collector.data;
}

std::vector<point> cube() {
  std::vector<point> points;
  for (int k = 0; k < 2; ++k)
    for (int j = 0; j < 2; ++j)
      for (int i = 0; i < 2; ++i) points.push_back({1.0 * i, 2.0 * j, 3.0 * k + i * 0.5});
  return points;
}

struct MeshCase {
  const char* kind;
  std::function<MakeResult<Skeleton>(Grid&)> make;
  SkeletonTable skeletons;
  size_t positionFragments;
  /// Checks the data of one positions fragment.
  std::function<void(const MemBase&)> checkPositions;
};

std::vector<MeshCase> meshCases() {
  return {
      {"uniform",
       [](Grid& g) {
         return makeUniformGrid(g, {3, 4, 5}, {1, 2, 3}, {0.5, 0.25, 2});
       },
       {{{0, 0}, {60, 1}}, {{3, 0}, {24, 1}}},
       1,
       [](const MemBase& data) {
         auto* uniform = dynamic_cast<const UniformCartesianArray*>(&data);
         ASSERT_NE(uniform, nullptr);
         EXPECT_EQ((*uniform)(2, 1, 1), (point{2, 2.25, 5}));
         EXPECT_EQ(data.getSize(), (DynamicSize{3, 4, 5}));
       }},
      {"uniform plane",
       [](Grid& g) {
         return makeUniformGrid(g, {3, 4, 1}, {}, {1, 1, 1});
       },
       {{{0, 0}, {12, 1}}, {{2, 0}, {6, 1}}},
       1,
       [](const MemBase& data) { EXPECT_EQ(data.nElements(), 12u); }},
      {"curvilinear",
       [](Grid& g) {
         return makeCurvilinearGrid(g, {2, 2, 2}, cube());
       },
       {{{0, 0}, {8, 1}}, {{3, 0}, {1, 1}}},
       1,
       [](const MemBase& data) {
         auto* array = dynamic_cast<const MemArray<3, point>*>(&data);
         ASSERT_NE(array, nullptr);
         EXPECT_EQ((*array)(1, 0, 1), (point{1, 0, 3.5}));
       }},
      {"point cloud",
       [](Grid& g) {
         return makePointCloud(g, {{0, 0, 0}, {1, 1, 1}, {2, 2, 2}});
       },
       {{{0, 0}, {3, 1}}},
       1,
       [](const MemBase& data) {
         auto* array = dynamic_cast<const MemArray<1, point>*>(&data);
         ASSERT_NE(array, nullptr);
         EXPECT_EQ((*array)[2], (point{2, 2, 2}));
       }},
      {"triangle surface",
       [](Grid& g) {
         return makeTriangleSurface(g, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}},
                                    {{0, 1, 2}, {1, 3, 2}});
       },
       {{{0, 0}, {4, 1}}, {{2, 0}, {2, 1}}},
       1,
       [](const MemBase& data) { EXPECT_TRUE((dynamic_cast<const MemArray<1, point>*>(&data))); }},
      {"fragmented uniform",
       [](Grid& g) {
         return makeFragmentedUniformGrid(
             g, {{"", {2, 2, 2}, {}, {1, 1, 1}}, {"east", {3, 2, 2}, {1, 0, 0}, {1, 1, 1}}});
       },
       {{{0, 0}, {20, 1}}, {{3, 0}, {3, 1}}},
       2,
       [](const MemBase& data) {
         EXPECT_NE(dynamic_cast<const UniformCartesianArray*>(&data), nullptr);
       }},
  };
}

TEST(GridConstructors, everyMeshKindHasItsSkeletonsPositionsAndOwnerChains) {
  for (const MeshCase& mesh : meshCases()) {
    SCOPED_TRACE(mesh.kind);
    auto grid = newGrid();
    MakeResult<Skeleton> result = mesh.make(*grid);
    ASSERT_TRUE(result) << result.error;
    EXPECT_TRUE(result.error.empty());
    EXPECT_EQ(skeletonsOf(*grid), mesh.skeletons);

    StrongPtr<Field> positions = grid->CartesianPositions();
    ASSERT_TRUE(positions);
    EXPECT_EQ(positions, grid->getVertexPositions(grid->findCartesianChart()));
    EXPECT_EQ(positions->getElementType(), typeid(point));
    EXPECT_EQ(positions->nFragments(), mesh.positionFragments);
    EXPECT_EQ(grid->getCartesianRepresentation(),
              grid->getRepresentation(grid->findCartesianChart(), SkeletonID(0, 0)));
    EXPECT_EQ(grid->getCartesianRepresentation(grid->getSkeleton(SkeletonID(0, 0)), ""),
              grid->getCartesianRepresentation());

    uint64_t points = 0;
    for (const auto& [fragment, data] : dataOf(*positions)) {
      ASSERT_TRUE(data) << fragment;
      points += data->nElements();
      mesh.checkPositions(*data);
    }
    EXPECT_EQ(points, mesh.skeletons.at(SkeletonID(0, 0)).first);
    EXPECT_TRUE(ownerChainsComplete(grid));
  }
}

TEST(GridConstructors, triangleSurfaceKeepsItsTrianglesRelativeToTheVertices) {
  auto grid = newGrid();
  MakeResult<Skeleton> surface = makeTriangleSurface(
      *grid, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}}, {{0, 1, 2}, {1, 3, 2}});
  ASSERT_TRUE(surface) << surface.error;
  EXPECT_EQ(surface.made, grid->getSkeleton(SkeletonID(2, 0)));
  StrongPtr<Skeleton> vertices = grid->getSkeleton(SkeletonID(0, 0));
  StrongPtr<Representation> connectivity = surface.made->getRepresentation(vertices);
  ASSERT_TRUE(connectivity);
  EXPECT_EQ(connectivity->getBaseSpace(), WeakPtr<BaseSpace>(vertices));
  StrongPtr<Field> triangles = connectivity->findField(TrianglesName);
  ASSERT_TRUE(triangles);
  EXPECT_EQ(triangles->getElementDescriptor().components(), 3);
  auto data = Ostrak::dynamic_pointer_cast<TypedArray<TriangleIndices>>(triangles->getData());
  ASSERT_TRUE(data);
  ASSERT_EQ(data->nElements(), 2u);
  EXPECT_EQ((*data)[1], (TriangleIndices{1, 3, 2}));
  EXPECT_EQ(climbToGrid(*triangles->getCreator()), grid);
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

  StrongPtr<Representation> level2 = grid->getCartesianRepresentation(finest.made, "");
  ASSERT_TRUE(level2);
  auto positions = Ostrak::dynamic_pointer_cast<UniformCartesianArray>(
      level2->findField("Positions")->getData());
  ASSERT_TRUE(positions);
  EXPECT_EQ(positions->extents(), (BlockExtents{9, 9, 1}));
  EXPECT_EQ((*positions)(8, 4, 0), (point{3, 2, 1}));
  EXPECT_TRUE(ownerChainsComplete(grid));

  // Only missing levels are added.
  ASSERT_TRUE(addRefinementLevels(*grid, 3));
  EXPECT_EQ(grid->nSkeletons(), 5u);
  EXPECT_EQ(grid->getSkeleton(SkeletonID(0, 3))->getIsotropicRefinementFactor(), 8);

  // Blocks are refined one by one and keep their fragment identities.
  auto blocks = newGrid();
  ASSERT_TRUE(makeFragmentedUniformGrid(
      *blocks, {{"a", {2, 2, 2}, {}, {1, 1, 1}}, {"b", {2, 3, 2}, {1, 0, 0}, {1, 1, 1}}}));
  MakeResult<Skeleton> refined = addRefinementLevels(*blocks, 1);
  ASSERT_TRUE(refined) << refined.error;
  EXPECT_EQ(refined.made->getNumberOfElements(), 27u + 45u);
  StrongPtr<Field> coarse = blocks->CartesianPositions();
  StrongPtr<Field> fine =
      blocks->getCartesianRepresentation(refined.made, "")->findField("Positions");
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

/// Runs `attempt` on `grid` and checks that it failed with a reason and
/// left the grid as it was.
template <class T>
void expectRefusal(const StrongPtr<Grid>& grid, const std::function<MakeResult<T>()>& attempt,
                   const char* what) {
  SCOPED_TRACE(what);
  const std::string before = grid->xml();
  MakeResult<T> result = attempt();
  EXPECT_FALSE(result);
  EXPECT_FALSE(result.error.empty());
  EXPECT_EQ(grid->xml(), before);
}

TEST(GridConstructors, badInputIsRefusedWithAReasonAndChangesNothing) {
  auto grid = newGrid();
  auto empty = newGrid();
  using R = std::function<MakeResult<Skeleton>()>;
  expectRefusal<Skeleton>(empty, R([&] {
                            return makeUniformGrid(*empty, {2, 0, 2}, {}, {});
                          }),
                          "zero extent");
  expectRefusal<Skeleton>(empty, R([&] {
                            return makeUniformGrid(*empty, {2, 2, 2}, {}, {}, "unknown chart");
                          }),
                          "unknown chart");
  expectRefusal<Skeleton>(empty, R([&] {
                            return makeUniformGrid(*empty, {1ull << 32, 1ull << 32, 2}, {}, {});
                          }),
                          "vertex count overflow");
  expectRefusal<Skeleton>(empty, R([&] {
                            return makeCurvilinearGrid(*empty, {2, 2, 2}, {{}});
                          }),
                          "wrong point count");
  expectRefusal<Skeleton>(empty, R([&] { return makeCurvilinearGrid(*empty, nullptr); }),
                          "null positions");
  expectRefusal<Skeleton>(empty, R([&] { return makePointCloud(*empty, {}); }), "no points");
  expectRefusal<Skeleton>(empty, R([&] {
                            return makeTriangleSurface(*empty, {{}, {}, {}}, {{0, 1, 3}});
                          }),
                          "index out of range");
  expectRefusal<Skeleton>(empty, R([&] {
                            return makeFragmentedUniformGrid(
                                *empty, {{"x", {2, 2, 2}, {}, {}}, {"x", {2, 2, 2}, {}, {}}});
                          }),
                          "duplicate block names");
  expectRefusal<Skeleton>(empty, R([&] { return makeFragmentedUniformGrid(*empty, {}); }),
                          "no blocks");
  expectRefusal<Skeleton>(empty, R([&] { return addRefinementLevels(*empty, 1); }),
                          "refining nothing");

  ASSERT_TRUE(makeCurvilinearGrid(*grid, {2, 2, 2}, cube()));
  expectRefusal<Skeleton>(grid, R([&] { return makePointCloud(*grid, {{}}); }),
                          "vertices exist already");
  expectRefusal<Skeleton>(grid, R([&] { return addRefinementLevels(*grid, 1); }),
                          "refining curvilinear positions");
  expectRefusal<Skeleton>(grid, R([&] { return addRefinementLevels(*grid, 31); }),
                          "too many levels");

  using F = std::function<MakeResult<Field>()>;
  expectRefusal<Field>(grid, F([&] { return addVertexField(*grid, "f", std::vector<int>(7)); }),
                       "too few values");
  expectRefusal<Field>(grid, F([&] { return addVertexField(*grid, "", std::vector<int>(8)); }),
                       "no name");
  expectRefusal<Field>(grid,
                       F([&] { return addVertexField(*grid, "Positions", std::vector<point>(8)); }),
                       "name taken");
  expectRefusal<Field>(grid, F([&] { return addCellField(*grid, "c", std::vector<int>(2)); }),
                       "wrong cell count");
  expectRefusal<Field>(
      grid, F([&] { return addVertexField(*grid, "f", std::vector<int>(8), "unknown"); }),
      "unknown chart");

  auto cloud = newGrid();
  ASSERT_TRUE(makePointCloud(*cloud, {{}, {}}));
  expectRefusal<Field>(cloud, F([&] { return addCellField(*cloud, "c", std::vector<int>(2)); }),
                       "no cells");

  auto blocks = newGrid();
  ASSERT_TRUE(
      makeFragmentedUniformGrid(*blocks, {{"a", {2, 2, 1}, {}, {}}, {"b", {2, 2, 1}, {}, {}}}));
  expectRefusal<Field>(blocks, F([&] { return addVertexField(*blocks, "f", std::vector<int>(8)); }),
                       "one vector for two fragments");
  expectRefusal<Field>(blocks, F([&] {
                         return addVertexField(
                             *blocks, "f",
                             std::map<std::string, std::vector<int>>{{"a", std::vector<int>(4)},
                                                                     {"c", std::vector<int>(4)}});
                       }),
                       "unknown fragment name");
}

TEST(GridConstructors, fragmentedFieldsFollowThePositionsFragments) {
  auto grid = newGrid();
  ASSERT_TRUE(makeFragmentedUniformGrid(
      *grid, {{"a", {2, 2, 1}, {}, {1, 1, 1}}, {"b", {3, 2, 1}, {1, 0, 0}, {1, 1, 1}}}));
  MakeResult<Field> vertexField = addVertexField(
      *grid, "v",
      std::map<std::string, std::vector<int>>{{"a", {1, 2, 3, 4}}, {"b", {5, 6, 7, 8, 9, 10}}});
  ASSERT_TRUE(vertexField) << vertexField.error;
  MakeResult<Field> cellField = addCellField(
      *grid, "c", std::map<std::string, std::vector<double>>{{"a", {0.5}}, {"b", {1.5, 2.5}}});
  ASSERT_TRUE(cellField) << cellField.error;

  auto vertexData = dataOf(*vertexField.made);
  ASSERT_EQ(vertexData.size(), 2u);
  EXPECT_EQ(vertexData.at("b")->getSize(), (DynamicSize{3, 2, 1}));
  EXPECT_EQ(Ostrak::dynamic_pointer_cast<TypedArray<int>>(vertexData.at("b"))->data()[5], 10);
  auto cellData = dataOf(*cellField.made);
  EXPECT_EQ(cellData.at("b")->getSize(), (DynamicSize{2, 1, 1}));
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
  ASSERT_TRUE(onVertices) << onVertices.error;
  ASSERT_TRUE(onCells) << onCells.error;
  EXPECT_EQ(onVertices.made->getElementType(), typeid(T));
  EXPECT_EQ(grid->getCartesianRepresentation()->findField("v"), onVertices.made);

  auto vertexData = Ostrak::dynamic_pointer_cast<MemArray<3, T>>(onVertices.made->getData());
  auto cellData = Ostrak::dynamic_pointer_cast<MemArray<3, T>>(onCells.made->getData());
  ASSERT_TRUE(vertexData);
  ASSERT_TRUE(cellData);
  EXPECT_EQ(vertexData->getSize(), (DynamicSize{3, 2, 1}));
  EXPECT_EQ(cellData->getSize(), (DynamicSize{2, 1, 1}));
  EXPECT_TRUE(std::equal(vertexValues.begin(), vertexValues.end(), vertexData->begin()));
  EXPECT_TRUE(std::equal(cellValues.begin(), cellValues.end(), cellData->begin()));
  EXPECT_TRUE(ownerChainsComplete(grid));

  // A surface's cell field has one value per triangle.
  auto surface = newGrid();
  ASSERT_TRUE(makeTriangleSurface(*surface, {{}, {}, {}, {}}, {{0, 1, 2}, {1, 2, 3}}));
  MakeResult<Field> perTriangle = addCellField(*surface, "c", cellValues);
  ASSERT_TRUE(perTriangle) << perTriangle.error;
  EXPECT_EQ(perTriangle.made->getCreator()->getSize(), (DynamicSize{2}));
}

}  // namespace
