#pragma once
// Writing a bundle, or some of its grids, to a file of the format.

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "bundle/Bundle.hpp"
#include "bundle/StorageTransformations.hpp"
#include "formats/hdf5/detail/Hdf5.hpp"
#include "formats/hdf5/detail/Index.hpp"
#include "ostrak/Loader.hpp"
#include "ostrak/StringList.hpp"

namespace Quaril::H5::detail {

/// The part of a bundle that a write takes, for a sync that writes only
/// what is new: these slices, in them these grids, in those these fields.
struct Selection {
  /// A field written whole (read back in place of the field), or only some
  /// of its fragments (read back into the field).
  struct FieldChoice {
    bool partial = false;
    std::unordered_set<const CreativeArrayBase*> fragments;
  };
  std::unordered_set<const Slice*> slices;
  /// Grids written whole (false: read back in place of the grid) or adding
  /// to the grid written before (true).
  std::unordered_map<const Grid*, bool> grids;
  std::unordered_map<const Field*, FieldChoice> fields;
  /// Whose attributes are written (also when there are none any more).
  bool bundleAttributes = false;
  std::unordered_set<const Slice*> sliceAttributes;
  std::unordered_set<const Grid*> gridAttributes;
};

/// What a planned write leaves to its caller instead of writing a file:
/// the arrays with their data and the attributes. The index and structures
/// come through WriteRequest::written and ::structures, as for a write.
struct Plan {
  using Attributes = std::map<std::string, Ostrak::AttributeValue>;
  struct Array {
    uint64_t entry;       ///< its grid's entry row
    std::string dataset;  ///< its name among the entry's arrays
    hid_t fileType;       ///< predefined types, not owned
    hid_t memoryType;
    std::vector<hsize_t> extents;
    Ostrak::StrongPtr<MemBase, Cacheable> data;
    std::optional<std::pair<double, double>> range;
  };
  std::vector<Array> arrays;
  std::map<uint64_t, Attributes> gridAttributes;   ///< by entry row
  std::map<uint64_t, Attributes> sliceAttributes;  ///< by time row
  std::optional<Attributes> bundleAttributes;
  /// Entry rows of grids with fragmented fields, written or not.
  std::set<uint64_t> fragmented;
  /// The policy's isSaved calls, to make once the arrays are written.
  std::vector<std::function<void()>> whenWritten;
};

/// What a save takes besides the bundle and the file name.
struct WriteRequest {
  /// The saving policy; null: the defaults of a plain StorageTransformations.
  Ostrak::StrongPtr<StorageTransformations> transformations;
  /// Told of the progress per grid; may be null.
  Ostrak::StrongPtr<Ostrak::LoaderProgress> progress;
  /// The grids to write; null: all.
  Ostrak::StrongPtr<Ostrak::StringList> gridNames;
  /// Only this part of the bundle; null: all of it.
  const Selection* selection = nullptr;
  /// Receive the index and the structure texts (by row) of the file
  /// written; may be null.
  Index* written = nullptr;
  std::vector<std::string>* structures = nullptr;
  /// Run once the new file is complete, before it replaces the target (what
  /// it throws fails the write), and right after it replaced the target,
  /// before the folder is flushed. May be empty.
  std::function<void()> whenComplete = nullptr;
  std::function<void()> whenReplaced = nullptr;
  /// Plan the write into this instead of writing a file (planBundle).
  Plan* plan = nullptr;
};

/// Writes `bundle` to `path`: into a new file beside it, flushed to disk and
/// renamed over `path` only when everything was written. Pending slices are
/// loaded; data read for the save only are dropped again. Throws Failure (or
/// whatever a hook throws) with nothing left behind and `path` untouched.
void writeBundle(const Bundle& bundle, const std::string& path, const WriteRequest& request);

/// Walks `bundle` as writeBundle would write it to `path`, but writes
/// nothing: fills request.plan (which must be set), request.written and
/// request.structures. Data placed in other files and filters are refused,
/// since the caller writes the arrays as they are.
void planBundle(const Bundle& bundle, const std::string& path, const WriteRequest& request);

/// The root attributes that make a file one of the format.
void writeRoot(hid_t file);
/// Writes `attributes` on `object`.
void writeAttributes(hid_t object, const Plan::Attributes& attributes);
/// Writes the index group of `index` with the structure texts `structures`;
/// without `withData` the data sets are created but not written.
void writeIndexGroup(hid_t file, const Index& index,
                     const std::vector<const std::string*>& structures, bool withData = true);

}  // namespace Quaril::H5::detail
