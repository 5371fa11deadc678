#pragma once
// Bound series: a bundle file that grows by one part per sync and survives
// a crash at any instant. The name the bundle is bound to holds a journal,
// an append-only list of records, each naming one part (an ordinary file of
// the format in the folder NAME.parts) with that part's index. A sync writes
// its part completely, flushes it, and only then appends its record and
// flushes the journal; nothing a completed sync wrote is ever changed. A
// record cut short by a crash fails its checksum and is ignored by readers,
// and cut off by the next writer. docs/hdf5-layout.md describes the bytes.

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
#include "formats/hdf5/detail/Reader.hpp"
#include "formats/hdf5/detail/Writer.hpp"
#include "formats/hdf5/detail/Xdmf.hpp"
#include "ostrak/Loader.hpp"

namespace Quaril::H5::detail {

class Stored;

/// The records of a journal that are complete.
struct Journal {
  std::string token;  ///< the prefix of this series' part names
  struct Record {
    uint64_t number;  ///< the part's number
    Index index;      ///< what the part holds (no structures)
  };
  std::vector<Record> records;
  uint64_t validBytes = 0;  ///< where the last complete record ends
};

/// Whether `path` starts like a journal.
bool isJournal(const std::string& path);
/// Reads the complete records of the journal `path`. Throws Failure when
/// it is no journal or a complete record is malformed.
Journal readJournal(const std::string& path);
/// The file of part `number` of the series `journal`.
std::string partPath(const std::string& journal, const std::string& token, uint64_t number);

/// The folder of the parts of the series `journal`.
std::string partsFolder(const std::string& journal);
/// A new random token to name the parts of a new series.
std::string newToken();

/// Throws Failure when `path` is a series that a binding holds.
void requireUnbound(const std::string& path);
/// Makes `path` a journal with one record, of part 0 holding `first`,
/// atomically replacing whatever `path` was. Throws Failure.
void startJournal(const std::string& path, const std::string& token, const Index& first);

/// The end of a journal that a binding appends to, open and locked against
/// other writers while it lives.
class JournalTail {
 public:
  /// Opens and locks `path`, reads its complete records, and cuts off a
  /// record cut short by a crash. Throws Failure.
  explicit JournalTail(const std::string& path);
  ~JournalTail();
  JournalTail(const JournalTail&) = delete;
  JournalTail& operator=(const JournalTail&) = delete;

  /// The complete records as they were when the tail was opened.
  const Journal& journal() const noexcept { return read_; }
  /// The number of the next part.
  uint64_t next() const noexcept { return next_; }
  /// Appends the record of the next part, holding `index`, and flushes it.
  /// On failure the journal ends where it did and Failure is thrown.
  void append(const Index& index);

 private:
  std::string path_;
  int fd_;
  Journal read_;
  uint64_t next_;
  uint64_t length_;
};

/// Removes what is in the parts folder but not a part of the journal: parts
/// of a series replaced since (unless `keepOtherSeries`), of a sync that did
/// not complete, and their temporary files.
void removeStrayParts(const std::string& journal, const Journal& read, bool keepOtherSeries);

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

/// The parts of the series, opened on first use.
std::vector<Part> partsOf(const std::string& journal, const Journal& read);

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

/// What was read from `filename` into `bundle`; null when it was not loaded
/// from it.
std::shared_ptr<Stored> loadedFrom(const Bundle& bundle, const std::string& filename);

/// The outcome of the last sync of a series binding; empty error and false
/// when `binding` is no series binding.
bool lastSyncOf(const StorageBinding* binding, std::string& error);

}  // namespace Quaril::H5::detail
