#include "formats/hdf5/mpi/Parallel.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <vector>

#include <nlohmann/json.hpp>

#include "formats/hdf5/detail/Collective.hpp"
#include "formats/hdf5/detail/Layout.hpp"
#include "formats/hdf5/detail/Series.hpp"
#include "formats/hdf5/detail/Stored.hpp"
#include "formats/hdf5/detail/Writer.hpp"
#include "formats/hdf5/detail/Xdmf.hpp"

namespace Quaril::H5 {

namespace {

using namespace detail;
using Json = nlohmann::json;
using Ostrak::StrongPtr;

// ---- one rank's plan, sent to every rank -----------------------------------------

/// What one rank plans to write: what the writer reports, and its plan.
struct RankPlan {
  Index index;
  std::vector<std::string> structures;
  Plan plan;
};

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
                      typeCode(array.memoryType), array.extents, std::move(range)});
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

/// A rank's plan as the other ranks see it: without data.
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
    decoded.plan.arrays.push_back({array.at(0).get<uint64_t>(),
                                   array.at(1).get<std::string>(),
                                   typeOfCode(array.at(2)),
                                   typeOfCode(array.at(3)),
                                   array.at(4).get<std::vector<hsize_t>>(),
                                   {},
                                   range});
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

// ---- the plans merged into one file ---------------------------------------------

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
};

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

/// The plans of all ranks as one file: times and names of all, each grid at
/// each time with the fragments of all ranks in rank order, data sets
/// numbered on from one rank to the next.
Merged merge(const std::vector<RankPlan>& plans) {
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
    }
  }
  return merged;
}

// ---- writing the merged file ----------------------------------------------------

/// Where this rank's arrays go in the file: their place in its plan and
/// their offset.
using Places = std::vector<std::pair<size_t, haddr_t>>;

/// Creates the merged file `path` on every rank alike, as parallel HDF5 asks:
/// every group, attribute and data set, the data sets' space allocated but
/// not written, the index written by rank 0. Returns where this rank's
/// arrays go, or what failed on this rank.
std::optional<std::string> createTogether(MPI_Comm comm, const std::string& path,
                                          const Merged& merged, const std::vector<RankPlan>& plans,
                                          int rank, Places& places) {
  std::optional<File> file;
  if (auto failed = failureOf([&] {
        PropertyList access = mpioFileAccess(comm);
        file.emplace(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, access.id()),
                     "cannot create " + path);
      })) {
    return failed;
  }
  haddr_t end = 0;  // of the space allocated to data sets
  std::optional<std::string> failed = failureOf([&] {
    writeRoot(file->id());
    Group arrays = createGroup(file->id(), layout::ArraysGroup);
    for (const MergedArray& array : merged.arrays) {
      const Plan::Array& planned =
          plans[static_cast<size_t>(array.rank)].plan.arrays[array.planned];
      Dataset dataset =
          writeDataset(arrays.id(), layout::arrayName(array.entry, array.name), planned.fileType,
                       planned.memoryType, planned.extents, nullptr);
      if (planned.range) {
        writeNumber<double>(dataset.id(), layout::Minimum, planned.range->first);
        writeNumber<double>(dataset.id(), layout::Maximum, planned.range->second);
      }
      // Parallel HDF5 allocates contiguous data sets when it creates them.
      const haddr_t offset = H5Dget_offset(dataset.id());
      if (offset != HADDR_UNDEF) {
        end = std::max<haddr_t>(end, offset + H5Dget_storage_size(dataset.id()));
      }
      if (array.rank == rank) places.emplace_back(array.planned, offset);
    }
    auto attributeGroups = [&](const char* parentName,
                               const std::map<uint64_t, Plan::Attributes>& attributes) {
      if (attributes.empty()) return;
      Group parent = createGroup(file->id(), parentName);
      for (const auto& [row, held] : attributes) {
        Group group = createGroup(parent.id(), std::to_string(row));
        writeAttributes(group.id(), held);
      }
    };
    attributeGroups(layout::GridsGroup, merged.gridAttributes);
    attributeGroups(layout::SlicesGroup, merged.sliceAttributes);
    if (merged.bundleAttributes) {
      Group group = createGroup(file->id(), layout::BundleAttributes);
      writeAttributes(group.id(), *merged.bundleAttributes);
    }
    std::vector<const std::string*> structures;
    for (const std::string& text : merged.structures) structures.push_back(&text);
    writeIndexGroup(file->id(), merged.index, structures, rank == 0);
  });
  // Every rank flushes and closes, whatever failed: both are collective. In
  // between, rank 0 makes the file as long as the space allocated, so that
  // closing need not grow it on every rank: a rank whose disk is full then
  // fails in its own writes, not inside HDF5's collective calls.
  auto flushed =
      failureOf([&] { check(H5Fflush(file->id(), H5F_SCOPE_GLOBAL), "cannot flush " + path); });
  if (!flushed && rank == 0) {
    flushed = failureOf([&] {
      struct stat status {};
      requireSystem(::stat(path.c_str(), &status) == 0, "cannot write " + path);
      if (static_cast<haddr_t>(status.st_size) < end) {
        requireSystem(::truncate(path.c_str(), static_cast<off_t>(end)) == 0,
                      "cannot write " + path);
      }
    });
  }
  const auto closed = failureOf([&] { file->close("cannot finish " + path); });
  return failed ? failed : flushed ? flushed : closed;
}

