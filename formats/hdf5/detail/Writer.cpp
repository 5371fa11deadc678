#include "formats/hdf5/detail/Writer.hpp"

#include <deque>
#include <filesystem>
#include <future>
#include <map>
#include <optional>
#include <variant>

#include "formats/hdf5/detail/Checksum.hpp"
#include "formats/hdf5/detail/Codecs.hpp"
#include "formats/hdf5/detail/Files.hpp"
#include "formats/hdf5/detail/Layout.hpp"
#include "formats/hdf5/detail/Workers.hpp"

namespace Quaril::H5::detail {

namespace {

namespace fs = std::filesystem;

/// Places the data set `dataset`, just written with `values`, as `run`.
template <class T>
void placeRun(Directory* directory, Run run, const Dataset& dataset, const std::vector<T>& values) {
  if (!directory) return;
  const uint64_t bytes = values.size() * sizeof(T);
  const haddr_t offset = bytes > 0 ? H5Dget_offset(dataset.id()) : HADDR_UNDEF;
  // A run with bytes but no offset makes the directory unreadable, as it must.
  (*directory)[run] = {offset == HADDR_UNDEF ? 0 : offset, bytes,
                       bytesChecksum(values.data(), bytes)};
}

/// The bytes of the array's values as they are in memory.
uint64_t storedBytes(const Plan::Array& array) {
  uint64_t elements = 1;
  for (hsize_t extent : array.extents) elements *= extent;
  return elements * H5Tget_size(array.memoryType);
}

/// Whether the array goes into its file as one chunk through zstd or LZ4
/// (after the shuffle or not) alone, which the writer compresses itself.
bool packedByUs(const Plan::Array& array) {
  const Storage& storage = array.storage;
  const uint64_t bytes = storedBytes(array);
  return array.external.reference.empty() && (storage.zstd >= 0 || storage.lz4) &&
         storage.deflate < 0 && storage.chunk == array.extents && bytes > 0 &&
         bytes < (uint64_t{1} << 32) && H5Tequal(array.fileType, array.memoryType) > 0;
}

/// The array's one chunk as its filters make it.
std::vector<uint8_t> packed(const Plan::Array& array) {
  const uint64_t bytes = storedBytes(array);
  const auto* from = static_cast<const uint8_t*>(array.data->rawData());
  std::vector<uint8_t> shuffled;
  if (array.storage.shuffle) {
    shuffled.resize(bytes);
    shuffle(from, bytes, H5Tget_size(array.memoryType), shuffled.data());
    from = shuffled.data();
  }
  return array.storage.zstd >= 0 ? zstdCompress(from, bytes, array.storage.zstd)
                                 : lz4Compress(from, bytes, 0);
}

/// Writes what the planner hands over into the open file `file`, the new
/// file of the target `path`, as it comes.
class FileWriter : public PlanSink {
 public:
  FileWriter(hid_t file, const std::string& path)
      : file_(file), directory_(fs::path(path).parent_path()) {}

  void begin() override {
    writeRoot(file_);
    arrays_ = createGroup(file_, layout::ArraysGroup);
  }

  void array(Plan::Array array) override {
    hid_t parent = arrays_.id();
    const std::string linkName = layout::arrayName(array.entry, array.dataset);
    std::string datasetName = linkName;
    Group externalGroup;
    if (!array.external.reference.empty()) {
      externalGroup = externalParent(array.external.file, array.external.inside, datasetName);
      parent = externalGroup.id();
      linkExternal(arrays_.id(), linkName, array.external.reference, array.external.inside);
    }
    Dataset written;
    if (packedByUs(array)) {
      // Compressed by the workers while this thread goes on; written in order.
      written = writeArrayDataset(parent, datasetName, array, nullptr, array.storage);
      if (!workers_) workers_.emplace();
      pending_.push_back({std::move(written),
                          workers_->run<std::vector<uint8_t>>([array] { return packed(array); }),
                          array.what});
      while (pending_.size() > 2 * workers_->size()) writeOldest();
    } else {
      written = writeArrayDataset(parent, datasetName, array, array.data->rawData(), array.storage);
    }
    if (array.checksum) {
      const uint64_t number = std::stoull(array.dataset);
      checksums_[array.entry].emplace(number, *array.checksum);
      // Where the array's bytes lie as they were in memory; 0: not so.
      places_[array.entry].emplace(
          number,
          array.external.reference.empty() && written
              ? contiguousPlace(written.id(), array.memoryType, storedBytes(array)).value_or(0)
              : 0);
    } else {
      allChecksummed_ = false;
    }
  }

  void saved(std::function<void()> call) override { call(); }
  void grid(uint64_t, const Grid&) override {}

