#include "formats/hdf5/detail/Reader.hpp"

#include <algorithm>
#include <map>

#include "bundle/LoaderControl.hpp"
#include "formats/hdf5/detail/GridReader.hpp"
#include "formats/hdf5/detail/Layout.hpp"
#include "formats/hdf5/detail/Problems.hpp"
#include "formats/hdf5/detail/Shape.hpp"
#include "formats/hdf5/detail/Stored.hpp"

namespace Quaril::H5::detail {

namespace {

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

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
    problems_ = problemListOf(*bundle);
    for (size_t i = 0; i <= more_.size(); ++i) {
      const auto& [part, listedRow] = i == 0 ? first_ : more_[i - 1];
      try {
        const std::shared_ptr<Source> source = part->get();
        const uint64_t row =
            listedRow == RowOfTime ? rowOf(source->index(), slice->getTime()) : listedRow;
        require(
            row < source->index().times.size() && source->index().times[row] == slice->getTime(),
            [&] {
              return "it does not hold the time " + timeText(slice->getTime()) +
                     " that the series lists";
            });
        complete = loadRow(*slice, *bundle, part, *source, row, grids, made) && complete;
      } catch (const Failure& failure) {
        problems_->add({part->path(), "slice at time " + timeText(slice->getTime()), failure.what(),
                        "", true, slice->getTime()});
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
        problems_->add({source.path(), "attributes of the slice at time " + timeText(time),
                        failure.what(), "", true, time});
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
        readGrid({part, &source, entry, id, time, progress_, problems_}, *grid, made);
        if (madeGrid) slice.insert(name, grid);
        grids.push_back(grid);
      } catch (const Failure& failure) {
        problems_->add({source.path(), "grid " + inQuotes(name) + " at time " + timeText(time),
                        failure.what(), name, true, time});
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
  std::shared_ptr<ProblemList> problems_;  // the bundle's, once it loads
};

}  // namespace

void attachParts(Bundle& bundle, const std::vector<Part>& parts,
                 const StrongPtr<Ostrak::LoaderProgress>& progress,
                 const std::shared_ptr<Stored>& stored, const std::vector<Problem>& damage) {
  Session session;
  if (!damage.empty()) {
    const std::shared_ptr<ProblemList> problems = problemListOf(bundle);
    for (const Problem& problem : damage) problems->add(problem);
  }
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

}  // namespace Quaril::H5::detail
