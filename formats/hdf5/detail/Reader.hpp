#pragma once
// Reading files of the format into a bundle: the files' indexes on opening
// (Source.hpp) give one slice per time with a loader that reads the slice's
// grids on its first access (GridReader.hpp), whose creators read a
// fragment's data on the first request for it.

#include <memory>
#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/Options.hpp"
#include "formats/hdf5/detail/Index.hpp"
#include "formats/hdf5/detail/Source.hpp"

namespace Quaril::H5::detail {

class Stored;
struct Journal;

/// One file among the files that make a bundle, with what its index says.
struct Part {
  std::shared_ptr<PartSource> source;
  Index index;
};

/// Fills `bundle` from `parts`, later parts adding to and replacing what
/// earlier ones hold: the grid identities now, the bundle's attributes from
/// the last part that has them, and one slice per time with a loader that
/// reads its grids on first access. `progress` (may be null) hears of the
/// progress; when it is a BundleLoaderProgress, it is asked before each
/// slice, grid and field is created. What the loaders read is listed in
/// `stored` (may be null). `damage` found while the parts were opened (a
/// series' journal, see partsOf) joins the bundle's problems.
void attachParts(Bundle& bundle, const std::vector<Part>& parts,
                 const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress,
                 const std::shared_ptr<Stored>& stored, const std::vector<Problem>& damage = {});

/// A file or series opened for loading: a single file, or the parts of a
/// series.
struct Opened {
  std::string path;
  std::vector<Part> parts;
  /// Damage found on opening that did not stop it (a series' journal).
  std::vector<Problem> problems;
  /// A series' journal as read, and the pool its parts open through; null
  /// for a single file.
  std::shared_ptr<Journal> journal;
  std::shared_ptr<PartSource::Pool> pool;
};

/// Opens the file or series `path` and reads its index (a series': its
/// journal and its parts' indexes). Throws Failure naming the problem.
Opened openForLoading(const std::string& path);

/// As attachParts with the one file `source`.
void attachSource(Bundle& bundle, const std::shared_ptr<Source>& source,
                  const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress,
                  const std::shared_ptr<Stored>& stored = {});

}  // namespace Quaril::H5::detail
