#pragma once
// A bound series that all ranks of a communicator write together, one part
// per collective sync: the parts are files written as a collective save
// writes them (CollectiveSave.hpp); rank 0 alone holds the journal's end and
// the descriptor. Every function here is collective.

#include <mpi.h>

#include <string>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/Options.hpp"

namespace Quaril::H5::detail {

/// Binds `bundle` to a new series `filename`, or (`existing`) to the
/// existing series `filename`, on every rank of `comm`, and writes what the
/// bundles hold that the series does not. Throws the failure the ranks
/// agreed on.
void bindTogether(MPI_Comm comm, Bundle& bundle, const std::string& filename, bool existing,
                  const Ostrak::StrongPtr<StorageTransformations>& transformations,
                  const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress);

/// Adds one part to the series `bundle` is bound to collectively, and keeps
/// the outcome on the binding for lastSync.
Outcome syncTogether(MPI_Comm comm, const Bundle& bundle);

}  // namespace Quaril::H5::detail
