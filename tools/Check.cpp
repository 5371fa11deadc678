#include "tools/Check.hpp"

#include <nlohmann/json.hpp>

#include "tools/Summary.hpp"

namespace Quaril::Tools {

std::string formatCheckReport(const H5::CheckReport& report) {
  const size_t count = report.problems.size();
  std::string text =
      report.file + ": " +
      (report.ok() ? std::string("ok")
                   : std::to_string(count) + (count == 1 ? " problem" : " problems")) +
      " (" + std::to_string(report.grids) + " grids, " + std::to_string(report.arrays) +
      " arrays, " + formatBytes(report.bytes) + " read)\n";
  for (const H5::Problem& problem : report.problems) text += "  " + problem.text() + "\n";
  return text;
}

nlohmann::ordered_json problemJson(const H5::Problem& problem) {
  return {{"file", problem.file},
          {"where", problem.where},
          {"reason", problem.reason},
          {"grid", problem.grid.empty() ? nlohmann::ordered_json(nullptr)
                                        : nlohmann::ordered_json(problem.grid)},
          {"lost", problem.lost}};
}

std::string checkReportsJson(const std::vector<H5::CheckReport>& reports) {
  nlohmann::ordered_json files = nlohmann::ordered_json::array();
  for (const H5::CheckReport& report : reports) {
    nlohmann::ordered_json problems = nlohmann::ordered_json::array();
    for (const H5::Problem& problem : report.problems) problems.push_back(problemJson(problem));
    files.push_back({{"file", report.file},
                     {"ok", report.ok()},
                     {"grids", report.grids},
                     {"arrays", report.arrays},
                     {"bytes", report.bytes},
                     {"problems", std::move(problems)}});
  }
  const nlohmann::ordered_json document{{"files", std::move(files)}};
  return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace Quaril::Tools
