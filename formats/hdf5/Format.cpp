#include "formats/hdf5/Format.hpp"

#include <filesystem>
#include <memory>
#include <mutex>

#include "bundle/Binder.hpp"
#include "bundle/LoaderControl.hpp"
#include "formats/hdf5/detail/Check.hpp"
#include "formats/hdf5/detail/Follow.hpp"
#include "formats/hdf5/detail/Problems.hpp"
#include "formats/hdf5/detail/Reader.hpp"
#include "formats/hdf5/detail/Series.hpp"
#include "formats/hdf5/detail/Stored.hpp"
#include "formats/hdf5/detail/Writer.hpp"
#include "formats/hdf5/detail/Xdmf.hpp"
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

class FileLoader : public Ostrak::Loader<Bundle> {
 public:
  std::string name() const override { return "HDF5 bundle"; }

  bool load(const StrongPtr<Ostrak::LoaderParameters>& request, ldrpar& target) override {
    if (!target.target) target.target = StrongPtr<Bundle>(new Bundle);
    auto progress = request->findInterface<Ostrak::LoaderProgress>();
    std::vector<detail::Opened> opened;
    // Every file is checked before the bundle changes, so a bad file among
    // several leaves the bundle as it was.
    for (const std::string& filename : request->getFilenames()) {
      if (progress) progress->OpenFile(filename);
      Outcome checked =
          detail::attempt([&] { opened.push_back(detail::openForLoading(filename)); });
      if (!checked) {
        request->setErrorText(filename + ": " + checked.error);
        return false;
      }
    }
    for (const detail::Opened& file : opened) {
      Outcome attached = detail::attempt([&] {
        detail::attachParts(*target.target, file.parts, progress,
                            detail::recordLoaded(*target.target, file.path), file.problems);
        if (file.journal) {
          detail::recordFollowed(*target.target, file.path, *file.journal, file.pool);
        }
      });
      if (!attached) {
        request->setErrorText(file.path + ": " + attached.error);
        return false;
      }
    }
    return true;
  }
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
    auto progress = request->findInterface<Ostrak::LoaderProgress>();
    Outcome bound = detail::attempt([&] {
      const bool existing = parameters->bindsExistingFile();
      detail::require(!existing || std::filesystem::exists(filename),
                      "no such file; bindToNew makes a new one");
      detail::bindSeries(*bundle, filename, existing,
                         request->findInterface<StorageTransformations>(), progress,
                         detail::loadedFrom(*bundle, filename));
    });
    return answer(*request, bound, progress);
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
    // The codecs' filters, also for other users of libhdf5 in this process.
    detail::Session session;
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
  return detail::attempt([&] {
    detail::require(!filename.empty(), "no file name");
    detail::WriteRequest request{transformations, progress, gridNames};
    if (!StorageOptions::of(transformations.get()).getWriteXdmf()) {
      return detail::writeBundle(bundle, filename, request);
    }
    detail::Index written;
    std::vector<std::string> structures;
    request.written = &written;
    request.structures = &structures;
    detail::DescriptorBeside descriptor(filename);
    request.whenComplete = [&] { descriptor.write(written, structures); };
    request.whenReplaced = [&] { descriptor.replace(); };
    detail::writeBundle(bundle, filename, request);
  });
}

std::vector<Problem> problems(const Bundle& bundle) {
  return detail::problemsOf(bundle);
}

Outcome lastSync(const Bundle& bundle) {
  std::string error;
  if (!detail::lastSyncOf(bundle.getStorage().get(), error)) {
    return {false, "not bound to a file of this format"};
  }
  return {error.empty(), error};
}

CheckReport checkFile(const std::string& filename,
                      const StrongPtr<Ostrak::LoaderProgress>& progress) {
  return detail::checkFile(filename, progress);
}

Outcome check(const std::string& filename) {
  const CheckReport report = detail::checkFile(filename, {});
  if (report.ok()) return {true, ""};
  const Problem& first = report.problems.front();
  // Named as the caller named it, also when a part of a series is at fault.
  return {false, (first.file == filename ? "" : filename + ": ") + first.text()};
}

Outcome writeXdmf(const std::string& filename) {
  Outcome written = detail::attempt([&] {
    if (detail::isJournal(filename)) return detail::writeSeriesDescriptor(filename);
    detail::writeFileDescriptor(filename);
  });
  if (!written) written.error = filename + ": " + written.error;
  return written;
}

}  // namespace Quaril::H5
