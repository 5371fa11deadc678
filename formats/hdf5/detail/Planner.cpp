#include "formats/hdf5/detail/Planner.hpp"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>
#include <unordered_map>

#include <nlohmann/json.hpp>

#include "formats/hdf5/Options.hpp"
#include "formats/hdf5/detail/Checksum.hpp"
#include "formats/hdf5/detail/Layout.hpp"
#include "formats/hdf5/detail/Problems.hpp"
#include "formats/hdf5/detail/Values.hpp"
#include "grid/GridWalk.hpp"

namespace Quaril::H5::detail {

namespace {

using Json = nlohmann::json;
using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

/// One grid of one slice to be written.
struct Entry {
  double time;
  uint64_t timeRow;
  StrongPtr<GridID> id;
  StrongPtr<Grid> grid;
  uint64_t nameRow = 0;
  uint64_t structureRow = 0;
};

/// Where a fragment sits, as the hooks are told.
struct Place {
  double time;
  const std::string& gridName;
  WeakPtr<Grid> grid;
  SkeletonID skeleton;
  std::string representation;
};

/// What `base` is: a chart, or a skeleton of the same grid.
Json describeBase(const Grid& grid, const BaseSpace* base) {
  if (auto* chart = dynamic_cast<const ChartID*>(base)) {
    return {{layout::Chart, chart->Name()},
            {layout::ChartDimension, chart->getDimension()},
            {layout::ChartCartesian, chart->isCartesian()}};
  }
  SkeletonID found(-1, -1);
  grid.iterate([&](const SkeletonID& id, const StrongPtr<Skeleton>& skeleton) {
    if (skeleton.get() == base) found = id;
    return !found.isValid();
  });
  require(found.isValid(),
          "a representation relative to neither a chart nor a skeleton of its grid");
  return {{layout::RelativeSkeleton, {found.dimension(), found.index()}}};
}

Json describeUniform(const UniformCartesianArray& uniform, const std::string& what) {
  const auto origin = uniform.origin();
  const auto spacing = uniform.spacing();
  for (double value : {origin.x, origin.y, origin.z, spacing.x, spacing.y, spacing.z}) {
    require(std::isfinite(value), what + ": uniform positions need a finite origin and spacing");
  }
  return {{layout::Origin, {origin.x, origin.y, origin.z}},
          {layout::Spacing, {spacing.x, spacing.y, spacing.z}},
          {layout::Extents, uniform.extents()}};
}

/// Halves the largest chunk extent until a chunk fits HDF5's limit and
/// the policy's byte limit.
void limitChunk(const StorageTransformations& policy, std::vector<hsize_t>& chunk,
                size_t elementBytes) {
  const uint64_t limit = policy.getChunkByteLimit() > 0
                             ? static_cast<uint64_t>(policy.getChunkByteLimit())
                             : (uint64_t{1} << 31);
  auto chunkBytes = [&] {
    uint64_t total = elementBytes;
    for (hsize_t extent : chunk) total *= extent;
    return total;
  };
  while (chunkBytes() > limit) {
    auto largest = std::max_element(chunk.begin(), chunk.end());
    if (*largest <= 1) break;
    *largest = (*largest + 1) / 2;
  }
}

/// Chunking and filters of one data set, as the policy asks.
Storage storageFor(StorageTransformations& policy, const Place& place, const Field& field,
                   const std::string& fieldName, CreativeArrayBase& creator,
                   const StrongPtr<FragmentID>& fragment, const StrongPtr<MemBase, Cacheable>& data,
                   const std::vector<hsize_t>& extents, uint64_t bytes) {
  Storage storage;
  if (bytes == 0) return storage;
  const FilterSettings filter =
      policy.getFilterSettings(place.time, place.gridName, place.grid, place.skeleton,
                               place.representation, field, fieldName, creator, fragment, data);
  const bool small = filter.minimumBytes >= 0 && bytes < static_cast<uint64_t>(filter.minimumBytes);
  uint32_t bits = small ? 0 : filter.filter;
  int level = static_cast<int>(filter.level);
  const StorageOptions& options = StorageOptions::of(&policy);
  if (filter.filter == 0 && options.getCodec() != Codec::None) {
    static constexpr uint32_t BitOf[] = {0, FilterDeflate, FilterZstd, FilterLz4};
    bits = BitOf[static_cast<int>(options.getCodec())] | FilterShuffle;
    level = options.getCodecLevel();
  } else if (filter.filter == 0 && policy.getCompressionLevel() > 0) {
    bits = FilterDeflate | FilterShuffle;
    level = std::min(policy.getCompressionLevel(), 9);
  }
  if (bits & FilterZstd) {
    storage.zstd = level >= 1 && level <= 22 ? level : 3;
  } else if (bits & FilterLz4) {
    storage.lz4 = true;
  } else if (bits & FilterDeflate) {
    storage.deflate = level >= 0 && level <= 9 ? level : 6;
  }
  storage.shuffle = (bits & FilterShuffle) != 0;
  const DynamicSize& size = data->getSize();
  const DynamicSize chunk =
      policy.computeChunkSize(size, static_cast<uint32_t>(data->getTypeDescriptor().size()));
  const bool filtered = storage.deflate >= 0 || storage.shuffle || storage.zstd >= 0 || storage.lz4;
  if (!filtered && (chunk == size || chunk.rank() != size.rank())) return storage;
  storage.chunk.assign(extents.size(), 1);
  for (int d = 0; d < size.rank(); ++d) {
    const uint64_t wanted = chunk.rank() == size.rank() ? chunk[d] : size[d];
    storage.chunk[static_cast<size_t>(size.rank() - 1 - d)] =
        std::clamp<uint64_t>(wanted, 1, std::max<uint64_t>(size[d], 1));
  }
  if (extents.size() > static_cast<size_t>(size.rank())) storage.chunk.back() = extents.back();
  limitChunk(policy, storage.chunk, data->getTypeDescriptor().size());
  return storage;
}

/// Walks a bundle as a write takes it, handing each piece to a sink.
class Planner {
 public:
  Planner(const Bundle& bundle, const std::string& path, const WriteRequest& request,
          PlanSink& sink)
      : bundle_(bundle),
        target_(path),
        request_(request),
        sink_(sink),
        policy_(request.transformations
                    ? request.transformations
                    : StrongPtr<StorageTransformations>(new StorageTransformations)) {}

