#include "grid/GlobalCharts.hpp"

#include <utility>
#include <vector>

namespace Quaril {

ChartID::ChartID(std::string name, int dimension, bool cartesian)
    : name_(std::move(name)), dimension_(dimension), cartesian_(cartesian) {}

ChartID::~ChartID() = default;

GlobalCharts::GlobalCharts() : defaultChart_(new ChartID(DefaultName, 3, true)) {
  charts_.emplace(DefaultName, defaultChart_);
}

GlobalCharts::~GlobalCharts() = default;

StrongPtr<ChartID> GlobalCharts::getDefaultChart() const {
  return defaultChart_;
}

StrongPtr<ChartID> GlobalCharts::findChart(const std::string& name) const {
  std::lock_guard lock(mutex_);
  auto found = charts_.find(name);
  return found == charts_.end() ? StrongPtr<ChartID>() : found->second;
}

StrongPtr<ChartID> GlobalCharts::makeChart(const std::string& name, int dimension, bool cartesian) {
  if (name.empty() || dimension <= 0) return {};
  std::lock_guard lock(mutex_);
  auto found = charts_.find(name);
  if (found != charts_.end()) {
    const ChartID& chart = *found->second;
    if (chart.getDimension() != dimension || chart.isCartesian() != cartesian) return {};
    return found->second;
  }
  StrongPtr<ChartID> chart(new ChartID(name, dimension, cartesian));
  charts_.emplace(name, chart);
  return chart;
}

size_t GlobalCharts::size() const {
  std::lock_guard lock(mutex_);
  return charts_.size();
}

int GlobalCharts::iterate(const std::function<bool(const StrongPtr<ChartID>&)>& visit) const {
  // Visit a copy so that the callback runs without the lock held.
  std::vector<StrongPtr<ChartID>> charts;
  {
    std::lock_guard lock(mutex_);
    charts.reserve(charts_.size());
    for (const auto& entry : charts_) charts.push_back(entry.second);
  }
  int calls = 0;
  for (const auto& chart : charts) {
    ++calls;
    if (!visit(chart)) break;
  }
  return calls;
}

}  // namespace Quaril
