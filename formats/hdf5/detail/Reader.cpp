#include "formats/hdf5/detail/Reader.hpp"

#include <algorithm>
#include <cmath>
#include <iterator>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

#include "field/CreativeArrayBase.hpp"
#include "formats/hdf5/Format.hpp"
#include "formats/hdf5/detail/Layout.hpp"
#include "formats/hdf5/detail/Shape.hpp"
#include "formats/hdf5/detail/Stored.hpp"
#include "grid/GridConstructors.hpp"
#include "grid/GridWalk.hpp"
#include "ostrak/Diagnostics.hpp"

namespace Quaril::H5::detail {

namespace {

using Json = nlohmann::json;
using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

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
            "index: the time " + std::to_string(times[row]) + " appears twice");
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

// ---- attributes ------------------------------------------------------------------

/// Replaces the attributes of `into` by those of `object`; on a failure
/// `into` keeps the ones it had.
void readAttributes(hid_t object, Ostrak::Attributes& into) {
  Ostrak::Attributes read;
  for (const std::string& name : attributeNames(object)) {
    const AttributeShape shape = attributeShape(object, name);
    // A scalar is one value, a one-dimensional attribute a vector (even of one).
    auto setNumbers = [&](auto values) {
      if (shape.scalar) {
        read.setAttribute(name, values.at(0));
      } else {
        read.setAttribute(name, std::move(values));
      }
    };
    if (shape.typeClass == H5T_STRING) {
      if (shape.scalar) {
        read.setAttribute(name, readString(object, name));
      } else {
        read.setAttribute(name, readStrings(object, name));
      }
    } else if (shape.typeClass == H5T_INTEGER) {
      setNumbers(readNumbers<int64_t>(object, name));
    } else if (shape.typeClass == H5T_FLOAT) {
      setNumbers(readNumbers<double>(object, name));
    } else {
      throw Failure("attribute " + inQuotes(name) + " is neither a number nor a text");
    }
  }
  into = read;
}

// ---- one grid ----------------------------------------------------------------------

/// Checks that a data set of `bytes` bytes could be what a file of
/// `fileBytes` bytes stores, before anything is allocated for it.
void checkStoredSize(hid_t dataset, uint64_t bytes, uint64_t fileBytes, const std::string& what) {
  const uint64_t stored = H5Dget_storage_size(dataset);
  // Deflate packs at most about a thousand to one.
  require(bytes <= stored * 1100 + 65536, [&] {
    return what + ": its extents ask for " + std::to_string(bytes) + " bytes, the file stores " +
           std::to_string(stored);
  });
  require(stored <= fileBytes, [&] { return what + ": it claims more bytes than its file holds"; });
}

/// The fields and arrays that a slice's readers made.
struct Made {
  std::vector<StrongPtr<Field>> fields;
  std::vector<StrongPtr<CreativeArrayBase>> creators;
};

/// Builds one grid, or adds to it, from an entry's structure, with data
/// creators that read each array on the first request.
class GridReader {
 public:
  GridReader(const std::shared_ptr<PartSource>& part, Source& source, uint64_t entry, Grid& grid,
             const StrongPtr<GridID>& id, double time,
             const StrongPtr<Ostrak::LoaderProgress>& progress)
      : part_(part),
        source_(source),
        entry_(entry),
        grid_(grid),
        id_(id),
        time_(time),
        vetoes_(Ostrak::dynamic_pointer_cast<BundleLoaderProgress>(progress)),
        choice_(Ostrak::dynamic_pointer_cast<FragmentChoice>(progress)) {}

