#include "formats/hdf5/detail/Journal.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <random>

namespace Quaril::H5::detail {

namespace {

namespace fs = std::filesystem;

// ---- the bytes of a journal ------------------------------------------------------

constexpr char Magic[8] = {'Q', 'B', 'S', 'E', 'R', 'I', 'E', 'S'};
constexpr uint32_t VersionMajor = 1;
constexpr uint32_t VersionMinor = 1;  // 1: closing records
constexpr size_t TokenBytes = 16;
constexpr size_t HeaderBytes = sizeof(Magic) + 8 + TokenBytes;
constexpr uint32_t RecordMagic = 0x43455251;   // "QREC"
constexpr uint32_t ClosingMagic = 0x444E4551;  // "QEND"
constexpr size_t RecordHeaderBytes = 12;
/// No record is this long; a length beyond it is a damaged record.
constexpr uint32_t LongestRecord = 1u << 30;

uint32_t crc32(const uint8_t* data, size_t size) {
  static const std::array<uint32_t, 256> table = [] {
    std::array<uint32_t, 256> made{};
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t c = i;
      for (int bit = 0; bit < 8; ++bit) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
      made[i] = c;
    }
    return made;
  }();
  uint32_t crc = 0xFFFFFFFFu;
  for (size_t i = 0; i < size; ++i) crc = table[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
  return crc ^ 0xFFFFFFFFu;
}

/// Little-endian numbers and texts appended to a byte buffer.
class Encoder {
 public:
  template <class T>
  void put(T value) {
    uint8_t bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    if constexpr (std::endian::native == std::endian::big) std::reverse(bytes, bytes + sizeof(T));
    out.insert(out.end(), bytes, bytes + sizeof(T));
  }
  void put(const std::string& text) {
    put<uint64_t>(text.size());
    out.insert(out.end(), text.begin(), text.end());
  }
  std::vector<uint8_t> out;
};

/// The reading counterpart; throws Failure past the end.
class Decoder {
 public:
  Decoder(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  template <class T>
  T get() {
    need(sizeof(T));
    uint8_t bytes[sizeof(T)];
    std::memcpy(bytes, data_ + at_, sizeof(T));
    if constexpr (std::endian::native == std::endian::big) std::reverse(bytes, bytes + sizeof(T));
    at_ += sizeof(T);
    T value;
    std::memcpy(&value, bytes, sizeof(T));
    return value;
  }
  std::string text() {
    const uint64_t length = count(1);
    std::string made(reinterpret_cast<const char*>(data_ + at_), length);
    at_ += length;
    return made;
  }
  /// A count of items of `bytes` each that must fit in what is left.
  uint64_t count(size_t bytes) {
    const uint64_t n = get<uint64_t>();
    require(n <= (size_ - at_) / bytes, "a journal record is malformed");
    return n;
  }
  bool done() const noexcept { return at_ == size_; }

 private:
  void need(size_t bytes) const { require(bytes <= size_ - at_, "a journal record is malformed"); }
  const uint8_t* data_;
  size_t size_;
  size_t at_ = 0;
};

std::vector<uint8_t> encodeRecord(uint64_t number, const Index& index) {
  Encoder payload;
  payload.put<uint64_t>(number);
  payload.put<uint64_t>(index.times.size());
  for (double time : index.times) payload.put(time);
  for (size_t row = 0; row < index.times.size(); ++row) {
    payload.put<uint8_t>(index.sliceAttributes[row] ? 1 : 0);
  }
  payload.put<uint8_t>(index.bundleAttributes ? 1 : 0);
  payload.put<uint64_t>(index.names.size());
  for (size_t row = 0; row < index.names.size(); ++row) {
    payload.put(index.names[row]);
    payload.put<int64_t>(index.parents[row]);
  }
  payload.put<uint64_t>(index.entries.size());
  for (const IndexEntry& entry : index.entries) {
    payload.put<uint64_t>(entry.timeRow);
    payload.put<uint64_t>(entry.nameRow);
  }
  Encoder record;
  record.put<uint32_t>(RecordMagic);
  record.put<uint32_t>(static_cast<uint32_t>(payload.out.size()));
  record.put<uint32_t>(crc32(payload.out.data(), payload.out.size()));
  record.out.insert(record.out.end(), payload.out.begin(), payload.out.end());
  return std::move(record.out);
}

/// A record's part, checked as far as the series needs it before the part
/// is opened (the part's own index is checked when it is).
Journal::Record decodeRecord(const uint8_t* data, size_t size) {
  Decoder in(data, size);
  Journal::Record record;
  record.number = in.get<uint64_t>();
  Index& index = record.index;
  const uint64_t times = in.count(9);
  for (uint64_t row = 0; row < times; ++row) {
    index.times.push_back(in.get<double>());
    require(
        !std::isnan(index.times.back()) && (row == 0 || index.times[row] > index.times[row - 1]),
        "a journal record lists times out of order");
  }
  for (uint64_t row = 0; row < times; ++row) index.sliceAttributes.push_back(in.get<uint8_t>());
  index.bundleAttributes = in.get<uint8_t>() != 0;
  const uint64_t names = in.count(16);
  for (uint64_t row = 0; row < names; ++row) {
    index.names.push_back(in.text());
    index.parents.push_back(in.get<int64_t>());
  }
  for (int64_t parent : index.parents) {
    require(parent >= -1 && parent < static_cast<int64_t>(names),
            "a journal record names a parent that does not exist");
  }
  const uint64_t entries = in.count(16);
  index.sliceBegin.assign(times + 1, 0);
  for (uint64_t i = 0; i < entries; ++i) {
    const uint64_t timeRow = in.get<uint64_t>(), nameRow = in.get<uint64_t>();
    require(timeRow < times && nameRow < names, "a journal record names a grid that is not there");
    require(i == 0 || timeRow >= index.entries.back().timeRow,
            "a journal record lists grids out of time order");
    index.entries.push_back({timeRow, nameRow, 0});
    ++index.sliceBegin[timeRow + 1];
  }
  for (uint64_t row = 1; row <= times; ++row) index.sliceBegin[row] += index.sliceBegin[row - 1];
  require(in.done(), "a journal record is malformed");
  return record;
}

/// A complete record whose checksum passes.
struct Found {
  uint32_t length;  ///< of its payload
  bool closing;
};

/// The complete record at `at` of the `size` bytes at `data`, whose
/// checksum passes; nothing when there is none.
std::optional<Found> recordAt(const uint8_t* data, size_t size, size_t at) {
  if (size - at < RecordHeaderBytes) return std::nullopt;
  Decoder head(data + at, RecordHeaderBytes);
  const uint32_t magic = head.get<uint32_t>(), length = head.get<uint32_t>();
  const uint32_t crc = head.get<uint32_t>();
  if ((magic != RecordMagic && magic != ClosingMagic) || length > LongestRecord ||
      length > size - at - RecordHeaderBytes ||
      crc32(data + at + RecordHeaderBytes, length) != crc) {
    return std::nullopt;
  }
  return Found{length, magic == ClosingMagic};
}

/// Reads the records of the `size` bytes at `data`, from `at` on, into
/// `journal`; `base` is where `data` starts in the journal.
void parseRecords(const uint8_t* data, size_t size, size_t at, uint64_t base, Journal& journal) {
  while (at < size) {
    const std::optional<Found> found = recordAt(data, size, at);
    if (!found) {
      // Damage when a complete record follows; else a record cut short, or
      // never finished, which ends the journal.
      size_t next = at + 1;
      while (next < size && !recordAt(data, size, next)) ++next;
      if (next >= size) break;
      journal.damaged.push_back({base + at, base + next, journal.records.size()});
      at = next;
      continue;
    }
    if (found->closing) {
      journal.closed = true;
    } else {
      journal.records.push_back(decodeRecord(data + at + RecordHeaderBytes, found->length));
      journal.closed = false;
    }
    journal.lastRecordAt = base + at;
    at += RecordHeaderBytes + found->length;
  }
  journal.validBytes = base + at;
}

/// The header of a journal, checked; its token.
std::string tokenOf(const uint8_t* data, size_t size) {
  require(size >= HeaderBytes && std::memcmp(data, Magic, sizeof(Magic)) == 0,
          "not a bundle series");
  Decoder header(data + sizeof(Magic), 8);
  const uint32_t major = header.get<uint32_t>();
  require(major <= VersionMajor, "a series of journal version " + std::to_string(major) +
                                     ", newer than this reader's " + std::to_string(VersionMajor));
  std::string token(reinterpret_cast<const char*>(data) + sizeof(Magic) + 8, TokenBytes);
  for (char c : token) require(std::isxdigit(static_cast<unsigned char>(c)), "a bad journal");
  return token;
}

Journal parseJournal(const std::string& bytes) {
  const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
  Journal journal;
  journal.token = tokenOf(data, bytes.size());
  parseRecords(data, bytes.size(), HeaderBytes, 0, journal);
  return journal;
}

/// Writes a journal of no records (or of the one record `first`) as `path`,
/// atomically.
void writeJournal(const std::string& path, const std::string& token,
                  const std::vector<uint8_t>& first) {
  Encoder header;
  // Room for all first: GCC 12 at -O3 warns falsely about the inserts otherwise.
  header.out.reserve(HeaderBytes + first.size());
  header.out.assign(Magic, Magic + sizeof(Magic));
  header.put<uint32_t>(VersionMajor);
  header.put<uint32_t>(VersionMinor);
  header.out.insert(header.out.end(), token.begin(), token.end());
  header.out.insert(header.out.end(), first.begin(), first.end());
  replaceFile(path, [&](const std::string& temporary) {
    const int fd = open(temporary.c_str(), O_WRONLY | O_CLOEXEC);
    requireSystem(fd >= 0, "cannot open " + temporary);
    try {
      writeAt(fd, header.out.data(), header.out.size(), 0, path);
    } catch (...) {
      close(fd);
      throw;
    }
    close(fd);
  });
}

}  // namespace

// ---- the journal's end -------------------------------------------------------------

std::string partsFolder(const std::string& journal) {
  return journal + ".parts";
}

std::string newToken() {
  std::random_device device;
  std::mt19937_64 random((static_cast<uint64_t>(device()) << 32) ^ device() ^
                         static_cast<uint64_t>(getpid()));
  char text[TokenBytes + 1];
  std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(random()));
  return text;
}

JournalTail::JournalTail(const std::string& path)
    : path_(path), file_(path, BoundAlready), fd_(file_.descriptor()) {
  read_ = readJournal(path);
  // A record cut short by a crash goes before the next is appended.
  struct stat status {};
  requireSystem(fstat(fd_, &status) == 0, "cannot read " + path);
  if (static_cast<uint64_t>(status.st_size) > read_.validBytes) {
    requireSystem(ftruncate(fd_, static_cast<off_t>(read_.validBytes)) == 0 && fsync(fd_) == 0,
                  "cannot cut the unfinished record off " + path);
  }
  next_ = read_.next();
  length_ = read_.validBytes;
}

void JournalTail::append(const Index& index, bool flush) {
  try {
    const std::vector<uint8_t> record = encodeRecord(next_, index);
    writeAt(fd_, record.data(), record.size(), length_, path_);
    if (flush) requireSystem(fsync(fd_) == 0, "cannot flush " + path_);
    length_ += record.size();
    ++next_;
  } catch (...) {
    // The record may not stay: the journal ends where it did.
    if (ftruncate(fd_, static_cast<off_t>(length_)) == 0) fsync(fd_);
    throw;
  }
}

void JournalTail::close() noexcept {
  try {
    Encoder payload;
    payload.put<uint64_t>(next_);
    Encoder record;
    record.put<uint32_t>(ClosingMagic);
    record.put<uint32_t>(static_cast<uint32_t>(payload.out.size()));
    record.put<uint32_t>(crc32(payload.out.data(), payload.out.size()));
    record.out.insert(record.out.end(), payload.out.begin(), payload.out.end());
    // For followers only: it need not survive a power loss, so no flush.
    writeAt(fd_, record.out.data(), record.out.size(), length_, path_);
    length_ += record.out.size();
  } catch (...) {
    // A record cut short is ignored by readers and cut off by the next writer.
    (void)!ftruncate(fd_, static_cast<off_t>(length_));
  }
}

// ---- following a journal ---------------------------------------------------------

JournalReader::JournalReader(std::string path, const Journal& read)
    : path_(std::move(path)),
      token_(read.token),
      at_(read.lastRecordAt ? read.lastRecordAt : read.validBytes),
      next_(read.next()),
      closed_(read.closed) {
  if (read.lastRecordAt) {
    const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    requireSystem(fd >= 0, "cannot open " + path_);
    lastHeader_.resize(RecordHeaderBytes);
    const size_t got = readAt(fd, lastHeader_.data(), RecordHeaderBytes, at_, "the journal");
    close(fd);
    lastHeader_.resize(got);
  }
}

Journal JournalReader::newRecords() {
  const int fd = open(path_.c_str(), O_RDONLY | O_CLOEXEC);
  requireSystem(fd >= 0, "cannot open");
  std::string head(HeaderBytes, '\0'), tail;
  try {
    head.resize(readAt(fd, head.data(), HeaderBytes, 0, "the journal"));
    struct stat status {};
    requireSystem(fstat(fd, &status) == 0, "cannot read the journal");
    const uint64_t size = static_cast<uint64_t>(status.st_size);
    tail.resize(size > at_ ? size - at_ : 0);
    tail.resize(readAt(fd, tail.data(), tail.size(), at_, "the journal"));
  } catch (...) {
    close(fd);
    throw;
  }
  close(fd);
  const auto* data = reinterpret_cast<const uint8_t*>(tail.data());
  require(tokenOf(reinterpret_cast<const uint8_t*>(head.data()), head.size()) == token_,
          "the series was started anew by another binding since it was read; load it again");
  const char* cutBack =
      "the journal was cut back before what was read of it; load the series again";
  require(
      tail.size() >= lastHeader_.size() && tail.compare(0, lastHeader_.size(), lastHeader_) == 0,
      cutBack);
  Journal fresh;
  fresh.token = token_;
  fresh.numberBefore = next_;
  fresh.closed = closed_;
  size_t from = 0;
  if (!lastHeader_.empty()) {
    // The record read last, which is known already.
    const std::optional<Found> last = recordAt(data, tail.size(), 0);
    require(last.has_value(), cutBack);
    from = RecordHeaderBytes + last->length;
  }
  parseRecords(data, tail.size(), from, at_, fresh);
  if (fresh.lastRecordAt != 0) {
    lastHeader_ = tail.substr(fresh.lastRecordAt - at_, RecordHeaderBytes);
    at_ = fresh.lastRecordAt;
  }
  next_ = fresh.next();
  closed_ = fresh.closed;
  return fresh;
}

void requireUnbound(const std::string& path) {
  if (isJournal(path)) LockedFile(path, BoundAlready);
}

void startJournal(const std::string& path, const std::string& token, const Index& first) {
  writeJournal(path, token, encodeRecord(0, first));
}

void removeStrayParts(const std::string& journal, const Journal& read, bool keepOtherSeries) {
  const uint64_t next = read.records.empty() ? 0 : read.records.back().number + 1;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(partsFolder(journal), error)) {
    const std::string name = entry.path().filename().string();
    bool ours = false;
    if (keepOtherSeries && name.rfind(read.token + "-", 0) != 0 && name[0] != '.') continue;
    if (name.rfind(read.token + "-", 0) == 0) {
      const std::string number = name.substr(read.token.size() + 1);
      char* end = nullptr;
      const unsigned long long n = std::strtoull(number.c_str(), &end, 10);
      ours = end && std::string(end) == ".h5" && n < next;
    }
    if (!ours) fs::remove(entry.path(), error);
  }
}

bool isJournal(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char head[sizeof(Magic)] = {};
  const bool found = pread(fd, head, sizeof(head), 0) == static_cast<ssize_t>(sizeof(head)) &&
                     std::memcmp(head, Magic, sizeof(Magic)) == 0;
  close(fd);
  return found;
}

Journal readJournal(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  requireSystem(fd >= 0, "cannot open");
  std::string bytes;
  try {
    bytes = readAll(fd, "the journal");
  } catch (...) {
    close(fd);
    throw;
  }
  close(fd);
  return parseJournal(bytes);
}

std::string partPath(const std::string& journal, const std::string& token, uint64_t number) {
  return (fs::path(partsFolder(journal)) / (token + "-" + std::to_string(number) + ".h5")).string();
}

}  // namespace Quaril::H5::detail
