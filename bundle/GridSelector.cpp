#include "bundle/GridSelector.hpp"

#include "field/Field.hpp"
#include "grid/Representation.hpp"

namespace Quaril {

using Ostrak::StrongPtr;

Parameter::Parameter(const std::string& name, Ostrak::AttributeValue value)
    : name_(name), value_(std::move(value)) {}

Parameter::~Parameter() = default;

std::optional<double> Parameter::getDouble() const {
  if (const double* number = std::get_if<double>(&value_)) return *number;
  if (const int64_t* number = std::get_if<int64_t>(&value_)) return static_cast<double>(*number);
  return std::nullopt;
}

StrongPtr<Parameter> ParameterSet::find(const std::string& name) const {
  for (const StrongPtr<Parameter>& parameter : *this) {
    if (parameter && parameter->getName() == name) return parameter;
  }
  return {};
}

ParameterList::~ParameterList() = default;

namespace {

/// Visits the occurrences of a grid until one carries, on its Cartesian
/// representation, a field of one of the wanted types.
class FieldTypeProbe : public EvolutionIterator<Grid> {
 public:
  explicit FieldTypeProbe(const TypeList& types) : types_(types) {}

  bool apply(double, GridID&, Grid& grid) override {
    StrongPtr<Representation> representation = grid.getCartesianRepresentation("");
    if (!representation || representation->nFields() == 0) return true;
    int matches = 0;
    representation->iterate([&](const StrongPtr<FieldID>&, const StrongPtr<Field>& field) {
      if (field && containsType(types_, field->getElementType())) ++matches;
      return true;
    });
    if (matches < 1) return true;
    found_ = true;
    return false;
  }

  bool found() const noexcept { return found_; }

 private:
  const TypeList& types_;
  bool found_ = false;
};

}  // namespace

GridSelector::GridSelector() = default;

GridSelector::GridSelector(const BundlePtr& bundle, const std::string& gridname)
    : bundle(bundle), gridname(gridname) {}

GridSelector::~GridSelector() = default;

bool GridSelector::providesFieldTypes(const TypeList& types) const {
  if (!bundle || types.empty()) return true;
  FieldTypeProbe probe(types);
  // A grid that occurs nowhere is not held against the selector.
  if (bundle->iterate(gridname, probe, true) < 1) return true;
  return probe.found();
}

Info<Grid> GridSelector::getRefinementLevel(double time, int level, int extra,
                                            const BundlePtr& bundle) const {
  const BundlePtr& source = bundle ? bundle : this->bundle;
  if (!source) return {};
  return source->findPreviousRefinementLevel(time, gridname, level, nullptr, extra);
}

}  // namespace Quaril
