#include "formats/hdf5/detail/Series.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <filesystem>
#include <random>
#include <set>

#include "formats/hdf5/detail/Stored.hpp"
#include "formats/hdf5/detail/Writer.hpp"
#include "formats/hdf5/detail/Xdmf.hpp"
#include "grid/GridWalk.hpp"

namespace Quaril::H5::detail {

namespace {

namespace fs = std::filesystem;
using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

// ---- the bytes of a journal ------------------------------------------------------

constexpr char Magic[8] = {'Q', 'B', 'S', 'E', 'R', 'I', 'E', 'S'};
constexpr uint32_t VersionMajor = 1;
constexpr uint32_t VersionMinor = 0;
constexpr size_t TokenBytes = 16;
constexpr size_t HeaderBytes = sizeof(Magic) + 8 + TokenBytes;
constexpr uint32_t RecordMagic = 0x43455251;  // "QREC"
constexpr size_t RecordHeaderBytes = 12;
/// No record is this long; a length beyond it is a damaged record.
constexpr uint32_t LongestRecord = 1u << 30;
/// Parts of one series open at once while reading.
constexpr size_t OpenPartsLimit = 64;

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

std::string readAll(int fd) {
  std::string bytes;
  char buffer[1 << 16];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    requireSystem(got >= 0, "cannot read the journal");
    if (got == 0) return bytes;
    bytes.append(buffer, static_cast<size_t>(got));
  }
}

Journal parseJournal(const std::string& bytes) {
  require(bytes.size() >= HeaderBytes && std::memcmp(bytes.data(), Magic, sizeof(Magic)) == 0,
          "not a bundle series");
  const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
  Decoder header(data + sizeof(Magic), 8);
  const uint32_t major = header.get<uint32_t>();
  require(major <= VersionMajor, "a series of journal version " + std::to_string(major) +
                                     ", newer than this reader's " + std::to_string(VersionMajor));
  Journal journal;
  journal.token.assign(bytes.data() + sizeof(Magic) + 8, TokenBytes);
  for (char c : journal.token)
    require(std::isxdigit(static_cast<unsigned char>(c)), "a bad journal");
  size_t at = HeaderBytes;
  while (bytes.size() - at >= RecordHeaderBytes) {
    Decoder head(data + at, RecordHeaderBytes);
    const uint32_t magic = head.get<uint32_t>(), length = head.get<uint32_t>();
    const uint32_t crc = head.get<uint32_t>();
    // A record cut short, or never finished, ends the complete ones.
    if (magic != RecordMagic || length > LongestRecord ||
        length > bytes.size() - at - RecordHeaderBytes ||
        crc32(data + at + RecordHeaderBytes, length) != crc) {
      break;
    }
    journal.records.push_back(decodeRecord(data + at + RecordHeaderBytes, length));
    at += RecordHeaderBytes + length;
  }
  journal.validBytes = at;
  return journal;
}

}  // namespace

// ---- what a sync writes ------------------------------------------------------------

namespace {

/// What a slice holds that `stored` does not list, or lists with other
/// attributes, added to `plan`. A slice still to be read from a file is read
/// and written when `readPending`, and otherwise left alone: it is in the
/// bound series, or is written once something reads it (unless `shared`
/// names what it holds).
void planSlice(const SlicePtr& slice, const Stored& stored, bool readPending,
               const SharedWrites* shared, Selection& plan) {
  if (!slice) return;
  const double time = slice->getTime();
  if (slice->hasPendingLoaders()) {
    if (!readPending && !(shared && shared->names(time))) return;
    slice->accessSlice();
  }
  bool news = !stored.contains(slice.referenceBlock());
  if (!stored.sameAttributes(slice.referenceBlock(), *slice)) {
    plan.sliceAttributes.insert(slice.get());
    news = true;
  }
  for (const auto& [id, grid] : slice->getGrids()) {
    if (!id || !grid) continue;
    const bool gridKnown = stored.contains(grid.referenceBlock()) &&
                           !(shared && shared->grids.count({time, id->getName()}));
    bool gridNews = !gridKnown || (shared && shared->added.count({time, id->getName()}));
    if (!stored.sameAttributes(grid.referenceBlock(), *grid)) {
      plan.gridAttributes.insert(grid.get());
      gridNews = true;
    }
    const std::string& gridName = id->getName();
    forEachPlacedField(*grid, [&](const SkeletonID&, const Skeleton&, const FieldID& fieldID,
                                  const StrongPtr<Field>& field) {
      if (!gridKnown || !stored.contains(field.referenceBlock()) ||
          (shared && shared->fields.count({time, gridName, fieldID.Name()}))) {
        plan.fields[field.get()];
        gridNews = true;
        return;
      }
      Selection::FieldChoice fresh{true, {}};
      forEachFragment(*field, [&](const auto&, const StrongPtr<CreativeArrayBase>& creator) {
        if (creator && !stored.contains(creator.referenceBlock())) {
          fresh.fragments.insert(creator.get());
        }
      });
      if (!fresh.fragments.empty()) {
        plan.fields[field.get()] = std::move(fresh);
        gridNews = true;
      }
    });
    if (!gridNews) continue;
    plan.grids.emplace(grid.get(), gridKnown);
    news = true;
  }
  if (news) plan.slices.insert(slice.get());
}

}  // namespace

