#pragma once
// Fields: an element type and, per fragment, the creator of that fragment's
// data.

#include <cstddef>
#include <initializer_list>
#include <map>
#include <set>
#include <string>
#include <typeinfo>

#include "field/CreativeArrayBase.hpp"
#include "field/MemBase.hpp"
#include "field/QuarilType.hpp"
#include "ostrak/Ownable.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Quaril {

/// The identity of a field within a representation. Used as a key by handle
/// identity; the name is for people and files.
class FieldID : public Ostrak::ReferenceBase<FieldID> {
 public:
  explicit FieldID(std::string name) : name_(std::move(name)) {}
  ~FieldID() override;
  const std::string& Name() const noexcept { return name_; }

 private:
  std::string name_;
};

/// The identity of one fragment (block) of a fragmented field. The fields of
/// one grid share fragment identities; used as keys by handle identity.
class FragmentID : public Ostrak::ReferenceBase<FragmentID> {
 public:
  explicit FragmentID(std::string name) : name_(std::move(name)) {}
  ~FragmentID() override;
  const std::string& Name() const noexcept { return name_; }

 private:
  std::string name_;
};

/// Visitor of a field's fragments.
class FragmentIterator {
 public:
  virtual ~FragmentIterator();
  /// Called per fragment (an empty `fragment` for the unfragmented part);
  /// false stops the iteration.
  virtual bool apply(const StrongPtr<FragmentID>& fragment,
                     const StrongPtr<CreativeArrayBase>& creator) = 0;
};

/// Chooses the fragments an iteration visits: those in its set. Derive and
/// override accept() for another rule.
class FragmentSelector : public Ostrak::ReferenceBase<FragmentSelector> {
 public:
  FragmentSelector() = default;
  FragmentSelector(std::initializer_list<StrongPtr<FragmentID>> fragments)
      : fragments_(fragments) {}
  ~FragmentSelector() override;

  void insert(const StrongPtr<FragmentID>& fragment) { fragments_.insert(fragment); }
  /// Whether an iteration visits `fragment`.
  virtual bool accept(const StrongPtr<FragmentID>& fragment) const;

 private:
  std::set<StrongPtr<FragmentID>> fragments_;
};

/// A field: values of one element type over a base space, stored per
/// fragment by creators. An empty fragment handle addresses the unfragmented
/// field. The field records itself as the owner of each creator it takes.
/// Concurrent reads are safe; modifications must not race with other use.
class Field : public Ostrak::Ownable<Field>, public Ostrak::Ownable<CreativeArrayBase>::Container {
 public:
  /// An empty field of element type `elementType`.
  explicit Field(const QuarilTypeBase& elementType);
  ~Field() override;
  // A copy would hold creators that do not name it as their owner.
  Field(const Field&) = delete;
  Field& operator=(const Field&) = delete;

  /// A new empty field of element type `T`.
  template <class T>
  static StrongPtr<Field> create() {
    return StrongPtr<Field>(new Field(QuarilTypeBase::getType<T>()));
  }

  const std::type_info& getElementType() const noexcept { return type_->getTypeInfo(); }
  const QuarilTypeBase& getElementDescriptor() const noexcept { return *type_; }
  /// The element type of the stored arrays. Creators of another type are
  /// refused, so this is the element type.
  const std::type_info& getFieldStorageType() const noexcept { return type_->getTypeInfo(); }

  /// Sets the creator of `fragment` (empty: the unfragmented field) and
  /// records this field as its owner; a replaced creator loses this owner. A
  /// null creator removes the fragment. Returns false, changing nothing, when
  /// the creator's element type differs from the field's.
  bool setCreator(const StrongPtr<CreativeArrayBase>& creator,
                  const StrongPtr<FragmentID>& fragment = {});

  /// The creator of `fragment`. An empty `fragment` addresses the
  /// unfragmented field, or the only fragment of a field with one fragment.
  /// Null when there is none.
  StrongPtr<CreativeArrayBase> getCreator(const StrongPtr<FragmentID>& fragment = {}) const;

  /// The data of `fragment` (addressed as in getCreator), produced with
  /// caching switched on for its creator. Null when there is no creator or it
  /// cannot produce; may load data through a deferred creator.
  StrongPtr<MemBase, Cacheable> getData(const StrongPtr<FragmentID>& fragment = {}) const;

  /// Number of fragments (the unfragmented part counts as one).
  std::size_t nFragments() const noexcept { return creators_.size(); }

  /// Calls `it.apply` for each fragment that `selector` accepts (an empty
  /// selector: every fragment), in fragment identity order, the unfragmented
  /// part first; stops at the first false. Returns the number of calls that
  /// returned true. Loads nothing.
  int iterate(FragmentIterator& it, const StrongPtr<FragmentSelector>& selector = {}) const;

  /// Adds the bytes of every fragment's creator to the two counters (see
  /// CreativeArrayBase): `first` resident now, `second` producible but not
  /// held. Loads nothing.
  void getMemoryUsage(unsigned long long& first, unsigned long long& second) const;

  /// A process-wide empty field handle, for look-ups that find nothing.
  static const StrongPtr<Field>& NullPtrField() noexcept;

 private:
  const QuarilTypeBase* type_;
  std::map<StrongPtr<FragmentID>, StrongPtr<CreativeArrayBase>> creators_;
};

}  // namespace Quaril
