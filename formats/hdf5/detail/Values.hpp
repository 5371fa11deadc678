#pragma once
// Element-wise helpers over arrays whose element type is known at run time.

#include <optional>
#include <utility>

#include "field/MemBase.hpp"

namespace Quaril::H5::detail {

/// The smallest and largest value of an array of scalars (NaN ignored);
/// nothing for other element types or when no value counts.
std::optional<std::pair<double, double>> valueRange(const MemBase& data);

}  // namespace Quaril::H5::detail