Selection planSync(const Bundle& bundle, const Stored& stored, bool readPending,
                   const std::set<double>* times, const SharedWrites* shared) {
  Selection plan;
  plan.bundleAttributes = !stored.sameBundleAttributes(bundle);
  if (!times) {
    for (const auto& [time, slice] : bundle.getSlices())
      planSlice(slice, stored, readPending, shared, plan);
    return plan;
  }
  std::set<double> visited = *times;
  if (shared) {
    for (const auto& [time, name] : shared->grids) visited.insert(time);
    for (const auto& [time, grid, field] : shared->fields) visited.insert(time);
    for (const auto& [time, name] : shared->added) visited.insert(time);
  }
  for (const double time : visited) {
    const auto found = bundle.getSlices().find(time);
    if (found != bundle.getSlices().end()) {
      planSlice(found->second, stored, readPending, shared, plan);
    }
  }
  return plan;
}

SharedWrites sharedWritesOf(const Selection& plan) {
  SharedWrites shared;
  for (const Slice* slice : plan.slices) {
    for (const auto& [id, grid] : slice->getGrids()) {
      const auto chosen = grid ? plan.grids.find(grid.get()) : plan.grids.end();
      if (!id || chosen == plan.grids.end()) continue;
      if (!chosen->second) {
        shared.grids.emplace(slice->getTime(), id->getName());
        continue;
      }
      const std::string& gridName = id->getName();
      shared.added.emplace(slice->getTime(), gridName);
      forEachPlacedField(*grid, [&](const SkeletonID&, const Skeleton&, const FieldID& fieldID,
                                    const StrongPtr<Field>& field) {
        const auto fieldChoice = plan.fields.find(field.get());
        if (fieldChoice != plan.fields.end() && !fieldChoice->second.partial) {
          shared.fields.emplace(slice->getTime(), gridName, fieldID.Name());
        }
      });
    }
  }
  return shared;
}

bool nothingIn(const Selection& plan) {
  return plan.slices.empty() && !plan.bundleAttributes;
}

/// Lists what a completed sync wrote.
void recordWritten(const Bundle& bundle, const Selection& plan, Stored& stored) {
  if (plan.bundleAttributes) stored.setBundleAttributes(bundle);
  for (const Slice* written : plan.slices) {
    const auto found = bundle.getSlices().find(written->getTime());
    if (found == bundle.getSlices().end() || found->second.get() != written) continue;
    const SlicePtr& slice = found->second;
    stored.add(slice.referenceBlock(), slice.get());
    for (const auto& [id, grid] : slice->getGrids()) {
      if (grid && plan.grids.count(grid.get())) stored.addGrid(grid);
    }
  }
}

// ---- the descriptor ----------------------------------------------------------------

namespace {

/// A part as the series' descriptor (beside the journal) names it.
std::string partReference(const std::string& journal, const std::string& token, uint64_t number) {
  return partPath(fileNameOf(journal), token, number);
}

}  // namespace

void describePart(SeriesDescriptor& descriptor, const std::string& journal,
                  const std::string& token, uint64_t number, const Index& index,
                  const std::vector<std::string>& structures) {
  const std::optional<std::string> failed = failureOf([&] {
    descriptor.add(describedWrite(index, structures, partReference(journal, token, number)));
  });
  require(!failed,
          "the data are synced, but the descriptor " + descriptorOf(journal) +
              " could not be updated (the next sync writes it anew): " + failed.value_or(""));
}

std::unique_ptr<SeriesDescriptor> descriptorFor(const std::string& journal,
                                                const std::string& token) {
  return std::make_unique<SeriesDescriptor>(
      descriptorOf(journal), token,
      [journal](const std::function<void(const DescribedFile&)>& visit) {
        // One part open at a time: a series may have more than a process may hold.
        const Journal now = readJournal(journal);
        for (const Journal::Record& record : now.records) {
          const std::string path = partPath(journal, now.token, record.number);
          try {
            visit(describedSource(Source::open(path),
                                  partReference(journal, now.token, record.number)));
          } catch (const Failure& failure) {
            throw Failure(path + ": " + failure.what());
          }
        }
      });
}

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

