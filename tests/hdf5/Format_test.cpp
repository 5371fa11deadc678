// Saving and loading bundles in HDF5 files: exact round trips, lazy reading,
// the storage policy and atomic saves.

#include <fcntl.h>
#include <hdf5.h>

#include <cmath>
#include <limits>

#include "formats/hdf5/detail/Directory.hpp"
#include "tests/hdf5/FileFixture.hpp"

namespace Quaril::Testing {
namespace {

using Ostrak::StringList;

/// The sample bundle with what it lacks for a full round trip: fragments, an
/// empty field, an empty array, arrays of rank 2 and 4, a child identity and
/// attributes of every type.
BundlePtr makeRichBundle() {
  BundlePtr bundle = makeSampleBundle();
  Grid& blocks = gridIn(bundle, 2, "blocks");
  makeFragmentedUniformGrid(blocks, {{"west", {2, 2, 2}, {0, 0, 0}, {1, 1, 1}},
                                     {"east", {2, 2, 2}, {1, 0, 0}, {0.5, 1, 1}}});
  addVertexField(
      blocks, "id",
      std::map<std::string, std::vector<int64_t>>{
          {"west", {0, 1, 2, 3, 4, 5, 6, 7}}, {"east", {-8, -9, -10, -11, -12, -13, -14, -15}}});
  auto representation = blocks.getCartesianRepresentation();
  representation->setField("empty", Field::create<float>());
  auto withArray = [](const StrongPtr<MemBase, Cacheable>& array) {
    StrongPtr<Field> field(new Field(array->getTypeDescriptor()));
    field->setCreator(StrongPtr<CreativeArrayBase>(new MemCreator(array)));
    return field;
  };
  representation->setField("none", withArray(MemArray<1, double>::create(DynamicSize{0})));
  auto matrix = MemArray<2, uint16_t>::create(DynamicSize{3, 2});
  for (uint16_t i = 0; i < 6; ++i) (*matrix)[i] = static_cast<uint16_t>(i * 1000);
  representation->setField("matrix", withArray(matrix));
  auto block = MemArray<4, float>::create(DynamicSize{2, 1, 3, 2});
  for (int i = 0; i < 12; ++i) (*block)[static_cast<uint64_t>(i)] = 0.25f * static_cast<float>(i);
  representation->setField("block", withArray(block));
  (*bundle)[2]->newGrid("child", "blocks");
  bundle->setAttribute("title", std::string("a run"));
  bundle->setAttribute("steps", int64_t{4});
  bundle->setAttribute("dt", 0.125);
  bundle->setAttribute("seeds", std::vector<int64_t>{1, -2, 3});
  bundle->setAttribute("bounds", std::vector<double>{-1.5, 2.5});
  bundle->setAttribute("authors", std::vector<std::string>{"ada", "", "émile"});
  bundle->setAttribute("nothing", std::vector<double>{});
  (*bundle)[3]->setAttribute("cycle", int64_t{300});
  blocks.setAttribute("solver", std::string("multigrid"));
  blocks.setAttribute("levels", std::vector<int64_t>{4, 2});
  return bundle;
}

template <class T>
std::vector<T> extremes() {
  if constexpr (std::is_same_v<T, point> || std::is_same_v<T, tvector>) {
    return {T{-0.0, 1e-310, std::numeric_limits<double>::max()}, T{1, 2, 3}, T{}};
  } else if constexpr (std::is_same_v<T, TriangleIndices>) {
    return {T{0, 1, 2}, T{UINT32_MAX, 7, 0}, T{3, 3, 3}};
  } else if constexpr (std::is_floating_point_v<T>) {
    return {std::numeric_limits<T>::lowest(), -T(0.0), std::numeric_limits<T>::quiet_NaN()};
  } else {
    return {std::numeric_limits<T>::min(), std::numeric_limits<T>::max(), T(1)};
  }
}

template <class... Types>
void addFieldOfEveryType(Grid& grid) {
  int number = 0;
  (addVertexField(grid, "field" + std::to_string(number++), extremes<Types>()), ...);
}

TEST_F(FileTest, wholeDataModelRoundTripsExactly) {
  BundlePtr bundle = makeRichBundle();
  // Every element type at its extremes.
  Grid& grid = gridIn(bundle, 0.5, "types");
  makePointCloud(grid, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}});
  addFieldOfEveryType<bool, char, signed char, unsigned char, short, unsigned short, int, unsigned,
                      long, unsigned long, long long, unsigned long long, float, double,
                      long double, wchar_t, char8_t, char16_t, char32_t, point, tvector,
                      TriangleIndices>(grid);
  // Times and grid names of every kind.
  const std::vector<double> times{
      -0.0,  std::numeric_limits<double>::denorm_min(), 1e-300,
      1e300, std::numeric_limits<double>::max(),        std::numeric_limits<double>::lowest(),
      -1.5};
  const std::vector<std::string> names{
      "",        "a/b", ".", "..", " spaced name ", "\xff\xfe", std::string("zero\0inside", 11),
      "\xc3\xbc"};
  for (size_t i = 0; i < names.size(); ++i) {
    makePointCloud(gridIn(bundle, times[i % times.size()], names[i]), {{double(i), 0, 0}});
  }
  BundlePtr loaded = roundTrip(*bundle, path("rich.qb.h5"));
  EXPECT_EQ(differences(*bundle, *loaded), "");
  EXPECT_TRUE(std::signbit(loaded->getSlices().find(0.0)->first)) << "-0.0 lost its sign";
  EXPECT_EQ((*loaded->getSlices().at(0.5))("types")->getCartesianRepresentation()->nFields(), 23u);
  // Uniform positions come back procedural, never as a point array.
  auto data = (*loaded->getSlices().at(1.0))("uniform")->CartesianPositions()->getData();
  EXPECT_NE(dynamic_cast<UniformCartesianArray*>(data.get()), nullptr);
  // A saved copy of the loaded bundle is the same again.
  EXPECT_EQ(differences(*bundle, *roundTrip(*loaded, path("again.h5"))), "");
}

