#pragma once
// The plan of a collective save or sync: what each rank plans to write
// (Planner.hpp), encoded to travel to every rank, and the plans of all ranks
// merged into the one file they write together, the same on every rank.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "formats/hdf5/detail/Index.hpp"
#include "formats/hdf5/detail/Planner.hpp"
#include "formats/hdf5/detail/Series.hpp"
#include "formats/hdf5/detail/Writer.hpp"

namespace Quaril::H5::detail {

/// What one rank plans to write: what the writer reports, and its plan.
struct RankPlan {
  Index index;
  std::vector<std::string> structures;
  Plan plan;
};

/// One array of the merged file, with the rank that writes it and its place
/// in that rank's plan.
struct MergedArray {
  uint64_t entry;
  std::string name;
  int rank;
  size_t planned;
};

/// The file that the ranks write together; the same on every rank.
struct Merged {
  Index index;
  std::vector<std::string> structures;
  std::vector<MergedArray> arrays;
  std::map<uint64_t, Plan::Attributes> gridAttributes;
  std::map<uint64_t, Plan::Attributes> sliceAttributes;
  std::optional<Plan::Attributes> bundleAttributes;
  /// The arrays' checksums; empty when some rank planned an array without.
  ChecksumsByEntry checksums;
};

/// `mine` as it travels to the other ranks: without data.
std::string encode(const RankPlan& mine);
/// A rank's plan as the other ranks see it: without data. Throws what the
/// JSON reader throws on a malformed text.
RankPlan decode(const std::string& text);

/// The plans of all ranks as one file: times and names of all, each grid at
/// each time with the fragments of all ranks in rank order, data sets
/// numbered on from one rank to the next.
Merged merge(const std::vector<RankPlan>& plans);

/// What a rank's sync makes the other ranks write, as it travels.
std::string encode(const SharedWrites& shared);
/// Adds what `text` (made by encode) names to `shared`.
void decodeInto(const std::string& text, SharedWrites& shared);

}  // namespace Quaril::H5::detail
