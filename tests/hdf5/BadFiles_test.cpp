// Bad files: each gives a clear error naming the file and the problem, never
// a crash, a leak or HDF5's error stack on the terminal.

#include <hdf5.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>

#include "bundle/Prefetch.hpp"
#include "tests/hdf5/FileFixture.hpp"
#include "tests/hdf5/LargestArray.hpp"

namespace Quaril::Testing {
namespace {

using Mutation = std::function<void(hid_t file)>;

void removeLink(hid_t file, const char* name) {
  H5Ldelete(file, name, H5P_DEFAULT);
}

/// Replaces the dataset `name` by one of `type` and `dims` holding `data`
/// (nothing written when null, so the extents claim storage that is not there).
void replaceDataset(hid_t file, const char* name, hid_t type, std::vector<hsize_t> dims,
                    const void* data) {
  H5Ldelete(file, name, H5P_DEFAULT);
  hid_t space = H5Screate_simple(static_cast<int>(dims.size()), dims.data(), nullptr);
  hid_t create = H5Pcreate(H5P_DATASET_CREATE);
  if (!data) {
    std::vector<hsize_t> chunk(dims.size(), 1);
    H5Pset_chunk(create, static_cast<int>(chunk.size()), chunk.data());
  }
  hid_t dataset = H5Dcreate2(file, name, type, space, H5P_DEFAULT, create, H5P_DEFAULT);
  if (data) H5Dwrite(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, data);
  H5Dclose(dataset);
  H5Pclose(create);
  H5Sclose(space);
}

/// Replaces the dataset `name` by `values` stored as `type` (converted by
/// HDF5), one-dimensional or with `columns` columns.
void replaceValues(hid_t file, const char* name, hid_t type, const std::vector<double>& values,
                   size_t columns = 0) {
  std::vector<hsize_t> dims{columns ? values.size() / columns : values.size()};
  if (columns) dims.push_back(columns);
  replaceDataset(file, name, type, dims, nullptr);
  hid_t dataset = H5Dopen2(file, name, H5P_DEFAULT);
  H5Dwrite(dataset, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
  H5Dclose(dataset);
}

void replaceAttribute(hid_t object, const char* path, const char* name, hid_t type,
                      std::vector<hsize_t> dims, const void* data) {
  H5Adelete_by_name(object, path, name, H5P_DEFAULT);
  hid_t space = dims.empty()
                    ? H5Screate(H5S_SCALAR)
                    : H5Screate_simple(static_cast<int>(dims.size()), dims.data(), nullptr);
  hid_t attribute =
      H5Acreate_by_name(object, path, name, type, space, H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT);
  H5Awrite(attribute, type, data);
  H5Aclose(attribute);
  H5Sclose(space);
}

void replaceText(hid_t object, const char* path, const char* name, const char* text) {
  hid_t type = H5Tcopy(H5T_C_S1);
  H5Tset_size(type, H5T_VARIABLE);
  replaceAttribute(object, path, name, type, {}, &text);
  H5Tclose(type);
}

template <class T>
std::vector<T> readAll(hid_t file, const char* name, hid_t type) {
  hid_t dataset = H5Dopen2(file, name, H5P_DEFAULT);
  std::vector<T> values(static_cast<size_t>(H5Dget_storage_size(dataset) / sizeof(T)));
  H5Dread(dataset, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
  H5Dclose(dataset);
  return values;
}

/// Replaces the first `from` in structure `row` of the index by `to` (all
/// of it when `from` is empty).
void editStructure(hid_t file, size_t row, const std::string& from, const std::string& to) {
  std::vector<uint8_t> bytes = readAll<uint8_t>(file, "index/structures", H5T_NATIVE_UINT8);
  std::vector<uint64_t> ends = readAll<uint64_t>(file, "index/structure_ends", H5T_NATIVE_UINT64);
  std::vector<std::string> texts;
  for (size_t i = 0; i < ends.size(); ++i) {
    texts.emplace_back(bytes.begin() + static_cast<long>(i ? ends[i - 1] : 0),
                       bytes.begin() + static_cast<long>(ends[i]));
  }
  texts[row] = from.empty() ? to : texts[row].replace(texts[row].find(from), from.size(), to);
  std::string joined;
  ends.clear();
  for (const std::string& text : texts) ends.push_back((joined += text).size());
  replaceDataset(file, "index/structures", H5T_NATIVE_UINT8, {joined.size()}, joined.data());
  replaceDataset(file, "index/structure_ends", H5T_NATIVE_UINT64, {ends.size()}, ends.data());
}

struct BadFile {
  std::string name;
  Mutation mutate;
  std::string expected;  ///< a part of the error text
  bool foundOnOpening;   ///< the load fails; otherwise the check does
};

// The good file the grid cases start from: at time 0 "box" (uniform 2x2x2),
// "cloud" (3 points) and "surface" (2 triangles), entries and structures 0,
// 1 and 2.
const char* CloudPositions = "arrays/1.0";

/// An index dataset replaced by other values.
struct BadIndex {
  std::string name;
  const char* dataset;
  hid_t type;
  std::vector<double> values;
  size_t columns;
  std::string expected;
};

std::vector<BadFile> corpus() {
  const double nan = std::nan("");
  std::vector<BadFile> bad{
      {"foreign", [](hid_t file) { H5Adelete(file, "format"); }, "not a bundle file", true},
      {"format", [](hid_t file) { replaceText(file, ".", "format", "tables"); },
       "not a bundle file", true},
      {"newer",
       [](hid_t file) {
         int32_t version[2] = {2, 0};
         replaceAttribute(file, ".", "version", H5T_NATIVE_INT32, {2}, version);
       },
       "newer than this reader", true},
      {"version", [](hid_t file) { replaceText(file, ".", "version", "1.0"); }, "not a number",
       true},
      {"no-index", [](hid_t file) { removeLink(file, "index"); }, "\"index\" is missing", true},
      {"no-times", [](hid_t file) { removeLink(file, "index/times"); }, "\"times\" is missing",
       true},
      {"no-structures", [](hid_t file) { removeLink(file, "index/structures"); },
       "\"structures\" is missing", true},
      {"no-arrays", [](hid_t file) { removeLink(file, "arrays"); }, "no group \"arrays\"", false},
      {"text-times",
       [](hid_t file) {
         hid_t type = H5Tcopy(H5T_C_S1);
         H5Tset_size(type, 4);
         replaceDataset(file, "index/times", type, {1}, "zero");
         H5Tclose(type);
       },
       "expected floating-point", true},
      {"endless-times",
       [](hid_t file) {
         replaceDataset(file, "index/times", H5T_NATIVE_DOUBLE, {hsize_t{1} << 40}, nullptr);
       },
       "claims more values than it stores", true},
      {"stray-slice",
       [](hid_t file) {
         H5Gclose(H5Gcreate2(file, "slices", H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT));
         H5Gclose(H5Gcreate2(file, "slices/7", H5P_DEFAULT, H5P_DEFAULT, H5P_DEFAULT));
       },
       "names no time", true},
      {"points-in-pairs",
       [](hid_t file) {
         replaceValues(file, CloudPositions, H5T_NATIVE_DOUBLE, {0, 1, 2, 3, 4, 5}, 2);
       },
       "has the extents [3, 2] where the structure's 3 ask for [3, 3] (HDF5 lists", false},
      {"endless-points",
       [](hid_t file) {
         editStructure(file, 1, "\"extents\":[3]", "\"extents\":[1099511627776]");
         replaceDataset(file, CloudPositions, H5T_NATIVE_DOUBLE, {hsize_t{1} << 40, 3}, nullptr);
       },
       "the file stores", false},
      {"text-points",
       [](hid_t file) {
         hid_t type = H5Tcopy(H5T_C_S1);
         H5Tset_size(type, 8);
         replaceDataset(file, CloudPositions, type, {3, 3}, std::string(72, 'x').c_str());
         H5Tclose(type);
       },
       "cannot read", false},
  };
  const hid_t i64 = H5T_NATIVE_INT64, u64 = H5T_NATIVE_UINT64, f64 = H5T_NATIVE_DOUBLE;
  const std::vector<BadIndex> indexes{
      {"integer-times", "index/times", H5T_NATIVE_INT32, {0}, 0, "expected floating-point"},
      {"times-matrix", "index/times", f64, {0, 1}, 2, "rank 2"},
      {"nan-time", "index/times", f64, {nan}, 0, "NaN"},
      {"two-slices", "index/times", f64, {1, 1}, 0, "appears twice"},
      {"descending", "index/times", f64, {2, 1}, 0, "ascending"},
      {"name-ends", "index/grid_name_ends", u64, {3, 999, 1000}, 0, "out of order"},
      {"same-names", "index/grid_name_ends", u64, {0, 0, 0}, 0, "appears twice"},
      {"parent-cycle", "index/grid_parents", i64, {1, 2, 0}, 0, "cycle"},
      {"parent-range", "index/grid_parents", i64, {-1, 99, -1}, 0, "out of range"},
      {"parent-count", "index/grid_parents", i64, {-1}, 0, "1 grid parents for 3"},
      {"entry-time", "index/entries", i64, {0, 0, 0, 5, 2, 2}, 3, "a time that does not exist"},
      {"entry-grid", "index/entries", i64, {0, 0, 0, 0, -1, 1}, 3, "a grid that does not exist"},
      {"entry-text", "index/entries", i64, {0, 0, 0, 0, 1, 7}, 3, "a structure that does not"},
      {"entry-twice", "index/entries", i64, {0, 0, 0, 0, 0, 1}, 3, "a grid appears twice"},
      {"entry-columns", "index/entries", i64, {0, 0, 0, 1}, 2, "expected 3"},
      {"text-ends", "index/structure_ends", u64, {9, 5, 999999}, 0, "out of order"},
      {"entry-sizes", "index/entry_bytes", u64, {1}, 0, "entry sizes"},
  };
  // Structures edited: row, text replaced, replacement.
  struct Edit {
    std::string name;
    size_t row;
    std::string from, to, expected;
  };
  const std::vector<Edit> structures{
      {"unknown-type", 1, "\"point\"", "\"quaternion\"", "unknown element type"},
      {"no-elements", 1, "\"elements\"", "\"elementz\"", "the key \"elements\" is missing"},
      {"no-json", 1, "{", "[", "its structure: it is not JSON"},
      // What the layout forbids is named by its key.
      {"number-dataset", 1, "\"dataset\":\"0\"", "\"dataset\":0", "\"dataset\" must be a text"},
      {"no-fields", 1, "\"fields\"", "\"fieldz\"", "the key \"fields\" is missing"},
      {"refinement-0", 1, "\"refinement\":1", "\"refinement\":0", "\"refinement\" is out of range"},
      {"no-object", 1, "", "[1, 2]", "not a JSON object"},
      {"huge-box", 0, "\"extents\":[2,2,2]", "\"extents\":[1099511627776,1099511627776,2]",
       "overflow"},
      {"lost-skeleton", 2, "\"skeleton\":[0,0]", "\"skeleton\":[0,9]",
       "a skeleton the grid does not have"},
      {"no-attributes", 2, "{", "{\"attributes\":true,", "\"grids/2\" is missing"},
      {"writer-rank", 0, "\"uniform\"", "\"rank\":[3,2],\"uniform\"",
       "its writer rank is not [rank, ranks]"}};
  for (const Edit& edit : structures) {
    bad.push_back({edit.name,
                   [edit](hid_t file) { editStructure(file, edit.row, edit.from, edit.to); },
                   edit.expected, false});
  }
  for (const BadIndex& index : indexes) {
    bad.push_back({index.name,
                   [index](hid_t file) {
                     replaceValues(file, index.dataset, index.type, index.values, index.columns);
                   },
                   index.expected, true});
  }
  return bad;
}

class BadFileTest : public FileTest {
 protected:
  void SetUp() override {
    FileTest::SetUp();
    BundlePtr bundle;
    bundle.create();
    makeUniformGrid(gridIn(bundle, 0, "box"), {2, 2, 2}, {0, 0, 0}, {1, 1, 1});
    makePointCloud(gridIn(bundle, 0, "cloud"), {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}});
    makeTriangleSurface(gridIn(bundle, 0, "surface"), {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}},
                        {{0, 1, 2}, {1, 3, 2}});
    ASSERT_TRUE(H5::save(*bundle, path("good.h5")).ok);
  }
  void TearDown() override { FileTest::TearDown(); }

  std::string write(const std::string& name, const std::string& bytes) {
    std::ofstream(path(name), std::ios::binary) << bytes;
    return path(name);
  }
};

TEST_F(BadFileTest, everyBadFileFailsWithItsNameAndReason) {
  const std::string good = fileBytes(path("good.h5"));
  std::vector<std::pair<std::string, std::string>> openFailures{
      {write("text.h5", "a plain text, not a bundle\n"), "not an HDF5 file"},
      {write("empty.h5", ""), "not an HDF5 file"}};
  for (size_t cut = 1; cut < 10; ++cut) {
    openFailures.emplace_back(
        write("cut" + std::to_string(cut) + ".h5", good.substr(0, good.size() * cut / 10)), "");
  }
  H5Fclose(H5Fcreate(path("plain.h5").c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT));
  openFailures.emplace_back(path("plain.h5"), "not a bundle file");
  for (const auto& [file, expected] : openFailures) {
    BundlePtr bundle;
    ::testing::internal::CaptureStderr();
    H5::Outcome loaded = H5::load(bundle, {file});
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << "nothing on the terminal";
    EXPECT_FALSE(loaded.ok) << file;
    EXPECT_NE(loaded.error.find(file + ": "), std::string::npos) << loaded.error;
    EXPECT_NE(loaded.error.find(expected), std::string::npos) << loaded.error;
    EXPECT_TRUE(bundle->getSlices().empty()) << file;
  }

  for (const BadFile& bad : corpus()) {
    const std::string file = write(bad.name + ".h5", good);
    H5E_BEGIN_TRY {
      hid_t handle = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
      bad.mutate(handle);
      H5Fclose(handle);
    }
    H5E_END_TRY;
    ::testing::internal::CaptureStderr();
    BundlePtr bundle;
    H5::Outcome loaded = H5::load(bundle, {file});
    H5::Outcome checked = H5::check(file);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << "nothing on the terminal";
    EXPECT_FALSE(checked.ok) << bad.name;
    EXPECT_NE(checked.error.find(file + ": "), std::string::npos) << checked.error;
    EXPECT_NE(checked.error.find(bad.expected), std::string::npos)
        << bad.name << ": " << checked.error;
    EXPECT_EQ(!loaded.ok, bad.foundOnOpening) << bad.name << ": " << loaded.error;
    if (bad.foundOnOpening) {
      EXPECT_NE(loaded.error.find(checked.error), std::string::npos) << loaded.error;
      continue;
    }
    // Found on first access: what can be read is there, the rest is listed
    // where it is, and no write loses it unless the caller says so.
    ::testing::internal::CaptureStderr();
    differences(*bundle, *bundle);
    const std::vector<H5::Problem> problems = H5::problems(*bundle);
    ASSERT_FALSE(problems.empty()) << bad.name;
    EXPECT_EQ(problems.front().file, file) << bad.name;
    EXPECT_NE(problems.front().reason.find(bad.expected), std::string::npos)
        << bad.name << ": " << problems.front().text();
    const std::string before = fileBytes(file);
    const H5::Outcome inPlace = H5::save(*bundle, file);
    EXPECT_FALSE(inPlace.ok) << bad.name;
    EXPECT_NE(inPlace.error.find(problems.front().text()), std::string::npos) << inPlace.error;
    EXPECT_EQ(fileBytes(file), before) << bad.name << ": the file is left as it was";
    Ostrak::StrongPtr<H5::StorageOptions> skip(new H5::StorageOptions);
    skip->setSkipDamaged(true);
    Ostrak::StrongPtr<MessageLog> log(new MessageLog);
    EXPECT_TRUE(H5::save(*bundle, path(bad.name + "-kept.h5"), skip, log).ok) << bad.name;
    EXPECT_NE(log->text.find("left out, unreadable: " + problems.front().text()), std::string::npos)
        << bad.name << ": " << log->text;
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << "nothing on the terminal";
  }
}

TEST_F(BadFileTest, cutOrFlippedFilesNeverLoseDataInSilence) {
  const std::string good = fileBytes(path("good.h5"));
  std::vector<std::pair<std::string, std::string>> damaged;  // name, bytes
  for (size_t cut = 1; cut < 40; ++cut) {
    damaged.emplace_back("cut-" + std::to_string(cut), good.substr(0, good.size() * cut / 40));
  }
  std::mt19937 random(20261125);
  for (int flip = 0; flip < 150; ++flip) {
    std::string bytes = good;
    const size_t at = std::uniform_int_distribution<size_t>(0, bytes.size() - 1)(random);
    bytes[at] = static_cast<char>(bytes[at] ^ (1 << (flip % 8)));
    damaged.emplace_back("flip-" + std::to_string(at) + "-" + std::to_string(flip % 8), bytes);
  }
  for (const auto& [name, bytes] : damaged) {
    const std::string file = write(name + ".h5", bytes);
    setModificationTime(file, modificationTime(path("good.h5")));
    ::testing::internal::CaptureStderr();
    BundlePtr bundle;
    const H5::Outcome opened = H5::load(bundle, {file});
    const H5::CheckReport report = H5::checkFile(file);
    if (!opened) {
      EXPECT_NE(opened.error.find(file + ": "), std::string::npos) << name << ": " << opened.error;
      EXPECT_FALSE(report.ok()) << name << ": a file that does not load passes its check";
    } else {
      differences(*bundle, *bundle);  // reads every slice and array
      const std::vector<H5::Problem> problems = H5::problems(*bundle);
      if (!problems.empty()) {
        EXPECT_FALSE(report.ok()) << name << ": " << problems[0].text();
      }
      // An in-place copy fails and leaves the file, or keeps all it read.
      const H5::Outcome copied = H5::save(*bundle, file);
      if (!problems.empty()) {
        EXPECT_FALSE(copied.ok) << name;
        EXPECT_EQ(fileBytes(file), bytes) << name;
      } else if (copied) {
        EXPECT_EQ(differences(*bundle, *loaded(file)), "") << name;
      } else {
        EXPECT_EQ(fileBytes(file), bytes) << name << ": " << copied.error;
      }
    }
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "") << name << ": nothing on the terminal";
  }
}

TEST_F(BadFileTest, changedArrayValuesFailTheirChecksumInACheck) {
  BundlePtr bundle;
  ASSERT_TRUE(H5::load(bundle, {path("good.h5")}).ok);
  Ostrak::StrongPtr<H5::StorageOptions> compressed(new H5::StorageOptions);
  compressed->setCompression(H5::Codec::Lz4);
  ASSERT_TRUE(H5::save(*bundle, path("compressed.h5"), compressed).ok);
  // Stored as they lie, and as one compressed chunk that decodes cleanly.
  for (const char* source : {"good.h5", "compressed.h5"}) {
    const std::string file = write(std::string("changed-") + source, fileBytes(path(source)));
    ASSERT_TRUE(H5::checkFile(file).ok());
    H5E_BEGIN_TRY {
      hid_t handle = H5Fopen(file.c_str(), H5F_ACC_RDWR, H5P_DEFAULT);
      // The right shape and type, other values, written through the data
      // set's own filters.
      hid_t dataset = H5Dopen2(handle, CloudPositions, H5P_DEFAULT);
      const std::vector<double> values{0, 0, 0, 1, 0, 0, 0, 1, 9};
      H5Dwrite(dataset, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
      H5Dclose(dataset);
      H5Fclose(handle);
    }
    H5E_END_TRY;
    const H5::CheckReport report = H5::checkFile(file);
    ASSERT_EQ(report.problems.size(), 1u) << source;
    EXPECT_EQ(report.problems[0].where, "field \"Positions\" of grid \"cloud\" at time 0");
    EXPECT_NE(report.problems[0].reason.find("its data fail their checksum"), std::string::npos)
        << report.problems[0].text();
  }
  // Files without checksums (older ones, or other programs') check clean.
  Ostrak::StrongPtr<H5::StorageOptions> without(new H5::StorageOptions);
  without->setChecksums(false);
  ASSERT_TRUE(H5::save(*bundle, path("unsummed.h5"), without).ok);
  EXPECT_TRUE(H5::checkFile(path("unsummed.h5")).ok());
}

/// Stores every double of a field in single precision.
class SinglePrecision : public H5::StorageOptions {
 public:
  bool WriteAsSinglePrecision(const std::string&,
                              const Ostrak::StrongPtr<Ostrak::ChunkBase>&) const override {
    return true;
  }
};

/// Flips one bit of the stored bytes of the largest data set in `file`'s
/// "arrays", `fraction` of the way into them, as a disk's decay does: the
/// file's modification time stays.
void flipInLargestArray(const std::string& file, double fraction) {
  const std::string largest = largestArray(file);
  ASSERT_FALSE(largest.empty());
  const struct timespec time = modificationTime(file);
  hid_t handle = H5Fopen(file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  hid_t dataset = H5Dopen2(handle, largest.c_str(), H5P_DEFAULT);
  haddr_t offset = H5Dget_offset(dataset);
  hsize_t bytesOfIt = H5Dget_storage_size(dataset);
  if (offset == HADDR_UNDEF) {  // chunked: its first chunk
    hid_t space = H5Dget_space(dataset);
    hsize_t origin[4] = {};
    unsigned mask = 0;
    H5Dget_chunk_info(dataset, space, 0, origin, &mask, &offset, &bytesOfIt);
    H5Sclose(space);
    hid_t settings = H5Fget_create_plist(handle);
    hsize_t userBlock = 0;  // chunk addresses count from after it
    H5Pget_userblock(settings, &userBlock);
    H5Pclose(settings);
    offset += userBlock;
  }
  H5Dclose(dataset);
  H5Fclose(handle);
  ASSERT_NE(offset, HADDR_UNDEF);
  std::fstream bytes(file, std::ios::in | std::ios::out | std::ios::binary);
  const auto at =
      static_cast<std::streamoff>(offset + std::min<hsize_t>(bytesOfIt - 1, bytesOfIt * fraction));
  bytes.seekg(at);
  const char byte = static_cast<char>(bytes.get() ^ 0x10);
  bytes.seekp(at);
  bytes.put(byte);
  bytes.close();
  setModificationTime(file, time);
}

// Each read of an array checks its stored checksum, however it is read: a
// flipped bit is an error naming the array, never a changed value.
TEST_F(BadFileTest, aFlippedBitInArrayDataFailsEveryReadOfThatArray) {
  struct Case {
    const char* name;
    bool single;      // stored as floats: checked after converting back
    double fraction;  // where in the array's bytes the bit flips
    H5::Codec codec = H5::Codec::None;
  };
  const std::vector<Case> cases{{"first byte", false, 0},
                                {"past the first stretch read", false, 0.4},
                                {"last byte", false, 1},
                                {"stored as floats", true, 0.7},
                                {"a value of a zstd chunk", false, 0.9, H5::Codec::Zstd},
                                {"a value of an LZ4 chunk", false, 0.9, H5::Codec::Lz4}};
  BundlePtr bundle;
  ASSERT_TRUE(H5::load(bundle, {path("good.h5")}).ok);
  // A megabyte: read from the file in several stretches.
  makeUniformGrid(gridIn(bundle, 0, "big"), {64, 64, 32}, {0, 0, 0}, {1, 1, 1});
  std::vector<double> values(64 * 64 * 32);
  for (size_t i = 0; i < values.size(); ++i) values[i] = 0.25 * static_cast<double>(i % 1000);
  addVertexField(gridIn(bundle, 0, "big"), "values", values);
  for (const Case& c : cases) {
    const std::string file = path(std::string(c.name) + ".h5");
    Ostrak::StrongPtr<H5::StorageOptions> options(c.single ? new SinglePrecision
                                                           : new H5::StorageOptions);
    options->setCompression(c.codec);
    ASSERT_TRUE(H5::save(*bundle, file, options).ok);
    flipInLargestArray(file, c.fraction);
    BundlePtr read;
    ASSERT_TRUE(H5::load(read, {file}).ok) << c.name;
    EXPECT_EQ(prefetch(*read), 1u) << c.name << ": read in parallel, one array fails";
    const Slice& slice = *read->getSlices().at(0);
    EXPECT_FALSE(slice("big")->getCartesianRepresentation()->findField("values")->getData())
        << c.name;
    EXPECT_TRUE(slice("cloud")->CartesianPositions()->getData()) << c.name;
    const std::vector<H5::Problem> problems = H5::problems(*read);
    ASSERT_EQ(problems.size(), 1u) << c.name;
    EXPECT_EQ(problems[0].where, "field \"values\" of grid \"big\" at time 0") << c.name;
    // A damaged chunk may fail to decode before its values are checked.
    EXPECT_TRUE(c.codec != H5::Codec::None ||
                problems[0].reason.find("fail their checksum") != std::string::npos)
        << c.name << ": " << problems[0].reason;
    EXPECT_FALSE(H5::checkFile(file).ok()) << c.name;
  }
}

}  // namespace
}  // namespace Quaril::Testing
