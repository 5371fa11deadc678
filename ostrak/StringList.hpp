#pragma once
// A reference-counted list of strings with a fast membership test.

#include <initializer_list>
#include <string>
#include <unordered_set>
#include <vector>

#include "ostrak/ReferenceBase.hpp"

namespace Ostrak {

/// Strings in insertion order; duplicates are kept in the order, but
/// `contains` answers by exact byte comparison in constant time.
class StringList : public ReferenceBase<StringList> {
 public:
  StringList() = default;
  StringList(std::initializer_list<std::string> strings);
  explicit StringList(const std::vector<std::string>& strings);
  ~StringList() override;

  void push_back(const std::string& text);
  bool contains(const std::string& text) const { return lookup_.count(text) > 0; }
  size_t size() const noexcept { return strings_.size(); }
  bool empty() const noexcept { return strings_.empty(); }
  const std::string& operator[](size_t index) const { return strings_[index]; }
  std::vector<std::string>::const_iterator begin() const noexcept { return strings_.begin(); }
  std::vector<std::string>::const_iterator end() const noexcept { return strings_.end(); }

 private:
  std::vector<std::string> strings_;
  std::unordered_set<std::string> lookup_;
};

}  // namespace Ostrak
