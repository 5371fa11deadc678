#include "formats/hdf5/Format.hpp"

#include <filesystem>
#include <mutex>
#include <set>

#include "bundle/Binder.hpp"
#include "bundle/LoaderControl.hpp"
#include "formats/hdf5/detail/Reader.hpp"
#include "formats/hdf5/detail/Writer.hpp"
#include "ostrak/SaveRegistry.hpp"

namespace Quaril::H5 {

namespace {

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

bool isOurFileName(const std::string& filename) {
  for (const char* pattern : FilePatterns) {
    if (Ostrak::LoaderRegistryBase::matches(pattern, filename)) return true;
  }
  return false;
}

/// Runs `action`, turning whatever it throws into an error text.
template <class Action>
Outcome attempt(Action&& action) {
  try {
    action();
    return {true, ""};
  } catch (const detail::Failure& failure) {
    return {false, failure.what()};
  } catch (const std::bad_alloc&) {
    return {false, "out of memory"};
  } catch (const std::exception& error) {
    return {false, std::string("stopped by an exception: ") + error.what()};
  } catch (...) {
    return {false, "stopped by an exception"};
  }
}

/// The files a bundle was loaded from, kept on the bundle so that binding
/// to one of them does not read it a second time.
class LoadedFiles : public Ostrak::Interface<LoadedFiles> {
 public:
  static std::string key(const std::string& filename) {
    std::error_code error;
    auto canonical = std::filesystem::weakly_canonical(filename, error);
    return error ? filename : canonical.string();
  }
  std::set<std::string> files;
};

void recordLoaded(Bundle& bundle, const std::string& filename) {
  auto loaded = bundle.findInterface<LoadedFiles, LoadedFiles>();
  if (!loaded) {
    loaded = StrongPtr<LoadedFiles>(new LoadedFiles);
    bundle.addInterface(StrongPtr<Ostrak::InterfaceBase>(loaded));
  }
  loaded->files.insert(LoadedFiles::key(filename));
}

bool wasLoadedFrom(const Bundle& bundle, const std::string& filename) {
  auto loaded = bundle.findInterface<LoadedFiles, LoadedFiles>();
  return loaded && loaded->files.count(LoadedFiles::key(filename)) > 0;
}

class FileLoader : public Ostrak::Loader<Bundle> {
 public:
  std::string name() const override { return "HDF5 bundle"; }

  bool load(const StrongPtr<Ostrak::LoaderParameters>& request, ldrpar& target) override {
    if (!target.target) target.target = StrongPtr<Bundle>(new Bundle);
    auto progress = request->findInterface<Ostrak::LoaderProgress>();
    std::vector<std::shared_ptr<detail::Source>> sources;
    // Every file is checked before the bundle changes, so a bad file among
    // several leaves the bundle as it was.
    for (const std::string& filename : request->getFilenames()) {
      if (progress) progress->OpenFile(filename);
      Outcome opened = attempt([&] { sources.push_back(detail::Source::open(filename)); });
      if (!opened) {
        request->setErrorText(filename + ": " + opened.error);
        return false;
      }
    }
    for (const auto& source : sources) {
      Outcome attached = attempt([&] { detail::attachSource(*target.target, source, progress); });
      if (!attached) {
        request->setErrorText(source->path() + ": " + attached.error);
        return false;
      }
      recordLoaded(*target.target, source->path());
    }
    return true;
  }
};

/// The binding of a bundle to a file: every synchronisation writes the
/// bundle's whole state anew, atomically.
class FileBinding : public StorageBinding {
 public:
  FileBinding(std::string filename, StrongPtr<StorageTransformations> transformations)
      : filename_(std::move(filename)), transformations_(std::move(transformations)) {}

  int32_t synchronize(const Bundle& bundle, const StrongPtr<MemBase, Cacheable>&,
                      Ostrak::Intercube&) override {
    lastOutcome_ = save(bundle, filename_, transformations_);
    return lastOutcome_ ? 1 : 0;
  }
  const Outcome& lastOutcome() const noexcept { return lastOutcome_; }

 private:
  std::string filename_;
  StrongPtr<StorageTransformations> transformations_;
  Outcome lastOutcome_;
};

/// The saver attached to every bundle: one-time saves (apply_const) and
/// binding (apply).
class Saver : public Ostrak::Interface<Saver> {
 public:
  explicit Saver(Bundle& bundle) : bundle_(&bundle) {}

