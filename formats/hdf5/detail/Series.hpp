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
#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "bundle/StorageTransformations.hpp"
#include "formats/hdf5/detail/Index.hpp"
#include "formats/hdf5/detail/Reader.hpp"
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

/// The outcome of the last sync of a series binding; empty error and false
/// when `binding` is no series binding.
bool lastSyncOf(const StorageBinding* binding, std::string& error);

}  // namespace Quaril::H5::detail
