#pragma once
// Named parameters handed to slice walks, and the selector of one grid of a bundle.

#include <list>
#include <optional>
#include <string>
#include <vector>

#include "bundle/Bundle.hpp"
#include "field/QuarilType.hpp"
#include "ostrak/Attributes.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Quaril {

/// A named value. The slice walk of a bundle sets a parameter "time" to the
/// time of each slice it visits.
class Parameter : public Ostrak::ReferenceBase<Parameter> {
 public:
  Parameter(const std::string& name, Ostrak::AttributeValue value);
  ~Parameter() override;

  const std::string& getName() const noexcept { return name_; }
  const Ostrak::AttributeValue& getValue() const noexcept { return value_; }
  void setValue(Ostrak::AttributeValue value) { value_ = std::move(value); }
  /// The value as a double when it is a number; nothing otherwise.
  std::optional<double> getDouble() const;

 private:
  std::string name_;
  Ostrak::AttributeValue value_;
};

/// The parameters of one step of a walk, in order.
class ParameterSet : public std::vector<Ostrak::StrongPtr<Parameter>> {
 public:
  ParameterSet() = default;
  /// The first live parameter named `name`, or null.
  Ostrak::StrongPtr<Parameter> find(const std::string& name) const;
};

/// Parameters held by strong handles, in insertion order.
class ParameterList : public std::list<Ostrak::StrongPtr<Parameter>> {
 public:
  ParameterList() = default;
  ~ParameterList();
};

/// Names one grid of one bundle: a bundle handle and a grid name. A plain
/// value: copyable, caches nothing.
class GridSelector {
 public:
  GridSelector();
  GridSelector(const BundlePtr& bundle, const std::string& gridname);
  GridSelector(const GridSelector&) = default;
  GridSelector(GridSelector&&) noexcept = default;
  GridSelector& operator=(const GridSelector&) = default;
  GridSelector& operator=(GridSelector&&) noexcept = default;
  virtual ~GridSelector();

  /// Whether the grid carries, at some time, a field of one of `types` on its
  /// Cartesian representation. True for an empty or dead bundle, an empty
  /// type list, and a grid that occurs nowhere. Unloaded slices are skipped.
  bool providesFieldTypes(const TypeList& types) const;
  /// The refinement level `level` of the grid at or before `time`, from
  /// `bundle` or, when that is empty or dead, the selector's own bundle.
  /// Empty (time 0.0) without a live bundle. `time` is not updated.
  Info<Grid> getRefinementLevel(double time, int level, int extra,
                                const BundlePtr& bundle = BundlePtr()) const;

  BundlePtr bundle;
  std::string gridname;
};

}  // namespace Quaril
