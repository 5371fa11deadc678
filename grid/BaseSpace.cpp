#include "grid/BaseSpace.hpp"

namespace Quaril {

BaseSpace::~BaseSpace() = default;
BaseSpaceDependency::~BaseSpaceDependency() = default;

}  // namespace Quaril
