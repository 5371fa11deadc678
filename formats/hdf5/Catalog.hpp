#pragma once
// What a file or series holds, by grid and time, read once from its index
// without making a bundle; bundles of chosen times load from it without
// reading the index again. For readers that visit a few steps of a long run
// (an xarray dataset, a plot of one step): loading a file of 10^4 steps
// makes 10^4 slices, a catalog makes none.
//
//   std::shared_ptr<Quaril::H5::Catalog> catalog;
//   if (auto opened = Quaril::H5::Catalog::open("run.h5", catalog); !opened) fail(opened.error);
//   const std::vector<double> times = catalog->timesOf("fluid");
//   Quaril::BundlePtr step;
//   if (auto loaded = catalog->load(step, {times.back()}); !loaded) fail(loaded.error);

#include <memory>
#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/Options.hpp"

namespace Quaril::H5 {

/// The index of a file or series, opened once.
class Catalog {
 public:
  /// Opens the file or series `path` and reads its index into `catalog`.
  /// Fails, leaving `catalog` as it was, as H5::load fails on the file.
  static Outcome open(const std::string& path, std::shared_ptr<Catalog>& catalog);
  ~Catalog();
  Catalog(const Catalog&) = delete;
  Catalog& operator=(const Catalog&) = delete;

  const std::string& path() const noexcept;
  /// The names of the grids, sorted.
  std::vector<std::string> gridNames() const;
  /// Every time, ascending.
  std::vector<double> times() const;
  /// The times at which the grid `name` is stored, ascending; none for a
  /// grid the file does not hold.
  std::vector<double> timesOf(const std::string& name) const;
  /// Loads into a new `bundle` the slices at `times` (times the file does
  /// not hold are passed over) with the bundle's attributes, read lazily as
  /// H5::load reads them; damage found on opening is among its problems.
  /// The bundle is not bound to the file: saving it over the file keeps
  /// only what it holds.
  Outcome load(BundlePtr& bundle, const std::vector<double>& times) const;

 private:
  struct State;
  explicit Catalog(std::unique_ptr<State> state);
  std::unique_ptr<State> state_;
};

}  // namespace Quaril::H5
