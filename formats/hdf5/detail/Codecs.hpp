#pragma once
// The compression of chunks by the codecs this format offers beside
// deflate, each in the framing of the HDF5 filter registered for it, so that
// other programs with those filters read our files and we theirs:
//  - zstd (filter 32015): one zstd frame; the filter's parameter is the level;
//  - LZ4 (filter 32004): the original size (8 bytes, big-endian), the block
//    size (4 bytes, big-endian), then per block its compressed size (4 bytes,
//    big-endian) and its bytes, a block that does not shrink stored as it is.
// Hdf5.cpp registers them with libhdf5.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Quaril::H5::detail {

inline constexpr unsigned ZstdFilter = 32015;
inline constexpr unsigned Lz4Filter = 32004;

/// `size` bytes at `data` compressed at `level` (1 to 22; 0: zstd's default).
/// Throws Failure.
std::vector<uint8_t> zstdCompress(const void* data, size_t size, int level);
/// The bytes of the zstd frame of `size` bytes at `data`, at most `limit`.
/// Throws Failure when it is no complete frame, or holds more.
std::vector<uint8_t> zstdDecompress(const void* data, size_t size, size_t limit);

/// `size` bytes at `data` in the LZ4 filter's framing, in blocks of
/// `blockBytes` (0: one block of up to 1 GiB).
std::vector<uint8_t> lz4Compress(const void* data, size_t size, size_t blockBytes);
/// The bytes of the LZ4 framing of `size` bytes at `data`, at most `limit`.
/// Throws Failure when the framing or a block is damaged.
std::vector<uint8_t> lz4Decompress(const void* data, size_t size, size_t limit);

/// HDF5's byte shuffle of `bytes` bytes at `in` into `out` (see unshuffle).
void shuffle(const uint8_t* in, size_t bytes, size_t elementBytes, uint8_t* out);
/// Undoes HDF5's byte shuffle of `bytes` bytes at `in` (elements of
/// `elementBytes` bytes: first every element's byte 0, then every byte 1,
/// ...; bytes past the last whole element as they are) into `out`.
void unshuffle(const uint8_t* in, size_t bytes, size_t elementBytes, uint8_t* out);

}  // namespace Quaril::H5::detail
