#pragma once
// Reading files of the format into a bundle: the files' indexes on opening
// (Source.hpp) give one slice per time with a loader that reads the slice's
// grids on its first access (GridReader.hpp), whose creators read a
// fragment's data on the first request for it.

#include <memory>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/Options.hpp"
#include "formats/hdf5/detail/Index.hpp"
#include "formats/hdf5/detail/Source.hpp"

namespace Quaril::H5::detail {

class Stored;

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

/// As attachParts with the one file `source`.
void attachSource(Bundle& bundle, const std::shared_ptr<Source>& source,
                  const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress,
                  const std::shared_ptr<Stored>& stored = {});

}  // namespace Quaril::H5::detail
