#pragma once
// What a save writes, decided from the bundle and the storage policy before
// any HDF5 call: the grids' entries and structures, the index, every array
// with its data and its storage, and the attributes. The planner hands each
// piece to a PlanSink as it walks the bundle: the file writer (Writer.hpp)
// writes it at once, a Plan keeps it for a collective save.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
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
  /// One array to write, with everything the policy decided for it.
  struct Array {
    uint64_t entry = 0;                ///< its grid's entry row
    std::string dataset;               ///< its name among the entry's arrays
    hid_t fileType = H5I_INVALID_HID;  ///< predefined types, not owned
    hid_t memoryType = H5I_INVALID_HID;
    std::vector<hsize_t> extents;
    Ostrak::StrongPtr<MemBase, Cacheable> data;
    std::optional<std::pair<double, double>> range;
    Storage storage;
    /// The checksum of its values as stored; none when the policy asks for
    /// none.
    std::optional<uint64_t> checksum;
    /// Where the data go when not into the file itself: the file (relative
    /// to the target's folder, or absolute), the name the file's link gives
    /// it, and the data set's path in it. Empty `file`: the file itself.
    struct External {
      std::string file;
      std::string reference;
      std::string inside;
    } external;
    std::string what;  ///< how errors name the array
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
  /// The bound series whose part this write makes: what could not be read
  /// from its own files does not stop the write, since the series keeps it.
  /// Empty: every problem of the bundle stops it, unless the policy skips
  /// damaged parts.
  std::string series = {};
  /// Whether the file and its folder are flushed to disk once it is written.
  bool flush = true;
};

/// What takes the pieces of a write, in the order of the file: once the
/// slices are chosen, `begin`; per grid, its arrays and the policy's isSaved
/// call after each, then its attributes; the bundle's and the slices'
/// attributes; the index last.
class PlanSink {
 public:
  virtual ~PlanSink() = default;
  virtual void begin() = 0;
  virtual void array(Plan::Array array) = 0;
  /// Makes the policy's isSaved call for an array handed over before.
  virtual void saved(std::function<void()> call) = 0;
  /// Entry `entry` is `grid`; said once its arrays are handed over.
  virtual void grid(uint64_t entry, const Grid& grid) = 0;
  virtual void gridAttributes(uint64_t entry, const Plan::Attributes& attributes) = 0;
  virtual void bundleAttributes(const Plan::Attributes& attributes) = 0;
  virtual void sliceAttributes(uint64_t timeRow, const Plan::Attributes& attributes) = 0;
  /// The index of what was handed over, with the structure texts by row.
  virtual void finish(const Index& index, const std::vector<const std::string*>& structures) = 0;
};

/// Throws Failure when the layout version that the policy of `request` asks
/// for cannot be written.
void requireWritableVersion(const WriteRequest& request);

/// Walks `bundle` (the part `request` asks for) as a write to `path` takes
/// it, handing every piece to `sink`, and fills request.written and
/// request.structures. Pending slices are loaded; data read for the write
/// only are dropped again once handed over. Throws Failure, before anything
/// is handed over when the write would lose a part of the bundle that could
/// not be read.
void planWrite(const Bundle& bundle, const std::string& path, const WriteRequest& request,
               PlanSink& sink);

/// Walks `bundle` as writeBundle would write it to `path`, but writes
/// nothing: fills request.plan (which must be set), request.written and
/// request.structures. Data placed in other files and filters are refused,
/// since the caller writes the arrays as they are.
void planBundle(const Bundle& bundle, const std::string& path, const WriteRequest& request);

}  // namespace Quaril::H5::detail
