#include "field/MemBase.hpp"

namespace Quaril {
namespace {

// The use clock is separate from the object core's age clock: marking data as
// used must not make grids look changed.
std::atomic<uint64_t> useClock{0};

template <int N, class T>
StrongPtr<MemBase, Cacheable> makeOf(const DynamicSize& size, bool zeroed) {
  return zeroed ? MemArray<N, T>::create(size) : MemArray<N, T>::create(size, Uninitialised{});
}

template <class T>
StrongPtr<MemBase, Cacheable> makeOfRank(const DynamicSize& size, bool zeroed) {
  switch (size.rank()) {
    case 1:
      return makeOf<1, T>(size, zeroed);
    case 2:
      return makeOf<2, T>(size, zeroed);
    case 3:
      return makeOf<3, T>(size, zeroed);
    case 4:
      return makeOf<4, T>(size, zeroed);
    default:
      return {};
  }
}

template <class... Types>
StrongPtr<MemBase, Cacheable> makeOfType(const QuarilTypeBase& type, const DynamicSize& size,
                                         bool zeroed) {
  StrongPtr<MemBase, Cacheable> array;
  ((type.is<Types>() ? (array = makeOfRank<Types>(size, zeroed), true) : false) || ...);
  return array;
}

}  // namespace

Cacheable::Cacheable() noexcept = default;
Cacheable::Cacheable(const Cacheable& other) noexcept
    : Ostrak::ReferenceBase<Cacheable>(other), lastUse_(other.getLastUse()) {}
Cacheable::~Cacheable() = default;

void Cacheable::markAsUsed() noexcept {
  lastUse_.store(useClock.fetch_add(1, std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

MemBase::MemBase(const QuarilTypeBase& type, DynamicSize size)
    : type_(&type), size_(std::move(size)) {}
MemBase::~MemBase() = default;

UniformCartesianArray::UniformCartesianArray(const point& origin, const tvector& spacing,
                                             const std::array<uint64_t, 3>& extents)
    : MemBase(QuarilTypeBase::getType<point>(), DynamicSize(extents)),
      origin_(origin),
      spacing_(spacing) {}
UniformCartesianArray::~UniformCartesianArray() = default;

UniformCartesianArray::point UniformCartesianArray::operator[](uint64_t index) const noexcept {
  uint64_t nx = getSize()[0];
  uint64_t ny = getSize()[1];
  if (nx == 0 || ny == 0) return origin_;
  return (*this)(index % nx, (index / nx) % ny, index / (nx * ny));
}

uint64_t UniformCartesianArray::getMemoryUsage() const noexcept {
  return sizeof(origin_) + sizeof(spacing_);
}

StrongPtr<MemBase, Cacheable> makeMemArray(const QuarilTypeBase& type, const DynamicSize& size,
                                           bool zeroed) {
  using Pelorn::PhysicalSpace::point;
  using Pelorn::PhysicalSpace::tvector;
  return makeOfType<bool, char, wchar_t, char8_t, char16_t, char32_t, signed char, unsigned char,
                    short, unsigned short, int, unsigned, long, unsigned long, long long,
                    unsigned long long, float, double, long double, point, tvector,
                    std::array<uint32_t, 3>>(type, size, zeroed);
}

}  // namespace Quaril
