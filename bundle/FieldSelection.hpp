#pragma once
// Which fields a caller wants from a grid, each with its admissible element types.

#include <map>
#include <string>
#include <typeinfo>

#include "field/QuarilType.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Quaril {

/// A set of field names, each with the element types admissible for it, plus
/// one list of types the selection as a whole requires. Held through strong
/// and weak handles; a `FieldSelector` creates and owns it.
class FieldSelection : public Ostrak::ReferenceBase<FieldSelection> {
 public:
  /// Field names in byte-wise order, each with its admissible types.
  using FieldTable = std::map<std::string, TypeList>;

  FieldSelection();
  ~FieldSelection() override;

  /// Whether the selection admits the C++ type `type`: true when no type is
  /// required at all, otherwise whether `type` is among the required ones.
  bool requiresType(const std::type_info& type) const;

  /// Number of selected fields.
  int getNumberOfFields() const noexcept { return static_cast<int>(fields_.size()); }
  /// The name of the only selected field; empty when none or several are.
  std::string getFieldName() const;
  /// A copy of the admissible types of `name`; empty for an unknown name.
  TypeList getFieldType(const std::string& name) const;
  /// A copy of the admissible types of the only selected field; empty when
  /// none or several are selected.
  TypeList getFieldType() const;

  /// Adds `type` to the admissible types of `name` (creating the entry when
  /// missing); without `append` the entry admits `type` alone afterwards.
  /// False, and nothing changes, for an empty name.
  bool setFieldType(const std::string& name, const QuarilTypeBase& type, bool append);
  /// Makes `types` the admissible types of `name` (creating the entry when
  /// missing). False, and nothing changes, for an empty name.
  bool setFieldType(const std::string& name, const TypeList& types);
  /// Makes `name` with `types` the only selected field. An empty name is
  /// stored like any other.
  void setUniqueField(const std::string& name, const TypeList& types);

  /// The selected fields.
  const FieldTable& getFields() const noexcept { return fields_; }
  /// The types the selection as a whole requires; no operation here fills it.
  const TypeList& getRequiredTypes() const noexcept { return requiredTypes_; }

  /// Walks both tables in name order in step and compares name and types
  /// (same descriptors in the same order) entry by entry until either table
  /// ends. So an empty selection equals any selection, and a selection
  /// equals every selection whose leading entries it matches.
  friend bool operator==(const FieldSelection& a, const FieldSelection& b);

 private:
  FieldTable fields_;
  TypeList requiredTypes_;
};

}  // namespace Quaril
