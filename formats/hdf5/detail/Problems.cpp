#include "formats/hdf5/detail/Problems.hpp"

#include <algorithm>
#include <filesystem>

#include "formats/hdf5/detail/Failure.hpp"
#include "formats/hdf5/detail/Journal.hpp"
#include "ostrak/StringList.hpp"

namespace Quaril::H5::detail {

namespace {

/// The problem list kept on a bundle.
class HeldProblems : public Ostrak::Interface<HeldProblems> {
 public:
  std::shared_ptr<ProblemList> list = std::make_shared<ProblemList>();
};

/// Whether `file` is the series `series` or one of its parts.
bool inSeries(const std::string& file, const std::string& series) {
  if (series.empty()) return false;
  namespace fs = std::filesystem;
  std::error_code error;
  const fs::path parts = fs::weakly_canonical(partsFolder(series), error);
  const fs::path at = fs::weakly_canonical(file, error);
  return at == fs::weakly_canonical(series, error) || at.parent_path() == parts;
}

}  // namespace

void ProblemList::add(Problem problem) {
  std::lock_guard lock(mutex_);
  if (std::find(problems_.begin(), problems_.end(), problem) == problems_.end()) {
    problems_.push_back(std::move(problem));
  }
}

std::vector<Problem> ProblemList::all() const {
  std::lock_guard lock(mutex_);
  return problems_;
}

std::shared_ptr<ProblemList> problemListOf(Bundle& bundle) {
  auto held = bundle.findInterface<HeldProblems, HeldProblems>();
  if (!held) {
    held = Ostrak::StrongPtr<HeldProblems>(new HeldProblems);
    bundle.addInterface(Ostrak::StrongPtr<Ostrak::InterfaceBase>(held));
  }
  return held->list;
}

std::vector<Problem> problemsOf(const Bundle& bundle) {
  auto held = bundle.findInterface<HeldProblems, HeldProblems>();
  return held ? held->list->all() : std::vector<Problem>();
}

void refuseLosses(const Bundle& bundle, const StorageTransformations* policy,
                  const Ostrak::StrongPtr<Ostrak::StringList>& grids, const std::string& series,
                  const Ostrak::StrongPtr<Ostrak::LoaderProgress>& progress) {
  std::vector<Problem> lost;
  for (Problem& problem : problemsOf(bundle)) {
    if (grids && !problem.grid.empty() && !grids->contains(problem.grid)) continue;
    if (!problem.lost || inSeries(problem.file, series)) continue;
    lost.push_back(std::move(problem));
  }
  if (lost.empty()) return;
  if (StorageOptions::of(policy).getSkipDamaged()) {
    if (progress) {
      for (const Problem& problem : lost)
        progress->message("left out, unreadable: " + problem.text());
    }
    return;
  }
  std::string text = "refused: it would lose what could not be read (" +
                     std::to_string(lost.size()) + (lost.size() == 1 ? " part" : " parts") +
                     "; leaving them out is the caller's choice): ";
  for (size_t i = 0; i < lost.size(); ++i) text += (i ? "; " : "") + lost[i].text();
  throw Failure(text);
}

}  // namespace Quaril::H5::detail
