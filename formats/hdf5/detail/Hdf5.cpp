#include "formats/hdf5/detail/Hdf5.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <type_traits>

#include "formats/hdf5/detail/Codecs.hpp"

namespace Quaril::H5::detail {

namespace {

std::recursive_mutex& callMutex() {
  static std::recursive_mutex mutex;
  return mutex;
}

/// The outermost and innermost descriptions on HDF5's error stack, then
/// clears it.
std::string takeErrorStack() {
  std::vector<std::string> messages;
  H5Ewalk2(
      H5E_DEFAULT, H5E_WALK_UPWARD,
      [](unsigned, const H5E_error2_t* error, void* data) -> herr_t {
        auto* list = static_cast<std::vector<std::string>*>(data);
        if (error->desc && *error->desc) list->push_back(error->desc);
        return 0;
      },
      &messages);
  H5Eclear2(H5E_DEFAULT);
  if (messages.empty()) return "";
  if (messages.size() == 1 || messages.front() == messages.back()) return messages.front();
  return messages.back() + " (" + messages.front() + ")";
}

template <class T>
constexpr bool isFloat = std::is_floating_point_v<T>;

hsize_t elementCount(const std::vector<hsize_t>& dims) {
  hsize_t count = 1;
  for (hsize_t extent : dims) {
    if (extent != 0 && count > std::numeric_limits<hsize_t>::max() / extent) {
      throw Failure("extents overflow");
    }
    count *= extent;
  }
  return count;
}

}  // namespace

namespace {

/// Closes libhdf5 at the end of the process, before its own handler would,
/// with standard error pointed away: after a file that libhdf5 itself
/// failed to close (a damaged object header), it prints "infinite loop
/// closing library" and a list of its interfaces there otherwise.
void closeQuietlyAtExit() {
  std::fflush(stderr);
  const int saved = dup(2);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (saved >= 0 && nowhere >= 0) dup2(nowhere, 2);
  H5close();
  if (saved >= 0) {
    dup2(saved, 2);
    close(saved);
  }
  if (nowhere >= 0) close(nowhere);
}

}  // namespace

namespace {

/// Registers the codecs with libhdf5 under their filters' numbers, so that
/// every read and write of this process, ours or not, runs them.
bool registerCodecs() {
  return H5Zregister(&zstdFilterClass()) >= 0 && H5Zregister(&lz4FilterClass()) >= 0;
}

}  // namespace

Session::Session() : lock_(callMutex()) {
  // Registered after libhdf5's own handler, so that it runs first.
  static const bool closesQuietly = H5open() >= 0 && std::atexit(closeQuietlyAtExit) == 0;
  (void)closesQuietly;
  static const bool codecs = registerCodecs();
  (void)codecs;
  H5Eget_auto2(H5E_DEFAULT, &savedPrinter_, &savedData_);
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
}

Session::~Session() {
  H5Eset_auto2(H5E_DEFAULT, savedPrinter_, savedData_);
}

template <class Result>
Result check(Result result, std::string_view what) {
  if (result < 0) {
    std::string reason = takeErrorStack();
    throw Failure(reason.empty() ? std::string(what) : std::string(what) + ": " + reason);
  }
  return result;
}
template herr_t check<herr_t>(herr_t, std::string_view);
template hid_t check<hid_t>(hid_t, std::string_view);
template hssize_t check<hssize_t>(hssize_t, std::string_view);

// ---- files -------------------------------------------------------------------

namespace {
PropertyList fileAccess() {
  PropertyList access(H5Pcreate(H5P_FILE_ACCESS), "file access settings");
  // The 1.8 object format at least: compact groups and attributes, which
  // keep files of many small time steps small and quick to write.
  check(H5Pset_libver_bounds(access.id(), H5F_LIBVER_V18, H5F_LIBVER_LATEST), "file format bounds");
  return access;
}
}  // namespace

File createFile(const std::string& path, uint64_t userBlock) {
  PropertyList access = fileAccess();
  PropertyList create(H5Pcreate(H5P_FILE_CREATE), "file settings");
  if (userBlock > 0) check(H5Pset_userblock(create.id(), userBlock), "file settings");
  return File(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, create.id(), access.id()),
              "cannot create " + path);
}

