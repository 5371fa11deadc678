#pragma once
// One file of the format opened for reading: its index read and checked on
// opening (from the directory in its user block where there is a valid one,
// without libhdf5), its grid structures read and checked once on first use,
// and the pool that keeps a series' many parts open only while they are used.

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "formats/hdf5/detail/Directory.hpp"
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
  /// The file opened through libhdf5, on first use when the directory was
  /// read instead. Throws Failure when it cannot be, or is no longer the
  /// file that was opened.
  hid_t file() const;
  /// The group of the stored arrays (invalid in a file without grids);
  /// opens the file through libhdf5 as file() does.
  hid_t arrays() const;
  /// The file's size when it was opened.
  uint64_t fileBytes() const noexcept { return fileBytes_; }
  /// The file for reading contiguous arrays past HDF5, once file() is open.
  const RawFile& raw() const noexcept { return raw_; }

  /// Where the directory places the `bytes` bytes of the data set `dataset`
  /// of entry `entry` as they are in memory, with their checksum; none when
  /// it does not (read them through HDF5 then).
  struct Direct {
    int descriptor;
    uint64_t offset;
    uint64_t checksum;
  };
  std::optional<Direct> direct(uint64_t entry, const std::string& dataset, uint64_t bytes);

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
  explicit Source(std::string path) : path_(std::move(path)) {}
  /// The number of the checksum of data set `dataset` of entry `entry`.
  std::optional<uint64_t> checksumRow(uint64_t entry, const std::string& dataset);
  void readChecksums();

  std::string path_;
  int descriptor_ = -1;  ///< ours, for the directory and the arrays it places
  uint64_t fileBytes_ = 0;
  std::optional<Directory> directory_;
  Index index_;
  // Opened through libhdf5 on first use when the directory was read.
  mutable File file_;
  mutable RawFile raw_;
  mutable Dataset structures_;
  mutable Group arrays_;
  /// The structure texts as the directory places them, read on first use.
  std::optional<std::vector<uint8_t>> structureTexts_;
  std::unordered_map<uint64_t, std::shared_ptr<const nlohmann::json>> parsed_;
  std::unordered_map<uint64_t, std::shared_ptr<const GridShape>> shapes_;
  bool checksumsRead_ = false;
  std::vector<uint64_t> checksums_;
  std::vector<uint64_t> checksumBegins_;  // by entry, and one past the last
  std::vector<uint64_t> places_;          // numbered as the checksums; with the directory
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
