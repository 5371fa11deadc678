#include "formats/hdf5/detail/Xdmf.hpp"

#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

#include "formats/hdf5/detail/Layout.hpp"

namespace Quaril::H5::detail {
namespace {

using Json = nlohmann::json;

std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    switch (c) {
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
        out += c;
    }
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
    text += (text.empty() ? "" : " ") + std::to_string(extent->get<uint64_t>());
  }
  if (components > 1) text += " " + std::to_string(components);
  return text;
}

class Describer {
 public:
  Describer(Source& source, std::string dataFile)
      : source_(source), dataFile_(std::move(dataFile)) {}

  std::string document() {
    const Index& index = source_.index();
    std::string xml = "<?xml version=\"1.0\" ?>\n<Xdmf Version=\"3.0\">\n <Domain>\n";
    std::vector<std::vector<uint64_t>> entriesOf(index.names.size());
    for (uint64_t entry = 0; entry < index.entries.size(); ++entry) {
      entriesOf[index.entries[entry].nameRow].push_back(entry);
    }
    for (size_t name = 0; name < index.names.size(); ++name) {
      if (entriesOf[name].empty()) continue;
      xml += "  <Grid Name=\"" + escaped(index.names[name]) +
             "\" GridType=\"Collection\" CollectionType=\"Temporal\">\n";
      for (const uint64_t entry : entriesOf[name]) xml += step(entry);
      xml += "  </Grid>\n";
    }
    return xml + " </Domain>\n</Xdmf>\n";
  }

 private:
  struct Piece {
    std::string topology;  // Topology and Geometry elements
    std::string attributes;
  };

  std::string dataItem(uint64_t entry, const Json& fragment, const std::string& type) {
    const auto number = numberType(type);
    return "<DataItem Format=\"HDF\" NumberType=\"" + std::string(number->first) +
           "\" Precision=\"" + std::to_string(number->second) + "\" Dimensions=\"" +
           dimensions(fragment.at("extents"), componentsOf(type)) + "\">" + escaped(dataFile_) +
           ":/" + layout::ArraysGroup + "/" + std::to_string(entry) + "." +
           fragment.at("dataset").get<std::string>() + "</DataItem>";
  }

  /// The grid of one entry at its time: one piece per fragment of the
  /// positions (a spatial collection when there are several).
  std::string step(uint64_t entry) {
    const Index& index = source_.index();
    const Json& structure = *source_.structure(index.entries[entry].structureRow);
    const double time = index.times[index.entries[entry].timeRow];
    std::map<std::string, Piece> pieces;  // by fragment name
    std::string notes;
    const Json* triangles = nullptr;
    for (const Json& skeleton : listIn(structure, "skeletons")) {
      const int dimension = skeleton.at("dimension"), number = skeleton.at("index");
      const std::string where =
          "skeleton " + std::to_string(dimension) + "." + std::to_string(number);
      if (number != 0 || dimension > 3) {
        notes += "left out: " + where + (dimension == 0 ? " (a refinement level)" : "") + "\n";
        continue;
      }
      for (const Json& representation : listIn(skeleton, "representations")) {
        if (representation.contains("skeleton")) {
          for (const Json& field : listIn(representation, "fields")) {
            if (field.at("name") == "Triangles" && dimension == 2) {
              triangles = &field;
            } else {
              notes += "left out: field \"" + field.at("name").get<std::string>() + "\" of " +
                       where + "\n";
            }
          }
          continue;
        }
        if (!representation.value("chart_cartesian", false)) {
          notes += "left out: fields of " + where + " in a chart that is not Cartesian\n";
          continue;
        }
        for (const Json& field : listIn(representation, "fields")) {
          addField(entry, field, dimension, pieces, notes);
        }
      }
    }
    std::string xml = "   <Grid Name=\"" +
                      escaped(source_.index().names[index.entries[entry].nameRow]) +
                      "\" GridType=\"" +
                      (pieces.size() > 1 ? "Collection\" CollectionType=\"Spatial" : "Uniform") +
                      "\">\n    <Time Value=\"" + Json(time).dump() + "\"/>\n";
    if (triangles && pieces.size() == 1) addTriangles(entry, *triangles, pieces.begin()->second);
    for (auto& [fragment, piece] : pieces) {
      if (piece.topology.empty()) {
        notes += "left out: fragment \"" + fragment + "\" without positions\n";
        continue;
      }
      if (pieces.size() > 1)
        xml += "    <Grid Name=\"" + escaped(fragment) + "\" GridType=\"Uniform\">\n";
      xml += piece.topology + piece.attributes;
      if (pieces.size() > 1) xml += "    </Grid>\n";
    }
    if (!notes.empty()) {
      // "--" may not appear inside a comment.
      std::string text = notes;
      for (size_t at = text.find("--"); at != std::string::npos; at = text.find("--"))
        text.replace(at, 2, "- -");
      xml += "    <!-- " + text + "    -->\n";
    }
    return xml + "   </Grid>\n";
  }

