#pragma once
// One bundle from many MPI ranks, in Quaril::hdf5_mpi (built with
// -DQUARIL_MPI=ON on parallel HDF5):
//
//   // every rank: the same times and grid names, its own fragments
//   Quaril::H5::saveCollectively(MPI_COMM_WORLD, bundle, "run.h5");
//   // every rank: back its own fragments, reading nothing else
//   Quaril::H5::loadCollectively(MPI_COMM_WORLD, mine, "run.h5");
//   // a series written together, one part per sync
//   Quaril::H5::bindCollectively(MPI_COMM_WORLD, bundle, "series.h5");
//   Quaril::H5::syncCollectively(MPI_COMM_WORLD, bundle);
//
// The file is an ordinary file of the format: the serial library, the tool,
// Python and visualisation programs read it like any other. Each function
// is collective: every rank of `comm` calls it, and every rank gets the same
// outcome. A rank that fails makes the call fail on every rank, with that
// rank's reason ("rank N: ..."). docs/parallel.md describes the design.

#include <mpi.h>

#include <string>

#include "formats/hdf5/Format.hpp"

namespace Quaril::H5 {

/// Writes one file from the bundles of all ranks of `comm`. The file holds
/// every rank's slices, grids and fields; a field's fragments are those of
/// all ranks, in rank order. Ranks that hold the same grid at the same time
/// must agree on its skeletons and on the element types of its fields, and
/// their fragments of one field must have distinct names. Attributes are
/// taken from the lowest rank that has them. Rank 0's `filename`,
/// `transformations` and switch of the descriptor count; each rank's
/// `transformations` are asked about its own fragments. Data placed in
/// other files and filters are refused. On failure the file is left as it
/// was on every rank.
Outcome saveCollectively(MPI_Comm comm, const Bundle& bundle, const std::string& filename,
                         const Ostrak::StrongPtr<StorageTransformations>& transformations = {},
                         const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {},
                         const Ostrak::StrongPtr<Ostrak::StringList>& gridNames = {});

/// Binds `bundle` on every rank of `comm` to a new series `filename` that
/// the ranks write together, as bindToNew binds one process: its first part
/// holds what the bundles of all ranks hold now, merged as saveCollectively
/// merges them; whatever `filename` was is replaced once that part is
/// complete. Rank 0's `filename` and switch of the descriptor count; each
/// rank's `transformations` are asked about its own fragments at every sync.
/// continueCollectively goes on with an existing series.
Outcome bindCollectively(MPI_Comm comm, Bundle& bundle, const std::string& filename,
                         const Ostrak::StrongPtr<StorageTransformations>& transformations = {},
                         const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {});

/// Binds `bundle` on every rank of `comm` to the existing series `filename`
/// to go on with it, as bindTo binds one process: a rank whose bundle was
/// loaded from it (loadCollectively) keeps what it loaded, any other takes
/// the fragments FragmentsOfRank(rank, size) gives it, lazily. Then what the
/// bundles hold that the series does not is written as its next part. A part
/// left by a sync that did not complete is removed.
Outcome continueCollectively(MPI_Comm comm, Bundle& bundle, const std::string& filename,
                             const Ostrak::StrongPtr<StorageTransformations>& transformations = {},
                             const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {});

/// Adds one part to the series that `bundle` is bound to by
/// bindCollectively or continueCollectively on the ranks of `comm`, with what the bundles of all
/// ranks hold that the series does not. Only slices that changed since the
/// last sync are looked at. A grid or field that one rank writes whole (new
/// to it, or replaced) is written whole by every rank that holds it, so that
/// no rank's fragments are lost. The part's record is appended to the
/// series only once every rank has written its data and flushed it, so a
/// rank or machine that dies during a sync loses that sync only. Bundle::sync
/// does nothing on such a bundle: it has no other ranks to call on.
Outcome syncCollectively(MPI_Comm comm, const Bundle& bundle);

/// Loads `filename` (a file or a series) into `bundle` on every rank of
/// `comm`, with the fragments `choice` gives this rank; by default those of
/// FragmentsOfRank(rank, size). The load is lazy as always, so a rank reads
/// the index and the data of its own fragments only.
Outcome loadCollectively(MPI_Comm comm, BundlePtr& bundle, const std::string& filename,
                         const Ostrak::StrongPtr<FragmentChoice>& choice = {});

}  // namespace Quaril::H5
