#include "formats/hdf5/detail/Hdf5.hpp"

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "formats/hdf5/detail/Codecs.hpp"
#include "formats/hdf5/detail/Files.hpp"

// The bytes of arrays past libhdf5: the file's own descriptor, the guard of
// its global heaps, and arrays read straight from where libhdf5 placed them
// (contiguous, or one compressed chunk). Part of the Hdf5 room, in a file of
// its own beside the wrappers of the calls.

namespace Quaril::H5::detail {

RawFile rawFileOf(hid_t file, uint64_t bytes) {
  PropertyList access(H5Fget_access_plist(file), "cannot read a file's settings");
  void* handle = nullptr;
  // Only the default driver keeps the file in one descriptor of its own.
  if (H5Pget_driver(access.id()) != H5FD_SEC2 ||
      H5Fget_vfd_handle(file, H5P_DEFAULT, &handle) < 0 || handle == nullptr) {
    H5Eclear2(H5E_DEFAULT);
    return {};
  }
  return {*static_cast<int*>(handle), handle, bytes};
}

namespace {

/// `count` bytes of `raw` from `offset` on (fewer at its end).
std::vector<uint8_t> rawBytes(const RawFile& raw, uint64_t offset, uint64_t count) {
  std::vector<uint8_t> bytes(count);
  bytes.resize(readAt(raw.descriptor, bytes.data(), count, offset, "the file"));
  return bytes;
}

uint64_t littleEndian(const uint8_t* bytes, size_t size) {
  uint64_t value = 0;
  for (size_t i = size; i-- > 0;) value = (value << 8) | bytes[i];
  return value;
}

/// Walks the objects of the collection `heap` (its header first) as
/// libhdf5 does, and fails where one would not step forward or would run
/// past its end.
void walkCollection(const std::vector<uint8_t>& heap, uint64_t at) {
  constexpr size_t HeaderBytes = 16, ObjectHeaderBytes = 16;
  const auto fail = [at](const std::string& problem) {
    throw Failure("a damaged global heap (the collection at byte " + std::to_string(at) +
                  "): " + problem);
  };
  for (size_t p = HeaderBytes; p + ObjectHeaderBytes <= heap.size();) {
    const uint64_t index = littleEndian(&heap[p], 2);
    const uint64_t size = littleEndian(&heap[p + 8], 8);
    const uint64_t left = heap.size() - p;
    if (index == 0) {  // the free space, its header included, to the end
      if (size < ObjectHeaderBytes || size > left) fail("its free space does not fit it");
      return;
    }
    const uint64_t need = ObjectHeaderBytes + ((size + 7) / 8) * 8;
    if (size > left || need > left) fail("object " + std::to_string(index) + " runs past its end");
    p += need;
  }
}

}  // namespace

void checkGlobalHeaps(const RawFile& raw) {
  if (raw.descriptor < 0) return;
  constexpr uint64_t Window = 64 * 1024, LargestCollection = uint64_t{1} << 26;
  // Not zeroed first, and searched with memmem: this runs on every open.
  std::unique_ptr<uint8_t[]> bytes(new uint8_t[Window]);
  const size_t held =
      readAt(raw.descriptor, bytes.get(), std::min<uint64_t>(raw.bytes, Window), 0, "the file");
  const uint8_t* const head = bytes.get();
  static constexpr char Signature[] = {'G', 'C', 'O', 'L'};
  for (const void* found = memmem(head, held, Signature, sizeof(Signature)); found;) {
    const uint64_t at = static_cast<uint64_t>(static_cast<const uint8_t*>(found) - head);
    found = memmem(head + at + 1, held - at - 1, Signature, sizeof(Signature));
    const std::vector<uint8_t> header = rawBytes(raw, at, 16);
    if (header.size() < 16 || header[4] != 1) continue;  // not a collection of version 1
    const uint64_t size = littleEndian(&header[8], 8);
    if (size < 16 || size > raw.bytes - at || size > LargestCollection) continue;
    walkCollection(rawBytes(raw, at, size), at);
  }
}

namespace {
/// Whether the dataset's values are stored as `memoryType` has them.
bool storedAs(hid_t dataset, hid_t memoryType) {
  Datatype stored = datasetType(dataset);
  return H5Tequal(stored.id(), memoryType) > 0;
}

/// Whether the dataset lies in `raw`'s open file (not behind an external
/// link): the driver's handle is the file's identity. Where libhdf5 cannot
/// say, it does not.
bool inFileOf(hid_t dataset, const RawFile& raw) {
  Owned<H5Fclose> file(H5Iget_file_id(dataset), "cannot find the file of a dataset");
  void* handle = nullptr;
  if (H5Fget_vfd_handle(file.id(), H5P_DEFAULT, &handle) < 0) {
    H5Eclear2(H5E_DEFAULT);
    return false;
  }
  return handle == raw.handle;
}

/// Where the dataset's `bytes` bytes start in `raw` when they lie there as
/// `memoryType` stores them: contiguous, written, and in that file (not
/// behind an external link, nor in an external raw file).
std::optional<uint64_t> rawOffset(hid_t dataset, hid_t memoryType, uint64_t bytes,
                                  const RawFile& raw) {
  if (raw.descriptor < 0) return std::nullopt;
  const std::optional<uint64_t> offset = contiguousPlace(dataset, memoryType, bytes);
  if (!offset || !inFileOf(dataset, raw)) return std::nullopt;
  return offset;
}
}  // namespace

std::optional<uint64_t> contiguousPlace(hid_t dataset, hid_t memoryType, uint64_t bytes) {
  const haddr_t offset = H5Dget_offset(dataset);
  H5Eclear2(H5E_DEFAULT);  // libhdf5's answer for a chunked or unwritten dataset
  if (bytes == 0 || offset == HADDR_UNDEF || H5Dget_storage_size(dataset) != bytes ||
      !storedAs(dataset, memoryType)) {
    return std::nullopt;
  }
  return offset;
}

std::optional<WholeChunk> wholeChunk(hid_t dataset, hid_t memoryType, uint64_t bytes,
                                     const RawFile& raw) {
  if (raw.descriptor < 0 || bytes == 0) return std::nullopt;
  PropertyList create(H5Dget_create_plist(dataset), "cannot read a dataset's settings");
  if (H5Pget_layout(create.id()) != H5D_CHUNKED) return std::nullopt;
  // One chunk as large as the dataset.
  const std::vector<hsize_t> extents = datasetExtents(dataset);
  std::vector<hsize_t> chunk(extents.size());
  if (H5Pget_chunk(create.id(), static_cast<int>(chunk.size()), chunk.data()) !=
          static_cast<int>(chunk.size()) ||
      chunk != extents) {
    return std::nullopt;
  }
  WholeChunk whole;
  const int filters = H5Pget_nfilters(create.id());
  for (int i = 0; i < filters; ++i) {
    unsigned flags = 0, config = 0;
    size_t count = 0;
    const H5Z_filter_t filter = H5Pget_filter2(create.id(), static_cast<unsigned>(i), &flags,
                                               &count, nullptr, 0, nullptr, &config);
    const bool last = i == filters - 1;
    if (filter == H5Z_FILTER_SHUFFLE && i == 0 && !last) {
      whole.shuffledBytes = H5Tget_size(memoryType);
    } else if ((filter == ZstdFilter || filter == Lz4Filter) && last) {
      whole.codec = static_cast<unsigned>(filter);
    } else {
      return std::nullopt;
    }
  }
  if (whole.codec == 0 || !storedAs(dataset, memoryType) || !inFileOf(dataset, raw)) {
    return std::nullopt;
  }
  // Chunk addresses count from HDF5's start, after the user block.
  Owned<H5Fclose> file(H5Iget_file_id(dataset), "cannot find the file of a dataset");
  PropertyList fileSettings(H5Fget_create_plist(file.id()), "cannot read a file's settings");
  hsize_t userBlock = 0;
  check(H5Pget_userblock(fileSettings.id(), &userBlock), "cannot read a file's settings");
  unsigned mask = 0;
  haddr_t address = HADDR_UNDEF;
  hsize_t size = 0;
  std::vector<hsize_t> origin(extents.size());
  Dataspace space(H5Dget_space(dataset), "cannot read the extents of a dataset");
  if (H5Dget_chunk_info(dataset, space.id(), 0, origin.data(), &mask, &address, &size) < 0 ||
      mask != 0 || address == HADDR_UNDEF || userBlock > raw.bytes ||
      address > raw.bytes - userBlock || size > raw.bytes - userBlock - address) {
    H5Eclear2(H5E_DEFAULT);
    return std::nullopt;
  }
  address += userBlock;
  whole.offset = address;
  whole.size = size;
  return whole;
}

void readWholeChunk(const WholeChunk& chunk, const RawFile& raw, void* data, uint64_t bytes) {
  std::vector<uint8_t> packed(chunk.size);
  require(readAt(raw.descriptor, packed.data(), packed.size(), chunk.offset, "its chunk") ==
              packed.size(),
          "cannot read its chunk: the file ends within it");
  const std::vector<uint8_t> plain = chunk.codec == ZstdFilter
                                         ? zstdDecompress(packed.data(), packed.size(), bytes)
                                         : lz4Decompress(packed.data(), packed.size(), bytes);
  require(plain.size() == bytes, "its chunk does not decode to the array's size");
  if (chunk.shuffledBytes > 0) {
    unshuffle(plain.data(), bytes, chunk.shuffledBytes, static_cast<uint8_t*>(data));
  } else {
    std::memcpy(data, plain.data(), bytes);
  }
}

void writeWholeChunk(hid_t dataset, const std::vector<uint8_t>& bytes, std::string_view what) {
  const std::vector<hsize_t> origin(datasetExtents(dataset).size(), 0);
  check(H5Dwrite_chunk(dataset, H5P_DEFAULT, 0, origin.data(), bytes.size(), bytes.data()),
        "cannot write " + std::string(what));
}

bool readWhole(hid_t dataset, hid_t memoryType, void* data, uint64_t bytes, const RawFile& raw,
               std::string_view what, const BytesRead& read) {
  const std::optional<uint64_t> offset = rawOffset(dataset, memoryType, bytes, raw);
  if (!offset) {
    readDataset(dataset, memoryType, data, what);
    return false;
  }
  readStretches(raw.descriptor, raw.bytes, *offset, data, bytes, what, read);
  return true;
}

void readStretches(int fd, uint64_t fileBytes, uint64_t offset, void* data, uint64_t bytes,
                   std::string_view what, const BytesRead& read) {
  const auto endsWithin = [&] {
    return "cannot read " + std::string(what) + ": the file ends within it";
  };
  require(offset <= fileBytes && bytes <= fileBytes - offset, endsWithin);
  // Stretches that stay in the cache until `read` has seen them.
  constexpr uint64_t Stretch = uint64_t{256} << 10;
  auto* into = static_cast<unsigned char*>(data);
  for (uint64_t done = 0; done < bytes;) {
    const uint64_t size = read ? std::min(Stretch, bytes - done) : bytes;
    require(readAt(fd, into + done, size, offset + done, what) == size, endsWithin);
    if (read) read(into + done, size);
    done += size;
  }
}

}  // namespace Quaril::H5::detail
