#include "formats/hdf5/detail/Codecs.hpp"

#include <lz4.h>
#include <zstd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "formats/hdf5/detail/Failure.hpp"

namespace Quaril::H5::detail {

namespace {

constexpr size_t Lz4LargestBlock = size_t{1} << 30;
constexpr size_t Lz4Header = 12;

void putBigEndian(uint8_t* at, uint64_t value, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) at[i] = static_cast<uint8_t>(value >> (8 * (bytes - 1 - i)));
}

uint64_t bigEndian(const uint8_t* at, size_t bytes) {
  uint64_t value = 0;
  for (size_t i = 0; i < bytes; ++i) value = (value << 8) | at[i];
  return value;
}

}  // namespace

std::vector<uint8_t> zstdCompress(const void* data, size_t size, int level) {
  std::vector<uint8_t> out(ZSTD_compressBound(size));
  const size_t written = ZSTD_compress(out.data(), out.size(), data, size, level);
  require(!ZSTD_isError(written),
          [&] { return std::string("zstd cannot compress: ") + ZSTD_getErrorName(written); });
  out.resize(written);
  return out;
}

std::vector<uint8_t> zstdDecompress(const void* data, size_t size, size_t limit) {
  const unsigned long long content = ZSTD_getFrameContentSize(data, size);
  require(content != ZSTD_CONTENTSIZE_ERROR && content != ZSTD_CONTENTSIZE_UNKNOWN,
          "a zstd chunk without a complete frame");
  require(content <= limit, "a zstd chunk larger than its chunk");
  std::vector<uint8_t> out(static_cast<size_t>(content));
  const size_t read = ZSTD_decompress(out.data(), out.size(), data, size);
  require(!ZSTD_isError(read) && read == content,
          [&] { return std::string("a damaged zstd chunk: ") + ZSTD_getErrorName(read); });
  return out;
}

std::vector<uint8_t> lz4Compress(const void* data, size_t size, size_t blockBytes) {
  if (blockBytes == 0 || blockBytes > Lz4LargestBlock) blockBytes = Lz4LargestBlock;
  blockBytes = std::max<size_t>(1, std::min(blockBytes, size));
  const size_t blocks = size == 0 ? 0 : (size - 1) / blockBytes + 1;
  std::vector<uint8_t> out(Lz4Header + blocks * (4 + static_cast<size_t>(LZ4_compressBound(
                                                         static_cast<int>(blockBytes)))));
  putBigEndian(out.data(), size, 8);
  putBigEndian(out.data() + 8, blockBytes, 4);
  size_t at = Lz4Header;
  const auto* from = static_cast<const char*>(data);
  for (size_t done = 0; done < size; done += blockBytes) {
    const size_t block = std::min(blockBytes, size - done);
    char* into = reinterpret_cast<char*>(out.data() + at + 4);
    int packed = LZ4_compress_default(from + done, into, static_cast<int>(block),
                                      LZ4_compressBound(static_cast<int>(block)));
    require(packed > 0, "LZ4 cannot compress a block");
    if (static_cast<size_t>(packed) >= block) {
      std::memcpy(into, from + done, block);  // as it is: it would not shrink
      packed = static_cast<int>(block);
    }
    putBigEndian(out.data() + at, static_cast<uint64_t>(packed), 4);
    at += 4 + static_cast<size_t>(packed);
  }
  out.resize(at);
  return out;
}

std::vector<uint8_t> lz4Decompress(const void* data, size_t size, size_t limit) {
  const auto* in = static_cast<const uint8_t*>(data);
  require(size >= Lz4Header, "an LZ4 chunk shorter than its header");
  const uint64_t total = bigEndian(in, 8);
  uint64_t blockBytes = bigEndian(in + 8, 4);
  require(total <= limit, "an LZ4 chunk larger than its chunk");
  require(blockBytes > 0 || total == 0, "an LZ4 chunk of blocks of no bytes");
  std::vector<uint8_t> out(static_cast<size_t>(total));
  size_t at = Lz4Header;
  for (uint64_t done = 0; done < total; done += blockBytes) {
    const size_t block = static_cast<size_t>(std::min<uint64_t>(blockBytes, total - done));
    require(size - at >= 4, "an LZ4 chunk cut short");
    const size_t packed = static_cast<size_t>(bigEndian(in + at, 4));
    at += 4;
    require(packed <= size - at, "an LZ4 chunk cut short");
    char* into = reinterpret_cast<char*>(out.data() + done);
    if (packed == block) {
      std::memcpy(into, in + at, block);
    } else {
      const int made = LZ4_decompress_safe(reinterpret_cast<const char*>(in + at), into,
                                           static_cast<int>(packed), static_cast<int>(block));
      require(made == static_cast<int>(block), "a damaged LZ4 block");
    }
    at += packed;
  }
  return out;
}

namespace {

/// Copies the `rows` x `columns` bytes at `in` transposed to `out`, then the
/// `rest` bytes after them as they are.
void transposeBytes(const uint8_t* in, size_t rows, size_t columns, size_t rest, uint8_t* out) {
  if (rows <= 1 || columns <= 1) {  // a row or a column: transposed as it lies
    if (rows * columns + rest > 0) std::memcpy(out, in, rows * columns + rest);
    return;
  }
  for (size_t c = 0; c < columns; ++c) {
    for (size_t r = 0; r < rows; ++r) out[c * rows + r] = in[r * columns + c];
  }
  if (rest > 0) std::memcpy(out + rows * columns, in + rows * columns, rest);
}

}  // namespace

// Shuffling transposes the elements' bytes (count x elementBytes) to
// elementBytes x count; unshuffling transposes them back.
void shuffle(const uint8_t* in, size_t bytes, size_t elementBytes, uint8_t* out) {
  const size_t count = elementBytes > 0 ? bytes / elementBytes : 0;
  transposeBytes(in, count, count > 0 ? elementBytes : 0, bytes - count * elementBytes, out);
}

void unshuffle(const uint8_t* in, size_t bytes, size_t elementBytes, uint8_t* out) {
  const size_t count = elementBytes > 0 ? bytes / elementBytes : 0;
  transposeBytes(in, count > 0 ? elementBytes : 0, count, bytes - count * elementBytes, out);
}

}  // namespace Quaril::H5::detail