  void read() {
    shape_ = source_.shape(source_.index().entries[entry_].structureRow);
    if (shape_->hasAttributes) {
      Group group = openGroup(source_.file(), layout::gridPath(entry_));
      readAttributes(group.id(), grid_);
    }
    collectFragments();
    std::vector<StrongPtr<Skeleton>> made;
    for (const GridShape::Skeleton& skeleton : shape_->skeletons) {
      made.push_back(makeSkeleton(skeleton));
    }
    for (size_t i = 0; i < made.size(); ++i) {
      std::vector<const Representation*> seen;
      for (const GridShape::Representation& rep : shape_->skeletons[i].representations) {
        readRepresentation(rep, *made[i], seen);
      }
    }
  }

  /// Every array of the grid, for checking them all.
  const std::vector<StrongPtr<CreativeArrayBase>>& creators() const noexcept { return creators_; }
  /// Hands the fields and arrays this reader made to `made`.
  void handOver(Made& made) {
    std::move(fields_.begin(), fields_.end(), std::back_inserter(made.fields));
    std::move(creators_.begin(), creators_.end(), std::back_inserter(made.creators));
  }

 private:
  /// A skeleton of the structure; one the grid has already (from an earlier
  /// part) is taken as it is, when it has the same elements.
  StrongPtr<Skeleton> makeSkeleton(const GridShape::Skeleton& skeleton) {
    const SkeletonID id(skeleton.dimension, skeleton.index);
    if (StrongPtr<Skeleton> existing = grid_.getSkeleton(id)) {
      require(existing->getNumberOfElements() == skeleton.elements &&
                  existing->getIsotropicRefinementFactor() == skeleton.refinement,
              [&] { return id.Name() + " differs from the one read before"; });
      return existing;
    }
    return grid_.makeSkeleton(id, skeleton.elements, skeleton.refinement);
  }

  WeakPtr<BaseSpace> readBase(const GridShape::Representation& rep) {
    if (rep.onChart) {
      require(grid_.getCharts().valid(), "the grid has no charts");
      StrongPtr<ChartID> chart =
          grid_.getCharts()->makeChart(rep.chart, rep.chartDimension, rep.cartesian);
      require(chart.valid(),
              [&] { return "chart " + inQuotes(rep.chart) + " does not fit the bundle's charts"; });
      return WeakPtr<BaseSpace>(chart);
    }
    StrongPtr<Skeleton> skeleton = grid_.getSkeleton(SkeletonID(rep.skeleton[0], rep.skeleton[1]));
    require(skeleton.valid(), "a representation relative to a skeleton the grid does not have");
    return WeakPtr<BaseSpace>(skeleton);
  }

  void readRepresentation(const GridShape::Representation& rep, Skeleton& skeleton,
                          std::vector<const Representation*>& seen) {
    StrongPtr<Representation> representation = skeleton.makeRepresentation(readBase(rep));
    require(
        representation && std::find(seen.begin(), seen.end(), representation.get()) == seen.end(),
        "a representation appears twice");
    seen.push_back(representation.get());
    for (const GridShape::Field& field : rep.fields) readField(field, *representation);
  }

  void readField(const GridShape::Field& described, Representation& representation) {
    // A partial field adds its fragments to the field read before.
    StrongPtr<Field> field =
        described.partial ? representation.findField(described.name) : StrongPtr<Field>();
    if (field && &field->getElementDescriptor() != described.type) field.reset();
    if (!field) {
      if (vetoes_ && !vetoes_->CreateField(id_, grid_, time_, described.name)) return;
      field = StrongPtr<Field>(new Field(*described.type));
    }
    size_t chosen = 0;
    for (const GridShape::Fragment& fragment : described.fragments) {
      if (choice_ &&
          !choice_->CreateFragment(id_, time_, described.name, fragment.name, fragment.place)) {
        continue;
      }
      ++chosen;
      StrongPtr<CreativeArrayBase> creator =
          fragment.uniform ? uniformCreator(fragment, *described.type)
                           : arrayCreator(fragment, *described.type, described.stored);
      creators_.push_back(creator);
      field->setCreator(creator,
                        fragment.named ? fragmentNamed(fragment.name) : StrongPtr<FragmentID>());
    }
    if (chosen == 0 && !described.fragments.empty()) return;
    representation.setField(described.name, field);
    fields_.push_back(field);
  }

