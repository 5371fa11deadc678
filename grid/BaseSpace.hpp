#pragma once
// Base spaces and the objects that depend on them: a representation is always
// relative to a base space (a chart or a skeleton) and owned by one.

#include "ostrak/Ownable.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Quaril {

using Ostrak::Ownable;
using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

class BaseSpaceDependency;

/// Something representations can be relative to: a chart (`ChartID`) or a
/// skeleton (`Skeleton`). Reference counted; a skeleton also owns the
/// representations it holds, through this container role.
class BaseSpace : public Ownable<BaseSpaceDependency>::Container {
 public:
  BaseSpace() = default;
  ~BaseSpace() override;
};

/// An object that depends on a base space; it lists the base spaces that own
/// it (in practice the skeletons holding a representation).
class BaseSpaceDependency : public Ownable<BaseSpaceDependency> {
 public:
  BaseSpaceDependency() = default;
  ~BaseSpaceDependency() override;
};

}  // namespace Quaril
