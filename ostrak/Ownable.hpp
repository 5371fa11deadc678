#pragma once
// Ownership lists: an owned object names the containers that own it, in the
// order they took it, through weak handles.

#include <memory>

#include "ostrak/Ageable.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Ostrak {

/// Common virtual base of owned objects and owner containers, so that one
/// object can be both and a container can be cast to its concrete class.
///
/// It also carries a change mark, so that whoever writes a data model out
/// again can find what changed without visiting everything: an object that
/// gains an owned object, or that is marked itself, passes the mark up to
/// every live owner, and on to theirs. A mark travels at most once per time
/// of the global clock (Ageable); advancing the clock starts a new round.
class OwnerBase {
 public:
  OwnerBase() = default;
  OwnerBase(const OwnerBase&) noexcept {}
  OwnerBase& operator=(const OwnerBase&) noexcept { return *this; }
  virtual ~OwnerBase();

  /// Marks the object changed and tells its owners, unless it was marked at
  /// the clock's current time already.
  void markChanged();
  /// Told that `owned`, an object this one owns, gained something or was
  /// marked. Marks this object; containers that keep track of what changed
  /// below them override it.
  virtual void ownedChanged(OwnerBase& owned);

 protected:
  /// Passes a new mark on to the owners; nothing for an object without any.
  virtual void tellOwners() {}

 private:
  Age marked_ = 0;
};

/// An object of kind `T` that knows its owners. The owner list is singly
/// linked, in insertion order; an owner is listed at most once. Copies start
/// with no owners.
template <class T>
class Ownable : public virtual OwnerBase {
 public:
  /// A reference-counted container that owns objects of kind `T`.
  class Container : public ReferenceBase<Container>, public virtual OwnerBase {
   public:
    Container() = default;
    Container(const Container&) = default;
    Container& operator=(const Container&) = default;
    ~Container() override = default;
  };

  using OwnerPtr = WeakPtr<Container>;

  /// One link of the owner list.
  struct OwnerEntry {
    OwnerPtr owner;
    std::unique_ptr<OwnerEntry> next;
  };

  Ownable() = default;
  Ownable(const Ownable&) : Ownable() {}
  Ownable& operator=(const Ownable&) { return *this; }
  ~Ownable() override {
    // Unlink iteratively so that long lists cannot exhaust the stack.
    while (owners_) owners_ = std::move(owners_->next);
  }

  /// Appends `owner` unless it is listed already, and marks it changed
  /// either way (it may hold the object once more). Returns whether it was
  /// added.
  bool addOwner(const Container& owner) {
    std::unique_ptr<OwnerEntry>* slot = &owners_;
    ReferenceBlock* block = owner.referenceBlock();
    while (*slot) {
      if ((*slot)->owner.referenceBlock() == block) {
        const_cast<Container&>(owner).ownedChanged(*this);
        return false;
      }
      slot = &(*slot)->next;
    }
    *slot = std::make_unique<OwnerEntry>();
    (*slot)->owner = OwnerPtr(const_cast<Container*>(&owner));
    const_cast<Container&>(owner).ownedChanged(*this);
    return true;
  }

  /// Removes `owner` from the list. Returns whether it was listed.
  bool removeOwner(const Container& owner) {
    ReferenceBlock* block = owner.referenceBlock();
    for (std::unique_ptr<OwnerEntry>* slot = &owners_; *slot; slot = &(*slot)->next) {
      if ((*slot)->owner.referenceBlock() == block) {
        *slot = std::move((*slot)->next);
        return true;
      }
    }
    return false;
  }

  /// The head of the owner list (null when the object has no owners).
  const OwnerEntry* owners() const noexcept { return owners_.get(); }

  /// The first listed owner that is still alive, or a null handle.
  OwnerPtr firstLiveOwner() const {
    for (const OwnerEntry* entry = owners_.get(); entry; entry = entry->next.get()) {
      if (entry->owner.valid()) return entry->owner;
    }
    return {};
  }

  /// Whether `owner` is listed (alive or not).
  bool isOwnedBy(const Container& owner) const noexcept {
    for (const OwnerEntry* entry = owners_.get(); entry; entry = entry->next.get()) {
      if (entry->owner.referenceBlock() == owner.referenceBlock()) return true;
    }
    return false;
  }

 protected:
  void tellOwners() override {
    for (const OwnerEntry* entry = owners_.get(); entry; entry = entry->next.get()) {
      if (entry->owner.valid()) entry->owner->ownedChanged(*this);
    }
  }

 private:
  std::unique_ptr<OwnerEntry> owners_;
};

}  // namespace Ostrak
