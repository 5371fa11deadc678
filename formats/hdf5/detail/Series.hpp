#pragma once
// Bound series: a bundle file that grows by one part per sync and survives
// a crash at any instant. What a sync writes, the binding that writes it,
// and the series' descriptor; the journal that lists the parts is
// Journal.hpp's. A sync writes its part completely, flushes it, and only then
// appends its record and flushes the journal; nothing a completed sync wrote
// is ever changed.

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "bundle/Bundle.hpp"
#include "bundle/StorageTransformations.hpp"
#include "formats/hdf5/detail/Index.hpp"
#include "formats/hdf5/detail/Journal.hpp"
#include "formats/hdf5/detail/Planner.hpp"
#include "formats/hdf5/detail/Reader.hpp"
#include "formats/hdf5/detail/Xdmf.hpp"
#include "ostrak/Loader.hpp"

namespace Quaril::H5::detail {

class Stored;

/// The descriptor of the series `journal` whose parts are named by `token`.
std::unique_ptr<SeriesDescriptor> descriptorFor(const std::string& journal,
                                                const std::string& token);
/// Adds part `number`, just synced, holding `index` with the structure texts
/// `structures`, to `descriptor`. Throws a Failure saying that the data are
/// synced when the descriptor could not be updated.
void describePart(SeriesDescriptor& descriptor, const std::string& journal,
                  const std::string& token, uint64_t number, const Index& index,
                  const std::vector<std::string>& structures);

/// What a sync of many writers makes every writer that holds it write,
/// because some writer writes it. What is written whole replaces what the
/// series held, the other writers' fragments too; a grid added to must list
/// the skeletons of all writers, as the grid it adds to does.
struct SharedWrites {
  std::set<std::pair<double, std::string>> grids;  ///< whole: time, grid name
  /// whole, in a grid added to: time, grid name, field name
  std::set<std::tuple<double, std::string, std::string>> fields;
  std::set<std::pair<double, std::string>> added;  ///< grids added to
  bool empty() const noexcept { return grids.empty() && fields.empty() && added.empty(); }
  /// Whether it names a grid or field at `time`.
  bool names(double time) const;
};

/// What of `bundle` a sync writes: what `stored` does not list (or lists
/// with other attributes), of every slice or only of the slices at `times`.
/// A slice still to be read from a file is read and written when
/// `readPending`, and otherwise left alone. With `shared`, what it names is
/// written so where the bundle holds it.
Selection planSync(const Bundle& bundle, const Stored& stored, bool readPending,
                   const std::set<double>* times = nullptr, const SharedWrites* shared = nullptr);
/// What of `plan` the other writers of a sync must write too.
SharedWrites sharedWritesOf(const Selection& plan);
/// Whether `plan` writes nothing.
bool nothingIn(const Selection& plan);
/// Lists in `stored` what a completed sync of `plan` wrote.
void recordWritten(const Bundle& bundle, const Selection& plan, Stored& stored);

/// Parts of one series open at once while reading.
inline constexpr size_t OpenPartsLimit = 64;

/// The parts of the series, opened on first use (through `pool`, a new one
/// when null), in the order of their numbers. A part whose record is damaged is read from its own
/// index, and the damage is added to `problems`.
std::vector<Part> partsOf(const std::string& journal, const Journal& read,
                          std::vector<Problem>& problems,
                          std::shared_ptr<PartSource::Pool> pool = {});

/// Binds `bundle` to the series `path`: a new one (`existing` false;
/// whatever `path` was is replaced once the first sync is complete, its
/// parts removed unless the bundle was loaded from it), or the existing
/// series or single file `path`, whose contents join the bundle unless the
/// bundle was loaded from it (a single file becomes the first part of a
/// series). `stored` is what was read from `path` into the bundle, null when
/// it was not loaded from it. Writes what the bundle holds that the file
/// does not, and installs the binding. Throws Failure.
void bindSeries(Bundle& bundle, const std::string& path, bool existing,
                const Ostrak::StrongPtr<StorageTransformations>& transformations,
                const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress,
                std::shared_ptr<Stored> stored);

/// Writes the descriptor of the series `journal` anew. Throws Failure, also
/// while a binding writes the series.
void writeSeriesDescriptor(const std::string& journal);

/// A binding that keeps the outcome of its last sync.
class ReportingBinding : public StorageBinding {
 public:
  /// Empty when the last sync succeeded.
  const std::string& lastError() const noexcept { return error_; }

 protected:
  std::string error_;
};

/// The outcome of the last sync of a series binding; empty error and false
/// when `binding` is no series binding.
bool lastSyncOf(const StorageBinding* binding, std::string& error);

/// A file or series opened for loading: a single file, or the parts of a
/// series.
struct Opened {
  std::string path;
  std::vector<Part> parts;
  /// Damage found on opening that did not stop it (a series' journal).
  std::vector<Problem> problems;
  /// A series' journal as read, and the pool its parts open through; null
  /// for a single file.
  std::shared_ptr<Journal> journal;
  std::shared_ptr<PartSource::Pool> pool;
};

/// Opens the file or series `path` and reads its index (a series': its
/// journal and its parts' indexes). Throws Failure naming the problem.
Opened openForLoading(const std::string& path);

}  // namespace Quaril::H5::detail
