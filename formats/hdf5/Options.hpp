#pragma once
// What the format's entry points take and give back: the storage options of
// a save or binding, the choice of fragments of a load, and the outcome of an
// operation. Format.hpp includes it; the format's internals use it alone.

#include <cstdint>
#include <limits>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "bundle/LoaderControl.hpp"
#include "bundle/StorageTransformations.hpp"

namespace Quaril::H5 {

/// The file patterns the format reads and writes.
inline constexpr const char* FilePatterns[] = {"*.h5", "*.hdf5", "*.qb.h5"};

/// Bits of FilterSettings::filter as this format reads them: one codec
/// (zstd before LZ4 before deflate when more are set), after HDF5's byte
/// shuffle when FilterShuffle is set. The level is FilterSettings::level:
/// deflate 1 to 9 (other values take 6), zstd 1 to 22 (other values take
/// 3); data smaller than FilterSettings::minimumBytes are written
/// unfiltered. Without a filter, StorageOptions::setCompression applies to
/// every array, and else StorageTransformations::setCompressionLevel(n > 0)
/// deflates and shuffles everything at level n. zstd and LZ4 are stored as
/// the HDF5 filters registered for them (32015 and 32004), which other
/// programs read with those filters installed.
inline constexpr uint32_t FilterDeflate = 1;
inline constexpr uint32_t FilterShuffle = 2;
inline constexpr uint32_t FilterZstd = 4;
inline constexpr uint32_t FilterLz4 = 8;

/// A codec for every array of a save or sync (StorageOptions::setCompression).
enum class Codec { None, Deflate, Zstd, Lz4 };

/// A storage policy with the options of this format: pass it, or a class
/// derived from it, where a StorageTransformations is taken (save, bindTo,
/// bindToNew). A plain StorageTransformations has the defaults.
/// What each completed sync of a bound series survives.
enum class Durability {
  /// The writing program's crash or kill (SIGKILL): a sync's files are
  /// complete in the operating system's cache before its journal entry is
  /// appended, and nothing is flushed to disk. A power loss may cost the
  /// syncs of the last half minute or so (the system's write-back delay),
  /// each then reported unreadable, never read wrong; earlier syncs stay.
  Crash,
  /// Also a power loss or a crash of the machine: each sync flushes its
  /// part, the parts' folder and the journal entry to disk before it returns.
  PowerLoss,
};

class StorageOptions : public StorageTransformations {
 public:
  /// The options of `policy`: itself when it is StorageOptions (or derived
  /// from it), the defaults otherwise, also for null.
  static const StorageOptions& of(const StorageTransformations* policy);

  /// Whether a save, a binding and every sync also write NAME.xmf, the XDMF
  /// descriptor through which visualisation programs read the file or
  /// series (default true). Switched off, an existing NAME.xmf is left alone.
  bool getWriteXdmf() const noexcept { return writeXdmf_; }
  void setWriteXdmf(bool write) noexcept { writeXdmf_ = write; }

  /// Whether a save, a binding and every sync of a bundle that holds parts
  /// which could not be read (problems()) go on without them (default
  /// false: they refuse, naming each, and leave the target as it was). When
  /// switched on, each part left out is told to the progress sink as "left
  /// out, unreadable: ...".
  bool getSkipDamaged() const noexcept { return skipDamaged_; }
  void setSkipDamaged(bool skip) noexcept { skipDamaged_ = skip; }

  /// Whether a save and every sync store a checksum of each array they write
  /// (default true), by which reads tell a damaged array from a good one.
  bool getChecksums() const noexcept { return checksums_; }
  void setChecksums(bool store) noexcept { checksums_ = store; }

  /// What each sync of a series bound with these options survives. The
  /// default is Crash: a sync costs 0.6 ms instead of 1.0 ms on a virtual
  /// disk that flushes fast, and far less than on one that waits for the
  /// device, while the failure a run meets is a killed or crashed job; the
  /// HDF5 and netCDF libraries flush nothing to disk either. Saves, the first
  /// part of a new series and collective syncs always flush.
  Durability getDurability() const noexcept { return durability_; }
  void setDurability(Durability durability) noexcept { durability_ = durability; }

  /// Compresses every array (of a policy that names no filter itself) with
  /// `codec` after byte shuffling; `level` as FilterSettings::level (0: the
  /// codec's default). Codec::None (the default) leaves arrays as they are.
  void setCompression(Codec codec, int level = 0) noexcept {
    codec_ = codec;
    codecLevel_ = level;
  }
  Codec getCodec() const noexcept { return codec_; }
  int getCodecLevel() const noexcept { return codecLevel_; }

