#include "bundle/GridID.hpp"

namespace Quaril {

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

GridID::Iterator::~Iterator() = default;

GridID::GridID(const std::string& name) : name_(name) {}

GridID::~GridID() = default;

bool GridID::insert(double time, const SliceWeakPtr& slice) {
  return slices_.insert(time, slice);
}

bool GridID::insertChild(const WeakPtr<GridID>& child) {
  GridID* target = child.get();
  if (!target) return false;
  if (target->parent_.referenceBlock() == referenceBlock()) return true;
  if (target->parent_.valid()) return false;  // one live parent; a second is refused
  target->parent_ = WeakPtr<GridID>(this);
  children_.insert(child);
  return true;
}

bool GridID::isParentOf(const WeakPtr<GridID>& child) const {
  const GridID* target = child.get();
  return target && target->parent_.referenceBlock() == referenceBlock();
}

bool GridID::isChildOf(const WeakPtr<GridID>& parent) const noexcept {
  return parent_.referenceBlock() == parent.referenceBlock();
}

uint32_t GridID::iterate(Iterator& it) const {
  uint32_t count = 0;
  for (const WeakPtr<GridID>& child : children_) {
    if (!it.apply(child)) break;
    ++count;
  }
  return count;
}

GridList::GridList() = default;

GridList::~GridList() = default;

GridID* GridList::findIdentity(const std::string& name) const noexcept {
  auto found = byName_.find(name);
  return found == byName_.end() ? nullptr : found->second;
}

StrongPtr<GridID> GridList::find(const std::string& name) const {
  return Ostrak::strongFromThis(findIdentity(name));
}

StrongPtr<GridID> GridList::operator[](const std::string& name) {
  if (StrongPtr<GridID> existing = find(name)) return existing;
  StrongPtr<GridID> created(new GridID(name));
  ids_.insert(created);
  byName_[name] = created.get();
  return created;
}

uint32_t GridList::getGridnames(std::set<std::string>& names) const {
  uint32_t count = 0;
  for (const StrongPtr<GridID>& id : ids_) {
    if (!id) continue;
    names.insert(id->getName());
    ++count;
  }
  return count;
}

}  // namespace Quaril
