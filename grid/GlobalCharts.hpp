#pragma once
// Named coordinate systems shared by every slice of a bundle.

#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "grid/BaseSpace.hpp"

namespace Quaril {

/// A named coordinate system of some dimension. Representations of skeletons
/// relative to a chart hold coordinates in it (the vertex positions, above
/// all). Charts are compared by identity, never by name.
class ChartID : public BaseSpace {
 public:
  /// A chart called `name` with `dimension` coordinates; `cartesian` tells
  /// whether the coordinates are Cartesian ones.
  ChartID(std::string name, int dimension, bool cartesian = true);
  ~ChartID() override;

  const std::string& Name() const noexcept { return name_; }
  int getDimension() const noexcept { return dimension_; }
  bool isCartesian() const noexcept { return cartesian_; }

 private:
  std::string name_;
  int dimension_;
  bool cartesian_;
};

/// The charts of a bundle, by name. Every new set holds the default chart, a
/// three-dimensional Cartesian one named `GlobalCharts::DefaultName`.
/// Access is serialised, since every slice of a bundle shares one set.
class GlobalCharts : public Ostrak::ReferenceBase<GlobalCharts> {
 public:
  static constexpr const char* DefaultName = "DefaultCartesian";

  GlobalCharts();
  ~GlobalCharts() override;
  GlobalCharts(const GlobalCharts&) = delete;
  GlobalCharts& operator=(const GlobalCharts&) = delete;

  /// The default three-dimensional Cartesian chart; never null.
  StrongPtr<ChartID> getDefaultChart() const;

  /// The chart called `name`, or null when there is none.
  StrongPtr<ChartID> findChart(const std::string& name) const;

  /// The chart called `name`, created when missing. Null when `name` is
  /// empty, `dimension` is not positive, or a chart of that name exists with
  /// another dimension or kind (the existing chart is left as it is).
  StrongPtr<ChartID> makeChart(const std::string& name, int dimension, bool cartesian = true);

  size_t size() const;

  /// Calls `visit` on each chart in name order until it returns false.
  /// Returns the number of calls made.
  int iterate(const std::function<bool(const StrongPtr<ChartID>&)>& visit) const;

 private:
  mutable std::mutex mutex_;
  std::map<std::string, StrongPtr<ChartID>> charts_;
  StrongPtr<ChartID> defaultChart_;
};

}  // namespace Quaril
