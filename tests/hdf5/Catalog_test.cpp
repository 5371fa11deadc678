// A catalog: the grids and times of a file or series from its index alone,
// and bundles of chosen times loaded from it.

#include "formats/hdf5/Catalog.hpp"
#include "tests/hdf5/FileFixture.hpp"

namespace Quaril::Testing {
namespace {

/// The times at which `bundle` holds the grid `name`.
std::vector<double> timesIn(const Bundle& bundle, const std::string& name) {
  std::vector<double> times;
  for (const auto& [time, slice] : bundle.getSlices()) {
    if ((*slice)(name)) times.push_back(time);
  }
  return times;
}

TEST_F(FileTest, aCatalogListsAFileOrSeriesAndLoadsChosenTimesOfIt) {
  // A series of one sync per step, each a part of its own; "box" skips a step.
  BundlePtr run;
  run.create();
  ASSERT_EQ(run->bindToNew(path("series.h5")).status, 1);
  run->setAttribute("title", std::string("a run"));
  const std::vector<double> times{0.5, 1, 2.25, 3};
  for (double t : times) {
    makePointCloud(gridIn(run, t, "points"), {{t, 0, 0}, {0, t, 0}});
    addVertexField(gridIn(run, t, "points"), "mass", std::vector<double>{t, 2 * t});
    if (t != 1) makeUniformGrid(gridIn(run, t, "box"), {2, 2, 2}, {t, 0, 0}, {1, 1, 1});
    ASSERT_EQ(run->sync(), 1);
  }
  ASSERT_TRUE(H5::save(*run, path("file.h5")).ok);
  for (const std::string& file : {path("file.h5"), path("series.h5")}) {
    std::shared_ptr<H5::Catalog> catalog;
    ASSERT_TRUE(H5::Catalog::open(file, catalog).ok) << file;
    EXPECT_EQ(catalog->gridNames(), (std::vector<std::string>{"box", "points"})) << file;
    EXPECT_EQ(catalog->times(), times) << file;
    for (const std::string name : {"box", "points"}) {
      EXPECT_EQ(catalog->timesOf(name), timesIn(*run, name)) << file << " " << name;
    }
    EXPECT_TRUE(catalog->timesOf("absent").empty());
    // Only the slices asked for; a time the file does not hold is passed over.
    BundlePtr chosen;
    ASSERT_TRUE(catalog->load(chosen, {3, 0.5, 0.123}).ok) << file;
    ASSERT_EQ(chosen->getSlices().size(), 2u) << file;
    for (double t : {0.5, 3.0}) {
      for (const std::string name : {"box", "points"}) {
        const auto read = (*chosen->getSlices().at(t))(name);
        ASSERT_TRUE(read) << file << " " << name;
        EXPECT_EQ(detail::gridDifference(*(*run->getSlices().at(t))(name), *read), "")
            << file << " " << name;
      }
    }
    EXPECT_EQ(chosen->getAttributeAs<std::string>("title"), "a run") << file;
    // Another load is another bundle; the catalog outlives the first.
    chosen = BundlePtr();
    BundlePtr again;
    ASSERT_TRUE(catalog->load(again, {1}).ok);
    ASSERT_EQ(again->getSlices().size(), 1u);
    EXPECT_FALSE((*again->getSlices().at(1))("box"));
    EXPECT_TRUE((*again->getSlices().at(1))("points")->CartesianPositions()->getData());
  }
  std::shared_ptr<H5::Catalog> none;
  const H5::Outcome missing = H5::Catalog::open(path("missing.h5"), none);
  EXPECT_FALSE(missing.ok);
  EXPECT_NE(missing.error.find(path("missing.h5") + ": "), std::string::npos) << missing.error;
  EXPECT_EQ(none, nullptr);
}

}  // namespace
}  // namespace Quaril::Testing
