#pragma once
// The checksum of a stored array, as the layout keeps it in the index: XXH3
// (64 bits, seed 0) of the array's values in the native form of the type
// they are stored as. Written by every save and sync; checked by every read.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "formats/hdf5/detail/Hdf5.hpp"

namespace Quaril::H5::detail {

/// The checksum of the `count` values at `data` of `memoryType` stored as
/// the native type `storedType` (converted first when the two differ).
/// Throws Failure when HDF5 cannot convert them.
uint64_t storedChecksum(const void* data, uint64_t count, hid_t memoryType, hid_t storedType);
/// The same checksum of `bytes` bytes as they lie.
uint64_t bytesChecksum(const void* data, size_t bytes);

/// The same checksum of bytes that come in stretches: equal to that of
/// all of them at once.
class ChecksumStream {
 public:
  ChecksumStream();
  ~ChecksumStream();
  ChecksumStream(const ChecksumStream&) = delete;
  ChecksumStream& operator=(const ChecksumStream&) = delete;

  void add(const void* data, size_t bytes);
  uint64_t value() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace Quaril::H5::detail
