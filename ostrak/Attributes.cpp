#include "ostrak/Attributes.hpp"

namespace Ostrak {

Attributes::~Attributes() = default;

void Attributes::setAttribute(const std::string& name, AttributeValue value) {
  attributes_[name] = std::move(value);
  attributesChanged();
}

bool Attributes::removeAttribute(const std::string& name) {
  if (attributes_.erase(name) == 0) return false;
  attributesChanged();
  return true;
}

bool Attributes::hasAttribute(const std::string& name) const {
  return attributes_.count(name) > 0;
}

std::optional<AttributeValue> Attributes::getAttribute(const std::string& name) const {
  auto found = attributes_.find(name);
  if (found == attributes_.end()) return std::nullopt;
  return found->second;
}

SaveableAttributes::~SaveableAttributes() = default;

}  // namespace Ostrak
