#pragma once
// Ownership lists: an owned object names the containers that own it, in the
// order they took it, through weak handles.

#include <memory>

#include "ostrak/ReferenceBase.hpp"

namespace Ostrak {

/// Common virtual base of owned objects and owner containers, so that one
/// object can be both and a container can be cast to its concrete class.
class OwnerBase {
 public:
  virtual ~OwnerBase();
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

  /// Appends `owner` unless it is listed already. Returns whether it was added.
  bool addOwner(const Container& owner) {
    std::unique_ptr<OwnerEntry>* slot = &owners_;
    ReferenceBlock* block = owner.referenceBlock();
    while (*slot) {
      if ((*slot)->owner.referenceBlock() == block) return false;
      slot = &(*slot)->next;
    }
    *slot = std::make_unique<OwnerEntry>();
    (*slot)->owner = OwnerPtr(const_cast<Container*>(&owner));
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

 private:
  std::unique_ptr<OwnerEntry> owners_;
};

}  // namespace Ostrak
