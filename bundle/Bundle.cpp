#include "bundle/Bundle.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "bundle/Binder.hpp"
#include "bundle/GridSelector.hpp"
#include "ostrak/SaveRegistry.hpp"

namespace Quaril {

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

EvolutionIterator<Grid>::~EvolutionIterator() = default;
EvolutionIterator<Slice>::~EvolutionIterator() = default;
EvolutionIterator<Skeleton>::~EvolutionIterator() = default;
EvolutionIterator<Field>::~EvolutionIterator() = default;

StorageBinding::~StorageBinding() = default;

Bundle::Notifier::Notifier() = default;
Bundle::Notifier::~Notifier() = default;
void Bundle::Notifier::bundleModified(const Bundle&) {}

Bundle::Bundle()
    : parameters_(std::make_unique<ParameterList>()),
      charts_(new GlobalCharts),
      gridList_(new GridList) {}

// A bundle that never had a strong handle (one on the stack, say) ends here
// without its last rites. Members go as their order says, the storage binding
// before the slices, so pending loaders do not run; the slices are released
// explicitly while the members they consult still exist.
Bundle::~Bundle() {
  storage_.reset();
  releaseSlices();
}

void Bundle::DeferredConstructor() {
  Ostrak::SaveRegistry<Bundle>::traverseCreators(*this);
}

// ---- notifiers, ages, storage ------------------------------------------------

void Bundle::addNotifier(const StrongPtr<Notifier>& notifier) {
  notifiers_.insert(notifier);
}

void Bundle::announceModification() const {
  for (StrongPtr<Notifier> notifier : notifiers_) {
    if (notifier) notifier->bundleModified(*this);
  }
}

Ostrak::Ageable& Bundle::updateOwnershipAge(const Ostrak::Ageable& age) {
  updateAge(age);
  return *this;
}

bool Bundle::processOwnership(Ostrak::Intercube& target, const Ostrak::Intercube& source) const {
  using MemHandle = StrongPtr<MemBase, Cacheable>;
  auto item = Ostrak::dynamic_pointer_cast<Ostrak::SaveItem<MemHandle>>(
      source.findInterface(typeid(MemHandle)));
  if (!item) return true;
  if (!storage_) return false;
  return storage_->synchronize(*this, item->item, target) != 0;
}

int Bundle::sync() const {
  if (!storage_) return 0;
  Ostrak::Intercube nothing;
  return storage_->synchronize(*this, {}, nothing);
}

void Bundle::trackSliceChanges() {
  // Objects marked before now would not pass a new mark up again at the
  // same clock time.
  Ostrak::Ageable::advanceGlobalTime();
  if (!changedSlices_) changedSlices_ = std::make_unique<std::set<double>>();
}

std::vector<double> Bundle::takeChangedSlices() const {
  if (!changedSlices_) return {};
  Ostrak::Ageable::advanceGlobalTime();
  std::vector<double> times(changedSlices_->begin(), changedSlices_->end());
  changedSlices_->clear();
  return times;
}

void Bundle::ownedChanged(Ostrak::OwnerBase& owned) {
  Ostrak::OwnerBase::ownedChanged(owned);
  if (!changedSlices_) return;
  const auto* slice = dynamic_cast<const Slice*>(&owned);
  if (slice && !std::isnan(slice->getTime())) changedSlices_->insert(slice->getTime());
}

void Bundle::extremeUnction() {
  if (storage_) {
    sync();
    storage_.reset();
  }
  heldSlice_.reset();
  releaseSlices();
  gridIndex_.clear();
}

// Released from a local table, since dying slices may still look at the
// bundle; slices that live on elsewhere are no longer filed here.
void Bundle::releaseSlices() {
  SliceTable released;
  released.swap(slices_);
  for (auto& [time, slice] : released) {
    if (slice) slice->unfile();
  }
  released.clear();
}

// ---- contents ------------------------------------------------------------------

const GridList::IdentifierSet& Bundle::getGridIdentifiers() const {
  static const GridList::IdentifierSet empty;
  return gridList_ ? gridList_->getIdentifiers() : empty;
}

unsigned Bundle::getMemoryUsage(unsigned long long& first, unsigned long long& second) const {
  unsigned total = 0;
  for (const auto& [time, slice] : slices_) {
    if (slice) total += slice->getMemoryUsage(first, second);
  }
  return total;
}

std::string Bundle::xml() const {
  std::string text;
  for (const auto& [time, entry] : slices_) {
    SlicePtr slice = entry;
    if (!slice) continue;
    char formatted[64];
    std::snprintf(formatted, sizeof formatted, "%lg", time);
    text += " <SLICE>\n";
    text += "  <TIME>";
    text += formatted;
    text += "</TIME>\n";
    text += slice->xml();
    text += " </SLICE>\n";
  }
  return text;
}

// ---- time navigation -------------------------------------------------------------

SlicePtr Bundle::operator[](double t) {
  if (std::isnan(t)) return {};
  auto entry = slices_.lower_bound(t);
  if (entry == slices_.end() || t < entry->first)
    entry = slices_.emplace_hint(entry, t, SlicePtr());
  if (!entry->second) {
    entry->second = SlicePtr(new Slice(*this, charts_));
    entry->second->time_ = t;
    entry->second->markChanged();
  }
  return entry->second;
}

SlicePtr Bundle::operator()(double& t) const {
  if (std::isnan(t)) return {};
  auto entry = slices_.lower_bound(t);
  if (entry == slices_.end() || t < entry->first || !entry->second) return {};
  t = entry->first;
  return entry->second;
}

SlicePtr Bundle::findNext(double&) const {
  return {};
}

SlicePtr Bundle::findPrev(double& t) const {
  if (slices_.empty() || std::isnan(t)) return {};
  auto first = slices_.begin();
  if (t < first->first) {
    t = first->first;
    return {};
  }
  if (first->first == t) return first->second;
  auto before = std::prev(slices_.lower_bound(t));
  t = before->first;
  return before->second;
}

double Bundle::minTime() const {
  return slices_.empty() ? 0.0 : slices_.begin()->first;
}

double Bundle::maxTime() const {
  return slices_.empty() ? 0.0 : slices_.rbegin()->first;
}

std::pair<double, SliceWeakPtr> Bundle::firstSlice() const {
  if (slices_.empty()) return {0.0, SliceWeakPtr()};
  return {slices_.begin()->first, slices_.begin()->second};
}

std::pair<double, double> Bundle::getTimeRange(const std::string&, bool) const {
  return {0.0, 1.0};
}

Slice::GridEntry Bundle::getUniqueGrid(double t) const {
  SlicePtr slice = (*this)(t);
  return slice ? slice->getUniqueGrid() : Slice::GridEntry();
}

// ---- grid look-up across time ------------------------------------------------------

// The grid of `name` in `slice`, as Slice::operator()(name) finds it. The
// identity is resolved once per walk and kept in `id`: identities are never
// removed, so once found it stays right; until then it is looked up again
// after each slice's loaders ran, since a loader may create it.
StrongPtr<Grid> Bundle::lookUp(Slice& slice, const std::string& name, StrongPtr<GridID>& id) const {
  slice.accessSlice();
  if (!id) {
    if (!gridList_) return {};
    id = gridList_->find(name);
  }
  return slice(id);
}

namespace {

constexpr double kNoEnd = std::numeric_limits<double>::infinity();

bool skipped(const SlicePtr& slice, bool skipUnloaded) {
  return !slice || (skipUnloaded && slice->hasPendingLoaders());
}

Info<Grid> found(double time, const SlicePtr& slice, StrongPtr<Grid> grid) {
  Info<Grid> result;
  result.time = time;
  result.slice = slice;
  result.grid = std::move(grid);
  return result;
}

}  // namespace

Bundle::GridInfo Bundle::findFirst(const std::string& name, bool skipUnloaded) const {
  StrongPtr<GridID> id;
  for (const auto& [time, entry] : slices_) {
    SlicePtr slice = entry;
    if (skipped(slice, skipUnloaded)) continue;
    if (StrongPtr<Grid> grid = lookUp(*slice, name, id)) return found(time, slice, grid);
  }
  return {};
}

Bundle::GridInfo Bundle::findLast(const std::string& name, bool skipUnloaded) const {
  StrongPtr<GridID> id;
  for (auto entry = slices_.rbegin(); entry != slices_.rend(); ++entry) {
    SlicePtr slice = entry->second;
    if (skipped(slice, skipUnloaded)) continue;
    if (StrongPtr<Grid> grid = lookUp(*slice, name, id)) return found(entry->first, slice, grid);
  }
  return {};
}

Bundle::GridInfo Bundle::findNext(double t, const std::string& name) const {
  if (std::isnan(t)) return {};
  StrongPtr<GridID> id;
  for (auto entry = slices_.lower_bound(t); entry != slices_.end(); ++entry) {
    SlicePtr slice = entry->second;
    if (slice) {
      if (StrongPtr<Grid> grid = lookUp(*slice, name, id)) return found(entry->first, slice, grid);
    }
    // Deliberately gives up when the first slice of the bundle failed.
    if (entry == slices_.begin()) return {};
  }
  return {};
}

namespace {

// Visits slices backward from the last one at or before `t`, each held by a
// strong handle, until `visit(time, slice)` answers false. Nothing is visited
// when no slice lies strictly after `t` or none lies at or before it.
template <class Visit>
void walkBackward(const Bundle::SliceTable& slices, double t, Visit&& visit) {
  if (std::isnan(t)) return;
  auto after = slices.upper_bound(t);
  if (after == slices.end() || after == slices.begin()) return;
  for (auto entry = std::prev(after);; --entry) {
    SlicePtr slice = entry->second;
    if (!visit(entry->first, slice) || entry == slices.begin()) return;
  }
}

// The first grid that `lookup` finds walking backward from `t`.
template <class Lookup>
Info<Grid> searchBackward(const Bundle::SliceTable& slices, double t, Lookup&& lookup) {
  Info<Grid> result;
  walkBackward(slices, t, [&](double time, const SlicePtr& slice) {
    StrongPtr<Grid> grid = slice ? lookup(*slice) : StrongPtr<Grid>();
    if (!grid) return true;
    result = found(time, slice, std::move(grid));
    return false;
  });
  return result;
}

}  // namespace

Bundle::GridInfo Bundle::findPrev(double t, const std::string& name) const {
  StrongPtr<GridID> id;
  return searchBackward(slices_, t, [&](Slice& slice) { return lookUp(slice, name, id); });
}

Bundle::GridInfo Bundle::findPrev(double t, const StrongPtr<GridID>& id) const {
  return searchBackward(slices_, t, [&](Slice& slice) { return slice(id); });
}

Bundle::GridInfo Bundle::findPreviousGrid(double t, const StrongPtr<GridID>& id) const {
  if (!id) return {};
  GridInfo result;
  result.slice = id->prev(t);
  result.time = t;
  if (SlicePtr slice = result.slice.lock()) result.grid = (*slice)(id);
  return result;
}

Bundle::GridInfo Bundle::findPreviousGrid(double t, const std::string& name) const {
  return findPreviousGrid(t, gridList_ ? gridList_->find(name) : StrongPtr<GridID>());
}

Bundle::GridInfo Bundle::findMostRecentGrid(double t, const std::string& name) const {
  return findPreviousGrid(t, name);
}

Bundle::GridInfo Bundle::findMostRecentGrid(double t, const StrongPtr<GridID>& id) const {
  if (!id) return {};
  return findPreviousGrid(t, id->getName());
}

unsigned Bundle::NumberOfGrids(const std::string& name, bool skipUnloaded) const {
  return walkOccurrences(slices_.begin(), kNoEnd, name, skipUnloaded,
                         [](double, GridID&, Grid&) { return true; });
}

unsigned Bundle::NumberOfGrids(double t0, double t1, const std::string& name,
                               bool skipUnloaded) const {
  if (std::isnan(t0) || std::isnan(t1)) return 0;
  auto [low, high] = std::minmax(t0, t1);
  return walkOccurrences(slices_.lower_bound(low), high, name, skipUnloaded,
                         [](double, GridID&, Grid&) { return true; });
}

unsigned Bundle::getNrSlicesOfGridInTimeRange(double t0, double t1, const std::string& name,
                                              bool skipUnloaded) const {
  return NumberOfGrids(t0, t1, name, skipUnloaded);
}

// ---- evolution ---------------------------------------------------------------------

// Visits the occurrences of `name` from `from` to the last slice at or
// before `until`, in ascending time, until `visit` answers false; returns the
// number of visits. Each slice is held by a temporary strong handle while it
// is visited.
template <class Visit>
unsigned Bundle::walkOccurrences(SliceTable::const_iterator from, double until,
                                 const std::string& name, bool skipUnloaded, Visit&& visit) const {
  unsigned visits = 0;
  StrongPtr<GridID> id;
  // The end is tested on each step: loaders run by the walk may add slices.
  for (auto entry = from; entry != slices_.end() && !(until < entry->first); ++entry) {
    SlicePtr slice = entry->second;
    if (skipped(slice, skipUnloaded)) continue;
    StrongPtr<Grid> grid = lookUp(*slice, name, id);
    if (!grid) continue;
    ++visits;
    if (!visit(entry->first, *id, *grid)) break;
  }
  return visits;
}

unsigned Bundle::iterate(const std::string& name, EvolutionIterator<Grid>& it,
                         bool skipUnloaded) const {
  return walkOccurrences(
      slices_.begin(), kNoEnd, name, skipUnloaded,
      [&](double time, GridID& id, Grid& grid) { return it.apply(time, id, grid); });
}

unsigned Bundle::iterate(const std::string& name,
                         const std::function<bool(double, GridID&, Grid&)>& f,
                         bool skipUnloaded) const {
  return walkOccurrences(slices_.begin(), kNoEnd, name, skipUnloaded, f);
}

unsigned Bundle::iterate(const StrongPtr<GridID>& id,
                         const std::function<bool(double, const GridID&, Grid&)>& f,
                         bool skipUnloaded) const {
  unsigned visits = 0;
  for (const auto& [time, entry] : slices_) {
    SlicePtr slice = entry;
    if (skipped(slice, skipUnloaded)) continue;
    StrongPtr<Grid> grid = (*slice)(id);
    if (!grid) continue;
    ++visits;
    if (!f(time, *id, *grid)) break;
  }
  return visits;
}

unsigned Bundle::iterateForward(double& t, const std::string& name, EvolutionIterator<Grid>& it,
                                bool skipUnloaded) const {
  if (std::isnan(t)) return 0;
  return walkOccurrences(slices_.lower_bound(t), kNoEnd, name, skipUnloaded,
                         [&](double time, GridID& id, Grid& grid) {
                           t = time;
                           return it.apply(time, id, grid);
                         });
}

unsigned Bundle::iterateBackward(double& t, const std::string& name, EvolutionIterator<Grid>& it,
                                 bool skipUnloaded) const {
  unsigned visits = 0;
  StrongPtr<GridID> id;
  walkBackward(slices_, t, [&](double time, const SlicePtr& slice) {
    if (skipped(slice, skipUnloaded)) return true;
    StrongPtr<Grid> grid = lookUp(*slice, name, id);
    if (!grid) return true;
    t = time;
    ++visits;
    return it.apply(time, *id, *grid);
  });
  return visits;
}

unsigned Bundle::iterate(const ParameterList& parameters, EvolutionIterator<Slice>& it) const {
  ParameterSet set;
  set.assign(parameters.begin(), parameters.end());
  StrongPtr<Parameter> time(new Parameter("time", 0.0));
  set.push_back(time);
  if (SlicePtr first = firstSlice().second.lock()) first->accessSlice();
  unsigned visits = 0;
  for (const auto& [sliceTime, entry] : slices_) {
    SlicePtr slice = entry;
    if (!slice) continue;
    time->setValue(sliceTime);
    ++visits;
    if (!it.apply(set, *slice)) break;
  }
  return visits;
}

// ---- refinement levels ------------------------------------------------------------------

namespace {
// Level n asks for factor 2^n, the shift count taken modulo 32.
int refinementFactor(int level) {
  return static_cast<int>(1u << (level & 31));
}
}  // namespace

Bundle::GridInfo Bundle::refinementIn(double time, const SlicePtr& slice, const std::string& name,
                                      int level, int extra) const {
  GridInfo result;
  if (!slice) return result;
  StrongPtr<GridID> id;
  result.grid = lookUp(*slice, name, id);
  if (!result.grid) return result;
  result.time = time;
  result.slice = slice;
  result.skeleton = result.grid->findIsotropicRefinementFactor(refinementFactor(level), extra);
  return result;
}

Bundle::GridInfo Bundle::findNextRefinementLevel(SliceTable::const_iterator& pos,
                                                 const std::string& name, int level,
                                                 int extra) const {
  if (pos == slices_.end()) return {};
  for (++pos; pos != slices_.end(); ++pos) {
    GridInfo result = refinementIn(pos->first, pos->second, name, level, extra);
    if (result.grid && result.skeleton) return result;
  }
  return {};
}

Bundle::GridInfo Bundle::findPreviousRefinementLevel(double& t, const std::string& name, int level,
                                                     EvolutionIterator<Skeleton>* it,
                                                     int extra) const {
  if (slices_.empty() || std::isnan(t)) return {};
  auto after = slices_.upper_bound(t);
  auto first = slices_.begin();

  if (slices_.size() == 1 && !(t < first->first)) {
    GridInfo result = refinementIn(first->first, first->second, name, level, extra);
    if (!result.grid) return {};
    if (!result.skeleton) {
      std::printf("No level %d found\n", level);
      return {};
    }
    t = result.time;
    return result;
  }

  if (after == first) {
    GridInfo result;
    result.time = first->first;
    return result;
  }

  auto position = std::prev(after);
  GridInfo result;
  for (;; --position) {
    result = refinementIn(position->first, position->second, name, level, extra);
    if (result.grid && result.skeleton) break;
    if (position == first) return {};
  }

  t = result.time;
  if (!it || !it->apply(result.time, *result.grid, *result.skeleton)) return result;
  for (;;) {
    GridInfo further = findNextRefinementLevel(position, name, level, extra);
    if (!further.grid || !it->apply(further.time, *further.grid, *further.skeleton)) break;
  }
  return result;
}

// ---- handle ------------------------------------------------------------------------------

Bundle* BundlePtr::create() {
  if (valid()) return get();
  *this = BundlePtr(new Bundle);
  return get();
}

// ---- loading, merging, saving, binding ----

StrongPtr<Bundle> Bundle::load(bool& ok, const StrongPtr<Ostrak::LoaderParameters>& request,
                               const StrongPtr<Bundle>& target) {
  Ostrak::Loader<Bundle>::ldrpar block(target);
  ok = Ostrak::LoaderRegistryBase::domain_load(request, block, typeid(Bundle));
  return block.target;
}

bool Bundle::merge(const StrongPtr<Ostrak::LoaderParameters>& request) {
  // A loader may drop or replace the handles it is given; without a strong
  // holder of its own the bundle would die under the load.
  StrongPtr<Bundle> self = Ostrak::strongFromThis(this);
  if (!self) {
    if (request) request->setErrorText("No strong references on bundle pointer!");
    return false;
  }
  bool ok = false;
  load(ok, request, self);
  return ok;
}

bool Bundle::merge(const std::list<std::string>& filenames) {
  return merge(StrongPtr<Ostrak::LoaderParameters>(new Ostrak::LoaderParameters(filenames)));
}

bool Bundle::merge(const std::string& filename) {
  return merge(std::list<std::string>{filename});
}

namespace {

// Attaches the caller's policy and progress sink; null or dead ones are
// left out (the savers then find none).
void attachSaveInterfaces(Ostrak::SaveParameters& request,
                          const StrongPtr<Ostrak::LoaderProgress>& progress,
                          const StrongPtr<StorageTransformations>& transformations) {
  request.addInterface(transformations);
  request.addInterface(progress);
}

}  // namespace

bool Bundle::save(const std::string& filename, const StrongPtr<Ostrak::LoaderProgress>& progress,
                  const StrongPtr<StorageTransformations>& transformations) const {
  StrongPtr<Ostrak::SaveParameters> request(new Ostrak::SaveParameters(filename));
  attachSaveInterfaces(*request, progress, transformations);
  return const_iterateInterfaces(request);
}

Bundle::BindingResult Bundle::bindTo(const std::string& filename,
                                     const StrongPtr<Ostrak::InterfaceBase>& first,
                                     const StrongPtr<Ostrak::InterfaceBase>& second) {
  StrongPtr<Ostrak::SaveParameters> request(new Ostrak::SaveParameters(filename));
  request->addInterface(first);
  request->addInterface(second);
  if (!request->findInterface(typeid(Binder::Parameters)))
    request->addInterface(StrongPtr<Ostrak::InterfaceBase>(new Binder::Parameters(true)));
  iterateInterfaces(request);
  return BindingResult{request->getStatus(), request->getText()};
}

Bundle::BindingResult Bundle::bindToNew(const std::string& filename,
                                        const StrongPtr<StorageTransformations>& transformations) {
  return bindTo(filename, transformations,
                StrongPtr<Ostrak::InterfaceBase>(new Binder::Parameters(false)));
}

Bundle::BindingResult Bundle::bindToNew(const std::string& filename) {
  return bindToNew(filename, StrongPtr<StorageTransformations>());
}

bool BundlePtr::load(const std::string& filename,
                     const StrongPtr<Ostrak::LoaderProgress>& progress) {
  return load(std::list<std::string>{filename}, progress);
}

bool BundlePtr::load(const std::list<std::string>& filenames,
                     const StrongPtr<Ostrak::LoaderProgress>& progress) {
  create();
  StrongPtr<Ostrak::LoaderParameters> request(new Ostrak::LoaderParameters(filenames));
  if (progress) request->addInterface(progress);
  bool ok = false;
  Bundle::load(ok, request, *this);
  return ok;
}

bool BundlePtr::save(const std::string& filename, const StrongPtr<Ostrak::LoaderProgress>& progress,
                     const StrongPtr<StorageTransformations>& transformations) const {
  if (!valid()) return false;
  return get()->save(filename, progress, transformations);
}

int BundlePtr::saveGrids(const std::string& filename,
                         const StrongPtr<Ostrak::StringList>& gridNames,
                         const StrongPtr<Ostrak::LoaderProgress>& progress,
                         const StrongPtr<StorageTransformations>& transformations) const {
  if (!valid()) return -1;
  StrongPtr<Ostrak::SaveParameters> request(gridNames ? new GridSaveParameters(filename, gridNames)
                                                      : new Ostrak::SaveParameters(filename));
  attachSaveInterfaces(*request, progress, transformations);
  return get()->const_iterateInterfaces(request) ? 1 : 0;
}

// ---- end of loading, merging, saving, binding ----

}  // namespace Quaril
