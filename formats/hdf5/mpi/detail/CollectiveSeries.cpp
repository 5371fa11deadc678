#include "formats/hdf5/mpi/detail/CollectiveSeries.hpp"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <sstream>

#include "formats/hdf5/detail/Files.hpp"
#include "formats/hdf5/detail/Series.hpp"
#include "formats/hdf5/detail/Stored.hpp"
#include "formats/hdf5/detail/Xdmf.hpp"
#include "formats/hdf5/mpi/detail/CollectiveSave.hpp"

namespace Quaril::H5::detail {

namespace {

using Ostrak::StrongPtr;

/// Whether `holds` on any rank.
bool onAnyRank(MPI_Comm ranks, bool holds) {
  for (const std::string& answer : allGatherText(ranks, holds ? "1" : "")) {
    if (!answer.empty()) return true;
  }
  return false;
}

/// A bundle bound to a series that all ranks of a communicator write
/// together, one part per collective sync. Rank 0 alone holds the journal's
/// end and the descriptor.
class CollectiveBinding : public ReportingBinding {
 public:
  CollectiveBinding(std::string journal, std::string token, std::shared_ptr<Stored> stored,
                    StrongPtr<StorageTransformations> transformations,
                    StrongPtr<Ostrak::LoaderProgress> progress)
      : journal_(std::move(journal)),
        token_(std::move(token)),
        stored_(std::move(stored)),
        transformations_(std::move(transformations)),
        progress_(std::move(progress)) {}

  /// Released: followers are told that the series ends here (rank 0 holds
  /// the journal).
  ~CollectiveBinding() override {
    if (tail_) tail_->close();
  }

  /// Bundle::sync, and the bundle at its end, call this on one rank alone,
  /// where no collective call may be made.
  int32_t synchronize(const Bundle&, const StrongPtr<MemBase, Cacheable>&,
                      Ostrak::Intercube&) override {
    error_ = journal_ + ": bound collectively; every rank syncs it with syncCollectively";
    return 0;
  }

  /// Writes the first part, with all that the bundles of all ranks hold
  /// (slices still to be read are read), as the new series `journal_`:
  /// whatever it was is replaced once the part is complete.
  void start(MPI_Comm ranks, int rank, const Bundle& bundle, bool xdmf, bool keepOtherSeries) {
    Selection plan;
    auto agreed = collectively(ranks, [&] { plan = planSync(bundle, *stored_, true); });
    if (agreed) throw Failure(*agreed);
    const std::string part = partPath(journal_, token_, 0);
    const Together together =
        planTogether(ranks, rank, bundle, part, {transformations_, progress_, {}, &plan});
    writeTogether(ranks, rank, part, together, [&](const std::string& temporary) {
      renameOver(temporary, part);
      syncFolderOf(part);
      try {
        startJournal(journal_, token_, together.merged.index);
      } catch (...) {
        std::remove(part.c_str());
        throw;
      }
      tail_ = std::make_unique<JournalTail>(journal_);
      removeStrayParts(journal_, tail_->journal(), keepOtherSeries);
      if (!xdmf) return;
      descriptor_ = descriptorFor(journal_, token_);
      descriptor_->open({&together.merged.index});
    });
    recordWritten(bundle, plan, *stored_);
    next_ = 1;
  }

  /// Takes up the existing series `journal_`, whose next part is `next`,
  /// and writes what the bundles of all ranks hold that it does not.
  void resume(MPI_Comm ranks, int rank, const Bundle& bundle, uint64_t next,
              std::unique_ptr<JournalTail> tail, std::unique_ptr<SeriesDescriptor> descriptor) {
    next_ = next;
    tail_ = std::move(tail);
    descriptor_ = std::move(descriptor);
    walkAll_ = true;
    sync(ranks, rank, bundle);
  }

  /// Adds one part with what the bundles of all ranks hold that the series
  /// does not.
  void sync(MPI_Comm ranks, int rank, const Bundle& bundle) {
    for (double time : bundle.takeChangedSlices()) changed_.insert(time);
    const std::set<double>* times = walkAll_ ? nullptr : &changed_;
    // What one rank writes whole replaces all that the series held of it, the
    // other ranks' fragments too: every rank that holds it writes it whole.
    // A grid that one rank adds to gets the skeletons of every rank that
    // holds it, so that its element counts add up as before.
    Selection plan;
    std::string shared;
    auto agreed = collectively(ranks, [&] {
      plan = planSync(bundle, *stored_, false, times);
      shared = encode(sharedWritesOf(plan));
    });
    if (agreed) throw Failure(*agreed);
    agreed = collectively(ranks, [&] {
      SharedWrites all;
      for (const std::string& text : allGatherText(ranks, shared)) decodeInto(text, all);
      if (!all.empty()) plan = planSync(bundle, *stored_, false, times, &all);
    });
    if (agreed) throw Failure(*agreed);
    const std::string part = partPath(journal_, token_, next_);
    const Together together = planTogether(ranks, rank, bundle, part, partRequest(plan));
    if (together.empty()) {
      changed_.clear();
      walkAll_ = false;
      agreed = onRankZero(ranks, rank, [&] {
        if (descriptor_ && descriptor_->stale()) descriptor_->rewrite();
      });
      if (agreed) throw Failure(*agreed);
      return;
    }
    // The part is in place before its record is appended; only the record
    // makes it part of the series.
    writeTogether(ranks, rank, part, together, [&](const std::string& temporary) {
      renameOver(temporary, part);
      syncFolderOf(part);
      try {
        tail_->append(together.merged.index);
      } catch (...) {
        std::remove(part.c_str());
        throw;
      }
    });
    recordWritten(bundle, plan, *stored_);
    changed_.clear();
    walkAll_ = false;
    const uint64_t number = next_++;
    agreed = onRankZero(ranks, rank, [&] {
      if (!descriptor_) return;
      describePart(*descriptor_, journal_, token_, number, together.merged.index,
                   together.merged.structures);
    });
    if (agreed) throw Failure(*agreed);
  }