/// Writes this rank's arrays into the file `path` at `places`, and flushes
/// them to disk when `flush` (rank 0 flushes the whole file later). Plain
/// positioned writes, independent of the other ranks and of HDF5, so that
/// one rank's failure cannot leave HDF5's state on the ranks apart. Throws
/// Failure.
void writeArrays(const std::string& path, const Plan& plan, const Places& places, bool flush) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  requireSystem(fd >= 0, "cannot write " + path);
  try {
    std::vector<unsigned char> converted;
    for (const auto& [planned, offset] : places) {
      const Plan::Array& array = plan.arrays[planned];
      uint64_t count = 1;
      for (hsize_t extent : array.extents) count *= extent;
      if (count == 0) continue;
      require(offset != HADDR_UNDEF, "no place for an array in " + path);
      const void* bytes = array.data->rawData();
      const size_t size = count * H5Tget_size(array.fileType);
      if (H5Tequal(array.fileType, array.memoryType) <= 0) {
        // Doubles stored as floats: converted in a buffer that holds either.
        converted.assign(count * std::max(H5Tget_size(array.memoryType), size / count), 0);
        std::memcpy(converted.data(), bytes, count * H5Tget_size(array.memoryType));
        check(H5Tconvert(array.memoryType, array.fileType, count, converted.data(), nullptr,
                         H5P_DEFAULT),
              "cannot convert an array");
        bytes = converted.data();
      }
      writeAt(fd, bytes, size, offset, path);
    }
    if (flush && ::fsync(fd) != 0) throw Failure(systemError("cannot flush " + path));
  } catch (...) {
    ::close(fd);
    throw;
  }
  requireSystem(::close(fd) == 0, "cannot write " + path);
}

/// Runs `action` on rank 0 only and agrees on its outcome.
template <class Action>
std::optional<std::string> onRankZero(MPI_Comm comm, int rank, Action&& action) {
  return agreeOnFailure(comm, rank == 0 ? failureOf(std::forward<Action>(action)) : std::nullopt);
}

/// The plans of all ranks, and the file they make together: the same on
/// every rank.
struct Together {
  std::vector<RankPlan> plans;
  Merged merged;
  bool empty() const noexcept { return merged.index.times.empty() && !merged.bundleAttributes; }
};

/// Plans this rank's part of the file `path` as `request` asks, and merges
/// the plans of all ranks. Throws the failure the ranks agreed on.
Together planTogether(MPI_Comm ranks, int rank, const Bundle& bundle, const std::string& path,
                      WriteRequest request) {
  RankPlan mine;
  request.written = &mine.index;
  request.structures = &mine.structures;
  request.plan = &mine.plan;
  std::string encoded;
  auto agreed = collectively(ranks, [&] {
    require(!path.empty(), "no file name");
    planBundle(bundle, path, request);
    encoded = encode(mine);
  });
  if (agreed) throw Failure(*agreed);
  Together together;
  agreed = collectively(ranks, [&] {
    const std::vector<std::string> texts = allGatherText(ranks, encoded);
    for (size_t from = 0; from < texts.size(); ++from) {
      if (static_cast<int>(from) == rank) {
        together.plans.push_back(std::move(mine));
      } else {
        together.plans.push_back(decode(texts[from]));
      }
    }
    together.merged = merge(together.plans);
  });
  if (agreed) throw Failure(*agreed);
  return together;
}

