#include "bundle/LoaderControl.hpp"

#include "bundle/Bundle.hpp"

namespace Quaril {

BundleLoaderProgress::BundleLoaderProgress() = default;

BundleLoaderProgress::~BundleLoaderProgress() = default;

void BundleLoaderProgress::OpenFile(const std::string& filename) {
  Ostrak::LoaderProgress::OpenFile(filename);
}

bool BundleLoaderProgress::CreateSlice(double) {
  return true;
}

bool BundleLoaderProgress::CreateGrid(const Ostrak::StrongPtr<GridID>&, Grid&, double) {
  return true;
}

bool BundleLoaderProgress::CreateField(const Ostrak::StrongPtr<GridID>&, Grid&, double,
                                       const std::string&) {
  return true;
}

LoaderControl::LoaderControl(const DynamicSize& size, const std::string& gridName,
                             const std::string& fieldName)
    : size_(size), gridName_(gridName), fieldName_(fieldName) {}

LoaderControl::~LoaderControl() = default;

Grid* LoaderControl::provideLoadableGrid(Bundle& bundle, const std::string& gridName) const {
  SlicePtr slice = bundle[0.0];
  if (!slice) return nullptr;
  return (*slice)[gridName.empty() ? std::string("Object") : gridName];
}

}  // namespace Quaril
