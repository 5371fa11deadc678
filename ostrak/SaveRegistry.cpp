#include "ostrak/SaveRegistry.hpp"

#include <algorithm>
#include <map>
#include <mutex>
#include <vector>

#include "ostrak/Diagnostics.hpp"
#include "ostrak/TypeInfo.hpp"

namespace Ostrak {

SaveParameters::SaveParameters(const std::string& filename) : filename_(filename) {}
SaveParameters::~SaveParameters() = default;

SaveInterfaceCreatorBase::~SaveInterfaceCreatorBase() = default;

namespace {

struct Registry {
  std::mutex mutex;
  std::map<TypeInfo, std::vector<StrongPtr<SaveInterfaceCreatorBase>>> creators;
};

Registry& registry() {
  static Registry instance;
  return instance;
}

}  // namespace

void SaveRegistryBase::registerCreator(const std::type_info& type,
                                       const StrongPtr<SaveInterfaceCreatorBase>& creator) {
  if (!creator) return;
  std::lock_guard lock(registry().mutex);
  auto& list = registry().creators[TypeInfo(type)];
  if (std::find(list.begin(), list.end(), creator) == list.end()) list.push_back(creator);
}

bool SaveRegistryBase::unregisterCreator(const std::type_info& type,
                                         const StrongPtr<SaveInterfaceCreatorBase>& creator) {
  std::lock_guard lock(registry().mutex);
  auto found = registry().creators.find(TypeInfo(type));
  if (found == registry().creators.end()) return false;
  auto& list = found->second;
  auto removed = std::remove(list.begin(), list.end(), creator);
  bool any = removed != list.end();
  list.erase(removed, list.end());
  return any;
}

int SaveRegistryBase::traverseCreators(Intercube& target, const std::type_info& type) {
  std::vector<StrongPtr<SaveInterfaceCreatorBase>> creators;
  {
    std::lock_guard lock(registry().mutex);
    auto found = registry().creators.find(TypeInfo(type));
    if (found != registry().creators.end()) creators = found->second;
  }
  int attached = 0;
  for (const auto& creator : creators) {
    try {
      StrongPtr<InterfaceBase> interface = creator->createInterface(target);
      if (interface) {
        target.addInterface(interface);
        ++attached;
      }
    } catch (...) {
      reportDiagnostic(Diagnostic::HookException, "a saver creator threw; nothing attached");
    }
  }
  return attached;
}

}  // namespace Ostrak
