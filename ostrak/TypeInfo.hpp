#pragma once
// Type identities usable as keys of ordered and hashed containers.

#include <functional>
#include <string>
#include <typeindex>
#include <typeinfo>
#include <unordered_map>

namespace Ostrak {

/// A copyable, comparable, hashable handle on a `std::type_info`.
class TypeInfo {
 public:
  TypeInfo() noexcept : type_(&typeid(void)) {}
  TypeInfo(const std::type_info& type) noexcept : type_(&type) {}

  const std::type_info& type() const noexcept { return *type_; }
  /// The compiler's name of the type (mangled on most platforms).
  const char* name() const noexcept { return type_->name(); }
  /// A readable name, demangled where the platform allows it.
  std::string readableName() const;

  friend bool operator==(const TypeInfo& a, const TypeInfo& b) noexcept {
    return *a.type_ == *b.type_;
  }
  friend bool operator<(const TypeInfo& a, const TypeInfo& b) noexcept {
    return a.type_->before(*b.type_);
  }
  size_t hash() const noexcept { return type_->hash_code(); }

 private:
  const std::type_info* type_;
};

struct TypeInfoHash {
  size_t operator()(const TypeInfo& type) const noexcept { return type.hash(); }
};

/// An unordered map keyed by type identity.
template <class Value>
class typemap : public std::unordered_map<TypeInfo, Value, TypeInfoHash> {
 public:
  using std::unordered_map<TypeInfo, Value, TypeInfoHash>::unordered_map;
};

}  // namespace Ostrak
