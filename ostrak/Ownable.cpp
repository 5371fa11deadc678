#include "ostrak/Ownable.hpp"

namespace Ostrak {

OwnerBase::~OwnerBase() = default;

}  // namespace Ostrak

#include "ostrak/ChunkBase.hpp"

namespace Ostrak {

ChunkBase::~ChunkBase() = default;

}  // namespace Ostrak
