#include "formats/hdf5/detail/Check.hpp"

#include <limits>

#include "formats/hdf5/detail/GridReader.hpp"
#include "formats/hdf5/detail/Journal.hpp"
#include "formats/hdf5/detail/Layout.hpp"
#include "formats/hdf5/detail/Problems.hpp"
#include "formats/hdf5/detail/Series.hpp"
#include "formats/hdf5/detail/Shape.hpp"

namespace Quaril::H5::detail {

namespace {

using Ostrak::StrongPtr;
using Ostrak::WeakPtr;

/// Checks one open file of the format; `listed`, when given, is the index a
/// series' journal lists for it, which the file's own must match.
class SourceCheck {
 public:
  SourceCheck(const std::shared_ptr<Source>& source, std::shared_ptr<ProblemList> problems,
              CheckReport& report, const StrongPtr<Ostrak::LoaderProgress>& progress)
      : source_(source),
        part_(std::make_shared<PartSource>(source)),
        problems_(std::move(problems)),
        report_(report),
        progress_(progress) {}

  void run(const Index* listed) {
    const Index& index = source_->index();
    if (listed && listed->times != index.times) {
      problem("", "its times are not those the series' journal lists for it", "");
    }
    attributes(index.bundleAttributes, layout::BundleAttributes, "the bundle's attributes");
    for (uint64_t row = 0; row < index.times.size(); ++row) {
      attributes(index.sliceAttributes[row], layout::slicePath(row),
                 "attributes of the slice at time " + timeText(index.times[row]));
    }
    for (uint64_t entry = 0; entry < index.entries.size(); ++entry) {
      grid(entry);
      if (progress_) progress_->progress(entry + 1, index.entries.size());
    }
  }

 private:
  void problem(std::string where, std::string reason, std::string grid,
               double time = std::numeric_limits<double>::quiet_NaN()) {
    problems_->add(
        {source_->path(), std::move(where), std::move(reason), std::move(grid), true, time});
  }

  void attributes(bool held, const std::string& group, const std::string& what) {
    if (!held) return;
    try {
      Group opened = openGroup(source_->file(), group);
      Ostrak::Attributes read;
      readAttributes(opened.id(), read);
    } catch (const Failure& failure) {
      problem(what, failure.what(), "");
    }
  }

  /// Reads entry `entry` and every array of it, one at a time.
  void grid(uint64_t entry) {
    const Index& index = source_->index();
    const std::string& name = index.names[index.entries[entry].nameRow];
    const double time = index.times[index.entries[entry].timeRow];
    StrongPtr<Grid> grid(new Grid(WeakPtr<GridContainer>(list_), charts_));
    Made made;
    try {
      readGrid({part_, source_.get(), entry, (*list_)[name], time, {}, problems_}, *grid, made);
    } catch (const Failure& failure) {
      problem("grid " + inQuotes(name) + " at time " + timeText(time), failure.what(), name, time);
      return;
    }
    ++report_.grids;
    for (const auto& creator : made.creators) {
      // A failed read lists itself with the grid's problems.
      if (const auto data = creator->getData()) {
        ++report_.arrays;
        report_.bytes += data->nElements() * data->getTypeDescriptor().size();
      }
      creator->dropCache();
    }
  }

  std::shared_ptr<Source> source_;
  std::shared_ptr<PartSource> part_;
  std::shared_ptr<ProblemList> problems_;
  CheckReport& report_;
  StrongPtr<Ostrak::LoaderProgress> progress_;
  StrongPtr<GlobalCharts> charts_{new GlobalCharts};
  StrongPtr<GridList> list_{new GridList};
};

}  // namespace

CheckReport checkFile(const std::string& filename,
                      const StrongPtr<Ostrak::LoaderProgress>& progress) {
  Session session;
  CheckReport report;
  report.file = filename;
  const auto problems = std::make_shared<ProblemList>();
  const auto failed = failureOf([&] {
    if (!isJournal(filename)) {
      SourceCheck(Source::open(filename), problems, report, progress).run(nullptr);
      return;
    }
    const Journal journal = readJournal(filename);
    std::vector<Problem> damage;
    const std::vector<Part> parts = partsOf(filename, journal, damage);
    for (Problem& problem : damage) problems->add(std::move(problem));
    for (const Part& part : parts) {
      try {
        SourceCheck(part.source->get(), problems, report, progress).run(&part.index);
      } catch (const Failure& failure) {
        problems->add({part.source->path(), "", failure.what(), "", true});
      }
    }
  });
  if (failed) problems->add({filename, "", *failed, "", true});
  report.problems = problems->all();
  return report;
}

}  // namespace Quaril::H5::detail
