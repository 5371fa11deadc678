// Files and series from Python: load, check, follow, write_xdmf, the
// catalog of a file, the binding that syncs a series, and the problems found.

#include "python/Objects.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <deque>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "formats/hdf5/Catalog.hpp"
#include "formats/hdf5/Follow.hpp"
#include "tools/Check.hpp"
#include "tools/Copy.hpp"
#include "tools/Summary.hpp"

namespace Quaril::Python {
namespace {

/// quaril.follow: the steps of a series, those there first, then each as
/// its sync lands, until the closing record or `idle` seconds without news.
struct PyFollow {
  std::unique_ptr<H5::Follower> follower;
  std::deque<double> queued;  ///< times to yield, in order
  std::optional<double> idle;
  bool ended = false;
};

/// The next step of a follow, waiting for it without the interpreter's lock
/// and in short stretches, so that Ctrl-C ends the wait.
py::tuple nextStep(PyFollow& follow) {
  using namespace std::chrono;
  const auto deadline = follow.idle ? steady_clock::now() + duration_cast<steady_clock::duration>(
                                                                duration<double>(*follow.idle))
                                    : steady_clock::time_point::max();
  while (follow.queued.empty() && !follow.ended) {
    if (follow.follower->closed() || steady_clock::now() >= deadline) {
      follow.ended = true;
      break;
    }
    const auto left = deadline - steady_clock::now();
    const auto stretch = std::min<steady_clock::duration>(left, milliseconds(200));
    H5::SeriesUpdate update;
    H5::Outcome waited;
    {
      py::gil_scoped_release unlocked;
      waited = follow.follower->wait(duration_cast<milliseconds>(stretch), update);
    }
    if (!waited) raiseOSError(waited.error);
    follow.queued.insert(follow.queued.end(), update.added.begin(), update.added.end());
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  }
  if (follow.queued.empty()) throw py::stop_iteration();
  const double time = follow.queued.front();
  follow.queued.pop_front();
  const BundlePtr& bundle = follow.follower->bundle();
  return py::make_tuple(time, PySlice{bundle, bundle->getSlices().at(time)});
}

}  // namespace

[[noreturn]] void raiseOSError(const std::string& text) {
  PyErr_SetString(PyExc_OSError, text.c_str());
  throw py::error_already_set();
}

void PyBinding::sync() {
  if (bundle->sync() != 1) raiseOSError(H5::lastSync(*bundle).error);
}

void PyBinding::release() {
  if (!bundle->getStorage()) return;
  const int synced = bundle->sync();
  const std::string error = H5::lastSync(*bundle).error;
  bundle->setStorage({});
  if (synced != 1) raiseOSError(error);
}

void bindFiles(py::module_& module) {
  py::class_<PyFollow>(module, "Follow",
                       "The steps of a series as they land: (time, Slice) pairs; see follow()")
      .def("__iter__", [](PyFollow& follow) -> PyFollow& { return follow; })
      .def("__next__", &nextStep)
      .def_property_readonly(
          "bundle", [](const PyFollow& follow) { return PyBundle{follow.follower->bundle()}; },
          "The bundle that holds every step taken up so far")
      .def_property_readonly(
          "closed", [](const PyFollow& follow) { return follow.follower->closed(); },
          "Whether the series ended with its writer's closing record")
      .def("__repr__", [](const PyFollow& follow) {
        return "<quaril.Follow " + std::to_string(follow.follower->bundle()->getSlices().size()) +
               " steps" + (follow.follower->closed() ? ", closed>" : ">");
      });

  py::class_<H5::Catalog, std::shared_ptr<H5::Catalog>>(
      module, "Catalog",
      "What a file or series holds, by grid and time, read once from its index without making "
      "a bundle; load() makes bundles of chosen times from it")
      .def(py::init([](const std::filesystem::path& path) {
             H5::registerFormat();
             std::shared_ptr<H5::Catalog> catalog;
             H5::Outcome opened;
             {
               py::gil_scoped_release unlocked;
               opened = H5::Catalog::open(path.string(), catalog);
             }
             if (!opened) raiseOSError(opened.error);
             return catalog;
           }),
           py::arg("path"), "Opens the file or series `path`; OSError with the reason on failure")
      .def_property_readonly("path", &H5::Catalog::path)
      .def_property_readonly("grids", &H5::Catalog::gridNames, "The grids' names, sorted")
      .def_property_readonly(
          "times", [](const H5::Catalog& catalog) { return timesArray(catalog.times()); },
          "Every time, ascending")
      .def(
          "times_of",
          [](const H5::Catalog& catalog, const std::string& name) {
            return timesArray(catalog.timesOf(name));
          },
          py::arg("name"), "The times at which grid `name` is stored (none for another name)")
      .def(
          "load",
          [](const H5::Catalog& catalog, const std::vector<double>& times) {
            PyBundle loaded;
            const H5::Outcome done = catalog.load(loaded.bundle, times);
            if (!done) raiseOSError(done.error);
            return loaded;
          },
          py::arg("times"),
          "A bundle of the slices at `times` (others left out), read lazily as load() reads")
      .def("__repr__", [](const H5::Catalog& catalog) {
        return "<quaril.Catalog " + catalog.path() + ": " + std::to_string(catalog.times().size()) +
               " times, " + std::to_string(catalog.gridNames().size()) + " grids>";
      });

  py::class_<PyBinding>(module, "Binding", "A bundle bound to a file: sync() writes what is new.")
      .def("sync", &PyBinding::sync, "Writes what is new since the last sync; OSError on failure")
      .def("release", &PyBinding::release, "Syncs once more and unbinds")
      .def("__enter__", [](PyBinding& binding) -> PyBinding& { return binding; })
      .def("__exit__", [](PyBinding& binding, py::args) { binding.release(); })
      .def("__repr__",
           [](const PyBinding& binding) { return "<quaril.Binding " + binding.path + ">"; });

  py::class_<H5::Problem>(module, "Problem",
                          "A part of a file that could not be read, and where and why")
      .def_readonly("file", &H5::Problem::file)
      .def_readonly("where", &H5::Problem::where)
      .def_readonly("reason", &H5::Problem::reason)
      .def_property_readonly("grid",
                             [](const H5::Problem& problem) -> std::optional<std::string> {
                               if (problem.grid.empty()) return std::nullopt;
                               return problem.grid;
                             })
      .def_property_readonly("time",
                             [](const H5::Problem& problem) -> std::optional<double> {
                               if (std::isnan(problem.time)) return std::nullopt;
                               return problem.time;
                             })
      .def_readonly("lost", &H5::Problem::lost)
      .def("__str__", &H5::Problem::text)
      .def("__repr__",
           [](const H5::Problem& problem) { return "<quaril.Problem " + problem.text() + ">"; });

  py::class_<H5::CheckReport>(module, "CheckReport", "What a check read, and every problem")
      .def_readonly("file", &H5::CheckReport::file)
      .def_readonly("problems", &H5::CheckReport::problems)
      .def_readonly("grids", &H5::CheckReport::grids)
      .def_readonly("arrays", &H5::CheckReport::arrays)
      .def_readonly("bytes", &H5::CheckReport::bytes)
      .def_property_readonly("ok", &H5::CheckReport::ok)
      .def("__bool__", &H5::CheckReport::ok)
      .def("__str__", &Tools::formatCheckReport)
      .def("__repr__", [](const H5::CheckReport& report) {
        const std::string text = Tools::formatCheckReport(report);
        return "<quaril.CheckReport " + text.substr(0, text.find('\n')) + ">";
      });

  module.def(
      "check",
      [](const std::filesystem::path& path) {
        const H5::Outcome readable = Tools::requireReadable({path.string()});
        if (!readable) raiseOSError(readable.error);
        py::gil_scoped_release unlocked;
        return H5::checkFile(path.string());
      },
      py::arg("path"),
      "Reads everything of a file or series, one array at a time, and reports every problem "
      "with where it is; the report is true when everything reads");
  module.def(
      "follow",
      [](const std::filesystem::path& path, std::optional<double> idle) {
        if (idle && !(*idle >= 0 && std::isfinite(*idle))) {
          throw py::value_error("idle must be a number of seconds, 0 or more");
        }
        H5::registerFormat();
        PyFollow follow;
        {
          py::gil_scoped_release unlocked;
          follow.follower = std::make_unique<H5::Follower>(path.string());
        }
        if (!follow.follower->opened()) raiseOSError(follow.follower->opened().error);
        for (const auto& [time, slice] : follow.follower->bundle()->getSlices()) {
          follow.queued.push_back(time);
        }
        follow.idle = idle;
        return follow;
      },
      py::arg("path"), py::arg("idle") = py::none(),
      "Yields (time, Slice) for every step of a series already there, then each new one as its "
      "sync completes; ends at the writer's closing record, or after `idle` seconds without news");
  module.def(
      "write_xdmf",
      [](const std::filesystem::path& path) {
        const H5::Outcome written = H5::writeXdmf(path.string());
        if (!written) raiseOSError(written.error);
      },
      py::arg("path"),
      "Writes PATH.xmf anew, through which visualisation programs read the file or series "
      "(not while it is bound); OSError on failure");
  module.def(
      "load",
      [](const py::object& paths) {
        std::vector<std::string> files;
        if (py::isinstance<py::str>(paths) || py::hasattr(paths, "__fspath__")) {
          files.push_back(
              py::str(py::module_::import("os").attr("fspath")(paths)).cast<std::string>());
        } else {
          for (const py::handle path : paths) {
            files.push_back(
                py::str(py::module_::import("os").attr("fspath")(path)).cast<std::string>());
          }
        }
        PyBundle loaded;
        const H5::Outcome opened = Tools::openFiles(loaded.bundle, files);
        if (!opened) raiseOSError(opened.error);
        return loaded;
      },
      py::arg("paths"),
      "Opens a file (or several, merged) lazily; OSError with the reason on failure");
}

}  // namespace Quaril::Python
