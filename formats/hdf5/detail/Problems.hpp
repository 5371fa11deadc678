#pragma once
// What could not be read into a bundle, kept on the bundle: its slice
// loaders and array creators add to it as they find damage, and every write
// asks it before it could lose what is listed.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/Options.hpp"

namespace Quaril::H5::detail {

/// The problems of one bundle, shared by the loaders and creators made for
/// it (which may outlive it). Safe to use from several threads.
class ProblemList {
 public:
  /// Lists `problem` unless it is listed already.
  void add(Problem problem);
  std::vector<Problem> all() const;

 private:
  mutable std::mutex mutex_;
  std::vector<Problem> problems_;
};

/// The problem list of `bundle`, made when new.
std::shared_ptr<ProblemList> problemListOf(Bundle& bundle);
/// What `bundle` lists; empty when it has no list.
std::vector<Problem> problemsOf(const Bundle& bundle);

/// The problems of `bundle` that a write would lose: all, but those of the
/// files of the series `series` (which keeps them; empty: none) and, with
/// `grids`, those of grids not among them. Throws a Failure naming each,
/// unless the write's `policy` (may be null) skips damaged parts; then each
/// is told to `progress` (may be null) as left out.
void refuseLosses(const Bundle& bundle, const StorageTransformations* policy,
                  const Ostrak::StrongPtr<Ostrak::StringList>& grids, const std::string& series,
                  const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress);

}  // namespace Quaril::H5::detail
