#include "formats/hdf5/detail/Xdmf.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "formats/hdf5/detail/Files.hpp"
#include "formats/hdf5/detail/Layout.hpp"

namespace Quaril::H5::detail {
namespace {

using Json = nlohmann::json;

// Where a fragment's data set is, added to the fragments of a structure
// while it is described (the structure's own keys never begin with "@").
constexpr const char* FileKey = "@file";
constexpr const char* EntryKey = "@entry";

/// `text` as XML character data: markup escaped (unless `markup` is false,
/// for a comment), and bytes that XML cannot hold (control characters, what
/// is not UTF-8) shown as "?".
std::string escaped(const std::string& text, bool markup = true) {
  std::string out;
  for (size_t at = 0; at < text.size();) {
    const auto byte = static_cast<unsigned char>(text[at]);
    size_t length = byte < 0x80         ? 1
                    : (byte >> 5) == 6  ? 2
                    : (byte >> 4) == 14 ? 3
                    : (byte >> 3) == 30 ? 4
                                        : 0;
    bool valid = length > 0 && at + length <= text.size();
    for (size_t next = 1; valid && next < length; ++next) {
      valid = (static_cast<unsigned char>(text[at + next]) >> 6) == 2;
    }
    if (!valid || (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r')) {
      out += '?';
      ++at;
      continue;
    }
    switch (markup ? byte : 0) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out.append(text, at, length);
    }
    at += length;
  }
  return out;
}

/// XDMF's NumberType and Precision of a stored element type; none for a
/// type it cannot say.
std::optional<std::pair<const char*, int>> numberType(const std::string& type) {
  static const std::map<std::string, std::pair<const char*, int>> types{
      {"float", {"Float", 4}},   {"double", {"Float", 8}},  {"point", {"Float", 8}},
      {"tvector", {"Float", 8}}, {"int8", {"Char", 1}},     {"char", {"Char", 1}},
      {"uint8", {"UChar", 1}},   {"char8", {"UChar", 1}},   {"int16", {"Short", 2}},
      {"uint16", {"UShort", 2}}, {"char16", {"UShort", 2}}, {"int32", {"Int", 4}},
      {"wchar", {"Int", 4}},     {"uint32", {"UInt", 4}},   {"char32", {"UInt", 4}},
      {"int64", {"Int", 8}},     {"long", {"Int", 8}},      {"longlong", {"Int", 8}},
      {"uint64", {"UInt", 8}},   {"ulong", {"UInt", 8}},    {"ulonglong", {"UInt", 8}},
      {"uint32x3", {"UInt", 4}}};
  const auto found = types.find(type);
  if (found == types.end()) return std::nullopt;
  return found->second;
}

/// The array `key` of `object`, or an empty one.
const Json& listIn(const Json& object, const char* key) {
  static const Json none = Json::array();
  const auto found = object.find(key);
  return found == object.end() ? none : *found;
}

int componentsOf(const std::string& type) {
  return type == "point" || type == "tvector" || type == "uint32x3" ? 3 : 1;
}

/// Extents slowest first, as HDF5 and XDMF count them.
std::string dimensions(const Json& extents, int components) {
  std::string text;
  for (auto extent = extents.rbegin(); extent != extents.rend(); ++extent) {
    if (!text.empty()) text += ' ';
    text += std::to_string(extent->get<uint64_t>());
  }
  if (components > 1) text += " " + std::to_string(components);
  return text;
}

// ---- merging the parts of a series ----------------------------------------------------

/// Applies `added`, a grid's structure from a later part, to `grid`: a
/// partial one adds its fields (a partial field its fragments, replacing
/// those of the same name), any other replaces the grid.
void merge(Json& grid, Json added) {
  if (grid.is_null() || !added.value(layout::Partial, false)) {
    grid = std::move(added);
    return;
  }
  Json& skeletons = grid[layout::Skeletons];
  for (Json& skeleton : added[layout::Skeletons]) {
    Json* into = layout::sameSkeleton(skeletons, skeleton);
    if (!into) {
      skeletons.push_back(std::move(skeleton));
      continue;
    }
    Json& representations = (*into)[layout::Representations];
    for (Json& representation : skeleton[layout::Representations]) {
      Json* same = layout::sameRepresentation(representations, representation);
      if (!same) {
        representations.push_back(std::move(representation));
        continue;
      }
      Json& fields = (*same)[layout::Fields];
      for (Json& field : representation[layout::Fields]) {
        Json* old = layout::sameField(fields, field);
        if (!old) {
          fields.push_back(std::move(field));
        } else if (!field.value(layout::Partial, false)) {
          *old = std::move(field);
        } else {
          Json& fragments = (*old)[layout::Fragments];
          for (Json& fragment : field[layout::Fragments]) {
            Json* replaced = layout::sameFragment(fragments, fragment);
            if (replaced) {
              *replaced = std::move(fragment);
            } else {
              fragments.push_back(std::move(fragment));
            }
          }
        }
      }
    }
  }
}

/// `structure` with each stored fragment marked with where its data set is.
Json located(const Json& structure, const std::string& file, uint64_t entry) {
  Json copy = structure;
  for (Json& skeleton : copy[layout::Skeletons]) {
    for (Json& representation : skeleton[layout::Representations]) {
      for (Json& field : representation[layout::Fields]) {
        for (Json& fragment : field[layout::Fragments]) {
          if (!fragment.contains(layout::Dataset)) continue;
          fragment[FileKey] = file;
          fragment[EntryKey] = entry;
        }
      }
    }
  }
  return copy;
}

// ---- one grid at one time ------------------------------------------------------------

class StepWriter {
 public:
  /// The grid `name` at `time` as made of `structure`, whose fragments are
  /// located.
  std::string step(const std::string& name, double time, const Json& structure) {
    pieces_.clear();
    notes_.clear();
    const Json* triangles = nullptr;
    for (const Json& skeleton : listIn(structure, layout::Skeletons)) {
      const int dimension = skeleton.at(layout::Dimension);
      const int number = skeleton.at(layout::SkeletonIndex);
      const std::string where =
          "skeleton " + std::to_string(dimension) + "." + std::to_string(number);
      if (number != 0 || dimension > 3) {
        notes_ += "left out: " + where + (dimension == 0 ? " (a refinement level)" : "") + "\n";
        continue;
      }
      for (const Json& representation : listIn(skeleton, layout::Representations)) {
        if (representation.contains(layout::RelativeSkeleton)) {
          for (const Json& field : listIn(representation, layout::Fields)) {
            if (field.at(layout::FieldName) == "Triangles" && dimension == 2) {
              triangles = &field;
            } else {
              notes_ += "left out: field \"" + field.at(layout::FieldName).get<std::string>() +
                        "\" of " + where + "\n";
            }
          }
          continue;
        }
        if (!representation.value(layout::ChartCartesian, false)) {
          notes_ += "left out: fields of " + where + " in a chart that is not Cartesian\n";
          continue;
        }
        for (const Json& field : listIn(representation, layout::Fields)) {
          addField(field, dimension);
        }
      }
    }
    std::string xml = "   <Grid Name=\"" + escaped(name) + "\" GridType=\"" +
                      (pieces_.size() > 1 ? "Collection\" CollectionType=\"Spatial" : "Uniform") +
                      "\">\n    <Time Value=\"" + Json(time).dump() + "\"/>\n";
    if (triangles && pieces_.size() == 1) addTriangles(*triangles, pieces_.begin()->second);
    for (auto& [fragment, piece] : pieces_) {
      if (piece.topology.empty()) {
        notes_ += "left out: fragment \"" + fragment + "\" without positions\n";
        continue;
      }
      if (pieces_.size() > 1) {
        xml += "    <Grid Name=\"" + escaped(fragment) + "\" GridType=\"Uniform\">\n";
      }
      xml += piece.topology + piece.attributes;
      if (pieces_.size() > 1) xml += "    </Grid>\n";
    }
    if (!notes_.empty()) {
      // A comment may hold neither "--" nor bytes that are not text.
      std::string text = escaped(notes_, false);
      for (size_t at = text.find("--"); at != std::string::npos; at = text.find("--")) {
        text.replace(at, 2, "- -");
      }
      xml += "    <!-- " + text + "    -->\n";
    }
    return xml + "   </Grid>\n";
  }

