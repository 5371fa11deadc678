#pragma once
// One time step of a bundle: its grids, keyed by grid identity.

#include <cmath>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>

#include "bundle/GridID.hpp"
#include "grid/Grid.hpp"
#include "ostrak/Attributes.hpp"
#include "ostrak/Intercube.hpp"
#include "ostrak/Ownable.hpp"
#include "ostrak/StringList.hpp"

namespace Quaril {

class Bundle;

/// Callback over the grids of a slice: true goes on, false stops.
class GridIterator {
 public:
  virtual ~GridIterator();
  virtual bool apply(GridID& id, Grid& grid) = 0;
};

/// All grids of one time step. Grids are keyed by their bundle-wide identity;
/// every access by name goes through the owning bundle's grid list, so a
/// slice must have a live owning bundle to be used by name.
///
/// A slice may carry pending loaders, added by formats that load time steps
/// lazily; they run once, on the first access to the slice's contents.
class Slice : public Ostrak::Ownable<Grid>::Container,
              public Ostrak::Ownable<Slice>,
              public Ostrak::Intercube,
              public Ostrak::SaveableAttributes {
 public:
  /// Provides a slice's contents on its first access.
  class Loader : public Ostrak::ReferenceBase<Loader> {
   public:
    ~Loader() override;
    /// Fills `slice`; the result is not used.
    virtual bool load(const Ostrak::WeakPtr<Slice>& slice) = 0;
  };

  /// Orders identities by their reference blocks; also compares with a bare
  /// block, so that look-ups need no handle.
  struct IdentityOrder {
    using is_transparent = void;
    using Block = const Ostrak::ReferenceBlock*;
    static Block block(const Ostrak::StrongPtr<GridID>& id) noexcept { return id.referenceBlock(); }
    static Block block(Block b) noexcept { return b; }
    template <class A, class B>
    bool operator()(const A& a, const B& b) const noexcept {
      return std::less<Block>{}(block(a), block(b));
    }
  };
  using GridMap = std::map<Ostrak::StrongPtr<GridID>, Ostrak::StrongPtr<Grid>, IdentityOrder>;
  using GridEntry = std::pair<Ostrak::StrongPtr<GridID>, Ostrak::StrongPtr<Grid>>;

  /// A slice owned by `owner` (in practice its bundle) whose grids use `charts`.
  Slice(const Ostrak::Ownable<Slice>::Container& owner,
        const Ostrak::StrongPtr<GlobalCharts>& charts);
  ~Slice() override;

  /// Finds or creates the identity of `name` and registers this slice with
  /// it at the time the slice is filed under; adds an empty grid entry for it
  /// when there is none. Null without a live owning bundle. Loads nothing.
  Ostrak::StrongPtr<GridID> makeGridID(const std::string& name);
  /// The identity of `name` in the bundle's grid list, or null. Never
  /// creates; runs pending loaders first.
  Ostrak::StrongPtr<GridID> findGridID(const std::string& name) const;

  /// The grid of `name`, created when missing. Null without a live bundle.
  Grid* operator[](const std::string& name);
  /// The grid under `id`, created when missing; `id` is not registered with
  /// the bundle's grid list (use the name form for that).
  Grid* operator[](const Ostrak::StrongPtr<GridID>& id);
  /// The grid of `name`, or null. Never creates.
  Ostrak::StrongPtr<Grid> operator()(const std::string& name) const;
  /// The grid under `id`, or null. Never creates.
  Ostrak::StrongPtr<Grid> operator()(const Ostrak::StrongPtr<GridID>& id) const;
  /// A fresh grid under `name`, replacing (and releasing) any grid there.
  Grid* newGrid(const std::string& name);
  /// As `newGrid(name)`, and makes the identity of `name` a child of the
  /// identity of `parentName` when that exists (never created).
  Grid* newGrid(const std::string& name, const std::string& parentName);
  /// Puts `grid` under `name`, replacing any grid there. False (and nothing
  /// done) for an empty or dead grid.
  bool insert(const std::string& name, const Ostrak::StrongPtr<Grid>& grid);
  /// The identity and grid of a slice holding exactly one entry; two null
  /// handles otherwise.
  GridEntry getUniqueGrid() const;

  /// The owning bundle's grid list, or null without a live owning bundle.
  Ostrak::StrongPtr<GridList> getIDList() const;
  /// The first live owner, if it is a bundle; otherwise null.
  Bundle* getOwningBundle() const;

  /// Calls `it.apply` for each live grid, in identity order, whose name is in
  /// `names` (every grid when `names` is null) until it answers false.
  /// Returns the number of true answers. Runs pending loaders first.
  uint32_t iterate(GridIterator& it, const Ostrak::StrongPtr<Ostrak::StringList>& names = {});

  /// Runs pending loaders once; a loader that accesses the slice again does
  /// not run them a second time. Always true.
  bool accessSlice() const;
  /// Adds a loader to run on the slice's first access.
  void addLoader(const Ostrak::StrongPtr<Loader>& loader);
  /// Whether loaders are pending (the slice counts as unloaded).
  bool hasPendingLoaders() const noexcept { return !pendingLoaders_.empty(); }

  /// Adds the grids' memory counters to `first` and `second` (see
  /// SkeletonMap::getMemoryUsage) and returns their total, wrapping modulo
  /// 2^32. Loads nothing.
  uint32_t getMemoryUsage(unsigned long long& first, unsigned long long& second) const;

  /// The slice's grids as XML text lines. Loads nothing.
  std::string xml() const;

  const GridMap& getGrids() const noexcept { return grids_; }
  const Ostrak::StrongPtr<GlobalCharts>& getCharts() const noexcept { return charts_; }
  /// The time at which the owning bundle filed this slice; NaN before.
  double getTime() const noexcept { return time_; }

  /// Runs pending loaders when the bundle is bound to storage, then releases
  /// every grid.
  void extremeUnction() override;

 protected:
  /// A slice whose attributes change counts as changed (Ostrak::OwnerBase).
  void attributesChanged() override { markChanged(); }

 private:
  friend class Bundle;

  /// Called by the bundle when it stops filing this slice.
  void unfile() noexcept { time_ = std::nan(""); }

  GridMap::iterator entryFor(const Ostrak::StrongPtr<GridID>& id);
  GridMap::const_iterator findEntry(const GridID* id) const;
  GridMap::const_iterator findEntry(const std::string& name, const GridList& list) const;
  void buildIndex();
  void indexEntry(GridMap::iterator entry, const GridList* list);
  Grid* createGridIn(GridMap::iterator entry);
  void replaceGrid(GridMap::iterator entry, const Ostrak::StrongPtr<Grid>& grid);
  GridList* gridList() const;

  GridMap grids_;
  // A hash index by name over the grid map, built once a slice holds many
  // grids, so that look-ups stay constant-time at any number of grid names.
  // Entries keyed by an identity foreign to the bundle are not in it.
  using GridIndex = std::unordered_map<std::string, GridMap::iterator>;
  std::unique_ptr<GridIndex> index_;
  size_t unindexedEntries_ = 0;
  // The owner last examined and its cast to a bundle, to spare the cast on
  // every look-up; the handle keeps the block, so its address is not reused.
  mutable Ostrak::WeakPtr<Ostrak::Ownable<Slice>::Container> ownerSeen_;
  mutable Bundle* ownerBundle_ = nullptr;
  Ostrak::StrongPtr<GlobalCharts> charts_;
  mutable std::set<Ostrak::StrongPtr<Loader>> pendingLoaders_;
  double time_ = std::nan("");
};

}  // namespace Quaril
