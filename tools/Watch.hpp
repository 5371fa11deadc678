#pragma once
// `bundle-tool watch`: a series followed while it is written, one line per
// step, for people and for scripts.

#include <functional>
#include <optional>
#include <string>

#include "formats/hdf5/Follow.hpp"
#include "formats/hdf5/Format.hpp"
#include "tools/Summary.hpp"

namespace Quaril::Tools {

struct WatchRequest {
  std::string file;
  /// Stop after this many seconds without a new sync; none: wait for the
  /// closing record however long it takes.
  std::optional<double> idle;
  bool json = false;
};

/// One line of a watch: the listing line of the step, "(changed)" after it
/// for a step seen before; with `json` the object {"time", "grids",
/// "bytes", "changed"}, the time written so that it reads back exactly.
std::string watchLine(const ListingEntry& step, bool changed, bool json);

/// Hands `print` one line per step of the series `request.file`: the steps
/// there first, then each step as a sync adds or changes it, until the
/// series ends with a closing record or stays idle for `request.idle`
/// seconds. `problems` receives what could not be read. Fails when the
/// file cannot be followed.
H5::Outcome watchSeries(const WatchRequest& request,
                        const std::function<void(const std::string&)>& print,
                        std::vector<H5::Problem>* problems = nullptr);

}  // namespace Quaril::Tools
