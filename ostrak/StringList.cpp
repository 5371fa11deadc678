#include "ostrak/StringList.hpp"

namespace Ostrak {

StringList::StringList(std::initializer_list<std::string> strings) {
  for (const std::string& text : strings) push_back(text);
}

StringList::StringList(const std::vector<std::string>& strings) {
  for (const std::string& text : strings) push_back(text);
}

StringList::~StringList() = default;

void StringList::push_back(const std::string& text) {
  strings_.push_back(text);
  lookup_.insert(text);
}

}  // namespace Ostrak
