#pragma once
// Interfaces attached to objects and requests by type.

#include <map>
#include <type_traits>
#include <typeinfo>

#include "ostrak/ReferenceBase.hpp"
#include "ostrak/TypeInfo.hpp"

namespace Ostrak {

/// The argument handed to every interface by an interface iteration.
class InterfaceIterationParameter : public ReferenceBase<InterfaceIterationParameter> {
 public:
  InterfaceIterationParameter() = default;
  ~InterfaceIterationParameter() override;
};

/// A reference-counted interface, identified by a type.
class InterfaceBase : public ReferenceBase<InterfaceBase> {
 public:
  InterfaceBase() = default;
  /// A hook for derived interfaces; does nothing here.
  virtual void hook() {}
  ~InterfaceBase() override;
  /// The type under which the interface is attached and found.
  virtual const std::type_info& getType() const = 0;
  /// Visit from a const interface iteration; the default answers false.
  virtual bool apply_const(const StrongPtr<InterfaceIterationParameter>& parameter) const;
  /// Visit from a non-const interface iteration; the default answers false.
  virtual bool apply(const StrongPtr<InterfaceIterationParameter>& parameter);
};

/// An interface identified by the type `T`.
template <class T>
class Interface : public InterfaceBase {
 public:
  const std::type_info& getType() const override { return typeid(T); }
};

/// A container of interfaces, at most one per type.
class Intercube {
 public:
  Intercube() = default;
  Intercube(const Intercube&) = default;
  Intercube& operator=(const Intercube&) = default;
  virtual ~Intercube();

  /// Attaches `interface` under its type, replacing an interface of the same
  /// type. A null or dead handle is ignored.
  void addInterface(const StrongPtr<InterfaceBase>& interface);
  /// Detaches the interface of `type`. Returns whether there was one.
  bool removeInterface(const std::type_info& type);
  /// The interface of `type`, or a null handle.
  StrongPtr<InterfaceBase> findInterface(const std::type_info& type) const;
  /// The interface of type `T`, cast to `I`; null when absent or of another
  /// class. `I` defaults to `T` when `T` is itself an interface class (a
  /// self-named interface such as `LoaderProgress`), else to `InterfaceBase`,
  /// since a plain type names interfaces but is never one.
  template <class T,
            class I = std::conditional_t<std::is_base_of_v<InterfaceBase, T>, T, InterfaceBase>>
  StrongPtr<I> findInterface() const {
    return dynamic_pointer_cast<I>(findInterface(typeid(T)));
  }
  /// Calls `apply` of every attached interface with `parameter`; true when at
  /// least one answered true.
  bool iterateInterfaces(const StrongPtr<InterfaceIterationParameter>& parameter);
  /// Calls `apply_const` of every attached interface; true when at least one
  /// answered true.
  bool const_iterateInterfaces(const StrongPtr<InterfaceIterationParameter>& parameter) const;
  size_t numberOfInterfaces() const noexcept { return interfaces_.size(); }

 private:
  std::map<TypeInfo, StrongPtr<InterfaceBase>> interfaces_;
};

}  // namespace Ostrak