  void run() {
    collect();
    refuseLosses(bundle_, policy_.get(), request_.gridNames, request_.series, request_.progress);
    sink_.begin();
    std::vector<uint64_t> entryBytes;
    for (size_t row = 0; row < entries_.size(); ++row) {
      entryBytes.push_back(planGrid(row));
      if (request_.progress) request_.progress->progress(row + 1, entries_.size());
    }
    sliceAttributes_.assign(times_.size(), false);
    if (policy_->getSaveAttributes()) planSliceAndBundleAttributes();
    Index index;
    report(index, entryBytes);
    sink_.finish(index, structures_);
    if (request_.written) *request_.written = std::move(index);
    if (request_.structures) {
      request_.structures->clear();
      for (const std::string* text : structures_) request_.structures->push_back(*text);
    }
  }

  /// What was written, as a reader would find it in the index.
  void report(Index& index, const std::vector<uint64_t>& entryBytes) const {
    index.times = times_;
    index.names.assign(nameRows_.size(), "");
    for (const auto& [name, row] : nameRows_) index.names[row] = name;
    index.parents = parentRows();
    index.entries.clear();
    index.sliceBegin.assign(times_.size() + 1, 0);
    for (const Entry& entry : entries_) {
      index.entries.push_back({entry.timeRow, entry.nameRow, entry.structureRow});
      ++index.sliceBegin[entry.timeRow + 1];
    }
    for (size_t row = 1; row < index.sliceBegin.size(); ++row) {
      index.sliceBegin[row] += index.sliceBegin[row - 1];
    }
    index.entryBytes = entryBytes;
    index.sliceAttributes = sliceAttributes_;
    index.bundleAttributes = bundleAttributes_;
  }

 private:
  // ---- what is written --------------------------------------------------------

