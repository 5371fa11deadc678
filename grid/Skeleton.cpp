#include "grid/Skeleton.hpp"

namespace Quaril {

Skeleton::Skeleton(int dimension, uint64_t nElements, int refinement)
    : dimension_(dimension), refinement_(refinement < 1 ? 1 : refinement), nElements_(nElements) {}

Skeleton::~Skeleton() = default;

StrongPtr<Representation> Skeleton::getRepresentation(const WeakPtr<BaseSpace>& base) const {
  if (!base) return {};
  auto found = representations_.find(base);
  return found == representations_.end() ? StrongPtr<Representation>() : found->second;
}

StrongPtr<Representation> Skeleton::makeRepresentation(const WeakPtr<BaseSpace>& base) {
  if (!base) return {};
  auto found = representations_.find(base);
  if (found != representations_.end() && found->second) return found->second;
  StrongPtr<Representation> made(new Representation(base));
  made->addOwner(*this);
  representations_.insert_or_assign(base, made);
  return made;
}

int Skeleton::iterate(const std::function<bool(const WeakPtr<BaseSpace>&,
                                               const StrongPtr<Representation>&)>& visit) const {
  int calls = 0;
  for (const auto& [base, representation] : representations_) {
    ++calls;
    if (!visit(base, representation)) break;
  }
  return calls;
}

}  // namespace Quaril
