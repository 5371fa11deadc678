#include "field/Field.hpp"

namespace Quaril {

FieldID::~FieldID() = default;
FragmentID::~FragmentID() = default;
FragmentIterator::~FragmentIterator() = default;
FragmentSelector::~FragmentSelector() = default;

bool FragmentSelector::accept(const StrongPtr<FragmentID>& fragment) const {
  return fragments_.count(fragment) > 0;
}

Field::Field(const QuarilTypeBase& elementType) : type_(&elementType) {}

Field::~Field() = default;

bool Field::setCreator(const StrongPtr<CreativeArrayBase>& creator,
                       const StrongPtr<FragmentID>& fragment) {
  if (creator && &creator->getTypeDescriptor() != type_) return false;
  auto found = creators_.find(fragment);
  StrongPtr<CreativeArrayBase> previous;
  if (found != creators_.end()) previous = found->second;
  if (creator) {
    creators_[fragment] = creator;
    creator->addOwner(*this);
  } else if (found != creators_.end()) {
    creators_.erase(found);
  }
  if (previous && previous != creator) {
    // The replaced creator stays owned by this field if it serves another fragment.
    bool stillUsed = false;
    for (const auto& entry : creators_) stillUsed = stillUsed || entry.second == previous;
    if (!stillUsed) previous->removeOwner(*this);
  }
  return true;
}

StrongPtr<CreativeArrayBase> Field::getCreator(const StrongPtr<FragmentID>& fragment) const {
  auto found = creators_.find(fragment);
  if (found != creators_.end()) return found->second;
  if (!fragment && creators_.size() == 1) return creators_.begin()->second;
  return {};
}

StrongPtr<MemBase, Cacheable> Field::getData(const StrongPtr<FragmentID>& fragment) const {
  StrongPtr<CreativeArrayBase> creator = getCreator(fragment);
  if (!creator) return {};
  creator->setCaching(true);
  return creator->getData();
}

int Field::iterate(FragmentIterator& it, const StrongPtr<FragmentSelector>& selector) const {
  int accepted = 0;
  for (const auto& [fragment, creator] : creators_) {
    if (selector && !selector->accept(fragment)) continue;
    if (!it.apply(fragment, creator)) break;
    ++accepted;
  }
  return accepted;
}

void Field::getMemoryUsage(unsigned long long& first, unsigned long long& second) const {
  for (const auto& entry : creators_) {
    if (entry.second) entry.second->getMemoryUsage(first, second);
  }
}

const StrongPtr<Field>& Field::NullPtrField() noexcept {
  static const StrongPtr<Field> empty;
  return empty;
}

}  // namespace Quaril
