#include "formats/hdf5/Catalog.hpp"

#include <algorithm>
#include <set>

#include "bundle/LoaderControl.hpp"
#include "formats/hdf5/detail/Series.hpp"

namespace Quaril::H5 {

namespace {

/// Lets the loader make the slices at the chosen times only.
class ChosenTimes : public BundleLoaderProgress {
 public:
  explicit ChosenTimes(const std::vector<double>& times) : times_(times.begin(), times.end()) {}
  bool CreateSlice(double time) override { return times_.count(time) > 0; }

 private:
  std::set<double> times_;
};

}  // namespace

struct Catalog::State {
  detail::Opened opened;
};

Catalog::Catalog(std::unique_ptr<State> state) : state_(std::move(state)) {}
Catalog::~Catalog() = default;

Outcome Catalog::open(const std::string& path, std::shared_ptr<Catalog>& catalog) {
  auto state = std::make_unique<State>();
  Outcome opened = detail::attempt([&] { state->opened = detail::openForLoading(path); });
  if (!opened) {
    opened.error = path + ": " + opened.error;  // as load names the file
    return opened;
  }
  catalog.reset(new Catalog(std::move(state)));
  return opened;
}

const std::string& Catalog::path() const noexcept {
  return state_->opened.path;
}

std::vector<std::string> Catalog::gridNames() const {
  std::set<std::string> names;
  for (const detail::Part& part : state_->opened.parts) {
    names.insert(part.index.names.begin(), part.index.names.end());
  }
  return {names.begin(), names.end()};
}

std::vector<double> Catalog::times() const {
  std::set<double> times;
  for (const detail::Part& part : state_->opened.parts) {
    times.insert(part.index.times.begin(), part.index.times.end());
  }
  return {times.begin(), times.end()};
}

std::vector<double> Catalog::timesOf(const std::string& name) const {
  std::vector<double> times;
  for (const detail::Part& part : state_->opened.parts) {
    const auto& names = part.index.names;
    const auto found = std::find(names.begin(), names.end(), name);
    if (found == names.end()) continue;
    const auto row = static_cast<uint64_t>(found - names.begin());
    for (const detail::IndexEntry& entry : part.index.entries) {
      if (entry.nameRow == row) times.push_back(part.index.times[entry.timeRow]);
    }
  }
  // A series' parts may each hold the grid at a time.
  std::sort(times.begin(), times.end());
  times.erase(std::unique(times.begin(), times.end()), times.end());
  return times;
}

Outcome Catalog::load(BundlePtr& bundle, const std::vector<double>& times) const {
  BundlePtr made;
  made.create();
  const Ostrak::StrongPtr<Ostrak::LoaderProgress> chosen(new ChosenTimes(times));
  Outcome loaded = detail::attempt([&] {
    detail::attachParts(*made, state_->opened.parts, chosen, nullptr, state_->opened.problems);
  });
  if (!loaded) {
    loaded.error = state_->opened.path + ": " + loaded.error;
    return loaded;
  }
  bundle = made;
  return loaded;
}

}  // namespace Quaril::H5