  bool apply_const(const StrongPtr<Ostrak::InterfaceIterationParameter>& parameter) const override {
    auto request = Ostrak::dynamic_pointer_cast<Ostrak::SaveParameters>(parameter);
    Bundle* bundle = bundle_.get();
    if (!request || !bundle || !isOurFileName(request->getFilename())) return false;
    auto grids = Ostrak::dynamic_pointer_cast<GridSaveParameters>(request);
    auto progress = request->findInterface<Ostrak::LoaderProgress>();
    Outcome saved =
        save(*bundle, request->getFilename(), request->findInterface<StorageTransformations>(),
             progress, grids ? grids->getGridNames() : StrongPtr<Ostrak::StringList>());
    return answer(*request, saved, progress);
  }

  bool apply(const StrongPtr<Ostrak::InterfaceIterationParameter>& parameter) override {
    auto request = Ostrak::dynamic_pointer_cast<Ostrak::SaveParameters>(parameter);
    auto parameters = Binder::Parameters::of(parameter);
    Bundle* bundle = bundle_.get();
    if (!request || !parameters || !bundle || !isOurFileName(request->getFilename())) {
      return false;
    }
    const std::string& filename = request->getFilename();
    Outcome bound = attempt([&] {
      if (parameters->bindsExistingFile()) {
        detail::require(std::filesystem::exists(filename),
                        "no such file; bindToNew makes a new one");
        if (!wasLoadedFrom(*bundle, filename) && !parameters->getLoadRequest()) {
          detail::attachSource(*bundle, detail::Source::open(filename), {});
          recordLoaded(*bundle, filename);
        }
      }
      StrongPtr<FileBinding> binding(
          new FileBinding(filename, request->findInterface<StorageTransformations>()));
      binding->synchronize(*bundle, {}, *bundle);
      detail::require(binding->lastOutcome().ok, binding->lastOutcome().error);
      bundle->setStorage(StrongPtr<StorageBinding>(binding));
    });
    return answer(*request, bound, request->findInterface<Ostrak::LoaderProgress>());
  }

 private:
  static bool answer(Ostrak::SaveParameters& request, const Outcome& outcome,
                     const StrongPtr<Ostrak::LoaderProgress>& progress) {
    request.setStatus(outcome ? 1 : -1);
    request.setText(outcome ? "" : request.getFilename() + ": " + outcome.error);
    if (!outcome && progress) progress->message(request.getText());
    return outcome.ok;
  }

  WeakPtr<Bundle, Ostrak::Ownable<Slice>::Container> bundle_;
};

class SaverCreator : public Ostrak::SaveInterfaceCreator<Bundle> {
 public:
  StrongPtr<Ostrak::InterfaceBase> create(Bundle& bundle) const override {
    return StrongPtr<Ostrak::InterfaceBase>(new Saver(bundle));
  }
};

}  // namespace

void registerFormat() {
  static std::once_flag once;
  std::call_once(once, [] {
    Ostrak::LoaderRegistry<Bundle>::add(StrongPtr<Ostrak::Loader<Bundle>>(new FileLoader),
                                        {std::begin(FilePatterns), std::end(FilePatterns)});
    Ostrak::SaveRegistry<Bundle>::add(
        StrongPtr<Ostrak::SaveInterfaceCreator<Bundle>>(new SaverCreator));
  });
}

Outcome load(BundlePtr& bundle, const std::list<std::string>& filenames,
             const StrongPtr<Ostrak::LoaderProgress>& progress) {
  bundle.create();
  StrongPtr<Ostrak::LoaderParameters> request(new Ostrak::LoaderParameters(filenames));
  request->addInterface(StrongPtr<Ostrak::InterfaceBase>(progress));
  bool ok = false;
  Bundle::load(ok, request, bundle);
  return {ok, ok ? "" : request->getErrorText()};
}

Outcome save(const Bundle& bundle, const std::string& filename,
             const StrongPtr<StorageTransformations>& transformations,
             const StrongPtr<Ostrak::LoaderProgress>& progress,
             const StrongPtr<Ostrak::StringList>& gridNames) {
  return attempt([&] {
    detail::writeBundle(bundle, filename, {transformations, progress, gridNames});
  });
}

Outcome check(const std::string& filename) {
  Outcome checked = attempt([&] { detail::checkSource(detail::Source::open(filename)); });
  if (!checked) checked.error = filename + ": " + checked.error;
  return checked;
}

}  // namespace Quaril::H5
