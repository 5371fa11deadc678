#include "field/DynamicSize.hpp"

#include <limits>

namespace Quaril {

uint64_t DynamicSize::elements() const noexcept {
  if (extents_.empty()) return 0;
  uint64_t product = 1;
  for (uint64_t extent : extents_) {
    if (extent == 0) return 0;
    if (product > std::numeric_limits<uint64_t>::max() / extent) {
      product = std::numeric_limits<uint64_t>::max();
    } else {
      product *= extent;
    }
  }
  return product;
}

std::string DynamicSize::str() const {
  std::string text;
  for (uint64_t extent : extents_) {
    if (!text.empty()) text += 'x';
    text += std::to_string(extent);
  }
  return text;
}

}  // namespace Quaril