  void collect() {
    std::set<std::string> names;
    const Selection* selection = request_.selection;
    for (const auto* entry : slicesToWrite()) {
      const auto& [time, slice] = *entry;
      if (!slice || !policy_->isSaveableTime(time)) continue;
      slice->accessSlice();
      const size_t before = entries_.size();
      for (const auto& [id, grid] : slice->getGrids()) {
        if (!id || !grid) continue;
        if (request_.gridNames && !request_.gridNames->contains(id->getName())) continue;
        if (selection && !selection->grids.count(grid.get())) continue;
        entries_.push_back({time, times_.size(), id, grid});
        for (const GridID* named = id.get(); named; named = named->getParent().get()) {
          if (!names.insert(named->getName()).second) break;
        }
      }
      if (request_.gridNames && entries_.size() == before) continue;
      times_.push_back(time);
      slices_.push_back(slice.get());
      policy_->writtenTimes().push_back(time);
    }
    for (const std::string& name : names) nameRows_.emplace(name, nameRows_.size());
    for (Entry& entry : entries_) entry.nameRow = nameRows_.at(entry.id->getName());
    // One slice's entries in name order, so that equal bundles give equal files.
    std::stable_sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
      return a.timeRow != b.timeRow ? a.timeRow < b.timeRow : a.nameRow < b.nameRow;
    });
  }

  /// The bundle's slices, or those of the selection (looked up by time, so
  /// that a small selection costs the same in a bundle of any length), in
  /// time order.
  std::vector<const Bundle::SliceTable::value_type*> slicesToWrite() const {
    std::vector<const Bundle::SliceTable::value_type*> slices;
    if (!request_.selection) {
      for (const auto& entry : bundle_.getSlices()) slices.push_back(&entry);
      return slices;
    }
    for (const Slice* slice : request_.selection->slices) {
      const auto found = bundle_.getSlices().find(slice->getTime());
      if (found != bundle_.getSlices().end() && found->second.get() == slice) {
        slices.push_back(&*found);
      }
    }
    std::sort(slices.begin(), slices.end(),
              [](const auto* a, const auto* b) { return a->first < b->first; });
    return slices;
  }

  /// The parent row of each name row, -1 for none.
  std::vector<int64_t> parentRows() const {
    std::vector<int64_t> parents(nameRows_.size(), -1);
    for (const Entry& entry : entries_) {
      for (const GridID* named = entry.id.get(); named; named = named->getParent().get()) {
        if (const GridID* parent = named->getParent().get()) {
          parents[nameRows_.at(named->getName())] =
              static_cast<int64_t>(nameRows_.at(parent->getName()));
        }
      }
    }
    return parents;
  }

  void planSliceAndBundleAttributes() {
    const Selection* selection = request_.selection;
    bundleAttributes_ = selection ? selection->bundleAttributes : bundle_.numberOfAttributes() > 0;
    if (bundleAttributes_) sink_.bundleAttributes(bundle_.attributes());
    for (size_t row = 0; row < slices_.size(); ++row) {
      const bool written = selection ? selection->sliceAttributes.count(slices_[row]) > 0
                                     : slices_[row]->numberOfAttributes() > 0;
      if (!written) continue;
      sliceAttributes_[row] = true;
      sink_.sliceAttributes(row, slices_[row]->attributes());
    }
  }

  // ---- one grid ---------------------------------------------------------------

