#pragma once
// The saving policy handed to savers, and the request of a save of chosen
// grids.
//
// A saver finds everything a save request carries by type:
//   request->findInterface<StorageTransformations>()          the policy
//   request->findInterface<Ostrak::LoaderProgress>()           the progress sink
//   Ostrak::dynamic_pointer_cast<GridSaveParameters>(request)  the grids wanted
// Each may be absent: no policy means the defaults of a plain
// StorageTransformations, no progress sink means nobody listens, and a plain
// SaveParameters means the whole bundle.

#include <array>
#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "bundle/GridID.hpp"
#include "field/CreativeArrayBase.hpp"
#include "field/DynamicSize.hpp"
#include "field/Field.hpp"
#include "field/MemBase.hpp"
#include "grid/Grid.hpp"
#include "grid/SkeletonID.hpp"
#include "ostrak/ChunkBase.hpp"
#include "ostrak/Intercube.hpp"
#include "ostrak/ReferenceBase.hpp"
#include "ostrak/SaveRegistry.hpp"
#include "ostrak/StringList.hpp"
#include "ostrak/TypeInfo.hpp"

namespace Quaril {

/// How a saver is to filter (compress) one data set. Returned by value from
/// StorageTransformations::getFilterSettings; the meaning of each number is
/// the saver's, the defaults mean "no filter, saver's own choices".
struct FilterSettings {
  /// The filter to apply; 0 means none.
  uint32_t filter = 0;
  /// A precision or strength setting of the filter (bits kept, for example).
  uint32_t level = 16;
  /// Data smaller than this many bytes are written unfiltered; -1: no limit.
  int64_t minimumBytes = -1;
  /// Parameters handed to the filter as they are.
  std::array<uint64_t, 6> parameters{};
  /// Flags of the saver's own.
  uint64_t flags = 0;

