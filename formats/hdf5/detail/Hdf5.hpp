#pragma once
// The one place where the format calls the HDF5 C library: owners of HDF5
// handles that close on every path, and one wrapper per call family that
// turns a failure into a Failure carrying HDF5's own reason. HDF5 never
// prints its error stack: every entry point of the format opens a Session,
// which switches the printing off for its thread and serialises the calls.

#include <hdf5.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "formats/hdf5/detail/Failure.hpp"

namespace Quaril::H5::detail {

/// Serialises the format's HDF5 calls and keeps HDF5's error printing off
/// for the current thread while it lives. Re-entrant.
class Session {
 public:
  Session();
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

 private:
  std::unique_lock<std::recursive_mutex> lock_;
  H5E_auto2_t savedPrinter_ = nullptr;
  void* savedData_ = nullptr;
};

/// Throws a Failure naming `what` and HDF5's reason when `result` is
/// negative; returns `result` otherwise.
template <class Result>
Result check(Result result, std::string_view what);

/// The native HDF5 type of `T` (not owned).
template <class T>
hid_t nativeType() {
  if constexpr (std::is_same_v<T, double>) return H5T_NATIVE_DOUBLE;
  if constexpr (std::is_same_v<T, int64_t>) return H5T_NATIVE_INT64;
  if constexpr (std::is_same_v<T, uint64_t>) return H5T_NATIVE_UINT64;
  if constexpr (std::is_same_v<T, int32_t>) return H5T_NATIVE_INT32;
  if constexpr (std::is_same_v<T, uint8_t>) return H5T_NATIVE_UINT8;
  static_assert(std::is_same_v<T, double> || std::is_same_v<T, int64_t> ||
                    std::is_same_v<T, uint64_t> || std::is_same_v<T, int32_t> ||
                    std::is_same_v<T, uint8_t>,
                "no native type for T");
}

/// Owner of one HDF5 handle of a kind whose closing function is `Close`.
template <herr_t (*Close)(hid_t)>
class Owned {
 public:
  Owned() noexcept = default;
  /// Takes `id`; a negative id is a failed call, reported as `what`.
  Owned(hid_t id, std::string_view what) : id_(check(id, what)) {}
  ~Owned() { reset(); }
  Owned(Owned&& other) noexcept : id_(other.id_) { other.id_ = H5I_INVALID_HID; }
  Owned& operator=(Owned&& other) noexcept {
    if (this != &other) {
      reset();
      id_ = other.id_;
      other.id_ = H5I_INVALID_HID;
    }
    return *this;
  }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;

  hid_t id() const noexcept { return id_; }
  explicit operator bool() const noexcept { return id_ >= 0; }
  /// Closes now, reporting a failure (closing a file flushes it).
  void close(std::string_view what) {
    hid_t id = id_;
    id_ = H5I_INVALID_HID;
    if (id >= 0) check(Close(id), what);
  }

