#include "formats/hdf5/detail/Directory.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "formats/hdf5/detail/Checksum.hpp"
#include "formats/hdf5/detail/Files.hpp"

namespace Quaril::H5::detail {

namespace {

// Eight bytes that name the directory and its version, then the file's
// size, the flags, the run count and the modification time (seconds,
// nanoseconds), the places, and the checksum of all before it;
// little-endian throughout.
constexpr char Magic[8] = {'Q', 'R', 'L', 'D', 'I', 'R', '0', '1'};
constexpr size_t HeadBytes = 8 + 8 + 4 + 4 + 8 + 8;
constexpr size_t PlaceBytes = 3 * 8;
constexpr size_t RunCount = static_cast<size_t>(Run::Count);
constexpr size_t SummedBytes = HeadBytes + RunCount * PlaceBytes;
static_assert(SummedBytes + 8 <= DirectoryRoom, "the directory outgrows its room");
constexpr uint32_t BundleAttributesFlag = 1;

void put(uint8_t* at, uint64_t value, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) at[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint64_t get(const uint8_t* at, size_t bytes) {
  uint64_t value = 0;
  for (size_t i = bytes; i-- > 0;) value = (value << 8) | at[i];
  return value;
}

bool littleEndianHost() {
  const uint16_t probe = 1;
  uint8_t first = 0;
  std::memcpy(&first, &probe, 1);
  return first == 1;
}

}  // namespace

void writeDirectory(const std::string& path, Directory directory) {
  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  directory.modifiedSeconds = now.tv_sec;
  directory.modifiedNanoseconds = now.tv_nsec;
  std::array<uint8_t, DirectoryRoom> bytes{};
  std::memcpy(bytes.data(), Magic, sizeof(Magic));
  put(&bytes[8], directory.fileBytes, 8);
  put(&bytes[16], directory.bundleAttributes ? BundleAttributesFlag : 0, 4);
  put(&bytes[20], RunCount, 4);
  put(&bytes[24], static_cast<uint64_t>(directory.modifiedSeconds), 8);
  put(&bytes[32], static_cast<uint64_t>(directory.modifiedNanoseconds), 8);
  for (size_t run = 0; run < RunCount; ++run) {
    uint8_t* at = &bytes[HeadBytes + run * PlaceBytes];
    put(at, directory.places[run].offset, 8);
    put(at + 8, directory.places[run].bytes, 8);
    put(at + 16, directory.places[run].checksum, 8);
  }
  put(&bytes[SummedBytes], bytesChecksum(bytes.data(), SummedBytes), 8);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  requireSystem(fd >= 0, "cannot open " + path);
  try {
    writeAt(fd, bytes.data(), bytes.size(), 0, path);
    const struct timespec times[2] = {{0, UTIME_OMIT}, now};
    requireSystem(futimens(fd, times) == 0, "cannot set the time of " + path);
  } catch (...) {
    ::close(fd);
    throw;
  }
  requireSystem(::close(fd) == 0, "cannot close " + path);
}

std::optional<Directory> decodeDirectory(const uint8_t* bytes, size_t size) {
  if (size < SummedBytes + 8 || std::memcmp(bytes, Magic, sizeof(Magic)) != 0 ||
      get(&bytes[20], 4) != RunCount) {
    return std::nullopt;
  }
  Directory directory;
  directory.fileBytes = get(&bytes[8], 8);
  directory.bundleAttributes = (get(&bytes[16], 4) & BundleAttributesFlag) != 0;
  directory.modifiedSeconds = static_cast<int64_t>(get(&bytes[24], 8));
  directory.modifiedNanoseconds = static_cast<int64_t>(get(&bytes[32], 8));
  for (size_t run = 0; run < RunCount; ++run) {
    const uint8_t* at = &bytes[HeadBytes + run * PlaceBytes];
    directory.places[run] = {get(at, 8), get(at + 8, 8), get(at + 16, 8)};
  }
  return directory;
}

std::optional<Directory> readDirectory(int fd, uint64_t fileBytes) {
  // The runs hold native values: a big-endian host reads through HDF5.
  if (!littleEndianHost() || fileBytes < DirectoryRoom) return std::nullopt;
  std::array<uint8_t, SummedBytes + 8> bytes{};
  try {
    if (readAt(fd, bytes.data(), bytes.size(), 0, "the file") != bytes.size()) return std::nullopt;
  } catch (const Failure&) {
    return std::nullopt;
  }
  std::optional<Directory> directory = decodeDirectory(bytes.data(), bytes.size());
  if (!directory || get(&bytes[SummedBytes], 8) != bytesChecksum(bytes.data(), SummedBytes) ||
      directory->fileBytes != fileBytes) {
    return std::nullopt;
  }
  struct stat status {};
  if (fstat(fd, &status) != 0 || directory->modifiedSeconds != status.st_mtim.tv_sec ||
      directory->modifiedNanoseconds != status.st_mtim.tv_nsec) {
    return std::nullopt;
  }
  for (const Place& place : directory->places) {
    const bool inside =
        place.bytes == 0 || (place.offset >= DirectoryRoom && place.offset <= fileBytes &&
                             place.bytes <= fileBytes - place.offset);
    if (!inside) return std::nullopt;
  }
  return directory;
}

template <class T>
std::optional<std::vector<T>> readRun(int fd, const Directory& directory, Run run, bool verify) {
  const Place& place = directory[run];
  if (place.bytes % sizeof(T) != 0) return std::nullopt;
  std::vector<T> values(place.bytes / sizeof(T));
  try {
    if (place.bytes > 0 &&
        readAt(fd, values.data(), place.bytes, place.offset, "the file") != place.bytes) {
      return std::nullopt;
    }
  } catch (const Failure&) {
    return std::nullopt;
  }
  if (verify && place.bytes > 0 && bytesChecksum(values.data(), place.bytes) != place.checksum) {
    return std::nullopt;
  }
  return values;
}

template std::optional<std::vector<double>> readRun<double>(int, const Directory&, Run, bool);
template std::optional<std::vector<int64_t>> readRun<int64_t>(int, const Directory&, Run, bool);
template std::optional<std::vector<uint64_t>> readRun<uint64_t>(int, const Directory&, Run, bool);
template std::optional<std::vector<uint8_t>> readRun<uint8_t>(int, const Directory&, Run, bool);

}  // namespace Quaril::H5::detail
