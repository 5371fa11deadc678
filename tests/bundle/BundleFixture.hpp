#pragma once
// Shared fixtures of the bundle tests, also meant for format tests: a sample
// bundle with every mesh kind over several times, recording slice loaders,
// and in-memory loaders, savers and storage bindings.

#include <memory>
#include <string>
#include <vector>

#include "bundle/Binder.hpp"
#include "bundle/Bundle.hpp"
#include "bundle/GridSelector.hpp"
#include "bundle/LoaderControl.hpp"
#include "bundle/StorageTransformations.hpp"
#include "grid/GridConstructors.hpp"
#include "ostrak/Diagnostics.hpp"
#include "ostrak/Loader.hpp"
#include "ostrak/SaveRegistry.hpp"

namespace Quaril::Testing {

using Pelorn::PhysicalSpace::point;
using Pelorn::PhysicalSpace::tvector;

/// A bundle with the grid `name`, without skeletons, at each of `times`.
inline BundlePtr bundleWith(const std::vector<double>& times, const std::string& name) {
  BundlePtr bundle;
  bundle.create();
  for (double t : times) (*(*bundle)[t])[name];
  return bundle;
}

/// The grid `name` in the slice at `t`, both made when missing.
inline Grid& gridIn(const BundlePtr& bundle, double t, const std::string& name) {
  return *(*(*bundle)[t])[name];
}

/// The sample data set. All fields are in the default Cartesian chart, vertex
/// fields next to "Positions" on the skeleton (0, 0), cell fields on the cells.
///
///   time "uniform" 3x3x3,        "curvilinear" 2x2x1  "points" 3 points  "surface" 4 points,
///        spacing 1                                                       2 triangles
///   1    density: double,        -                    mass: double       area (cells): float
///        flags: int32
///   2    density: double; levels temperature: float,  -                  -
///        1, 2 (factors 2, 4);    pressure (cells):
///        density: double on 1    double
///   3    -                       temperature: float   mass: double       -
///   4    velocity: tvector       -                    -                  area (cells): float
///
/// Values: density at vertex i is t + i / 100 (0 on level 1), mass is t * (i + 1),
/// the others are constant (flags 7, temperature 20, pressure 1e5, area 0.5,
/// velocity (1, 0, 0)).
inline BundlePtr makeSampleBundle() {
  BundlePtr bundle;
  bundle.create();
  auto density = [](double t, size_t n) {
    std::vector<double> values(n);
    for (size_t i = 0; i < n; ++i) values[i] = t + i / 100.0;
    return values;
  };
  auto uniform = [&](double t) -> Grid& {
    Grid& grid = gridIn(bundle, t, "uniform");
    makeUniformGrid(grid, {3, 3, 3}, {0, 0, 0}, {1, 1, 1});
    return grid;
  };
  Grid& first = uniform(1);
  addVertexField(first, "density", density(1, 27));
  addVertexField(first, "flags", std::vector<int32_t>(27, 7));

  Grid& refined = uniform(2);
  addVertexField(refined, "density", density(2, 27));
  addRefinementLevels(refined, 2);
  StrongPtr<Skeleton> level1 = refined.findIsotropicRefinementFactor(2, 0);
  StrongPtr<Field> fine = Field::create<double>();
  fine->setCreator(StrongPtr<CreativeArrayBase>(
      new MemCreator(MemArray<1, double>::create(DynamicSize{level1->getNumberOfElements()}))));
  refined.makeCartesianRepresentation(level1)->setField("density", fine);

  addVertexField(uniform(4), "velocity", std::vector<tvector>(27, tvector{1, 0, 0}));

  for (double t : {2.0, 3.0}) {
    Grid& curved = gridIn(bundle, t, "curvilinear");
    makeCurvilinearGrid(curved, {2, 2, 1}, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1.5, 0}});
    addVertexField(curved, "temperature", std::vector<float>(4, 20.f));
  }
  addCellField(gridIn(bundle, 2, "curvilinear"), "pressure", std::vector<double>(1, 1e5));

  for (double t : {1.0, 3.0}) {
    Grid& points = gridIn(bundle, t, "points");
    makePointCloud(points, {{0, 0, 0}, {1, 1, 1}, {2, 0, 1}});
    addVertexField(points, "mass", std::vector<double>{t, 2 * t, 3 * t});
  }
  for (double t : {1.0, 4.0}) {
    Grid& surface = gridIn(bundle, t, "surface");
    makeTriangleSurface(surface, {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}},
                        {{0, 1, 2}, {1, 3, 2}});
    addCellField(surface, "area", std::vector<float>(2, 0.5f));
  }
  return bundle;
}

