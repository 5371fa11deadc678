#pragma once
// Walks over what a grid holds: its fields, and the fragments of a field.

#include <utility>

#include "grid/Grid.hpp"

namespace Quaril {

/// Calls `visit(id, skeleton, fieldID, field)` for every field of every
/// representation of `grid`, skeleton by skeleton. Loads nothing.
template <class Visit>
void forEachPlacedField(const Grid& grid, Visit&& visit) {
  grid.iterate([&](const SkeletonID& id, const StrongPtr<Skeleton>& skeleton) {
    skeleton->iterate([&](const WeakPtr<BaseSpace>&, const StrongPtr<Representation>& rep) {
      rep->iterate([&](const StrongPtr<FieldID>& fieldID, const StrongPtr<Field>& field) {
        visit(id, *skeleton, *fieldID, field);
        return true;
      });
      return true;
    });
    return true;
  });
}

/// Calls `visit(field)` for every field of every representation of `grid`.
template <class Visit>
void forEachField(const Grid& grid, Visit&& visit) {
  forEachPlacedField(grid, [&](const SkeletonID&, const Skeleton&, const FieldID&,
                               const StrongPtr<Field>& field) { visit(field); });
}

/// Calls `visit(fragment, creator)` for every fragment of `field`.
template <class Visit>
void forEachFragment(const Field& field, Visit&& visit) {
  struct Each : FragmentIterator {
    Visit& visit;
    explicit Each(Visit& visit) : visit(visit) {}
    bool apply(const StrongPtr<FragmentID>& fragment,
               const StrongPtr<CreativeArrayBase>& creator) override {
      visit(fragment, creator);
      return true;
    }
  } each(visit);
  field.iterate(each);
}

}  // namespace Quaril
