#pragma once
// Element-type descriptors: one process-wide object per C++ element type, so
// that types can be kept in ordered sets and compared by identity.

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <set>
#include <string>
#include <type_traits>
#include <typeinfo>

#include "field/PhysicalSpace.hpp"
#include "ostrak/Ownable.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Quaril {

using Ostrak::Ownable;
using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

/// How an element type splits into components: a compound element type whose
/// components share one arithmetic type declares them here, as point does.
template <class T>
struct ElementComponents {
  using type = T;
  static constexpr int count = 1;
};
template <>
struct ElementComponents<Pelorn::PhysicalSpace::point> {
  using type = double;
  static constexpr int count = 3;
};
template <>
struct ElementComponents<Pelorn::PhysicalSpace::tvector> {
  using type = double;
  static constexpr int count = 3;
};
/// A fixed array of scalars (a triangle's vertex indices, say) has its
/// elements as components; its readable name is "<component>x<count>".
template <class T, std::size_t N>
struct ElementComponents<std::array<T, N>> {
  using type = T;
  static constexpr int count = static_cast<int>(N);
};

namespace detail {

/// The readable name of an element type; empty for a type without one, which
/// then takes its demangled C++ name.
template <class T>
constexpr const char* elementName() {
  using Pelorn::PhysicalSpace::point;
  using Pelorn::PhysicalSpace::tvector;
  if constexpr (std::is_same_v<T, void>)
    return "void";
  else if constexpr (std::is_same_v<T, bool>)
    return "bool";
  else if constexpr (std::is_same_v<T, char>)
    return "char";
  else if constexpr (std::is_same_v<T, wchar_t>)
    return "wchar";
  else if constexpr (std::is_same_v<T, char8_t>)
    return "char8";
  else if constexpr (std::is_same_v<T, char16_t>)
    return "char16";
  else if constexpr (std::is_same_v<T, char32_t>)
    return "char32";
  else if constexpr (std::is_same_v<T, std::int8_t>)
    return "int8";
  else if constexpr (std::is_same_v<T, std::uint8_t>)
    return "uint8";
  else if constexpr (std::is_same_v<T, std::int16_t>)
    return "int16";
  else if constexpr (std::is_same_v<T, std::uint16_t>)
    return "uint16";
  else if constexpr (std::is_same_v<T, std::int32_t>)
    return "int32";
  else if constexpr (std::is_same_v<T, std::uint32_t>)
    return "uint32";
  else if constexpr (std::is_same_v<T, std::int64_t>)
    return "int64";
  else if constexpr (std::is_same_v<T, std::uint64_t>)
    return "uint64";
  // The 64-bit integer that std::int64_t is not (long or long long).
  else if constexpr (std::is_same_v<T, long>)
    return "long";
  else if constexpr (std::is_same_v<T, unsigned long>)
    return "ulong";
  else if constexpr (std::is_same_v<T, long long>)
    return "longlong";
  else if constexpr (std::is_same_v<T, unsigned long long>)
    return "ulonglong";
  else if constexpr (std::is_same_v<T, float>)
    return "float";
  else if constexpr (std::is_same_v<T, double>)
    return "double";
  else if constexpr (std::is_same_v<T, long double>)
    return "longdouble";
  else if constexpr (std::is_same_v<T, point>)
    return "point";
  else if constexpr (std::is_same_v<T, tvector>)
    return "tvector";
  else
    return "";
}

template <class T>
struct IsStdArray : std::false_type {};
template <class T, std::size_t N>
struct IsStdArray<std::array<T, N>> : std::true_type {};

template <class T>
constexpr std::size_t elementSize() {
  if constexpr (std::is_void_v<T>)
    return 0;
  else
    return sizeof(T);
}

}  // namespace detail

/// The descriptor of one element type. There is exactly one per C++ type in
/// the process (cv-qualifiers ignored); it is never destroyed, so references
/// and weak handles to it stay valid. Descriptors compare by identity.
class QuarilTypeBase : public Ostrak::ReferenceBase<QuarilTypeBase> {
 public:
  /// The descriptor of `T`, created on first use (thread-safe). `void` names
  /// "no element type" (size 0, no components).
  template <class T>
  static const QuarilTypeBase& getType() {
    using Plain = std::remove_cv_t<T>;
    if constexpr (!std::is_same_v<Plain, T>) {
      return getType<Plain>();
    } else {
      static const QuarilTypeBase& type = describe<Plain>();
      return type;
    }
  }