/// More bytes than rank 0 writes of the merged file's metadata: its data set
/// headers, groups, attributes and index.
uint64_t metadataBound(const Merged& merged) {
  uint64_t bytes = (uint64_t{1} << 16) + 4096 * merged.arrays.size();
  for (const std::string& text : merged.structures) bytes += 2 * text.size();
  for (const std::string& name : merged.index.names) bytes += 2 * name.size() + 64;
  return bytes + 64 * (merged.index.times.size() + merged.index.entries.size());
}

/// Makes sure that the folder of `path`, the empty file rank 0 made, has
/// room for `bytes`: space is set aside for it, and given back. Rank 0 alone
/// writes the metadata in HDF5's collective flush, which cannot fail on one
/// rank without leaving the others waiting. Throws Failure.
void requireRoom(const std::string& path, uint64_t bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  requireSystem(fd >= 0, "cannot write " + path);
  const int failed = posix_fallocate(fd, 0, static_cast<off_t>(bytes));
  const int given = ::ftruncate(fd, 0) == 0 ? 0 : errno;
  ::close(fd);
  errno = failed;
  requireSystem(failed == 0 || failed == EOPNOTSUPP || failed == EINVAL, "no room for " + path);
  errno = given;
  requireSystem(given == 0, "cannot write " + path);
}

/// Writes the file the ranks make together as `path`: rank 0 makes a new
/// file beside it, all ranks write it and make their isSaved calls, and
/// once all succeeded rank 0 runs `replace` with the new file's name, which
/// puts it in place. On failure rank 0 removes the new file. Throws the
/// failure the ranks agreed on.
void writeTogether(MPI_Comm ranks, int rank, const std::string& path, const Together& together,
                   const std::function<void(const std::string&)>& replace) {
  std::string temporary;
  auto agreed = onRankZero(ranks, rank, [&] {
    temporary = makeTemporary(path);
    try {
      requireRoom(temporary, metadataBound(together.merged));
    } catch (...) {
      std::remove(temporary.c_str());
      throw;
    }
  });
  if (agreed) throw Failure(*agreed);
  temporary = broadcastText(ranks, temporary, 0);
  const Plan& plan = together.plans[static_cast<size_t>(rank)].plan;
  Places places;
  agreed = agreeOnFailure(
      ranks, createTogether(ranks, temporary, together.merged, together.plans, rank, places));
  if (!agreed) {
    agreed = collectively(ranks, [&] { writeArrays(temporary, plan, places, rank != 0); });
  }
  if (!agreed) {
    agreed = collectively(ranks, [&] {
      for (const auto& saved : plan.whenWritten) saved();
    });
  }
  if (!agreed) {
    agreed = onRankZero(ranks, rank, [&] {
      syncToDisk(temporary, false);
      replace(temporary);
    });
  }
  if (rank == 0) std::remove(temporary.c_str());  // gone after a rename
  if (agreed) throw Failure(*agreed);
}

void saveTogether(MPI_Comm comm, const Bundle& bundle, const std::string& filename,
                  const StrongPtr<StorageTransformations>& transformations,
                  const StrongPtr<Ostrak::LoaderProgress>& progress,
                  const StrongPtr<Ostrak::StringList>& gridNames) {
  Communicator communicator(comm);
  const int rank = communicator.rank();
  const MPI_Comm ranks = communicator.get();
  const std::string path = broadcastText(ranks, filename, 0);
  const bool xdmf = broadcastText(ranks, writesXdmf(transformations.get()) ? "1" : "", 0) == "1";
  const Together together =
      planTogether(ranks, rank, bundle, path, {transformations, progress, gridNames});
  writeTogether(ranks, rank, path, together, [&](const std::string& temporary) {
    std::optional<DescriptorBeside> descriptor;
    if (xdmf) {
      descriptor.emplace(path);
      descriptor->write(together.merged.index, together.merged.structures);
    }
    renameOver(temporary, path);
    if (descriptor) descriptor->replace();
    syncFolderOf(path);
  });
}