  void addField(uint64_t entry, const Json& field, int dimension,
                std::map<std::string, Piece>& pieces, std::string& notes) {
    const std::string name = field.at("name"), type = field.at("type");
    for (const Json& fragment : listIn(field, "fragments")) {
      Piece& piece = pieces[fragment.value("fragment", "")];
      if (name == "Positions" && dimension == 0) {
        piece.topology = positions(entry, fragment, type);
        continue;
      }
      if (!numberType(type) || !fragment.contains("dataset") || type == "uint32x3") {
        notes += "left out: field \"" + name + "\" of type " + type + "\n";
        return;
      }
      piece.attributes += "    <Attribute Name=\"" + escaped(name) + "\" AttributeType=\"" +
                          (componentsOf(type) == 3 ? "Vector" : "Scalar") + "\" Center=\"" +
                          (dimension == 0 ? "Node" : "Cell") + "\">\n     " +
                          dataItem(entry, fragment, type) + "\n    </Attribute>\n";
    }
  }

  std::string positions(uint64_t entry, const Json& fragment, const std::string& type) {
    if (fragment.contains("uniform")) {
      const Json& uniform = fragment.at("uniform");
      auto zyx = [](const Json& xyz) {
        return Json(xyz[2]).dump() + " " + Json(xyz[1]).dump() + " " + Json(xyz[0]).dump();
      };
      return "    <Topology TopologyType=\"3DCoRectMesh\" Dimensions=\"" +
             dimensions(uniform.at("extents"), 1) +
             "\"/>\n    <Geometry GeometryType=\"ORIGIN_DXDYDZ\">\n"
             "     <DataItem Format=\"XML\" NumberType=\"Float\" Precision=\"8\" "
             "Dimensions=\"3\">" +
             zyx(uniform.at("origin")) +
             "</DataItem>\n     <DataItem Format=\"XML\" NumberType=\"Float\" Precision=\"8\" "
             "Dimensions=\"3\">" +
             zyx(uniform.at("spacing")) + "</DataItem>\n    </Geometry>\n";
    }
    const Json& extents = fragment.at("extents");
    uint64_t count = 1;
    for (const Json& extent : extents) count *= extent.get<uint64_t>();
    const std::string topology =
        extents.size() == 3
            ? "<Topology TopologyType=\"3DSMesh\" Dimensions=\"" + dimensions(extents, 1) + "\"/>"
            : "<Topology TopologyType=\"Polyvertex\" NumberOfElements=\"" + std::to_string(count) +
                  "\" NodesPerElement=\"1\"/>";
    return "    " + topology + "\n    <Geometry GeometryType=\"XYZ\">\n     " +
           dataItem(entry, fragment, type) + "\n    </Geometry>\n";
  }

  void addTriangles(uint64_t entry, const Json& field, Piece& piece) {
    const Json& fragments = field.at("fragments");
    if (fragments.size() != 1 || !fragments[0].contains("dataset")) return;
    const uint64_t count = fragments[0].at("extents")[0];
    const size_t at = piece.topology.find("<Topology");
    const size_t end = piece.topology.find("/>", at) + 2;
    piece.topology.replace(at, end - at,
                           "<Topology TopologyType=\"Triangle\" NumberOfElements=\"" +
                               std::to_string(count) + "\">\n     " +
                               dataItem(entry, fragments[0], "uint32x3") + "\n    </Topology>");
  }

  Source& source_;
  std::string dataFile_;
};

}  // namespace

std::string describeXdmf(Source& source, const std::string& dataFile) {
  return Describer(source, dataFile).document();
}

}  // namespace Quaril::H5::detail
