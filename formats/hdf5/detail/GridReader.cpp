#include "formats/hdf5/detail/GridReader.hpp"

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>

#include "field/CreativeArrayBase.hpp"
#include "formats/hdf5/Options.hpp"
#include "formats/hdf5/detail/Checksum.hpp"
#include "formats/hdf5/detail/Layout.hpp"
#include "formats/hdf5/detail/Problems.hpp"
#include "formats/hdf5/detail/Shape.hpp"
#include "grid/GridConstructors.hpp"
#include "grid/GridWalk.hpp"

namespace Quaril::H5::detail {

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

// ---- attributes ------------------------------------------------------------------

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

namespace {

constexpr const char* Damaged = "its data fail their checksum: the file is damaged there";

/// Checks the `count` values at `data`, read as `memoryType` from
/// `dataset`, against their stored checksum `expected`.
void verify(uint64_t expected, const void* data, uint64_t count, hid_t memoryType, hid_t dataset) {
  if (storedChecksum(data, count, memoryType, memoryType) == expected) return;
  // Stored in another type (doubles as floats, say): the checksum is of that.
  Datatype type = datasetType(dataset);
  Datatype native(H5Tget_native_type(type.id(), H5T_DIR_ASCEND), "cannot read a data set's type");
  require(H5Tequal(native.id(), memoryType) <= 0 &&
              storedChecksum(data, count, memoryType, native.id()) == expected,
          Damaged);
}

/// Extents as "[a, b, c]".
std::string listed(const std::vector<hsize_t>& extents) {
  std::string text = "[";
  for (size_t i = 0; i < extents.size(); ++i) text += (i ? ", " : "") + std::to_string(extents[i]);
  return text + "]";
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

/// Builds one grid, or adds to it, from an entry's structure, with data
/// creators that read each array on the first request.
class GridReader {
 public:
  GridReader(const GridEntry& entry, Grid& grid)
      : part_(entry.part),
        source_(*entry.source),
        entry_(entry.entry),
        grid_(grid),
        id_(entry.id),
        time_(entry.time),
        vetoes_(Ostrak::dynamic_pointer_cast<BundleLoaderProgress>(entry.progress)),
        choice_(Ostrak::dynamic_pointer_cast<FragmentChoice>(entry.progress)),
        problems_(entry.problems) {}

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
    const Origin origin{part_, shape_, entry_, id_, time_, problems_};
    auto* creator =
        new DeferredCreator(type, fragment.size, arrayProducer(origin, fragment, type, stored));
    creator->setRegionProducer(regionProducer(origin, fragment, type, stored));
    return StrongPtr<CreativeArrayBase>(creator);
  }

  /// What an array's producer keeps of its grid.
  struct Origin {
    std::shared_ptr<PartSource> part;
    std::shared_ptr<const GridShape> shape;  ///< keeps the fragment alive
    uint64_t entry;
    StrongPtr<GridID> id;
    double time;
    std::shared_ptr<ProblemList> problems;  ///< told of a failed read; may be null
  };

  /// The fragment's data set, open, its extents those of the structure.
  static Dataset openArray(const Source& source, const Origin& origin,
                           const GridShape::Fragment& fragment, const layout::StoredType& stored) {
    require(source.arrays() >= 0, "the file has no group \"arrays\"");
    Dataset dataset =
        openDataset(source.arrays(), layout::arrayName(origin.entry, fragment.dataset));
    const std::vector<hsize_t> found = datasetExtents(dataset.id());
    const std::vector<hsize_t> expected = layout::fileExtents(fragment.size, stored);
    require(found == expected, [&] {
      return "its data set has the extents " + listed(found) + " where the structure's " +
             fragment.size.str() + " ask for " + listed(expected) +
             " (HDF5 lists extents slowest first, the reverse of the structure's order, with "
             "a last one for the components of points and vectors)";
    });
    return dataset;
  }

  /// Lists a failed read of the fragment with the grid's problems, and
  /// says it as the creator's failure.
  static ProductionFailure failedRead(const Origin& origin, const GridShape::Fragment& fragment,
                                      const Failure& failure) {
    const std::string name = origin.id ? origin.id->getName() : "";
    Problem problem{
        origin.part->path(),
        fragment.what + " of grid " + inQuotes(name) + " at time " + timeText(origin.time),
        failure.what(),
        name,
        true,
        origin.time};
    if (origin.problems) origin.problems->add(problem);
    return ProductionFailure(problem.text());
  }

  /// Reads the fragment's array; a failure is listed with the grid's problems.
  static DeferredCreator::Producer arrayProducer(Origin origin, const GridShape::Fragment& fragment,
                                                 const QuarilTypeBase& type,
                                                 layout::StoredType stored) {
    return [origin = std::move(origin), &fragment, &type,
            stored]() -> StrongPtr<MemBase, Cacheable> {
      std::optional<Session> session(std::in_place);
      try {
        const std::shared_ptr<Source> source = origin.part->get();
        const uint64_t bytes = fragment.size.elements() * type.size();
        const auto made = [&] {
          StrongPtr<MemBase, Cacheable> array = makeMemArray(type, fragment.size, false);
          require(array.valid(), [&] { return "no array of type " + type.name(); });
          return array;
        };
        // Within the file: the directory does not place it otherwise.
        if (const auto direct = source->direct(origin.entry, fragment.dataset, bytes)) {
          // Placed by the directory: read as it lies, without libhdf5 and
          // without the format's lock, so that creators can read in parallel
          // (`source` keeps the file open).
          session.reset();
          StrongPtr<MemBase, Cacheable> array = made();
          ChecksumStream read;
          readStretches(direct->descriptor, source->fileBytes(), direct->offset, array->rawData(),
                        bytes, "its data set",
                        [&](const void* data, size_t size) { read.add(data, size); });
          require(read.value() == direct->checksum, Damaged);
          return array;
        }
        Dataset dataset = openArray(*source, origin, fragment, stored);
        checkStoredSize(dataset.id(), bytes, source->fileBytes(), "its data set");
        StrongPtr<MemBase, Cacheable> array = made();
        const std::optional<uint64_t> sum = source->checksum(origin.entry, fragment.dataset);
        if (const auto chunk =
                sum ? wholeChunk(dataset.id(), stored.component, bytes, source->raw())
                    : std::nullopt) {
          // One compressed chunk: read here, decoded outside the lock.
          dataset = Dataset();
          session.reset();
          readWholeChunk(*chunk, source->raw(), array->rawData(), bytes);
          require(bytesChecksum(array->rawData(), bytes) == *sum, Damaged);
          return array;
        }
        ChecksumStream read;
        const bool direct =
            bytes > 0 &&
            readWhole(dataset.id(), stored.component, array->rawData(), bytes, source->raw(),
                      "its data set",
                      sum ? BytesRead([&](const void* data, size_t size) { read.add(data, size); })
                          : BytesRead());
        if (sum && direct) {
          require(read.value() == *sum, Damaged);
        } else if (sum) {
          verify(*sum, array->rawData(),
                 fragment.size.elements() * static_cast<uint64_t>(stored.components),
                 stored.component, dataset.id());
        }
        return array;
      } catch (const Failure& failure) {
        if (!session) session.emplace();
        throw failedRead(origin, fragment, failure);
      }
    };
  }

  /// Reads a box of the fragment's array alone (a hyperslab of its data
  /// set); the box lies within the array.
  static DeferredCreator::RegionProducer regionProducer(Origin origin,
                                                        const GridShape::Fragment& fragment,
                                                        const QuarilTypeBase& type,
                                                        layout::StoredType stored) {
    return [origin = std::move(origin), &fragment, &type, stored](
               const std::vector<uint64_t>& first,
               const std::vector<uint64_t>& count) -> StrongPtr<MemBase, Cacheable> {
      Session session;
      try {
        const std::shared_ptr<Source> source = origin.part->get();
        Dataset dataset = openArray(*source, origin, fragment, stored);
        StrongPtr<MemBase, Cacheable> box = makeMemArray(type, DynamicSize(count), false);
        require(box.valid(), [&] { return "no array of type " + type.name(); });
        // HDF5 lists the axes slowest first, components last.
        std::vector<hsize_t> start(first.rbegin(), first.rend());
        std::vector<hsize_t> extent(count.rbegin(), count.rend());
        if (stored.components > 1) {
          start.push_back(0);
          extent.push_back(static_cast<hsize_t>(stored.components));
        }
        readBox(dataset.id(), stored.component, start, extent, box->rawData(), "its data set");
        return box;
      } catch (const Failure& failure) {
        throw failedRead(origin, fragment, failure);
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
  std::shared_ptr<ProblemList> problems_;
};

}  // namespace

void readGrid(const GridEntry& entry, Grid& grid, Made& made) {
  GridReader reader(entry, grid);
  reader.read();
  reader.handOver(made);
}

}  // namespace Quaril::H5::detail
