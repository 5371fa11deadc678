#include "field/CreativeArrayBase.hpp"

#include <cstring>
#include <exception>

#include "ostrak/Diagnostics.hpp"

namespace Quaril {
namespace {

unsigned long long bytesOf(const QuarilTypeBase& type, const DynamicSize& size) {
  uint64_t elements = size.elements();
  if (type.size() != 0 && elements > UINT64_MAX / type.size()) return UINT64_MAX;
  return elements * type.size();
}

// Marks the calling thread as the producer for a scope, every exit included.
class ProducingThread {
 public:
  explicit ProducingThread(std::atomic<std::thread::id>& producer) : producer_(producer) {
    producer_.store(std::this_thread::get_id());
  }
  ~ProducingThread() { producer_.store(std::thread::id()); }
  ProducingThread(const ProducingThread&) = delete;
  ProducingThread& operator=(const ProducingThread&) = delete;

 private:
  std::atomic<std::thread::id>& producer_;
};

}  // namespace

CreativeArrayBase::CreativeArrayBase(const QuarilTypeBase& type, DynamicSize size)
    : type_(&type), size_(std::move(size)) {}

CreativeArrayBase::CreativeArrayBase(const StrongPtr<MemBase, Cacheable>& data)
    : type_(data ? &data->getTypeDescriptor() : &QuarilTypeBase::getType<void>()),
      size_(data ? data->getSize() : DynamicSize()),
      cache_(data),
      pinned_(data.valid()) {}

CreativeArrayBase::~CreativeArrayBase() = default;

StrongPtr<MemBase, Cacheable> CreativeArrayBase::getData() const {
  // This thread holds the lock already when its producer asks again; the
  // lock is not taken, and the outer production reports the failure.
  if (producer_.load() == std::this_thread::get_id()) return {};
  std::lock_guard lock(mutex_);
  if (cache_) {
    cache_->markAsUsed();
    return cache_;
  }
  StrongPtr<MemBase, Cacheable> data;
  {
    ProducingThread mark(producer_);
    data = produceChecked();
  }
  if (!data) return {};
  data->markAsUsed();
  if (caching_) cache_ = data;
  return data;
}

StrongPtr<MemBase, Cacheable> CreativeArrayBase::produceChecked() const {
  if (!isProducible()) {
    lastError_ = "the data cannot be produced";
    return {};
  }
  StrongPtr<MemBase, Cacheable> data;
  try {
    data = produce();
  } catch (const ProductionFailure& failure) {
    lastError_ = failure.what();
    return {};
  } catch (const std::exception& error) {
    lastError_ = std::string("producing the data failed: ") + error.what();
    Ostrak::reportDiagnostic(Ostrak::Diagnostic::HookException, lastError_);
    return {};
  } catch (...) {
    lastError_ = "producing the data failed with an unknown exception";
    Ostrak::reportDiagnostic(Ostrak::Diagnostic::HookException, lastError_);
    return {};
  }
  if (!data) {
    lastError_ = "producing the data failed";
    return {};
  }
  if (&data->getTypeDescriptor() != type_) {
    lastError_ =
        "produced data of type " + data->getTypeDescriptor().name() + ", expected " + type_->name();
    return {};
  }
  lastError_.clear();
  return data;
}

namespace {

/// Copies the box of `count` elements per axis from `first` out of the
/// `elementBytes`-byte elements of an array of `extents` at `from`, the
/// first axis fastest.
void copyBox(const unsigned char* from, unsigned char* to, const DynamicSize& extents,
             const std::vector<uint64_t>& first, const std::vector<uint64_t>& count,
             size_t elementBytes) {
  const size_t rank = count.size();
  const size_t row = count[0] * elementBytes;
  std::vector<uint64_t> at(rank, 0);  // the position among the rows, axes 1 and up
  for (;;) {
    uint64_t offset = 0, stride = 1;
    for (size_t axis = 0; axis < rank; ++axis) {
      offset += (first[axis] + at[axis]) * stride;
      stride *= extents[static_cast<int>(axis)];
    }
    std::memcpy(to, from + offset * elementBytes, row);
    to += row;
    size_t axis = 1;
    for (; axis < rank && ++at[axis] == count[axis]; ++axis) at[axis] = 0;
    if (axis >= rank) return;
  }
}

}  // namespace

StrongPtr<MemBase, Cacheable> CreativeArrayBase::getRegion(
    const std::vector<uint64_t>& first, const std::vector<uint64_t>& count) const {
  const auto fail = [this](std::string reason) {
    std::lock_guard lock(mutex_);
    lastError_ = std::move(reason);
    return StrongPtr<MemBase, Cacheable>();
  };
  StrongPtr<MemBase, Cacheable> whole;
  DynamicSize extents = getSize();
  if (extents.rank() == 0) {
    // A size learnt only by producing.
    whole = getData();
    if (!whole) return {};
    extents = whole->getSize();
  }
  if (first.size() != count.size() || static_cast<int>(count.size()) != extents.rank()) {
    return fail("a region of rank " + std::to_string(count.size()) + " of data of rank " +
                std::to_string(extents.rank()));
  }
  for (size_t axis = 0; axis < count.size(); ++axis) {
    const uint64_t extent = extents[static_cast<int>(axis)];
    if (count[axis] == 0 || first[axis] >= extent || count[axis] > extent - first[axis]) {
      return fail("the region does not lie within the data's extents " + extents.str());
    }
  }
  if (!whole) {
    try {
      if (StrongPtr<MemBase, Cacheable> read = produceRegion(first, count)) return read;
    } catch (const std::exception& error) {
      return fail(error.what());
    }
    whole = getData();
    if (!whole) return {};
  }
  const auto* from = static_cast<const unsigned char*>(whole->rawData());
  if (!from) return fail("the data are computed, not stored: no region can be copied");
  StrongPtr<MemBase, Cacheable> box;
  try {
    box = makeMemArray(*type_, DynamicSize(count), false);
  } catch (const std::bad_alloc&) {
    return fail("the region does not fit in memory");
  }
  if (!box)
    return fail("no array of type " + type_->name() + " and rank " + std::to_string(count.size()));
  copyBox(from, static_cast<unsigned char*>(box->rawData()), extents, first, count, type_->size());
  return box;
}

StrongPtr<MemBase, Cacheable> CreativeArrayBase::produceRegion(const std::vector<uint64_t>&,
                                                               const std::vector<uint64_t>&) const {
  return {};
}

void CreativeArrayBase::setCaching(bool caching) {
  std::lock_guard lock(mutex_);
  caching_ = caching;
  if (!caching_ && !pinned_) cache_.reset();
}

bool CreativeArrayBase::isCaching() const {
  std::lock_guard lock(mutex_);
  return caching_;
}

bool CreativeArrayBase::isResident() const {
  std::lock_guard lock(mutex_);
  return cache_.valid();
}

void CreativeArrayBase::dropCache() {
  std::lock_guard lock(mutex_);
  if (!pinned_) cache_.reset();
}

DynamicSize CreativeArrayBase::getSize() const {
  std::lock_guard lock(mutex_);
  return cache_ ? cache_->getSize() : size_;
}

void CreativeArrayBase::getMemoryUsage(unsigned long long& resident,
                                       unsigned long long& producible) const {
  std::lock_guard lock(mutex_);
  if (cache_) {
    resident += cache_->getMemoryUsage();
  } else if (isProducible()) {
    producible += bytesOf(*type_, size_);
  }
}

std::string CreativeArrayBase::lastError() const {
  std::lock_guard lock(mutex_);
  return lastError_;
}

MemCreator::MemCreator(const StrongPtr<MemBase, Cacheable>& data)
    : CreativeArrayBase(data), hasData_(data.valid()) {}
MemCreator::~MemCreator() = default;

bool MemCreator::isProducible() const {
  return hasData_;
}

StrongPtr<MemBase, Cacheable> MemCreator::produce() const {
  return {};  // the content is held from construction on; there is nothing to make
}

DeferredCreator::DeferredCreator(const QuarilTypeBase& type, DynamicSize size, Producer producer)
    : CreativeArrayBase(type, std::move(size)), producer_(std::move(producer)) {}
DeferredCreator::~DeferredCreator() = default;

bool DeferredCreator::isProducible() const {
  return static_cast<bool>(producer_);
}

StrongPtr<MemBase, Cacheable> DeferredCreator::produce() const {
  productions_.fetch_add(1, std::memory_order_relaxed);
  return producer_();
}

StrongPtr<MemBase, Cacheable> DeferredCreator::produceRegion(
    const std::vector<uint64_t>& first, const std::vector<uint64_t>& count) const {
  return regionProducer_ ? regionProducer_(first, count) : StrongPtr<MemBase, Cacheable>();
}

}  // namespace Quaril
