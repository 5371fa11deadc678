#pragma once
// A whole data set: time steps (slices) holding named grids.

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "bundle/GridID.hpp"
#include "bundle/Slice.hpp"
#include "bundle/StorageTransformations.hpp"
#include "field/MemBase.hpp"
#include "grid/Grid.hpp"
#include "ostrak/Ageable.hpp"
#include "ostrak/Attributes.hpp"
#include "ostrak/Intercube.hpp"
#include "ostrak/Loader.hpp"
#include "ostrak/Ownable.hpp"
#include "ostrak/StringList.hpp"

namespace Quaril {

class Bundle;
class ParameterList;
class ParameterSet;

/// Result of the grid searches across time: where a grid was found. The
/// empty record has time 0.0 and null references.
template <class T>
struct Info;

template <>
struct Info<Grid> {
  double time = 0.0;
  SliceWeakPtr slice;
  Ostrak::StrongPtr<Grid> grid;
  /// Set by the refinement-level searches only.
  Ostrak::StrongPtr<Skeleton> skeleton;

  /// Whether a live grid was found.
  explicit operator bool() const noexcept { return grid.valid(); }
};

/// Callbacks of the walks over time; `apply` answers true to go on.
template <class T>
class EvolutionIterator;

template <>
class EvolutionIterator<Grid> {
 public:
  virtual ~EvolutionIterator();
  virtual bool apply(double time, GridID& id, Grid& grid) = 0;
};

template <>
class EvolutionIterator<Slice> {
 public:
  virtual ~EvolutionIterator();
  /// `parameters` holds a parameter "time" set to the slice's time.
  virtual bool apply(ParameterSet& parameters, Slice& slice) = 0;
};

template <>
class EvolutionIterator<Skeleton> {
 public:
  virtual ~EvolutionIterator();
  virtual bool apply(double time, Grid& grid, Skeleton& skeleton) = 0;
};

template <>
class EvolutionIterator<Field> {
 public:
  virtual ~EvolutionIterator();
  virtual bool apply(double time, Field& field) = 0;
};

/// The storage a bundle is bound to. Whatever binds a bundle to a file sets
/// it with `Bundle::setStorage`; the bundle calls `synchronize` on `sync`,
/// on `processOwnership` and at its end of life.
class StorageBinding : public Ostrak::ReferenceBase<StorageBinding> {
 public:
  ~StorageBinding() override;
  /// Pushes the bundle's state to storage. `item` is null for a plain
  /// synchronisation, or a memory object whose ownership is being processed
  /// with `target` the object that receives it. The result is the binding's
  /// own status (0 for nothing done).
  virtual int32_t synchronize(const Bundle& bundle,
                              const Ostrak::StrongPtr<MemBase, Cacheable>& item,
                              Ostrak::Intercube& target) = 0;
};

/// A bundle: an ordered map from exact time values to slices, the grid
/// identities of all its slices, the charts they share, and interfaces
/// (savers, bindings) attached by type.
class Bundle : public Ostrak::Ownable<Slice>::Container,
               public Ostrak::Intercube,
               public Ostrak::Attributes,
               public Ostrak::Ageable {
 public:
  /// Told of modifications that callers announce.
  class Notifier : public Ostrak::ReferenceBase<Notifier> {
   public:
    Notifier();
    ~Notifier() override;
    virtual void bundleModified(const Bundle& bundle);
  };

  using SliceTable = std::map<double, SlicePtr>;
  using GridInfo = Info<Grid>;

  Bundle();
  ~Bundle() override;

  /// Lets every saver creator registered for bundles attach its interface.
  /// Run once, on the first strong handle made from a raw pointer.
  void DeferredConstructor() override;

  // ---- notifiers, ages, storage --------------------------------------------

  /// Adds `notifier` once.
  void addNotifier(const Ostrak::StrongPtr<Notifier>& notifier);
  /// Calls every live notifier's `bundleModified`.
  void announceModification() const;
  /// Takes `age`'s age when it is younger; returns the bundle's ageable.
  Ostrak::Ageable& updateOwnershipAge(const Ostrak::Ageable& age);
  /// Hands the save item of type StrongPtr<MemBase, Cacheable> found on
  /// `source` to the storage binding. True when there is no such item; false
  /// when there is one but no live binding; else the binding's result.
  bool processOwnership(Ostrak::Intercube& target, const Ostrak::Intercube& source) const;
  /// Synchronises with the storage binding; 0 when unbound.
  int sync() const;
  void setStorage(const Ostrak::StrongPtr<StorageBinding>& storage) { storage_ = storage; }
  const Ostrak::StrongPtr<StorageBinding>& getStorage() const noexcept { return storage_; }

  /// Synchronises and drops the storage binding, then releases the slices.
  void extremeUnction() override;

  /// Starts listing, from now on, the times of the slices that change: a
  /// slice made; a grid put into a slice; skeletons, representations,
  /// fields and fragments added below its grids; attributes of the slice or
  /// of its grids set or removed. Values changed inside an array are not
  /// seen. Lets a writer of a bound file visit only what changed.
  void trackSliceChanges();
  /// The times listed since tracking started or since the last call, in
  /// ascending order, each once; the list starts anew. Empty when not
  /// tracking.
  std::vector<double> takeChangedSlices() const;
  /// Lists `owned` when it is a filed slice and changes are tracked.
  void ownedChanged(Ostrak::OwnerBase& owned) override;

  // ---- contents --------------------------------------------------------------

  /// The bundle's grid identities (a process-wide empty set without a list).
  const GridList::IdentifierSet& getGridIdentifiers() const;
  const Ostrak::StrongPtr<GridList>& getGridList() const noexcept { return gridList_; }
  const Ostrak::StrongPtr<GlobalCharts>& getCharts() const noexcept { return charts_; }
  /// The time-to-slice map, read-only.
  const SliceTable& getSlices() const noexcept { return slices_; }
  ParameterList& getParameters() noexcept { return *parameters_; }
  const ParameterList& getParameters() const noexcept { return *parameters_; }
  /// Sum of the slices' memory counters (see Slice::getMemoryUsage).
  unsigned getMemoryUsage(unsigned long long& first, unsigned long long& second) const;
  /// The live slices and their grids as XML text lines, times formatted as
  /// C's "%lg". Loads nothing.
  std::string xml() const;

  // ---- time navigation -------------------------------------------------------

  /// The slice at exactly `t`, created when missing. Null for a NaN time.
  SlicePtr operator[](double t);
  /// The slice at exactly `t`, or null. Never creates.
  SlicePtr operator()(double& t) const;
  /// Always null; `t` is not changed. Step forward with SliceMap::next, the
  /// grid searches or the evolution walks instead.
  SlicePtr findNext(double& t) const;
  /// The slice before `t`: the first slice only when it lies exactly at `t`,
  /// otherwise the last slice strictly before `t` (its time written into
  /// `t`). Null with `t` moved to the first time when all slices lie after.
  SlicePtr findPrev(double& t) const;
  /// Smallest and largest times; 0.0 for an empty bundle.
  double minTime() const;
  double maxTime() const;
  /// The first entry (time, slice); (0.0, null) for an empty bundle.
  std::pair<double, SliceWeakPtr> firstSlice() const;
  /// Always the range [0.0, 1.0], whatever the arguments.
  std::pair<double, double> getTimeRange(const std::string& name, bool skipUnloaded) const;
  /// The unique grid of the slice at exactly `t`; null handles otherwise.
  Slice::GridEntry getUniqueGrid(double t) const;

  // ---- grid look-up across time -----------------------------------------------

  GridInfo findFirst(const std::string& name, bool skipUnloaded) const;
  GridInfo findLast(const std::string& name, bool skipUnloaded) const;
  /// From the first slice at or after `t` forward. Gives up (empty) when the
  /// slice just examined without success is the bundle's first slice.
  GridInfo findNext(double t, const std::string& name) const;
  /// From the last slice at or before `t` backward; empty at once when no
  /// slice lies strictly after `t`, and when the first slice fails too.
  GridInfo findPrev(double t, const std::string& name) const;
  GridInfo findPrev(double t, const Ostrak::StrongPtr<GridID>& id) const;
  /// The occurrence at or before `t` recorded by the identity.
  GridInfo findPreviousGrid(double t, const Ostrak::StrongPtr<GridID>& id) const;
  GridInfo findPreviousGrid(double t, const std::string& name) const;
  GridInfo findMostRecentGrid(double t, const std::string& name) const;
  /// As above, with `id` mapped to this bundle's identity of the same name.
  GridInfo findMostRecentGrid(double t, const Ostrak::StrongPtr<GridID>& id) const;
  /// Slices in which `name` is found.
  unsigned NumberOfGrids(const std::string& name, bool skipUnloaded) const;
  /// The same within the closed interval between `t0` and `t1` (any order).
  unsigned NumberOfGrids(double t0, double t1, const std::string& name, bool skipUnloaded) const;
  unsigned getNrSlicesOfGridInTimeRange(double t0, double t1, const std::string& name,
                                        bool skipUnloaded) const;

  // ---- evolution ----------------------------------------------------------------

  /// Calls `it.apply` for every occurrence of `name` in ascending time until
  /// it answers false. Returns the number of calls made.
  unsigned iterate(const std::string& name, EvolutionIterator<Grid>& it, bool skipUnloaded) const;
  unsigned iterate(const std::string& name, const std::function<bool(double, GridID&, Grid&)>& f,
                   bool skipUnloaded) const;
  /// The same walk, looking the grid up by `id` directly.
  unsigned iterate(const Ostrak::StrongPtr<GridID>& id,
                   const std::function<bool(double, const GridID&, Grid&)>& f,
                   bool skipUnloaded) const;
  /// Forward from the first slice at or after `t`; `t` ends at the last
  /// visited time. Returns the number of calls.
  unsigned iterateForward(double& t, const std::string& name, EvolutionIterator<Grid>& it,
                          bool skipUnloaded) const;
  /// Backward from the last slice at or before `t`; nothing when no slice
  /// lies strictly after `t` or none lies at or before it.
  unsigned iterateBackward(double& t, const std::string& name, EvolutionIterator<Grid>& it,
                           bool skipUnloaded) const;
  /// Walks every slice with a parameter set holding `parameters` and "time".
  /// Loads the first slice before the walk. Returns the number of calls.
  unsigned iterate(const ParameterList& parameters, EvolutionIterator<Slice>& it) const;

  // ---- refinement levels ----------------------------------------------------------

  /// From the slice after `pos` forward: the first slice whose grid `name`
  /// has a skeleton at factor 2^level; `pos` is left on it (or at the end).
  GridInfo findNextRefinementLevel(SliceTable::const_iterator& pos, const std::string& name,
                                   int level, int extra) const;
  /// Backward from `t`: the latest grid `name` with a skeleton at factor
  /// 2^level; hands it and every later find to `it` while it answers true.
  GridInfo findPreviousRefinementLevel(double& t, const std::string& name, int level,
                                       EvolutionIterator<Skeleton>* it, int extra) const;

  // ---- loading, merging, saving, binding ----
  // Formats plug in as loaders (Ostrak::LoaderRegistry<Bundle>) and as saver
  // interfaces attached by Ostrak::SaveRegistry<Bundle> creators; binding
  // savers follow the contract described in bundle/Binder.hpp.

  /// What the interfaces left on a bind request.
  struct BindingResult {
    int status = 0;
    std::string text;
  };

  /// Runs the loaders registered for bundles on `request` with `target` as
  /// the bundle to fill. `ok` is the registry's verdict (false with an error
  /// text on the request when no loader succeeded, or for a null request);
  /// the result is the bundle the loader left in the target block.
  static Ostrak::StrongPtr<Bundle> load(bool& ok,
                                        const Ostrak::StrongPtr<Ostrak::LoaderParameters>& request,
                                        const Ostrak::StrongPtr<Bundle>& target);
  /// Loads `request` into this bundle. Refused (false, and the error text
  /// "No strong references on bundle pointer!" on a live request) when no
  /// strong handle holds this bundle; false for a null request.
  bool merge(const Ostrak::StrongPtr<Ostrak::LoaderParameters>& request);
  /// Loads the files into this bundle, without a progress sink.
  bool merge(const std::list<std::string>& filenames);
  bool merge(const std::string& filename);

  /// Offers a save request for `filename`, carrying `progress` and
  /// `transformations` when they are live, to every interface attached to
  /// this bundle. True when at least one saver answered true.
  bool save(const std::string& filename,
            const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {},
            const Ostrak::StrongPtr<StorageTransformations>& transformations = {}) const;

  /// Offers a bind request for `filename`, carrying `first` and `second`, to
  /// every interface attached to this bundle, so that one of them binds the
  /// bundle (see bundle/Binder.hpp). Default Binder::Parameters (existing
  /// file) are added unless one of the two is a live Binder::Parameters.
  /// Returns the status and text the interfaces left on the request.
  BindingResult bindTo(const std::string& filename,
                       const Ostrak::StrongPtr<Ostrak::InterfaceBase>& first = {},
                       const Ostrak::StrongPtr<Ostrak::InterfaceBase>& second = {});
  /// Binds to a file that is to be written anew, saved with `transformations`.
  BindingResult bindToNew(const std::string& filename,
                          const Ostrak::StrongPtr<StorageTransformations>& transformations);
  BindingResult bindToNew(const std::string& filename);
  // ---- end of loading, merging, saving, binding ----

 private:
  friend class Slice;

  template <class Visit>
  unsigned walkOccurrences(SliceTable::const_iterator from, double until, const std::string& name,
                           bool skipUnloaded, Visit&& visit) const;
  void releaseSlices();
  Ostrak::StrongPtr<Grid> lookUp(Slice& slice, const std::string& name,
                                 Ostrak::StrongPtr<GridID>& id) const;
  GridInfo refinementIn(double time, const SlicePtr& slice, const std::string& name, int level,
                        int extra) const;

  std::unique_ptr<ParameterList> parameters_;
  Ostrak::StrongPtr<GlobalCharts> charts_;
  SlicePtr heldSlice_;
  SliceTable slices_;
  std::map<std::string, SliceTable> gridIndex_;
  Ostrak::StrongPtr<GridList> gridList_;
  Ostrak::StrongPtr<StorageBinding> storage_;
  std::set<Ostrak::StrongPtr<Notifier>> notifiers_;
  // Taken by writers that are handed a const bundle.
  mutable std::unique_ptr<std::set<double>> changedSlices_;
};

/// The strong handle on a bundle.
class BundlePtr : public Ostrak::StrongPtr<Bundle, Ostrak::Ownable<Slice>::Container> {
 public:
  using Base = Ostrak::StrongPtr<Bundle, Ostrak::Ownable<Slice>::Container>;