 private:
  struct Piece {
    std::string topology;  // Topology and Geometry elements
    std::string attributes;
  };

  static std::string dataItem(const Json& fragment, const std::string& type) {
    const auto number = numberType(type);
    return "<DataItem Format=\"HDF\" NumberType=\"" + std::string(number->first) +
           "\" Precision=\"" + std::to_string(number->second) + "\" Dimensions=\"" +
           dimensions(fragment.at(layout::Extents), componentsOf(type)) + "\">" +
           escaped(fragment.at(FileKey).get<std::string>()) + ":/" + layout::ArraysGroup + "/" +
           std::to_string(fragment.at(EntryKey).get<uint64_t>()) + "." +
           fragment.at(layout::Dataset).get<std::string>() + "</DataItem>";
  }

  void addField(const Json& field, int dimension) {
    const std::string name = field.at(layout::FieldName), type = field.at(layout::ElementType);
    for (const Json& fragment : listIn(field, layout::Fragments)) {
      Piece& piece = pieces_[fragment.value(layout::Fragment, "")];
      if (name == "Positions" && dimension == 0) {
        piece.topology = positions(fragment, type);
        continue;
      }
      if (!numberType(type) || !fragment.contains(layout::Dataset) || type == "uint32x3") {
        notes_ += "left out: field \"" + name + "\" of type " + type + "\n";
        return;
      }
      piece.attributes += "    <Attribute Name=\"" + escaped(name) + "\" AttributeType=\"" +
                          (componentsOf(type) == 3 ? "Vector" : "Scalar") + "\" Center=\"" +
                          (dimension == 0 ? "Node" : "Cell") + "\">\n     " +
                          dataItem(fragment, type) + "\n    </Attribute>\n";
    }
  }

