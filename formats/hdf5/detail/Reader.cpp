#include "formats/hdf5/detail/Reader.hpp"

#include <cmath>
#include <map>
#include <set>

#include "field/CreativeArrayBase.hpp"
#include "formats/hdf5/detail/Layout.hpp"
#include "ostrak/Diagnostics.hpp"

namespace Quaril::H5::detail {

namespace {

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

std::string quoted(const std::string& text) {
  return "\"" + text + "\"";
}

// ---- the index -------------------------------------------------------------------

void checkFormat(hid_t file) {
  require(attributeExists(file, layout::FormatAttribute),
          "an HDF5 file, but not a bundle file (no \"format\" attribute on its root)");
  const std::string format = readString(file, layout::FormatAttribute);
  require(format == layout::FormatName,
          "an HDF5 file, but not a bundle file (format " + quoted(format) + ")");
  const std::vector<int32_t> version = readNumbers<int32_t>(file, layout::VersionAttribute, 2);
  require(version[0] <= layout::VersionMajor,
          "written in layout version " + std::to_string(version[0]) + "." +
              std::to_string(version[1]) + ", newer than this reader's " +
              std::to_string(layout::VersionMajor) + "." + std::to_string(layout::VersionMinor));
  require(version[0] >= 1, "unknown layout version " + std::to_string(version[0]));
}

void checkTimes(const std::vector<double>& times) {
  for (size_t row = 0; row < times.size(); ++row) {
    require(!std::isnan(times[row]), "index: time " + std::to_string(row) + " is NaN");
    if (row == 0) continue;
    require(times[row] != times[row - 1],
            "index: the time " + std::to_string(times[row]) + " appears twice");
    require(times[row] > times[row - 1], "index: times are not in ascending order");
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
            "index: the grid name " + quoted(names.back()) + " appears twice");
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
  const std::vector<int64_t> rows = readVector<int64_t>(index, layout::Entries, 2);
  const uint64_t times = result.times.size();
  const uint64_t names = result.names.size();
  result.sliceBegin.assign(times + 1, 0);
  std::set<std::pair<uint64_t, uint64_t>> seen;
  for (size_t i = 0; i + 1 < rows.size(); i += 2) {
    require(rows[i] >= 0 && static_cast<uint64_t>(rows[i]) < times,
            "index: entry " + std::to_string(i / 2) + " names a time that does not exist");
    require(rows[i + 1] >= 0 && static_cast<uint64_t>(rows[i + 1]) < names,
            "index: entry " + std::to_string(i / 2) + " names a grid that does not exist");
    std::pair<uint64_t, uint64_t> entry(static_cast<uint64_t>(rows[i]),
                                        static_cast<uint64_t>(rows[i + 1]));
    require(result.entries.empty() || entry.first >= result.entries.back().first,
            "index: entries are not ordered by time");
    require(seen.insert(entry).second, "index: a grid appears twice at one time");
    result.entries.push_back(entry);
    ++result.sliceBegin[entry.first + 1];
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

Index readIndex(hid_t file) {
  Index result;
  Group index = openGroup(file, layout::IndexGroup);
  result.times = readVector<double>(index.id(), layout::Times);
  checkTimes(result.times);
  result.names = readNames(index.id());
  result.parents = readVector<int64_t>(index.id(), layout::GridParents);
  require(result.parents.size() == result.names.size(),
          "index: " + std::to_string(result.parents.size()) + " grid parents for " +
              std::to_string(result.names.size()) + " grid names");
  checkParents(result.parents);
  readEntries(index.id(), result);
  Group grids = openGroup(file, layout::GridsGroup);
  const uint64_t held = countLinks(grids.id());
  require(held == result.entries.size(), "the index lists " +
                                             std::to_string(result.entries.size()) +
                                             " grids, the file holds " + std::to_string(held));
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
              "slices: " + quoted(name) + " names no time of the index");
      result.sliceAttributes[row] = true;
    }
  }
  return result;
}

// ---- attributes ------------------------------------------------------------------

void readAttributes(hid_t object, Ostrak::Attributes& into) {
  for (const std::string& name : attributeNames(object)) {
    const AttributeShape shape = attributeShape(object, name);
    if (shape.typeClass == H5T_STRING) {
      if (shape.scalar) {
        into.setAttribute(name, readString(object, name));
      } else {
        into.setAttribute(name, readStrings(object, name));
      }
    } else if (shape.typeClass == H5T_INTEGER) {
      std::vector<int64_t> values = readNumbers<int64_t>(object, name);
      if (shape.scalar) {
        into.setAttribute(name, values.at(0));
      } else {
        into.setAttribute(name, std::move(values));
      }
    } else if (shape.typeClass == H5T_FLOAT) {
      std::vector<double> values = readNumbers<double>(object, name);
      if (shape.scalar) {
        into.setAttribute(name, values.at(0));
      } else {
        into.setAttribute(name, std::move(values));
      }
    } else {
      throw Failure("attribute " + quoted(name) + " is neither a number nor a text");
    }
  }
}

// ---- one grid ----------------------------------------------------------------------

/// Checks that a data set of `bytes` bytes could be what the file stores,
/// before anything is allocated for it.
void checkStoredSize(hid_t dataset, uint64_t bytes, const std::string& what) {
  const uint64_t stored = H5Dget_storage_size(dataset);
  // Deflate packs at most about a thousand to one.
  require(bytes <= stored * 1100 + 65536, what + ": its extents ask for " + std::to_string(bytes) +
                                              " bytes, the file stores " + std::to_string(stored));
  hid_t file = H5Iget_file_id(dataset);
  if (file >= 0) {
    hsize_t fileSize = 0;
    H5Fget_filesize(file, &fileSize);
    H5Fclose(file);
    require(stored <= fileSize, what + ": it claims more bytes than its file holds");
  }
}

/// Reads one grid group into a grid, making data creators that read lazily.
class GridReader {
 public:
  GridReader(std::shared_ptr<Source> source, uint64_t entry, Grid& grid,
             const StrongPtr<GridID>& id, double time,
             const StrongPtr<Ostrak::LoaderProgress>& progress)
      : source_(std::move(source)),
        path_(layout::gridPath(entry)),
        grid_(grid),
        id_(id),
        time_(time),
        vetoes_(Ostrak::dynamic_pointer_cast<BundleLoaderProgress>(progress)) {}

