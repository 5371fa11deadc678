#pragma once
// One file of the format opened for reading: its index read and checked on
// opening, its grid structures read and checked once on first use, and the
// pool that keeps a series' many parts open only while they are used.

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

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
  /// The checksum the index keeps for the data set `dataset` of entry
  /// `entry`; none in a file without checksums (older, or written by other
  /// programs) or for a data set it does not number. The checksums are read
  /// on first use. Throws Failure when they do not fit the index.
  std::optional<uint64_t> checksum(uint64_t entry, const std::string& dataset);

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
  bool checksumsRead_ = false;
  std::vector<uint64_t> checksums_;
  std::vector<uint64_t> checksumBegins_;  // by entry, and one past the last
};

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

}  // namespace Quaril::H5::detail
