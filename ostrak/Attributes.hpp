#pragma once
// Named, typed values attached to objects of the data model.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace Ostrak {

/// One attribute value: an integer, a double, a string or a vector of them.
using AttributeValue = std::variant<int64_t, double, std::string, std::vector<int64_t>,
                                    std::vector<double>, std::vector<std::string>>;

/// Named attributes, ordered by name.
class Attributes {
 public:
  Attributes() = default;
  Attributes(const Attributes&) = default;
  Attributes& operator=(const Attributes&) = default;
  virtual ~Attributes();

  /// Sets (or replaces) the attribute `name`.
  void setAttribute(const std::string& name, AttributeValue value);
  /// Removes `name`. Returns whether it existed.
  bool removeAttribute(const std::string& name);
  bool hasAttribute(const std::string& name) const;
  /// The value of `name`, or nothing when absent.
  std::optional<AttributeValue> getAttribute(const std::string& name) const;
  /// The value of `name` as `T`, or nothing when absent or of another type.
  template <class T>
  std::optional<T> getAttributeAs(const std::string& name) const {
    auto found = attributes_.find(name);
    if (found == attributes_.end()) return std::nullopt;
    if (const T* value = std::get_if<T>(&found->second)) return *value;
    return std::nullopt;
  }
  const std::map<std::string, AttributeValue>& attributes() const noexcept { return attributes_; }
  size_t numberOfAttributes() const noexcept { return attributes_.size(); }

 protected:
  /// Called after an attribute was set or removed.
  virtual void attributesChanged() {}

 private:
  std::map<std::string, AttributeValue> attributes_;
};

/// Attributes that savers write out with their object.
class SaveableAttributes : public Attributes {
 public:
  SaveableAttributes() = default;
  ~SaveableAttributes() override;
};

}  // namespace Ostrak