  static std::string positions(const Json& fragment, const std::string& type) {
    if (fragment.contains(layout::Uniform)) {
      const Json& uniform = fragment.at(layout::Uniform);
      auto zyx = [](const Json& xyz) {
        return Json(xyz[2]).dump() + " " + Json(xyz[1]).dump() + " " + Json(xyz[0]).dump();
      };
      return "    <Topology TopologyType=\"3DCoRectMesh\" Dimensions=\"" +
             dimensions(uniform.at(layout::Extents), 1) +
             "\"/>\n    <Geometry GeometryType=\"ORIGIN_DXDYDZ\">\n"
             "     <DataItem Format=\"XML\" NumberType=\"Float\" Precision=\"8\" "
             "Dimensions=\"3\">" +
             zyx(uniform.at(layout::Origin)) +
             "</DataItem>\n     <DataItem Format=\"XML\" NumberType=\"Float\" Precision=\"8\" "
             "Dimensions=\"3\">" +
             zyx(uniform.at(layout::Spacing)) + "</DataItem>\n    </Geometry>\n";
    }
    const Json& extents = fragment.at(layout::Extents);
    uint64_t count = 1;
    for (const Json& extent : extents) count *= extent.get<uint64_t>();
    const std::string topology =
        extents.size() == 3
            ? "<Topology TopologyType=\"3DSMesh\" Dimensions=\"" + dimensions(extents, 1) + "\"/>"
            : "<Topology TopologyType=\"Polyvertex\" NumberOfElements=\"" + std::to_string(count) +
                  "\" NodesPerElement=\"1\"/>";
    return "    " + topology + "\n    <Geometry GeometryType=\"XYZ\">\n     " +
           dataItem(fragment, type) + "\n    </Geometry>\n";
  }

