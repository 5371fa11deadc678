#include "field/BinderBase.hpp"

namespace Quaril {

BinderBase::~BinderBase() = default;

}  // namespace Quaril