// ---- a series written together --------------------------------------------------

/// Whether `holds` on any rank.
bool onAnyRank(MPI_Comm ranks, bool holds) {
  for (const std::string& answer : allGatherText(ranks, holds ? "1" : "")) {
    if (!answer.empty()) return true;
  }
  return false;
}

Json encode(const std::set<std::pair<double, std::string>>& grids) {
  Json list = Json::array();
  for (const auto& [time, name] : grids) list.push_back({bitsOf(time), bytesOf(name)});
  return list;
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

/// A bundle bound to a series that all ranks of a communicator write
/// together, one part per collective sync. Rank 0 alone holds the journal's
/// end and the descriptor.
class CollectiveBinding : public ReportingBinding {
 public:
  CollectiveBinding(std::string journal, std::string token, std::shared_ptr<Stored> stored,
                    StrongPtr<StorageTransformations> transformations,
                    StrongPtr<Ostrak::LoaderProgress> progress)
      : journal_(std::move(journal)),
        token_(std::move(token)),
        stored_(std::move(stored)),
        transformations_(std::move(transformations)),
        progress_(std::move(progress)) {}

  /// Bundle::sync, and the bundle at its end, call this on one rank alone,
  /// where no collective call may be made.
  int32_t synchronize(const Bundle&, const StrongPtr<MemBase, Cacheable>&,
                      Ostrak::Intercube&) override {
    error_ = journal_ + ": bound collectively; every rank syncs it with syncCollectively";
    return 0;
  }

  /// Writes the first part, with all that the bundles of all ranks hold
  /// (slices still to be read are read), as the new series `journal_`:
  /// whatever it was is replaced once the part is complete.
  void start(MPI_Comm ranks, int rank, const Bundle& bundle, bool xdmf, bool keepOtherSeries) {
    Selection plan;
    auto agreed = collectively(ranks, [&] { plan = planSync(bundle, *stored_, true); });
    if (agreed) throw Failure(*agreed);
    const std::string part = partPath(journal_, token_, 0);
    const Together together =
        planTogether(ranks, rank, bundle, part, {transformations_, progress_, {}, &plan});
    writeTogether(ranks, rank, part, together, [&](const std::string& temporary) {
      renameOver(temporary, part);
      syncFolderOf(part);
      try {
        startJournal(journal_, token_, together.merged.index);
      } catch (...) {
        std::remove(part.c_str());
        throw;
      }
      tail_ = std::make_unique<JournalTail>(journal_);
      removeStrayParts(journal_, tail_->journal(), keepOtherSeries);
      if (!xdmf) return;
      descriptor_ = descriptorFor(journal_, token_);
      descriptor_->open({&together.merged.index});
    });
    recordWritten(bundle, plan, *stored_);
    next_ = 1;
  }

  /// Takes up the existing series `journal_`, whose next part is `next`,
  /// and writes what the bundles of all ranks hold that it does not.
  void resume(MPI_Comm ranks, int rank, const Bundle& bundle, uint64_t next,
              std::unique_ptr<JournalTail> tail, std::unique_ptr<SeriesDescriptor> descriptor) {
    next_ = next;
    tail_ = std::move(tail);
    descriptor_ = std::move(descriptor);
    walkAll_ = true;
    sync(ranks, rank, bundle);
  }

  /// Adds one part with what the bundles of all ranks hold that the series
  /// does not.
  void sync(MPI_Comm ranks, int rank, const Bundle& bundle) {
    for (double time : bundle.takeChangedSlices()) changed_.insert(time);
    const std::set<double>* times = walkAll_ ? nullptr : &changed_;
    // What one rank writes whole replaces all that the series held of it, the
    // other ranks' fragments too: every rank that holds it writes it whole.
    // A grid that one rank adds to gets the skeletons of every rank that
    // holds it, so that its element counts add up as before.
    Selection plan;
    std::string shared;
    auto agreed = collectively(ranks, [&] {
      plan = planSync(bundle, *stored_, false, times);
      shared = encode(sharedWritesOf(plan));
    });
    if (agreed) throw Failure(*agreed);
    agreed = collectively(ranks, [&] {
      SharedWrites all;
      for (const std::string& text : allGatherText(ranks, shared)) decodeInto(text, all);
      if (!all.empty()) plan = planSync(bundle, *stored_, false, times, &all);
    });
    if (agreed) throw Failure(*agreed);
    const std::string part = partPath(journal_, token_, next_);
    const Together together =
        planTogether(ranks, rank, bundle, part, {transformations_, progress_, {}, &plan});
    if (together.empty()) {
      changed_.clear();
      walkAll_ = false;
      agreed = onRankZero(ranks, rank, [&] {
        if (descriptor_ && descriptor_->stale()) descriptor_->rewrite();
      });
      if (agreed) throw Failure(*agreed);
      return;
    }
    // The part is in place before its record is appended; only the record
    // makes it part of the series.
    writeTogether(ranks, rank, part, together, [&](const std::string& temporary) {
      renameOver(temporary, part);
      syncFolderOf(part);
      try {
        tail_->append(together.merged.index);
      } catch (...) {
        std::remove(part.c_str());
        throw;
      }
    });
    recordWritten(bundle, plan, *stored_);
    changed_.clear();
    walkAll_ = false;
    const uint64_t number = next_++;
    agreed = onRankZero(ranks, rank, [&] {
      if (!descriptor_) return;
      describePart(*descriptor_, journal_, token_, number, together.merged.index,
                   together.merged.structures);
    });
    if (agreed) throw Failure(*agreed);
  }

  /// Why the ranks of `communicator` cannot sync the binding together;
  /// nothing when they can.
  std::optional<std::string> refusal(const Communicator& communicator) const {
    if (communicator.rank() == rank_ && communicator.size() == size_) return std::nullopt;
    return "synced on other ranks than it was bound on";
  }
  void setRanks(const Communicator& communicator) noexcept {
    rank_ = communicator.rank();
    size_ = communicator.size();
  }
  void setOutcome(const std::string& error) { error_ = error; }
  const std::string& journal() const noexcept { return journal_; }

 private:
  std::string journal_;
  std::string token_;
  std::shared_ptr<Stored> stored_;
  StrongPtr<StorageTransformations> transformations_;
  StrongPtr<Ostrak::LoaderProgress> progress_;
  int rank_ = -1;
  int size_ = 0;
  uint64_t next_ = 0;
  // The first sync of a series taken up visits every slice: changes before
  // the binding are not listed.
  bool walkAll_ = false;
  std::set<double> changed_;
  std::unique_ptr<JournalTail> tail_;             // rank 0 only
  std::unique_ptr<SeriesDescriptor> descriptor_;  // rank 0 only; null: none is written
};

/// Binds `bundle` to a new series `filename`, or (`existing`) to the
/// existing series `filename`, on every rank of `comm`.
void bindTogether(MPI_Comm comm, Bundle& bundle, const std::string& filename, bool existing,
                  const StrongPtr<StorageTransformations>& transformations,
                  const StrongPtr<Ostrak::LoaderProgress>& progress) {
  Communicator communicator(comm);
  const int rank = communicator.rank();
  const MPI_Comm ranks = communicator.get();
  const std::string path = broadcastText(ranks, filename, 0);
  const bool xdmf = broadcastText(ranks, writesXdmf(transformations.get()) ? "1" : "", 0) == "1";
  std::shared_ptr<Stored> loaded = loadedFrom(bundle, path);
  // Parts of the series replaced stay while a rank may still read them.
  const bool keepOtherSeries = !existing && onAnyRank(ranks, loaded != nullptr);
  std::string token;
  std::unique_ptr<JournalTail> tail;
  std::unique_ptr<SeriesDescriptor> descriptor;
  auto agreed = onRankZero(ranks, rank, [&] {
    require(!path.empty(), "no file name");
    if (existing) {
      require(isJournal(path), "not a bundle series (continueCollectively goes on with one)");
      tail = std::make_unique<JournalTail>(path);
      removeStrayParts(path, tail->journal(), false);
      token = tail->journal().token + " " + std::to_string(tail->next());
      if (!xdmf) return;
      descriptor = descriptorFor(path, tail->journal().token);
      std::vector<const Index*> described;
      for (const Journal::Record& record : tail->journal().records) {
        described.push_back(&record.index);
      }
      descriptor->open(described);
      return;
    }
    std::error_code error;
    std::filesystem::create_directory(partsFolder(path), error);
    require(!error, "cannot make the folder " + partsFolder(path) + ": " + error.message());
    requireUnbound(path);
    token = newToken();
  });
  if (agreed) throw Failure(*agreed);
  // The token, and after it the number of the next part of a series taken up.
  std::istringstream told(broadcastText(ranks, token, 0));
  uint64_t next = 0;
  told >> token >> next;
  bundle.trackSliceChanges();
  // A rank whose bundle was not loaded from the series takes its fragments.
  agreed = collectively(ranks, [&] {
    if (!existing || loaded) return;
    loaded = std::make_shared<Stored>();
    const StrongPtr<Ostrak::LoaderProgress> choice(new FragmentsOfRank(rank, communicator.size()));
    attachParts(bundle, partsOf(path, readJournal(path)), choice, loaded);
  });
  if (agreed) throw Failure(*agreed);
  StrongPtr<CollectiveBinding> binding(new CollectiveBinding(
      path, token, existing ? loaded : std::make_shared<Stored>(), transformations, progress));
  if (existing) {
    binding->resume(ranks, rank, bundle, next, std::move(tail), std::move(descriptor));
  } else {
    binding->start(ranks, rank, bundle, xdmf, keepOtherSeries);
  }
  binding->setRanks(communicator);
  bundle.setStorage(StrongPtr<StorageBinding>(binding));
}

}  // namespace

