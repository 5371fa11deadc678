#include "bundle/StorageTransformations.hpp"

namespace Quaril {

StorageTransformations::IOPerformance::~IOPerformance() = default;

void StorageTransformations::IOPerformance::doneRead(double, uint64_t, CreativeArrayBase&,
                                                     const DynamicSize&, int, int) {}

StorageTransformations::StorageTransformations() = default;

StorageTransformations::~StorageTransformations() = default;

bool StorageTransformations::SkipStorage(double, const std::string&, const Ostrak::WeakPtr<Grid>&,
                                         const SkeletonID&, const std::string&, const Field&,
                                         const std::string&, CreativeArrayBase&,
                                         const Ostrak::StrongPtr<FragmentID>&) const {
  return false;
}

FilterSettings StorageTransformations::getFilterSettings(
    double time, const std::string& gridName, const Ostrak::WeakPtr<Grid>& grid,
    const SkeletonID& skeleton, const std::string& representation, const Field& field,
    const std::string& fieldName, CreativeArrayBase& data,
    const Ostrak::StrongPtr<FragmentID>& fragment,
    const Ostrak::StrongPtr<MemBase, Cacheable>&) const {
  // A virtual call: an override of the nine-argument form answers here too,
  // and without one the base answers the default record.
  return getFilterSettings(time, gridName, grid, skeleton, representation, field, fieldName, data,
                           fragment);
}

FilterSettings StorageTransformations::getFilterSettings(
    double, const std::string&, const Ostrak::WeakPtr<Grid>&, const SkeletonID&, const std::string&,
    const Field&, const std::string&, CreativeArrayBase&,
    const Ostrak::StrongPtr<FragmentID>&) const {
  return FilterSettings();
}

bool StorageTransformations::isSaveableTime(double) const {
  return true;
}

bool StorageTransformations::EnableNumericalShift(
    const std::string&, const Ostrak::StrongPtr<Ostrak::ChunkBase>&) const {
  return false;
}

bool StorageTransformations::WriteAsSinglePrecision(
    const std::string&, const Ostrak::StrongPtr<Ostrak::ChunkBase>&) const {
  return false;
}

bool StorageTransformations::ComputeRangeAttributeOnWriting(const std::string&,
                                                            const CreativeArrayBase&) const {
  return false;
}

std::pair<std::string, std::string> StorageTransformations::getExternalLocation(
    double, const std::string&, const SkeletonID&, const std::string&, const std::string&) const {
  return {};
}

std::string StorageTransformations::getExternalLocationPrefix(double, const std::string&,
                                                              const SkeletonID&, const std::string&,
                                                              const std::string&) const {
  return {};
}

void StorageTransformations::setFieldPacking(double, const std::string&,
                                             const Ostrak::WeakPtr<Grid>&, const SkeletonID&,
                                             const std::string&, const Field&, const std::string&,
                                             CreativeArrayBase&,
                                             const Ostrak::StrongPtr<FragmentID>&) const {}

std::string StorageTransformations::getExternalFileReference(const std::string&,
                                                             const std::string& fileName) {
  return externalFileReferences_ ? fileName : std::string();
}

DynamicSize StorageTransformations::computeChunkSize(const DynamicSize& size, uint32_t) {
  return size;
}

bool StorageTransformations::isSaveableField(const FieldID&, const Field&,
                                             const Ostrak::WeakPtr<Grid>&, const std::string&,
                                             double, const std::string&, const SkeletonID&) {
  return true;
}

bool StorageTransformations::isSaveableFragment(const Ostrak::StrongPtr<FragmentID>&,
                                                const Ostrak::StrongPtr<CreativeArrayBase>&,
                                                const FieldID&, const Field&,
                                                const Ostrak::WeakPtr<Grid>&, const std::string&,
                                                double, const std::string&, const SkeletonID&) {
  return true;
}

void StorageTransformations::isSaved(const Ostrak::StrongPtr<CreativeArrayBase>&,
                                     const Ostrak::StrongPtr<FragmentID>&, const FieldID&,
                                     const Field&, const Ostrak::WeakPtr<Grid>&, const std::string&,
                                     double, const std::string&, const SkeletonID&) {}

GridSaveParameters::GridSaveParameters(const std::string& filename,
                                       const Ostrak::StrongPtr<Ostrak::StringList>& gridNames)
    : Ostrak::SaveParameters(filename), gridNames_(gridNames) {}

GridSaveParameters::~GridSaveParameters() = default;

}  // namespace Quaril
