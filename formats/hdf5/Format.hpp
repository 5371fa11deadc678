#pragma once
// Bundles in HDF5 files of our own layout (docs/hdf5-layout.md).
//
// After registerFormat(), the bundle library's load, merge, save, saveGrids,
// bindTo and bindToNew work on files named *.h5, *.hdf5 or *.qb.h5:
//
//   Quaril::H5::registerFormat();
//   Quaril::BundlePtr data;
//   data.load("run.h5");                // reads the index; slices load on first access
//   data.save("copy.h5");               // written beside, flushed, renamed over
//
// The functions below do the same and also say why something failed.

#include <list>
#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/Options.hpp"
#include "ostrak/Loader.hpp"
#include "ostrak/StringList.hpp"

namespace Quaril::H5 {

/// Registers the loader and the saver creator of the format with the object
/// core's registries, and the zstd and LZ4 filters (32015, 32004) with
/// libhdf5, so that other code of the process that reads HDF5 files through
/// the same libhdf5 (h5py next to the Python module, say) reads them too.
/// Calling it again does nothing. Bundles made before the first call have no
/// saver of this format attached.
void registerFormat();

/// Loads `filenames` into `bundle` (made when empty) through the registered
/// loaders; the error names the file and the problem.
Outcome load(BundlePtr& bundle, const std::list<std::string>& filenames,
             const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {});

/// Saves `bundle` (only the grids in `gridNames` when given) as a file of
/// this format, whatever the file is called. On failure an existing file is
/// left as it was and no temporary file remains.
Outcome save(const Bundle& bundle, const std::string& filename,
             const Ostrak::StrongPtr<StorageTransformations>& transformations = {},
             const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {},
             const Ostrak::StrongPtr<Ostrak::StringList>& gridNames = {});

/// The outcome of the last sync of `bundle` (Bundle::sync, or the one at
/// binding) with a file of this format; an error when it is not bound to one.
Outcome lastSync(const Bundle& bundle);

/// What of the files `bundle` was loaded from could not be read, so far, in
/// the order it was found: slices are read on first access and arrays on
/// first request, so using more of the bundle may add to it. Empty for a
/// bundle that was read whole, or that holds nothing of a file.
std::vector<Problem> problems(const Bundle& bundle);

/// Reads everything of the file or series `filename` (index, journal, every
/// structure, attribute and array, one array at a time, each dropped after
/// reading) and reports every problem with where it is, not only the first.
/// `progress` hears of the progress per grid. Loads into no bundle.
CheckReport checkFile(const std::string& filename,
                      const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {});

/// As checkFile, and says the first problem found.
Outcome check(const std::string& filename);

/// Writes `filename`.xmf, an XDMF 3 document through which visualisation
/// programs read the bundle file or bound series `filename` in place as a
/// time series (see docs/hdf5-layout.md); saves and syncs write it by
/// themselves unless StorageOptions say otherwise. Replaced atomically.
Outcome writeXdmf(const std::string& filename);

}  // namespace Quaril::H5