  BundlePtr() = default;
  /// Takes a strong reference on `bundle` and runs its deferred initialisation.
  explicit BundlePtr(Bundle* bundle) : Base(bundle) {}
  BundlePtr(const Base& other) : Base(other) {}
  template <Ostrak::PointerConvertibleTo<Bundle> U, class C>
  BundlePtr(const Ostrak::StrongPtr<U, C>& other) : Base(other) {}

  /// The live bundle of this handle; a new one when the handle is empty or
  /// dead. Never makes a second bundle for a live handle.
  Bundle* create();

  // ---- loading, merging, saving, binding ----

  /// Loads the files into this handle's bundle, made first when the handle
  /// is empty or dead, so the handle holds a bundle even when loading fails.
  /// A live `progress` is attached to the request. Returns the registry's
  /// verdict; its error text is not kept (use Bundle::load to read it).
  bool load(const std::string& filename,
            const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {});
  bool load(const std::list<std::string>& filenames,
            const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {});
  /// Bundle::save on this handle's bundle; false (nothing done) when the
  /// handle is empty or dead.
  bool save(const std::string& filename,
            const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {},
            const Ostrak::StrongPtr<StorageTransformations>& transformations = {}) const;
  /// Saves the grids named in `gridNames` through a GridSaveParameters
  /// request, or the whole bundle through a plain one when the list is null. Returns 1 when a saver
  /// answered true, 0 when none did, -1 (nothing done) for an empty or dead
  /// handle.
  int saveGrids(const std::string& filename, const Ostrak::StrongPtr<Ostrak::StringList>& gridNames,
                const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {},
                const Ostrak::StrongPtr<StorageTransformations>& transformations = {}) const;
  // ---- end of loading, merging, saving, binding ----
};

}  // namespace Quaril