TEST_F(FileTest, registeredFormatServesTheBundleLibraryByFileName) {
  BundlePtr bundle = makeSampleBundle();
  for (const std::string name : {"a.h5", "b.HDF5", "c.qb.h5"}) {
    ASSERT_TRUE(bundle.save(path(name))) << name;
    BundlePtr loaded;
    ASSERT_TRUE(loaded.load(path(name))) << name;
    EXPECT_EQ(differences(*bundle, *loaded), "") << name;
  }
  EXPECT_FALSE(bundle.save(path("d.txt"))) << "another format's name";
  EXPECT_EQ(bundle.saveGrids(path("e.h5"), StrongPtr<StringList>(new StringList{"points"})), 1);
  BundlePtr points;
  ASSERT_TRUE(points.load(path("e.h5")));
  EXPECT_EQ(points->getSlices().size(), 2u) << "only the slices holding the grid";
  EXPECT_EQ(points->NumberOfGrids("points", false), 2u);
  EXPECT_EQ(points->NumberOfGrids("uniform", false), 0u);
  // A lazily loaded bundle saved over its own file keeps its data.
  ASSERT_TRUE(points.save(path("e.h5")));
  BundlePtr again;
  ASSERT_TRUE(again.load(path("e.h5")));
  EXPECT_EQ(differences(*points, *again), "");
  H5::registerFormat();  // a second registration adds nothing
  EXPECT_EQ(Ostrak::LoaderRegistryBase::numberOfLoaders(typeid(Bundle)), 1u);
}

