#pragma once
// One grid of a file of the format built from its entry's structure: its
// skeletons, representations and fields, with creators that read each
// fragment's array on the first request for it (straight from the file when
// it lies there contiguously, through HDF5 otherwise).

#include <cstdint>
#include <memory>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/detail/Problems.hpp"
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

/// Where a grid is read from, and for whom.
struct GridEntry {
  std::shared_ptr<PartSource> part;  ///< the file, as creators open it again
  Source* source;                    ///< the same file, open now
  uint64_t entry;                    ///< the grid's row in the file's index
  Ostrak::StrongPtr<GridID> id;
  double time;
  /// Asked before each field and fragment is made when it is a
  /// BundleLoaderProgress or a FragmentChoice; may be null.
  Ostrak::StrongPtr<Ostrak::LoaderProgress> progress;
  /// Lists the arrays that later fail to be read; may be null. Every
  /// array read is checked against its stored checksum, if it has one.
  std::shared_ptr<ProblemList> problems;
};

/// Builds the grid of `entry` into `grid`; a partial entry adds to what
/// `grid` holds. The fields and creators made are added to `made` once the
/// grid is complete. Reads the structure and the grid's attributes, no
/// array. Throws Failure.
void readGrid(const GridEntry& entry, Grid& grid, Made& made);

}  // namespace Quaril::H5::detail
