// Boxes of arrays: read alone from a file (a hyperslab), or copied out of data
// in memory, and both the same as the box of the whole array.

#include "tests/hdf5/FileFixture.hpp"

namespace Quaril::Testing {
namespace {

struct Box {
  const char* what;
  std::vector<uint64_t> first, count;
  bool fits;
};

/// The box of `values`, an array of `extents` with `components` values per
/// element, the first axis fastest.
template <class T>
std::vector<T> boxOf(const std::vector<T>& values, const std::vector<uint64_t>& extents,
                     const Box& box, size_t components) {
  std::vector<T> out;
  for (uint64_t k = 0; k < box.count[2]; ++k) {
    for (uint64_t j = 0; j < box.count[1]; ++j) {
      for (uint64_t i = 0; i < box.count[0]; ++i) {
        const uint64_t at = (box.first[0] + i) +
                            extents[0] * ((box.first[1] + j) + extents[1] * (box.first[2] + k));
        for (size_t c = 0; c < components; ++c) out.push_back(values[at * components + c]);
      }
    }
  }
  return out;
}

TEST_F(FileTest, aBoxOfAnArrayIsReadAloneOrCopiedAndIsTheSameEitherWay) {
  const std::vector<uint64_t> extents{5, 4, 3};
  std::vector<float> scalars(60);
  std::vector<tvector> vectors(60);
  for (size_t i = 0; i < scalars.size(); ++i) {
    scalars[i] = static_cast<float>(i) * 0.5f;
    vectors[i] = tvector{static_cast<double>(i), -static_cast<double>(i), 1.0 / (i + 1)};
  }
  BundlePtr bundle;
  bundle.create();
  makeUniformGrid(gridIn(bundle, 0, "fluid"), {5, 4, 3}, {0, 0, 0}, {1, 1, 1});
  addVertexField(gridIn(bundle, 0, "fluid"), "s", scalars);
  addVertexField(gridIn(bundle, 0, "fluid"), "v", vectors);
  ASSERT_TRUE(H5::save(*bundle, path("run.h5")).ok);
  const BundlePtr read = loaded(path("run.h5"));
  const auto creatorOf = [](const BundlePtr& from, const char* field) {
    return (*from->getSlices().at(0))("fluid")
        ->getCartesianRepresentation()
        ->findField(field)
        ->getCreator();
  };
  const std::vector<Box> boxes{
      {"all of it", {0, 0, 0}, {5, 4, 3}, true},      {"one value", {4, 3, 2}, {1, 1, 1}, true},
      {"a row", {1, 2, 0}, {4, 1, 1}, true},          {"a plane", {0, 1, 0}, {5, 1, 3}, true},
      {"an inner block", {1, 1, 1}, {3, 2, 2}, true}, {"past the end", {3, 0, 0}, {3, 1, 1}, false},
      {"empty", {0, 0, 0}, {0, 1, 1}, false},         {"of another rank", {0, 0}, {1, 1}, false}};
  for (const Box& box : boxes) {
    for (const BundlePtr& from : {bundle, read}) {
      const char* where = from == bundle ? "in memory" : "from the file";
      const auto s = creatorOf(from, "s")->getRegion(box.first, box.count);
      const auto v = creatorOf(from, "v")->getRegion(box.first, box.count);
      ASSERT_EQ(static_cast<bool>(s), box.fits) << box.what << ", " << where;
      ASSERT_EQ(static_cast<bool>(v), box.fits) << box.what << ", " << where;
      if (!box.fits) {
        EXPECT_FALSE(creatorOf(from, "s")->lastError().empty()) << box.what;
        continue;
      }
      EXPECT_EQ(s->getSize(), DynamicSize(box.count)) << box.what;
      const auto* got = static_cast<const float*>(s->rawData());
      EXPECT_EQ(std::vector<float>(got, got + s->nElements()), boxOf(scalars, extents, box, 1))
          << box.what << ", " << where;
      const auto* gotVectors = static_cast<const double*>(v->rawData());
      std::vector<double> flat;
      for (const tvector& t : vectors) flat.insert(flat.end(), {t.x, t.y, t.z});
      EXPECT_EQ(std::vector<double>(gotVectors, gotVectors + 3 * v->nElements()),
                boxOf(flat, extents, box, 3))
          << box.what << ", " << where;
    }
  }
  // Read alone: the whole array was never read from the file.
  EXPECT_FALSE(creatorOf(read, "s")->isResident());
}

}  // namespace
}  // namespace Quaril::Testing
