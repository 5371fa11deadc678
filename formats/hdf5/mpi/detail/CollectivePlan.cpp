#include "formats/hdf5/mpi/detail/CollectivePlan.hpp"

#include <cstring>
#include <set>

#include <nlohmann/json.hpp>

#include "formats/hdf5/detail/Layout.hpp"
#include "formats/hdf5/detail/Shape.hpp"

namespace Quaril::H5::detail {

namespace {

using Json = nlohmann::json;

/// The predefined types arrays are stored as; a type travels as its position.
std::vector<hid_t> storedTypes() {
  return {H5T_NATIVE_FLOAT, H5T_NATIVE_DOUBLE, H5T_NATIVE_LDOUBLE, H5T_NATIVE_CHAR,
          H5T_NATIVE_INT8,  H5T_NATIVE_UINT8,  H5T_NATIVE_INT16,   H5T_NATIVE_UINT16,
          H5T_NATIVE_INT32, H5T_NATIVE_UINT32, H5T_NATIVE_INT64,   H5T_NATIVE_UINT64};
}

int typeCode(hid_t type) {
  const std::vector<hid_t> types = storedTypes();
  for (size_t code = 0; code < types.size(); ++code) {
    if (H5Tequal(type, types[code]) > 0) return static_cast<int>(code);
  }
  throw Failure("an array of a type that cannot be stored");
}

hid_t typeOfCode(const Json& code) {
  const std::vector<hid_t> types = storedTypes();
  const auto position = code.get<size_t>();
  require(position < types.size(), "a plan names an unknown type");
  return types[position];
}

// Doubles travel as their bits, names and texts as bytes: both arrive as
// they left, whatever they hold.
uint64_t bitsOf(double value) {
  uint64_t bits = 0;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

double doubleOf(const Json& bits) {
  const auto value = bits.get<uint64_t>();
  double result = 0;
  std::memcpy(&result, &value, sizeof result);
  return result;
}

Json bytesOf(const std::string& text) {
  return Json::binary(std::vector<uint8_t>(text.begin(), text.end()));
}

std::string textOf(const Json& bytes) {
  const auto& binary = bytes.get_binary();
  return std::string(binary.begin(), binary.end());
}

Json encode(const Plan::Attributes& attributes) {
  Json encoded = Json::array();
  for (const auto& [name, value] : attributes) {
    Json item = std::visit(
        [](const auto& held) -> Json {
          using T = std::decay_t<decltype(held)>;
          if constexpr (std::is_same_v<T, int64_t>) {
            return held;
          } else if constexpr (std::is_same_v<T, double>) {
            return bitsOf(held);
          } else if constexpr (std::is_same_v<T, std::string>) {
            return bytesOf(held);
          } else {
            Json list = Json::array();
            for (const auto& element : held) {
              if constexpr (std::is_same_v<T, std::vector<double>>) {
                list.push_back(bitsOf(element));
              } else if constexpr (std::is_same_v<T, std::vector<std::string>>) {
                list.push_back(bytesOf(element));
              } else {
                list.push_back(element);
              }
            }
            return list;
          }
        },
        value);
    encoded.push_back({bytesOf(name), value.index(), std::move(item)});
  }
  return encoded;
}

Plan::Attributes decodeAttributes(const Json& encoded) {
  Plan::Attributes attributes;
  for (const Json& item : encoded) {
    const Json& value = item.at(2);
    Ostrak::AttributeValue decoded;
    switch (item.at(1).get<int>()) {
      case 0:
        decoded = value.get<int64_t>();
        break;
      case 1:
        decoded = doubleOf(value);
        break;
      case 2:
        decoded = textOf(value);
        break;
      case 3:
        decoded = value.get<std::vector<int64_t>>();
        break;
      case 4: {
        std::vector<double> list;
        for (const Json& bits : value) list.push_back(doubleOf(bits));
        decoded = std::move(list);
        break;
      }
      default: {
        std::vector<std::string> list;
        for (const Json& bytes : value) list.push_back(textOf(bytes));
        decoded = std::move(list);
      }
    }
    attributes.emplace(textOf(item.at(0)), std::move(decoded));
  }
  return attributes;
}

/// Adds the fragments of field `from` to the field `into` of the same name.
void mergeField(Json& into, const Json& from, const std::string& what, size_t rank) {
  require(into.at(layout::ElementType) == from.at(layout::ElementType),
          what + ": the ranks hold it with different element types");
  Json& fragments = into.at(layout::Fragments);
  std::set<std::string> names;
  for (const Json& fragment : fragments) names.insert(fragment.value(layout::Fragment, ""));
  for (const Json& fragment : from.at(layout::Fragments)) {
    const std::string name = fragment.value(layout::Fragment, "");
    require(names.insert(name).second,
            what + ": rank " + std::to_string(rank) +
                (name.empty() ? " holds it unfragmented, as a lower rank does"
                              : " holds its fragment \"" + name + "\" too"));
    fragments.push_back(fragment);
  }
}

/// Adds the structure of one rank's grid to what the lower ranks hold of it.
/// A rank counts the elements of its own fragments: when the grid is
/// `decomposed` (some rank holds it in fragments) the counts add up.
void mergeStructure(Json& into, const Json& from, const std::string& grid, size_t rank,
                    bool decomposed) {
  require(into.value(layout::Partial, false) == from.value(layout::Partial, false),
          grid + ": the ranks write it differently");
  if (from.value(layout::HasAttributes, false)) into[layout::HasAttributes] = true;
  for (const Json& skeleton : from.at(layout::Skeletons)) {
    Json* same = layout::sameSkeleton(into[layout::Skeletons], skeleton);
    if (!same) {
      into[layout::Skeletons].push_back(skeleton);
      continue;
    }
    const std::string which =
        grid + ": the ranks hold a skeleton of dimension " + skeleton.at(layout::Dimension).dump();
    require((*same)[layout::Refinement] == skeleton.at(layout::Refinement),
            which + " with different refinement");
    if (decomposed) {
      (*same)[layout::Elements] =
          (*same)[layout::Elements].get<uint64_t>() + skeleton.at(layout::Elements).get<uint64_t>();
    } else {
      require((*same)[layout::Elements] == skeleton.at(layout::Elements),
              which + " with different elements");
    }
    for (const Json& rep : skeleton.at(layout::Representations)) {
      Json* sameRep = layout::sameRepresentation((*same)[layout::Representations], rep);
      if (!sameRep) {
        (*same)[layout::Representations].push_back(rep);
        continue;
      }
      for (const Json& field : rep.at(layout::Fields)) {
        Json* sameField = layout::sameField((*sameRep)[layout::Fields], field);
        if (sameField) {
          mergeField(*sameField, field,
                     grid + ": field \"" + field.at(layout::FieldName).get<std::string>() + "\"",
                     rank);
        } else {
          (*sameRep)[layout::Fields].push_back(field);
        }
      }
    }
  }
}

/// A rank's grid structure as it goes into the merged file: its data sets
/// renamed (n becomes n + `first`), and its named fragments marked as
/// written by `rank` of `ranks`, so that loads give them back to that rank.
void renumber(Json& structure, uint64_t first, size_t rank, size_t ranks) {
  for (Json& skeleton : structure.at(layout::Skeletons)) {
    for (Json& rep : skeleton.at(layout::Representations)) {
      for (Json& field : rep.at(layout::Fields)) {
        for (Json& fragment : field.at(layout::Fragments)) {
          if (fragment.contains(layout::Fragment)) fragment[layout::WriterRank] = {rank, ranks};
          if (!fragment.contains(layout::Dataset)) continue;
          const uint64_t number = std::stoull(fragment[layout::Dataset].get<std::string>());
          fragment[layout::Dataset] = std::to_string(number + first);
        }
      }
    }
  }
}
Json encode(const std::set<std::pair<double, std::string>>& grids) {
  Json list = Json::array();
  for (const auto& [time, name] : grids) list.push_back({bitsOf(time), bytesOf(name)});
  return list;
}

}  // namespace

std::string encode(const RankPlan& mine) {
  const Index& index = mine.index;
  Json times = Json::array();
  for (double time : index.times) times.push_back(bitsOf(time));
  Json names = Json::array();
  for (const std::string& name : index.names) names.push_back(bytesOf(name));
  Json entries = Json::array();
  for (const IndexEntry& entry : index.entries) {
    entries.push_back({entry.timeRow, entry.nameRow, entry.structureRow});
  }
  Json arrays = Json::array();
  for (const Plan::Array& array : mine.plan.arrays) {
    Json range =
        array.range ? Json{bitsOf(array.range->first), bitsOf(array.range->second)} : Json(nullptr);
    arrays.push_back({array.entry, array.dataset, typeCode(array.fileType),
                      typeCode(array.memoryType), array.extents, std::move(range),
                      array.checksum ? Json(*array.checksum) : Json(nullptr)});
  }
  auto numbered = [](const std::map<uint64_t, Plan::Attributes>& attributes) {
    Json list = Json::array();
    for (const auto& [row, held] : attributes) list.push_back({row, encode(held)});
    return list;
  };
  const Plan& plan = mine.plan;
  Json encoded{{"times", std::move(times)},
               {"names", std::move(names)},
               {"parents", index.parents},
               {"entries", std::move(entries)},
               {"bytes", index.entryBytes},
               {"structures", mine.structures},
               {"arrays", std::move(arrays)},
               {"grids", numbered(plan.gridAttributes)},
               {"slices", numbered(plan.sliceAttributes)},
               {"fragmented", plan.fragmented},
               {"bundle", plan.bundleAttributes ? encode(*plan.bundleAttributes) : Json(nullptr)}};
  const std::vector<uint8_t> bytes = Json::to_cbor(encoded);
  return std::string(bytes.begin(), bytes.end());
}

RankPlan decode(const std::string& text) {
  const Json encoded = Json::from_cbor(text.begin(), text.end());
  RankPlan decoded;
  Index& index = decoded.index;
  for (const Json& bits : encoded.at("times")) index.times.push_back(doubleOf(bits));
  for (const Json& bytes : encoded.at("names")) index.names.push_back(textOf(bytes));
  index.parents = encoded.at("parents").get<std::vector<int64_t>>();
  for (const Json& entry : encoded.at("entries")) {
    index.entries.push_back(
        {entry.at(0).get<uint64_t>(), entry.at(1).get<uint64_t>(), entry.at(2).get<uint64_t>()});
  }
  index.entryBytes = encoded.at("bytes").get<std::vector<uint64_t>>();
  decoded.structures = encoded.at("structures").get<std::vector<std::string>>();
  for (const Json& array : encoded.at("arrays")) {
    std::optional<std::pair<double, double>> range;
    if (!array.at(5).is_null()) range.emplace(doubleOf(array.at(5)[0]), doubleOf(array.at(5)[1]));
    Plan::Array& planned = decoded.plan.arrays.emplace_back();
    planned.entry = array.at(0).get<uint64_t>();
    planned.dataset = array.at(1).get<std::string>();
    planned.fileType = typeOfCode(array.at(2));
    planned.memoryType = typeOfCode(array.at(3));
    planned.extents = array.at(4).get<std::vector<hsize_t>>();
    planned.range = range;
    if (array.size() > 6 && !array.at(6).is_null()) planned.checksum = array.at(6).get<uint64_t>();
  }
  for (const Json& grid : encoded.at("grids")) {
    decoded.plan.gridAttributes.emplace(grid.at(0).get<uint64_t>(), decodeAttributes(grid.at(1)));
  }
  for (const Json& slice : encoded.at("slices")) {
    decoded.plan.sliceAttributes.emplace(slice.at(0).get<uint64_t>(),
                                         decodeAttributes(slice.at(1)));
  }
  decoded.plan.fragmented = encoded.at("fragmented").get<std::set<uint64_t>>();
  if (!encoded.at("bundle").is_null()) {
    decoded.plan.bundleAttributes = decodeAttributes(encoded.at("bundle"));
  }
  return decoded;
}

Merged merge(const std::vector<RankPlan>& plans) {
  bool allChecksummed = true;
  std::set<double> times;
  std::map<std::string, uint64_t> names;
  for (const RankPlan& plan : plans) {
    times.insert(plan.index.times.begin(), plan.index.times.end());
    for (const std::string& name : plan.index.names) names.emplace(name, 0);
  }
  Merged merged;
  merged.index.times.assign(times.begin(), times.end());
  for (auto& [name, row] : names) {
    row = merged.index.names.size();
    merged.index.names.push_back(name);
  }
  auto timeRow = [&](double time) {
    return static_cast<uint64_t>(
        std::lower_bound(merged.index.times.begin(), merged.index.times.end(), time) -
        merged.index.times.begin());
  };
  merged.index.parents.assign(names.size(), -1);
  auto keyOf = [&](const Index& index, const IndexEntry& listed) {
    return std::pair<uint64_t, uint64_t>{timeRow(index.times[listed.timeRow]),
                                         names.at(index.names[listed.nameRow])};
  };
  std::set<std::pair<uint64_t, uint64_t>> decomposed;
  for (const RankPlan& plan : plans) {
    for (uint64_t row : plan.plan.fragmented) {
      decomposed.insert(keyOf(plan.index, plan.index.entries.at(row)));
    }
  }
  struct Entry {
    Json structure;
    uint64_t bytes = 0;
    uint64_t datasets = 0;
  };
  std::map<std::pair<uint64_t, uint64_t>, Entry> entries;
  // Where each rank's data sets of each of its entries start in the merged entry.
  std::vector<std::vector<uint64_t>> firstDataset(plans.size());
  for (size_t rank = 0; rank < plans.size(); ++rank) {
    const Index& index = plans[rank].index;
    for (size_t row = 0; row < index.parents.size(); ++row) {
      if (index.parents[row] < 0) continue;
      int64_t& parent = merged.index.parents[names.at(index.names[row])];
      const auto named =
          static_cast<int64_t>(names.at(index.names[static_cast<size_t>(index.parents[row])]));
      require(parent < 0 || parent == named,
              "grid \"" + index.names[row] + "\": the ranks give it different parents");
      parent = named;
    }
    std::vector<uint64_t> datasets(index.entries.size(), 0);
    firstDataset[rank].resize(index.entries.size());
    for (const Plan::Array& array : plans[rank].plan.arrays) ++datasets[array.entry];
    for (size_t row = 0; row < index.entries.size(); ++row) {
      const IndexEntry& listed = index.entries[row];
      const std::string& name = index.names[listed.nameRow];
      const std::pair<uint64_t, uint64_t> key = keyOf(index, listed);
      Json structure = Json::parse(plans[rank].structures.at(listed.structureRow));
      auto [entry, added] = entries.try_emplace(key);
      renumber(structure, entry->second.datasets, rank, plans.size());
      firstDataset[rank][row] = entry->second.datasets;
      if (added) {
        entry->second.structure = std::move(structure);
      } else {
        mergeStructure(entry->second.structure, structure, "grid \"" + name + "\"", rank,
                       decomposed.count(key) > 0);
      }
      entry->second.bytes += index.entryBytes.at(row);
      entry->second.datasets += datasets[row];
    }
  }
  // Rows in time and name order, as a serial save numbers them.
  std::map<std::string, uint64_t> structureRows;
  merged.index.sliceBegin.assign(merged.index.times.size() + 1, 0);
  std::map<std::pair<uint64_t, uint64_t>, uint64_t> entryRows;
  for (auto& [key, entry] : entries) {
    const std::string text = entry.structure.dump();
    auto [known, added] = structureRows.emplace(text, merged.structures.size());
    if (added) merged.structures.push_back(text);
    entryRows[key] = merged.index.entries.size();
    merged.index.entries.push_back({key.first, key.second, known->second});
    merged.index.entryBytes.push_back(entry.bytes);
    ++merged.index.sliceBegin[key.first + 1];
  }
  for (size_t row = 1; row < merged.index.sliceBegin.size(); ++row) {
    merged.index.sliceBegin[row] += merged.index.sliceBegin[row - 1];
  }
  merged.index.sliceAttributes.assign(merged.index.times.size(), false);
  // Attributes of the lowest rank that has them; arrays in rank order.
  for (size_t rank = 0; rank < plans.size(); ++rank) {
    const RankPlan& plan = plans[rank];
    auto entryRowOf = [&](uint64_t row) {
      return entryRows.at(keyOf(plan.index, plan.index.entries[row]));
    };
    for (const auto& [row, attributes] : plan.plan.gridAttributes) {
      merged.gridAttributes.emplace(entryRowOf(row), attributes);
    }
    for (const auto& [row, attributes] : plan.plan.sliceAttributes) {
      const uint64_t mergedRow = timeRow(plan.index.times[row]);
      merged.sliceAttributes.emplace(mergedRow, attributes);
      merged.index.sliceAttributes[mergedRow] = true;
    }
    if (plan.plan.bundleAttributes && !merged.bundleAttributes) {
      merged.bundleAttributes = plan.plan.bundleAttributes;
      merged.index.bundleAttributes = true;
    }
    for (size_t k = 0; k < plan.plan.arrays.size(); ++k) {
      const Plan::Array& array = plan.plan.arrays[k];
      const uint64_t number = std::stoull(array.dataset) + firstDataset[rank][array.entry];
      merged.arrays.push_back(
          {entryRowOf(array.entry), std::to_string(number), static_cast<int>(rank), k});
      if (array.checksum) {
        merged.checksums[entryRowOf(array.entry)][number] = *array.checksum;
      } else {
        allChecksummed = false;
      }
    }
  }
  if (!allChecksummed) merged.checksums.clear();
  return merged;
}

std::string encode(const SharedWrites& shared) {
  Json fields = Json::array();
  for (const auto& [time, grid, field] : shared.fields) {
    fields.push_back({bitsOf(time), bytesOf(grid), bytesOf(field)});
  }
  const std::vector<uint8_t> bytes = Json::to_cbor(
      Json{{"grids", encode(shared.grids)}, {"fields", fields}, {"added", encode(shared.added)}});
  return std::string(bytes.begin(), bytes.end());
}

void decodeInto(const std::string& text, SharedWrites& shared) {
  const Json encoded = Json::from_cbor(text.begin(), text.end());
  for (const char* kind : {"grids", "added"}) {
    auto& grids = kind[0] == 'g' ? shared.grids : shared.added;
    for (const Json& grid : encoded.at(kind))
      grids.emplace(doubleOf(grid.at(0)), textOf(grid.at(1)));
  }
  for (const Json& field : encoded.at("fields")) {
    shared.fields.emplace(doubleOf(field.at(0)), textOf(field.at(1)), textOf(field.at(2)));
  }
}

}  // namespace Quaril::H5::detail