File openFileForWriting(const std::string& path) {
  PropertyList access = fileAccess();
  return File(H5Fopen(path.c_str(), H5F_ACC_RDWR, access.id()), "cannot open " + path);
}

File openFile(const std::string& path, const std::string& shownAs) {
  return File(H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT),
              "cannot open " + (shownAs.empty() ? path : shownAs));
}

bool looksLikeHdf5(int fd, uint64_t bytes) {
  static const std::array<char, 8> signature{'\211', 'H', 'D', 'F', '\r', '\n', '\032', '\n'};
  // The signature sits at 0 or, after a user block, at 512, 1024, 2048, ...
  for (uint64_t offset = 0; offset + 8 <= bytes; offset = offset ? offset * 2 : 512) {
    std::array<char, 8> head{};
    if (pread(fd, head.data(), head.size(), static_cast<off_t>(offset)) !=
        static_cast<ssize_t>(head.size())) {
      return false;
    }
    if (head == signature) return true;
  }
  return false;
}

bool looksLikeHdf5(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat status {};
  const bool found =
      fstat(fd, &status) == 0 && looksLikeHdf5(fd, static_cast<uint64_t>(status.st_size));
  ::close(fd);
  return found;
}

// ---- groups and links ----------------------------------------------------------

Group createGroup(hid_t parent, const std::string& name) {
  PropertyList create(H5Pcreate(H5P_GROUP_CREATE), "group settings");
  // No time stamps: equal bundles give equal files, and headers stay small.
  check(H5Pset_obj_track_times(create.id(), false), "group settings");
  return Group(H5Gcreate2(parent, name.c_str(), H5P_DEFAULT, create.id(), H5P_DEFAULT),
               "cannot create group \"" + name + "\"");
}

namespace {
/// Opens the object `name` of `parent` with `open`, which fails for objects
/// of another kind than `kind`; the failure says which it was.
hid_t openObject(hid_t (*open)(hid_t, const char*, hid_t), hid_t parent, const std::string& name,
                 const std::string& kind) {
  hid_t id = open(parent, name.c_str(), H5P_DEFAULT);
  if (id >= 0) return id;
  std::string reason = takeErrorStack();
  const htri_t exists = H5Lexists(parent, name.c_str(), H5P_DEFAULT);
  H5Eclear2(H5E_DEFAULT);
  require(exists > 0, kind + " \"" + name + "\" is missing");
  H5O_info_t info{};
  if (H5Oget_info_by_name2(parent, name.c_str(), &info, H5O_INFO_BASIC, H5P_DEFAULT) >= 0) {
    const H5O_type_t expected = kind == "group" ? H5O_TYPE_GROUP : H5O_TYPE_DATASET;
    require(info.type == expected, "\"" + name + "\" is not a " + kind);
  }
  H5Eclear2(H5E_DEFAULT);
  throw Failure("cannot open " + kind + " \"" + name + "\": " + reason);
}
}  // namespace

Group openGroup(hid_t parent, const std::string& name) {
  return Group(openObject(H5Gopen2, parent, name, "group"), "open a group");
}

Group openOrCreateGroup(hid_t parent, const std::string& name) {
  return linkExists(parent, name) ? openGroup(parent, name) : createGroup(parent, name);
}

void removeLink(hid_t parent, const std::string& name) {
  if (linkExists(parent, name)) {
    check(H5Ldelete(parent, name.c_str(), H5P_DEFAULT), "cannot remove \"" + name + "\"");
  }
}

namespace {
/// An iteration callback that appends each name to the vector behind `data`.
template <class Info>
herr_t collectName(hid_t, const char* name, const Info*, void* data) {
  static_cast<std::vector<std::string>*>(data)->push_back(name);
  return 0;
}
}  // namespace

std::vector<std::string> linkNames(hid_t group) {
  std::vector<std::string> names;
  check(H5Literate(group, H5_INDEX_NAME, H5_ITER_INC, nullptr, collectName<H5L_info_t>, &names),
        "cannot list a group");
  return names;
}