TEST_F(FileTest, openingReadsTheIndexAndEachArrayOnFirstRequest) {
  ASSERT_TRUE(H5::save(*makeSampleBundle(), path("lazy.h5")).ok);
  BundlePtr loaded;
  ASSERT_TRUE(H5::load(loaded, {path("lazy.h5")}).ok);
  ASSERT_EQ(loaded->getSlices().size(), 4u);
  for (const auto& [time, slice] : loaded->getSlices()) EXPECT_TRUE(slice->hasPendingLoaders());
  EXPECT_EQ(loaded->getGridList()->getNumberOfGrids(), 4u) << "identities come with the index";
  const Bundle::GridInfo recent = loaded->findMostRecentGrid(2.5, "points");
  ASSERT_TRUE(recent.grid) << "identities know where they occur before slices are read";
  EXPECT_EQ(recent.slice.lock()->getTime(), 1.0);

  double t = 1;
  Ostrak::StrongPtr<Grid> grid = (*(*loaded)(t))("uniform");
  ASSERT_TRUE(grid);
  EXPECT_TRUE(loaded->getSlices().at(2.0)->hasPendingLoaders()) << "only the slices asked for";
  for (const auto& [time, slice] : loaded->getSlices()) slice->accessSlice();
  unsigned long long resident = 0, deferred = 0;
  loaded->getMemoryUsage(resident, deferred);
  EXPECT_EQ(resident, 0u);
  EXPECT_GT(deferred, 27u * 8);

  auto creator = grid->getCartesianRepresentation()->findField("density")->getCreator();
  auto* lazy = dynamic_cast<DeferredCreator*>(creator.get());
  ASSERT_NE(lazy, nullptr);
  EXPECT_EQ(lazy->productions(), 0u);
  auto data = creator->getData();
  ASSERT_TRUE(data);
  EXPECT_EQ(static_cast<const double*>(data->rawData())[26], 1.26);
  unsigned long long residentNow = 0, deferredNow = 0;
  loaded->getMemoryUsage(residentNow, deferredNow);
  EXPECT_EQ(residentNow, 27u * 8);
  EXPECT_EQ(deferredNow, deferred - 27u * 8);
  data.reset();
  creator->dropCache();
  EXPECT_TRUE(creator->getData());
  EXPECT_EQ(lazy->productions(), 2u) << "dropped data are read again";
}

/// Declines the slice at time 3, the grid "points", the field "flags" and
/// the fragments not named "east" or "north"; records what it hears.
class ChoosyProgress : public H5::FragmentsNamed {
 public:
  ChoosyProgress() : FragmentsNamed({"east", "north"}) {}
  bool CreateSlice(double time) override { return time != 3; }
  bool CreateGrid(const StrongPtr<GridID>& id, Grid&, double) override {
    return id->getName() != "points";
  }
  bool CreateField(const StrongPtr<GridID>&, Grid&, double, const std::string& name) override {
    return name != "flags";
  }
  void OpenFile(const std::string& name) override { files.push_back(name); }
  void progress(unsigned long long done, unsigned long long total) override {
    finished = done == total;
  }
  std::vector<std::string> files;
  bool finished = false;
};

/// How many files libhdf5 holds open in this process.
ssize_t filesInHdf5() {
  return H5Fget_obj_count(H5F_OBJ_ALL, H5F_OBJ_FILE);
}

/// Changes the directory in the user block of `path` with `change`.
void editDirectory(const std::string& path,
                   const std::function<void(H5::detail::Directory&)>& change) {
  const int fd = ::open(path.c_str(), O_RDONLY);
  auto directory = H5::detail::readDirectory(fd, std::filesystem::file_size(path));
  ::close(fd);
  ASSERT_TRUE(directory.has_value()) << path;
  change(*directory);
  H5::detail::writeDirectory(path, *directory);
}

void overwrite(const std::string& path, uint64_t offset, const std::string& bytes) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(static_cast<std::streamoff>(offset));
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

