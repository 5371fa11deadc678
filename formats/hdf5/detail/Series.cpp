#include "formats/hdf5/detail/Series.hpp"

#include <unistd.h>

#include <cstdio>
#include <filesystem>
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

/// Adds the parts whose journal records lie in `damage` to `parts`, each
/// read from its own index, and lists the damage in `problems`: as lost
/// where a part cannot be read, as only the journal's otherwise.
void recoverParts(const std::string& journal, const Journal& read, const Journal::Damage& damage,
                  const std::shared_ptr<PartSource::Pool>& pool, std::vector<Part>& parts,
                  std::vector<Problem>& problems) {
  const std::string bytes =
      "bytes " + std::to_string(damage.begin) + " to " + std::to_string(damage.end);
  const auto [first, last] = read.partsIn(damage);
  if (first >= last) {
    problems.push_back(
        {journal, bytes, "damaged, between complete records; no part is missing", "", false});
    return;
  }
  for (uint64_t number = first; number < last; ++number) {
    const std::string path = partPath(journal, read.token, number);
    const std::string where =
        "the journal record of part " + std::to_string(number) + " (" + bytes + ")";
    try {
      const std::shared_ptr<Source> source = Source::open(path);
      parts.push_back({std::make_shared<PartSource>(path, pool), source->index()});
      problems.push_back(
          {journal, where, "fails its checksum; the part was read from its own index", "", false});
    } catch (const Failure& failure) {
      problems.push_back(
          {journal, where,
           "fails its checksum, and the part cannot be read: " + path + ": " + failure.what(), "",
           true});
    }
  }
}

// ---- what a sync writes ------------------------------------------------------------

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

bool SharedWrites::names(double time) const {
  const auto grid = grids.lower_bound({time, ""});
  const auto field = fields.lower_bound({time, "", ""});
  const auto addedTo = added.lower_bound({time, ""});
  return (grid != grids.end() && grid->first == time) ||
         (field != fields.end() && std::get<0>(*field) == time) ||
         (addedTo != added.end() && addedTo->first == time);
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

  /// Released: followers are told that the series ends here.
  ~SeriesBinding() override { tail_->close(); }

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
    WriteRequest request{transformations_, {}, {}, &plan, &written, &structures};
    request.series = journal_;
    request.flush =
        StorageOptions::of(transformations_.get()).getDurability() == Durability::PowerLoss;
    writeBundle(bundle, part, request);
    try {
      tail_->append(written, request.flush);
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

}  // namespace

std::vector<Part> partsOf(const std::string& journal, const Journal& read,
                          std::vector<Problem>& problems, std::shared_ptr<PartSource::Pool> pool) {
  if (!pool) pool = std::make_shared<PartSource::Pool>(OpenPartsLimit);
  std::vector<Part> parts;
  auto damagedBefore = read.damaged.begin();
  for (size_t position = 0; position < read.records.size(); ++position) {
    for (; damagedBefore != read.damaged.end() && damagedBefore->before == position;
         ++damagedBefore) {
      recoverParts(journal, read, *damagedBefore, pool, parts, problems);
    }
    const Journal::Record& record = read.records[position];
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
    std::vector<Problem> damage;
    const std::vector<Part> parts = partsOf(path, read, damage);
    attachParts(bundle, parts, progress, stored, damage);
  }
  removeStrayParts(path, read, readsReplacedParts);
  std::unique_ptr<SeriesDescriptor> descriptor;
  if (StorageOptions::of(transformations.get()).getWriteXdmf()) {
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
  const LockedFile lock(journal, BoundAlready);
  descriptorFor(journal, readJournal(journal).token)->rewrite();
}

bool lastSyncOf(const StorageBinding* binding, std::string& error) {
  const auto* series = dynamic_cast<const ReportingBinding*>(binding);
  if (!series) return false;
  error = series->lastError();
  return true;
}

Opened openForLoading(const std::string& path) {
  if (isJournal(path)) {
    Opened opened{path, {}, {}, {}, {}};
    opened.journal = std::make_shared<Journal>(readJournal(path));
    opened.pool = std::make_shared<PartSource::Pool>(OpenPartsLimit);
    opened.parts = partsOf(path, *opened.journal, opened.problems, opened.pool);
    return opened;
  }
  std::shared_ptr<Source> source = Source::open(path);
  return {path, {{std::make_shared<PartSource>(source), source->index()}}, {}, {}, {}};
}

}  // namespace Quaril::H5::detail
