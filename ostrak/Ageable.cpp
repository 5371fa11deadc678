#include "ostrak/Ageable.hpp"

#include <atomic>

namespace Ostrak {
namespace {
std::atomic<Age> globalClock{1};
}

Ageable::Ageable() noexcept : age_(getGlobalTime()) {}

Ageable::~Ageable() = default;

void Ageable::touch() noexcept {
  age_ = advanceGlobalTime();
}

void Ageable::updateAge(const Ageable& other) noexcept {
  if (other.age_ > age_) age_ = other.age_;
}

Age Ageable::getGlobalTime() noexcept {
  return globalClock.load(std::memory_order_acquire);
}

Age Ageable::advanceGlobalTime() noexcept {
  return globalClock.fetch_add(1, std::memory_order_acq_rel) + 1;
}

}  // namespace Ostrak
