// quaril.Slice and quaril.Bundle: time steps and the data set, as mappings,
// with what could not be read kept in its place.

#include "python/Objects.hpp"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "bundle/Prefetch.hpp"
#include "bundle/ValuesOverTime.hpp"
#include "formats/hdf5/Follow.hpp"
#include "grid/GridWalk.hpp"
#include "tools/Copy.hpp"
#include "tools/Summary.hpp"

namespace Quaril::Python {
namespace {

/// The grids of `slice` that could not be read: they keep their place.
std::vector<H5::Problem> unreadableGrids(const PySlice& slice) {
  slice.slice->accessSlice();
  std::vector<H5::Problem> found;
  for (H5::Problem& problem : H5::problems(*slice.bundle)) {
    if (problem.lost && !problem.grid.empty() && problem.time == slice.slice->getTime() &&
        !(*slice.slice)(problem.grid)) {
      found.push_back(std::move(problem));
    }
  }
  return found;
}

/// Raises OSError naming why the grid `name` of `slice` could not be read,
/// when it could not.
void requireReadable(const PySlice& slice, const std::string& name) {
  for (const H5::Problem& problem : unreadableGrids(slice)) {
    if (problem.grid == name) raiseOSError(problem.text());
  }
}

/// The names of the grids of `slice`, those that could not be read too.
std::vector<std::string> sliceGridNames(const PySlice& slice) {
  std::vector<std::string> names;
  slice.slice->accessSlice();
  for (const auto& [id, grid] : slice.slice->getGrids()) {
    if (id && grid) names.push_back(id->getName());
  }
  for (const H5::Problem& problem : unreadableGrids(slice)) names.push_back(problem.grid);
  std::sort(names.begin(), names.end());
  return names;
}

py::object evolution(const BundlePtr& bundle, const std::string& name) {
  const StrongPtr<GridID> id = bundle->getGridList()->find(name);
  if (!id) throw py::key_error("no grid \"" + name + "\"");
  std::vector<double> times;
  for (const auto& [time, slice] : id->getSliceMap().entries()) times.push_back(time);
  // A generator that reads each step only when it is reached.
  py::module_ builtins = py::module_::import("builtins");
  return builtins.attr("iter")(
      py::cpp_function([bundle, name, times, index = size_t(0)]() mutable -> py::object {
        while (index < times.size()) {
          const double time = times[index++];
          double found = time;
          if (SlicePtr slice = (*bundle)(found)) {
            if (StrongPtr<Grid> grid = (*slice)(name))
              return py::make_tuple(time, PyGrid{bundle, grid, name, time});
          }
        }
        throw py::stop_iteration();
      }),
      py::none());
}

/// The grid `name` of `slice`; KeyError when there is none, OSError when it
/// could not be read.
PyGrid gridAt(const BundlePtr& bundle, const SlicePtr& slice, const std::string& name) {
  requireReadable({bundle, slice}, name);
  StrongPtr<Grid> grid = (*slice)(name);
  if (!grid)
    throw py::key_error("no grid \"" + name + "\" at time " + Tools::formatTime(slice->getTime()));
  return {bundle, grid, name, slice->getTime()};
}

}  // namespace

void bindBundle(py::module_& module) {
  auto sliceClass =
      py::class_<PySlice>(module, "Slice", "The grids of one time step.")
          .def_property_readonly("time",
                                 [](const PySlice& slice) { return slice.slice->getTime(); })
          .def_property_readonly("grids", &sliceGridNames)
          .def(
              "__getitem__",
              [](PySlice& slice, const std::string& name) {
                requireReadable(slice, name);
                Grid* grid = (*slice.slice)[name];
                if (!grid) throw py::key_error(name);
                return PyGrid{slice.bundle, (*slice.slice)(name), name, slice.slice->getTime()};
              },
              "The grid `name`, made when missing")
          .def(
              "grid",
              [](const PySlice& slice, const std::string& name) {
                return gridAt(slice.bundle, slice.slice, name);
              },
              "The grid `name`; KeyError when there is none")
          .def("__contains__",
               [](const PySlice& slice, const std::string& name) {
                 if ((*slice.slice)(name)) return true;
                 for (const H5::Problem& problem : unreadableGrids(slice)) {
                   if (problem.grid == name) return true;
                 }
                 return false;
               })
          .def("__len__",
               [](const PySlice& slice) {
                 slice.slice->accessSlice();
                 return slice.slice->getGrids().size() + unreadableGrids(slice).size();
               })
          // A mapping of grid names to grids (though slice[name] makes a missing one).
          .def("keys", &sliceGridNames)
          .def("__iter__",
               [](const PySlice& slice) { return py::iter(py::cast(sliceGridNames(slice))); })
          .def(
              "get",
              [](const PySlice& slice, const std::string& name, const py::object& otherwise) {
                return (*slice.slice)(name) ? py::cast(gridAt(slice.bundle, slice.slice, name))
                                            : otherwise;
              },
              py::arg("name"), py::arg("default") = py::none())
          .def("items",
               [](const PySlice& slice) {
                 py::list items;
                 for (const std::string& name : sliceGridNames(slice)) {
                   items.append(py::make_tuple(name, gridAt(slice.bundle, slice.slice, name)));
                 }
                 return items;
               })
          .def("__repr__", [](const PySlice& slice) {
            const std::vector<std::string> names = sliceGridNames(slice);
            std::string text = "<quaril.Slice t=" + Tools::formatTime(slice.slice->getTime()) +
                               ": " + std::to_string(names.size()) + " grids";
            for (size_t i = 0; i < names.size(); ++i) text += (i ? ", " : " (") + names[i];
            return text + (names.empty() ? ">" : ")>");
          });
  withAttributes(sliceClass,
                 [](const PySlice& slice) -> Ostrak::Attributes& { return *slice.slice; });

  auto bundleClass =
      py::class_<PyBundle>(module, "Bundle", "A time-dependent data set: time steps holding grids.")
          .def(py::init([] {
            PyBundle made;
            made.bundle.create();
            return made;
          }))
          .def_property_readonly("times",
                                 [](const PyBundle& bundle) {
                                   std::vector<double> times;
                                   for (const auto& [time, slice] : bundle.bundle->getSlices()) {
                                     if (slice) times.push_back(time);
                                   }
                                   return timesArray(times);
                                 })
          .def_property_readonly("grids",
                                 [](const PyBundle& bundle) {
                                   std::set<std::string> names;
                                   bundle.bundle->getGridList()->getGridnames(names);
                                   return std::vector<std::string>(names.begin(), names.end());
                                 })
          .def("__len__", [](const PyBundle& bundle) { return bundle.bundle->getSlices().size(); })
          .def("__iter__",
               [](const PyBundle& bundle) {
                 py::list steps;
                 for (const auto& [time, slice] : bundle.bundle->getSlices()) {
                   if (slice) steps.append(py::make_tuple(time, PySlice{bundle.bundle, slice}));
                 }
                 return py::iter(steps);
               })
          .def(
              "__getitem__",
              [](PyBundle& bundle, double t) {
                SlicePtr slice = (*bundle.bundle)[t];
                if (!slice) throw py::key_error("no time step at NaN");
                return PySlice{bundle.bundle, slice};
              },
              "The time step at exactly `t`, made when missing")
          .def(
              "slice",
              [](const PyBundle& bundle, double t) {
                double found = t;
                SlicePtr slice = (*bundle.bundle)(found);
                if (!slice) throw py::key_error("no time step at " + Tools::formatTime(t));
                return PySlice{bundle.bundle, slice};
              },
              py::arg("t"), "The time step at exactly `t`; KeyError when there is none")
          .def(
              "most_recent",
              [](const PyBundle& bundle, double t, const std::string& name) -> py::object {
                const Bundle::GridInfo found = bundle.bundle->findMostRecentGrid(t, name);
                SlicePtr slice = found.slice.lock();
                if (!found.grid || !slice) return py::none();
                return py::cast(PyGrid{bundle.bundle, found.grid, name, slice->getTime()});
              },
              py::arg("t"), py::arg("name"),
              "The grid `name` as of time `t` (at or before it), or None")
          .def(
              "evolution",
              [](const PyBundle& bundle, const std::string& name) {
                return evolution(bundle.bundle, name);
              },
              py::arg("name"), "A generator of (time, grid) over every step that holds `name`")
          .def(
              "values_over_time",
              [](const PyBundle& bundle, const std::string& grid, const std::string& field,
                 const std::vector<uint64_t>& index,
                 std::optional<std::pair<std::optional<double>, std::optional<double>>> times) {
                // numpy's order of axes, slowest first, is the reverse of the arrays'.
                const std::vector<uint64_t> element(index.rbegin(), index.rend());
                double first = -std::numeric_limits<double>::infinity();
                double last = std::numeric_limits<double>::infinity();
                if (times && times->first) first = *times->first;
                if (times && times->second) last = *times->second;
                ValuesOverTime read;
                {
                  py::gil_scoped_release unlocked;
                  read = valuesOverTime(*bundle.bundle, grid, field, element, first, last);
                }
                if (!read.values) raiseOSError(read.error);
                const QuarilTypeBase& type = read.values->getTypeDescriptor();
                return py::make_tuple(timesArray(read.times), viewOf(read.values, type));
              },
              py::arg("grid"), py::arg("field"), py::arg("index"), py::arg("times") = py::none(),
              "(times, values): field `field` of grid `grid` at element `index` (numpy's "
              "order) at every step in times=(first, last) that holds the grid, each step "
              "reading only that element where it can; OSError naming the step where it cannot")
          .def(
              "prefetch",
              [](const PyBundle& bundle, unsigned threads,
                 std::optional<std::pair<std::optional<double>, std::optional<double>>> times) {
                double first = -std::numeric_limits<double>::infinity();
                double last = std::numeric_limits<double>::infinity();
                if (times && times->first) first = *times->first;
                if (times && times->second) last = *times->second;
                py::gil_scoped_release unlocked;
                return prefetch(*bundle.bundle, threads, first, last);
              },
              py::arg("threads") = 0, py::arg("times") = py::none(),
              "Reads every array of the steps in times=(first, last) now, spread over `threads` "
              "threads (0: one per core); returns how many could not be read (see problems)")
          .def(
              "times_of",
              [](const PyBundle& bundle, const std::string& name) {
                const StrongPtr<GridID> id = bundle.bundle->getGridList()->find(name);
                if (!id) throw py::key_error("no grid \"" + name + "\"");
                std::vector<double> times;
                for (const auto& [time, slice] : id->getSliceMap().entries()) times.push_back(time);
                return timesArray(times);
              },
              py::arg("name"), "The times of the steps that hold grid `name`, reading no step")
          .def(
              "first",
              [](const PyBundle& bundle, const std::string& name) -> py::object {
                py::object steps = evolution(bundle.bundle, name);
                py::object next = py::module_::import("builtins").attr("next")(steps, py::none());
                return next;
              },
              py::arg("name"), "(time, grid) of the first step that holds `name`, or None")
          .def(
              "last",
              [](const PyBundle& bundle, const std::string& name) -> py::object {
                const StrongPtr<GridID> id = bundle.bundle->getGridList()->find(name);
                if (!id || id->getSliceMap().empty()) return py::none();
                double t = id->getSliceMap().entries().rbegin()->first;
                const Bundle::GridInfo found = bundle.bundle->findMostRecentGrid(t, name);
                if (!found.grid) return py::none();
                return py::make_tuple(t, PyGrid{bundle.bundle, found.grid, name, t});
              },
              py::arg("name"), "(time, grid) of the last step that holds `name`, or None")
          .def("xml",
               [](const PyBundle& bundle) {
                 for (const auto& [time, slice] : bundle.bundle->getSlices()) {
                   if (slice) slice->accessSlice();
                 }
                 return bundle.bundle->xml();
               })
          .def(
              "memory",
              [](const PyBundle& bundle) {
                unsigned long long resident = 0, deferred = 0;
                bundle.bundle->getMemoryUsage(resident, deferred);
                return py::make_tuple(resident, deferred);
              },
              "(resident, deferred): bytes of field data in memory, and still to be read")
          .def(
              "save",
              [](const PyBundle& bundle, const std::filesystem::path& path,
                 std::optional<std::vector<std::string>> grids, const py::object& compress,
                 bool xdmf, bool skipDamaged) {
                StrongPtr<H5::StorageOptions> policy(new H5::StorageOptions);
                if (!compress.is_none()) {
                  // A deflate level, or a codec by name ("zstd", "lz4:...", ...).
                  const std::string text = py::isinstance<py::int_>(compress)
                                               ? std::to_string(compress.cast<int>())
                                               : compress.cast<std::string>();
                  std::string error;
                  const std::optional<Tools::Compression> parsed =
                      Tools::parseCompression(text, error);
                  if (!parsed) throw py::value_error(error);
                  policy->setCompression(parsed->codec, parsed->level);
                }
                policy->setWriteXdmf(xdmf);
                policy->setSkipDamaged(skipDamaged);
                StrongPtr<Ostrak::StringList> names;
                if (grids) {
                  names = StrongPtr<Ostrak::StringList>(new Ostrak::StringList);
                  for (const std::string& name : *grids) names->push_back(name);
                }
                const H5::Outcome saved =
                    H5::save(*bundle.bundle, path.string(), policy, {}, names);
                if (!saved) raiseOSError(saved.error);
              },
              py::arg("path"), py::arg("grids") = py::none(), py::arg("compress") = py::none(),
              py::arg("xdmf") = true, py::arg("skip_damaged") = false,
              "Saves the bundle (only `grids` when given) as one file, atomically, with PATH.xmf "
              "for visualisation programs unless xdmf=False; compress: a deflate level, or "
              "'zstd[:LEVEL]', 'lz4', 'deflate[:LEVEL]'. OSError on failure, also when it would "
              "lose what could not be read (leave that out with skip_damaged=True)")
          .def(
              "bind",
              [](PyBundle& bundle, const std::filesystem::path& file, bool append, bool xdmf,
                 bool skipDamaged, bool durable) {
                const std::string path = file.string();
                StrongPtr<H5::StorageOptions> policy(new H5::StorageOptions);
                policy->setWriteXdmf(xdmf);
                policy->setSkipDamaged(skipDamaged);
                policy->setDurability(durable ? H5::Durability::PowerLoss : H5::Durability::Crash);
                const Bundle::BindingResult bound = append ? bundle.bundle->bindTo(path, policy)
                                                           : bundle.bundle->bindToNew(path, policy);
                if (bound.status != 1)
                  raiseOSError(bound.text.empty() ? H5::lastSync(*bundle.bundle).error
                                                  : bound.text);
                return PyBinding{bundle.bundle, path};
              },
              py::arg("path"), py::arg("append") = false, py::arg("xdmf") = true,
              py::arg("skip_damaged") = false, py::arg("durable") = false,
              "Binds the bundle to a series at `path` (a new one, or the existing one with "
              "append=True); each sync() adds what is new, and keeps PATH.xmf up to date unless "
              "xdmf=False. A completed sync survives the program's crash or kill; with "
              "durable=True also a power loss (each sync flushes to disk). A context manager "
              "that syncs and unbinds at its end.")
          .def_property_readonly(
              "problems", [](const PyBundle& bundle) { return H5::problems(*bundle.bundle); },
              "What of its files could not be read so far (slices are read on first use)")
          .def(
              "refresh",
              [](PyBundle& bundle) {
                H5::SeriesUpdate update;
                H5::Outcome refreshed;
                {
                  py::gil_scoped_release unlocked;
                  refreshed = H5::refresh(*bundle.bundle, update);
                }
                if (!refreshed) raiseOSError(refreshed.error);
                return py::make_tuple(update.added, update.changed);
              },
              "Takes up what was synced to the series the bundle was loaded from since it last "
              "looked; returns the times (added, changed). OSError when it was loaded from no "
              "series")
          .def("sync",
               [](PyBundle& bundle) {
                 if (!bundle.bundle->getStorage()) throw py::value_error("the bundle is not bound");
                 PyBinding{bundle.bundle, ""}.sync();
               })
          // A mapping of times to slices (iteration gives (time, slice) pairs, as items()).
          .def("keys",
               [](const PyBundle& bundle) {
                 std::vector<double> times;
                 for (const auto& [time, slice] : bundle.bundle->getSlices()) {
                   if (slice) times.push_back(time);
                 }
                 return times;
               })
          .def("__contains__",
               [](const PyBundle& bundle, double t) {
                 const auto found = bundle.bundle->getSlices().find(t);
                 return found != bundle.bundle->getSlices().end() && found->second;
               })
          .def(
              "get",
              [](const PyBundle& bundle, double t, const py::object& otherwise) -> py::object {
                const auto found = bundle.bundle->getSlices().find(t);
                if (found == bundle.bundle->getSlices().end() || !found->second) return otherwise;
                return py::cast(PySlice{bundle.bundle, found->second});
              },
              py::arg("t"), py::arg("default") = py::none())
          .def("items",
               [](const PyBundle& bundle) {
                 py::list items;
                 for (const auto& [time, slice] : bundle.bundle->getSlices()) {
                   if (slice) items.append(py::make_tuple(time, PySlice{bundle.bundle, slice}));
                 }
                 return items;
               })
          .def("_repr_html_",
               [](const PyBundle& bundle) {
                 // What `bundle-tool info` prints, for notebooks.
                 std::string html = "<pre>";
                 for (char c : Tools::formatSummary(Tools::summarize(*bundle.bundle))) {
                   html += c == '<'   ? "&lt;"
                           : c == '>' ? "&gt;"
                           : c == '&' ? "&amp;"
                                      : std::string(1, c);
                 }
                 return html + "</pre>";
               })
          .def("__repr__", [](const PyBundle& bundle) {
            const auto& slices = bundle.bundle->getSlices();
            std::string text = "<quaril.Bundle " + std::to_string(slices.size()) + " steps";
            if (!slices.empty()) {
              text += " from " + Tools::formatTime(slices.begin()->first) + " to " +
                      Tools::formatTime(slices.rbegin()->first);
            }
            std::set<std::string> names;
            bundle.bundle->getGridList()->getGridnames(names);
            text += ", " + std::to_string(names.size()) + " grids";
            size_t shown = 0;
            for (const std::string& name : names) {
              if (shown == 8) {
                text += ", ...";
                break;
              }
              text += (shown++ ? ", " : " (") + name;
            }
            return text + (names.empty() ? ">" : ")>");
          });
  withAttributes(bundleClass,
                 [](const PyBundle& bundle) -> Ostrak::Attributes& { return *bundle.bundle; });
}

}  // namespace Quaril::Python