  friend bool operator==(const FilterSettings&, const FilterSettings&) = default;
};

/// The saving policy: hooks that a saver asks, piece by piece, whether and
/// how a time, field or fragment is written. Every hook has a neutral default
/// (everything written, unfiltered, in one chunk, inline); applications
/// derive and override single hooks, then pass the object to Bundle::save,
/// BundlePtr::save, BundlePtr::saveGrids or Bundle::bindToNew, which attach
/// it to the save request under the type StorageTransformations.
///
/// Argument names used below: `gridName` is the grid's name, `grid` a weak
/// handle on it, `skeleton` the skeleton holding the data, `representation`
/// the name of the representation (its chart or reference skeleton),
/// `fieldName` the field's name, `data` the creator of the fragment's data.
///
/// The overloads of getFilterSettings share one name: a class overriding
/// one of them should add `using StorageTransformations::getFilterSettings;`
/// so that the other stays callable through it.
///
/// The type map base is a table of element-type substitutions that savers
/// may consult and fill; this library never reads it.
class StorageTransformations : public Ostrak::Interface<StorageTransformations>,
                               public Ostrak::typemap<Ostrak::TypeInfo> {
 public:
  /// A sink for reports about reading performance.
  class IOPerformance : public Ostrak::ReferenceBase<IOPerformance> {
   public:
    ~IOPerformance() override;
    /// A read has finished: it took `seconds` and read `bytes` bytes of
    /// `data`, of extents `size`, through filter `filter` in `chunks`
    /// chunks. Does nothing by default.
    virtual void doneRead(double seconds, uint64_t bytes, CreativeArrayBase& data,
                          const DynamicSize& size, int filter, int chunks);
  };

  /// Every member at its default: no performance sink, no limits, nothing
  /// recorded, external file references off.
  StorageTransformations();
  ~StorageTransformations() override;

  // ---- hooks ----------------------------------------------------------------

  /// Whether to leave this fragment's data out. Default: false.
  virtual bool SkipStorage(double time, const std::string& gridName,
                           const Ostrak::WeakPtr<Grid>& grid, const SkeletonID& skeleton,
                           const std::string& representation, const Field& field,
                           const std::string& fieldName, CreativeArrayBase& data,
                           const Ostrak::StrongPtr<FragmentID>& fragment) const;

  /// The filter of this fragment's data, knowing its memory object. Default:
  /// what the nine-argument form answers (so overriding that one is enough).
  virtual FilterSettings getFilterSettings(
      double time, const std::string& gridName, const Ostrak::WeakPtr<Grid>& grid,
      const SkeletonID& skeleton, const std::string& representation, const Field& field,
      const std::string& fieldName, CreativeArrayBase& data,
      const Ostrak::StrongPtr<FragmentID>& fragment,
      const Ostrak::StrongPtr<MemBase, Cacheable>& memory) const;

  /// The filter of this fragment's data. Default: a default FilterSettings.
  virtual FilterSettings getFilterSettings(double time, const std::string& gridName,
                                           const Ostrak::WeakPtr<Grid>& grid,
                                           const SkeletonID& skeleton,
                                           const std::string& representation, const Field& field,
                                           const std::string& fieldName, CreativeArrayBase& data,
                                           const Ostrak::StrongPtr<FragmentID>& fragment) const;

  /// Whether anything of `time` is written. Default: true, for every value.
  virtual bool isSaveableTime(double time) const;

  /// Whether to store `name`'s values shifted by a common offset. Default: false.
  virtual bool EnableNumericalShift(const std::string& name,
                                    const Ostrak::StrongPtr<Ostrak::ChunkBase>& chunk) const;
  /// Whether to store `name`'s values in single precision. Default: false.
  virtual bool WriteAsSinglePrecision(const std::string& name,
                                      const Ostrak::StrongPtr<Ostrak::ChunkBase>& chunk) const;
  /// Whether to compute and write the value range of `data`. Default: false.
  virtual bool ComputeRangeAttributeOnWriting(const std::string& name,
                                              const CreativeArrayBase& data) const;

  /// The file and the path inside it where the data live elsewhere. Default:
  /// two empty strings (stored here).
  virtual std::pair<std::string, std::string> getExternalLocation(
      double time, const std::string& gridName, const SkeletonID& skeleton,
      const std::string& representation, const std::string& fieldName) const;
  /// A prefix of the external location. Default: empty.
  virtual std::string getExternalLocationPrefix(double time, const std::string& gridName,
                                                const SkeletonID& skeleton,
                                                const std::string& representation,
                                                const std::string& fieldName) const;

  /// Lets the policy arrange the packing of a field before it is written.
  /// Default: does nothing.
  virtual void setFieldPacking(double time, const std::string& gridName,
                               const Ostrak::WeakPtr<Grid>& grid, const SkeletonID& skeleton,
                               const std::string& representation, const Field& field,
                               const std::string& fieldName, CreativeArrayBase& data,
                               const Ostrak::StrongPtr<FragmentID>& fragment) const;

  /// The external file that data from `source` refer to: `fileName` itself
  /// when external file references are enabled, otherwise the empty string
  /// (store inline). `source` is not used by the default.
  virtual std::string getExternalFileReference(const std::string& source,
                                               const std::string& fileName);

  /// The chunk extents for data of extents `size`. Default: `size` itself,
  /// one chunk over the whole array; `elementBytes` is ignored.
  virtual DynamicSize computeChunkSize(const DynamicSize& size, uint32_t elementBytes);

  /// Whether the field is written. Default: true.
  virtual bool isSaveableField(const FieldID& fieldID, const Field& field,
                               const Ostrak::WeakPtr<Grid>& grid, const std::string& gridName,
                               double time, const std::string& representation,
                               const SkeletonID& skeleton);
  /// Whether the fragment is written. Default: true.
  virtual bool isSaveableFragment(const Ostrak::StrongPtr<FragmentID>& fragment,
                                  const Ostrak::StrongPtr<CreativeArrayBase>& data,
                                  const FieldID& fieldID, const Field& field,
                                  const Ostrak::WeakPtr<Grid>& grid, const std::string& gridName,
                                  double time, const std::string& representation,
                                  const SkeletonID& skeleton);
  /// Notice that the fragment has been written. Default: does nothing.
  virtual void isSaved(const Ostrak::StrongPtr<CreativeArrayBase>& data,
                       const Ostrak::StrongPtr<FragmentID>& fragment, const FieldID& fieldID,
                       const Field& field, const Ostrak::WeakPtr<Grid>& grid,
                       const std::string& gridName, double time, const std::string& representation,
                       const SkeletonID& skeleton);

  // ---- state for savers and derived policies ---------------------------------

  /// The sink of read-performance reports; null by default.
  const Ostrak::StrongPtr<IOPerformance>& getIOPerformance() const noexcept {
    return ioPerformance_;
  }
  void setIOPerformance(const Ostrak::StrongPtr<IOPerformance>& sink) { ioPerformance_ = sink; }

  /// Upper bound of one chunk in bytes; -1 (the default): no bound.
  int64_t getChunkByteLimit() const noexcept { return chunkByteLimit_; }
  void setChunkByteLimit(int64_t bytes) noexcept { chunkByteLimit_ = bytes; }

  /// Whether a saver may replace data already present in the file; false by default.
  bool getOverwrite() const noexcept { return overwrite_; }
  void setOverwrite(bool overwrite) noexcept { overwrite_ = overwrite; }

  /// Filter strength for savers that take one number; -1 (the default): the saver's own.
  int32_t getCompressionLevel() const noexcept { return compressionLevel_; }
  void setCompressionLevel(int32_t level) noexcept { compressionLevel_ = level; }

  /// Threads a saver may use; -1 (the default): the saver decides.
  int32_t getMaximumThreads() const noexcept { return maximumThreads_; }
  void setMaximumThreads(int32_t threads) noexcept { maximumThreads_ = threads; }

  /// Whether savers report details through the progress sink; false by default.
  bool getVerbose() const noexcept { return verbose_; }
  void setVerbose(bool verbose) noexcept { verbose_ = verbose; }

  /// Bytes written so far, kept by savers; 0 at construction.
  uint64_t getBytesWritten() const noexcept { return bytesWritten_; }
  void setBytesWritten(uint64_t bytes) noexcept { bytesWritten_ = bytes; }

  /// Times written so far, kept by savers; empty at construction.
  std::vector<double>& writtenTimes() noexcept { return writtenTimes_; }
  const std::vector<double>& writtenTimes() const noexcept { return writtenTimes_; }

  /// Whether savers write the attributes of bundles, slices and grids; true by default.
  bool getSaveAttributes() const noexcept { return saveAttributes_; }
  void setSaveAttributes(bool save) noexcept { saveAttributes_ = save; }

  /// The layout version a saver should write (first, second); {0, 0}
  /// (the default): the saver's newest.
  const std::array<uint32_t, 2>& getLayoutVersion() const noexcept { return layoutVersion_; }
  void setLayoutVersion(uint32_t first, uint32_t second) noexcept {
    layoutVersion_ = {first, second};
  }

  /// Fields and grids written so far, kept by savers; empty at construction.
  std::set<Ostrak::StrongPtr<FieldID>>& writtenFields() noexcept { return writtenFields_; }
  const std::set<Ostrak::StrongPtr<FieldID>>& writtenFields() const noexcept {
    return writtenFields_;
  }
  std::set<Ostrak::StrongPtr<GridID>>& writtenGrids() noexcept { return writtenGrids_; }
  const std::set<Ostrak::StrongPtr<GridID>>& writtenGrids() const noexcept { return writtenGrids_; }

  /// The switch of getExternalFileReference; off by default.
  bool getExternalFileReferences() const noexcept { return externalFileReferences_; }
  void setExternalFileReferences(bool enabled) noexcept { externalFileReferences_ = enabled; }

 protected:
  Ostrak::StrongPtr<IOPerformance> ioPerformance_;
  int64_t chunkByteLimit_ = -1;
  bool overwrite_ = false;
  int32_t compressionLevel_ = -1;
  int32_t maximumThreads_ = -1;
  bool verbose_ = false;
  uint64_t bytesWritten_ = 0;
  std::vector<double> writtenTimes_;
  bool saveAttributes_ = true;
  std::array<uint32_t, 2> layoutVersion_{0, 0};
  std::set<Ostrak::StrongPtr<FieldID>> writtenFields_;
  std::set<Ostrak::StrongPtr<GridID>> writtenGrids_;
  bool externalFileReferences_ = false;
};

/// A save request for some grids only: the savers write the grids named in
/// the list and nothing else of the bundle. Made by BundlePtr::saveGrids.
class GridSaveParameters : public Ostrak::SaveParameters {
 public:
  /// A request to save the grids of `gridNames` to `filename`. A null list
  /// names no grid; BundlePtr::saveGrids makes a plain request instead.
  GridSaveParameters(const std::string& filename,
                     const Ostrak::StrongPtr<Ostrak::StringList>& gridNames);
  ~GridSaveParameters() override;

  /// The names of the grids to save.
  const Ostrak::StrongPtr<Ostrak::StringList>& getGridNames() const noexcept { return gridNames_; }

 private:
  Ostrak::StrongPtr<Ostrak::StringList> gridNames_;
};

}  // namespace Quaril
