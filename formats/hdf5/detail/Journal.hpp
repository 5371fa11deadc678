#pragma once
// The journal of a bound series: the file the series is named by, an
// append-only list of records, each naming one part (an ordinary file of the
// format in the folder NAME.parts) with that part's index. A record is
// appended, and flushed, only after its part is complete; a record cut short
// by a crash fails its checksum, is ignored by readers and cut off by the
// next writer. A writer holds the journal's lock; readers take none, so
// they never stall a sync. A released binding appends a closing record. docs/hdf5-layout.md
// describes the bytes.

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "formats/hdf5/detail/Files.hpp"
#include "formats/hdf5/detail/Index.hpp"

namespace Quaril::H5::detail {

/// The records of a journal that are complete.
struct Journal {
  std::string token;  ///< the prefix of this series' part names
  struct Record {
    uint64_t number;  ///< the part's number
    Index index;      ///< what the part holds (no structures)
  };
  std::vector<Record> records;
  /// Bytes between complete records that fail their checksum: damage, since
  /// a crash cuts only the end of a journal. The records that lay there
  /// named the parts numbered between those of the records around them.
  struct Damage {
    uint64_t begin, end;  ///< the bytes
    size_t before;        ///< the position in `records` of the record after it
  };
  std::vector<Damage> damaged;
  uint64_t validBytes = 0;  ///< where the last complete record ends
  /// Where the last complete record (of a part, or a closing one) starts;
  /// 0 when there is none.
  uint64_t lastRecordAt = 0;
  /// Whether a closing record follows the last part's: the binding that
  /// wrote them was released. A later binding appends after it.
  bool closed = false;
  /// The number of the part after those before the bytes read (0 for a
  /// whole journal).
  uint64_t numberBefore = 0;

  /// The numbers [first, last) of the parts whose records lay in `damage`.
  std::pair<uint64_t, uint64_t> partsIn(const Damage& damage) const {
    return {damage.before == 0 ? numberBefore : records[damage.before - 1].number + 1,
            records[damage.before].number};
  }
  /// The number of the next part.
  uint64_t next() const noexcept {
    return records.empty() ? numberBefore : records.back().number + 1;
  }
};

/// The records appended to a journal since a reader last read it, read
/// without reading again what was read before.
class JournalReader {
 public:
  /// Follows the journal `path` from where `read`, its whole, ended.
  JournalReader(std::string path, const Journal& read);

  /// The complete records appended since the last call (or since `read`),
  /// with `closed` saying whether the journal ends with a closing record.
  /// Throws Failure when the journal was replaced by another series, or
  /// cut back before what was read.
  Journal newRecords();

 private:
  std::string path_;
  std::string token_;
  uint64_t at_;             ///< where the last record read starts
  std::string lastHeader_;  ///< its header, which must stay as it was
  uint64_t next_;           ///< the number of the next part
  bool closed_;
};

/// What a second binding of a series is told: the journal is locked while a
/// binding writes the series.
inline constexpr const char* BoundAlready = "bound already, by another binding or process";

/// Whether `path` starts like a journal.
bool isJournal(const std::string& path);
/// Reads the complete records of the journal `path`, past damage between
/// them, up to a record cut short at its end. Throws Failure when it is no
/// journal or a record whose checksum passes is malformed.
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
  JournalTail(const JournalTail&) = delete;
  JournalTail& operator=(const JournalTail&) = delete;

  /// The complete records as they were when the tail was opened.
  const Journal& journal() const noexcept { return read_; }
  /// The number of the next part.
  uint64_t next() const noexcept { return next_; }
  /// Appends the record of the next part, holding `index`, and flushes it
  /// to disk when `flush`. On failure the journal ends where it did and
  /// Failure is thrown.
  void append(const Index& index, bool flush = true);
  /// Appends a closing record, which tells followers that the series ends
  /// here unless a later binding goes on. Never throws: followers of a
  /// journal without one stop when it stays idle.
  void close() noexcept;

 private:
  std::string path_;
  LockedFile file_;
  int fd_;
  Journal read_;
  uint64_t next_;
  uint64_t length_;
};

/// Removes what is in the parts folder but not a part of the journal: parts
/// of a series replaced since (unless `keepOtherSeries`), of a sync that did
/// not complete, and their temporary files.
void removeStrayParts(const std::string& journal, const Journal& read, bool keepOtherSeries);

}  // namespace Quaril::H5::detail
