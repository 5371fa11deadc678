#pragma once
// Reading everything of a file or series to find what cannot be read: every
// index entry, structure, attribute and array, one array at a time, each
// problem listed with where it is.

#include <string>

#include "formats/hdf5/Options.hpp"
#include "ostrak/Loader.hpp"

namespace Quaril::H5::detail {

/// Checks the file or series `filename`; `progress` (may be null) hears of
/// the progress per grid. Never throws but for allocation failures.
CheckReport checkFile(const std::string& filename,
                      const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress);

}  // namespace Quaril::H5::detail