namespace {

/// Opens the journal `path` for appending, locked against other writers.
int openLocked(const std::string& path) {
  const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  requireSystem(fd >= 0, "cannot open");
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    close(fd);
    require(error != EWOULDBLOCK, "bound already, by another binding or process");
    errno = error;
    throw Failure(systemError("cannot lock"));
  }
  return fd;
}

}  // namespace

JournalTail::JournalTail(const std::string& path) : path_(path), fd_(openLocked(path)) {
  try {
    read_ = readJournal(path);
    // A record cut short by a crash goes before the next is appended.
    struct stat status {};
    requireSystem(fstat(fd_, &status) == 0, "cannot read " + path);
    if (static_cast<uint64_t>(status.st_size) > read_.validBytes) {
      requireSystem(ftruncate(fd_, static_cast<off_t>(read_.validBytes)) == 0 && fsync(fd_) == 0,
                    "cannot cut the unfinished record off " + path);
    }
  } catch (...) {
    close(fd_);
    throw;
  }
  next_ = read_.records.empty() ? 0 : read_.records.back().number + 1;
  length_ = read_.validBytes;
}

JournalTail::~JournalTail() {
  close(fd_);
}

void JournalTail::append(const Index& index) {
  try {
    const std::vector<uint8_t> record = encodeRecord(next_, index);
    writeAt(fd_, record.data(), record.size(), length_, path_);
    requireSystem(fsync(fd_) == 0, "cannot flush " + path_);
    length_ += record.size();
    ++next_;
  } catch (...) {
    // The record may not stay: the journal ends where it did.
    if (ftruncate(fd_, static_cast<off_t>(length_)) == 0) fsync(fd_);
    throw;
  }
}

namespace {

// ---- the binding -------------------------------------------------------------------

/// A bundle bound to a series: every sync adds one part with what is new.
class SeriesBinding : public ReportingBinding {
 public:
  SeriesBinding(std::string journal, std::unique_ptr<JournalTail> tail,
                std::shared_ptr<Stored> stored, StrongPtr<StorageTransformations> transformations,
                StrongPtr<Ostrak::LoaderProgress> progress, bool walkAll,
                std::unique_ptr<SeriesDescriptor> descriptor)
      : walkAll_(walkAll),
        journal_(std::move(journal)),
        tail_(std::move(tail)),
        stored_(std::move(stored)),
        transformations_(std::move(transformations)),
        progress_(std::move(progress)),
        descriptor_(std::move(descriptor)) {}

  int32_t synchronize(const Bundle& bundle, const StrongPtr<MemBase, Cacheable>&,
                      Ostrak::Intercube&) override {
    Session session;
    const std::optional<std::string> error = failureOf([&] { sync(bundle); });
    error_ = error ? journal_ + ": " + *error : "";
    if (!error) return 1;
    if (progress_) progress_->message(error_);
    return 0;
  }

 private:
  void sync(const Bundle& bundle) {
    // Only slices that changed since the last sync are visited, so that a
    // sync costs the same at any length of the series. They stay listed
    // until a sync has written them.
    for (double time : bundle.takeChangedSlices()) changed_.insert(time);
    const Selection plan = planSync(bundle, *stored_, false, walkAll_ ? nullptr : &changed_);
    if (nothingIn(plan)) {
      walkAll_ = false;
      changed_.clear();
      if (descriptor_ && descriptor_->stale()) descriptor_->rewrite();
      return;
    }
    const std::string& token = tail_->journal().token;
    const uint64_t number = tail_->next();
    const std::string part = partPath(journal_, token, number);
    Index written;
    std::vector<std::string> structures;
    writeBundle(bundle, part, {transformations_, {}, {}, &plan, &written, &structures});
    try {
      tail_->append(written);
    } catch (...) {
      std::remove(part.c_str());  // a part without its record may not stay
      throw;
    }
    recordWritten(bundle, plan, *stored_);
    walkAll_ = false;
    changed_.clear();
    if (descriptor_) describePart(*descriptor_, journal_, token, number, written, structures);
  }