Outcome saveCollectively(MPI_Comm comm, const Bundle& bundle, const std::string& filename,
                         const StrongPtr<StorageTransformations>& transformations,
                         const StrongPtr<Ostrak::LoaderProgress>& progress,
                         const StrongPtr<Ostrak::StringList>& gridNames) {
  Session session;
  return attempt(
      [&] { saveTogether(comm, bundle, filename, transformations, progress, gridNames); });
}

Outcome bindCollectively(MPI_Comm comm, Bundle& bundle, const std::string& filename,
                         const StrongPtr<StorageTransformations>& transformations,
                         const StrongPtr<Ostrak::LoaderProgress>& progress) {
  Session session;
  return attempt([&] { bindTogether(comm, bundle, filename, false, transformations, progress); });
}

Outcome continueCollectively(MPI_Comm comm, Bundle& bundle, const std::string& filename,
                             const StrongPtr<StorageTransformations>& transformations,
                             const StrongPtr<Ostrak::LoaderProgress>& progress) {
  Session session;
  return attempt([&] { bindTogether(comm, bundle, filename, true, transformations, progress); });
}

Outcome syncCollectively(MPI_Comm comm, const Bundle& bundle) {
  Session session;
  auto* binding = dynamic_cast<CollectiveBinding*>(bundle.getStorage().get());
  const Outcome synced = attempt([&] {
    Communicator communicator(comm);
    const auto agreed = agreeOnFailure(
        communicator.get(),
        binding ? binding->refusal(communicator)
                : std::optional<std::string>("not bound collectively (bindCollectively binds it)"));
    if (agreed) throw Failure(*agreed);
    binding->sync(communicator.get(), communicator.rank(), bundle);
  });
  if (binding) binding->setOutcome(synced ? "" : binding->journal() + ": " + synced.error);
  return synced;
}

Outcome loadCollectively(MPI_Comm comm, BundlePtr& bundle, const std::string& filename,
                         const StrongPtr<FragmentChoice>& choice) {
  return attempt([&] {
    Communicator communicator(comm);
    StrongPtr<FragmentChoice> chosen = choice ? choice
                                              : StrongPtr<FragmentChoice>(new FragmentsOfRank(
                                                    communicator.rank(), communicator.size()));
    const Outcome loaded = load(bundle, {filename}, chosen);
    auto agreed = agreeOnFailure(communicator.get(),
                                 loaded ? std::nullopt : std::optional<std::string>(loaded.error));
    if (agreed) throw Failure(*agreed);
  });
}

}  // namespace Quaril::H5
