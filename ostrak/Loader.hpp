#pragma once
// Loading: requests, progress sinks, loaders and the loader registry.

#include <list>
#include <mutex>
#include <string>
#include <typeinfo>
#include <vector>

#include "ostrak/Intercube.hpp"
#include "ostrak/ReferenceBase.hpp"

namespace Ostrak {

/// A load request: the files to read, interfaces attached by the caller (a
/// progress sink, for example) and an error text that loaders fill.
class LoaderParameters : public ReferenceBase<LoaderParameters>, public Intercube {
 public:
  explicit LoaderParameters(const std::list<std::string>& filenames);
  explicit LoaderParameters(const std::string& filename);
  ~LoaderParameters() override;

  const std::list<std::string>& getFilenames() const noexcept { return filenames_; }
  /// The first file name, or the empty string.
  std::string getFilename() const;
  const std::string& getErrorText() const noexcept { return errorText_; }
  void setErrorText(const std::string& text) { errorText_ = text; }
  bool hasError() const noexcept { return !errorText_.empty(); }

 private:
  std::list<std::string> filenames_;
  std::string errorText_;
};

/// A progress sink that loaders report to. Loaders may run on other threads,
/// so implementations guard their own state with `mutex`.
class LoaderProgress : public Interface<LoaderProgress> {
 public:
  LoaderProgress() = default;
  ~LoaderProgress() override;

  /// A file is being opened.
  virtual void OpenFile(const std::string& filename);
  /// The registry is about to try the loader `loaderName`; false skips it.
  virtual bool tryLoader(const std::string& loaderName);
  /// `done` of `total` units of work are finished.
  virtual void progress(unsigned long long done, unsigned long long total);
  /// A heartbeat while no measurable progress is made; true while the sink
  /// wants the load to go on.
  virtual bool busy();
  /// A message for the user.
  virtual void message(const std::string& text);

  std::mutex mutex;
};

/// A loader of some target type. Loaders are reference counted and held by
/// the registry.
class LoaderBase : public ReferenceBase<LoaderBase> {
 public:
  /// The target block a loader fills; `Loader<T>::ldrpar` holds the target.
  struct ldrpar {
    virtual ~ldrpar();
  };

  ~LoaderBase() override;
  /// A short name used in error texts and by `LoaderProgress::tryLoader`.
  virtual std::string name() const = 0;
  /// Loads the request into `target`. False (with an error text on the
  /// request) on failure; may throw, the registry turns that into false.
  virtual bool loadAny(const StrongPtr<LoaderParameters>& request, ldrpar& target) = 0;
};

/// A loader of objects of type `T`.
template <class T>
class Loader : public LoaderBase {
 public:
  /// Holds one strong handle on the target; a loader may replace it.
  struct ldrpar : LoaderBase::ldrpar {
    ldrpar() = default;
    explicit ldrpar(const StrongPtr<T>& target) : target(target) {}
    StrongPtr<T> target;
  };

  /// Loads the request into `target.target`.
  virtual bool load(const StrongPtr<LoaderParameters>& request, ldrpar& target) = 0;

  bool loadAny(const StrongPtr<LoaderParameters>& request, LoaderBase::ldrpar& target) final {
    auto* typed = dynamic_cast<ldrpar*>(&target);
    if (!typed) {
      request->setErrorText(name() + ": the target is not of the loader's type");
      return false;
    }
    return load(request, *typed);
  }
};

/// The process-wide registry of loaders, by target type and file pattern.
class LoaderRegistryBase {
 public:
  /// Registers `loader` for targets of `type` and file names that match one
  /// of `patterns` (shell patterns with `*` and `?`, matched against the base
  /// name, letters compared without case). No patterns means every file.
  /// Later registrations are tried after earlier ones.
  static void registerLoader(const std::type_info& type, const StrongPtr<LoaderBase>& loader,
                             const std::vector<std::string>& patterns);
  /// Removes `loader` from the registry of `type`. Returns whether it was there.
  static bool unregisterLoader(const std::type_info& type, const StrongPtr<LoaderBase>& loader);
  /// Number of loaders registered for `type`.
  static size_t numberOfLoaders(const std::type_info& type);

  /// Tries, in registration order, every loader registered for `type` whose
  /// patterns accept all file names of the request, until one succeeds.
  /// Returns false when none does, with an error text on the request that
  /// names the file and the reason. Exceptions of loaders become false.
  static bool domain_load(const StrongPtr<LoaderParameters>& request, LoaderBase::ldrpar& block,
                          const std::type_info& type);

  /// Whether the shell pattern `pattern` matches `filename`'s base name.
  static bool matches(const std::string& pattern, const std::string& filename);
};

/// Typed registration helpers.
template <class T>
struct LoaderRegistry {
  static void add(const StrongPtr<Loader<T>>& loader, const std::vector<std::string>& patterns) {
    LoaderRegistryBase::registerLoader(typeid(T), StrongPtr<LoaderBase>(loader), patterns);
  }
  static bool remove(const StrongPtr<Loader<T>>& loader) {
    return LoaderRegistryBase::unregisterLoader(typeid(T), StrongPtr<LoaderBase>(loader));
  }
};

}  // namespace Ostrak
