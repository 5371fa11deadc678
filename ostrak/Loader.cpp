#include "ostrak/Loader.hpp"

#include <algorithm>
#include <cctype>
#include <exception>
#include <map>

#include "ostrak/TypeInfo.hpp"

namespace Ostrak {

LoaderParameters::LoaderParameters(const std::list<std::string>& filenames)
    : filenames_(filenames) {}

LoaderParameters::LoaderParameters(const std::string& filename) : filenames_{filename} {}

LoaderParameters::~LoaderParameters() = default;

std::string LoaderParameters::getFilename() const {
  return filenames_.empty() ? std::string() : filenames_.front();
}

LoaderProgress::~LoaderProgress() = default;
void LoaderProgress::OpenFile(const std::string&) {}
bool LoaderProgress::tryLoader(const std::string&) {
  return true;
}
void LoaderProgress::progress(unsigned long long, unsigned long long) {}
bool LoaderProgress::busy() {
  return true;
}
void LoaderProgress::message(const std::string&) {}

LoaderBase::ldrpar::~ldrpar() = default;
LoaderBase::~LoaderBase() = default;

namespace {

struct Registration {
  StrongPtr<LoaderBase> loader;
  std::vector<std::string> patterns;
};

struct Registry {
  std::mutex mutex;
  std::map<TypeInfo, std::vector<Registration>> loaders;
};

Registry& registry() {
  static Registry instance;
  return instance;
}

std::string baseName(const std::string& filename) {
  size_t slash = filename.find_last_of('/');
  return slash == std::string::npos ? filename : filename.substr(slash + 1);
}

bool globMatch(const char* pattern, const char* text) {
  // Iterative matcher with one backtrack point for the last '*'.
  const char* starPattern = nullptr;
  const char* starText = nullptr;
  while (*text) {
    if (*pattern == '*') {
      starPattern = ++pattern;
      starText = text;
    } else if (*pattern == '?' || std::tolower(static_cast<unsigned char>(*pattern)) ==
                                      std::tolower(static_cast<unsigned char>(*text))) {
      ++pattern;
      ++text;
    } else if (starPattern) {
      pattern = starPattern;
      text = ++starText;
    } else {
      return false;
    }
  }
  while (*pattern == '*') ++pattern;
  return *pattern == '\0';
}

bool accepts(const Registration& registration, const std::list<std::string>& filenames) {
  if (registration.patterns.empty()) return true;
  return std::all_of(filenames.begin(), filenames.end(), [&](const std::string& filename) {
    return std::any_of(
        registration.patterns.begin(), registration.patterns.end(),
        [&](const std::string& pattern) { return LoaderRegistryBase::matches(pattern, filename); });
  });
}

std::string quotedFiles(const std::list<std::string>& filenames) {
  std::string text;
  for (const std::string& filename : filenames) {
    if (!text.empty()) text += ", ";
    text += "'" + filename + "'";
  }
  return text;
}

}  // namespace

bool LoaderRegistryBase::matches(const std::string& pattern, const std::string& filename) {
  return globMatch(pattern.c_str(), baseName(filename).c_str());
}

void LoaderRegistryBase::registerLoader(const std::type_info& type,
                                        const StrongPtr<LoaderBase>& loader,
                                        const std::vector<std::string>& patterns) {
  if (!loader) return;
  std::lock_guard lock(registry().mutex);
  registry().loaders[TypeInfo(type)].push_back(Registration{loader, patterns});
}

bool LoaderRegistryBase::unregisterLoader(const std::type_info& type,
                                          const StrongPtr<LoaderBase>& loader) {
  std::lock_guard lock(registry().mutex);
  auto found = registry().loaders.find(TypeInfo(type));
  if (found == registry().loaders.end()) return false;
  auto& list = found->second;
  auto removed = std::remove_if(list.begin(), list.end(), [&](const Registration& registration) {
    return registration.loader == loader;
  });
  bool any = removed != list.end();
  list.erase(removed, list.end());
  return any;
}

size_t LoaderRegistryBase::numberOfLoaders(const std::type_info& type) {
  std::lock_guard lock(registry().mutex);
  auto found = registry().loaders.find(TypeInfo(type));
  return found == registry().loaders.end() ? 0 : found->second.size();
}

bool LoaderRegistryBase::domain_load(const StrongPtr<LoaderParameters>& request,
                                     LoaderBase::ldrpar& block, const std::type_info& type) {
  if (!request) return false;
  const std::list<std::string>& filenames = request->getFilenames();
  if (filenames.empty()) {
    request->setErrorText("nothing to load: the request names no file");
    return false;
  }

  std::vector<Registration> candidates;
  {
    std::lock_guard lock(registry().mutex);
    auto found = registry().loaders.find(TypeInfo(type));
    if (found != registry().loaders.end()) {
      for (const Registration& registration : found->second) {
        if (accepts(registration, filenames)) candidates.push_back(registration);
      }
    }
  }
  if (candidates.empty()) {
    request->setErrorText("cannot load " + quotedFiles(filenames) + ": no loader for " +
                          TypeInfo(type).readableName() + " accepts this file name");
    return false;
  }

  StrongPtr<LoaderProgress> progress = request->findInterface<LoaderProgress>();
  std::string reasons;
  for (const Registration& registration : candidates) {
    // Everything a loader or the progress sink runs may throw; none of it
    // may escape.
    std::string loaderName = "a loader";
    std::string reason;
    try {
      loaderName = registration.loader->name();
      if (progress && !progress->tryLoader(loaderName)) continue;
      request->setErrorText("");
      if (registration.loader->loadAny(request, block)) return true;
      reason = request->getErrorText();
    } catch (const std::exception& error) {
      reason = error.what();
    } catch (const char* text) {
      reason = text ? text : "unknown error";
    } catch (...) {
      reason = "unknown exception";
    }
    if (reason.empty()) reason = "failed without a reason";
    if (!reasons.empty()) reasons += "; ";
    reasons += loaderName + ": " + reason;
  }
  if (reasons.empty()) reasons = "every loader was declined by the progress sink";
  request->setErrorText("cannot load " + quotedFiles(filenames) + ": " + reasons);
  return false;
}

}  // namespace Ostrak