  /// The descriptor with the readable name `name` among the built-in element
  /// types (every arithmetic type, point, tvector, void) and the types already
  /// described; null when there is none. Lets a reader map a stored type name
  /// back to a type.
  static const QuarilTypeBase* findType(const std::string& name);

  /// The C++ type described.
  const std::type_info& getTypeInfo() const noexcept { return *typeInfo_; }
  /// Readable name: "double", "float", "int32", "point", "tvector", ...; a
  /// type without a built-in name has its demangled C++ name.
  const std::string& name() const noexcept { return name_; }
  /// Bytes of one element.
  std::size_t size() const noexcept { return size_; }
  /// Number of components of one element (1 for a scalar, 3 for a point).
  int components() const noexcept { return components_; }
  /// The descriptor of one component (double for a point; itself for a scalar).
  const QuarilTypeBase& componentType() const noexcept { return component_ ? *component_ : *this; }
  /// Whether this describes `T`.
  template <class T>
  bool is() const noexcept {
    return this == &getType<T>();
  }

  QuarilTypeBase(const QuarilTypeBase&) = delete;
  QuarilTypeBase& operator=(const QuarilTypeBase&) = delete;

 private:
  QuarilTypeBase(const std::type_info& type, std::string name, std::size_t size, int components,
                 const QuarilTypeBase* component);
  ~QuarilTypeBase() override;

  template <class T>
  static const QuarilTypeBase& describe() {
    using Component = typename ElementComponents<T>::type;
    const QuarilTypeBase* component = nullptr;
    if constexpr (!std::is_same_v<Component, T>) component = &getType<Component>();
    std::string name = detail::elementName<T>();
    if constexpr (detail::IsStdArray<T>::value) {
      name = component->name() + "x" + std::to_string(ElementComponents<T>::count);
    }
    return registerType(typeid(T), name.c_str(), detail::elementSize<T>(),
                        std::is_void_v<T> ? 0 : ElementComponents<T>::count, component);
  }

  /// Finds or creates the one descriptor of `type`; an empty `name` takes the
  /// demangled C++ name.
  static const QuarilTypeBase& registerType(const std::type_info& type, const char* name,
                                            std::size_t size, int components,
                                            const QuarilTypeBase* component);

  const std::type_info* typeInfo_;
  std::string name_;
  std::size_t size_;
  int components_;
  const QuarilTypeBase* component_;
};

/// Descriptors are unique, so identity is equality.
inline bool operator==(const QuarilTypeBase& a, const QuarilTypeBase& b) noexcept {
  return &a == &b;
}

/// An ordered set of element-type descriptors, held by weak handle and ordered
/// by descriptor identity (not by name). Copyable; copies are independent.
class TypeList {
 public:
  using value_type = WeakPtr<QuarilTypeBase>;
  using const_iterator = std::set<value_type>::const_iterator;

  TypeList() = default;
  TypeList(std::initializer_list<const QuarilTypeBase*> types);

  /// The list of the descriptors of `Types...`.
  template <class... Types>
  static TypeList of() {
    return TypeList{&QuarilTypeBase::getType<Types>()...};
  }

  std::size_t size() const noexcept { return types_.size(); }
  bool empty() const noexcept { return types_.empty(); }
  /// Adds `type`. Returns false when it was present already.
  bool insert(const QuarilTypeBase& type);
  /// Removes `type`. Returns false when it was not present.
  bool erase(const QuarilTypeBase& type);
  bool contains(const QuarilTypeBase& type) const;
  void clear() noexcept { types_.clear(); }

  /// Iteration in identity order.
  const_iterator begin() const noexcept { return types_.begin(); }
  const_iterator end() const noexcept { return types_.end(); }

  friend bool operator==(const TypeList& a, const TypeList& b) { return a.types_ == b.types_; }

 private:
  std::set<value_type> types_;
};

/// Whether `list` holds the descriptor of the C++ type `type`. False for an
/// empty list.
bool containsType(const TypeList& list, const std::type_info& type);

}  // namespace Quaril
