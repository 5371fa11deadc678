#pragma once
// Bundles in HDF5 files of our own layout (docs/hdf5-layout.md).
//
// After registerFormat(), the bundle library's load, merge, save, saveGrids,
// bindTo and bindToNew work on files named *.h5, *.hdf5 or *.qb.h5:
//
//   Quaril::H5::registerFormat();
//   Quaril::BundlePtr data;
//   data.load("run.h5");                // reads the index; slices load on first access
//   data.save("copy.h5");               // written beside, flushed, renamed over
//
// The functions below do the same and also say why something failed.

#include <cstdint>
#include <list>
#include <set>
#include <string>
#include <utility>

#include "bundle/Bundle.hpp"
#include "bundle/LoaderControl.hpp"
#include "bundle/StorageTransformations.hpp"
#include "ostrak/Loader.hpp"
#include "ostrak/StringList.hpp"

namespace Quaril::H5 {

/// The file patterns the format reads and writes.
inline constexpr const char* FilePatterns[] = {"*.h5", "*.hdf5", "*.qb.h5"};

/// Bits of FilterSettings::filter as this format reads them. The deflate
/// level is FilterSettings::level (1 to 9; other values take 6); data smaller
/// than FilterSettings::minimumBytes are written unfiltered. Without a filter,
/// StorageTransformations::setCompressionLevel(n > 0) deflates and shuffles
/// everything at level n.
inline constexpr uint32_t FilterDeflate = 1;
inline constexpr uint32_t FilterShuffle = 2;

/// A storage policy with the options of this format: pass it, or a class
/// derived from it, where a StorageTransformations is taken (save, bindTo,
/// bindToNew). A plain StorageTransformations has the defaults.
class StorageOptions : public StorageTransformations {
 public:
  /// Whether a save, a binding and every sync also write NAME.xmf, the XDMF
  /// descriptor through which visualisation programs read the file or
  /// series (default true). Switched off, an existing NAME.xmf is left alone.
  bool getWriteXdmf() const noexcept { return writeXdmf_; }
  void setWriteXdmf(bool write) noexcept { writeXdmf_ = write; }

 private:
  bool writeXdmf_ = true;
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

/// Registers the loader and the saver creator of the format with the object
/// core's registries. Calling it again does nothing. Bundles made before the
/// first call have no saver of this format attached.
void registerFormat();

/// The outcome of an operation: success, or the reason of the failure.
struct Outcome {
  bool ok = false;
  std::string error;
  explicit operator bool() const noexcept { return ok; }
};

/// Loads `filenames` into `bundle` (made when empty) through the registered
/// loaders; the error names the file and the problem.
Outcome load(BundlePtr& bundle, const std::list<std::string>& filenames,
             const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {});

/// Saves `bundle` (only the grids in `gridNames` when given) as a file of
/// this format, whatever the file is called. On failure an existing file is
/// left as it was and no temporary file remains.
Outcome save(const Bundle& bundle, const std::string& filename,
             const Ostrak::StrongPtr<StorageTransformations>& transformations = {},
             const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {},
             const Ostrak::StrongPtr<Ostrak::StringList>& gridNames = {});

/// The outcome of the last sync of `bundle` (Bundle::sync, or the one at
/// binding) with a file of this format; an error when it is not bound to one.
Outcome lastSync(const Bundle& bundle);

/// Reads everything of `filename` (index, every grid, every data set, each
/// dropped after reading) and reports the first problem. Loads into no bundle.
Outcome check(const std::string& filename);

/// Writes `filename`.xmf, an XDMF 3 document through which visualisation
/// programs read the bundle file or bound series `filename` in place as a
/// time series (see docs/hdf5-layout.md); saves and syncs write it by
/// themselves unless StorageOptions say otherwise. Replaced atomically.
Outcome writeXdmf(const std::string& filename);

}  // namespace Quaril::H5