 private:
  bool writeXdmf_ = true;
  bool skipDamaged_ = false;
  bool checksums_ = true;
  Durability durability_ = Durability::Crash;
  Codec codec_ = Codec::None;
  int codecLevel_ = 0;
};

/// Where a fragment stands in the file (or the part of a series) it is read
/// from.
struct FragmentPlace {
  size_t position = 0;  ///< among the fragments the file lists for the field there
  size_t count = 0;     ///< of those fragments
  /// The rank that wrote it, of `ranks` ranks, when a collective save or sync
  /// wrote it; `ranks` is 0 otherwise.
  int rank = 0;
  int ranks = 0;
};

/// A load's progress sink that also chooses fragments: pass it as the
/// progress of a load, and each fragment of each field is offered to
/// CreateFragment before it is created. One left out is never read. A field
/// whose fragments are all left out is left out too.
class FragmentChoice : public BundleLoaderProgress {
 public:
  /// Whether to load the fragment `fragment` ("" when the field is not
  /// fragmented) of the field `field` of the grid `id` at `time`, which
  /// stands at `place`. Default: true.
  virtual bool CreateFragment(const Ostrak::StrongPtr<GridID>& id, double time,
                              const std::string& field, const std::string& fragment,
                              const FragmentPlace& place);
};

/// The fragments of rank `rank` of `size` ranks. A fragment that a
/// collective save or sync of `size` ranks wrote goes back to the rank that
/// wrote it. Any other is dealt out in blocks, in the order the file lists
/// the field's fragments: rank r takes positions [r n / size, (r + 1) n /
/// size) of n. Fields that are not fragmented go to every rank.
class FragmentsOfRank : public FragmentChoice {
 public:
  FragmentsOfRank(int rank, int size) : rank_(rank), size_(size) {}
  bool CreateFragment(const Ostrak::StrongPtr<GridID>& id, double time, const std::string& field,
                      const std::string& fragment, const FragmentPlace& place) override;

 private:
  int rank_;
  int size_;
};

/// The fragments of the given names, and the fields that are not fragmented.
class FragmentsNamed : public FragmentChoice {
 public:
  explicit FragmentsNamed(std::set<std::string> names) : names_(std::move(names)) {}
  bool CreateFragment(const Ostrak::StrongPtr<GridID>& id, double time, const std::string& field,
                      const std::string& fragment, const FragmentPlace& place) override;

 private:
  std::set<std::string> names_;
};

/// A part of a file that could not be read into a bundle: a slice, a grid, a
/// field's data, or a record of a series' journal. It keeps its place: the
/// bundle lists it (problems()) and writes that would lose it refuse.
struct Problem {
  std::string file;    ///< the file, or the part of a series, it was read from
  std::string where;   ///< e.g. "grid \"fluid\" at time 0.5"; empty: the whole file
  std::string reason;  ///< what is wrong
  std::string grid;    ///< the grid's name; empty when it is not one grid's
  /// Whether data are missing from the bundle for it; false when they were
  /// read another way and only the file is damaged (a journal record whose
  /// part was read from its own index). Writes refuse to lose only these.
  bool lost = true;
  /// The time of the slice it belongs to; NaN when it is not one time's.
  double time = std::numeric_limits<double>::quiet_NaN();
  /// The whole text: "file: where: reason".
  std::string text() const { return file + ": " + (where.empty() ? "" : where + ": ") + reason; }
  /// The same problem: the same file, place and reason.
  bool operator==(const Problem& other) const noexcept {
    return file == other.file && where == other.where && reason == other.reason;
  }
};

/// What a check of a file or series read, and every problem it found.
struct CheckReport {
  std::string file;
  std::vector<Problem> problems;  ///< in the order found; empty: everything reads
  uint64_t grids = 0;             ///< grid entries read
  uint64_t arrays = 0;            ///< arrays read
  uint64_t bytes = 0;             ///< bytes of array data read
  bool ok() const noexcept { return problems.empty(); }
};

/// What a refresh took up of the series a bundle was loaded from.
struct SeriesUpdate {
  std::vector<double> added;    ///< times new to the bundle, ascending
  std::vector<double> changed;  ///< times it had, that a sync added to or replaced, ascending
  /// The series ends with a closing record: the binding that wrote it was
  /// released, and unless a later one goes on, nothing more comes.
  bool closed = false;
  bool empty() const noexcept { return added.empty() && changed.empty(); }
};

/// The outcome of an operation: success, or the reason of the failure.
struct Outcome {
  bool ok = false;
  std::string error;
  explicit operator bool() const noexcept { return ok; }
};

}  // namespace Quaril::H5