  static void addTriangles(const Json& field, Piece& piece) {
    const Json& fragments = field.at(layout::Fragments);
    if (fragments.size() != 1 || !fragments[0].contains(layout::Dataset)) return;
    const uint64_t count = fragments[0].at(layout::Extents)[0];
    const size_t at = piece.topology.find("<Topology");
    const size_t end = piece.topology.find("/>", at) + 2;
    piece.topology.replace(at, end - at,
                           "<Topology TopologyType=\"Triangle\" NumberOfElements=\"" +
                               std::to_string(count) + "\">\n     " +
                               dataItem(fragments[0], "uint32x3") + "\n    </Topology>");
  }

  std::map<std::string, Piece> pieces_;  // by fragment name
  std::string notes_;
};

// ---- the document --------------------------------------------------------------------

constexpr const char* Head = "<?xml version=\"1.0\" ?>\n<Xdmf Version=\"3.0\">\n <Domain>\n";
constexpr const char* DomainEnd = " </Domain>\n</Xdmf>\n";
constexpr const char* CollectionEnd = "  </Grid>\n";
// Room left for the steps of later syncs: the marker, spaces, "-->\n".
constexpr const char* RoomMarker = "   <!-- room for more steps";
constexpr const char* RoomEnd = "-->\n";
constexpr uint64_t SmallestRoom = 4096;
constexpr const char* CountMarker = "<!-- described parts: ";
constexpr size_t CountDigits = 20;
constexpr const char* CountEnd = " -->\n";  // after the series' token

std::string collectionStart(const std::string& name) {
  return "  <Grid Name=\"" + escaped(name) +
         "\" GridType=\"Collection\" CollectionType=\"Temporal\">\n";
}

std::string room(uint64_t spaces) {
  return RoomMarker + std::string(spaces, ' ') + RoomEnd;
}

/// The descriptor's last line: how many parts of which series it describes.
std::string countLine(uint64_t parts, const std::string& token) {
  std::string digits = std::to_string(parts);
  return CountMarker + std::string(CountDigits - digits.size(), '0') + digits + " " + token +
         CountEnd;
}

/// The grids of files in the order a reader applies them: each grid's
/// structure at each of its times, merged over the files.
class Content {
 public:
  void add(const DescribedFile& file) {
    const Index& index = *file.index;
    for (uint64_t entry = 0; entry < index.entries.size(); ++entry) {
      const IndexEntry& row = index.entries[entry];
      const std::string& name = index.names[row.nameRow];
      auto [known, added] = rows_.emplace(name, names_.size());
      if (added) {
        names_.push_back(name);
        steps_.emplace_back();
      }
      merge(steps_[known->second][index.times[row.timeRow]],
            located(*file.structure(row.structureRow), file.reference, entry));
    }
  }

  /// Each grid's collection, of its steps; with room after them when
  /// `rooms`.
  std::string document(bool rooms) const {
    std::string xml = Head;
    StepWriter writer;
    for (size_t row = 0; row < names_.size(); ++row) {
      xml += collectionStart(names_[row]);
      const size_t begin = xml.size();
      for (const auto& [time, structure] : steps_[row]) {
        xml += writer.step(names_[row], time, structure);
      }
      if (rooms) xml += room(std::max<uint64_t>(SmallestRoom, xml.size() - begin));
      xml += CollectionEnd;
    }
    return xml + DomainEnd;
  }

