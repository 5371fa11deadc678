#pragma once
// What the format's benchmark programs share: a scratch folder of their
// own, and small bound series to sync into and follow.

#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/Format.hpp"
#include "grid/GridConstructors.hpp"

namespace QuarilBench {

/// The path of `name` in the program's scratch folder, made on first use.
inline std::string scratch(const std::string& name) {
  static const std::filesystem::path folder = [] {
    std::string pattern = (std::filesystem::temp_directory_path() / "quaril-bench-XXXXXX").string();
    return std::filesystem::path(mkdtemp(pattern.data()));
  }();
  return (folder / name).string();
}

/// Removes the scratch folder and what it holds.
inline void removeScratch() {
  std::error_code ignored;
  std::filesystem::remove_all(std::filesystem::path(scratch("x")).parent_path(), ignored);
}

/// Adds time step `step` to `bundle`: a small point cloud with a field.
inline void addStep(const Quaril::BundlePtr& bundle, int64_t step) {
  Quaril::Grid& grid = *(*(*bundle)[static_cast<double>(step)])["tracer"];
  Quaril::makePointCloud(grid, {{static_cast<double>(step), 0, 0}, {0, 1, 0}});
  Quaril::addVertexField(grid, "id", std::vector<int64_t>{step, -step});
}

/// A bundle of `steps` time steps bound, with `policy`, to a new series
/// `name` that holds them; null when it cannot be bound.
inline Quaril::BundlePtr boundSeries(
    const std::string& name, int64_t steps,
    const Ostrak::StrongPtr<Quaril::StorageTransformations>& policy = {}) {
  Quaril::BundlePtr bundle;
  bundle.create();
  for (int64_t step = 0; step < steps; ++step) addStep(bundle, step);
  std::filesystem::remove(scratch(name));
  std::filesystem::remove_all(scratch(name + ".parts"));
  if (bundle->bindToNew(scratch(name), policy).status != 1) return {};
  return bundle;
}

}  // namespace QuarilBench