 private:
  void reset() noexcept {
    if (id_ >= 0) Close(id_);
    id_ = H5I_INVALID_HID;
  }
  hid_t id_ = H5I_INVALID_HID;
};

using File = Owned<H5Fclose>;
using Group = Owned<H5Gclose>;
using Dataset = Owned<H5Dclose>;
using Dataspace = Owned<H5Sclose>;
using Datatype = Owned<H5Tclose>;
using Attribute = Owned<H5Aclose>;
using PropertyList = Owned<H5Pclose>;

// ---- files -------------------------------------------------------------------

/// Creates (truncating) the file `path` with the format's file settings.
/// `userBlock` bytes at its start are left to the caller (0 or a power of
/// two of at least 512).
File createFile(const std::string& path, uint64_t userBlock = 0);
/// Opens `path` for writing.
File openFileForWriting(const std::string& path);
/// Opens `path` read-only; errors name it `shownAs` (by default `path`).
File openFile(const std::string& path, const std::string& shownAs = {});
/// Whether `path` starts with the HDF5 signature (checked without HDF5).
bool looksLikeHdf5(const std::string& path);
/// The same of the open file `fd` of `bytes` bytes.
bool looksLikeHdf5(int fd, uint64_t bytes);

// ---- groups and links ----------------------------------------------------------

Group createGroup(hid_t parent, const std::string& name);
Group openGroup(hid_t parent, const std::string& name);
/// The group `name` in `parent`, created when missing.
Group openOrCreateGroup(hid_t parent, const std::string& name);
bool linkExists(hid_t parent, const std::string& name);
/// Removes the link `name` from `parent` when there is one.
void removeLink(hid_t parent, const std::string& name);
/// The names of the links in `group`, in name order.
std::vector<std::string> linkNames(hid_t group);
/// Makes `name` in `parent` an external link to `path` in the file `file`.
void linkExternal(hid_t parent, const std::string& name, const std::string& file,
                  const std::string& path);

// ---- datatypes -----------------------------------------------------------------

/// A copy of a predefined type, owned.
Datatype copyType(hid_t predefined);
/// The variable-length string type of the format's names and texts.
Datatype stringType();

// ---- datasets ------------------------------------------------------------------

/// Dataset creation settings: chunk extents (empty: contiguous), deflate
/// level (negative: none) and shuffle.
struct Storage {
  std::vector<hsize_t> chunk;
  int deflate = -1;  ///< the level; -1: none
  bool shuffle = false;
  int zstd = -1;  ///< the level; -1: none
  bool lz4 = false;
};

/// Creates `name` of `fileType` and extents `dims` in `parent` and writes
/// `data` (in `memoryType`; null writes nothing).
Dataset writeDataset(hid_t parent, const std::string& name, hid_t fileType, hid_t memoryType,
                     const std::vector<hsize_t>& dims, const void* data,
                     const Storage& storage = {});
Dataset openDataset(hid_t parent, const std::string& name);
/// The extents of a dataset.
std::vector<hsize_t> datasetExtents(hid_t dataset);
/// The stored type of a dataset, owned.
Datatype datasetType(hid_t dataset);
/// Reads the whole dataset into `data` as `memoryType`.
void readDataset(hid_t dataset, hid_t memoryType, void* data, std::string_view what);

/// A file opened with openFile, for reading its datasets past HDF5.
struct RawFile {
  int descriptor = -1;           ///< -1: read through HDF5 only
  const void* handle = nullptr;  ///< HDF5's handle of the open file
  uint64_t bytes = 0;
};
/// The open `file`, of `bytes` bytes.
RawFile rawFileOf(hid_t file, uint64_t bytes);
/// Checks the global heap collections (where variable-length texts live)
/// that begin in the first 64 KiB of `raw`, as those of the root's
/// attributes do: libhdf5 reads a collection whose objects do not step
/// forward in an endless loop. Does nothing for a file not read past HDF5.
/// Throws Failure naming the collection.
void checkGlobalHeaps(const RawFile& raw);

/// Reads the box of `extent` elements per axis from `start` (HDF5's order,
/// slowest first) of `dataset` into `data` as `memoryType`. Throws Failure.
void readBox(hid_t dataset, hid_t memoryType, const std::vector<hsize_t>& start,
             const std::vector<hsize_t>& extent, void* data, std::string_view what);

/// The codecs of Codecs.hpp as libhdf5's chunk filters, under their
/// registered numbers: registered by every Session of this process, and
/// handed to other programs by the plugin libraries (plugins/).
const H5Z_class2_t& zstdFilterClass();
const H5Z_class2_t& lz4FilterClass();

/// Called with each stretch of an array's bytes as soon as it is read, in
/// order, while the stretch is still in the processor's cache.
using BytesRead = std::function<void(const void* data, size_t bytes)>;

/// Reads the whole dataset, of `bytes` bytes, into `data` as `memoryType`.
/// A dataset stored contiguously in `raw` as `memoryType` is read straight
/// from the file, in stretches each handed to `read` (when given): for an
/// array of a few megabytes, HDF5's read path costs as much as building
/// the grid that holds it. Returns whether it was read that way; `read` is
/// not called otherwise.
bool readWhole(hid_t dataset, hid_t memoryType, void* data, uint64_t bytes, const RawFile& raw,
               std::string_view what, const BytesRead& read = {});
/// Where the dataset's `bytes` bytes lie in its file as `memoryType` has
/// them: contiguous, all written, not converted; none otherwise.
std::optional<uint64_t> contiguousPlace(hid_t dataset, hid_t memoryType, uint64_t bytes);

/// An array stored as one chunk through the codecs this format runs itself:
/// its compressed bytes lie at `offset`, `size` bytes long.
struct WholeChunk {
  uint64_t offset = 0;
  uint64_t size = 0;
  unsigned codec = 0;        ///< ZstdFilter or Lz4Filter
  size_t shuffledBytes = 0;  ///< the element size the bytes were shuffled by; 0: not shuffled
};
/// The whole chunk of the dataset, of `bytes` bytes when decoded, when it is
/// stored as one chunk in `raw`'s file in `memoryType`, through zstd or LZ4
/// alone or after the shuffle, every filter applied; none otherwise.
std::optional<WholeChunk> wholeChunk(hid_t dataset, hid_t memoryType, uint64_t bytes,
                                     const RawFile& raw);
/// Reads the whole chunk `chunk` of `raw`'s file and decodes it into the
/// `bytes` bytes at `data`, without libhdf5. Throws Failure when the file
/// ends first or the chunk does not decode to `bytes` bytes.
void readWholeChunk(const WholeChunk& chunk, const RawFile& raw, void* data, uint64_t bytes);

/// Writes `bytes`, the dataset's only chunk with every filter applied, as
/// they are (libhdf5 runs no filter).
void writeWholeChunk(hid_t dataset, const std::vector<uint8_t>& bytes, std::string_view what);

/// Reads the `bytes` bytes at `offset` of the file `fd` of `fileBytes`
/// bytes into `data`, in stretches each handed to `read` (when given).
/// Throws Failure when the file ends first.
void readStretches(int fd, uint64_t fileBytes, uint64_t offset, void* data, uint64_t bytes,
                   std::string_view what, const BytesRead& read = {});

/// `count` bytes from `begin` on of a one-dimensional dataset of bytes.
std::vector<uint8_t> readBytes(hid_t dataset, uint64_t begin, uint64_t count,
                               const std::string& what);

/// A one-dimensional dataset of `T` read whole; its rank, class and size are
/// checked first (`expectedColumns` > 0 asks for a two-dimensional one).
template <class T>
std::vector<T> readVector(hid_t parent, const std::string& name, size_t expectedColumns = 0);
/// Without `withData` the data set is created but not written.
template <class T>
Dataset writeVector(hid_t parent, const std::string& name, const std::vector<T>& values,
                    size_t columns = 0, bool withData = true);

// ---- attributes ----------------------------------------------------------------

bool attributeExists(hid_t object, const std::string& name);
/// Writes a scalar (`count` 0) or one-dimensional attribute of `count`
/// values.
void writeAttribute(hid_t object, const std::string& name, hid_t type, const void* data,
                    size_t count, bool scalar);
void writeString(hid_t object, const std::string& name, const std::string& text);
void writeStrings(hid_t object, const std::string& name, const std::vector<std::string>& texts);
template <class T>
void writeNumbers(hid_t object, const std::string& name, const std::vector<T>& values) {
  writeAttribute(object, name, nativeType<T>(), values.data(), values.size(), false);
}
template <class T>
void writeNumber(hid_t object, const std::string& name, T value) {
  writeAttribute(object, name, nativeType<T>(), &value, 1, true);
}

/// What an attribute holds, as far as the format reads attributes.
struct AttributeShape {
  H5T_class_t typeClass = H5T_NO_CLASS;
  size_t typeSize = 0;
  bool isVariableString = false;
  H5T_cset_t characterSet = H5T_CSET_ASCII;
  bool scalar = true;
  uint64_t count = 0;  ///< number of values
};
AttributeShape attributeShape(hid_t object, const std::string& name);
/// Names of all attributes of `object`, in creation order when tracked.
std::vector<std::string> attributeNames(hid_t object);

std::string readString(hid_t object, const std::string& name);
std::vector<std::string> readStrings(hid_t object, const std::string& name);
/// A numeric attribute of exactly `count` values (0: any number), converted
/// to `T`; a scalar counts as one value.
template <class T>
std::vector<T> readNumbers(hid_t object, const std::string& name, size_t count = 0);
template <class T>
T readNumber(hid_t object, const std::string& name) {
  return readNumbers<T>(object, name, 1)[0];
}

}  // namespace Quaril::H5::detail
