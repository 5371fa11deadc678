#include "formats/hdf5/detail/Hdf5.hpp"

#include <algorithm>
#include <cstring>

#include "formats/hdf5/detail/Codecs.hpp"

// The codecs as libhdf5's chunk filters; part of the Hdf5 room, in a file of
// its own so that the filter plugins (plugins/) are built from it alone.

namespace Quaril::H5::detail {

namespace {

/// A chunk filter of libhdf5 over one of the codecs: compresses on the way
/// to the file and decompresses on the way back. Returns the new size, or 0
/// on failure (libhdf5's convention), leaving the buffer as it was.
template <std::vector<uint8_t> (*Encode)(const void*, size_t, const unsigned*, size_t),
          std::vector<uint8_t> (*Decode)(const void*, size_t, size_t)>
size_t codecFilter(unsigned flags, size_t parameterCount, const unsigned parameters[], size_t bytes,
                   size_t* bufferBytes, void** buffer) {
  // No chunk of libhdf5 holds 4 GiB or more: a larger claim is damage.
  constexpr size_t Largest = size_t{1} << 32;
  try {
    const std::vector<uint8_t> out = (flags & H5Z_FLAG_REVERSE)
                                         ? Decode(*buffer, bytes, Largest)
                                         : Encode(*buffer, bytes, parameters, parameterCount);
    void* made = H5allocate_memory(std::max<size_t>(out.size(), 1), false);
    if (!made) return 0;
    if (!out.empty()) std::memcpy(made, out.data(), out.size());
    H5free_memory(*buffer);
    *buffer = made;
    *bufferBytes = std::max<size_t>(out.size(), 1);
    return out.size();
  } catch (...) {
    return 0;
  }
}

std::vector<uint8_t> zstdEncode(const void* data, size_t size, const unsigned* parameters,
                                size_t count) {
  return zstdCompress(data, size, count > 0 ? static_cast<int>(parameters[0]) : 0);
}

std::vector<uint8_t> lz4Encode(const void* data, size_t size, const unsigned* parameters,
                               size_t count) {
  return lz4Compress(data, size, count > 0 ? parameters[0] : 0);
}

}  // namespace

const H5Z_class2_t& zstdFilterClass() {
  static const H5Z_class2_t filter{
      H5Z_CLASS_T_VERS, static_cast<H5Z_filter_t>(ZstdFilter),  1, 1, "zstd", nullptr,
      nullptr,          codecFilter<zstdEncode, zstdDecompress>};
  return filter;
}

const H5Z_class2_t& lz4FilterClass() {
  static const H5Z_class2_t filter{
      H5Z_CLASS_T_VERS, static_cast<H5Z_filter_t>(Lz4Filter), 1, 1, "lz4", nullptr,
      nullptr,          codecFilter<lz4Encode, lz4Decompress>};
  return filter;
}

}  // namespace Quaril::H5::detail