 private:
  std::vector<std::string> names_;
  std::map<std::string, size_t> rows_;
  std::vector<std::map<double, Json>> steps_;  // by name row, by time
};

}  // namespace

std::string descriptorOf(const std::string& path) {
  return path + ".xmf";
}

DescriptorBeside::DescriptorBeside(const std::string& file)
    : file_(file), path_(descriptorOf(file)) {
  require(!std::filesystem::is_directory(path_),
          "cannot write its descriptor " + path_ + ": a folder is in the way");
  temporary_ = makeTemporary(path_);
}

DescriptorBeside::~DescriptorBeside() {
  std::remove(temporary_.c_str());  // gone after a rename
}

void DescriptorBeside::write(const Index& index, const std::vector<std::string>& structures) {
  writeText(temporary_, describeXdmf({describedWrite(index, structures, fileNameOf(file_))}),
            path_);
}

void DescriptorBeside::replace() {
  renameOver(temporary_, path_);
}

void writeFileDescriptor(const std::string& path) {
  const std::shared_ptr<Source> source = Source::open(path);
  writeTextAtomically(descriptorOf(path),
                      describeXdmf({describedSource(source, fileNameOf(path))}));
}

std::string fileNameOf(const std::string& path) {
  return std::filesystem::path(path).filename().string();
}

DescribedFile describedSource(const std::shared_ptr<Source>& source, std::string reference) {
  return {std::move(reference), &source->index(),
          [source](uint64_t row) { return source->structure(row); }};
}

DescribedFile describedWrite(const Index& index, const std::vector<std::string>& structures,
                             std::string reference) {
  auto parsed = std::make_shared<std::vector<std::shared_ptr<const Json>>>(structures.size());
  return {std::move(reference), &index, [parsed, &structures](uint64_t row) {
            auto& text = (*parsed)[row];
            if (!text) text = std::make_shared<const Json>(Json::parse(structures[row]));
            return text;
          }};
}

std::string describeXdmf(const std::vector<DescribedFile>& files) {
  Content content;
  for (const DescribedFile& file : files) content.add(file);
  return content.document(false);
}

// ---- the descriptor of a series ------------------------------------------------------

SeriesDescriptor::SeriesDescriptor(std::string path, std::string token, Parts parts)
    : path_(std::move(path)), token_(std::move(token)), parts_(std::move(parts)) {}

void SeriesDescriptor::learn(const Index& index) {
  for (const IndexEntry& entry : index.entries) {
    const double time = index.times[entry.timeRow];
    auto [known, added] = nameRows_.emplace(index.names[entry.nameRow], nameRows_.size());
    if (added) lastTimes_.push_back(time);
    lastTimes_[known->second] = std::max(lastTimes_[known->second], time);
  }
}

void SeriesDescriptor::open(const std::vector<const Index*>& described) {
  nameRows_.clear();
  lastTimes_.clear();
  for (const Index* index : described) learn(*index);
  std::error_code missing;
  if (std::filesystem::exists(path_, missing) && parse(readText(path_), described.size())) {
    stale_ = false;
    return;
  }
  rewrite();
}

bool SeriesDescriptor::parse(const std::string& text, uint64_t parts) {
  const size_t count = text.rfind(CountMarker);
  const std::string expected = countLine(parts, token_);
  if (count == std::string::npos || text.compare(count, std::string::npos, expected) != 0) {
    return false;
  }
  const size_t digits = count + std::strlen(CountMarker);
  std::vector<Room> rooms;
  for (size_t at = text.find(RoomMarker); at != std::string::npos && at < count;
       at = text.find(RoomMarker, at + 1)) {
    const size_t spaces = at + std::strlen(RoomMarker);
    const size_t end = text.find_first_not_of(' ', spaces);
    if (end == std::string::npos || text.compare(end, std::strlen(RoomEnd), RoomEnd) != 0) {
      return false;
    }
    rooms.push_back({at, end - spaces});
  }
  if (rooms.size() != nameRows_.size()) return false;
  rooms_ = std::move(rooms);
  countAt_ = digits;
  described_ = parts;
  return true;
}

void SeriesDescriptor::rewrite() {
  stale_ = true;
  Content content;
  uint64_t parts = 0;
  nameRows_.clear();
  lastTimes_.clear();
  parts_([&](const DescribedFile& part) {
    content.add(part);
    learn(*part.index);  // names in the same order as the content's collections
    ++parts;
  });
  const std::string text = content.document(true) + countLine(parts, token_);
  writeTextAtomically(path_, text);
  require(parse(text, parts), path_ + ": the descriptor just written does not read back");
  stale_ = false;
}

void SeriesDescriptor::add(const DescribedFile& part) {
  if (stale_) return rewrite();
  stale_ = true;
  addIn(part);
  stale_ = false;
}

void SeriesDescriptor::addIn(const DescribedFile& part) {
  // Steps go in place only when they follow every step described of their
  // grid and replace nothing.
  const Index& index = *part.index;
  const uint64_t described = described_ + 1;
  std::map<size_t, std::string> steps;  // by name row
  struct NewGrid {
    std::string name, xml;
    double lastTime;
  };
  std::vector<NewGrid> newGrids;
  std::map<std::string, size_t> newRows;
  std::vector<double> lastTimes = lastTimes_;
  StepWriter writer;
  for (uint64_t entry = 0; entry < index.entries.size(); ++entry) {
    const IndexEntry& row = index.entries[entry];
    const std::string& name = index.names[row.nameRow];
    const double time = index.times[row.timeRow];
    const std::shared_ptr<const Json> structure = part.structure(row.structureRow);
    if (structure->value(layout::Partial, false)) return rewrite();
    const std::string xml = writer.step(name, time, located(*structure, part.reference, entry));
    const auto known = nameRows_.find(name);
    if (known == nameRows_.end()) {
      auto [grid, added] = newRows.emplace(name, newGrids.size());
      if (added) newGrids.push_back({name, "", time});
      newGrids[grid->second].xml += xml;
      newGrids[grid->second].lastTime = time;  // entries come in time order
      continue;
    }
    if (time <= lastTimes[known->second]) return rewrite();
    lastTimes[known->second] = time;
    steps[known->second] += xml;
  }
  bool fits = newGrids.empty();
  for (const auto& [row, xml] : steps) fits = fits && xml.size() <= rooms_[row].spaces;
  if (fits) {
    const int fd = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
    requireSystem(fd >= 0, "cannot open " + path_);
    try {
      // Each write leaves a whole document: the steps, and the room after them.
      for (const auto& [row, xml] : steps) {
        const std::string text = xml + RoomMarker;
        writeAt(fd, text.data(), text.size(), rooms_[row].at, path_);
        rooms_[row].at += xml.size();
        rooms_[row].spaces -= xml.size();
      }
      const std::string count =
          countLine(described, token_).substr(std::strlen(CountMarker), CountDigits);
      writeAt(fd, count.data(), count.size(), countAt_, path_);
    } catch (...) {
      ::close(fd);
      throw;
    }
    requireSystem(::close(fd) == 0, "cannot write " + path_);
  } else {
    // Written anew around what it says: each grid's room made as large as
    // its steps, new grids before the end of the domain.
    const std::string old = readText(path_);
    std::string text;
    size_t from = 0;
    for (size_t row = 0; row < rooms_.size(); ++row) {
      const size_t end =
          rooms_[row].at + std::strlen(RoomMarker) + rooms_[row].spaces + std::strlen(RoomEnd);
      const size_t collection = text.size();
      text.append(old, from, rooms_[row].at - from);
      const auto added = steps.find(row);
      if (added != steps.end()) text += added->second;
      text += room(std::max<uint64_t>(SmallestRoom, text.size() - collection));
      from = end;
    }
    const size_t domainEnd = old.rfind(DomainEnd);
    require(domainEnd != std::string::npos && domainEnd >= from,
            path_ + ": not a descriptor of this library");
    text.append(old, from, domainEnd - from);
    for (const NewGrid& grid : newGrids) {
      text += collectionStart(grid.name) + grid.xml +
              room(std::max<uint64_t>(SmallestRoom, grid.xml.size())) + CollectionEnd;
    }
    text += DomainEnd + countLine(described, token_);
    writeTextAtomically(path_, text);
    for (const NewGrid& grid : newGrids) {
      nameRows_.emplace(grid.name, nameRows_.size());
      lastTimes.push_back(grid.lastTime);
    }
    require(parse(text, described), path_ + ": the descriptor just written does not read back");
  }
  lastTimes_ = std::move(lastTimes);
  described_ = described;
}

}  // namespace Quaril::H5::detail
