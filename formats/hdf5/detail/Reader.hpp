#pragma once
// Reading files of the format: the index on opening, a slice's grids on the
// slice's first access, a fragment's data on the first request for it.

#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "bundle/Bundle.hpp"
#include "bundle/LoaderControl.hpp"
#include "formats/hdf5/detail/Hdf5.hpp"
#include "formats/hdf5/detail/Index.hpp"

namespace Quaril::H5::detail {

struct GridShape;

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
  /// The file for reading contiguous arrays past HDF5.
  const RawFile& raw() const noexcept { return raw_; }

  /// The parsed structure text of row `row`, read on first use and kept
  /// while few enough are. Throws Failure when it is not JSON.
  std::shared_ptr<const nlohmann::json> structure(uint64_t row);
  /// The structure of row `row`, read and checked, kept as the text is.
  std::shared_ptr<const GridShape> shape(uint64_t row);

 private:
  Source(std::string path, File file) : path_(std::move(path)), file_(std::move(file)) {}

  std::string path_;
  File file_;
  uint64_t fileBytes_ = 0;
  RawFile raw_;
  Index index_;
  Dataset structures_;
  Group arrays_;
  std::unordered_map<uint64_t, std::shared_ptr<const nlohmann::json>> parsed_;
  std::unordered_map<uint64_t, std::shared_ptr<const GridShape>> shapes_;
};

class Stored;

/// A file of the format opened on first use, which a pool may close again
/// while it is unused: a bound series may have more parts than a process
/// may hold open. Used under a Session only.
class PartSource {
 public:
  /// The parts of one series; at most `limit` are open at once.
  struct Pool {
    explicit Pool(size_t limit) : limit(limit) {}
    size_t limit;
    std::list<PartSource*> open;  ///< most recently used first
  };

  /// A file already open, which stays open.
  explicit PartSource(std::shared_ptr<Source> open);
  /// `path`, opened on first use within `pool`.
  PartSource(std::string path, std::shared_ptr<Pool> pool);
  ~PartSource();
  PartSource(const PartSource&) = delete;
  PartSource& operator=(const PartSource&) = delete;

  /// The open file. Throws Failure when it cannot be opened.
  std::shared_ptr<Source> get();
  const std::string& path() const noexcept { return path_; }

 private:
  std::string path_;
  std::shared_ptr<Source> source_;
  std::shared_ptr<Pool> pool_;
  std::list<PartSource*>::iterator place_;
};

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
/// `stored` (may be null).
void attachParts(Bundle& bundle, const std::vector<Part>& parts,
                 const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress,
                 const std::shared_ptr<Stored>& stored);

/// As attachParts with the one file `source`.
void attachSource(Bundle& bundle, const std::shared_ptr<Source>& source,
                  const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress,
                  const std::shared_ptr<Stored>& stored = {});

/// Reads every grid and every data set of `source`, dropping the data
/// again. Throws Failure at the first problem.
void checkSource(const std::shared_ptr<Source>& source);

}  // namespace Quaril::H5::detail
