#pragma once
// What a bundle holds, for people and for scripts: the summary behind
// `bundle-tool info` and the per-step listing behind `bundle-tool ls`.

#include <cstdint>
#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/Format.hpp"

namespace Quaril::Tools {

/// One field of a grid over all time steps, keyed by where it lives and
/// its name.
struct FieldSummary {
  std::string name;
  /// "vertices", "cells", "vertices refined xF" or "skeleton D.I".
  std::string location;
  /// The element type ("double", "float", "int32", "point", "tvector", ...).
  std::string type;
  /// Extents at the first step that holds the field, e.g. "16x16x16".
  std::string extents;
  /// Whether later steps have other extents or fragment counts.
  bool extentsVary = false;
  /// Fragments at the first step (1 for an unfragmented field).
  uint64_t fragments = 0;
  /// Time steps that hold the field.
  uint64_t steps = 0;
  /// Bytes of its data over all those steps.
  uint64_t bytes = 0;
};

/// One grid name over all time steps.
struct GridSummary {
  std::string name;
  /// The parent's name; empty for a grid without parent.
  std::string parent;
  uint64_t steps = 0;
  double first = 0;
  double last = 0;
  std::vector<FieldSummary> fields;
};

struct Summary {
  /// The time of every step, ascending.
  std::vector<double> times;
  /// Every grid name that occurs, in name order.
  std::vector<GridSummary> grids;
  /// Bytes of field data in memory now, and in all (in memory or readable).
  unsigned long long resident = 0;
  unsigned long long total = 0;
  /// What of the bundle's files could not be read, as far as the summary
  /// looked (H5::problems).
  std::vector<H5::Problem> unreadable;
};

/// Summarises `bundle`. Reads the structure of every time step, and no
/// field data.
Summary summarize(const Bundle& bundle);

/// The summary as text lines, for a terminal; what could not be read ends
/// it, a line "unreadable: FILE: WHERE: REASON" each.
std::string formatSummary(const Summary& summary);

/// The summary as JSON:
///   {"steps": N, "times": [...],
///    "grids": [{"name", "parent" (null without), "steps", "first", "last",
///               "fields": [{"name", "location", "type", "extents",
///                           "extents_vary", "fragments", "steps", "bytes"}]}],
///    "memory": {"resident": bytes, "total": bytes},
///    "unreadable": [{"file", "where", "reason", "grid" (null without), "lost"}]}
std::string summaryJson(const Summary& summary);

/// What could not be read, a line "unreadable: FILE: WHERE: REASON" each.
std::string formatUnreadable(const std::vector<H5::Problem>& problems);

/// One time step of a listing: the names of its grids (or, for a listing of
/// one grid, of that grid's fields) and their bytes.
struct ListingEntry {
  double time = 0;
  std::vector<std::string> names;
  uint64_t bytes = 0;
};

/// Every time step with its grids; with `grid`, only the steps that hold
/// that grid, with its fields. Reads the structure of the steps it lists.
std::vector<ListingEntry> listSteps(const Bundle& bundle, const std::string& grid = "");

/// One time step with its grids. Reads the step's structure.
ListingEntry listStep(double time, const Slice& slice);

/// A listing as text, one line per step: time, count, size, names.
std::string formatListing(const std::vector<ListingEntry>& listing);

/// A time as the shortest text that reads back to the same value.
std::string formatTime(double time);
/// A byte count for people: "512 B", "1.5 KiB", "3.2 MiB", ...
std::string formatBytes(uint64_t bytes);

}  // namespace Quaril::Tools
