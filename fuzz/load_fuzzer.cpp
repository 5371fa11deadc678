// Feeds arbitrary bytes, as a file, to the loader of the HDF5 format and,
// when it loads, reads every grid and array of it. Any crash, leak or
// undefined behaviour is a finding; a clear error is the expected answer.
// Bytes that start as a directory does have its checksums, size and time
// made to fit first: otherwise no mutation would get past them, and a file
// can be crafted to fit.

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>

#include "formats/hdf5/Format.hpp"
#include "formats/hdf5/detail/Checksum.hpp"
#include "formats/hdf5/detail/Directory.hpp"

namespace {

const std::string& scratchFile() {
  static const std::string path =
      (std::filesystem::temp_directory_path() / ("quaril-fuzz-" + std::to_string(getpid()) + ".h5"))
          .string();
  return path;
}

/// Makes the directory at the start of the file `path` (the bytes `data`)
/// fit the file, whatever its places say, when the bytes start as one does.
void fitDirectory(const std::string& path, const uint8_t* data, size_t size) {
  namespace detail = Quaril::H5::detail;
  std::optional<detail::Directory> directory = detail::decodeDirectory(data, size);
  if (!directory || size < detail::DirectoryRoom) return;
  directory->fileBytes = size;
  for (detail::Place& place : directory->places) {
    const bool inside = place.offset <= size && place.bytes <= size - place.offset;
    place.checksum = inside ? detail::bytesChecksum(data + place.offset, place.bytes) : 0;
  }
  detail::writeDirectory(path, *directory);
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
    fitDirectory(path, data, size);
  }
  Quaril::BundlePtr bundle;
  if (Quaril::H5::load(bundle, {path})) Quaril::H5::check(path);
  std::remove(path.c_str());
  return 0;
}