TEST_F(FileTest, theDirectoryReadsAFileWithoutLibhdf5AndOneThatDoesNotFitIsIgnored) {
  using H5::detail::Run;
  // Plain arrays only: opened and read without libhdf5 opening the file.
  ASSERT_TRUE(H5::save(*makeSampleBundle(), path("plain.h5")).ok);
  {
    BundlePtr plain = loaded(path("plain.h5"));
    EXPECT_EQ(differences(*makeSampleBundle(), *plain), "");
    EXPECT_EQ(filesInHdf5(), 0) << "read through libhdf5 although the directory places it all";
  }
  // Whatever is wrong with the directory, the file reads whole through libhdf5.
  const BundlePtr rich = makeRichBundle();
  Ostrak::StrongPtr<H5::StorageOptions> compressed(new H5::StorageOptions);
  compressed->setCompression(H5::Codec::Zstd, 1);
  const std::vector<std::pair<const char*, std::function<void(const std::string&)>>> changes{
      {"intact", [](const std::string&) {}},
      {"no directory", [](const std::string& file) { overwrite(file, 0, std::string(512, '\0')); }},
      {"a flipped byte", [](const std::string& file) { overwrite(file, 30, "\x7f"); }},
      {"a run's checksum",
       [](const std::string& file) {
         editDirectory(file, [](auto& directory) { directory[Run::Times].checksum ^= 1; });
       }},
      {"a structure placed wrongly",
       [](const std::string& file) {
         editDirectory(file, [](auto& directory) { directory[Run::Structures].offset += 3; });
       }},
      {"arrays placed past the end",
       [](const std::string& file) {
         editDirectory(file, [](auto& directory) { directory[Run::ArrayPlaces] = {}; });
       }},
      {"grown by another writer",
       [](const std::string& file) {
         const hid_t opened = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
         const hsize_t extent = 1000;
         const hid_t space = H5Screate_simple(1, &extent, nullptr);
         const hid_t added = H5Dcreate2(opened, "extra", H5T_NATIVE_DOUBLE, space, H5P_DEFAULT,
                                        H5P_DEFAULT, H5P_DEFAULT);
         const std::vector<double> values(extent, 1.0);
         H5Dwrite(added, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
         H5Dclose(added), H5Sclose(space), H5Fclose(opened);
       }},
  };
  for (const auto& [what, change] : changes) {
    for (bool compress : {false, true}) {
      const std::string file = path(std::string(what) + (compress ? ".zstd.h5" : ".h5"));
      ASSERT_TRUE(H5::save(*rich, file, compress ? compressed : nullptr).ok) << what;
      change(file);
      BundlePtr back = loaded(file);
      EXPECT_EQ(differences(*rich, *back), "") << what << " " << compress;
      EXPECT_TRUE(H5::checkFile(file).ok()) << what << " " << compress;
    }
  }
}

TEST_F(FileTest, aLazyBundleReadsTheFileItOpenedAfterASaveReplacedIt) {
  const BundlePtr rich = makeRichBundle();
  Ostrak::StrongPtr<H5::StorageOptions> compressed(new H5::StorageOptions);
  compressed->setCompression(H5::Codec::Zstd, 1);
  // Arrays read straight from the file and arrays libhdf5 decompresses.
  for (const auto& options : {Ostrak::StrongPtr<H5::StorageOptions>(), compressed}) {
    ASSERT_TRUE(H5::save(*rich, path("replaced.h5"), options).ok);
    BundlePtr lazy = loaded(path("replaced.h5"));
    ASSERT_TRUE(H5::save(*makeSampleBundle(), path("replaced.h5")).ok);
    EXPECT_EQ(differences(*rich, *lazy), "");
  }
}

TEST_F(FileTest, loaderProgressHearsFilesAndDeclinesSlicesGridsFieldsAndFragments) {
  ASSERT_TRUE(H5::save(*makeRichBundle(), path("rich.h5")).ok);
  StrongPtr<ChoosyProgress> progress(new ChoosyProgress);
  BundlePtr choosy;
  ASSERT_TRUE(choosy.load(path("rich.h5"), progress));
  EXPECT_EQ(progress->files, std::vector<std::string>{path("rich.h5")});
  EXPECT_TRUE(progress->finished);
  EXPECT_EQ(choosy->getSlices().count(3.0), 0u);
  EXPECT_EQ(choosy->NumberOfGrids("points", false), 0u);
  auto uniform = (*choosy->getSlices().at(1.0))("uniform")->getCartesianRepresentation();
  EXPECT_TRUE(uniform->findField("density"));
  EXPECT_FALSE(uniform->findField("flags"));
  struct Case {
    const char* name;
    StrongPtr<H5::FragmentChoice> choice;
    std::set<std::string> fragments;  // of "id" and of the positions
  };
  const std::vector<Case> cases = {
      {"by name", progress, {"fragment east"}},
      // In the order the file lists them, which is name order: east, west.
      {"rank 0 of 2",
       StrongPtr<H5::FragmentChoice>(new H5::FragmentsOfRank(0, 2)),
       {"fragment east"}},
      {"rank 1 of 2",
       StrongPtr<H5::FragmentChoice>(new H5::FragmentsOfRank(1, 2)),
       {"fragment west"}},
      // Two fragments over three ranks: none, one, one.
      {"rank 0 of 3", StrongPtr<H5::FragmentChoice>(new H5::FragmentsOfRank(0, 3)), {}},
      {"rank 2 of 3",
       StrongPtr<H5::FragmentChoice>(new H5::FragmentsOfRank(2, 3)),
       {"fragment west"}},
  };
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    BundlePtr loaded;
    ASSERT_TRUE(H5::load(loaded, {path("rich.h5")}, test.choice).ok);
    auto blocks = (*(*loaded)[2])("blocks")->getCartesianRepresentation();
    for (const char* field : {"id", "Positions"}) {
      std::set<std::string> names;
      if (auto found = blocks->findField(field)) {
        for (const auto& [name, creator] : detail::fragmentsOf(*found)) names.insert(name);
      }
      EXPECT_EQ(names, test.fragments) << field;
    }
    // Fields that are not fragmented come whole to every choice.
    EXPECT_TRUE(blocks->findField("matrix"));
  }
}

