#pragma once
// A time-ordered map of weak slice handles.

#include <map>

#include "ostrak/Ownable.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Quaril {

class Grid;
class Slice;

/// The handle kinds under which bundles hold their slices.
using SlicePtr = Ostrak::StrongPtr<Slice, Ostrak::Ownable<Grid>::Container>;
using SliceWeakPtr = Ostrak::WeakPtr<Slice, Ostrak::Ownable<Grid>::Container>;

/// Times, compared exactly, mapped to weak slice handles. It never keeps a
/// slice alive; each grid identity keeps one to record where it occurs.
class SliceMap {
 public:
  /// Callback of `iterate`: true goes on, false stops.
  class iterator {
   public:
    virtual ~iterator();
    virtual bool apply(double time, const SliceWeakPtr& slice) = 0;
  };

  using Map = std::map<double, SliceWeakPtr>;

  SliceMap();
  ~SliceMap();

  /// Sets the entry of `time` to `slice`, overwriting the reference of an
  /// entry at exactly that time. Returns true when the time was new; a NaN
  /// time is ignored (false).
  bool insert(double time, const SliceWeakPtr& slice);
  /// The first entry strictly after `time`: writes its time into `time`.
  /// Null, with `time` unchanged, when there is none.
  SliceWeakPtr next(double& time) const;
  /// The last entry at or before `time`: writes its time into `time`. Null,
  /// with `time` unchanged, when there is none.
  SliceWeakPtr prev(double& time) const;
  /// Calls `it.apply` for every entry in ascending time until it answers
  /// false. Returns the number of calls that answered true.
  int iterate(iterator& it) const;

  size_t size() const noexcept { return slices_.size(); }
  bool empty() const noexcept { return slices_.empty(); }
  const Map& entries() const noexcept { return slices_; }

 private:
  Map slices_;
};

}  // namespace Quaril