  /// The fragment identities the grid has already, by name, so that a later
  /// part's fragment replaces the one of the same name.
  void collectFragments() {
    forEachField(grid_, [&](const StrongPtr<Field>& field) {
      forEachFragment(*field, [&](const StrongPtr<FragmentID>& fragment, const auto&) {
        if (fragment) fragments_.emplace(fragment->Name(), fragment);
      });
    });
  }

  /// The identity of the fragment `name`, one per name in the grid.
  StrongPtr<FragmentID> fragmentNamed(const std::string& name) {
    StrongPtr<FragmentID>& fragment = fragments_[name];
    if (!fragment) fragment = StrongPtr<FragmentID>(new FragmentID(name));
    return fragment;
  }

  static StrongPtr<CreativeArrayBase> uniformCreator(const GridShape::Fragment& fragment,
                                                     const QuarilTypeBase& type) {
    const Pelorn::PhysicalSpace::point first{fragment.origin[0], fragment.origin[1],
                                             fragment.origin[2]};
    const Pelorn::PhysicalSpace::tvector step{fragment.spacing[0], fragment.spacing[1],
                                              fragment.spacing[2]};
    return StrongPtr<CreativeArrayBase>(new DeferredCreator(
        type, fragment.size,
        [first, step, counts = fragment.counts]() -> StrongPtr<MemBase, Cacheable> {
          return StrongPtr<MemBase, Cacheable>(new UniformCartesianArray(first, step, counts));
        }));
  }

  StrongPtr<CreativeArrayBase> arrayCreator(const GridShape::Fragment& fragment,
                                            const QuarilTypeBase& type,
                                            const layout::StoredType& stored) {
    return StrongPtr<CreativeArrayBase>(new DeferredCreator(
        type, fragment.size, arrayProducer(part_, shape_, fragment, entry_, type, stored)));
  }

  /// Reads the fragment's array; `shape` keeps `fragment` alive.
  static DeferredCreator::Producer arrayProducer(std::shared_ptr<PartSource> part,
                                                 std::shared_ptr<const GridShape> shape,
                                                 const GridShape::Fragment& fragment,
                                                 uint64_t entry, const QuarilTypeBase& type,
                                                 layout::StoredType stored) {
    return [part = std::move(part), shape = std::move(shape), &fragment, entry, &type,
            stored]() -> StrongPtr<MemBase, Cacheable> {
      Session session;
      try {
        const std::shared_ptr<Source> source = part->get();
        require(source->arrays() >= 0, "the file has no group \"arrays\"");
        Dataset dataset = openDataset(source->arrays(), layout::arrayName(entry, fragment.dataset));
        require(datasetExtents(dataset.id()) == layout::fileExtents(fragment.size, stored),
                [&] { return "its data set does not have the extents " + fragment.size.str(); });
        const uint64_t bytes = fragment.size.elements() * type.size();
        checkStoredSize(dataset.id(), bytes, source->fileBytes(), "its data set");
        StrongPtr<MemBase, Cacheable> array = makeMemArray(type, fragment.size, false);
        require(array.valid(), [&] { return "no array of type " + type.name(); });
        if (bytes > 0) {
          readWhole(dataset.id(), stored.component, array->rawData(), bytes, source->raw(),
                    "its data set");
        }
        return array;
      } catch (const Failure& failure) {
        throw Failure(part->path() + ": " + fragment.what + ": " + failure.what());
      }
    };
  }

