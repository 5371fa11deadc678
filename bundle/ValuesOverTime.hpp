#pragma once
// One element of a field over many time steps, read in one call: each step
// reads only that element where its data allow (a hyperslab of a file).

#include <limits>
#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "field/MemBase.hpp"

namespace Quaril {

/// The values of one element of a field at the steps read.
struct ValuesOverTime {
  std::vector<double> times;  ///< the steps, ascending
  /// One element per time, of the field's element type (rank 1); null on
  /// failure, with `error` saying why.
  StrongPtr<MemBase, Cacheable> values;
  std::string error;
};

/// Field `field` of grid `grid` at element `index` (one index per axis of
/// the field's array, the first axis fastest) at every step in [first, last]
/// that holds the grid. Steps are read as they come; each reads only the
/// element where its creator can. Fails, naming the step, where the grid
/// lacks the field, the field is fragmented or changes its extents or type,
/// the index lies outside its array, or its data cannot be read; fails when
/// no step holds the grid.
ValuesOverTime valuesOverTime(const Bundle& bundle, const std::string& grid,
                              const std::string& field, const std::vector<uint64_t>& index,
                              double first = -std::numeric_limits<double>::infinity(),
                              double last = std::numeric_limits<double>::infinity());

}  // namespace Quaril
