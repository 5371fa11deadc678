#pragma once
// Who owns what: the primary owner and primary bundle of every object of the
// data model, and the survey of the skeletons and base spaces of a bundle.

#include <map>
#include <string>

#include "bundle/Bundle.hpp"
#include "field/CreativeArrayBase.hpp"
#include "field/Field.hpp"
#include "grid/Grid.hpp"
#include "grid/Representation.hpp"
#include "grid/Skeleton.hpp"
#include "ostrak/StringList.hpp"

namespace Quaril {

/// The first live owner one level up, or null; an owner of another class
/// than expected also gives null (later owners are not consulted).
Ostrak::StrongPtr<Field> getPrimaryOwner(const CreativeArrayBase& data);
Ostrak::StrongPtr<Representation> getPrimaryOwner(const Field& field);
Ostrak::StrongPtr<Skeleton> getPrimaryOwner(const Representation& representation);
Ostrak::StrongPtr<Grid> getPrimaryOwner(const Skeleton& skeleton);
Ostrak::StrongPtr<Slice> getPrimaryOwner(const Grid& grid);
BundlePtr getPrimaryOwner(const Slice& slice);

/// The bundle at the top of the primary owner chain, or null when a level
/// of the chain is missing.
BundlePtr getPrimaryBundle(const CreativeArrayBase& data);
BundlePtr getPrimaryBundle(const Field& field);
BundlePtr getPrimaryBundle(const Representation& representation);
BundlePtr getPrimaryBundle(const Skeleton& skeleton);
BundlePtr getPrimaryBundle(const Grid& grid);
BundlePtr getPrimaryBundle(const Slice& slice);

template <class T>
class Occurrence;

/// A survey of the skeletons and base spaces in which a bundle's grids are
/// represented, so that a writer can name the skeleton of each base space or
/// tell that a representation lies outside the bundle. Filled by the
/// constructor (which loads every slice it surveys); holds only weak
/// references, so it keeps nothing alive and does not follow later changes.
/// Copies share one survey.
template <>
class Occurrence<Bundle> {
 public:
  struct SkeletonEntry {
    Ostrak::WeakPtr<Skeleton> skeleton;
    SkeletonID id;
    /// The grid in which the skeleton was met last.
    Ostrak::WeakPtr<Grid> grid;
  };
  struct BaseSpaceEntry {
    Ostrak::WeakPtr<BaseSpace> baseSpace;
    /// The identity of the skeleton whose representation is relative to it.
    SkeletonID id;
  };

  /// The shared tables.
  struct Survey : Ostrak::ReferenceBase<Survey> {
    std::map<Ostrak::WeakPtr<Skeleton>, SkeletonEntry> skeletons;
    std::map<Ostrak::WeakPtr<BaseSpace>, BaseSpaceEntry> baseSpaces;
    Ostrak::StrongPtr<Ostrak::StringList> gridnames;
  };

  /// Surveys the grids of `bundle` whose names are in `gridnames` (every
  /// grid when it is null). In ascending time, the last occurrence wins.
  Occurrence(const Bundle& bundle, const Ostrak::StrongPtr<Ostrak::StringList>& gridnames);

  /// The entry of `baseSpace`, or null.
  const BaseSpaceEntry* operator()(const Ostrak::WeakPtr<BaseSpace>& baseSpace) const;
  /// The entry of `skeleton`, or null.
  const SkeletonEntry* operator()(const Ostrak::WeakPtr<Skeleton>& skeleton) const;
  /// The name of the skeleton identity of `baseSpace` in this bundle; the
  /// texts "\t   REPRESENTED IN UNKNOWN BASESPACE\n" for a dead base space or
  /// one that is no skeleton, and "\t   REPRESENTED IN EXTERNAL SKELETON
  /// CANNOT SAVE TO THIS BUNDLE\n" for a skeleton the survey did not meet.
  std::string RepresenterName(const Ostrak::WeakPtr<BaseSpace>& baseSpace) const;

  const Survey& survey() const noexcept { return *survey_; }

 private:
  Ostrak::StrongPtr<Survey> survey_;
};

/// The visitors of the survey below the bundle level; each fills the tables
/// of one shared survey.
template <>
class Occurrence<Slice> : public EvolutionIterator<Slice> {
 public:
  explicit Occurrence(Occurrence<Bundle>::Survey& survey) : survey_(survey) {}
  bool apply(ParameterSet& parameters, Slice& slice) override;

 private:
  Occurrence<Bundle>::Survey& survey_;
};

template <>
class Occurrence<Grid> : public GridIterator {
 public:
  explicit Occurrence(Occurrence<Bundle>::Survey& survey) : survey_(survey) {}
  bool apply(GridID& id, Grid& grid) override;

 private:
  Occurrence<Bundle>::Survey& survey_;
};

template <>
class Occurrence<Skeleton> {
 public:
  Occurrence(Occurrence<Bundle>::Survey& survey, Grid& grid) : survey_(survey), grid_(grid) {}
  bool operator()(const SkeletonID& id, const Ostrak::StrongPtr<Skeleton>& skeleton);

 private:
  Occurrence<Bundle>::Survey& survey_;
  Grid& grid_;
};

template <>
class Occurrence<Representation> {
 public:
  Occurrence(Occurrence<Bundle>::Survey& survey, const SkeletonID& id) : survey_(survey), id_(id) {}
  bool operator()(const Ostrak::WeakPtr<BaseSpace>& base,
                  const Ostrak::StrongPtr<Representation>& representation);

 private:
  Occurrence<Bundle>::Survey& survey_;
  SkeletonID id_;
};

}  // namespace Quaril