  std::shared_ptr<PartSource> part_;
  Source& source_;
  uint64_t entry_;
  Grid& grid_;
  StrongPtr<GridID> id_;
  double time_;
  StrongPtr<BundleLoaderProgress> vetoes_;
  StrongPtr<FragmentChoice> choice_;
  std::shared_ptr<const GridShape> shape_;
  std::map<std::string, StrongPtr<FragmentID>> fragments_;
  std::vector<StrongPtr<Field>> fields_;
  std::vector<StrongPtr<CreativeArrayBase>> creators_;
};

/// Reports a problem found after the load returned: to the load's progress
/// sink when there was one, else through the object core's diagnostics.
void report(const StrongPtr<Ostrak::LoaderProgress>& progress, const std::string& text) {
  if (progress) {
    progress->message(text);
  } else {
    Ostrak::reportDiagnostic(Ostrak::Diagnostic::HookException, text);
  }
}

/// Reads a slice's grids and attributes on the slice's first access, from
/// every part that holds some of them, in the parts' order.
class SliceLoader : public Slice::Loader {
 public:
  using Row = std::pair<std::shared_ptr<PartSource>, uint64_t>;
  /// The row of a `first` that stands for the row of the slice's time, so
  /// that all slices of one file share one loader.
  static constexpr uint64_t RowOfTime = UINT64_MAX;

  /// Reads `first`, then `more` (a slice of one file has none).
  SliceLoader(Row first, std::vector<Row> more, const StrongPtr<Ostrak::LoaderProgress>& progress,
              std::shared_ptr<Stored> stored)
      : first_(std::move(first)),
        more_(std::move(more)),
        progress_(progress),
        vetoes_(Ostrak::dynamic_pointer_cast<BundleLoaderProgress>(progress)),
        stored_(std::move(stored)) {}

  bool load(const WeakPtr<Slice>& weakSlice) override {
    Slice* slice = weakSlice.get();
    Bundle* bundle = slice ? slice->getOwningBundle() : nullptr;
    if (!bundle || !bundle->getGridList()) return false;
    Session session;
    bool complete = true;
    std::vector<StrongPtr<Grid>> grids;
    Made made;
    for (size_t i = 0; i <= more_.size(); ++i) {
      const auto& [part, listedRow] = i == 0 ? first_ : more_[i - 1];
      try {
        const std::shared_ptr<Source> source = part->get();
        const uint64_t row =
            listedRow == RowOfTime ? rowOf(source->index(), slice->getTime()) : listedRow;
        require(
            row < source->index().times.size() && source->index().times[row] == slice->getTime(),
            [&] {
              return "it does not hold the time " + std::to_string(slice->getTime()) +
                     " that the series lists";
            });
        complete = loadRow(*slice, *bundle, part, *source, row, grids, made) && complete;
      } catch (const Failure& failure) {
        report(progress_, part->path() + ": " + failure.what());
        complete = false;
      }
    }
    if (stored_) {
      stored_->add(SlicePtr(weakSlice).referenceBlock(), slice);
      for (const StrongPtr<Grid>& grid : grids) stored_->add(grid.referenceBlock(), grid.get());
      std::vector<Ostrak::ReferenceBlock*> blocks;
      for (const auto& field : made.fields) blocks.push_back(field.referenceBlock());
      for (const auto& creator : made.creators) blocks.push_back(creator.referenceBlock());
      stored_->addAll(blocks);
    }
    return complete;
  }

 private:
  static uint64_t rowOf(const Index& index, double time) {
    const auto found = std::lower_bound(index.times.begin(), index.times.end(), time);
    return static_cast<uint64_t>(found - index.times.begin());
  }

