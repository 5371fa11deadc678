#pragma once
// Reading a bundle's data now instead of on each first request, spread over
// threads: what a program that uses every array of a file does right after
// opening it.

#include <cstddef>
#include <limits>

#include "bundle/Bundle.hpp"

namespace Quaril {

/// Loads the slices of `bundle` with a time in [first, last] (on the calling
/// thread, in time order) and then produces the data of every fragment of
/// every field of their grids, the creators spread over `threads` threads
/// (0: one per core). Creators stay as getData() leaves them (caching, or
/// not). Returns how many could not be produced; each one's lastError()
/// says why.
size_t prefetch(const Bundle& bundle, unsigned threads = 0,
                double first = -std::numeric_limits<double>::infinity(),
                double last = std::numeric_limits<double>::infinity());

}  // namespace Quaril
