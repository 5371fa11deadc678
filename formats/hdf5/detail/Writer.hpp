#pragma once
// Writing a bundle, or some of its grids, to a file of the format.

#include <string>

#include "bundle/Bundle.hpp"
#include "bundle/StorageTransformations.hpp"
#include "ostrak/Loader.hpp"
#include "ostrak/StringList.hpp"

namespace Quaril::H5::detail {

/// What a save takes besides the bundle and the file name.
struct WriteRequest {
  /// The saving policy; null: the defaults of a plain StorageTransformations.
  Ostrak::StrongPtr<StorageTransformations> transformations;
  /// Told of the progress per grid; may be null.
  Ostrak::StrongPtr<Ostrak::LoaderProgress> progress;
  /// The grids to write; null: all.
  Ostrak::StrongPtr<Ostrak::StringList> gridNames;
};

/// Writes `bundle` to `path`: into a new file beside it, flushed to disk and
/// renamed over `path` only when everything was written. Pending slices are
/// loaded; data read for the save only are dropped again. Throws Failure (or
/// whatever a hook throws) with nothing left behind and `path` untouched.
void writeBundle(const Bundle& bundle, const std::string& path, const WriteRequest& request);

}  // namespace Quaril::H5::detail