  // The first sync visits every slice: changes before the binding are not
  // listed.
  bool walkAll_;
  std::set<double> changed_;
  std::string journal_;
  std::unique_ptr<JournalTail> tail_;
  std::shared_ptr<Stored> stored_;
  StrongPtr<StorageTransformations> transformations_;
  StrongPtr<Ostrak::LoaderProgress> progress_;
  std::unique_ptr<SeriesDescriptor> descriptor_;  // null: none is written
};

/// Writes a journal of no records (or of the one record `first`) as `path`,
/// atomically.
void writeJournal(const std::string& path, const std::string& token,
                  const std::vector<uint8_t>& first) {
  Encoder header;
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

void requireUnbound(const std::string& path) {
  if (isJournal(path)) close(openLocked(path));
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

bool SharedWrites::names(double time) const {
  const auto grid = grids.lower_bound({time, ""});
  const auto field = fields.lower_bound({time, "", ""});
  const auto addedTo = added.lower_bound({time, ""});
  return (grid != grids.end() && grid->first == time) ||
         (field != fields.end() && std::get<0>(*field) == time) ||
         (addedTo != added.end() && addedTo->first == time);
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
    bytes = readAll(fd);
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

std::vector<Part> partsOf(const std::string& journal, const Journal& read) {
  auto pool = std::make_shared<PartSource::Pool>(OpenPartsLimit);
  std::vector<Part> parts;
  for (const Journal::Record& record : read.records) {
    parts.push_back(
        {std::make_shared<PartSource>(partPath(journal, read.token, record.number), pool),
         record.index});
  }
  return parts;
}

void bindSeries(Bundle& bundle, const std::string& path, bool existing,
                const StrongPtr<StorageTransformations>& transformations,
                const StrongPtr<Ostrak::LoaderProgress>& progress, std::shared_ptr<Stored> stored) {
  Session session;
  require(!path.empty(), "no file name");
  bundle.trackSliceChanges();
  std::error_code error;
  fs::create_directory(partsFolder(path), error);
  require(!error, "cannot make the folder " + partsFolder(path) + ": " + error.message());
  if (!existing) requireUnbound(path);
  // A bundle that still reads parts of the series it replaces keeps them.
  const bool readsReplacedParts = !existing && stored;
  if (!existing) {
    // A new series replaces whatever `path` was once its first sync is complete.
    stored = std::make_shared<Stored>();
    const std::string token = newToken();
    const Selection plan = planSync(bundle, *stored, true);
    Index written;
    const std::string first = partPath(path, token, 0);
    writeBundle(bundle, first, {transformations, progress, {}, &plan, &written});
    try {
      startJournal(path, token, written);
    } catch (...) {
      std::remove(first.c_str());
      throw;
    }
    recordWritten(bundle, plan, *stored);
  }
  // Slices still to be read from other files are read now, to be written.
  if (existing && !stored) {
    for (const auto& [time, slice] : bundle.getSlices()) {
      if (slice) slice->accessSlice();
    }
  }
  if (existing && !isJournal(path)) {
    // A single file becomes the first part of a series: linked under the
    // part's name first, so that it is never missing under either name.
    require(looksLikeHdf5(path), "neither a bundle file nor a bundle series");
    const std::shared_ptr<Source> source = Source::open(path);
    const std::string token = newToken();
    const std::string first = partPath(path, token, 0);
    requireSystem(link(path.c_str(), first.c_str()) == 0, "cannot link " + first);
    try {
      startJournal(path, token, source->index());
    } catch (...) {
      std::remove(first.c_str());
      throw;
    }
    if (!stored) {
      stored = std::make_shared<Stored>();
      attachSource(bundle, source, progress, stored);
    }
  }
  auto tail = std::make_unique<JournalTail>(path);
  const Journal& read = tail->journal();
  if (!stored) {
    stored = std::make_shared<Stored>();
    attachParts(bundle, partsOf(path, read), progress, stored);
  }
  removeStrayParts(path, read, readsReplacedParts);
  std::unique_ptr<SeriesDescriptor> descriptor;
  if (writesXdmf(transformations.get())) {
    descriptor = descriptorFor(path, read.token);
    std::vector<const Index*> described;
    for (const Journal::Record& record : read.records) described.push_back(&record.index);
    descriptor->open(described);
  }
  StrongPtr<SeriesBinding> binding(new SeriesBinding(path, std::move(tail), stored, transformations,
                                                     progress, existing, std::move(descriptor)));
  if (existing && binding->synchronize(bundle, {}, bundle) == 0) {
    throw Failure(binding->lastError());
  }
  bundle.setStorage(StrongPtr<StorageBinding>(binding));
}

void writeSeriesDescriptor(const std::string& journal) {
  // Not while a binding writes the series: it keeps the descriptor itself.
  const int fd = openLocked(journal);
  try {
    descriptorFor(journal, readJournal(journal).token)->rewrite();
  } catch (...) {
    close(fd);
    throw;
  }
  close(fd);
}

bool lastSyncOf(const StorageBinding* binding, std::string& error) {
  const auto* series = dynamic_cast<const ReportingBinding*>(binding);
  if (!series) return false;
  error = series->lastError();
  return true;
}

}  // namespace Quaril::H5::detail
