#include "field/CreativeArrayBase.hpp"

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

}  // namespace Quaril
