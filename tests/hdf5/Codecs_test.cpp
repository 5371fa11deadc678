// Compression by zstd and LZ4 as the filters registered for them: values
// come back bit for bit, the files name the registered filters, and damage
// in a compressed chunk is an error, never a crash or a wrong number.

#include <hdf5.h>

#include <bit>
#include <cmath>
#include <limits>
#include <random>

#include "formats/hdf5/detail/Codecs.hpp"
#include "formats/hdf5/detail/Failure.hpp"
#include "tests/hdf5/FileFixture.hpp"
#include "tests/hdf5/LargestArray.hpp"

namespace Quaril::Testing {
namespace {

/// The filters of the largest data set in `file`'s "arrays".
std::vector<H5Z_filter_t> filtersOfLargest(const std::string& file) {
  std::vector<H5Z_filter_t> filters;
  hid_t handle = H5Fopen(file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  hid_t dataset = H5Dopen2(handle, largestArray(file).c_str(), H5P_DEFAULT);
  hid_t create = H5Dget_create_plist(dataset);
  for (int f = 0; f < H5Pget_nfilters(create); ++f) {
    unsigned flags = 0, config = 0;
    size_t count = 0;
    filters.push_back(H5Pget_filter2(create, static_cast<unsigned>(f), &flags, &count, nullptr, 0,
                                     nullptr, &config));
  }
  H5Pclose(create);
  H5Dclose(dataset);
  H5Fclose(handle);
  return filters;
}

TEST_F(FileTest, zstdAndLz4KeepEveryValueAndNameTheirRegisteredFilters) {
  struct Case {
    const char* what;
    H5::Codec codec;
    int level;
    H5Z_filter_t filter;
  };
  const std::vector<Case> cases{{"zstd, its default level", H5::Codec::Zstd, 0, 32015},
                                {"zstd at level 19", H5::Codec::Zstd, 19, 32015},
                                {"LZ4", H5::Codec::Lz4, 0, 32004},
                                {"deflate", H5::Codec::Deflate, 1, H5Z_FILTER_DEFLATE}};
  // Values that compress well, badly, and the awkward ones.
  std::mt19937_64 random(7);
  std::vector<double> noise(32 * 32 * 16), smooth(noise.size());
  for (size_t i = 0; i < noise.size(); ++i) {
    noise[i] = std::bit_cast<double>(random() & ~(uint64_t{0x7FF} << 52)) * 1e300;
    smooth[i] = std::sin(static_cast<double>(i) * 1e-3);
  }
  noise[3] = std::numeric_limits<double>::quiet_NaN();
  noise[4] = -std::numeric_limits<double>::infinity();
  BundlePtr bundle;
  bundle.create();
  makeUniformGrid(gridIn(bundle, 0, "fluid"), {32, 32, 16}, {0, 0, 0}, {1, 1, 1});
  addVertexField(gridIn(bundle, 0, "fluid"), "noise", noise);
  addVertexField(gridIn(bundle, 0, "fluid"), "smooth", smooth);
  addVertexField(gridIn(bundle, 0, "fluid"), "zero", std::vector<int32_t>(noise.size(), 0));
  for (const Case& c : cases) {
    Ostrak::StrongPtr<H5::StorageOptions> options(new H5::StorageOptions);
    options->setCompression(c.codec, c.level);
    const std::string file = path(std::string(c.what) + ".h5");
    ASSERT_TRUE(H5::save(*bundle, file, options).ok) << c.what;
    EXPECT_EQ(differences(*bundle, *loaded(file)), "") << c.what;
    EXPECT_EQ(filtersOfLargest(file), (std::vector<H5Z_filter_t>{H5Z_FILTER_SHUFFLE, c.filter}))
        << c.what;
    EXPECT_TRUE(H5::checkFile(file).ok()) << c.what;
  }
}

TEST(Codecs, damagedOrCutChunksAreErrorsNeverCrashes) {
  std::vector<uint8_t> values(100000);
  for (size_t i = 0; i < values.size(); ++i) values[i] = static_cast<uint8_t>(i * i % 251);
  using Decode = std::vector<uint8_t> (*)(const void*, size_t, size_t);
  const std::vector<std::pair<std::vector<uint8_t>, Decode>> codecs{
      {H5::detail::zstdCompress(values.data(), values.size(), 3), H5::detail::zstdDecompress},
      {H5::detail::lz4Compress(values.data(), values.size(), 0), H5::detail::lz4Decompress},
      {H5::detail::lz4Compress(values.data(), values.size(), 4096), H5::detail::lz4Decompress}};
  for (const auto& [packed, decode] : codecs) {
    EXPECT_EQ(decode(packed.data(), packed.size(), values.size()), values);
    EXPECT_THROW(decode(packed.data(), packed.size(), values.size() - 1), H5::detail::Failure)
        << "larger than allowed";
    for (size_t cut : {size_t{0}, size_t{5}, packed.size() / 2, packed.size() - 1}) {
      EXPECT_THROW(decode(packed.data(), cut, values.size()), H5::detail::Failure) << cut;
    }
    std::mt19937 random(11);
    for (int flip = 0; flip < 200; ++flip) {
      std::vector<uint8_t> damaged = packed;
      damaged[random() % damaged.size()] ^= static_cast<uint8_t>(1 << (flip % 8));
      try {
        decode(damaged.data(), damaged.size(), values.size());  // may read, or throw
      } catch (const H5::detail::Failure&) {
      }
    }
  }
}

// HDF5's byte shuffle, as the writer applies it and the reader undoes it
// outside libhdf5: every element's byte 0 first, then every byte 1, ...
TEST(Codecs, theShuffleOrdersBytesAsHdf5DoesAndUndoesExactly) {
  const std::vector<uint8_t> pairs{'a', 'A', 'b', 'B', 'c', 'C', '!'};
  std::vector<uint8_t> out(pairs.size());
  H5::detail::shuffle(pairs.data(), pairs.size(), 2, out.data());
  EXPECT_EQ(std::string(out.begin(), out.end()), "abcABC!") << "the odd byte stays last";
  for (size_t elementBytes : {1u, 2u, 3u, 4u, 8u, 16u}) {
    for (size_t bytes : {0u, 1u, 7u, 8u, 9u, 1001u, 4096u}) {
      std::vector<uint8_t> values(bytes), shuffled(bytes), back(bytes);
      for (size_t i = 0; i < bytes; ++i) values[i] = static_cast<uint8_t>(i * 7 + i / 5);
      H5::detail::shuffle(values.data(), bytes, elementBytes, shuffled.data());
      H5::detail::unshuffle(shuffled.data(), bytes, elementBytes, back.data());
      EXPECT_EQ(back, values) << elementBytes << " " << bytes;
    }
  }
}

}  // namespace
}  // namespace Quaril::Testing
