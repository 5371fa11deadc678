#pragma once
// What of a bundle a bound file holds already, so that a sync writes only
// what is new: the objects written or read, and their attributes as they
// were then.

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "bundle/Bundle.hpp"
#include "ostrak/Attributes.hpp"

namespace Quaril::H5::detail {

/// Objects (slices, grids, fields, creators) are known by their reference
/// blocks, each held by a weak count so that no other object can take the
/// block's address while it is listed; a listed block whose object died no
/// longer counts. Safe to use from several threads.
class Stored {
 public:
  using AttributeMap = std::map<std::string, Ostrak::AttributeValue>;

  Stored() = default;
  Stored(const Stored&) = delete;
  Stored& operator=(const Stored&) = delete;
  ~Stored();

  /// Whether the object of `block` is listed and alive.
  bool contains(const Ostrak::ReferenceBlock* block) const;
  /// Whether `attributes` are those recorded with `block` (none recorded:
  /// whether there are none).
  bool sameAttributes(const Ostrak::ReferenceBlock* block,
                      const Ostrak::Attributes& attributes) const;
  bool sameBundleAttributes(const Ostrak::Attributes& attributes) const;

  /// Lists `block`, with `attributes` when given.
  void add(Ostrak::ReferenceBlock* block, const Ostrak::Attributes* attributes = nullptr);
  /// Lists `grid` with everything in it (fields and their creators).
  void addGrid(const Ostrak::StrongPtr<Grid>& grid);
  /// Lists `blocks`, without attributes.
  void addAll(const std::vector<Ostrak::ReferenceBlock*>& blocks);
  void setBundleAttributes(const Ostrak::Attributes& attributes);

 private:
  struct Entry {
    AttributeMap attributes;
    bool hasAttributes = false;
  };
  /// The entry of `block`, listed when new. Under the mutex.
  Entry& listed(Ostrak::ReferenceBlock* block);
  void sweepWhenDoubled();
  void dropDead();

  mutable std::mutex mutex_;
  std::unordered_map<Ostrak::ReferenceBlock*, Entry> entries_;
  size_t liveAtLastSweep_ = 0;
  AttributeMap bundleAttributes_;
};

/// The list of what is read from `filename` into `bundle`, kept on the
/// bundle (made when new), so that binding to that file neither reads it a
/// second time nor writes again what it holds.
std::shared_ptr<Stored> recordLoaded(Bundle& bundle, const std::string& filename);
/// What was read from `filename` into `bundle`; null when it was not loaded
/// from it.
std::shared_ptr<Stored> loadedFrom(const Bundle& bundle, const std::string& filename);

}  // namespace Quaril::H5::detail
