// The XDMF descriptor: what visualisation programs are told about a file.
// (That ParaView reads it is checked by `make interop`.)

#include "tests/hdf5/FileFixture.hpp"

namespace Quaril::Testing {
namespace {

/// The temporal collection of `grid` in `xml`.
std::string collectionOf(const std::string& xml, const std::string& grid) {
  const size_t begin =
      xml.find("<Grid Name=\"" + grid + "\" GridType=\"Collection\" CollectionType=\"Temporal\">");
  if (begin == std::string::npos) return "";
  return xml.substr(begin, xml.find("\n  </Grid>", begin) - begin);
}

size_t count(const std::string& text, const std::string& part) {
  size_t found = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++found;
  return found;
}

TEST_F(FileTest, xdmfDescribesEveryMeshKindInPlaceAndNamesWhatItLeavesOut) {
  BundlePtr bundle = makeSampleBundle();
  Grid& blocks = gridIn(bundle, 5, "blocks");
  makeFragmentedUniformGrid(blocks, {{"west", {2, 1, 1}, {0, 0, 0}, {1, 1, 1}},
                                     {"east", {2, 1, 1}, {2, 0, 0}, {1, 1, 1}}});
  addVertexField(blocks, "id",
                 std::map<std::string, std::vector<int32_t>>{{"west", {1, 2}}, {"east", {3, 4}}});
  addVertexField(gridIn(bundle, 1, "points"), "precise", std::vector<long double>{1, 2, 3});
  ASSERT_TRUE(H5::save(*bundle, path("sample.h5")).ok);
  ASSERT_TRUE(H5::writeXdmf(path("sample.h5")).ok);
  const std::string xml = fileBytes(path("sample.h5.xmf"));

  struct Expected {
    const char* grid;
    size_t steps;
    std::vector<std::string> parts;
  };
  const std::vector<Expected> expected{
      {"uniform",
       3,
       {"TopologyType=\"3DCoRectMesh\" Dimensions=\"3 3 3\"", "GeometryType=\"ORIGIN_DXDYDZ\"",
        "<Attribute Name=\"density\" AttributeType=\"Scalar\" Center=\"Node\">",
        "NumberType=\"Int\" Precision=\"4\" Dimensions=\"3 3 3\">sample.h5:/arrays/",
        "<Time Value=\"4.0\"/>", "<Attribute Name=\"velocity\" AttributeType=\"Vector\"",
        "left out: skeleton 0.1 (a refinement level)"}},
      {"curvilinear",
       2,
       {"TopologyType=\"3DSMesh\" Dimensions=\"1 2 2\"", "GeometryType=\"XYZ\"",
        "Dimensions=\"1 2 2 3\">sample.h5:/arrays/",
        "<Attribute Name=\"pressure\" AttributeType=\"Scalar\" Center=\"Cell\">"}},
      {"points",
       2,
       {"TopologyType=\"Polyvertex\" NumberOfElements=\"3\"", "<Attribute Name=\"mass\"",
        "left out: field \"precise\" of type longdouble"}},
      {"surface",
       2,
       {"TopologyType=\"Triangle\" NumberOfElements=\"2\"",
        "NumberType=\"UInt\" Precision=\"4\" Dimensions=\"2 3\"",
        "<Attribute Name=\"area\" AttributeType=\"Scalar\" Center=\"Cell\">"}},
      {"blocks",
       1,
       {"CollectionType=\"Spatial\"", "<Grid Name=\"west\" GridType=\"Uniform\">",
        "<Grid Name=\"east\" GridType=\"Uniform\">", "<Attribute Name=\"id\""}},
  };
  for (const Expected& grid : expected) {
    const std::string collection = collectionOf(xml, grid.grid);
    EXPECT_EQ(count(collection, "<Time Value="), grid.steps) << grid.grid;
    for (const std::string& part : grid.parts) {
      EXPECT_NE(collection.find(part), std::string::npos) << grid.grid << ": " << part << "\n"
                                                          << collection;
    }
  }
  EXPECT_EQ(count(xml, "Name=\"precise\""), 0u) << "a type XDMF cannot say is never written";
  EXPECT_EQ(count(xml, "Name=\"Positions\""), 0u) << "positions are the geometry, not an attribute";

  // Written again in place, atomically; a series and a missing file are refused.
  ASSERT_TRUE(H5::writeXdmf(path("sample.h5")).ok);
  EXPECT_EQ(listing(), (std::vector<std::string>{"sample.h5", "sample.h5.xmf"}));
  BundlePtr series;
  series.create();
  ASSERT_EQ(series->bindToNew(path("run.h5")).status, 1);
  EXPECT_NE(H5::writeXdmf(path("run.h5")).error.find("a bound series"), std::string::npos);
  EXPECT_NE(H5::writeXdmf(path("missing.h5")).error.find("missing.h5"), std::string::npos);
}

}  // namespace
}  // namespace Quaril::Testing
