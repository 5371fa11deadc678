#pragma once
// Walks over what a grid holds, for the reader, the writer and the binding.

#include <utility>

#include "grid/Grid.hpp"

namespace Quaril::H5::detail {

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

/// Calls `visit(field)` for every field of every representation of `grid`.
template <class Visit>
void forEachField(const Grid& grid, Visit&& visit) {
  grid.iterate([&](const SkeletonID&, const StrongPtr<Skeleton>& skeleton) {
    skeleton->iterate([&](const WeakPtr<BaseSpace>&, const StrongPtr<Representation>& rep) {
      rep->iterate([&](const StrongPtr<FieldID>&, const StrongPtr<Field>& field) {
        visit(field);
        return true;
      });
      return true;
    });
    return true;
  });
}

}  // namespace Quaril::H5::detail
