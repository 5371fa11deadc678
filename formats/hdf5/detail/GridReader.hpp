#pragma once
// One grid of a file of the format built from its entry's structure: its
// skeletons, representations and fields, with creators that read each
// fragment's array on the first request for it (straight from the file when
// it lies there contiguously, through HDF5 otherwise).

#include <cstdint>
#include <memory>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/detail/Source.hpp"

namespace Quaril::H5::detail {

/// The fields and arrays that a slice's readers made.
struct Made {
  std::vector<Ostrak::StrongPtr<Field>> fields;
  std::vector<Ostrak::StrongPtr<CreativeArrayBase>> creators;
};

/// Replaces the attributes of `into` by those of `object`; on a failure
/// `into` keeps the ones it had.
void readAttributes(hid_t object, Ostrak::Attributes& into);

/// Builds the grid of entry `entry` of `source` (opened through `part`) into
/// `grid`, the grid `id` at `time`; a partial entry adds to what `grid` holds.
/// `progress`, when it is a BundleLoaderProgress or a FragmentChoice, is
/// asked before each field and fragment is made. The fields and creators made
/// are added to `made` once the grid is complete. Reads the structure and the
/// grid's attributes, no array. Throws Failure.
void readGrid(const std::shared_ptr<PartSource>& part, Source& source, uint64_t entry, Grid& grid,
              const Ostrak::StrongPtr<GridID>& id, double time,
              const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress, Made& made);

}  // namespace Quaril::H5::detail
