#include "tools/Watch.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>

namespace Quaril::Tools {

std::string watchLine(const ListingEntry& step, bool changed, bool json) {
  if (!json) {
    std::string line = formatListing({step});
    line.pop_back();
    return line + (changed ? "  (changed)\n" : "\n");
  }
  const nlohmann::ordered_json object{
      {"time", step.time}, {"grids", step.names}, {"bytes", step.bytes}, {"changed", changed}};
  return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

H5::Outcome watchSeries(const WatchRequest& request,
                        const std::function<void(const std::string&)>& print,
                        std::vector<H5::Problem>* problems) {
  H5::registerFormat();
  if (request.idle && !(*request.idle >= 0 && std::isfinite(*request.idle))) {
    return {false, "the idle time must be a number of seconds, 0 or more"};
  }
  H5::Follower follower(request.file);
  if (!follower.opened()) return follower.opened();
  const Bundle& bundle = *follower.bundle();
  const auto printStep = [&](double time, bool changed) {
    print(watchLine(listStep(time, *bundle.getSlices().at(time)), changed, request.json));
  };
  for (const auto& [time, slice] : bundle.getSlices()) printStep(time, false);
  // Without an idle time, wait in long stretches until the closing record.
  const auto idle = std::chrono::milliseconds(
      request.idle ? static_cast<int64_t>(std::min(*request.idle, 1e9) * 1000) : int64_t{3600000});
  H5::Outcome outcome{true, ""};
  for (H5::SeriesUpdate update; !follower.closed();) {
    outcome = follower.wait(idle, update);
    if (!outcome) break;
    for (double time : update.added) printStep(time, false);
    for (double time : update.changed) printStep(time, true);
    if (update.empty() && !update.closed && request.idle) break;
  }
  if (problems) *problems = H5::problems(bundle);
  if (!outcome) outcome.error = request.file + ": " + outcome.error;
  return outcome;
}

}  // namespace Quaril::Tools
