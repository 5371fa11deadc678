#include "bundle/Binder.hpp"

#include "ostrak/SaveRegistry.hpp"

namespace Quaril {

Binder::Parameters::Parameters(bool existingFile) : existingFile_(existingFile) {}

Binder::Parameters::Parameters(const Ostrak::StrongPtr<Ostrak::LoaderParameters>& loadRequest,
                               bool existingFile)
    : existingFile_(existingFile), loadRequest_(loadRequest) {}

Binder::Parameters::~Parameters() = default;

Ostrak::StrongPtr<Binder::Parameters> Binder::Parameters::of(
    const Ostrak::StrongPtr<Ostrak::InterfaceIterationParameter>& request) {
  auto saveRequest = Ostrak::dynamic_pointer_cast<Ostrak::SaveParameters>(request);
  if (!saveRequest) return {};
  return saveRequest->findInterface<Parameters>();
}

Binder::Binder(const std::string& filename) : BinderBase(filename) {}

Binder::~Binder() = default;

}  // namespace Quaril