  void gridAttributes(uint64_t entry, const Plan::Attributes& attributes) override {
    writeAttributeGroup(file_, grids_, layout::GridsGroup, entry, attributes);
  }
  void bundleAttributes(const Plan::Attributes& attributes) override {
    Group group = createGroup(file_, layout::BundleAttributes);
    writeAttributes(group.id(), attributes);
  }
  void sliceAttributes(uint64_t timeRow, const Plan::Attributes& attributes) override {
    writeAttributeGroup(file_, slices_, layout::SlicesGroup, timeRow, attributes);
    attributedSlices_.push_back(timeRow);
  }

  void finish(const Index& index, const std::vector<const std::string*>& structures) override {
    while (!pending_.empty()) writeOldest();
    writeIndexGroup(file_, index, structures, true, &placed_);
    if (allChecksummed_) {
      writeChecksums(file_, checksums_, index.entries.size(), true, &places_, &placed_);
    }
    if (!attributedSlices_.empty()) {
      Group group = openGroup(file_, layout::IndexGroup);
      placeRun(&placed_, Run::AttributedSlices,
               writeVector<uint64_t>(group.id(), layout::AttributedSlices, attributedSlices_),
               attributedSlices_);
    }
    placed_.bundleAttributes = index.bundleAttributes;
    for (auto& [name, external] : externalFiles_) external.close("cannot close " + name);
  }

  /// Writes the oldest chunk the workers compress, once they have.
  void writeOldest() {
    Pending& oldest = pending_.front();
    writeWholeChunk(oldest.dataset.id(), oldest.packed.get(), oldest.what);
    pending_.pop_front();
  }

  /// The directory of the file, once finished; its size is not known yet.
  const Directory& directory() const { return placed_; }

 private:
  /// The group in the external file `file` that is to hold `inside`, whose
  /// last part becomes `datasetName`; an old dataset there is replaced.
  Group externalParent(const std::string& file, const std::string& inside,
                       std::string& datasetName) {
    fs::path location = fs::path(file).is_absolute() ? fs::path(file) : directory_ / file;
    auto found = externalFiles_.find(location.string());
    if (found == externalFiles_.end()) {
      File opened = fs::exists(location) ? openFileForWriting(location.string())
                                         : createFile(location.string());
      found = externalFiles_.emplace(location.string(), std::move(opened)).first;
    }
    Group group(H5Gopen2(found->second.id(), "/", H5P_DEFAULT), "cannot open " + file);
    std::string rest = inside;
    size_t slash;
    while ((slash = rest.find('/')) != std::string::npos) {
      std::string part = rest.substr(0, slash);
      rest = rest.substr(slash + 1);
      if (!part.empty()) group = openOrCreateGroup(group.id(), part);
    }
    require(!rest.empty(), "the external location \"" + inside + "\" names no data set");
    removeLink(group.id(), rest);
    datasetName = rest;
    return group;
  }

  /// An array's data set, made, whose chunk the workers compress.
  struct Pending {
    Dataset dataset;
    std::future<std::vector<uint8_t>> packed;
    std::string what;
  };

  hid_t file_;
  fs::path directory_;
  // Declared before the pending chunks: the workers outlive them.
  std::optional<Workers> workers_;
  std::deque<Pending> pending_;
  Group arrays_;
  Group grids_;
  Group slices_;
  std::map<std::string, File> externalFiles_;
  ChecksumsByEntry checksums_;  ///< of the arrays written
  ChecksumsByEntry places_;     ///< where the arrays written lie, numbered alike
  bool allChecksummed_ = true;
  std::vector<uint64_t> attributedSlices_;
  Directory placed_;
};

}  // namespace

void writeRoot(hid_t file) {
  writeNumbers<int32_t>(file, layout::VersionAttribute,
                        {layout::VersionMajor, layout::VersionMinor});
  writeString(file, layout::FormatAttribute, layout::FormatName);
}

void writeAttributes(hid_t object, const Plan::Attributes& attributes) {
  for (const auto& [name, value] : attributes) {
    require(!name.empty() && name.find('\0') == std::string::npos && name != ".",
            "an attribute named \"" + name + "\" cannot be stored");
    std::visit(
        [&, &name = name](const auto& item) {
          using T = std::decay_t<decltype(item)>;
          if constexpr (std::is_same_v<T, std::string>) {
            writeString(object, name, item);
          } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
            writeStrings(object, name, item);
          } else if constexpr (std::is_same_v<T, int64_t> || std::is_same_v<T, double>) {
            writeNumber<T>(object, name, item);
          } else {
            writeNumbers<typename T::value_type>(object, name, item);
          }
        },
        value);
  }
}