  void read() {
    Group group = openGroup(source_->file(), path_);
    std::vector<std::pair<std::string, StrongPtr<Skeleton>>> skeletons;
    for (const std::string& name : linkNames(group.id())) {
      skeletons.emplace_back(name, readSkeleton(group.id(), name));
    }
    for (const auto& [name, skeleton] : skeletons) {
      Group skeletonGroup = openGroup(group.id(), name);
      for (const std::string& repName : linkNames(skeletonGroup.id())) {
        readRepresentation(skeletonGroup.id(), path_ + "/" + name + "/" + repName, repName,
                           *skeleton);
      }
    }
  }

 private:
  StrongPtr<Skeleton> readSkeleton(hid_t group, const std::string& name) {
    Group skeletonGroup = openGroup(group, name);
    const int32_t dimension = readNumber<int32_t>(skeletonGroup.id(), layout::Dimension);
    const int32_t index = readNumber<int32_t>(skeletonGroup.id(), layout::SkeletonIndex);
    const uint64_t elements = readNumber<uint64_t>(skeletonGroup.id(), layout::Elements);
    const int32_t refinement = readNumber<int32_t>(skeletonGroup.id(), layout::Refinement);
    const std::string what = "skeleton " + quoted(name);
    require(dimension >= 0 && dimension <= 64 && index >= 0, what + ": bad dimension or index");
    require(refinement >= 1, what + ": bad refinement factor");
    StrongPtr<Skeleton> skeleton =
        grid_.makeSkeleton(SkeletonID(dimension, index), elements, refinement);
    require(skeleton.valid(), what + ": " + SkeletonID(dimension, index).Name() + " appears twice");
    return skeleton;
  }

