#include "formats/hdf5/detail/Stored.hpp"

#include <filesystem>

#include "grid/GridWalk.hpp"

namespace Quaril::H5::detail {

namespace {

/// The files a bundle was loaded from, each with what was read from it.
class LoadedFiles : public Ostrak::Interface<LoadedFiles> {
 public:
  static std::string key(const std::string& filename) {
    std::error_code error;
    auto canonical = std::filesystem::weakly_canonical(filename, error);
    return error ? filename : canonical.string();
  }
  std::map<std::string, std::shared_ptr<Stored>> files;
};

}  // namespace

Stored::~Stored() {
  for (auto& [block, entry] : entries_) block->releaseWeak();
}

bool Stored::contains(const Ostrak::ReferenceBlock* block) const {
  std::lock_guard lock(mutex_);
  auto found = entries_.find(const_cast<Ostrak::ReferenceBlock*>(block));
  return found != entries_.end() && block->alive();
}

bool Stored::sameAttributes(const Ostrak::ReferenceBlock* block,
                            const Ostrak::Attributes& attributes) const {
  std::lock_guard lock(mutex_);
  auto found = entries_.find(const_cast<Ostrak::ReferenceBlock*>(block));
  if (found == entries_.end() || !found->second.hasAttributes) {
    return attributes.numberOfAttributes() == 0;
  }
  return found->second.attributes == attributes.attributes();
}

bool Stored::sameBundleAttributes(const Ostrak::Attributes& attributes) const {
  std::lock_guard lock(mutex_);
  return bundleAttributes_ == attributes.attributes();
}

void Stored::add(Ostrak::ReferenceBlock* block, const Ostrak::Attributes* attributes) {
  if (!block) return;
  std::lock_guard lock(mutex_);
  Entry& entry = listed(block);
  if (attributes) {
    entry.attributes = attributes->attributes();
    entry.hasAttributes = true;
  }
  sweepWhenDoubled();
}

void Stored::addAll(const std::vector<Ostrak::ReferenceBlock*>& blocks) {
  std::lock_guard lock(mutex_);
  for (Ostrak::ReferenceBlock* block : blocks) {
    if (block) listed(block);
  }
  sweepWhenDoubled();
}

Stored::Entry& Stored::listed(Ostrak::ReferenceBlock* block) {
  auto [entry, added] = entries_.try_emplace(block);
  if (added) block->acquireWeak();
  return entry->second;
}

void Stored::sweepWhenDoubled() {
  // Dead entries go once the list has doubled since the last sweep, so a
  // long run that releases what it wrote keeps the list at its live size.
  if (entries_.size() > 2 * liveAtLastSweep_ + 1024) dropDead();
}

void Stored::addGrid(const Ostrak::StrongPtr<Grid>& grid) {
  if (!grid) return;
  add(grid.referenceBlock(), grid.get());
  forEachField(*grid, [&](const Ostrak::StrongPtr<Field>& field) {
    add(field.referenceBlock());
    forEachFragment(*field, [&](const auto&, const Ostrak::StrongPtr<CreativeArrayBase>& creator) {
      if (creator) add(creator.referenceBlock());
    });
  });
}

void Stored::setBundleAttributes(const Ostrak::Attributes& attributes) {
  std::lock_guard lock(mutex_);
  bundleAttributes_ = attributes.attributes();
}

void Stored::dropDead() {
  for (auto entry = entries_.begin(); entry != entries_.end();) {
    if (entry->first->alive()) {
      ++entry;
      continue;
    }
    entry->first->releaseWeak();
    entry = entries_.erase(entry);
  }
  liveAtLastSweep_ = entries_.size();
}

std::shared_ptr<Stored> recordLoaded(Bundle& bundle, const std::string& filename) {
  auto loaded = bundle.findInterface<LoadedFiles, LoadedFiles>();
  if (!loaded) {
    loaded = Ostrak::StrongPtr<LoadedFiles>(new LoadedFiles);
    bundle.addInterface(Ostrak::StrongPtr<Ostrak::InterfaceBase>(loaded));
  }
  auto& stored = loaded->files[LoadedFiles::key(filename)];
  if (!stored) stored = std::make_shared<Stored>();
  return stored;
}

std::shared_ptr<Stored> loadedFrom(const Bundle& bundle, const std::string& filename) {
  auto loaded = bundle.findInterface<LoadedFiles, LoadedFiles>();
  if (!loaded) return {};
  auto found = loaded->files.find(LoadedFiles::key(filename));
  return found == loaded->files.end() ? nullptr : found->second;
}

}  // namespace Quaril::H5::detail