  /// Plans entry `row`: one data set per stored array, its attributes and
  /// the structure that says what they are. Returns the bytes of data.
  uint64_t planGrid(size_t row) {
    const Entry& entry = entries_[row];
    policy_->writtenGrids().insert(entry.id);
    const Grid& grid = *entry.grid;
    GridPlan writing{row, 0, 0};
    Json skeletons = Json::array();
    grid.iterate([&](const SkeletonID& id, const StrongPtr<Skeleton>& skeleton) {
      Json representations = Json::array();
      skeleton->iterate([&](const WeakPtr<BaseSpace>& base, const StrongPtr<Representation>& rep) {
        Json described = describeBase(grid, base.get());
        Place place{entry.time, entry.id->getName(), WeakPtr<Grid>(entry.grid), id,
                    described.contains(layout::Chart)
                        ? described[layout::Chart].get<std::string>()
                        : SkeletonID(described[layout::RelativeSkeleton][0].get<int>(),
                                     described[layout::RelativeSkeleton][1].get<int>())
                              .Name()};
        described[layout::Fields] = planFields(writing, *rep, place);
        representations.push_back(std::move(described));
        return true;
      });
      skeletons.push_back({{layout::Dimension, id.dimension()},
                           {layout::SkeletonIndex, id.index()},
                           {layout::Elements, skeleton->getNumberOfElements()},
                           {layout::Refinement, skeleton->getIsotropicRefinementFactor()},
                           {layout::Representations, std::move(representations)}});
      return true;
    });
    Json structure{{layout::Skeletons, std::move(skeletons)}};
    sink_.grid(row, grid);
    if (request_.selection && request_.selection->grids.at(&grid)) {
      structure[layout::Partial] = true;
    }
    const bool attributes = request_.selection ? request_.selection->gridAttributes.count(&grid) > 0
                                               : grid.numberOfAttributes() > 0;
    if (policy_->getSaveAttributes() && attributes) {
      structure[layout::HasAttributes] = true;
      sink_.gridAttributes(row, grid.attributes());
    }
    std::string text;
    try {
      text = structure.dump();
    } catch (const Json::exception& error) {
      throw Failure("grid \"" + entry.id->getName() + "\": its names must be UTF-8 texts (" +
                    error.what() + ")");
    }
    // Time series repeat their grids' structures: each text is stored once.
    auto [known, added] = structureRows_.emplace(std::move(text), structures_.size());
    if (added) structures_.push_back(&known->first);
    entries_[row].structureRow = known->second;
    return writing.bytes;
  }

  /// What is planned of one grid so far.
  struct GridPlan {
    size_t row;
    int datasets;
    uint64_t bytes;
  };

  Json planFields(GridPlan& writing, const Representation& rep, const Place& place) {
    Json fields = Json::array();
    rep.iterate([&](const StrongPtr<FieldID>& id, const StrongPtr<Field>& field) {
      const Selection::FieldChoice* choice = nullptr;
      if (request_.selection) {
        auto chosen = request_.selection->fields.find(field.get());
        if (chosen == request_.selection->fields.end()) return true;
        choice = &chosen->second;
      }
      if (!policy_->isSaveableField(*id, *field, place.grid, place.gridName, place.time,
                                    place.representation, place.skeleton)) {
        return true;
      }
      policy_->writtenFields().insert(id);
      // In name order, so that a file does not depend on where its bundle
      // happened to sit in memory.
      std::vector<std::pair<StrongPtr<FragmentID>, StrongPtr<CreativeArrayBase>>> held;
      forEachFragment(*field, [&](const StrongPtr<FragmentID>& fragment,
                                  const StrongPtr<CreativeArrayBase>& creator) {
        if (choice && choice->partial && !choice->fragments.count(creator.get())) return;
        held.emplace_back(fragment, creator);
      });
      std::stable_sort(held.begin(), held.end(), [](const auto& a, const auto& b) {
        return (a.first ? a.first->Name() : "") < (b.first ? b.first->Name() : "");
      });
      Json fragments = Json::array();
      for (const auto& [fragment, creator] : held) {
        Json written = planFragment(writing, *id, *field, fragment, creator, place);
        if (!written.is_null()) fragments.push_back(std::move(written));
      }
      fields.push_back({{layout::FieldName, id->Name()},
                        {layout::ElementType, field->getElementDescriptor().name()},
                        {layout::Fragments, std::move(fragments)}});
      if (choice && choice->partial) fields.back()[layout::Partial] = true;
      return true;
    });
    return fields;
  }

  // ---- one fragment -------------------------------------------------------------

