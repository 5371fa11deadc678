#include "bundle/Slice.hpp"

#include "bundle/Bundle.hpp"
#include "ostrak/Diagnostics.hpp"

namespace Quaril {

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

GridIterator::~GridIterator() = default;

Slice::Loader::~Loader() = default;

Slice::Slice(const Ostrak::Ownable<Slice>::Container& owner, const StrongPtr<GlobalCharts>& charts)
    : charts_(charts) {
  addOwner(owner);
}

Slice::~Slice() = default;

Bundle* Slice::getOwningBundle() const {
  for (const OwnerEntry* entry = owners(); entry; entry = entry->next.get()) {
    if (!entry->owner.valid()) continue;
    if (entry->owner.referenceBlock() != ownerSeen_.referenceBlock()) {
      ownerBundle_ = dynamic_cast<Bundle*>(entry->owner.get());
      ownerSeen_ = entry->owner;
    }
    return ownerBundle_;
  }
  return nullptr;
}

GridList* Slice::gridList() const {
  Bundle* bundle = getOwningBundle();
  return bundle ? bundle->getGridList().get() : nullptr;
}

StrongPtr<GridList> Slice::getIDList() const {
  Bundle* bundle = getOwningBundle();
  return bundle ? bundle->getGridList() : StrongPtr<GridList>();
}

StrongPtr<GridID> Slice::makeGridID(const std::string& name) {
  GridList* list = gridList();
  if (!list) return {};
  StrongPtr<GridID> id = (*list)[name];  // finds the live identity or creates it
  // The bundle files a slice under exactly one time, which the slice keeps,
  // so registering it needs no walk over the bundle's slices.
  if (!std::isnan(time_)) id->insert(time_, SliceWeakPtr(this));
  entryFor(id);
  return id;
}

StrongPtr<GridID> Slice::findGridID(const std::string& name) const {
  accessSlice();
  const GridList* list = gridList();
  return list ? list->find(name) : StrongPtr<GridID>();
}

Slice::GridMap::iterator Slice::entryFor(const StrongPtr<GridID>& id) {
  auto [entry, added] = grids_.try_emplace(id);
  constexpr size_t kIndexedFrom = 32;
  if (index_) {
    if (added) indexEntry(entry, gridList());
  } else if (grids_.size() >= kIndexedFrom) {
    buildIndex();
  }
  return entry;
}

void Slice::buildIndex() {
  const GridList* list = gridList();
  if (!list) return;
  index_ = std::make_unique<GridIndex>();
  index_->reserve(grids_.size() * 2);
  for (auto entry = grids_.begin(); entry != grids_.end(); ++entry) indexEntry(entry, list);
}

// Only entries keyed by the bundle's own identity of their name go into the
// index: those are the ones a look-up by name resolves to.
void Slice::indexEntry(GridMap::iterator entry, const GridList* list) {
  const GridID* id = entry->first.get();
  if (id && list && list->findIdentity(id->getName()) == id) {
    index_->emplace(id->getName(), entry);
  } else {
    ++unindexedEntries_;
  }
}

Slice::GridMap::const_iterator Slice::findEntry(const GridID* id) const {
  if (!index_) return grids_.find(id->referenceBlock());
  auto found = index_->find(id->getName());
  if (found != index_->end() && found->second->first.rawPointer() == id) return found->second;
  return unindexedEntries_ == 0 ? grids_.end() : grids_.find(id->referenceBlock());
}

Slice::GridMap::const_iterator Slice::findEntry(const std::string& name,
                                                const GridList& list) const {
  if (index_) {
    auto found = index_->find(name);
    return found == index_->end() ? grids_.end() : GridMap::const_iterator(found->second);
  }
  const GridID* id = list.findIdentity(name);
  return id ? grids_.find(id->referenceBlock()) : grids_.end();
}

Grid* Slice::createGridIn(GridMap::iterator entry) {
  Bundle* bundle = getOwningBundle();
  WeakPtr<GridContainer> container;
  if (bundle && bundle->getGridList()) container = bundle->getGridList();
  replaceGrid(entry, StrongPtr<Grid>(new Grid(container, charts_)));
  return entry->second.get();
}

// Owner lists are never pruned: a replaced grid still names this slice, and
// its primary owner stays the first slice that took it.
void Slice::replaceGrid(GridMap::iterator entry, const StrongPtr<Grid>& grid) {
  entry->second = grid;
  grid->addOwner(*this);
}

Grid* Slice::operator[](const std::string& name) {
  accessSlice();
  StrongPtr<GridID> id = makeGridID(name);
  if (!id) return nullptr;
  return (*this)[id];
}

Grid* Slice::operator[](const StrongPtr<GridID>& id) {
  accessSlice();
  auto entry = entryFor(id);
  if (entry->second) return entry->second.get();
  return createGridIn(entry);
}

StrongPtr<Grid> Slice::operator()(const StrongPtr<GridID>& id) const {
  accessSlice();
  if (!id) return {};
  auto found = findEntry(id.rawPointer());
  if (found == grids_.end() || !found->second) return {};
  return found->second;
}

StrongPtr<Grid> Slice::operator()(const std::string& name) const {
  accessSlice();
  const GridList* list = gridList();
  if (!list) return {};
  auto found = findEntry(name, *list);
  if (found == grids_.end() || !found->second) return {};
  return found->second;
}

Grid* Slice::newGrid(const std::string& name) {
  accessSlice();
  StrongPtr<GridID> id = makeGridID(name);
  if (!id) return nullptr;
  return createGridIn(entryFor(id));
}

Grid* Slice::newGrid(const std::string& name, const std::string& parentName) {
  accessSlice();  // a pending loader may create the parent
  const GridList* list = gridList();
  StrongPtr<GridID> parent = list ? list->find(parentName) : StrongPtr<GridID>();
  Grid* grid = newGrid(name);
  if (grid && parent) parent->insertChild(findGridID(name));
  return grid;
}

bool Slice::insert(const std::string& name, const StrongPtr<Grid>& grid) {
  if (!grid) return false;
  accessSlice();
  StrongPtr<GridID> id = makeGridID(name);
  if (!id) return false;
  replaceGrid(entryFor(id), grid);
  return true;
}

Slice::GridEntry Slice::getUniqueGrid() const {
  accessSlice();
  if (grids_.size() != 1) return {};
  return *grids_.begin();
}

uint32_t Slice::iterate(GridIterator& it, const StrongPtr<Ostrak::StringList>& names) {
  accessSlice();
  const Ostrak::StringList* filter = names.get();
  uint32_t count = 0;
  for (const auto& [id, grid] : grids_) {
    if (!id || !grid) continue;
    if (filter && !filter->contains(id->getName())) continue;
    if (!it.apply(*id, *grid)) break;
    ++count;
  }
  return count;
}

bool Slice::accessSlice() const {
  if (pendingLoaders_.empty()) return true;
  // Taken out before any loader runs, so a loader that reads the slice again
  // does not start the loaders a second time.
  std::set<StrongPtr<Loader>> loaders;
  loaders.swap(pendingLoaders_);
  WeakPtr<Slice> self(const_cast<Slice*>(this));
  for (auto entry = loaders.begin(); entry != loaders.end(); entry = loaders.erase(entry)) {
    if (!*entry) continue;
    try {
      (*entry)->load(self);
    } catch (...) {
      // A failing loader leaves the slice as far as it got; the others still run.
      Ostrak::reportDiagnostic(Ostrak::Diagnostic::HookException, "a slice loader threw");
    }
  }
  return true;
}

void Slice::addLoader(const StrongPtr<Loader>& loader) {
  if (loader) pendingLoaders_.insert(loader);
}

uint32_t Slice::getMemoryUsage(unsigned long long& first, unsigned long long& second) const {
  uint32_t total = 0;
  for (const auto& entry : grids_) {
    if (entry.second) total += entry.second->getMemoryUsage(first, second);
  }
  return total;
}

std::string Slice::xml() const {
  std::string text;
  for (const auto& [id, grid] : grids_) {
    if (!id || !grid) continue;
    std::string heading = "    <ID>" + id->getName() + "</ID>\n";
    text += "   <GRID>\n";
    text += heading;
    text += grid->xml();
    text += "   </GRID>\n";
  }
  return text;
}

void Slice::extremeUnction() {
  if (!pendingLoaders_.empty()) {
    Bundle* bundle = getOwningBundle();
    if (bundle && bundle->getStorage()) accessSlice();
  }
  index_.reset();
  unindexedEntries_ = 0;
  grids_.clear();
}

}  // namespace Quaril
