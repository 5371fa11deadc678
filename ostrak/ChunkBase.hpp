#pragma once
// A reference-counted piece of raw data handed between savers and their hooks.

#include <cstddef>

#include "ostrak/ReferenceBase.hpp"

namespace Ostrak {

/// A contiguous block of bytes that some other object owns or produces.
class ChunkBase : public ReferenceBase<ChunkBase> {
 public:
  ~ChunkBase() override;
  /// Start of the bytes, or null when there are none.
  virtual const void* data() const = 0;
  /// Number of bytes.
  virtual size_t bytes() const = 0;
};

}  // namespace Ostrak
