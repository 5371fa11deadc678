#include "formats/hdf5/detail/Values.hpp"

#include <cmath>
#include <cstdint>

namespace Quaril::H5::detail {

namespace {

template <class T>
std::optional<std::pair<double, double>> rangeOf(const MemBase& data) {
  const T* values = static_cast<const T*>(data.rawData());
  std::optional<std::pair<double, double>> range;
  for (uint64_t i = 0; values && i < data.nElements(); ++i) {
    const double value = static_cast<double>(values[i]);
    if (std::isnan(value)) continue;
    if (!range) range.emplace(value, value);
    range->first = std::min(range->first, value);
    range->second = std::max(range->second, value);
  }
  return range;
}

template <class... Types>
std::optional<std::pair<double, double>> rangeOfAny(const MemBase& data) {
  std::optional<std::pair<double, double>> range;
  ((data.getTypeDescriptor().is<Types>() ? (range = rangeOf<Types>(data), true) : false) || ...);
  return range;
}

}  // namespace

std::optional<std::pair<double, double>> valueRange(const MemBase& data) {
  return rangeOfAny<signed char, unsigned char, short, unsigned short, int, unsigned, long,
                    unsigned long, long long, unsigned long long, float, double, long double>(data);
}

}  // namespace Quaril::H5::detail
