#include "formats/hdf5/detail/Source.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <set>

#include <nlohmann/json.hpp>

#include "formats/hdf5/detail/Files.hpp"
#include "formats/hdf5/detail/Layout.hpp"
#include "formats/hdf5/detail/Shape.hpp"

namespace Quaril::H5::detail {

namespace {

using Json = nlohmann::json;

// ---- the index -------------------------------------------------------------------

void checkFormat(hid_t file) {
  require(attributeExists(file, layout::FormatAttribute),
          "an HDF5 file, but not a bundle file (no \"format\" attribute on its root)");
  const std::string format = readString(file, layout::FormatAttribute);
  require(format == layout::FormatName,
          "an HDF5 file, but not a bundle file (format " + inQuotes(format) + ")");
  const std::vector<int32_t> version = readNumbers<int32_t>(file, layout::VersionAttribute, 2);
  require(version[0] <= layout::VersionMajor,
          "written in layout version " + std::to_string(version[0]) + "." +
              std::to_string(version[1]) + ", newer than this reader's " +
              std::to_string(layout::VersionMajor) + "." + std::to_string(layout::VersionMinor));
  require(version[0] >= 1, "unknown layout version " + std::to_string(version[0]));
}

void checkTimes(const std::vector<double>& times) {
  for (size_t row = 0; row < times.size(); ++row) {
    if (std::isnan(times[row])) throw Failure("index: time " + std::to_string(row) + " is NaN");
    if (row == 0 || times[row] > times[row - 1]) continue;
    require(times[row] != times[row - 1],
            "index: the time " + timeText(times[row]) + " appears twice");
    throw Failure("index: times are not in ascending order");
  }
}

/// The index's data sets as they are stored, before they are checked.
struct IndexColumns {
  std::vector<double> times;
  std::vector<uint8_t> nameBytes;
  std::vector<uint64_t> nameEnds;
  std::vector<int64_t> parents;
  std::vector<int64_t> rows;  ///< EntryColumns per entry
  std::optional<std::vector<uint64_t>> entryBytes;
  std::vector<uint64_t> structureEnds;
  uint64_t structureBytes = 0;
  std::vector<uint64_t> attributedSlices;
  bool bundleAttributes = false;
};

std::vector<std::string> namesOf(const IndexColumns& columns) {
  std::vector<std::string> names;
  uint64_t begin = 0;
  std::set<std::string> seen;
  for (uint64_t end : columns.nameEnds) {
    require(end >= begin && end <= columns.nameBytes.size(),
            "index: grid name ends are out of order");
    names.emplace_back(columns.nameBytes.begin() + static_cast<std::ptrdiff_t>(begin),
                       columns.nameBytes.begin() + static_cast<std::ptrdiff_t>(end));
    require(seen.insert(names.back()).second,
            "index: the grid name " + inQuotes(names.back()) + " appears twice");
    begin = end;
  }
  return names;
}

void checkParents(const std::vector<int64_t>& parents) {
  const int64_t count = static_cast<int64_t>(parents.size());
  for (int64_t row = 0; row < count; ++row) {
    // Following parents from any row must end within `count` steps.
    int64_t at = row;
    for (int64_t steps = 0; at >= 0; ++steps) {
      require(parents[static_cast<size_t>(at)] >= -1 && parents[static_cast<size_t>(at)] < count,
              "index: a grid parent is out of range");
      require(steps <= count, "index: grid parents form a cycle");
      at = parents[static_cast<size_t>(at)];
    }
  }
}

void checkEntries(const std::vector<int64_t>& rows, Index& result) {
  const uint64_t times = result.times.size();
  const uint64_t names = result.names.size();
  const uint64_t structures = result.structureEnds.size();
  result.sliceBegin.assign(times + 1, 0);
  // The time row after the last one each name was seen at (0: not yet).
  std::vector<uint64_t> seenBefore(names, 0);
  result.entries.reserve(rows.size() / layout::EntryColumns);
  for (size_t i = 0; i + 2 < rows.size(); i += layout::EntryColumns) {
    auto within = [](int64_t row, uint64_t count) {
      return row >= 0 && static_cast<uint64_t>(row) < count;
    };
    auto fail = [i](const std::string& problem) {
      throw Failure("index: entry " + std::to_string(i / layout::EntryColumns) + " " + problem);
    };
    if (!within(rows[i], times)) fail("names a time that does not exist");
    if (!within(rows[i + 1], names)) fail("names a grid that does not exist");
    if (!within(rows[i + 2], structures)) fail("names a structure that does not exist");
    const IndexEntry read{static_cast<uint64_t>(rows[i]), static_cast<uint64_t>(rows[i + 1]),
                          static_cast<uint64_t>(rows[i + 2])};
    if (!result.entries.empty() && read.timeRow < result.entries.back().timeRow) {
      throw Failure("index: entries are not ordered by time");
    }
    if (seenBefore[read.nameRow] == read.timeRow + 1) {
      throw Failure("index: a grid appears twice at one time");
    }
    seenBefore[read.nameRow] = read.timeRow + 1;
    result.entries.push_back(read);
    ++result.sliceBegin[read.timeRow + 1];
  }
  for (size_t row = 1; row <= times; ++row) result.sliceBegin[row] += result.sliceBegin[row - 1];
}

/// The index the columns describe, checked. Throws Failure naming the
/// first inconsistency.
Index checkedIndex(IndexColumns columns) {
  Index result;
  for (size_t row = 0; row < columns.structureEnds.size(); ++row) {
    require(columns.structureEnds[row] <= columns.structureBytes &&
                (row == 0 || columns.structureEnds[row] >= columns.structureEnds[row - 1]),
            "index: structure ends are out of order");
  }
  result.structureEnds = std::move(columns.structureEnds);
  result.times = std::move(columns.times);
  checkTimes(result.times);
  result.names = namesOf(columns);
  result.parents = std::move(columns.parents);
  require(result.parents.size() == result.names.size(),
          "index: " + std::to_string(result.parents.size()) + " grid parents for " +
              std::to_string(result.names.size()) + " grid names");
  checkParents(result.parents);
  checkEntries(columns.rows, result);
  if (columns.entryBytes) {
    result.entryBytes = std::move(*columns.entryBytes);
    require(result.entryBytes.size() == result.entries.size(),
            "index: entry sizes do not match the entries");
  } else {
    result.entryBytes.assign(result.entries.size(), 0);
  }
  result.bundleAttributes = columns.bundleAttributes;
  result.sliceAttributes.assign(result.times.size(), false);
  for (uint64_t row : columns.attributedSlices) {
    require(row < result.times.size(),
            "slices: " + inQuotes(std::to_string(row)) + " names no time of the index");
    result.sliceAttributes[row] = true;
  }
  return result;
}

/// The index as its data sets in the file `file` hold it.
Index readIndex(hid_t file, hid_t structures) {
  IndexColumns columns;
  Group index = openGroup(file, layout::IndexGroup);
  columns.structureEnds = readVector<uint64_t>(index.id(), layout::StructureEnds);
  const std::vector<hsize_t> extents = datasetExtents(structures);
  require(extents.size() == 1, "index: \"structures\" is not one-dimensional");
  Datatype type = datasetType(structures);
  require(H5Tget_class(type.id()) == H5T_INTEGER && H5Tget_size(type.id()) == 1,
          "index: \"structures\" does not hold bytes");
  columns.structureBytes = extents[0];
  columns.times = readVector<double>(index.id(), layout::Times);
  columns.nameBytes = readVector<uint8_t>(index.id(), layout::GridNames);
  columns.nameEnds = readVector<uint64_t>(index.id(), layout::GridNameEnds);
  columns.parents = readVector<int64_t>(index.id(), layout::GridParents);
  columns.rows = readVector<int64_t>(index.id(), layout::Entries, layout::EntryColumns);
  if (linkExists(index.id(), layout::EntryBytes)) {
    columns.entryBytes = readVector<uint64_t>(index.id(), layout::EntryBytes);
  }
  columns.bundleAttributes = linkExists(file, layout::BundleAttributes);
  if (linkExists(file, layout::SlicesGroup)) {
    Group slices = openGroup(file, layout::SlicesGroup);
    for (const std::string& name : linkNames(slices.id())) {
      size_t used = 0;
      unsigned long row = 0;
      try {
        row = std::stoul(name, &used);
      } catch (const std::exception&) {
        used = 0;
      }
      require(used == name.size(), "slices: " + inQuotes(name) + " names no time of the index");
      columns.attributedSlices.push_back(row);
    }
  }
  return checkedIndex(std::move(columns));
}

/// The index as the directory places it; none when a run is missing, does
/// not match its checksum, or the index is not consistent (the file's data
/// sets then say what is wrong).
std::optional<Index> directoryIndex(int fd, const Directory& directory) {
  IndexColumns columns;
  const auto take = [&](auto& into, Run run) {
    auto read =
        readRun<typename std::decay_t<decltype(into)>::value_type>(fd, directory, run, true);
    if (read) into = std::move(*read);
    return read.has_value();
  };
  std::vector<uint64_t> entryBytes;
  if (!take(columns.times, Run::Times) || !take(columns.nameBytes, Run::GridNames) ||
      !take(columns.nameEnds, Run::GridNameEnds) || !take(columns.parents, Run::GridParents) ||
      !take(columns.rows, Run::Entries) || !take(entryBytes, Run::EntryBytes) ||
      !take(columns.structureEnds, Run::StructureEnds) ||
      !take(columns.attributedSlices, Run::AttributedSlices) ||
      columns.rows.size() % layout::EntryColumns != 0) {
    return std::nullopt;
  }
  columns.entryBytes = std::move(entryBytes);
  columns.structureBytes = directory[Run::Structures].bytes;
  columns.bundleAttributes = directory.bundleAttributes;
  try {
    return checkedIndex(std::move(columns));
  } catch (const Failure&) {
    return std::nullopt;
  }
}

}  // namespace

std::shared_ptr<Source> Source::open(const std::string& path) {
  Session session;
  std::shared_ptr<Source> source(new Source(path));
  source->descriptor_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  requireSystem(source->descriptor_ >= 0, "cannot open " + path);
  struct stat status {};
  requireSystem(fstat(source->descriptor_, &status) == 0, "cannot read the size of " + path);
  source->fileBytes_ = static_cast<uint64_t>(status.st_size);
  require(looksLikeHdf5(source->descriptor_, source->fileBytes_), "not an HDF5 file");
  if (std::optional<Directory> directory = readDirectory(source->descriptor_, source->fileBytes_)) {
    if (std::optional<Index> index = directoryIndex(source->descriptor_, *directory)) {
      source->directory_ = *directory;
      source->index_ = std::move(*index);
      return source;
    }
  }
  const hid_t file = source->file();
  source->index_ = readIndex(file, source->structures_.id());
  return source;
}

hid_t Source::file() const {
  if (file_) return file_.id();
  // The file we opened, through its descriptor where the system names one:
  // a save may have renamed a new file over the path since.
  const std::string named = "/proc/self/fd/" + std::to_string(descriptor_);
  File file = openFile(::access(named.c_str(), R_OK) == 0 ? named : path_, path_);
  hsize_t bytes = 0;
  check(H5Fget_filesize(file.id(), &bytes), "cannot read the file's size");
  RawFile raw = rawFileOf(file.id(), bytes);
  // The path may name another file by now: a save renames its new file over it.
  struct stat ours {};
  struct stat theirs {};
  require(
      bytes == fileBytes_ && fstat(descriptor_, &ours) == 0 &&
          (raw.descriptor < 0 || (fstat(raw.descriptor, &theirs) == 0 &&
                                  ours.st_dev == theirs.st_dev && ours.st_ino == theirs.st_ino)),
      "the file was replaced while it was read");
  checkGlobalHeaps(raw);
  checkFormat(file.id());
  Dataset structures =
      openDataset(openGroup(file.id(), layout::IndexGroup).id(), layout::Structures);
  Group arrays;
  if (linkExists(file.id(), layout::ArraysGroup))
    arrays = openGroup(file.id(), layout::ArraysGroup);
  file_ = std::move(file);
  raw_ = raw;
  structures_ = std::move(structures);
  arrays_ = std::move(arrays);
  return file_.id();
}

hid_t Source::arrays() const {
  file();
  return arrays_.id();
}

std::shared_ptr<const Json> Source::structure(uint64_t row) {
  auto found = parsed_.find(row);
  if (found != parsed_.end()) return found->second;
  const uint64_t begin = row == 0 ? 0 : index_.structureEnds[row - 1];
  const uint64_t count = index_.structureEnds[row] - begin;
  if (directory_ && !structureTexts_) {
    // All of them at once, checked: a few texts that a time series shares.
    structureTexts_ = readRun<uint8_t>(descriptor_, *directory_, Run::Structures, true);
    if (!structureTexts_ || structureTexts_->size() < index_.structureEnds.back()) {
      structureTexts_ = std::vector<uint8_t>();
      file();  // not as the directory says: read through the data set
    }
  }
  std::vector<uint8_t> text;
  if (structures_) {
    text = readBytes(structures_.id(), begin, count, "a structure");
  } else {
    text.assign(structureTexts_->begin() + static_cast<std::ptrdiff_t>(begin),
                structureTexts_->begin() + static_cast<std::ptrdiff_t>(begin + count));
  }
  std::shared_ptr<const Json> parsed;
  try {
    parsed = std::make_shared<const Json>(Json::parse(text.begin(), text.end()));
  } catch (const Json::exception& error) {
    throw Failure("its structure: " + jsonReason(error.what(), error.id));
  }
  require(parsed->is_object(), "its structure is not a JSON object");
  // Time series share a few structures; a file of distinct ones is not kept whole.
  if (parsed_.size() >= 256) parsed_.clear();
  parsed_.emplace(row, parsed);
  return parsed;
}

std::shared_ptr<const GridShape> Source::shape(uint64_t row) {
  auto found = shapes_.find(row);
  if (found != shapes_.end()) return found->second;
  auto made = std::make_shared<const GridShape>(shapeOf(*structure(row)));
  if (shapes_.size() >= 256) shapes_.clear();
  shapes_.emplace(row, made);
  return made;
}

void Source::readChecksums() {
  checksumsRead_ = true;
  // Entry e's checksums are sums[begins[e], begins[e + 1]).
  const auto fitEntries = [&](const std::vector<uint64_t>& sums,
                              const std::vector<uint64_t>& begins) {
    return begins.size() == index_.entries.size() + 1 && begins.front() == 0 &&
           std::is_sorted(begins.begin(), begins.end()) && begins.back() == sums.size();
  };
  if (directory_) {
    auto sums = readRun<uint64_t>(descriptor_, *directory_, Run::ArrayChecksums, true);
    auto begins = readRun<uint64_t>(descriptor_, *directory_, Run::ChecksumBegins, true);
    auto places = readRun<uint64_t>(descriptor_, *directory_, Run::ArrayPlaces, true);
    if (sums && begins && places && places->size() == sums->size()) {
      if (begins->empty()) return;  // a file without checksums
      if (fitEntries(*sums, *begins)) {
        checksums_ = std::move(*sums);
        checksumBegins_ = std::move(*begins);
        places_ = std::move(*places);
        return;
      }
    }
    // Not as the directory says: the data sets tell what is wrong.
  }
  Group index = openGroup(file(), layout::IndexGroup);
  if (!linkExists(index.id(), layout::ArrayChecksums)) return;
  std::vector<uint64_t> sums = readVector<uint64_t>(index.id(), layout::ArrayChecksums);
  std::vector<uint64_t> begins = readVector<uint64_t>(index.id(), layout::ChecksumBegins);
  require(fitEntries(sums, begins), "index: the array checksums do not fit its entries");
  checksums_ = std::move(sums);
  checksumBegins_ = std::move(begins);
}

std::optional<uint64_t> Source::checksumRow(uint64_t entry, const std::string& dataset) {
  if (!checksumsRead_) readChecksums();
  if (checksumBegins_.empty() || entry + 1 >= checksumBegins_.size() || dataset.empty() ||
      dataset.size() > 18 || dataset.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  const uint64_t at = checksumBegins_[entry] + std::stoull(dataset);
  if (at >= checksumBegins_[entry + 1]) return std::nullopt;
  return at;
}

std::optional<uint64_t> Source::checksum(uint64_t entry, const std::string& dataset) {
  const std::optional<uint64_t> row = checksumRow(entry, dataset);
  return row ? std::optional<uint64_t>(checksums_[*row]) : std::nullopt;
}

std::optional<Source::Direct> Source::direct(uint64_t entry, const std::string& dataset,
                                             uint64_t bytes) {
  if (!directory_ || bytes == 0) return std::nullopt;
  const std::optional<uint64_t> row = checksumRow(entry, dataset);
  if (!row || places_.empty() || places_[*row] < DirectoryRoom || places_[*row] > fileBytes_ ||
      bytes > fileBytes_ - places_[*row]) {
    return std::nullopt;
  }
  return Direct{descriptor_, places_[*row], checksums_[*row]};
}

Source::~Source() {
  Session session;
  try {
    file_.close("");
  } catch (const Failure&) {
    // A file opened for reading has nothing to lose on closing.
  }
  if (descriptor_ >= 0) ::close(descriptor_);
}

PartSource::PartSource(std::shared_ptr<Source> open)
    : path_(open->path()), source_(std::move(open)) {}

PartSource::PartSource(std::string path, std::shared_ptr<Pool> pool)
    : path_(std::move(path)), pool_(std::move(pool)) {}

PartSource::~PartSource() {
  Session session;
  if (pool_ && source_) pool_->open.erase(place_);
  source_.reset();
}

std::shared_ptr<Source> PartSource::get() {
  if (!pool_) return source_;
  if (source_) {
    pool_->open.splice(pool_->open.begin(), pool_->open, place_);
    return source_;
  }
  source_ = Source::open(path_);
  pool_->open.push_front(this);
  place_ = pool_->open.begin();
  // The least recently used part closes once nothing holds it any more.
  while (pool_->open.size() > pool_->limit) {
    PartSource* oldest = pool_->open.back();
    pool_->open.pop_back();
    oldest->source_.reset();
  }
  return source_;
}

}  // namespace Quaril::H5::detail
