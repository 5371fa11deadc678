#pragma once
// Creators of array data: the part of a field that yields one fragment's
// memory object, either held in memory or produced on request.

#include <atomic>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "field/DynamicSize.hpp"
#include "field/MemBase.hpp"
#include "field/QuarilType.hpp"
#include "ostrak/Ownable.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Quaril {

/// The creator of one fragment's data. Owned by fields (its owner list names
/// them). It answers whether the data can be produced and produces the memory
/// object on request, keeping it while caching is on (the default). Safe to
/// use from several threads.
///
/// Memory counters, used by every `getMemoryUsage(first, second)` of the
/// field and grid layers: `first` (resident) counts the bytes of memory
/// objects a creator holds now; `second` (producible) counts the bytes that a
/// creator could produce but does not hold now (element count of the declared
/// size times the element size; 0 when the size is unknown). A creator adds to
/// exactly one of the two.
class CreativeArrayBase : public Ostrak::ReferenceBase<CreativeArrayBase>,
                          public Ostrak::Ownable<CreativeArrayBase> {
 public:
  ~CreativeArrayBase() override;

  /// Whether the data can be produced (without producing them).
  virtual bool isProducible() const = 0;

  /// The memory object, produced when not held; kept when caching is on;
  /// marked as used. Null when the data cannot be produced (the reason is in
  /// lastError()); never throws.
  StrongPtr<MemBase, Cacheable> getData() const;

  /// Switches caching; switching it off drops what is cached.
  void setCaching(bool caching);
  bool isCaching() const;
  /// Whether the memory object is held now.
  bool isResident() const;
  /// Drops the cached memory object (holders of handles keep theirs). Data
  /// that the creator holds as its content (MemCreator) are not a cache and
  /// stay.
  void dropCache();

  /// The element type of the data.
  const QuarilTypeBase& getTypeDescriptor() const noexcept { return *type_; }
  /// The size of the data (rank 0 when not known before producing).
  DynamicSize getSize() const;

  /// Adds this creator's bytes to `resident` or to `producible` (see the
  /// class comment).
  void getMemoryUsage(unsigned long long& resident, unsigned long long& producible) const;

  /// Why the last production failed; empty after a success.
  std::string lastError() const;

  /// A box of the data, `count` elements along each axis from `first` (the
  /// axes as getSize() orders them), as an array of its own. Only the box is
  /// read where the creator can (a file's hyperslab); otherwise the whole
  /// data are made (and cached, as getData() does) and the box copied out.
  /// A box read alone cannot be checked against a checksum of the whole
  /// array. Null when the box does not lie within the data or they cannot
  /// be produced (lastError() says why); never throws.
  StrongPtr<MemBase, Cacheable> getRegion(const std::vector<uint64_t>& first,
                                          const std::vector<uint64_t>& count) const;

 protected:
  /// A creator of data of `type` and `size`.
  CreativeArrayBase(const QuarilTypeBase& type, DynamicSize size);
  /// A creator whose content `data` is held for its whole life.
  explicit CreativeArrayBase(const StrongPtr<MemBase, Cacheable>& data);

  /// Makes the memory object; may throw or return null on failure.
  virtual StrongPtr<MemBase, Cacheable> produce() const = 0;
  /// Reads only a box of the data (checked to lie within them); null where
  /// the creator cannot, which the default says. May throw as produce().
  virtual StrongPtr<MemBase, Cacheable> produceRegion(const std::vector<uint64_t>& first,
                                                      const std::vector<uint64_t>& count) const;

 private:
  StrongPtr<MemBase, Cacheable> produceChecked() const;

  const QuarilTypeBase* type_;
  DynamicSize size_;
  mutable std::mutex mutex_;
  mutable StrongPtr<MemBase, Cacheable> cache_;
  mutable std::string lastError_;
  // The thread producing now, read before locking to refuse re-entry.
  mutable std::atomic<std::thread::id> producer_{};
  bool caching_ = true;
  bool pinned_ = false;  // cache_ is the content, not a cache
};

/// A creator whose data are already in memory; always producible while it
/// holds data. Its data are its content: dropCache() keeps them.
class MemCreator : public CreativeArrayBase {
 public:
  /// Holds `data`; a null handle gives a creator that produces nothing, with
  /// element type void.
  explicit MemCreator(const StrongPtr<MemBase, Cacheable>& data);
  ~MemCreator() override;

  bool isProducible() const override;

 protected:
  StrongPtr<MemBase, Cacheable> produce() const override;

 private:
  bool hasData_;
};

/// What a producer throws to say why its data cannot be produced (a damaged
/// file, say): an expected failure, kept as the creator's lastError() as it
/// is and not reported as a failing hook.
class ProductionFailure : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A creator that produces its data through a function on first request, and
/// again after its cache was dropped. Opening a file this way reads no bulk
/// data. A producer that throws or returns null, or returns data of another
/// element type than declared, yields null (reported through the object
/// core's diagnostics when it throws anything but a ProductionFailure); no
/// exception escapes. The producer
/// runs under the creator's lock: its own getData() yields null, and it must
/// not call the creator's other operations.
class DeferredCreator : public CreativeArrayBase {
 public:
  using Producer = std::function<StrongPtr<MemBase, Cacheable>()>;

  /// A creator of data of `type` and `size` (rank 0 when unknown) made by
  /// `producer`; an empty producer produces nothing.
  DeferredCreator(const QuarilTypeBase& type, DynamicSize size, Producer producer);
  ~DeferredCreator() override;

  /// True when it has a producer (a producer may still fail).
  bool isProducible() const override;
  /// How often the producer has run.
  unsigned long long productions() const noexcept {
    return productions_.load(std::memory_order_relaxed);
  }

  /// Reads a box of the data: `first` and `count` per axis, as getRegion.
  using RegionProducer = std::function<StrongPtr<MemBase, Cacheable>(
      const std::vector<uint64_t>& first, const std::vector<uint64_t>& count)>;
  /// Lets getRegion read boxes through `producer` instead of the whole data.
  void setRegionProducer(RegionProducer producer) { regionProducer_ = std::move(producer); }

 protected:
  StrongPtr<MemBase, Cacheable> produce() const override;
  StrongPtr<MemBase, Cacheable> produceRegion(const std::vector<uint64_t>& first,
                                              const std::vector<uint64_t>& count) const override;

 private:
  Producer producer_;
  RegionProducer regionProducer_;
  mutable std::atomic<unsigned long long> productions_{0};
};

}  // namespace Quaril
