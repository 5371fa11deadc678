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
  ASSERT_TRUE(H5::save(*bundle, path("sample.h5")).ok);  // writes the descriptor too
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

  // Written again, atomically, the same; a missing file is refused.
  std::filesystem::remove(path("sample.h5.xmf"));
  ASSERT_TRUE(H5::writeXdmf(path("sample.h5")).ok);
  EXPECT_EQ(fileBytes(path("sample.h5.xmf")), xml);
  EXPECT_EQ(listing(), (std::vector<std::string>{"sample.h5", "sample.h5.xmf"}));
  EXPECT_NE(H5::writeXdmf(path("missing.h5")).error.find("missing.h5"), std::string::npos);
}

TEST_F(FileTest, aSeriesDescriptorIsTakenUpRepairedOrSwitchedOff) {
  auto addStep = [](BundlePtr& bundle, double t) {
    makePointCloud(gridIn(bundle, t, "points"), {{t, 0, 0}});
  };
  BundlePtr bundle;
  bundle.create();
  addStep(bundle, 0);
  ASSERT_EQ(bundle->bindToNew(path("run.h5")).status, 1);
  addStep(bundle, 1);
  ASSERT_EQ(bundle->sync(), 1);
  const std::string described = fileBytes(path("run.h5.xmf"));
  EXPECT_EQ(count(described, "<Time Value="), 2u);
  EXPECT_NE(described.find("run.h5.parts/"), std::string::npos) << "parts named beside it";

  // While bound, the series' descriptor is the binding's to write.
  EXPECT_NE(H5::writeXdmf(path("run.h5")).error.find("bound already"), std::string::npos);
  bundle.reset();

  struct Case {
    const char* what;
    std::function<void()> before;  // done to the descriptor before binding again
    bool writtenAnew;
  };
  const std::vector<Case> cases{
      {"taken up as it is", [] {}, false},
      {"missing", [&] { std::filesystem::remove(path("run.h5.xmf")); }, true},
      {"cut short", [&] { std::filesystem::resize_file(path("run.h5.xmf"), 300); }, true},
      {"behind the journal (a crash after the sync)",
       [&] {
         std::string text = fileBytes(path("run.h5.xmf"));
         const size_t count = text.rfind("<!-- described parts: ");
         text.replace(text.find_first_not_of("0", count + 22), 1, "1");
         std::ofstream(path("run.h5.xmf"), std::ios::binary | std::ios::trunc) << text;
       },
       true},
  };
  double t = 2;
  for (const Case& c : cases) {
    c.before();
    const std::string old = fileBytes(path("run.h5.xmf"));
    BundlePtr again;
    again.create();
    ASSERT_EQ(again->bindTo(path("run.h5")).status, 1) << c.what;
    if (!c.writtenAnew) {
      EXPECT_EQ(fileBytes(path("run.h5.xmf")), old) << c.what;
    }
    EXPECT_EQ(withoutRoom(path("run.h5.xmf")), describedAnew(path("run.h5"))) << c.what;
    addStep(again, t++);
    ASSERT_EQ(again->sync(), 1) << c.what;
    EXPECT_EQ(withoutRoom(path("run.h5.xmf")), describedAnew(path("run.h5"))) << c.what;
  }
  // A new series in its place describes only itself.
  BundlePtr replaced;
  replaced.create();
  addStep(replaced, 0);
  ASSERT_EQ(replaced->bindToNew(path("run.h5")).status, 1);
  EXPECT_EQ(count(fileBytes(path("run.h5.xmf")), "<Time Value="), 1u);
  replaced.reset();

  // A descriptor that cannot be written fails the sync, not the data; the
  // next sync writes it anew.
  BundlePtr bound;
  bound.create();
  ASSERT_EQ(bound->bindTo(path("run.h5")).status, 1);
  std::filesystem::remove(path("run.h5.xmf"));
  std::filesystem::create_directory(path("run.h5.xmf"));
  addStep(bound, 10);
  EXPECT_EQ(bound->sync(), 0);
  EXPECT_NE(H5::lastSync(*bound).error.find("the data are synced, but the descriptor"),
            std::string::npos)
      << H5::lastSync(*bound).error;
  EXPECT_EQ(differences(*bound, *loaded(path("run.h5"))), "");
  std::filesystem::remove(path("run.h5.xmf"));
  EXPECT_EQ(bound->sync(), 1);
  EXPECT_EQ(withoutRoom(path("run.h5.xmf")), describedAnew(path("run.h5")));
  bound.reset();

  // Switched off: no descriptor for a save, a binding or its syncs.
  StrongPtr<H5::StorageOptions> off(new H5::StorageOptions);
  off->setWriteXdmf(false);
  BundlePtr quiet = makeSampleBundle();
  ASSERT_TRUE(H5::save(*quiet, path("quiet.h5"), off).ok);
  ASSERT_EQ(quiet->bindToNew(path("quiet-run.h5"), off).status, 1);
  addStep(quiet, 20);
  ASSERT_EQ(quiet->sync(), 1);
  for (const char* name : {"quiet.h5.xmf", "quiet-run.h5.xmf"}) {
    EXPECT_FALSE(std::filesystem::exists(path(name))) << name;
  }
}

}  // namespace
}  // namespace Quaril::Testing
