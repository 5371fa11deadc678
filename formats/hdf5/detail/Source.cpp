#include "formats/hdf5/detail/Source.hpp"

#include <algorithm>
#include <cmath>
#include <set>

#include <nlohmann/json.hpp>

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

std::vector<std::string> readNames(hid_t index) {
  const std::vector<uint8_t> bytes = readVector<uint8_t>(index, layout::GridNames);
  const std::vector<uint64_t> ends = readVector<uint64_t>(index, layout::GridNameEnds);
  std::vector<std::string> names;
  uint64_t begin = 0;
  std::set<std::string> seen;
  for (uint64_t end : ends) {
    require(end >= begin && end <= bytes.size(), "index: grid name ends are out of order");
    names.emplace_back(bytes.begin() + static_cast<std::ptrdiff_t>(begin),
                       bytes.begin() + static_cast<std::ptrdiff_t>(end));
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

void readEntries(hid_t index, Index& result) {
  const std::vector<int64_t> rows =
      readVector<int64_t>(index, layout::Entries, layout::EntryColumns);
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
  if (linkExists(index, layout::EntryBytes)) {
    result.entryBytes = readVector<uint64_t>(index, layout::EntryBytes);
    require(result.entryBytes.size() == result.entries.size(),
            "index: entry sizes do not match the entries");
  } else {
    result.entryBytes.assign(result.entries.size(), 0);
  }
}

/// The ends of the structure texts, checked against the texts' data set.
std::vector<uint64_t> readStructureEnds(hid_t index, hid_t structures) {
  std::vector<uint64_t> ends = readVector<uint64_t>(index, layout::StructureEnds);
  const std::vector<hsize_t> extents = datasetExtents(structures);
  require(extents.size() == 1, "index: \"structures\" is not one-dimensional");
  Datatype type = datasetType(structures);
  require(H5Tget_class(type.id()) == H5T_INTEGER && H5Tget_size(type.id()) == 1,
          "index: \"structures\" does not hold bytes");
  for (size_t row = 0; row < ends.size(); ++row) {
    require(ends[row] <= extents[0] && (row == 0 || ends[row] >= ends[row - 1]),
            "index: structure ends are out of order");
  }
  return ends;
}

Index readIndex(hid_t file, hid_t structures) {
  Index result;
  Group index = openGroup(file, layout::IndexGroup);
  result.structureEnds = readStructureEnds(index.id(), structures);
  result.times = readVector<double>(index.id(), layout::Times);
  checkTimes(result.times);
  result.names = readNames(index.id());
  result.parents = readVector<int64_t>(index.id(), layout::GridParents);
  require(result.parents.size() == result.names.size(),
          "index: " + std::to_string(result.parents.size()) + " grid parents for " +
              std::to_string(result.names.size()) + " grid names");
  checkParents(result.parents);
  readEntries(index.id(), result);
  result.bundleAttributes = linkExists(file, layout::BundleAttributes);
  result.sliceAttributes.assign(result.times.size(), false);
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
      require(used == name.size() && row < result.times.size(),
              "slices: " + inQuotes(name) + " names no time of the index");
      result.sliceAttributes[row] = true;
    }
  }
  return result;
}

}  // namespace

std::shared_ptr<Source> Source::open(const std::string& path) {
  Session session;
  require(looksLikeHdf5(path), "not an HDF5 file");
  std::shared_ptr<Source> source(new Source(path, openFile(path)));
  hsize_t bytes = 0;
  check(H5Fget_filesize(source->file(), &bytes), "cannot read the file's size");
  source->fileBytes_ = bytes;
  source->raw_ = rawFileOf(source->file(), bytes);
  checkGlobalHeaps(source->raw_);
  checkFormat(source->file());
  source->structures_ =
      openDataset(openGroup(source->file(), layout::IndexGroup).id(), layout::Structures);
  source->index_ = readIndex(source->file(), source->structures_.id());
  if (linkExists(source->file(), layout::ArraysGroup)) {
    source->arrays_ = openGroup(source->file(), layout::ArraysGroup);
  }
  return source;
}

std::shared_ptr<const Json> Source::structure(uint64_t row) {
  auto found = parsed_.find(row);
  if (found != parsed_.end()) return found->second;
  const uint64_t begin = row == 0 ? 0 : index_.structureEnds[row - 1];
  const std::vector<uint8_t> text =
      readBytes(structures_.id(), begin, index_.structureEnds[row] - begin, "a structure");
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

std::optional<uint64_t> Source::checksum(uint64_t entry, const std::string& dataset) {
  if (!checksumsRead_) {
    Group index = openGroup(file(), layout::IndexGroup);
    if (linkExists(index.id(), layout::ArrayChecksums)) {
      std::vector<uint64_t> sums = readVector<uint64_t>(index.id(), layout::ArrayChecksums);
      std::vector<uint64_t> begins = readVector<uint64_t>(index.id(), layout::ChecksumBegins);
      require(begins.size() == index_.entries.size() + 1 && begins.front() == 0 &&
                  std::is_sorted(begins.begin(), begins.end()) && begins.back() == sums.size(),
              "index: the array checksums do not fit its entries");
      checksums_ = std::move(sums);
      checksumBegins_ = std::move(begins);
    }
    checksumsRead_ = true;
  }
  if (checksumBegins_.empty() || entry + 1 >= checksumBegins_.size() || dataset.empty() ||
      dataset.size() > 18 || dataset.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  const uint64_t at = checksumBegins_[entry] + std::stoull(dataset);
  if (at >= checksumBegins_[entry + 1]) return std::nullopt;
  return checksums_[at];
}

Source::~Source() {
  Session session;
  try {
    file_.close("");
  } catch (const Failure&) {
    // A file opened for reading has nothing to lose on closing.
  }
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