  WeakPtr<BaseSpace> readBase(hid_t group, const std::string& what) {
    const std::string base = readString(group, layout::Base);
    if (base == layout::BaseChart) {
      const std::string name = readString(group, layout::Chart);
      const int32_t dimension = readNumber<int32_t>(group, layout::ChartDimension);
      const int32_t cartesian = readNumber<int32_t>(group, layout::ChartCartesian);
      require(grid_.getCharts().valid(), what + ": the grid has no charts");
      StrongPtr<ChartID> chart = grid_.getCharts()->makeChart(name, dimension, cartesian != 0);
      require(chart.valid(),
              what + ": chart " + quoted(name) + " does not fit the bundle's charts");
      return WeakPtr<BaseSpace>(chart);
    }
    require(base == layout::BaseSkeleton, what + ": unknown base " + quoted(base));
    const std::vector<int32_t> id = readNumbers<int32_t>(group, layout::RelativeSkeleton, 2);
    StrongPtr<Skeleton> skeleton = grid_.getSkeleton(SkeletonID(id[0], id[1]));
    require(skeleton.valid(), what + ": relative to a skeleton the grid does not have");
    return WeakPtr<BaseSpace>(skeleton);
  }

  void readRepresentation(hid_t skeletonGroup, const std::string& path, const std::string& name,
                          Skeleton& skeleton) {
    Group group = openGroup(skeletonGroup, name);
    const WeakPtr<BaseSpace> base = readBase(group.id(), "representation " + quoted(path));
    require(!skeleton.getRepresentation(base).valid(),
            "representation " + quoted(path) + " appears twice");
    StrongPtr<Representation> representation = skeleton.makeRepresentation(base);
    for (const std::string& fieldName : linkNames(group.id())) {
      readField(group.id(), path + "/" + fieldName, fieldName, *representation);
    }
  }

  void readField(hid_t repGroup, const std::string& path, const std::string& link,
                 Representation& representation) {
    Group group = openGroup(repGroup, link);
    const std::string name = readString(group.id(), layout::FieldName);
    const std::string typeName = readString(group.id(), layout::ElementType);
    const std::string what = "field " + quoted(name);
    require(!name.empty(), "field " + quoted(path) + " has no name");
    require(!representation.findField(name).valid(), what + " appears twice");
    const QuarilTypeBase* type = QuarilTypeBase::findType(typeName);
    require(type != nullptr, what + ": unknown element type " + quoted(typeName));
    const layout::StoredType stored = layout::storedType(*type);
    require(stored.component >= 0,
            what + ": elements of type " + quoted(typeName) + " cannot be read");
    if (vetoes_ && !vetoes_->CreateField(id_, grid_, time_, name)) return;
    StrongPtr<Field> field(new Field(*type));
    std::set<const FragmentID*> seen;
    for (const std::string& link : linkNames(group.id())) {
      const std::string fragmentWhat = what + " fragment " + quoted(link);
      auto [fragment, creator] =
          readFragment(group.id(), path + "/" + link, link, *type, stored, fragmentWhat);
      require(seen.insert(fragment.get()).second, fragmentWhat + ": the fragment appears twice");
      field->setCreator(creator, fragment);
    }
    representation.setField(name, field);
  }

  std::pair<StrongPtr<FragmentID>, StrongPtr<CreativeArrayBase>> readFragment(
      hid_t fieldGroup, const std::string& path, const std::string& link,
      const QuarilTypeBase& type, const layout::StoredType& stored, const std::string& what) {
    StrongPtr<CreativeArrayBase> creator;
    StrongPtr<FragmentID> fragment;
    if (isGroup(fieldGroup, link)) {
      Group group = openGroup(fieldGroup, link);
      fragment = fragmentNamed(group.id());
      creator = uniformCreator(group.id(), type, what);
    } else {
      Dataset dataset = openDataset(fieldGroup, link);
      fragment = fragmentNamed(dataset.id());
      const DynamicSize size = layout::arraySize(datasetExtents(dataset.id()), stored);
      require(size.rank() > 0, what + ": its extents do not fit elements of type " + type.name());
      const uint64_t count = size.elements();
      require(count != UINT64_MAX && count <= UINT64_MAX / type.size(),
              what + ": its extents overflow");
      checkStoredSize(dataset.id(), count * type.size(), what);
      creator = StrongPtr<CreativeArrayBase>(
          new DeferredCreator(type, size, arrayProducer(source_, path, type, size, stored, what)));
    }
    return {fragment, creator};
  }

