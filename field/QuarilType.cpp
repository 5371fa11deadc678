#include "field/QuarilType.hpp"

#include <map>
#include <mutex>
#include <typeindex>

#include "ostrak/TypeInfo.hpp"

namespace Quaril {
namespace {

// Descriptors live for the whole process: the registry is never destroyed,
// so weak handles and references held in static objects stay valid at exit.
struct Registry {
  std::mutex mutex;
  std::map<std::type_index, StrongPtr<QuarilTypeBase>> byType;
  std::map<std::string, const QuarilTypeBase*> byName;
};

Registry& registry() {
  static Registry* instance = new Registry;
  return *instance;
}

void describeBuiltinTypes() {
  static const bool done = [] {
    (void)TypeList::of<void, bool, char, wchar_t, char8_t, char16_t, char32_t, signed char,
                       unsigned char, short, unsigned short, int, unsigned, long, unsigned long,
                       long long, unsigned long long, float, double, long double,
                       Pelorn::PhysicalSpace::point, Pelorn::PhysicalSpace::tvector>();
    return true;
  }();
  (void)done;
}

}  // namespace

QuarilTypeBase::QuarilTypeBase(const std::type_info& type, std::string name, std::size_t size,
                               int components, const QuarilTypeBase* component)
    : typeInfo_(&type),
      name_(std::move(name)),
      size_(size),
      components_(components),
      component_(component) {}

QuarilTypeBase::~QuarilTypeBase() = default;

const QuarilTypeBase& QuarilTypeBase::registerType(const std::type_info& type, const char* name,
                                                   std::size_t size, int components,
                                                   const QuarilTypeBase* component) {
  Registry& known = registry();
  std::lock_guard lock(known.mutex);
  auto found = known.byType.find(std::type_index(type));
  if (found != known.byType.end()) return *found->second;
  std::string readable = *name ? std::string(name) : Ostrak::TypeInfo(type).readableName();
  StrongPtr<QuarilTypeBase> descriptor(
      new QuarilTypeBase(type, readable, size, components, component));
  known.byType.emplace(std::type_index(type), descriptor);
  known.byName.emplace(readable, descriptor.get());
  return *descriptor;
}

const QuarilTypeBase* QuarilTypeBase::findType(const std::string& name) {
  describeBuiltinTypes();
  Registry& known = registry();
  std::lock_guard lock(known.mutex);
  auto found = known.byName.find(name);
  return found == known.byName.end() ? nullptr : found->second;
}

TypeList::TypeList(std::initializer_list<const QuarilTypeBase*> types) {
  for (const QuarilTypeBase* type : types) {
    if (type) insert(*type);
  }
}

bool TypeList::insert(const QuarilTypeBase& type) {
  return types_.insert(value_type(const_cast<QuarilTypeBase*>(&type))).second;
}

bool TypeList::erase(const QuarilTypeBase& type) {
  return types_.erase(value_type(const_cast<QuarilTypeBase*>(&type))) > 0;
}

bool TypeList::contains(const QuarilTypeBase& type) const {
  return types_.count(value_type(const_cast<QuarilTypeBase*>(&type))) > 0;
}

bool containsType(const TypeList& list, const std::type_info& type) {
  for (const TypeList::value_type& entry : list) {
    const QuarilTypeBase* descriptor = entry.get();
    if (descriptor && descriptor->getTypeInfo() == type) return true;
  }
  return false;
}

}  // namespace Quaril
