#pragma once
// What loaders of bundles meet on the request: a progress sink with veto
// hooks per created object, and the control that says where a grid goes.

#include <string>

#include "bundle/GridID.hpp"
#include "field/DynamicSize.hpp"
#include "grid/Grid.hpp"
#include "ostrak/Intercube.hpp"
#include "ostrak/Loader.hpp"

namespace Quaril {

class Bundle;

/// A progress sink for loads of bundles. Attached to a load request it is
/// found under the type Ostrak::LoaderProgress. Loaders ask CreateSlice,
/// CreateGrid and CreateField before they create the object and skip it when
/// the answer is false; all three answer true here.
class BundleLoaderProgress : public Ostrak::LoaderProgress {
 public:
  BundleLoaderProgress();
  ~BundleLoaderProgress() override;

  /// Reports the file as LoaderProgress does.
  void OpenFile(const std::string& filename) override;

  /// Whether the slice at `time` is to be created. Default: true.
  virtual bool CreateSlice(double time);
  /// Whether the grid `id` at `time` is to be created. Default: true.
  virtual bool CreateGrid(const Ostrak::StrongPtr<GridID>& id, Grid& grid, double time);
  /// Whether the field `fieldName` of the grid `id` at `time` is to be
  /// created. Default: true.
  virtual bool CreateField(const Ostrak::StrongPtr<GridID>& id, Grid& grid, double time,
                           const std::string& fieldName);
};

/// Tells a loader where a grid of a given name is to be put, and carries
/// settings that a loader reads: a size (extents the loader should produce,
/// for readers of raw arrays that do not know them), the name of the grid to
/// load (empty: the loader's choice) and the name of the field to load
/// (empty: all). Attached to a load request it is found under the type
/// LoaderControl.
class LoaderControl : public Ostrak::Interface<LoaderControl> {
 public:
  explicit LoaderControl(const DynamicSize& size = DynamicSize(),
                         const std::string& gridName = std::string(),
                         const std::string& fieldName = std::string());
  ~LoaderControl() override;

  /// The grid slot into which a loader puts the grid `gridName`: that grid
  /// of the slice at time 0.0 of `bundle`, both created on demand ("Object"
  /// when `gridName` is empty). The same name gives the same slot again.
  /// Null when the slice cannot make grids (see Slice::operator[]).
  virtual Grid* provideLoadableGrid(Bundle& bundle, const std::string& gridName) const;

  const DynamicSize& getSize() const noexcept { return size_; }
  void setSize(const DynamicSize& size) { size_ = size; }
  const std::string& getGridName() const noexcept { return gridName_; }
  void setGridName(const std::string& name) { gridName_ = name; }
  const std::string& getFieldName() const noexcept { return fieldName_; }
  void setFieldName(const std::string& name) { fieldName_ = name; }

 private:
  DynamicSize size_;
  std::string gridName_;
  std::string fieldName_;
};

}  // namespace Quaril