  /// The fragment named by the object's attribute, one identity per name in
  /// the grid; null for an unfragmented field.
  StrongPtr<FragmentID> fragmentNamed(hid_t object) {
    if (!attributeExists(object, layout::Fragment)) return {};
    const std::string name = readString(object, layout::Fragment);
    StrongPtr<FragmentID>& fragment = fragments_[name];
    if (!fragment) fragment = StrongPtr<FragmentID>(new FragmentID(name));
    return fragment;
  }

  static StrongPtr<CreativeArrayBase> uniformCreator(hid_t group, const QuarilTypeBase& type,
                                                     const std::string& what) {
    require(type.is<Pelorn::PhysicalSpace::point>(), what + ": uniform positions must be points");
    const std::vector<double> origin = readNumbers<double>(group, layout::Origin, 3);
    const std::vector<double> spacing = readNumbers<double>(group, layout::Spacing, 3);
    const std::vector<uint64_t> extents = readNumbers<uint64_t>(group, layout::Extents, 3);
    const DynamicSize size{extents[0], extents[1], extents[2]};
    require(size.elements() != UINT64_MAX, what + ": its extents overflow");
    const std::array<uint64_t, 3> counts{extents[0], extents[1], extents[2]};
    const Pelorn::PhysicalSpace::point first{origin[0], origin[1], origin[2]};
    const Pelorn::PhysicalSpace::tvector step{spacing[0], spacing[1], spacing[2]};
    return StrongPtr<CreativeArrayBase>(
        new DeferredCreator(type, size, [first, step, counts]() -> StrongPtr<MemBase, Cacheable> {
          return StrongPtr<MemBase, Cacheable>(new UniformCartesianArray(first, step, counts));
        }));
  }

  static DeferredCreator::Producer arrayProducer(std::shared_ptr<Source> source, std::string path,
                                                 const QuarilTypeBase& type, DynamicSize size,
                                                 layout::StoredType stored, std::string what) {
    return [source = std::move(source), path = std::move(path), &type, size = std::move(size),
            stored, what = std::move(what)]() -> StrongPtr<MemBase, Cacheable> {
      Session session;
      Dataset dataset = openDataset(source->file(), path);
      require(datasetExtents(dataset.id()) == layout::fileExtents(size, stored),
              source->path() + ": " + what + ": its extents changed");
      StrongPtr<MemBase, Cacheable> array = makeMemArray(type, size);
      require(array.valid(), what + ": no array of type " + type.name());
      if (array->nElements() > 0) {
        readDataset(dataset.id(), stored.component, array->rawData(), source->path() + ": " + what);
      }
      return array;
    };
  }

  std::shared_ptr<Source> source_;
  std::string path_;
  Grid& grid_;
  StrongPtr<GridID> id_;
  double time_;
  StrongPtr<BundleLoaderProgress> vetoes_;
  std::map<std::string, StrongPtr<FragmentID>> fragments_;
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

/// Reads a slice's grids and attributes on the slice's first access.
class SliceLoader : public Slice::Loader {
 public:
  SliceLoader(std::shared_ptr<Source> source, uint64_t row,
              const StrongPtr<Ostrak::LoaderProgress>& progress)
      : source_(std::move(source)),
        row_(row),
        progress_(progress),
        vetoes_(Ostrak::dynamic_pointer_cast<BundleLoaderProgress>(progress)) {}

  bool load(const WeakPtr<Slice>& weakSlice) override {
    Slice* slice = weakSlice.get();
    Bundle* bundle = slice ? slice->getOwningBundle() : nullptr;
    if (!bundle || !bundle->getGridList()) return false;
    Session session;
    const Index& index = source_->index();
    const double time = index.times[row_];
    bool complete = true;
    if (index.sliceAttributes[row_]) {
      try {
        Group group = openGroup(source_->file(), layout::slicePath(row_));
        readAttributes(group.id(), *slice);
      } catch (const Failure& failure) {
        report(progress_, source_->path() + ": slice attributes: " + failure.what());
        complete = false;
      }
    }
    GridList& list = *bundle->getGridList();
    for (uint64_t entry = index.sliceBegin[row_]; entry < index.sliceBegin[row_ + 1]; ++entry) {
      const std::string& name = index.names[index.entries[entry].second];
      StrongPtr<GridID> id = list[name];
      StrongPtr<Grid> grid(
          new Grid(WeakPtr<GridContainer>(bundle->getGridList()), bundle->getCharts()));
      if (vetoes_ && !vetoes_->CreateGrid(id, *grid, time)) continue;
      try {
        GridReader(source_, entry, *grid, id, time, progress_).read();
        slice->insert(name, grid);
      } catch (const Failure& failure) {
        report(progress_, source_->path() + ": grid " + quoted(name) + " at time " +
                              std::to_string(time) + ": " + failure.what());
        complete = false;
      }
    }
    return complete;
  }

