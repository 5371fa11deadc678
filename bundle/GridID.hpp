#pragma once
// Grid identities: one per grid name of a bundle, and the bundle's list of them.

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>

#include "bundle/SliceMap.hpp"
#include "grid/Grid.hpp"
#include "ostrak/Intercube.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Quaril {

/// The identity of a grid name across the time steps of a bundle: the name,
/// the times and slices at which a grid of that name exists, an optional
/// parent and any number of children. Parent, children and slices are held
/// weakly.
class GridID : public Ostrak::ReferenceBase<GridID>, public Ostrak::Intercube {
 public:
  /// Callback of `iterate` over the children: true goes on, false stops.
  class Iterator {
   public:
    virtual bool apply(const Ostrak::WeakPtr<GridID>& child) = 0;
    virtual ~Iterator();
  };

  explicit GridID(const std::string& name);
  ~GridID() override;

  const std::string& getName() const noexcept { return name_; }

  /// Records that a grid of this name exists at `time` in `slice`. Returns
  /// true when the time was new.
  bool insert(double time, const SliceWeakPtr& slice);
  /// The last recorded slice at or before `time`; updates `time` to its time.
  SliceWeakPtr prev(double& time) const { return slices_.prev(time); }
  /// The first recorded slice strictly after `time`; updates `time`.
  SliceWeakPtr next(double& time) const { return slices_.next(time); }
  const SliceMap& getSliceMap() const noexcept { return slices_; }

  /// Exact, case-sensitive comparison of the name.
  bool equal(const std::string& name) const noexcept { return name_ == name; }

  /// Makes `child` a child of this identity. False for an empty or dead
  /// child, or one that already has another live parent (which it keeps).
  bool insertChild(const Ostrak::WeakPtr<GridID>& child);
  /// Whether the live `child`'s parent link names this identity.
  bool isParentOf(const Ostrak::WeakPtr<GridID>& child) const;
  /// Whether this identity's parent link and `parent` name the same block,
  /// without a liveness test: an identity without parent is a child of an
  /// empty handle.
  bool isChildOf(const Ostrak::WeakPtr<GridID>& parent) const noexcept;
  const Ostrak::WeakPtr<GridID>& getParent() const noexcept { return parent_; }
  /// Calls `it.apply` for each child in identity order until it answers
  /// false. Returns the number of children for which it answered true.
  uint32_t iterate(Iterator& it) const;
  size_t numberOfChildren() const noexcept { return children_.size(); }

 private:
  std::string name_;
  SliceMap slices_;
  Ostrak::WeakPtr<GridID> parent_;
  std::set<Ostrak::WeakPtr<GridID>> children_;
  // Cross-reference tables kept for formats that index an identity's fields
  // by time and skeleton; nothing in the bundle library fills them.
  std::map<double, std::map<SkeletonID, std::map<std::string, Ostrak::WeakPtr<Field>>>>
      fieldReferences_;
  std::set<Ostrak::WeakPtr<GridID>> relatedIdentities_;
};

/// The grid identities of one bundle. It holds every identity strongly; an
/// identity lives as long as it is listed or some slice keys a grid by it.
/// Look-up by name is by an index, so it costs the same for any number of
/// identities.
class GridList : public GridContainer {
 public:
  /// Identities ordered by the identity of their reference blocks.
  using IdentifierSet = std::set<Ostrak::StrongPtr<GridID>>;

  GridList();
  ~GridList() override;

  /// The identity named `name` (exact bytes), or null. Never creates.
  Ostrak::StrongPtr<GridID> find(const std::string& name) const;
  Ostrak::StrongPtr<GridID> operator()(const std::string& name) const { return find(name); }
  /// The identity named `name` without taking a handle, or null; valid as
  /// long as the list lives.
  GridID* findIdentity(const std::string& name) const noexcept;
  /// The identity named `name`, created when there is none.
  Ostrak::StrongPtr<GridID> operator[](const std::string& name);
  /// Number of identities (not of grids).
  uint32_t getNumberOfGrids() const noexcept { return static_cast<uint32_t>(ids_.size()); }
  /// Adds the names of the live identities to `names`; returns how many
  /// live identities were visited.
  uint32_t getGridnames(std::set<std::string>& names) const;
  const IdentifierSet& getIdentifiers() const noexcept { return ids_; }

 private:
  IdentifierSet ids_;
  std::unordered_map<std::string, GridID*> byName_;
};

}  // namespace Quaril
