#pragma once
// Saving: save requests, creators of saver interfaces, and save items.

#include <string>
#include <typeinfo>

#include "ostrak/Intercube.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Ostrak {

/// A save request: the file to write, interfaces attached by the caller, and
/// a status and text that the savers leave behind.
class SaveParameters : public InterfaceIterationParameter, public Intercube {
 public:
  explicit SaveParameters(const std::string& filename);
  ~SaveParameters() override;

  const std::string& getFilename() const noexcept { return filename_; }
  int getStatus() const noexcept { return status_; }
  void setStatus(int status) noexcept { status_ = status; }
  const std::string& getText() const noexcept { return text_; }
  void setText(const std::string& text) { text_ = text; }

 private:
  std::string filename_;
  int status_ = 0;
  std::string text_;
};

/// Creates the saver interface of one format for a new object.
class SaveInterfaceCreatorBase : public ReferenceBase<SaveInterfaceCreatorBase> {
 public:
  ~SaveInterfaceCreatorBase() override;
  /// The interface to attach to `target`, or null to attach nothing.
  virtual StrongPtr<InterfaceBase> createInterface(Intercube& target) const = 0;
};

/// A creator for objects of type `T`.
template <class T>
class SaveInterfaceCreator : public SaveInterfaceCreatorBase {
 public:
  /// The interface to attach to `object`, or null.
  virtual StrongPtr<InterfaceBase> create(T& object) const = 0;

  StrongPtr<InterfaceBase> createInterface(Intercube& target) const final {
    T* object = dynamic_cast<T*>(&target);
    return object ? create(*object) : StrongPtr<InterfaceBase>();
  }
};

/// The process-wide registry of saver creators, by object type.
class SaveRegistryBase {
 public:
  static void registerCreator(const std::type_info& type,
                              const StrongPtr<SaveInterfaceCreatorBase>& creator);
  static bool unregisterCreator(const std::type_info& type,
                                const StrongPtr<SaveInterfaceCreatorBase>& creator);
  /// Lets every creator registered for `type` attach its interface to
  /// `target`. Returns the number of interfaces attached. A creator that
  /// throws attaches nothing.
  static int traverseCreators(Intercube& target, const std::type_info& type);
};

/// Typed registration helpers.
template <class T>
struct SaveRegistry {
  static void add(const StrongPtr<SaveInterfaceCreator<T>>& creator) {
    SaveRegistryBase::registerCreator(typeid(T), StrongPtr<SaveInterfaceCreatorBase>(creator));
  }
  static bool remove(const StrongPtr<SaveInterfaceCreator<T>>& creator) {
    return SaveRegistryBase::unregisterCreator(typeid(T),
                                               StrongPtr<SaveInterfaceCreatorBase>(creator));
  }
  static int traverseCreators(T& object) {
    return SaveRegistryBase::traverseCreators(object, typeid(T));
  }
};

/// An interface that carries one value of type `T` (a handle on a memory
/// object, for example) and is found under the type `T`.
template <class T>
class SaveItem : public Interface<T> {
 public:
  SaveItem() = default;
  explicit SaveItem(const T& item) : item(item) {}
  T item;
};

}  // namespace Ostrak