 private:
  std::shared_ptr<Source> source_;
  uint64_t row_;
  StrongPtr<Ostrak::LoaderProgress> progress_;
  StrongPtr<BundleLoaderProgress> vetoes_;
};

}  // namespace

std::shared_ptr<Source> Source::open(const std::string& path) {
  Session session;
  require(looksLikeHdf5(path), "not an HDF5 file");
  std::shared_ptr<Source> source(new Source(path, openFile(path)));
  checkFormat(source->file());
  source->index_ = readIndex(source->file());
  return source;
}

Source::~Source() {
  Session session;
  try {
    file_.close("");
  } catch (const Failure&) {
    // A file opened for reading has nothing to lose on closing.
  }
}

void attachSource(Bundle& bundle, const std::shared_ptr<Source>& source,
                  const StrongPtr<Ostrak::LoaderProgress>& progress) {
  Session session;
  const Index& index = source->index();
  if (linkExists(source->file(), layout::BundleAttributes)) {
    Group group = openGroup(source->file(), layout::BundleAttributes);
    readAttributes(group.id(), bundle);
  }
  GridList& list = *bundle.getGridList();
  std::vector<StrongPtr<GridID>> ids;
  for (const std::string& name : index.names) ids.push_back(list[name]);
  for (size_t row = 0; row < ids.size(); ++row) {
    if (index.parents[row] >= 0) {
      ids[static_cast<size_t>(index.parents[row])]->insertChild(WeakPtr<GridID>(ids[row]));
    }
  }
  auto vetoes = Ostrak::dynamic_pointer_cast<BundleLoaderProgress>(progress);
  const uint64_t total = index.times.size();
  for (uint64_t row = 0; row < total; ++row) {
    const double time = index.times[row];
    if (vetoes && !vetoes->CreateSlice(time)) continue;
    SlicePtr slice = bundle[time];
    if (index.sliceBegin[row + 1] > index.sliceBegin[row] || index.sliceAttributes[row]) {
      slice->addLoader(StrongPtr<Slice::Loader>(new SliceLoader(source, row, progress)));
    }
    if (progress && (row + 1) % 4096 == 0) progress->progress(row + 1, total);
  }
  if (progress) progress->progress(total, total);
}

void checkSource(const std::shared_ptr<Source>& source) {
  Session session;
  const Index& index = source->index();
  StrongPtr<GlobalCharts> charts(new GlobalCharts);
  StrongPtr<GridList> list(new GridList);
  for (uint64_t entry = 0; entry < index.entries.size(); ++entry) {
    const std::string& name = index.names[index.entries[entry].second];
    StrongPtr<Grid> grid(new Grid(WeakPtr<GridContainer>(list), charts));
    try {
      GridReader(source, entry, *grid, (*list)[name], index.times[index.entries[entry].first], {})
          .read();
    } catch (const Failure& failure) {
      throw Failure("grid " + quoted(name) + ": " + failure.what());
    }
    grid->iterate([&](const SkeletonID&, const StrongPtr<Skeleton>& skeleton) {
      skeleton->iterate([&](const WeakPtr<BaseSpace>&, const StrongPtr<Representation>& rep) {
        rep->iterate([&](const StrongPtr<FieldID>& id, const StrongPtr<Field>& field) {
          struct Visit : FragmentIterator {
            std::string error;
            bool apply(const StrongPtr<FragmentID>&,
                       const StrongPtr<CreativeArrayBase>& c) override {
              if (!c->getData()) error = c->lastError();
              c->dropCache();
              return error.empty();
            }
          } visit;
          field->iterate(visit);
          require(visit.error.empty(),
                  "grid " + quoted(name) + " field " + quoted(id->Name()) + ": " + visit.error);
          return true;
        });
        return true;
      });
      return true;
    });
  }
}

}  // namespace Quaril::H5::detail