bool linkExists(hid_t parent, const std::string& name) {
  return check(H5Lexists(parent, name.c_str(), H5P_DEFAULT), "cannot look up \"" + name + "\"") > 0;
}

void linkExternal(hid_t parent, const std::string& name, const std::string& file,
                  const std::string& path) {
  check(H5Lcreate_external(file.c_str(), path.c_str(), parent, name.c_str(), H5P_DEFAULT,
                           H5P_DEFAULT),
        "cannot link \"" + name + "\" to " + file);
}

// ---- datatypes -----------------------------------------------------------------

Datatype copyType(hid_t predefined) {
  return Datatype(H5Tcopy(predefined), "cannot copy a type");
}

Datatype stringType() {
  Datatype type = copyType(H5T_C_S1);
  check(H5Tset_size(type.id(), H5T_VARIABLE), "cannot make a string type");
  check(H5Tset_cset(type.id(), H5T_CSET_UTF8), "cannot make a string type");
  return type;
}

// ---- datasets ------------------------------------------------------------------

Dataset writeDataset(hid_t parent, const std::string& name, hid_t fileType, hid_t memoryType,
                     const std::vector<hsize_t>& dims, const void* data, const Storage& storage) {
  Dataspace space(H5Screate_simple(static_cast<int>(dims.size()), dims.data(), nullptr),
                  "cannot describe the extents of \"" + name + "\"");
  PropertyList create(H5Pcreate(H5P_DATASET_CREATE), "dataset settings");
  if (!storage.chunk.empty()) {
    check(H5Pset_chunk(create.id(), static_cast<int>(storage.chunk.size()), storage.chunk.data()),
          "cannot chunk \"" + name + "\"");
    if (storage.shuffle) check(H5Pset_shuffle(create.id()), "cannot shuffle \"" + name + "\"");
    if (storage.deflate >= 0) {
      check(H5Pset_deflate(create.id(), static_cast<unsigned>(storage.deflate)),
            "cannot compress \"" + name + "\"");
    }
    if (storage.zstd >= 0) {
      const unsigned level = static_cast<unsigned>(storage.zstd);
      check(H5Pset_filter(create.id(), ZstdFilter, H5Z_FLAG_MANDATORY, 1, &level),
            "cannot compress \"" + name + "\"");
    }
    if (storage.lz4) {
      const unsigned blockBytes = 0;  // the filter's default: one block per chunk
      check(H5Pset_filter(create.id(), Lz4Filter, H5Z_FLAG_MANDATORY, 1, &blockBytes),
            "cannot compress \"" + name + "\"");
    }
  }
  // Nothing to fill: every dataset is written whole right away.
  check(H5Pset_fill_time(create.id(), H5D_FILL_TIME_NEVER), "dataset settings");
  check(H5Pset_obj_track_times(create.id(), false), "dataset settings");
  Dataset dataset(
      H5Dcreate2(parent, name.c_str(), fileType, space.id(), H5P_DEFAULT, create.id(), H5P_DEFAULT),
      "cannot create dataset \"" + name + "\"");
  if (data && elementCount(dims) > 0) {
    check(H5Dwrite(dataset.id(), memoryType, H5S_ALL, H5S_ALL, H5P_DEFAULT, data),
          "cannot write \"" + name + "\"");
  }
  return dataset;
}

Dataset openDataset(hid_t parent, const std::string& name) {
  return Dataset(openObject(H5Dopen2, parent, name, "dataset"), "open a dataset");
}

std::vector<hsize_t> datasetExtents(hid_t dataset) {
  Dataspace space(H5Dget_space(dataset), "cannot read the extents of a dataset");
  H5S_class_t kind = H5Sget_simple_extent_type(space.id());
  if (kind == H5S_SCALAR) return {};
  require(kind == H5S_SIMPLE, "a dataset has no extents");
  int rank = check(H5Sget_simple_extent_ndims(space.id()), "cannot read the rank of a dataset");
  std::vector<hsize_t> dims(static_cast<size_t>(rank));
  check(H5Sget_simple_extent_dims(space.id(), dims.data(), nullptr),
        "cannot read the extents of a dataset");
  return dims;
}

