#include "grid/SkeletonID.hpp"

namespace Quaril {

std::string SkeletonID::Name() const {
  return "Skeleton(" + std::to_string(dimension_) + "," + std::to_string(index_) + ")";
}

}  // namespace Quaril
