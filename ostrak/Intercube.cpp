#include "ostrak/Intercube.hpp"

#include <vector>

namespace Ostrak {

InterfaceIterationParameter::~InterfaceIterationParameter() = default;

InterfaceBase::~InterfaceBase() = default;

bool InterfaceBase::apply_const(const StrongPtr<InterfaceIterationParameter>&) const {
  return false;
}

bool InterfaceBase::apply(const StrongPtr<InterfaceIterationParameter>&) {
  return false;
}

Intercube::~Intercube() = default;

void Intercube::addInterface(const StrongPtr<InterfaceBase>& interface) {
  if (!interface) return;
  interfaces_[TypeInfo(interface->getType())] = interface;
}

bool Intercube::removeInterface(const std::type_info& type) {
  return interfaces_.erase(TypeInfo(type)) > 0;
}

StrongPtr<InterfaceBase> Intercube::findInterface(const std::type_info& type) const {
  auto found = interfaces_.find(TypeInfo(type));
  return found == interfaces_.end() ? StrongPtr<InterfaceBase>() : found->second;
}

namespace {
// Interfaces may attach or detach interfaces while they are visited, so the
// visit runs over a snapshot.
std::vector<StrongPtr<InterfaceBase>> snapshot(
    const std::map<TypeInfo, StrongPtr<InterfaceBase>>& interfaces) {
  std::vector<StrongPtr<InterfaceBase>> result;
  result.reserve(interfaces.size());
  for (const auto& entry : interfaces) result.push_back(entry.second);
  return result;
}
}  // namespace

bool Intercube::iterateInterfaces(const StrongPtr<InterfaceIterationParameter>& parameter) {
  bool any = false;
  for (const StrongPtr<InterfaceBase>& interface : snapshot(interfaces_)) {
    if (interface && interface->apply(parameter)) any = true;
  }
  return any;
}

bool Intercube::const_iterateInterfaces(
    const StrongPtr<InterfaceIterationParameter>& parameter) const {
  bool any = false;
  for (const StrongPtr<InterfaceBase>& interface : snapshot(interfaces_)) {
    if (interface && static_cast<const InterfaceBase&>(*interface).apply_const(parameter)) {
      any = true;
    }
  }
  return any;
}

}  // namespace Ostrak
