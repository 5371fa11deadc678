#pragma once
// Shared helpers of the grid tests: the owner chain walk and grid creation.

#include "grid/Grid.hpp"

namespace GridTest {

using namespace Quaril;

/// A grid with fresh charts and no container, held strongly like a slice does.
inline StrongPtr<Grid> newGrid() {
  return StrongPtr<Grid>(new Grid(nullptr, StrongPtr<GlobalCharts>(new GlobalCharts)));
}

/// The grid reached from `creator` through the first live owner of every
/// link (creator -> field -> representation -> skeleton -> grid); null when a
/// link is missing or of the wrong kind.
inline StrongPtr<Grid> climbToGrid(const CreativeArrayBase& creator) {
  auto field = Ostrak::dynamic_pointer_cast<Field>(creator.firstLiveOwner().lock());
  if (!field) return {};
  auto representation =
      Ostrak::dynamic_pointer_cast<Representation>(field->firstLiveOwner().lock());
  if (!representation) return {};
  auto skeleton = Ostrak::dynamic_pointer_cast<Skeleton>(representation->firstLiveOwner().lock());
  if (!skeleton) return {};
  return Ostrak::dynamic_pointer_cast<Grid>(skeleton->firstLiveOwner().lock());
}

/// Whether every creator of every field of `grid` climbs back to `grid`.
inline bool ownerChainsComplete(const StrongPtr<Grid>& grid) {
  bool complete = true;
  int creators = 0;
  struct Walker : FragmentIterator {
    const StrongPtr<Grid>& grid;
    bool& complete;
    int& creators;
    Walker(const StrongPtr<Grid>& g, bool& c, int& n) : grid(g), complete(c), creators(n) {}
    bool apply(const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>& creator) override {
      ++creators;
      if (!creator || climbToGrid(*creator) != grid) complete = false;
      return true;
    }
  } walker(grid, complete, creators);
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
  return complete && creators > 0;
}

}  // namespace GridTest
