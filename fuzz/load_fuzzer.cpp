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

uint64_t littleEndian(const uint8_t* at) {
  uint64_t value = 0;
  for (int i = 7; i >= 0; --i) value = (value << 8) | at[i];
  return value;
}

/// Makes the directory at the start of the file `path` (the bytes `data`)
/// fit the file, whatever its places say, when the bytes start as one does.
void fitDirectory(const std::string& path, const uint8_t* data, size_t size) {
  namespace detail = Quaril::H5::detail;
  constexpr size_t Places = 40, Runs = static_cast<size_t>(detail::Run::Count);
  if (size < detail::DirectoryRoom || std::string(data, data + 8) != "QRLDIR01") return;
  detail::Directory directory;
  directory.fileBytes = size;
  directory.bundleAttributes = (data[16] & 1) != 0;
  for (size_t run = 0; run < Runs; ++run) {
    detail::Place& place = directory.places[run];
    place.offset = littleEndian(data + Places + 24 * run);
    place.bytes = littleEndian(data + Places + 24 * run + 8);
    const bool inside = place.offset <= size && place.bytes <= size - place.offset;
    place.checksum = inside ? detail::bytesChecksum(data + place.offset, place.bytes) : 0;
  }
  detail::writeDirectory(path, directory);
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
