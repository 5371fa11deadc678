#pragma once
// The base of objects that bind data to a file.

#include <string>

#include "ostrak/ReferenceBase.hpp"

namespace Quaril {

/// Something bound to a file, named by the file's name. The formats derive
/// the actual binding.
class BinderBase : public Ostrak::ReferenceBase<BinderBase> {
 public:
  explicit BinderBase(const std::string& filename) : filename_(filename) {}
  ~BinderBase() override;

  const std::string& getFilename() const noexcept { return filename_; }

 private:
  std::string filename_;
};

}  // namespace Quaril
