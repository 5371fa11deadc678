// Feeds arbitrary bytes, as a file, to the loader of the HDF5 format and,
// when it loads, reads every grid and array of it. Any crash, leak or
// undefined behaviour is a finding; a clear error is the expected answer.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include "formats/hdf5/Format.hpp"

namespace {

const std::string& scratchFile() {
  static const std::string path =
      (std::filesystem::temp_directory_path() / ("quaril-fuzz-" + std::to_string(getpid()) + ".h5"))
          .string();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool registered = [] {
    Quaril::H5::registerFormat();
    return true;
  }();
  (void)registered;
  const std::string& path = scratchFile();
  if (FILE* file = std::fopen(path.c_str(), "wb")) {
    std::fwrite(data, 1, size, file);
    std::fclose(file);
  }
  Quaril::BundlePtr bundle;
  if (Quaril::H5::load(bundle, {path})) Quaril::H5::check(path);
  std::remove(path.c_str());
  return 0;
}
