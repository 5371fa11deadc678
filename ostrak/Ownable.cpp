#include "ostrak/Ownable.hpp"

namespace Ostrak {

OwnerBase::~OwnerBase() = default;

void OwnerBase::markChanged() {
  const Age now = Ageable::getGlobalTime();
  if (marked_ == now) return;
  marked_ = now;
  tellOwners();
}

void OwnerBase::ownedChanged(OwnerBase&) {
  markChanged();
}

}  // namespace Ostrak

#include "ostrak/ChunkBase.hpp"

namespace Ostrak {

ChunkBase::~ChunkBase() = default;

}  // namespace Ostrak
