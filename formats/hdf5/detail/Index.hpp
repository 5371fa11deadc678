#pragma once
// The index of a file of the format as the reader checks it and the writer
// reports it: what a file holds, without its structures and arrays.

#include <cstdint>
#include <string>
#include <vector>

namespace Quaril::H5::detail {

/// One grid of one slice in the index.
struct IndexEntry {
  uint64_t timeRow;
  uint64_t nameRow;
  uint64_t structureRow;
};

/// The index of one file, checked for consistency.
struct Index {
  std::vector<double> times;
  std::vector<std::string> names;
  std::vector<int64_t> parents;
  /// Ordered by time row.
  std::vector<IndexEntry> entries;
  /// Data bytes per entry (0 when the file does not say).
  std::vector<uint64_t> entryBytes;
  /// The entries of time row r are [sliceBegin[r], sliceBegin[r + 1]).
  std::vector<uint64_t> sliceBegin;
  /// Time rows whose slices carry attributes.
  std::vector<bool> sliceAttributes;
  /// Whether the file carries the bundle's attributes.
  bool bundleAttributes = false;
  /// Where each structure text ends in the structures data set.
  std::vector<uint64_t> structureEnds;
};

}  // namespace Quaril::H5::detail
