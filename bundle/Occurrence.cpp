#include "bundle/Occurrence.hpp"

#include "bundle/GridSelector.hpp"

namespace Quaril {

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

namespace {

// The first live owner decides; a wrong class gives null without looking on.
template <class Owner, class Owned>
StrongPtr<Owner> primaryOwner(const Ostrak::Ownable<Owned>& object) {
  return Ostrak::dynamic_pointer_cast<Owner>(object.firstLiveOwner().lock());
}

template <class Object>
BundlePtr climb(const Object& object) {
  auto owner = getPrimaryOwner(object);
  return owner ? getPrimaryBundle(*owner) : BundlePtr();
}

}  // namespace

StrongPtr<Field> getPrimaryOwner(const CreativeArrayBase& data) {
  return primaryOwner<Field, CreativeArrayBase>(data);
}
StrongPtr<Representation> getPrimaryOwner(const Field& field) {
  return primaryOwner<Representation, Field>(field);
}
StrongPtr<Skeleton> getPrimaryOwner(const Representation& representation) {
  return primaryOwner<Skeleton, BaseSpaceDependency>(representation);
}
StrongPtr<Grid> getPrimaryOwner(const Skeleton& skeleton) {
  return primaryOwner<Grid, BaseSpace>(skeleton);
}
StrongPtr<Slice> getPrimaryOwner(const Grid& grid) {
  return primaryOwner<Slice, Grid>(grid);
}
BundlePtr getPrimaryOwner(const Slice& slice) {
  return primaryOwner<Bundle, Slice>(slice);
}

BundlePtr getPrimaryBundle(const CreativeArrayBase& data) {
  return climb(data);
}
BundlePtr getPrimaryBundle(const Field& field) {
  return climb(field);
}
BundlePtr getPrimaryBundle(const Representation& representation) {
  return climb(representation);
}
BundlePtr getPrimaryBundle(const Skeleton& skeleton) {
  return climb(skeleton);
}
BundlePtr getPrimaryBundle(const Grid& grid) {
  return climb(grid);
}
BundlePtr getPrimaryBundle(const Slice& slice) {
  return getPrimaryOwner(slice);
}

// ---- the survey ----------------------------------------------------------------------

Occurrence<Bundle>::Occurrence(const Bundle& bundle, const StrongPtr<Ostrak::StringList>& gridnames)
    : survey_(new Survey) {
  survey_->gridnames = gridnames;
  Occurrence<Slice> visitor(*survey_);
  bundle.iterate(ParameterList(), visitor);
}

const Occurrence<Bundle>::BaseSpaceEntry* Occurrence<Bundle>::operator()(
    const WeakPtr<BaseSpace>& baseSpace) const {
  if (!survey_) return nullptr;
  auto found = survey_->baseSpaces.find(baseSpace);
  return found == survey_->baseSpaces.end() ? nullptr : &found->second;
}

const Occurrence<Bundle>::SkeletonEntry* Occurrence<Bundle>::operator()(
    const WeakPtr<Skeleton>& skeleton) const {
  if (!survey_) return nullptr;
  auto found = survey_->skeletons.find(skeleton);
  return found == survey_->skeletons.end() ? nullptr : &found->second;
}

std::string Occurrence<Bundle>::RepresenterName(const WeakPtr<BaseSpace>& baseSpace) const {
  WeakPtr<Skeleton> skeleton = Ostrak::dynamic_pointer_cast<Skeleton>(baseSpace);
  if (!skeleton) return "\t   REPRESENTED IN UNKNOWN BASESPACE\n";
  if (const SkeletonEntry* entry = (*this)(skeleton)) return entry->id.Name();
  return "\t   REPRESENTED IN EXTERNAL SKELETON CANNOT SAVE TO THIS BUNDLE\n";
}

bool Occurrence<Slice>::apply(ParameterSet& parameters, Slice& slice) {
  if (parameters.size() != 1 || !parameters.front() || parameters.front()->getName() != "time") {
    return true;
  }
  Occurrence<Grid> grids(survey_);
  slice.iterate(grids, survey_.gridnames);
  return true;
}

bool Occurrence<Grid>::apply(GridID&, Grid& grid) {
  grid.iterate(Occurrence<Skeleton>(survey_, grid));
  return true;
}

bool Occurrence<Skeleton>::operator()(const SkeletonID& id, const StrongPtr<Skeleton>& skeleton) {
  if (!skeleton) return true;
  WeakPtr<Skeleton> key(skeleton);
  survey_.skeletons[key] = Occurrence<Bundle>::SkeletonEntry{key, id, WeakPtr<Grid>(&grid_)};
  skeleton->iterate(Occurrence<Representation>(survey_, id));
  return true;
}

bool Occurrence<Representation>::operator()(const WeakPtr<BaseSpace>&,
                                            const StrongPtr<Representation>& representation) {
  if (!representation) return true;
  WeakPtr<BaseSpace> base = representation->getBaseSpace();
  survey_.baseSpaces[base] = Occurrence<Bundle>::BaseSpaceEntry{base, id_};
  return true;
}

}  // namespace Quaril
