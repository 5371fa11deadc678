#pragma once
// In-memory loaders, savers and storage bindings for the persistence tests,
// registered for the length of one test.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bundle/Binder.hpp"
#include "bundle/Bundle.hpp"
#include "bundle/LoaderControl.hpp"
#include "bundle/StorageTransformations.hpp"
#include "ostrak/Diagnostics.hpp"
#include "ostrak/Loader.hpp"
#include "ostrak/SaveRegistry.hpp"

namespace QuarilTest {

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;
using Quaril::Bundle;
using Quaril::BundlePtr;

/// A loader of "*.mem" files: the i-th file gives the grid named after it at
/// time i, unless a BundleLoaderProgress vetoes the slice. Names beginning
/// with "broken" fail with an error text.
class MemoryLoader : public Ostrak::Loader<Bundle> {
 public:
  std::string name() const override { return "memory"; }
  bool load(const StrongPtr<Ostrak::LoaderParameters>& request, ldrpar& target) override {
    ++runs;
    seenProgress = request->findInterface<Ostrak::LoaderProgress>();
    seenTarget = target.target;
    auto progress = Ostrak::dynamic_pointer_cast<Quaril::BundleLoaderProgress>(seenProgress);
    double time = 0.0;
    for (const std::string& file : request->getFilenames()) {
      if (file.starts_with("broken")) {
        request->setErrorText("damaged file " + file);
        return false;
      }
      if (!progress || progress->CreateSlice(time)) (*(*target.target)[time])[file];
      time += 1.0;
    }
    return true;
  }

  int runs = 0;
  StrongPtr<Ostrak::LoaderProgress> seenProgress;
  StrongPtr<Bundle> seenTarget;
};

/// Registers a loader for "*.mem" files while it lives.
struct LoaderRegistration {
  explicit LoaderRegistration(StrongPtr<Ostrak::Loader<Bundle>> registered) : loader(registered) {
    Ostrak::LoaderRegistry<Bundle>::add(loader, {"*.mem"});
  }
  ~LoaderRegistration() { Ostrak::LoaderRegistry<Bundle>::remove(loader); }
  StrongPtr<Ostrak::Loader<Bundle>> loader;
};

/// What the savers of one test saw.
struct SaveLog {
  struct Request {
    std::string filename;
    StrongPtr<Quaril::StorageTransformations> transformations;
    StrongPtr<Ostrak::LoaderProgress> progress;
    StrongPtr<Quaril::GridSaveParameters> grids;       // saves of some grids only
    StrongPtr<Quaril::Binder::Parameters> parameters;  // binds only
    size_t interfaces = 0;
  };
  std::vector<Request> saves;
  std::vector<Request> binds;
  int synchronizations = 0;
  bool answer = true;  // what the savers answer

  static Request record(const StrongPtr<Ostrak::InterfaceIterationParameter>& parameter) {
    auto request = Ostrak::dynamic_pointer_cast<Ostrak::SaveParameters>(parameter);
    return {request->getFilename(),
            request->findInterface<Quaril::StorageTransformations>(),
            request->findInterface<Ostrak::LoaderProgress>(),
            Ostrak::dynamic_pointer_cast<Quaril::GridSaveParameters>(request),
            Quaril::Binder::Parameters::of(request),
            request->numberOfInterfaces()};
  }
};

/// The storage of a bound bundle: counts synchronisations.
class MemoryBinding : public Quaril::StorageBinding {
 public:
  explicit MemoryBinding(std::shared_ptr<SaveLog> log) : log_(std::move(log)) {}
  int32_t synchronize(const Bundle&, const StrongPtr<Quaril::MemBase, Quaril::Cacheable>&,
                      Ostrak::Intercube&) override {
    return ++log_->synchronizations;
  }

 private:
  std::shared_ptr<SaveLog> log_;
};

/// A saver attached to one bundle, following the binding contract of
/// bundle/Binder.hpp: records saves, and binds its bundle to a MemoryBinding
/// on bind requests (status 1 for an existing file, 2 for a new one).
class MemorySaver : public Ostrak::Interface<MemorySaver> {
 public:
  MemorySaver(Bundle& bundle, std::shared_ptr<SaveLog> log)
      : bundle_(&bundle), log_(std::move(log)) {}

  bool apply_const(const StrongPtr<Ostrak::InterfaceIterationParameter>& request) const override {
    log_->saves.push_back(SaveLog::record(request));
    return log_->answer;
  }

  bool apply(const StrongPtr<Ostrak::InterfaceIterationParameter>& parameter) override {
    auto parameters = Quaril::Binder::Parameters::of(parameter);
    if (!parameters || !bundle_) return false;
    log_->binds.push_back(SaveLog::record(parameter));
    bundle_->setStorage(StrongPtr<Quaril::StorageBinding>(new MemoryBinding(log_)));
    auto request = Ostrak::dynamic_pointer_cast<Ostrak::SaveParameters>(parameter);
    request->setStatus(parameters->bindsExistingFile() ? 1 : 2);
    request->setText("bound to " + request->getFilename());
    return true;
  }

 private:
  WeakPtr<Bundle> bundle_;
  std::shared_ptr<SaveLog> log_;
};

/// Attaches a MemorySaver to every bundle made while it is registered.
class MemorySaverCreator : public Ostrak::SaveInterfaceCreator<Bundle> {
 public:
  StrongPtr<Ostrak::InterfaceBase> create(Bundle& bundle) const override {
    return StrongPtr<Ostrak::InterfaceBase>(new MemorySaver(bundle, log));
  }
  std::shared_ptr<SaveLog> log = std::make_shared<SaveLog>();
};

/// Registers a MemorySaverCreator while it lives; `log` is what its savers saw.
struct SaverRegistration {
  SaverRegistration() { Ostrak::SaveRegistry<Bundle>::add(creator); }
  ~SaverRegistration() { Ostrak::SaveRegistry<Bundle>::remove(creator); }
  StrongPtr<MemorySaverCreator> creator{new MemorySaverCreator};
  std::shared_ptr<SaveLog> log = creator->log;
};

/// A strong handle whose object is gone: it outlived the stack object it
/// named. The object core's report of that is swallowed.
template <class T, class Object, class... Arguments>
StrongPtr<T> deadHandle(const Arguments&... arguments) {
  auto previous = Ostrak::setDiagnosticsSink([](Ostrak::Diagnostic, const std::string&) {});
  StrongPtr<T> handle;
  {
    Object object(arguments...);
    handle = StrongPtr<T>(&object);
  }
  Ostrak::setDiagnosticsSink(std::move(previous));
  return handle;
}

}  // namespace QuarilTest
