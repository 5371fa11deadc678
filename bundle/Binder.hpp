#pragma once
// Binding a bundle to a file.
//
// Bundle::bindTo and Bundle::bindToNew offer a save request carrying
// Binder::Parameters to every interface attached to the bundle, through the
// non-const interface iteration (InterfaceBase::apply). One-time saves use
// the const iteration (apply_const) and carry no Binder::Parameters, so a
// saver tells the two apart by the method called.
//
// The contract of a saver that supports binding:
//  - Its SaveInterfaceCreator<Bundle>::create(bundle) keeps a weak handle on
//    `bundle` in the saver (never a strong one: the bundle holds the saver,
//    and a strong handle back would keep both alive for ever).
//  - Its apply(request) finds the parameters with Binder::Parameters::of,
//    opens the file (parameters->bindsExistingFile(): keep what the file
//    holds; false: start a new file), makes a StorageBinding for it and
//    installs it with bundle->setStorage(binding). It reports on the request
//    (SaveParameters::setStatus, setText) and answers true when it bound the
//    bundle; Bundle::bindTo hands the status and text back to the caller.
//  - The binding holds no strong handle on the bundle; it is handed the
//    bundle on every call of StorageBinding::synchronize:
//      synchronize(bundle, null, empty Intercube)  write the bundle's state
//                                                   (Bundle::sync, and once at
//                                                   the bundle's end of life);
//      synchronize(bundle, memory, target)          write one memory object
//                                                   that `target` takes over
//                                                   (Bundle::processOwnership).
//    It answers non-zero when the state reached storage and 0 when it did
//    not. At the end of life the bundle is still whole but no strong handle
//    on it can be taken any more; the binding is dropped right after.
//
// A loader that opened a file and wants the bundle bound to it may pass its
// request along: bindTo(name, StrongPtr<InterfaceBase>(new
// Binder::Parameters(request, true))), so the saver can reuse what the loader
// opened.

#include <string>

#include "field/BinderBase.hpp"
#include "ostrak/Intercube.hpp"
#include "ostrak/Loader.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Quaril {

/// Something bound to the file of a given name.
class Binder : public BinderBase {
 public:
  /// The parameters of a bind request, attached to it under the type
  /// Binder::Parameters.
  class Parameters : public Ostrak::Interface<Parameters> {
   public:
    /// `existingFile`: true to bind to the file as it is (the default of
    /// Bundle::bindTo), false to write a new file (Bundle::bindToNew).
    explicit Parameters(bool existingFile);
    /// The same, with the load request through which the bundle was read.
    Parameters(const Ostrak::StrongPtr<Ostrak::LoaderParameters>& loadRequest, bool existingFile);
    ~Parameters() override;

    /// Whether the binding keeps what the file holds (true) or starts a new
    /// file (false).
    bool bindsExistingFile() const noexcept { return existingFile_; }
    /// The load request that came with the binding; null when none did.
    const Ostrak::StrongPtr<Ostrak::LoaderParameters>& getLoadRequest() const noexcept {
      return loadRequest_;
    }

    /// The parameters carried by `request` when it is a bind request; null
    /// for any other request.
    static Ostrak::StrongPtr<Parameters> of(
        const Ostrak::StrongPtr<Ostrak::InterfaceIterationParameter>& request);

   private:
    bool existingFile_;
    Ostrak::StrongPtr<Ostrak::LoaderParameters> loadRequest_;
  };

  explicit Binder(const std::string& filename);
  ~Binder() override;
};

}  // namespace Quaril
