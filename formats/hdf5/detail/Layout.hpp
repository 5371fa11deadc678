#pragma once
// The file layout, shared by the reader and the writer so that the two cannot
// drift apart: names of groups, datasets and attributes, and the mapping of
// element types to HDF5 types. docs/hdf5-layout.md describes the same.

#include <hdf5.h>

#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "field/DynamicSize.hpp"
#include "field/QuarilType.hpp"

namespace Quaril::H5::detail::layout {

// Root: what the file is.
inline constexpr const char* FormatAttribute = "format";
inline constexpr const char* FormatName = "quaril-bundle";
inline constexpr const char* VersionAttribute = "version";  // int32[2]: major, minor
inline constexpr int32_t VersionMajor = 1;
inline constexpr int32_t VersionMinor = 1;  // 1.1: array checksums

// The index, read whole on opening.
inline constexpr const char* IndexGroup = "index";
inline constexpr const char* Times = "times";           // float64[S], ascending, distinct
inline constexpr const char* GridNames = "grid_names";  // uint8[B], the names one after another
inline constexpr const char* GridNameEnds = "grid_name_ends";  // uint64[G], end of each name
inline constexpr const char* GridParents = "grid_parents";     // int64[G], parent row or -1
inline constexpr const char* Entries = "entries";  // int64[E, 3]: time row, grid row, structure row
inline constexpr const char* EntryBytes = "entry_bytes";  // uint64[E], data bytes of the entry
inline constexpr const char* Structures = "structures";   // uint8[C], the JSON texts
inline constexpr const char* StructureEnds = "structure_ends";  // uint64[D], end of each text
inline constexpr size_t EntryColumns = 3;
// Since 1.1, optional: a checksum of every array (Checksum.hpp), entry by
// entry, each entry's in the order of its data set numbers 0, 1, ...
inline constexpr const char* ArrayChecksums = "array_checksums";  // uint64[A]
inline constexpr const char* ChecksumBegins = "checksum_begins";  // uint64[E + 1]: entry e's first
// Optional, for the directory in the user block (Directory.hpp): where each
// checksummed array's bytes lie in the file (0: not as they are in memory),
// and the time rows whose slices carry attributes.
inline constexpr const char* ArrayPlaces = "array_places";            // uint64[A]
inline constexpr const char* AttributedSlices = "attributed_slices";  // uint64[N]

// Contents.
inline constexpr const char* ArraysGroup = "arrays";           // /arrays/<entry row>.<number>
inline constexpr const char* GridsGroup = "grids";             // /grids/<entry row>: its attributes
inline constexpr const char* SlicesGroup = "slices";           // /slices/<time row>: its attributes
inline constexpr const char* BundleAttributes = "attributes";  // the bundle's attributes

// The stored arrays of entry e are the data sets /arrays/<e>.<n>, n = 0, 1, ...
// (one flat group: opening one costs a single lookup). What they are says
// a structure, a JSON text of the index (equal texts are stored once and
// shared by entries); "dataset" names n, "attributes" says that the grid
// has attributes in /grids/<e>:
//   {"attributes"?: true,
//    "skeletons": [{"dimension", "index", "elements", "refinement",
//     "representations": [{"chart", "chart_dimension", "chart_cartesian" |
//                           "skeleton": [dimension, index],
//       "fields": [{"name", "type", "partial"?: true,
//         "fragments": [{"fragment"?, "rank"?, "dataset", "extents"} |
//                       {"fragment"?, "rank"?, "uniform": {"origin", "spacing", "extents"}}]}]}]}]}
inline constexpr const char* HasAttributes = "attributes";
// A field of a later part of a bound series that adds fragments to the field
// read before, instead of replacing it.
inline constexpr const char* Partial = "partial";
inline constexpr const char* Skeletons = "skeletons";
inline constexpr const char* Dimension = "dimension";
inline constexpr const char* SkeletonIndex = "index";
inline constexpr const char* Elements = "elements";
inline constexpr const char* Refinement = "refinement";
inline constexpr const char* Representations = "representations";
inline constexpr const char* Chart = "chart";
inline constexpr const char* ChartDimension = "chart_dimension";
inline constexpr const char* ChartCartesian = "chart_cartesian";
inline constexpr const char* RelativeSkeleton = "skeleton";
inline constexpr const char* Fields = "fields";
inline constexpr const char* FieldName = "name";
inline constexpr const char* ElementType = "type";
inline constexpr const char* Fragments = "fragments";
inline constexpr const char* Fragment = "fragment";
// [rank, ranks]: the rank that wrote the fragment in a collective save or sync.
inline constexpr const char* WriterRank = "rank";
inline constexpr const char* Dataset = "dataset";
inline constexpr const char* Extents = "extents";  // first extent first
inline constexpr const char* Uniform = "uniform";
inline constexpr const char* Origin = "origin";
inline constexpr const char* Spacing = "spacing";
// Optional attributes of a data set.
inline constexpr const char* Minimum = "minimum";  // float64
inline constexpr const char* Maximum = "maximum";  // float64

/// The name of array `number` of entry `row` in the arrays group.
inline std::string arrayName(uint64_t row, const std::string& number) {
  return std::to_string(row) + "." + number;
}
/// The path of the attribute group of entry `row`.
inline std::string gridPath(uint64_t row) {
  return std::string(GridsGroup) + "/" + std::to_string(row);
}
/// The path of the attribute group of time row `row`.
inline std::string slicePath(uint64_t row) {
  return std::string(SlicesGroup) + "/" + std::to_string(row);
}

/// How elements of one type are stored: as `components` values of the
/// native HDF5 type `component` each (a trailing dimension when more than one).
struct StoredType {
  hid_t component = H5I_INVALID_HID;
  int components = 1;
};

/// The stored form of `type`; `component` is invalid for a type that cannot
/// be stored (not arithmetic, or made of components that are not).
StoredType storedType(const QuarilTypeBase& type);

/// HDF5 extents of an array of `size` (first index fastest) of `type`: the
/// extents reversed, and the components last when there are several.
std::vector<hsize_t> fileExtents(const DynamicSize& size, const StoredType& type);

/// The array size of a dataset of `extents` storing `type`; rank 0 when the
/// extents do not fit the type (wrong component count, rank not 1 to 4).
DynamicSize arraySize(const std::vector<hsize_t>& extents, const StoredType& type);

/// In a structure's list of skeletons, representations, fields or fragments,
/// the element that stands for the same thing as `like` (the same dimension
/// and index; chart or skeleton; name); null when there is none.
nlohmann::json* sameSkeleton(nlohmann::json& skeletons, const nlohmann::json& like);
nlohmann::json* sameRepresentation(nlohmann::json& representations, const nlohmann::json& like);
nlohmann::json* sameField(nlohmann::json& fields, const nlohmann::json& like);
nlohmann::json* sameFragment(nlohmann::json& fragments, const nlohmann::json& like);

}  // namespace Quaril::H5::detail::layout