  bool loadRow(Slice& slice, Bundle& bundle, const std::shared_ptr<PartSource>& part,
               Source& source, uint64_t row, std::vector<StrongPtr<Grid>>& grids, Made& made) {
    const Index& index = source.index();
    const double time = index.times[row];
    bool complete = true;
    if (index.sliceAttributes[row]) {
      try {
        Group group = openGroup(source.file(), layout::slicePath(row));
        readAttributes(group.id(), slice);
      } catch (const Failure& failure) {
        report(progress_, source.path() + ": slice attributes: " + failure.what());
        complete = false;
      }
    }
    GridList& list = *bundle.getGridList();
    for (uint64_t entry = index.sliceBegin[row]; entry < index.sliceBegin[row + 1]; ++entry) {
      const std::string& name = index.names[index.entries[entry].nameRow];
      StrongPtr<GridID> id = list[name];
      try {
        // A partial entry adds to the grid read before; any other makes a
        // grid that replaces it.
        const bool adds = source.shape(index.entries[entry].structureRow)->partial;
        StrongPtr<Grid> grid = adds ? existingGrid(slice, id) : StrongPtr<Grid>();
        const bool madeGrid = !grid;
        if (madeGrid) {
          grid = StrongPtr<Grid>(
              new Grid(WeakPtr<GridContainer>(bundle.getGridList()), bundle.getCharts()));
          if (vetoes_ && !vetoes_->CreateGrid(id, *grid, time)) continue;
        }
        GridReader reader(part, source, entry, *grid, id, time, progress_);
        reader.read();
        if (madeGrid) slice.insert(name, grid);
        grids.push_back(grid);
        reader.handOver(made);
      } catch (const Failure& failure) {
        report(progress_, source.path() + ": grid " + inQuotes(name) + " at time " +
                              std::to_string(time) + ": " + failure.what());
        complete = false;
      }
    }
    return complete;
  }

  static StrongPtr<Grid> existingGrid(const Slice& slice, const StrongPtr<GridID>& id) {
    auto found = slice.getGrids().find(id);
    return found == slice.getGrids().end() ? StrongPtr<Grid>() : found->second;
  }

  Row first_;
  std::vector<Row> more_;
  StrongPtr<Ostrak::LoaderProgress> progress_;
  StrongPtr<BundleLoaderProgress> vetoes_;
  std::shared_ptr<Stored> stored_;
};

}  // namespace

