#include "ostrak/TypeInfo.hpp"

#include <cxxabi.h>
#include <cstdlib>
#include <memory>

namespace Ostrak {

std::string TypeInfo::readableName() const {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(
      abi::__cxa_demangle(type_->name(), nullptr, nullptr, &status), std::free);
  return status == 0 && demangled ? std::string(demangled.get()) : std::string(type_->name());
}

}  // namespace Ostrak
