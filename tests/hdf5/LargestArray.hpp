#pragma once
// The largest stored array of a bundle file, for tests that damage it or
// look at how it is stored.

#include <hdf5.h>

#include <array>
#include <string>

namespace Quaril::Testing {

/// The path ("arrays/<name>") of the data set in `file`'s "arrays" that
/// takes the most bytes; empty when there is none.
inline std::string largestArray(const std::string& file) {
  std::string found;
  hsize_t largest = 0;
  hid_t handle = H5Fopen(file.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  hid_t arrays = H5Gopen2(handle, "arrays", H5P_DEFAULT);
  H5G_info_t info;
  H5Gget_info(arrays, &info);
  for (hsize_t i = 0; i < info.nlinks; ++i) {
    std::array<char, 64> name{};
    H5Lget_name_by_idx(arrays, ".", H5_INDEX_NAME, H5_ITER_INC, i, name.data(), name.size(),
                       H5P_DEFAULT);
    hid_t dataset = H5Dopen2(arrays, name.data(), H5P_DEFAULT);
    if (H5Dget_storage_size(dataset) > largest) {
      largest = H5Dget_storage_size(dataset);
      found = std::string("arrays/") + name.data();
    }
    H5Dclose(dataset);
  }
  H5Gclose(arrays);
  H5Fclose(handle);
  return found;
}

}  // namespace Quaril::Testing
