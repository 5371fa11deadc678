#pragma once
// Shared helpers of the bundle tests.

#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "bundle/GridSelector.hpp"

namespace QuarilTest {

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;
using Quaril::Bundle;
using Quaril::BundlePtr;
using Quaril::Grid;
using Quaril::GridID;
using Quaril::Slice;
using Quaril::SlicePtr;

/// A bundle with the grid `name` at each of `times`.
inline BundlePtr bundleWith(const std::vector<double>& times, const std::string& name) {
  BundlePtr bundle;
  bundle.create();
  for (double t : times) (*(*bundle)[t])[name];
  return bundle;
}

/// A loader that records its runs and may create a grid in its slice.
class RecordingLoader : public Slice::Loader {
 public:
  explicit RecordingLoader(int& runs, std::string gridName = "")
      : runs_(runs), gridName_(std::move(gridName)) {}
  bool load(const WeakPtr<Slice>& slice) override {
    ++runs_;
    if (!gridName_.empty() && slice) (*slice.get())[gridName_];
    return true;
  }

 private:
  int& runs_;
  std::string gridName_;
};

/// A storage binding that counts synchronisations.
class CountingStorage : public Quaril::StorageBinding {
 public:
  explicit CountingStorage(int& calls) : calls_(calls) {}
  int32_t synchronize(const Bundle&, const StrongPtr<Quaril::MemBase, Quaril::Cacheable>&,
                      Ostrak::Intercube&) override {
    return ++calls_;
  }

 private:
  int& calls_;
};

}  // namespace QuarilTest
