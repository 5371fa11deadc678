#pragma once
// The reports behind `bundle-tool check`: every problem of a file or series,
// for people and for scripts.

#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "formats/hdf5/Format.hpp"

namespace Quaril::Tools {

/// A report as text: a line "FILE: ok (...)" or "FILE: N problems (...)" with
/// what was read, then a line per problem, indented.
std::string formatCheckReport(const H5::CheckReport& report);

/// The reports as JSON:
///   {"files": [{"file", "ok", "grids", "arrays", "bytes",
///               "problems": [{"file", "where", "reason", "grid" (null without), "lost"}]}]}
std::string checkReportsJson(const std::vector<H5::CheckReport>& reports);

/// One problem as JSON, as the check and the summary give it.
nlohmann::ordered_json problemJson(const H5::Problem& problem);

}  // namespace Quaril::Tools
