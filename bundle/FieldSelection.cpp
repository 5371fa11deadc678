#include "bundle/FieldSelection.hpp"

#include <algorithm>

namespace Quaril {

FieldSelection::FieldSelection() = default;

FieldSelection::~FieldSelection() = default;

bool FieldSelection::requiresType(const std::type_info& type) const {
  if (requiredTypes_.empty()) return true;
  return containsType(requiredTypes_, type);
}

std::string FieldSelection::getFieldName() const {
  if (fields_.size() != 1) return {};
  return fields_.begin()->first;
}

TypeList FieldSelection::getFieldType(const std::string& name) const {
  auto entry = fields_.find(name);
  if (entry == fields_.end()) return {};
  return entry->second;
}

TypeList FieldSelection::getFieldType() const {
  if (fields_.size() != 1) return {};
  return fields_.begin()->second;
}

bool FieldSelection::setFieldType(const std::string& name, const QuarilTypeBase& type,
                                  bool append) {
  if (name.empty()) return false;
  TypeList& types = fields_[name];
  if (!append) types.clear();
  types.insert(type);  // already present: no change
  return true;
}

bool FieldSelection::setFieldType(const std::string& name, const TypeList& types) {
  if (name.empty()) return false;
  fields_[name] = types;
  return true;
}

void FieldSelection::setUniqueField(const std::string& name, const TypeList& types) {
  fields_.clear();
  fields_.emplace(name, types);
}

bool operator==(const FieldSelection& a, const FieldSelection& b) {
  // The walk ends with the shorter table: a leading part of a table matches it.
  auto left = a.fields_.begin();
  auto right = b.fields_.begin();
  for (; left != a.fields_.end() && right != b.fields_.end(); ++left, ++right) {
    if (left->first != right->first) return false;
    const TypeList& leftTypes = left->second;
    const TypeList& rightTypes = right->second;
    if (leftTypes.size() != rightTypes.size()) return false;
    if (!std::equal(leftTypes.begin(), leftTypes.end(), rightTypes.begin())) return false;
  }
  return true;
}

}  // namespace Quaril
