#include "formats/hdf5/detail/Checksum.hpp"

// Inlined: half again as fast as the shared library's plain calls on large
// arrays; its dispatching calls, where there are some, faster still.
#define XXH_INLINE_ALL
#include <xxhash.h>
#if QUARIL_XXH3_DISPATCH
// As the shared library's xxh_x86dispatch.h declares them; that header
// cannot be included beside the inlined one.
extern "C" {
uint64_t XXH3_64bits_dispatch(const void* input, size_t bytes);
int XXH3_64bits_update_dispatch(void* state, const void* input, size_t bytes);
}
#endif

#include <algorithm>
#include <cstring>
#include <vector>

namespace Quaril::H5::detail {

namespace {
// The shared library's hash on the widest vector unit there is, where it
// has one; the same values as the inlined one.
#if QUARIL_XXH3_DISPATCH
uint64_t hashed(const void* data, size_t bytes) {
  return XXH3_64bits_dispatch(data, bytes);
}
void hashOn(XXH3_state_t* state, const void* data, size_t bytes) {
  XXH3_64bits_update_dispatch(state, data, bytes);
}
#else
uint64_t hashed(const void* data, size_t bytes) {
  return XXH3_64bits(data, bytes);
}
void hashOn(XXH3_state_t* state, const void* data, size_t bytes) {
  XXH3_64bits_update(state, data, bytes);
}
#endif
}  // namespace

uint64_t storedChecksum(const void* data, uint64_t count, hid_t memoryType, hid_t storedType) {
  const size_t memoryBytes = H5Tget_size(memoryType), storedBytes = H5Tget_size(storedType);
  if (H5Tequal(memoryType, storedType) > 0) return hashed(data, count * memoryBytes);
  // Doubles stored as floats, say: converted in a buffer that holds either.
  std::vector<unsigned char> converted(count * std::max(memoryBytes, storedBytes));
  std::memcpy(converted.data(), data, count * memoryBytes);
  check(H5Tconvert(memoryType, storedType, count, converted.data(), nullptr, H5P_DEFAULT),
        "cannot convert an array to its stored type");
  return hashed(converted.data(), count * storedBytes);
}

uint64_t bytesChecksum(const void* data, size_t bytes) {
  return hashed(data, bytes);
}

struct ChecksumStream::State {
  XXH3_state_t xxh3;
};

ChecksumStream::ChecksumStream() : state_(std::make_unique<State>()) {
  XXH3_64bits_reset(&state_->xxh3);
}

ChecksumStream::~ChecksumStream() = default;

void ChecksumStream::add(const void* data, size_t bytes) {
  hashOn(&state_->xxh3, data, bytes);
}

uint64_t ChecksumStream::value() const {
  return XXH3_64bits_digest(&state_->xxh3);
}

}  // namespace Quaril::H5::detail
