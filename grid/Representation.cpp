#include "grid/Representation.hpp"

namespace Quaril {

Representation::Representation(const WeakPtr<BaseSpace>& base) : base_(base) {}

Representation::~Representation() = default;

StrongPtr<FieldID> Representation::findFieldID(const std::string& name) const {
  for (const auto& [id, field] : fields_) {
    if (id && id->Name() == name) return id;
  }
  return {};
}

StrongPtr<Field> Representation::findField(const StrongPtr<FieldID>& id) const {
  if (!id) return {};
  auto found = fields_.find(id);
  return found == fields_.end() ? StrongPtr<Field>() : found->second;
}

StrongPtr<Field> Representation::findField(const std::string& name) const {
  return findField(findFieldID(name));
}

bool Representation::setField(const StrongPtr<FieldID>& id, const StrongPtr<Field>& field) {
  if (!id || !field) return false;
  StrongPtr<FieldID> sameName = findFieldID(id->Name());
  if (sameName && sameName != id) return false;
  StrongPtr<Field>& slot = fields_[id];
  StrongPtr<Field> previous = slot;
  slot = field;
  field->addOwner(*this);
  if (previous && previous != field) disown(previous);
  return true;
}

StrongPtr<FieldID> Representation::setField(const std::string& name,
                                            const StrongPtr<Field>& field) {
  if (name.empty() || !field) return {};
  StrongPtr<FieldID> id = findFieldID(name);
  if (!id) id = StrongPtr<FieldID>(new FieldID(name));
  return setField(id, field) ? id : StrongPtr<FieldID>();
}

bool Representation::removeField(const StrongPtr<FieldID>& id) {
  auto found = fields_.find(id);
  if (!id || found == fields_.end()) return false;
  StrongPtr<Field> field = std::move(found->second);
  fields_.erase(found);
  if (field) disown(field);
  return true;
}

int Representation::iterate(
    const std::function<bool(const StrongPtr<FieldID>&, const StrongPtr<Field>&)>& visit) const {
  int calls = 0;
  for (const auto& [id, field] : fields_) {
    ++calls;
    if (!visit(id, field)) break;
  }
  return calls;
}

void Representation::disown(const StrongPtr<Field>& field) {
  for (const auto& entry : fields_) {
    if (entry.second == field) return;
  }
  field->removeOwner(*this);
}

}  // namespace Quaril
