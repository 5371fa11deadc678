#pragma once
// Shared helpers of the grid tests: grid creation and the owner chain walk.

#include "grid/Grid.hpp"

namespace GridTest {

using namespace Quaril;

/// A grid with fresh charts and no container, held strongly like a slice does.
inline StrongPtr<Grid> newGrid() {
  return StrongPtr<Grid>(new Grid(nullptr, StrongPtr<GlobalCharts>(new GlobalCharts)));
}

/// The first live owner of `object` as a `Owner`; null when there is none or
/// it is of another kind.
template <class Owner, class Object>
StrongPtr<Owner> ownerOf(const Object* object) {
  return object ? Ostrak::dynamic_pointer_cast<Owner>(object->firstLiveOwner().lock())
                : StrongPtr<Owner>();
}

/// The grid reached from `creator` through the first live owner of every
/// link: creator -> field -> representation -> skeleton -> grid.
inline StrongPtr<Grid> climbToGrid(const CreativeArrayBase& creator) {
  auto field = ownerOf<Field>(&creator);
  auto skeleton = ownerOf<Skeleton>(ownerOf<Representation>(field.get()).get());
  return ownerOf<Grid>(skeleton.get());
}

/// Whether `grid` has creators and every one climbs back to `grid`.
inline bool ownerChainsComplete(const StrongPtr<Grid>& grid) {
  struct Walker : FragmentIterator {
    const StrongPtr<Grid>& grid;
    bool complete = true;
    int creators = 0;
    explicit Walker(const StrongPtr<Grid>& g) : grid(g) {}
    bool apply(const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) override {
      ++creators;
      complete = complete && creator && climbToGrid(*creator) == grid;
      return true;
    }
  } walker(grid);
  grid->iterate([&](const SkeletonID&, const StrongPtr<Skeleton>& skeleton) {
    skeleton->iterate([&](const WeakPtr<BaseSpace>&, const StrongPtr<Representation>& rep) {
      rep->iterate([&](const StrongPtr<FieldID>&, const StrongPtr<Field>& field) {
        field->iterate(walker);
        return true;
      });
      return true;
    });
    return true;
  });
  return walker.complete && walker.creators > 0;
}

}  // namespace GridTest
