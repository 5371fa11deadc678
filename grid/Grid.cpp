#include "grid/Grid.hpp"

#include <algorithm>
#include <utility>
#include <vector>

namespace Quaril {
namespace {

/// The line of one fragment, or the extents of a single-fragment field.
struct FragmentLine {
  std::string name;
  std::string extents;
};

class FragmentLister : public FragmentIterator {
 public:
  bool apply(const StrongPtr<FragmentID>& fragment,
             const StrongPtr<CreativeArrayBase>& creator) override {
    lines.push_back({fragment ? fragment->Name() : std::string(),
                     creator ? creator->getSize().str() : std::string()});
    return true;
  }
  std::vector<FragmentLine> lines;
};

void appendField(std::string& text, const std::string& name, const Field& field) {
  FragmentLister lister;
  field.iterate(lister);
  std::stable_sort(lister.lines.begin(), lister.lines.end(),
                   [](const FragmentLine& a, const FragmentLine& b) { return a.name < b.name; });
  text += "       <FIELD name=\"" + name + "\" type=\"" + field.getElementDescriptor().name() +
          "\" fragments=\"" + std::to_string(field.nFragments()) + "\"";
  if (lister.lines.size() == 1) {
    text += " extents=\"" + lister.lines.front().extents + "\"/>\n";
    return;
  }
  if (lister.lines.empty()) {
    text += "/>\n";
    return;
  }
  text += ">\n";
  for (const FragmentLine& line : lister.lines) {
    text += "        <FRAGMENT name=\"" + line.name + "\" extents=\"" + line.extents + "\"/>\n";
  }
  text += "       </FIELD>\n";
}

}  // namespace

GridContainer::~GridContainer() = default;

Grid::Grid(const WeakPtr<GridContainer>& container, const StrongPtr<GlobalCharts>& charts)
    : container_(container), charts_(charts) {}

Grid::~Grid() = default;

StrongPtr<ChartID> Grid::findCartesianChart(const std::string& name) const {
  if (!charts_) return {};
  StrongPtr<ChartID> chart = name.empty() ? charts_->getDefaultChart() : charts_->findChart(name);
  return chart && chart->isCartesian() ? chart : StrongPtr<ChartID>();
}

StrongPtr<Representation> Grid::getRepresentation(const StrongPtr<ChartID>& chart,
                                                  const SkeletonID& id) const {
  if (!chart) return {};
  StrongPtr<Skeleton> skeleton = getSkeleton(id);
  return skeleton ? skeleton->getRepresentation(chart) : StrongPtr<Representation>();
}

StrongPtr<Representation> Grid::getCartesianRepresentation(const std::string& chartname) const {
  return getRepresentation(findCartesianChart(chartname), SkeletonID(0, 0));
}

StrongPtr<Representation> Grid::getCartesianRepresentation(const StrongPtr<Skeleton>& skeleton,
                                                           const std::string& chartname) const {
  if (!skeleton) return {};
  StrongPtr<ChartID> chart = findCartesianChart(chartname);
  return chart ? skeleton->getRepresentation(chart) : StrongPtr<Representation>();
}

StrongPtr<Representation> Grid::makeCartesianRepresentation(const StrongPtr<Skeleton>& skeleton,
                                                            const std::string& chartname) {
  if (!skeleton) return {};
  StrongPtr<ChartID> chart = findCartesianChart(chartname);
  return chart ? skeleton->makeRepresentation(chart) : StrongPtr<Representation>();
}

StrongPtr<Field> Grid::getVertexPositions(const StrongPtr<ChartID>& chart) const {
  StrongPtr<Representation> representation = getRepresentation(chart, SkeletonID(0, 0));
  return representation ? representation->findField(PositionsName) : StrongPtr<Field>();
}

StrongPtr<Field> Grid::CartesianPositions() const {
  return getVertexPositions(findCartesianChart());
}

std::string Grid::xml() const {
  std::string text;
  for (const auto& [id, skeleton] : skeletons()) {
    if (!skeleton) continue;
    text += "     <SKELETON dimension=\"" + std::to_string(id.dimension()) + "\" index=\"" +
            std::to_string(id.index()) + "\" elements=\"" +
            std::to_string(skeleton->getNumberOfElements()) + "\" refinement=\"" +
            std::to_string(skeleton->getIsotropicRefinementFactor()) + "\"";
    if (skeleton->nRepresentations() == 0) {
      text += "/>\n";
      continue;
    }
    text += ">\n";
    // Base spaces are keyed by identity; list them by description so that
    // equal grids describe themselves alike.
    std::vector<std::pair<std::string, StrongPtr<Representation>>> representations;
    skeleton->iterate([&](const WeakPtr<BaseSpace>& base, const StrongPtr<Representation>& rep) {
      if (rep) representations.emplace_back(describeBaseSpace(base), rep);
      return true;
    });
    std::stable_sort(representations.begin(), representations.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [base, representation] : representations) {
      text += "      <REPRESENTATION " + base;
      std::vector<std::pair<std::string, StrongPtr<Field>>> fields;
      representation->iterate(
          [&](const StrongPtr<FieldID>& fieldID, const StrongPtr<Field>& field) {
            if (fieldID && field) fields.emplace_back(fieldID->Name(), field);
            return true;
          });
      if (fields.empty()) {
        text += "/>\n";
        continue;
      }
      text += ">\n";
      std::stable_sort(fields.begin(), fields.end(),
                       [](const auto& a, const auto& b) { return a.first < b.first; });
      for (const auto& [name, field] : fields) appendField(text, name, *field);
      text += "      </REPRESENTATION>\n";
    }
    text += "     </SKELETON>\n";
  }
  return text;
}

std::string Grid::describeBaseSpace(const WeakPtr<BaseSpace>& base) const {
  StrongPtr<BaseSpace> space = base.lock();
  if (!space) return "base=\"gone\"";
  if (auto* chart = dynamic_cast<ChartID*>(space.get())) {
    return "chart=\"" + chart->Name() + "\"";
  }
  for (const auto& [id, skeleton] : skeletons()) {
    if (skeleton == space) return "skeleton=\"" + id.Name() + "\"";
  }
  return "skeleton=\"external\"";
}

}  // namespace Quaril