Datatype datasetType(hid_t dataset) {
  return Datatype(H5Dget_type(dataset), "cannot read the type of a dataset");
}

void readDataset(hid_t dataset, hid_t memoryType, void* data, std::string_view what) {
  if (H5Dread(dataset, memoryType, H5S_ALL, H5S_ALL, H5P_DEFAULT, data) < 0) {
    check(-1, "cannot read " + std::string(what));
  }
}

void readBox(hid_t dataset, hid_t memoryType, const std::vector<hsize_t>& start,
             const std::vector<hsize_t>& extent, void* data, std::string_view what) {
  const std::string named(what);
  Dataspace file(H5Dget_space(dataset), "cannot read " + named);
  check(
      H5Sselect_hyperslab(file.id(), H5S_SELECT_SET, start.data(), nullptr, extent.data(), nullptr),
      "cannot select a region of " + named);
  Dataspace memory(H5Screate_simple(static_cast<int>(extent.size()), extent.data(), nullptr),
                   "cannot read " + named);
  check(H5Dread(dataset, memoryType, memory.id(), file.id(), H5P_DEFAULT, data),
        "cannot read a region of " + named);
}

std::vector<uint8_t> readBytes(hid_t dataset, uint64_t begin, uint64_t count,
                               const std::string& what) {
  std::vector<uint8_t> bytes(count);
  if (count == 0) return bytes;
  Dataspace file(H5Dget_space(dataset), "cannot read " + what);
  const hsize_t start = begin, extent = count;
  check(H5Sselect_hyperslab(file.id(), H5S_SELECT_SET, &start, nullptr, &extent, nullptr),
        "cannot select " + what);
  Dataspace memory(H5Screate_simple(1, &extent, nullptr), "cannot read " + what);
  check(H5Dread(dataset, H5T_NATIVE_UINT8, memory.id(), file.id(), H5P_DEFAULT, bytes.data()),
        "cannot read " + what);
  return bytes;
}

template <class T>
std::vector<T> readVector(hid_t parent, const std::string& name, size_t expectedColumns) {
  Dataset dataset = openDataset(parent, name);
  std::vector<hsize_t> dims = datasetExtents(dataset.id());
  const size_t rank = expectedColumns ? 2 : 1;
  require(dims.size() == rank, "\"" + name + "\" has rank " + std::to_string(dims.size()) +
                                   ", expected " + std::to_string(rank));
  if (expectedColumns) {
    require(dims[1] == expectedColumns, "\"" + name + "\" has " + std::to_string(dims[1]) +
                                            " columns, expected " +
                                            std::to_string(expectedColumns));
  }
  Datatype type = datasetType(dataset.id());
  const H5T_class_t typeClass = H5Tget_class(type.id());
  require(typeClass == (isFloat<T> ? H5T_FLOAT : H5T_INTEGER),
          "\"" + name + "\" holds " + (typeClass == H5T_FLOAT ? "floating-point" : "other") +
              " values, expected " + (isFloat<T> ? "floating-point" : "integer") + " values");
  const hsize_t count = elementCount(dims);
  require(count <= static_cast<hsize_t>(H5Dget_storage_size(dataset.id())),
          "\"" + name + "\" claims more values than it stores");
  std::vector<T> values(static_cast<size_t>(count));
  if (count > 0) readDataset(dataset.id(), nativeType<T>(), values.data(), "\"" + name + "\"");
  return values;
}

template <class T>
Dataset writeVector(hid_t parent, const std::string& name, const std::vector<T>& values,
                    size_t columns, bool withData) {
  std::vector<hsize_t> dims{columns ? values.size() / columns : values.size()};
  if (columns) dims.push_back(columns);
  return writeDataset(parent, name, nativeType<T>(), nativeType<T>(), dims,
                      withData ? values.data() : nullptr);
}

