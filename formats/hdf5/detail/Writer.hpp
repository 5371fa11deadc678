#pragma once
// Writing a file of the format: the HDF5 calls that make the groups, data
// sets and attributes of what the planner (Planner.hpp) decided, and the
// save of a bundle into a new file beside its target, renamed over it.

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/detail/Directory.hpp"
#include "formats/hdf5/detail/Hdf5.hpp"
#include "formats/hdf5/detail/Index.hpp"
#include "formats/hdf5/detail/Planner.hpp"

namespace Quaril::H5::detail {

/// Writes `bundle` to `path`: into a new file beside it, flushed to disk and
/// renamed over `path` only when everything was written. Pending slices are
/// loaded; data read for the save only are dropped again. Throws Failure (or
/// whatever a hook throws) with nothing left behind and `path` untouched.
void writeBundle(const Bundle& bundle, const std::string& path, const WriteRequest& request);

/// The root attributes that make a file one of the format.
void writeRoot(hid_t file);
/// Writes `attributes` on `object`.
void writeAttributes(hid_t object, const Plan::Attributes& attributes);
/// Writes `attributes` as the group `row` of the group `parentName` of
/// `file`, which `parent` holds once opened (created on first use).
void writeAttributeGroup(hid_t file, Group& parent, const char* parentName, uint64_t row,
                         const Plan::Attributes& attributes);
/// Makes the data set `name` of `array` in `parent`, stored as `storage`,
/// with its range attributes, and writes `data` into it (null: nothing).
Dataset writeArrayDataset(hid_t parent, const std::string& name, const Plan::Array& array,
                          const void* data, const Storage& storage);
/// The checksums of arrays, by entry row and data set number.
using ChecksumsByEntry = std::map<uint64_t, std::map<uint64_t, uint64_t>>;
/// Adds the checksums of a file of `entries` entries to its index group,
/// when each entry's data sets are numbered 0, 1, ... with none left out;
/// without `withData` the data sets are created but not written. With
/// `directory`, also the arrays' `places` (numbered alike; where each
/// array's bytes lie, 0: not there as they are in memory), and both are
/// placed in `directory`.
void writeChecksums(hid_t file, const ChecksumsByEntry& checksums, size_t entries,
                    bool withData = true, const ChecksumsByEntry* places = nullptr,
                    Directory* directory = nullptr);

/// Writes the index group of `index` with the structure texts `structures`;
/// without `withData` the data sets are created but not written. With
/// `directory`, its data sets are placed there.
void writeIndexGroup(hid_t file, const Index& index,
                     const std::vector<const std::string*>& structures, bool withData = true,
                     Directory* directory = nullptr);

}  // namespace Quaril::H5::detail