std::shared_ptr<Source> Source::open(const std::string& path) {
  Session session;
  require(looksLikeHdf5(path), "not an HDF5 file");
  std::shared_ptr<Source> source(new Source(path, openFile(path)));
  hsize_t bytes = 0;
  check(H5Fget_filesize(source->file(), &bytes), "cannot read the file's size");
  source->fileBytes_ = bytes;
  source->raw_ = rawFileOf(source->file(), bytes);
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
    throw Failure(std::string("its structure: ") + error.what());
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

void attachParts(Bundle& bundle, const std::vector<Part>& parts,
                 const StrongPtr<Ostrak::LoaderProgress>& progress,
                 const std::shared_ptr<Stored>& stored) {
  Session session;
  for (auto part = parts.rbegin(); part != parts.rend(); ++part) {
    if (!part->index.bundleAttributes) continue;
    const std::shared_ptr<Source> source = part->source->get();
    Group group = openGroup(source->file(), layout::BundleAttributes);
    readAttributes(group.id(), bundle);
    if (stored) stored->setBundleAttributes(bundle);
    break;
  }
  GridList& list = *bundle.getGridList();
  std::vector<std::vector<StrongPtr<GridID>>> partIds;
  for (const Part& part : parts) {
    const Index& index = part.index;
    std::vector<StrongPtr<GridID>>& ids = partIds.emplace_back();
    for (const std::string& name : index.names) ids.push_back(list[name]);
    for (size_t row = 0; row < ids.size(); ++row) {
      const int64_t parent = index.parents[row];
      if (parent >= 0 && !ids[row]->getParent()) {
        ids[static_cast<size_t>(parent)]->insertChild(WeakPtr<GridID>(ids[row]));
      }
    }
  }
  auto vetoes = Ostrak::dynamic_pointer_cast<BundleLoaderProgress>(progress);
  auto attach = [&](double time, const StrongPtr<Slice::Loader>& loader) {
    if (vetoes && !vetoes->CreateSlice(time)) return SlicePtr();
    SlicePtr slice = bundle[time];
    slice->addLoader(loader);
    return slice;
  };
  // Identities know where they occur before any slice is read, so that a
  // grid can be followed through time in a bundle just opened.
  auto registerOccurrences = [&](size_t p, const IndexEntry* begin, const IndexEntry* end,
                                 const SlicePtr& slice) {
    if (!slice) return;
    for (const IndexEntry* entry = begin; entry != end; ++entry) {
      partIds[p][entry->nameRow]->insert(slice->getTime(), SliceWeakPtr(slice.get()));
    }
  };
  uint64_t total = 0;
  if (parts.size() == 1) {
    const Part& part = parts.front();
    const IndexEntry* entries = part.index.entries.data();
    const StrongPtr<Slice::Loader> loader(
        new SliceLoader({part.source, SliceLoader::RowOfTime}, {}, progress, stored));
    total = part.index.times.size();
    for (uint64_t row = 0; row < total; ++row) {
      const SlicePtr slice = attach(part.index.times[row], loader);
      registerOccurrences(0, entries + part.index.sliceBegin[row],
                          entries + part.index.sliceBegin[row + 1], slice);
      if (progress && (row + 1) % 4096 == 0) progress->progress(row + 1, total);
    }
  } else {
    // Each time's rows in the parts' order; one loader per slice applies them.
    std::map<double, std::vector<std::pair<size_t, uint64_t>>> rows;
    for (size_t p = 0; p < parts.size(); ++p) {
      for (uint64_t row = 0; row < parts[p].index.times.size(); ++row) {
        rows[parts[p].index.times[row]].emplace_back(p, row);
      }
    }
    total = rows.size();
    uint64_t done = 0;
    for (const auto& [time, sliceRows] : rows) {
      std::vector<SliceLoader::Row> more;
      for (size_t k = 1; k < sliceRows.size(); ++k) {
        more.emplace_back(parts[sliceRows[k].first].source, sliceRows[k].second);
      }
      const auto& [firstPart, firstRow] = sliceRows.front();
      const SlicePtr slice = attach(
          time, StrongPtr<Slice::Loader>(new SliceLoader({parts[firstPart].source, firstRow},
                                                         std::move(more), progress, stored)));
      for (const auto& [p, row] : sliceRows) {
        const Index& index = parts[p].index;
        registerOccurrences(p, index.entries.data() + index.sliceBegin[row],
                            index.entries.data() + index.sliceBegin[row + 1], slice);
      }
      if (progress && ++done % 4096 == 0) progress->progress(done, total);
    }
  }
  if (progress) progress->progress(total, total);
}

void attachSource(Bundle& bundle, const std::shared_ptr<Source>& source,
                  const StrongPtr<Ostrak::LoaderProgress>& progress,
                  const std::shared_ptr<Stored>& stored) {
  attachParts(bundle, {Part{std::make_shared<PartSource>(source), source->index()}}, progress,
              stored);
}

void checkSource(const std::shared_ptr<Source>& source) {
  Session session;
  const Index& index = source->index();
  StrongPtr<GlobalCharts> charts(new GlobalCharts);
  StrongPtr<GridList> list(new GridList);
  const auto part = std::make_shared<PartSource>(source);
  for (uint64_t entry = 0; entry < index.entries.size(); ++entry) {
    const std::string& name = index.names[index.entries[entry].nameRow];
    const std::string what = "grid " + inQuotes(name) + " at time " +
                             std::to_string(index.times[index.entries[entry].timeRow]) + ": ";
    StrongPtr<Grid> grid(new Grid(WeakPtr<GridContainer>(list), charts));
    GridReader reader(part, *source, entry, *grid, (*list)[name], 0, {});
    try {
      reader.read();
    } catch (const Failure& failure) {
      throw Failure(what + failure.what());
    }
    for (const auto& creator : reader.creators()) {
      const bool produced = creator->getData().valid();
      require(produced, what + creator->lastError());
      creator->dropCache();
    }
  }
}

}  // namespace Quaril::H5::detail