template std::vector<double> readVector<double>(hid_t, const std::string&, size_t);
template std::vector<int64_t> readVector<int64_t>(hid_t, const std::string&, size_t);
template std::vector<uint64_t> readVector<uint64_t>(hid_t, const std::string&, size_t);
template std::vector<uint8_t> readVector<uint8_t>(hid_t, const std::string&, size_t);
template Dataset writeVector<double>(hid_t, const std::string&, const std::vector<double>&, size_t,
                                     bool);
template Dataset writeVector<int64_t>(hid_t, const std::string&, const std::vector<int64_t>&,
                                      size_t, bool);
template Dataset writeVector<uint64_t>(hid_t, const std::string&, const std::vector<uint64_t>&,
                                       size_t, bool);
template Dataset writeVector<uint8_t>(hid_t, const std::string&, const std::vector<uint8_t>&,
                                      size_t, bool);

// ---- attributes ----------------------------------------------------------------

bool attributeExists(hid_t object, const std::string& name) {
  return check(H5Aexists(object, name.c_str()), "cannot look up attribute \"" + name + "\"") > 0;
}

void writeAttribute(hid_t object, const std::string& name, hid_t type, const void* data,
                    size_t count, bool scalar) {
  const hsize_t dims[1] = {count};
  Dataspace space(scalar ? H5Screate(H5S_SCALAR) : H5Screate_simple(1, dims, nullptr),
                  "cannot describe attribute \"" + name + "\"");
  Attribute attribute(H5Acreate2(object, name.c_str(), type, space.id(), H5P_DEFAULT, H5P_DEFAULT),
                      "cannot create attribute \"" + name + "\"");
  if (count > 0 || scalar) {
    check(H5Awrite(attribute.id(), type, data), "cannot write attribute \"" + name + "\"");
  }
}

void writeString(hid_t object, const std::string& name, const std::string& text) {
  require(text.find('\0') == std::string::npos,
          "attribute \"" + name + "\": a text with a zero byte cannot be stored");
  const char* pointer = text.c_str();
  writeAttribute(object, name, stringType().id(), &pointer, 1, true);
}

void writeStrings(hid_t object, const std::string& name, const std::vector<std::string>& texts) {
  std::vector<const char*> pointers;
  for (const std::string& text : texts) {
    require(text.find('\0') == std::string::npos,
            "attribute \"" + name + "\": a text with a zero byte cannot be stored");
    pointers.push_back(text.c_str());
  }
  writeAttribute(object, name, stringType().id(), pointers.data(), pointers.size(), false);
}

namespace {
Attribute openAttribute(hid_t object, const std::string& name) {
  hid_t id = H5Aopen(object, name.c_str(), H5P_DEFAULT);
  if (id < 0) {
    std::string reason = takeErrorStack();
    const htri_t exists = H5Aexists(object, name.c_str());
    H5Eclear2(H5E_DEFAULT);
    require(exists > 0, "attribute \"" + name + "\" is missing");
    throw Failure("cannot open attribute \"" + name + "\": " + reason);
  }
  return Attribute(id, "open an attribute");
}

AttributeShape shapeOf(hid_t attribute, const std::string& name) {
  Datatype type(H5Aget_type(attribute), "cannot read the type of \"" + name + "\"");
  Dataspace space(H5Aget_space(attribute), "cannot read the extents of \"" + name + "\"");
  AttributeShape shape;
  shape.typeClass = H5Tget_class(type.id());
  shape.typeSize = H5Tget_size(type.id());
  shape.isVariableString =
      shape.typeClass == H5T_STRING && check(H5Tis_variable_str(type.id()), "string type") > 0;
  shape.characterSet = shape.typeClass == H5T_STRING ? H5Tget_cset(type.id()) : H5T_CSET_ASCII;
  const H5S_class_t kind = H5Sget_simple_extent_type(space.id());
  require(kind == H5S_SCALAR || kind == H5S_SIMPLE, "attribute \"" + name + "\" has no value");
  shape.scalar = kind == H5S_SCALAR;
  if (shape.scalar) {
    shape.count = 1;
  } else {
    require(H5Sget_simple_extent_ndims(space.id()) == 1,
            "attribute \"" + name + "\" is not one-dimensional");
    hsize_t dims[1] = {0};
    check(H5Sget_simple_extent_dims(space.id(), dims, nullptr), "extents of \"" + name + "\"");
    shape.count = dims[0];
  }
  return shape;
}
}  // namespace

