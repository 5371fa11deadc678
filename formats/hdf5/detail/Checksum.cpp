#include "formats/hdf5/detail/Checksum.hpp"

// Inlined: half again as fast as the shared library's calls on large arrays.
#define XXH_INLINE_ALL
#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace Quaril::H5::detail {

uint64_t storedChecksum(const void* data, uint64_t count, hid_t memoryType, hid_t storedType) {
  const size_t memoryBytes = H5Tget_size(memoryType), storedBytes = H5Tget_size(storedType);
  if (H5Tequal(memoryType, storedType) > 0) return XXH3_64bits(data, count * memoryBytes);
  // Doubles stored as floats, say: converted in a buffer that holds either.
  std::vector<unsigned char> converted(count * std::max(memoryBytes, storedBytes));
  std::memcpy(converted.data(), data, count * memoryBytes);
  check(H5Tconvert(memoryType, storedType, count, converted.data(), nullptr, H5P_DEFAULT),
        "cannot convert an array to its stored type");
  return XXH3_64bits(converted.data(), count * storedBytes);
}

}  // namespace Quaril::H5::detail