TEST_F(FileTest, severalFilesMergeAndABadOneChangesNothing) {
  BundlePtr early = bundleWith({1, 2}, "early");
  BundlePtr late = bundleWith({2, 3}, "late");
  ASSERT_TRUE(H5::save(*early, path("early.h5")).ok);
  ASSERT_TRUE(H5::save(*late, path("late.h5")).ok);
  std::ofstream(path("bad.h5")) << "not a bundle";

  BundlePtr both;
  ASSERT_TRUE(both.load(std::list<std::string>{path("early.h5"), path("late.h5")}));
  EXPECT_EQ(both->getSlices().size(), 3u);
  EXPECT_EQ(both->NumberOfGrids("early", false) + both->NumberOfGrids("late", false), 4u);

  BundlePtr merged;
  ASSERT_TRUE(merged.load(path("early.h5")));
  H5::Outcome failed = H5::load(merged, {path("late.h5"), path("bad.h5")});
  EXPECT_FALSE(failed.ok);
  EXPECT_NE(failed.error.find(path("bad.h5")), std::string::npos) << failed.error;
  EXPECT_EQ(merged->getSlices().size(), 2u) << "the good file before the bad one is not merged";
  EXPECT_TRUE(merged->merge(path("late.h5")));
  EXPECT_EQ(merged->getSlices().size(), 3u);
}

/// Asks every hook, leaves things out, compresses and counts.
class CountingPolicy : public StorageTransformations {
 public:
  using StorageTransformations::getFilterSettings;
  bool isSaveableTime(double time) const override { return time != 4; }
  bool isSaveableField(const FieldID& id, const Field&, const WeakPtr<Grid>&, const std::string&,
                       double, const std::string&, const SkeletonID&) override {
    return id.Name() != "flags";
  }
  bool SkipStorage(double, const std::string& grid, const WeakPtr<Grid>&, const SkeletonID&,
                   const std::string&, const Field&, const std::string& field, CreativeArrayBase&,
                   const StrongPtr<FragmentID>&) const override {
    return grid == "points" && field == "mass";
  }
  FilterSettings getFilterSettings(double, const std::string&, const WeakPtr<Grid>&,
                                   const SkeletonID&, const std::string&, const Field&,
                                   const std::string& field, CreativeArrayBase&,
                                   const StrongPtr<FragmentID>&) const override {
    FilterSettings settings;
    if (field == "density") settings.filter = H5::FilterDeflate | H5::FilterShuffle;
    settings.level = 4;
    return settings;
  }
  DynamicSize computeChunkSize(const DynamicSize& size, uint32_t) override {
    return DynamicSize{size[0], size[1], 1};
  }
  void isSaved(const StrongPtr<CreativeArrayBase>&, const StrongPtr<FragmentID>&, const FieldID&,
               const Field&, const WeakPtr<Grid>&, const std::string&, double, const std::string&,
               const SkeletonID&) override {
    ++saved;
  }
  int saved = 0;
};