AttributeShape attributeShape(hid_t object, const std::string& name) {
  return shapeOf(openAttribute(object, name).id(), name);
}

std::vector<std::string> attributeNames(hid_t object) {
  std::vector<std::string> names;
  check(H5Aiterate2(object, H5_INDEX_NAME, H5_ITER_INC, nullptr, collectName<H5A_info_t>, &names),
        "cannot list attributes");
  return names;
}

std::vector<std::string> readStrings(hid_t object, const std::string& name) {
  Attribute attribute = openAttribute(object, name);
  const AttributeShape shape = shapeOf(attribute.id(), name);
  require(shape.typeClass == H5T_STRING, "attribute \"" + name + "\" is not a text");
  require(shape.count < (1u << 24), "attribute \"" + name + "\" is too long");
  std::vector<std::string> texts;
  if (shape.count == 0) return texts;
  if (shape.isVariableString) {
    std::vector<char*> pointers(static_cast<size_t>(shape.count), nullptr);
    // HDF5 converts no text between character sets: read in the stored one.
    Datatype type = stringType();
    check(H5Tset_cset(type.id(), shape.characterSet), "type of \"" + name + "\"");
    check(H5Aread(attribute.id(), type.id(), pointers.data()), "cannot read \"" + name + "\"");
    for (char* pointer : pointers) texts.emplace_back(pointer ? pointer : "");
    Dataspace space(H5Aget_space(attribute.id()), "extents of \"" + name + "\"");
    H5Dvlen_reclaim(type.id(), space.id(), H5P_DEFAULT, pointers.data());
  } else {
    // Fixed-length texts, as other writers make them.
    require(shape.typeSize > 0 && shape.typeSize < (1u << 20),
            "attribute \"" + name + "\" has a bad text size");
    std::vector<char> bytes(static_cast<size_t>(shape.count) * shape.typeSize);
    Datatype type(H5Aget_type(attribute.id()), "type of \"" + name + "\"");
    check(H5Aread(attribute.id(), type.id(), bytes.data()), "cannot read \"" + name + "\"");
    for (size_t i = 0; i < shape.count; ++i) {
      const char* begin = bytes.data() + i * shape.typeSize;
      texts.emplace_back(begin, strnlen(begin, shape.typeSize));
    }
  }
  return texts;
}

std::string readString(hid_t object, const std::string& name) {
  std::vector<std::string> texts = readStrings(object, name);
  require(texts.size() == 1, "attribute \"" + name + "\" is not a single text");
  return texts.front();
}

template <class T>
std::vector<T> readNumbers(hid_t object, const std::string& name, size_t count) {
  Attribute attribute = openAttribute(object, name);
  const AttributeShape shape = shapeOf(attribute.id(), name);
  require(shape.typeClass == H5T_INTEGER || shape.typeClass == H5T_FLOAT,
          "attribute \"" + name + "\" is not a number");
  require(count == 0 || shape.count == count, "attribute \"" + name + "\" holds " +
                                                  std::to_string(shape.count) +
                                                  " values, expected " + std::to_string(count));
  require(shape.count < (1u << 24), "attribute \"" + name + "\" is too long");
  std::vector<T> values(static_cast<size_t>(shape.count));
  if (!values.empty()) {
    check(H5Aread(attribute.id(), nativeType<T>(), values.data()), "cannot read \"" + name + "\"");
  }
  return values;
}

template std::vector<double> readNumbers<double>(hid_t, const std::string&, size_t);
template std::vector<int64_t> readNumbers<int64_t>(hid_t, const std::string&, size_t);
template std::vector<uint64_t> readNumbers<uint64_t>(hid_t, const std::string&, size_t);
template std::vector<int32_t> readNumbers<int32_t>(hid_t, const std::string&, size_t);

}  // namespace Quaril::H5::detail