void writeIndexGroup(hid_t file, const Index& index,
                     const std::vector<const std::string*>& structures, bool withData,
                     Directory* directory) {
  Group group = createGroup(file, layout::IndexGroup);
  const auto put = [&](Run run, const char* name, const auto& values, size_t columns = 0) {
    placeRun(directory, run, writeVector(group.id(), name, values, columns, withData), values);
  };
  put(Run::Times, layout::Times, index.times);
  std::vector<uint8_t> bytes;
  std::vector<uint64_t> ends;
  for (const std::string& name : index.names) {
    bytes.insert(bytes.end(), name.begin(), name.end());
    ends.push_back(bytes.size());
  }
  put(Run::GridNames, layout::GridNames, bytes);
  put(Run::GridNameEnds, layout::GridNameEnds, ends);
  put(Run::GridParents, layout::GridParents, index.parents);
  std::vector<int64_t> rows;
  for (const IndexEntry& entry : index.entries) {
    rows.push_back(static_cast<int64_t>(entry.timeRow));
    rows.push_back(static_cast<int64_t>(entry.nameRow));
    rows.push_back(static_cast<int64_t>(entry.structureRow));
  }
  put(Run::Entries, layout::Entries, rows, layout::EntryColumns);
  put(Run::EntryBytes, layout::EntryBytes, index.entryBytes);
  std::vector<uint8_t> texts;
  std::vector<uint64_t> textEnds;
  for (const std::string* text : structures) {
    texts.insert(texts.end(), text->begin(), text->end());
    textEnds.push_back(texts.size());
  }
  put(Run::Structures, layout::Structures, texts);
  put(Run::StructureEnds, layout::StructureEnds, textEnds);
}

void writeChecksums(hid_t file, const ChecksumsByEntry& checksums, size_t entries, bool withData,
                    const ChecksumsByEntry* places, Directory* directory) {
  if (!checksums.empty() && checksums.rbegin()->first >= entries) return;
  std::vector<uint64_t> sums, begins, offsets;
  for (size_t entry = 0; entry < entries; ++entry) {
    begins.push_back(sums.size());
    const auto found = checksums.find(entry);
    if (found == checksums.end()) continue;
    for (const auto& [number, sum] : found->second) {
      if (number != sums.size() - begins.back()) return;
      sums.push_back(sum);
      if (places) offsets.push_back(places->at(entry).at(number));
    }
  }
  begins.push_back(sums.size());
  Group index = openGroup(file, layout::IndexGroup);
  placeRun(directory, Run::ArrayChecksums,
           writeVector<uint64_t>(index.id(), layout::ArrayChecksums, sums, 0, withData), sums);
  placeRun(directory, Run::ChecksumBegins,
           writeVector<uint64_t>(index.id(), layout::ChecksumBegins, begins, 0, withData), begins);
  if (places && directory) {
    placeRun(directory, Run::ArrayPlaces,
             writeVector<uint64_t>(index.id(), layout::ArrayPlaces, offsets, 0, withData), offsets);
  }
}

void writeAttributeGroup(hid_t file, Group& parent, const char* parentName, uint64_t row,
                         const Plan::Attributes& attributes) {
  if (!parent) parent = createGroup(file, parentName);
  Group group = createGroup(parent.id(), std::to_string(row));
  writeAttributes(group.id(), attributes);
}

Dataset writeArrayDataset(hid_t parent, const std::string& name, const Plan::Array& array,
                          const void* data, const Storage& storage) {
  Datatype fileType = copyType(array.fileType);
  Dataset dataset =
      writeDataset(parent, name, fileType.id(), array.memoryType, array.extents, data, storage);
  if (array.range) {
    writeNumber<double>(dataset.id(), layout::Minimum, array.range->first);
    writeNumber<double>(dataset.id(), layout::Maximum, array.range->second);
  }
  return dataset;
}

void writeBundle(const Bundle& bundle, const std::string& path, const WriteRequest& request) {
  Session session;
  require(!path.empty(), "no file name");
  requireWritableVersion(request);
  replaceFile(
      path,
      [&](const std::string& temporary) {
        File file = createFile(temporary, DirectoryRoom);
        Directory directory;
        {
          // Its groups close before the file, so that closing writes all.
          FileWriter writer(file.id(), path);
          planWrite(bundle, path, request, writer);
          directory = writer.directory();
        }
        file.close("cannot finish " + path);
        directory.fileBytes = fs::file_size(temporary);
        writeDirectory(temporary, directory);
        if (request.whenComplete) request.whenComplete();
      },
      request.whenReplaced, request.flush);
}

}  // namespace Quaril::H5::detail