  /// What writes a part of this series that holds `plan`.
  WriteRequest partRequest(const Selection& plan) const {
    WriteRequest request{transformations_, progress_, {}, &plan};
    request.series = journal_;
    return request;
  }

  /// Why the ranks of `communicator` cannot sync the binding together;
  /// nothing when they can.
  std::optional<std::string> refusal(const Communicator& communicator) const {
    if (communicator.rank() == rank_ && communicator.size() == size_) return std::nullopt;
    return "synced on other ranks than it was bound on";
  }
  void setRanks(const Communicator& communicator) noexcept {
    rank_ = communicator.rank();
    size_ = communicator.size();
  }
  void setOutcome(const std::string& error) { error_ = error; }
  const std::string& journal() const noexcept { return journal_; }

 private:
  std::string journal_;
  std::string token_;
  std::shared_ptr<Stored> stored_;
  StrongPtr<StorageTransformations> transformations_;
  StrongPtr<Ostrak::LoaderProgress> progress_;
  int rank_ = -1;
  int size_ = 0;
  uint64_t next_ = 0;
  // The first sync of a series taken up visits every slice: changes before
  // the binding are not listed.
  bool walkAll_ = false;
  std::set<double> changed_;
  std::unique_ptr<JournalTail> tail_;             // rank 0 only
  std::unique_ptr<SeriesDescriptor> descriptor_;  // rank 0 only; null: none is written
};

}  // namespace

void bindTogether(MPI_Comm comm, Bundle& bundle, const std::string& filename, bool existing,
                  const StrongPtr<StorageTransformations>& transformations,
                  const StrongPtr<Ostrak::LoaderProgress>& progress) {
  Communicator communicator(comm);
  const int rank = communicator.rank();
  const MPI_Comm ranks = communicator.get();
  const RankZeroTarget target = targetOfRankZero(ranks, filename, transformations.get());
  const std::string& path = target.path;
  const bool xdmf = target.xdmf;
  std::shared_ptr<Stored> loaded = loadedFrom(bundle, path);
  // Parts of the series replaced stay while a rank may still read them.
  const bool keepOtherSeries = !existing && onAnyRank(ranks, loaded != nullptr);
  std::string token;
  std::unique_ptr<JournalTail> tail;
  std::unique_ptr<SeriesDescriptor> descriptor;
  auto agreed = onRankZero(ranks, rank, [&] {
    require(!path.empty(), "no file name");
    if (existing) {
      require(isJournal(path), "not a bundle series (continueCollectively goes on with one)");
      tail = std::make_unique<JournalTail>(path);
      removeStrayParts(path, tail->journal(), false);
      token = tail->journal().token + " " + std::to_string(tail->next());
      if (!xdmf) return;
      descriptor = descriptorFor(path, tail->journal().token);
      std::vector<const Index*> described;
      for (const Journal::Record& record : tail->journal().records) {
        described.push_back(&record.index);
      }
      descriptor->open(described);
      return;
    }
    std::error_code error;
    std::filesystem::create_directory(partsFolder(path), error);
    require(!error, "cannot make the folder " + partsFolder(path) + ": " + error.message());
    requireUnbound(path);
    token = newToken();
  });
  if (agreed) throw Failure(*agreed);
  // The token, and after it the number of the next part of a series taken up.
  std::istringstream told(broadcastText(ranks, token, 0));
  uint64_t next = 0;
  told >> token >> next;
  bundle.trackSliceChanges();
  // A rank whose bundle was not loaded from the series takes its fragments.
  agreed = collectively(ranks, [&] {
    if (!existing || loaded) return;
    loaded = std::make_shared<Stored>();
    const StrongPtr<Ostrak::LoaderProgress> choice(new FragmentsOfRank(rank, communicator.size()));
    std::vector<Problem> damage;
    const std::vector<Part> parts = partsOf(path, readJournal(path), damage);
    attachParts(bundle, parts, choice, loaded, damage);
  });
  if (agreed) throw Failure(*agreed);
  StrongPtr<CollectiveBinding> binding(new CollectiveBinding(
      path, token, existing ? loaded : std::make_shared<Stored>(), transformations, progress));
  if (existing) {
    binding->resume(ranks, rank, bundle, next, std::move(tail), std::move(descriptor));
  } else {
    binding->start(ranks, rank, bundle, xdmf, keepOtherSeries);
  }
  binding->setRanks(communicator);
  bundle.setStorage(StrongPtr<StorageBinding>(binding));
}

Outcome syncTogether(MPI_Comm comm, const Bundle& bundle) {
  auto* binding = dynamic_cast<CollectiveBinding*>(bundle.getStorage().get());
  const Outcome synced = attempt([&] {
    Communicator communicator(comm);
    const auto agreed = agreeOnFailure(
        communicator.get(),
        binding ? binding->refusal(communicator)
                : std::optional<std::string>("not bound collectively (bindCollectively binds it)"));
    if (agreed) throw Failure(*agreed);
    binding->sync(communicator.get(), communicator.rank(), bundle);
  });
  if (binding) binding->setOutcome(synced ? "" : binding->journal() + ": " + synced.error);
  return synced;
}

}  // namespace Quaril::H5::detail