/// The filters and chunk extents of the data set `path` in `file`.
std::pair<int, std::vector<hsize_t>> storageOf(const std::string& file, const char* path) {
  hid_t handle = H5Fopen(file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  hid_t dataset = H5Dopen2(handle, path, H5P_DEFAULT);
  hid_t create = H5Dget_create_plist(dataset);
  std::pair<int, std::vector<hsize_t>> found{H5Pget_nfilters(create), std::vector<hsize_t>(3)};
  H5Pget_chunk(create, 3, found.second.data());
  H5Pclose(create);
  H5Dclose(dataset);
  H5Fclose(handle);
  return found;
}

TEST_F(FileTest, storagePolicyHooksChooseAndShapeWhatIsWritten) {
  BundlePtr bundle = makeSampleBundle();
  StrongPtr<CountingPolicy> policy(new CountingPolicy);
  ASSERT_TRUE(bundle.save(path("policy.h5"), {}, policy));
  BundlePtr loaded;
  ASSERT_TRUE(loaded.load(path("policy.h5")));
  EXPECT_EQ(loaded->getSlices().count(4.0), 0u) << "isSaveableTime";
  double t = 1;
  auto slice = (*loaded)(t);
  EXPECT_FALSE((*slice)("uniform")->getCartesianRepresentation()->findField("flags"));
  EXPECT_EQ((*slice)("points")->getCartesianRepresentation()->findField("mass")->nFragments(), 0u)
      << "skipped storage leaves an empty field";
  EXPECT_EQ(policy->saved, 17) << "one notice per fragment written";
  EXPECT_EQ(policy->writtenTimes(), (std::vector<double>{1, 2, 3}));
  EXPECT_GT(policy->getBytesWritten(), 0u);
  // Entries at time 1: points, surface, uniform; the uniform grid's only
  // data set is "density" (its positions are procedural, "flags" is left out).
  auto [filters, chunk] = storageOf(path("policy.h5"), "arrays/2.0");
  EXPECT_EQ(filters, 2) << "shuffle and deflate";
  EXPECT_EQ(chunk, (std::vector<hsize_t>{1, 3, 3})) << "first index fastest, chunks of one plane";
  EXPECT_EQ(detail::gridDifference(*(*loaded->getSlices().at(2.0))("uniform"),
                                   *(*bundle->getSlices().at(2.0))("uniform")),
            "")
      << "compression changes nothing";
}

/// Places every "density" array in "external.h5" under "data/<time>/<skeleton>".
class ExternalPolicy : public StorageTransformations {
 public:
  ExternalPolicy() { setExternalFileReferences(true); }
  std::pair<std::string, std::string> getExternalLocation(double time, const std::string&,
                                                          const SkeletonID& skeleton,
                                                          const std::string&,
                                                          const std::string& field) const override {
    if (field != "density") return {};
    return {"external.h5", "data/" + std::to_string(static_cast<int>(time)) + "/" +
                               std::to_string(skeleton.index())};
  }
};

TEST_F(FileTest, externalDataLiveInTheirOwnFileAndLoadThroughLinks) {
  BundlePtr bundle = makeSampleBundle();
  ASSERT_TRUE(
      bundle.save(path("main.h5"), {}, StrongPtr<StorageTransformations>(new ExternalPolicy)));
  EXPECT_EQ(listing(), (std::vector<std::string>{"external.h5", "main.h5", "main.h5.xmf"}));
  hid_t external = H5Fopen(path("external.h5").c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  EXPECT_GT(H5Lexists(external, "data/1/0", H5P_DEFAULT), 0);
  H5Fclose(external);
  BundlePtr loaded;
  ASSERT_TRUE(loaded.load(path("main.h5")));
  EXPECT_EQ(differences(*bundle, *loaded), "");
  // Two arrays sent to one place would overwrite each other: refused.
  class OnePlace : public ExternalPolicy {
    std::pair<std::string, std::string> getExternalLocation(double, const std::string&,
                                                            const SkeletonID&, const std::string&,
                                                            const std::string&) const override {
      return {"external.h5", "one"};
    }
  };
  H5::Outcome clash =
      H5::save(*bundle, path("clash.h5"), StrongPtr<StorageTransformations>(new OnePlace));
  EXPECT_NE(clash.error.find("\"one\""), std::string::npos) << clash.error;
}

TEST_F(FileTest, failedSaveLeavesTheOldFileByteForByteAndNoTemporary) {
  BundlePtr bundle = makeRichBundle();
  ASSERT_TRUE(H5::save(*makeSampleBundle(), path("keep.h5")).ok);
  const std::string before = fileBytes(path("keep.h5"));
  const std::string described = fileBytes(path("keep.h5.xmf"));
  const std::vector<std::string> files{"keep.h5", "keep.h5.xmf"};
  int fragments = 0;
  for (int k = 1;; ++k) {
    H5::Outcome saved = H5::save(*bundle, path("keep.h5"),
                                 StrongPtr<StorageTransformations>(new ThrowingPolicy(k)));
    if (saved.ok) {
      fragments = k - 1;
      break;
    }
    EXPECT_NE(saved.error.find("hook failed"), std::string::npos) << saved.error;
    ASSERT_EQ(fileBytes(path("keep.h5")), before) << "fragment " << k;
    ASSERT_EQ(fileBytes(path("keep.h5.xmf")), described) << "fragment " << k;
    ASSERT_EQ(listing(), files) << "fragment " << k;
  }
  EXPECT_GT(fragments, 15);

  // A folder that does not exist, and a "folder" that is a file.
  for (const std::string& target : {path("missing/out.h5"), path("keep.h5") + "/out.h5"}) {
    H5::Outcome saved = H5::save(*bundle, target);
    EXPECT_FALSE(saved.ok);
    EXPECT_NE(saved.error.find("cannot write in"), std::string::npos) << saved.error;
  }
  // A folder in the way of the file: the system's reason for that very call.
  std::filesystem::create_directories(path("folder.h5/inside"));
  const H5::Outcome blocked = H5::save(*bundle, path("folder.h5"));
  EXPECT_NE(blocked.error.find("cannot replace " + path("folder.h5") + ": Is a directory"),
            std::string::npos)
      << blocked.error;
  std::filesystem::remove_all(path("folder.h5"));

  // A full disk: the save runs in a child whose files may not grow past 16 KiB.
  ASSERT_TRUE(H5::save(*makeSampleBundle(), path("keep.h5")).ok);
  const std::string small = fileBytes(path("keep.h5"));
  const std::string smallDescribed = fileBytes(path("keep.h5.xmf"));
  BundlePtr large;
  large.create();
  addBigGrid(large, 0);
  EXPECT_TRUE(onAFullDisk(16 << 10, [&] {
    H5::Outcome saved = H5::save(*large, path("keep.h5"));
    return !saved.ok && !saved.error.empty();
  })) << "the save must fail with a reason";
  EXPECT_EQ(fileBytes(path("keep.h5")), small);
  EXPECT_EQ(fileBytes(path("keep.h5.xmf")), smallDescribed);
  EXPECT_EQ(listing(), files);
}

}  // namespace
}  // namespace Quaril::Testing