/// A slice loader that counts its runs and may create the grid `grid`.
struct RecordingLoader : Slice::Loader {
  RecordingLoader(int& runs, std::string grid) : runs(runs), grid(std::move(grid)) {}
  bool load(const WeakPtr<Slice>& slice) override {
    ++runs;
    if (!grid.empty() && slice) (*slice.get())[grid];
    return true;
  }
  int& runs;
  std::string grid;
};

inline void addRecordingLoader(const SlicePtr& slice, int& runs, const std::string& grid = "") {
  slice->addLoader(StrongPtr<Slice::Loader>(new RecordingLoader(runs, grid)));
}

/// A storage binding that counts synchronisations.
struct CountingStorage : StorageBinding {
  explicit CountingStorage(int& calls) : calls(calls) {}
  int32_t synchronize(const Bundle&, const StrongPtr<MemBase, Cacheable>&,
                      Ostrak::Intercube&) override {
    return ++calls;
  }
  int& calls;
};

/// A loader of "*.mem" files, registered while it lives: the i-th file gives
/// the grid named after it at time i, unless a BundleLoaderProgress declines
/// the slice. Files whose name begins with "broken" fail with an error text.
class MemoryLoader : public Ostrak::Loader<Bundle> {
 public:
  std::string name() const override { return "memory"; }
  bool load(const StrongPtr<Ostrak::LoaderParameters>& request, ldrpar& target) override {
    ++runs;
    seenProgress = request->findInterface<Ostrak::LoaderProgress>();
    seenTarget = target.target;
    auto progress = Ostrak::dynamic_pointer_cast<BundleLoaderProgress>(seenProgress);
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

struct LoaderRegistration {
  LoaderRegistration() { Ostrak::LoaderRegistry<Bundle>::add(loader, {"*.mem"}); }
  ~LoaderRegistration() { Ostrak::LoaderRegistry<Bundle>::remove(loader); }
  StrongPtr<MemoryLoader> loader{new MemoryLoader};
};

/// While it lives, every bundle made gets a saver that keeps the save and bind
/// requests it is offered and, following the binding contract of
/// bundle/Binder.hpp, binds its bundle to a CountingStorage (status 1 for an
/// existing file, 2 for a new one).
struct SaverRegistration {
  using Requests = std::vector<StrongPtr<Ostrak::SaveParameters>>;
  struct Log {
    Requests saves, binds;
    int created = 0, synchronizations = 0;
    bool answer = true;  // what the savers answer to a save
  };
  class Saver : public Ostrak::Interface<Saver> {
   public:
    Saver(Bundle& bundle, std::shared_ptr<Log> log) : bundle_(&bundle), log_(std::move(log)) {}
    bool apply_const(const StrongPtr<Ostrak::InterfaceIterationParameter>& request) const override {
      log_->saves.push_back(Ostrak::dynamic_pointer_cast<Ostrak::SaveParameters>(request));
      return log_->answer;
    }
    bool apply(const StrongPtr<Ostrak::InterfaceIterationParameter>& parameter) override {
      auto parameters = Binder::Parameters::of(parameter);
      auto request = Ostrak::dynamic_pointer_cast<Ostrak::SaveParameters>(parameter);
      if (!parameters || !request || !bundle_) return false;
      log_->binds.push_back(request);
      bundle_->setStorage(StrongPtr<StorageBinding>(new CountingStorage(log_->synchronizations)));
      request->setStatus(parameters->bindsExistingFile() ? 1 : 2);
      request->setText("bound to " + request->getFilename());
      return true;
    }

   private:
    WeakPtr<Bundle> bundle_;
    std::shared_ptr<Log> log_;
  };
  struct Creator : Ostrak::SaveInterfaceCreator<Bundle> {
    StrongPtr<Ostrak::InterfaceBase> create(Bundle& bundle) const override {
      ++log->created;
      return StrongPtr<Ostrak::InterfaceBase>(new Saver(bundle, log));
    }
    std::shared_ptr<Log> log = std::make_shared<Log>();
  };

  SaverRegistration() { Ostrak::SaveRegistry<Bundle>::add(creator); }
  ~SaverRegistration() { Ostrak::SaveRegistry<Bundle>::remove(creator); }
  StrongPtr<Creator> creator{new Creator};
  std::shared_ptr<Log> log = creator->log;
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

}  // namespace Quaril::Testing
