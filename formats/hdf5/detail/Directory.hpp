#pragma once
// The directory a saved file carries in its HDF5 user block: where the
// index's data sets and each stored array lie in the file, with checksums.
// A reader that finds it valid opens the file without libhdf5 and reads the
// arrays it places straight from the file; libhdf5 opens the file only for
// what the directory does not place (attributes, filtered or converted
// arrays). A directory that does not fit the file is ignored: one whose
// file has another size or was modified later (its modification time is
// not the one the directory gives, to the nanosecond) belongs to a file that
// another program has changed since.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Quaril::H5::detail {

/// The part of a file's start that HDF5 leaves to us: the directory's room.
inline constexpr uint64_t DirectoryRoom = 512;

/// The byte runs a directory places, each the raw data of a data set of
/// the index (native little-endian values, one after another).
enum class Run : uint32_t {
  Times,
  GridNames,
  GridNameEnds,
  GridParents,
  Entries,
  EntryBytes,
  Structures,
  StructureEnds,
  ArrayChecksums,
  ChecksumBegins,
  ArrayPlaces,
  AttributedSlices,
  Count
};

/// Where one run lies: `bytes` bytes at `offset`, with their checksum.
/// No bytes: the run is empty, or the file lacks the data set.
struct Place {
  uint64_t offset = 0;
  uint64_t bytes = 0;
  uint64_t checksum = 0;
};

struct Directory {
  /// The file's size: a file changed since has another one, and its
  /// directory is ignored.
  uint64_t fileBytes = 0;
  /// The file's modification time, which writing the directory sets.
  int64_t modifiedSeconds = 0;
  int64_t modifiedNanoseconds = 0;
  /// Whether the bundle's attributes are stored (they are read through HDF5).
  bool bundleAttributes = false;
  std::array<Place, static_cast<size_t>(Run::Count)> places{};

  Place& operator[](Run run) { return places[static_cast<size_t>(run)]; }
  const Place& operator[](Run run) const { return places[static_cast<size_t>(run)]; }
};

/// Writes `directory` into the user block of the closed file `path`, with
/// the time of writing as the file's modification time. Throws Failure
/// naming the file.
void writeDirectory(const std::string& path, Directory directory);

/// The directory as the `size` bytes at `bytes` (the file's first) hold it,
/// whether or not it fits the file; none when they hold none.
std::optional<Directory> decodeDirectory(const uint8_t* bytes, size_t size);

/// The directory in the first bytes of the file `fd` of `fileBytes` bytes,
/// or none when there is none or it does not fit the file. Reads never fail.
std::optional<Directory> readDirectory(int fd, uint64_t fileBytes);

/// The run `run` of the file `fd` as values of T; none when the run does
/// not hold whole values or, with `verify`, its checksum differs.
template <class T>
std::optional<std::vector<T>> readRun(int fd, const Directory& directory, Run run, bool verify);

}  // namespace Quaril::H5::detail
