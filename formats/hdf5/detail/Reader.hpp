#pragma once
// Reading files of the format: the index on opening, a slice's grids on the
// slice's first access, a fragment's data on the first request for it.

#include <memory>
#include <unordered_map>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "bundle/Bundle.hpp"
#include "bundle/LoaderControl.hpp"
#include "formats/hdf5/detail/Hdf5.hpp"

namespace Quaril::H5::detail {

/// One grid of one slice in the index.
struct IndexEntry {
  uint64_t timeRow;
  uint64_t nameRow;
  uint64_t structureRow;
};

/// The index of one file, checked for consistency.
struct Index {
  std::vector<double> times;
  std::vector<std::string> names;
  std::vector<int64_t> parents;
  /// Ordered by time row.
  std::vector<IndexEntry> entries;
  /// Data bytes per entry (0 when the file does not say).
  std::vector<uint64_t> entryBytes;
  /// The entries of time row r are [sliceBegin[r], sliceBegin[r + 1]).
  std::vector<uint64_t> sliceBegin;
  /// Time rows whose slices carry attributes.
  std::vector<bool> sliceAttributes;
  /// Where each structure text ends in the structures data set.
  std::vector<uint64_t> structureEnds;
};

/// One open file of the format, shared by the slice loaders and the data
/// creators made from it; closed when the last of them goes. Used under a
/// Session only.
class Source {
 public:
  /// Opens `path` and reads its index. Throws Failure naming the problem.
  static std::shared_ptr<Source> open(const std::string& path);
  ~Source();

  const std::string& path() const noexcept { return path_; }
  const Index& index() const noexcept { return index_; }
  hid_t file() const noexcept { return file_.id(); }
  /// The group of the stored arrays (invalid in a file without grids).
  hid_t arrays() const noexcept { return arrays_.id(); }
  /// The file's size when it was opened.
  uint64_t fileBytes() const noexcept { return fileBytes_; }

  /// The parsed structure text of row `row`, read on first use and kept
  /// while few enough are. Throws Failure when it is not JSON.
  std::shared_ptr<const nlohmann::json> structure(uint64_t row);

 private:
  Source(std::string path, File file) : path_(std::move(path)), file_(std::move(file)) {}

  std::string path_;
  File file_;
  uint64_t fileBytes_ = 0;
  Index index_;
  Dataset structures_;
  Group arrays_;
  std::unordered_map<uint64_t, std::shared_ptr<const nlohmann::json>> parsed_;
};

/// Fills `bundle` from `source`: the grid identities and the bundle's
/// attributes now, one slice per time with a loader that reads its grids
/// on first access. `progress` (may be null) hears of the progress; when it
/// is a BundleLoaderProgress, it is asked before each slice, grid and field
/// is created.
void attachSource(Bundle& bundle, const std::shared_ptr<Source>& source,
                  const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress);

/// Reads every grid and every data set of `source`, dropping the data
/// again. Throws Failure at the first problem.
void checkSource(const std::shared_ptr<Source>& source);

}  // namespace Quaril::H5::detail
