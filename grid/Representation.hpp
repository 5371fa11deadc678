#pragma once
// A skeleton's representation relative to a base space, holding fields.

#include <cstddef>
#include <functional>
#include <map>
#include <string>

#include "field/Field.hpp"
#include "grid/BaseSpace.hpp"

namespace Quaril {

/// The fields of one skeleton expressed relative to one base space: relative
/// to a chart it holds coordinates ("Positions") and the fields given in that
/// chart; relative to another skeleton it holds how the elements are made of
/// that skeleton's elements (the triangles of a surface as vertex index
/// triples, for example). Owned by the skeletons that hold it; owns its fields.
/// Not synchronised: a representation is built by one thread at a time.
class Representation : public BaseSpaceDependency, public Ownable<Field>::Container {
 public:
  /// The fields, ordered by the identity of their `FieldID`.
  using FieldMap = std::map<StrongPtr<FieldID>, StrongPtr<Field>>;

  /// A representation relative to `base`, which it does not keep alive.
  explicit Representation(const WeakPtr<BaseSpace>& base);
  ~Representation() override;
  Representation(const Representation&) = delete;
  Representation& operator=(const Representation&) = delete;

  /// The chart or skeleton this representation is relative to; null once
  /// that base space is gone.
  WeakPtr<BaseSpace> getBaseSpace() const { return base_; }

  /// The identity of the field called `name`, or null when there is none.
  StrongPtr<FieldID> findFieldID(const std::string& name) const;
  /// The field stored under `id`, or null when `id` is null or unknown.
  StrongPtr<Field> findField(const StrongPtr<FieldID>& id) const;
  /// The field called `name`, or null when there is none.
  StrongPtr<Field> findField(const std::string& name) const;

  /// Stores `field` under `id`, replacing (and disowning) a field stored
  /// there before, and records this representation as the field's owner.
  /// False, and nothing changes, when `id` or `field` is null, or when
  /// another identity of the same name is already present.
  bool setField(const StrongPtr<FieldID>& id, const StrongPtr<Field>& field);
  /// Stores `field` under the identity called `name`, made when missing.
  /// Returns that identity; null, and nothing changes, when `name` is empty
  /// or `field` is null.
  StrongPtr<FieldID> setField(const std::string& name, const StrongPtr<Field>& field);
  /// Removes the field stored under `id` and disowns it. False when absent.
  bool removeField(const StrongPtr<FieldID>& id);

  size_t nFields() const noexcept { return fields_.size(); }
  /// Calls `visit` on each (identity, field) in identity order until it
  /// returns false; returns the number of calls made. `visit` must not add
  /// or remove fields of this representation.
  int iterate(
      const std::function<bool(const StrongPtr<FieldID>&, const StrongPtr<Field>&)>& visit) const;

 private:
  /// Drops this representation from `field`'s owners unless it still holds
  /// the field under another identity.
  void disown(const StrongPtr<Field>& field);

  WeakPtr<BaseSpace> base_;
  FieldMap fields_;
};

}  // namespace Quaril
