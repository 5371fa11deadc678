#pragma once
// The whole object core in one include.

#include "ostrak/Ageable.hpp"
#include "ostrak/Attributes.hpp"
#include "ostrak/ChunkBase.hpp"
#include "ostrak/Diagnostics.hpp"
#include "ostrak/Intercube.hpp"
#include "ostrak/Loader.hpp"
#include "ostrak/Ownable.hpp"
#include "ostrak/ReferenceBase.hpp"
#include "ostrak/SaveRegistry.hpp"
#include "ostrak/StringList.hpp"
#include "ostrak/TypeInfo.hpp"
