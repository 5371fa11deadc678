#pragma once
// Opening files for the tool, and copying a selection of them into one
// file: `bundle-tool copy`, also what turns a bound series into one file.

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/Format.hpp"
#include "ostrak/Loader.hpp"

namespace Quaril::Tools {

/// Fails with one line naming the first of `files` that is not there or
/// cannot be read: "no such file", "a folder, not a file", "cannot be read"
/// (with the system's reason); also when there is none.
H5::Outcome requireReadable(const std::vector<std::string>& files);

/// Loads `files`, merged into one bundle, with the HDF5 format registered.
/// Fails with one line naming the file: "no such file", "cannot be read"
/// (with the system's reason), or what the loader says.
H5::Outcome openFiles(BundlePtr& bundle, const std::vector<std::string>& files,
                      const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {});

/// Times from `first` to `last`, both included.
struct TimeRange {
  double first = -std::numeric_limits<double>::infinity();
  double last = std::numeric_limits<double>::infinity();
};

/// Reads "T0:T1", "T0:" (from T0 on), ":T1" (up to T1) or "T" (exactly T).
/// Nothing, with the reason in `error`, for anything else, a NaN or
/// T0 > T1.
std::optional<TimeRange> parseTimeRange(const std::string& text, std::string& error);

/// A codec and its level for every array written.
struct Compression {
  H5::Codec codec = H5::Codec::None;
  int level = 0;  ///< 0: the codec's default
};

/// `--compress` and Python's `compress=`: "zstd[:LEVEL]" (1 to 22), "lz4",
/// "deflate[:LEVEL]" (1 to 9), "none", or a deflate level "N" (0: none).
/// Nothing, and `error` set, for anything else.
std::optional<Compression> parseCompression(const std::string& text, std::string& error);

struct CopyRequest {
  std::vector<std::string> inputs;
  std::string output;
  /// The grids to copy; empty: all.
  std::vector<std::string> grids;
  /// The time steps to copy; none: all.
  std::optional<TimeRange> times;
  /// The codec of every array, after byte shuffling; none: unfiltered.
  Compression compression;
  /// Whether OUT.xmf, the descriptor for visualisation programs, is written.
  bool xdmf = true;
  /// Whether what cannot be read is left out (each told to the progress
  /// sink) instead of failing the copy.
  bool skipDamaged = false;
};

/// Loads and merges the inputs (single files or bound series) and saves the
/// selection as one self-contained file, atomically. Fails, writing
/// nothing, for an input that cannot be read, a grid that no input holds, a
/// time range that holds no step, or a
/// part of the inputs that cannot be read (unless request.skipDamaged).
/// What could not be read is added to `unreadable` (may be null).
H5::Outcome copyBundle(const CopyRequest& request,
                       const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress = {},
                       std::vector<H5::Problem>* unreadable = nullptr);

}  // namespace Quaril::Tools