  /// Plans one fragment and returns its description; null when the policy
  /// leaves it out.
  Json planFragment(GridPlan& writing, const FieldID& id, const Field& field,
                    const StrongPtr<FragmentID>& fragment,
                    const StrongPtr<CreativeArrayBase>& creator, const Place& place) {
    if (!creator) return {};
    const std::string& fieldName = id.Name();
    if (policy_->SkipStorage(place.time, place.gridName, place.grid, place.skeleton,
                             place.representation, field, fieldName, *creator, fragment) ||
        !policy_->isSaveableFragment(fragment, creator, id, field, place.grid, place.gridName,
                                     place.time, place.representation, place.skeleton)) {
      return {};
    }
    policy_->setFieldPacking(place.time, place.gridName, place.grid, place.skeleton,
                             place.representation, field, fieldName, *creator, fragment);
    const bool wasResident = creator->isResident();
    StrongPtr<MemBase, Cacheable> data = creator->getData();
    const std::string what = "field \"" + fieldName + "\"" +
                             (fragment ? " fragment \"" + fragment->Name() + "\"" : "") +
                             " of grid \"" + place.gridName + "\"";
    if (!data.valid() && StorageOptions::of(policy_.get()).getSkipDamaged()) {
      if (request_.progress)
        request_.progress->message("left out, unreadable: " + creator->lastError());
      return {};
    }
    require(data.valid(), what + ": its data cannot be produced (" + creator->lastError() + ")");
    Json described = Json::object();
    if (fragment) described[layout::Fragment] = fragment->Name();
    uint64_t bytes = 0;
    if (auto* uniform = dynamic_cast<const UniformCartesianArray*>(data.get())) {
      described[layout::Uniform] = describeUniform(*uniform, what);
    } else {
      const std::string name = std::to_string(writing.datasets++);
      bytes = planArray(writing, name, fieldName, field, *creator, fragment, data, place, what);
      described[layout::Dataset] = name;
      described[layout::Extents] = data->getSize().extents();
    }
    if (!wasResident) creator->dropCache();
    writing.bytes += bytes;
    policy_->setBytesWritten(policy_->getBytesWritten() + bytes);
    auto saved = [policy = policy_, creator, fragment, &id, &field, place] {
      policy->isSaved(creator, fragment, id, field, place.grid, place.gridName, place.time,
                      place.representation, place.skeleton);
    };
    sink_.saved(std::move(saved));
    return described;
  }

  uint64_t planArray(const GridPlan& writing, const std::string& name, const std::string& fieldName,
                     const Field& field, CreativeArrayBase& creator,
                     const StrongPtr<FragmentID>& fragment,
                     const StrongPtr<MemBase, Cacheable>& data, const Place& place,
                     const std::string& what) {
    const layout::StoredType stored = layout::storedType(data->getTypeDescriptor());
    require(stored.component >= 0,
            what + ": elements of type " + data->getTypeDescriptor().name() + " cannot be stored");
    require(data->rawData() != nullptr, what + ": its data are not stored in memory");
    const DynamicSize& size = data->getSize();
    require(size.rank() >= 1 && size.rank() <= 4,
            what + ": arrays of rank " + std::to_string(size.rank()) + " cannot be stored");
    Plan::Array array;
    array.entry = writing.row;
    array.dataset = name;
    array.fileType = array.memoryType = stored.component;
    array.extents = layout::fileExtents(size, stored);
    array.data = data;
    array.what = what;
    if (H5Tequal(stored.component, H5T_NATIVE_DOUBLE) > 0 &&
        policy_->WriteAsSinglePrecision(fieldName, {})) {
      array.fileType = H5T_NATIVE_FLOAT;
    }
    const uint64_t bytes = data->nElements() * data->getTypeDescriptor().size();
    array.storage = storageFor(*policy_, place, field, fieldName, creator, fragment, data,
                               array.extents, bytes);
    auto [externalFile, externalPath] = policy_->getExternalLocation(
        place.time, place.gridName, place.skeleton, place.representation, fieldName);
    if (!externalFile.empty()) {
      array.external.reference = policy_->getExternalFileReference(target_, externalFile);
    }
    if (!array.external.reference.empty()) {
      std::string inside =
          policy_->getExternalLocationPrefix(place.time, place.gridName, place.skeleton,
                                             place.representation, fieldName) +
          externalPath;
      if (inside.empty() || inside == "/") {
        inside = "grid" + std::to_string(writing.row) + "/" + name;
      }
      require(externalPlaces_.insert(externalFile + "\n" + inside).second,
              what + ": another array of this save went to " + externalFile + " \"" + inside +
                  "\" already");
      array.external.file = externalFile;
      array.external.inside = inside;
    }
    if (StorageOptions::of(policy_.get()).getChecksums()) {
      array.checksum = storedChecksum(data->rawData(),
                                      data->nElements() * static_cast<uint64_t>(stored.components),
                                      array.memoryType, array.fileType);
    }
    if (stored.components == 1 && policy_->ComputeRangeAttributeOnWriting(fieldName, creator)) {
      array.range = valueRange(*data);
    }
    sink_.array(std::move(array));
    return bytes;
  }

