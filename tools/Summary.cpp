#include "tools/Summary.hpp"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <utility>

#include "grid/GridWalk.hpp"
#include "tools/Check.hpp"

namespace Quaril::Tools {
namespace {

std::string locationOf(const SkeletonID& id, const Skeleton& skeleton) {
  if (id.dimension() == 0) {
    const int factor = skeleton.getIsotropicRefinementFactor();
    return factor > 1 ? "vertices refined x" + std::to_string(factor) : "vertices";
  }
  if (id.index() == 0) return "cells";
  return "skeleton " + std::to_string(id.dimension()) + "." + std::to_string(id.index());
}

/// The extents a field's creators declare: one fragment's size, or the
/// fragment count when there are several. Reads no data.
std::string extentsOf(const Field& field) {
  if (field.nFragments() != 1) return std::to_string(field.nFragments()) + " fragments";
  const DynamicSize size = field.getCreator()->getSize();
  return size.rank() == 0 ? "?" : size.str();
}

uint64_t bytesOf(const Field& field) {
  unsigned long long resident = 0, producible = 0;
  field.getMemoryUsage(resident, producible);
  return resident + producible;
}

/// Adds one occurrence of `grid` at `time` to `summary`, fields keyed by
/// location and name in `fields`.
void addOccurrence(GridSummary& summary,
                   std::map<std::pair<std::string, std::string>, size_t>& fields, const Grid& grid,
                   double time) {
  if (summary.steps++ == 0) summary.first = time;
  summary.last = time;
  forEachPlacedField(grid, [&](const SkeletonID& id, const Skeleton& skeleton,
                               const FieldID& fieldID, const StrongPtr<Field>& field) {
    if (!field) return;
    const auto key = std::make_pair(locationOf(id, skeleton), fieldID.Name());
    auto [entry, isNew] = fields.emplace(key, summary.fields.size());
    if (isNew) {
      summary.fields.push_back({fieldID.Name(), key.first, field->getElementDescriptor().name(),
                                extentsOf(*field), false, field->nFragments(), 0, 0});
    }
    FieldSummary& found = summary.fields[entry->second];
    found.extentsVary = found.extentsVary || found.extents != extentsOf(*field) ||
                        found.fragments != field->nFragments();
    ++found.steps;
    found.bytes += bytesOf(*field);
  });
}

std::string padded(const std::string& text, size_t width) {
  return text.size() >= width ? text : text + std::string(width - text.size(), ' ');
}

}  // namespace

std::string formatTime(double time) {
  char text[32];
  const auto result = std::to_chars(text, text + sizeof text, time);
  return std::string(text, result.ptr);
}

std::string formatBytes(uint64_t bytes) {
  static const char* const units[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes);
  size_t unit = 0;
  while (value >= 1024 && unit + 1 < std::size(units)) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %s", value, units[unit]);
  return text;
}

Summary summarize(const Bundle& bundle) {
  Summary summary;
  std::map<std::string, GridSummary> grids;
  std::map<std::string, std::map<std::pair<std::string, std::string>, size_t>> fields;
  for (const auto& [time, slice] : bundle.getSlices()) {
    if (!slice) continue;
    summary.times.push_back(time);
    slice->accessSlice();
    for (const auto& [id, grid] : slice->getGrids()) {
      if (!id || !grid) continue;
      GridSummary& entry = grids[id->getName()];
      if (entry.steps == 0) {
        entry.name = id->getName();
        if (const auto parent = id->getParent().lock()) entry.parent = parent->getName();
      }
      addOccurrence(entry, fields[id->getName()], *grid, time);
    }
  }
  for (auto& [name, grid] : grids) summary.grids.push_back(std::move(grid));
  bundle.getMemoryUsage(summary.resident, summary.total);
  summary.total += summary.resident;
  summary.unreadable = H5::problems(bundle);
  return summary;
}

std::string formatSummary(const Summary& summary) {
  std::string text;
  text += std::to_string(summary.times.size()) + " time steps";
  if (!summary.times.empty()) {
    text +=
        ", from " + formatTime(summary.times.front()) + " to " + formatTime(summary.times.back());
  }
  text += "\n" + std::to_string(summary.grids.size()) + " grids\n";
  for (const GridSummary& grid : summary.grids) {
    text += "\ngrid \"" + grid.name + "\"";
    if (!grid.parent.empty()) text += " (child of \"" + grid.parent + "\")";
    text += ": " + std::to_string(grid.steps) + " steps, " + formatTime(grid.first) + " to " +
            formatTime(grid.last) + "\n";
    for (const FieldSummary& field : grid.fields) {
      text += "  " + padded(field.name, 12) + " " + padded(field.location, 22) + " " +
              padded(field.type, 9) + " " +
              padded(field.extents + (field.extentsVary ? " (varies)" : ""), 22) + " " +
              std::to_string(field.steps) + " steps, " + formatBytes(field.bytes) + "\n";
    }
  }
  text += "\nmemory: " + formatBytes(summary.resident) + " resident of " +
          formatBytes(summary.total) + "\n";
  if (!summary.unreadable.empty()) text += "\n" + formatUnreadable(summary.unreadable);
  return text;
}

std::string summaryJson(const Summary& summary) {
  nlohmann::ordered_json grids = nlohmann::ordered_json::array();
  for (const GridSummary& grid : summary.grids) {
    nlohmann::ordered_json fields = nlohmann::ordered_json::array();
    for (const FieldSummary& field : grid.fields) {
      fields.push_back({{"name", field.name},
                        {"location", field.location},
                        {"type", field.type},
                        {"extents", field.extents},
                        {"extents_vary", field.extentsVary},
                        {"fragments", field.fragments},
                        {"steps", field.steps},
                        {"bytes", field.bytes}});
    }
    grids.push_back({{"name", grid.name},
                     {"parent", grid.parent.empty() ? nlohmann::ordered_json(nullptr)
                                                    : nlohmann::ordered_json(grid.parent)},
                     {"steps", grid.steps},
                     {"first", grid.first},
                     {"last", grid.last},
                     {"fields", std::move(fields)}});
  }
  nlohmann::ordered_json unreadable = nlohmann::ordered_json::array();
  for (const H5::Problem& problem : summary.unreadable) unreadable.push_back(problemJson(problem));
  const nlohmann::ordered_json document{
      {"steps", summary.times.size()},
      {"times", summary.times},
      {"grids", std::move(grids)},
      {"memory", {{"resident", summary.resident}, {"total", summary.total}}},
      {"unreadable", std::move(unreadable)}};
  // Grid and field names are arbitrary bytes: invalid UTF-8 is replaced.
  return document.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

std::string formatUnreadable(const std::vector<H5::Problem>& problems) {
  std::string text;
  for (const H5::Problem& problem : problems) text += "unreadable: " + problem.text() + "\n";
  return text;
}

std::vector<ListingEntry> listSteps(const Bundle& bundle, const std::string& grid) {
  std::vector<ListingEntry> listing;
  const StrongPtr<GridID> only =
      grid.empty() ? StrongPtr<GridID>() : bundle.getGridList()->find(grid);
  if (!grid.empty() && !only) return listing;
  for (const auto& [time, slice] : bundle.getSlices()) {
    if (!slice) continue;
    if (only) {
      slice->accessSlice();
      const StrongPtr<Grid> found = (*slice)(only);
      if (!found) continue;
      ListingEntry entry{time, {}, 0};
      forEachPlacedField(*found, [&](const SkeletonID&, const Skeleton&, const FieldID& id,
                                     const StrongPtr<Field>& field) {
        entry.names.push_back(id.Name());
        entry.bytes += bytesOf(*field);
      });
      listing.push_back(std::move(entry));
      continue;
    }
    listing.push_back(listStep(time, *slice));
  }
  return listing;
}

ListingEntry listStep(double time, const Slice& slice) {
  ListingEntry entry{time, {}, 0};
  slice.accessSlice();
  for (const auto& [id, held] : slice.getGrids()) {
    if (!id || !held) continue;
    entry.names.push_back(id->getName());
    forEachField(*held, [&](const StrongPtr<Field>& field) { entry.bytes += bytesOf(*field); });
  }
  return entry;
}

std::string formatListing(const std::vector<ListingEntry>& listing) {
  std::string text;
  for (const ListingEntry& entry : listing) {
    text += padded(formatTime(entry.time), 12) + " " +
            padded(std::to_string(entry.names.size()), 4) + " " +
            padded(formatBytes(entry.bytes), 11);
    for (const std::string& name : entry.names) text += " " + name;
    text += "\n";
  }
  return text;
}

}  // namespace Quaril::Tools