  const Bundle& bundle_;
  std::string target_;
  const WriteRequest& request_;
  PlanSink& sink_;
  StrongPtr<StorageTransformations> policy_;
  std::vector<Entry> entries_;
  std::vector<double> times_;
  std::vector<const Slice*> slices_;
  std::vector<bool> sliceAttributes_;
  bool bundleAttributes_ = false;
  std::map<std::string, uint64_t> nameRows_;
  std::unordered_map<std::string, uint64_t> structureRows_;
  std::vector<const std::string*> structures_;  // keys of structureRows_, by row
  std::set<std::string> externalPlaces_;
};

/// Keeps what a collective save's ranks write themselves, as they planned it.
class PlanKeeper : public PlanSink {
 public:
  explicit PlanKeeper(Plan& plan) : plan_(plan) {}

  void begin() override {}
  void array(Plan::Array array) override {
    require(array.external.reference.empty(),
            array.what + ": a collective save cannot place data in other files");
    require(array.storage.deflate < 0 && !array.storage.shuffle && array.storage.zstd < 0 &&
                !array.storage.lz4,
            array.what + ": a collective save cannot filter data (switch the filters off)");
    plan_.arrays.push_back(std::move(array));
  }
  void saved(std::function<void()> call) override { plan_.whenWritten.push_back(std::move(call)); }
  void grid(uint64_t entry, const Grid& grid) override {
    if (isFragmented(grid)) plan_.fragmented.insert(entry);
  }
  void gridAttributes(uint64_t entry, const Plan::Attributes& attributes) override {
    plan_.gridAttributes[entry] = attributes;
  }
  void bundleAttributes(const Plan::Attributes& attributes) override {
    plan_.bundleAttributes = attributes;
  }
  void sliceAttributes(uint64_t timeRow, const Plan::Attributes& attributes) override {
    plan_.sliceAttributes[timeRow] = attributes;
  }
  void finish(const Index&, const std::vector<const std::string*>&) override {}

 private:
  /// Whether a field of `grid` is held in named fragments.
  static bool isFragmented(const Grid& grid) {
    bool fragmented = false;
    forEachField(grid, [&](const StrongPtr<Field>& field) {
      forEachFragment(*field, [&](const StrongPtr<FragmentID>& fragment, const auto&) {
        fragmented = fragmented || fragment;
      });
    });
    return fragmented;
  }

  Plan& plan_;
};

}  // namespace

void requireWritableVersion(const WriteRequest& request) {
  if (!request.transformations) return;
  const auto& version = request.transformations->getLayoutVersion();
  require((version[0] == 0 && version[1] == 0) || version[0] == layout::VersionMajor,
          "layout version " + std::to_string(version[0]) + "." + std::to_string(version[1]) +
              " cannot be written; this writer makes version " +
              std::to_string(layout::VersionMajor) + "." + std::to_string(layout::VersionMinor));
}

void planWrite(const Bundle& bundle, const std::string& path, const WriteRequest& request,
               PlanSink& sink) {
  requireWritableVersion(request);
  Planner(bundle, path, request, sink).run();
}

void planBundle(const Bundle& bundle, const std::string& path, const WriteRequest& request) {
  Session session;
  require(request.plan != nullptr, "no plan to fill");
  PlanKeeper keeper(*request.plan);
  planWrite(bundle, path, request, keeper);
}

}  // namespace Quaril::H5::detail
