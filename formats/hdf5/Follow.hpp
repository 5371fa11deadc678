#pragma once
// Following a series while a simulation syncs it: a bundle loaded from a
// series takes up each sync completed since it last looked, reading only the
// journal records appended since, so that taking up a step costs the same at
// any length of the series. Readers take no lock: they never stall a sync.
//
//   Quaril::H5::Follower follower("run.h5");
//   if (!follower.opened()) fail(follower.opened().error);
//   for (Quaril::H5::SeriesUpdate update; !update.closed;) {
//     if (!follower.wait(std::chrono::seconds(60), update)) fail(...);
//     if (update.empty() && !update.closed) break;  // a minute without news
//     for (double time : update.added) plot(follower.bundle()->getSlices().at(time));
//   }

#include <chrono>
#include <memory>
#include <string>

#include "bundle/Bundle.hpp"
#include "formats/hdf5/Options.hpp"

namespace Quaril::H5 {

/// Takes up into `bundle` what was synced to the series it was loaded from
/// since that load or its last refresh: new slices come in lazily as on
/// opening; a sync that added to or replaced part of a time the bundle had
/// changes that slice (read again on its next access). `update` says which
/// times were added and changed. Fails, changing nothing, when the bundle
/// was loaded from no series, or when a series was started anew since
/// (load it again).
Outcome refresh(Bundle& bundle, SeriesUpdate& update);

/// A bundle that follows the series `path` as it grows, waiting for syncs
/// with the file system's change notification (inotify) where there is one
/// and by polling otherwise.
class Follower {
 public:
  /// Loads the series (or single file) `path`; opened() says whether it
  /// could. Without `poll`, waits are woken by the file system's change
  /// notification, and the file is also looked at every second (writers on
  /// other machines of a shared file system notify nobody); with it, the
  /// file is looked at every `poll` instead.
  explicit Follower(std::string path, std::chrono::milliseconds poll = {});
  ~Follower();
  Follower(const Follower&) = delete;
  Follower& operator=(const Follower&) = delete;

  const Outcome& opened() const noexcept { return opened_; }
  /// The bundle; its slices are the steps taken up so far.
  const BundlePtr& bundle() const noexcept { return bundle_; }
  /// Whether the series ended with a closing record when it was last read.
  bool closed() const noexcept { return closed_; }

  /// Returns as soon as syncs not yet taken up are there, at the latest
  /// after `timeout`, having taken them up as refresh does. Returns at once
  /// with `update.closed` when the series ends with a closing record; an
  /// update with nothing added or changed when the time passed without news.
  Outcome wait(std::chrono::milliseconds timeout, SeriesUpdate& update);

 private:
  struct Watch;
  std::string path_;
  Outcome opened_;
  BundlePtr bundle_;
  bool series_ = false;  ///< loaded from a series, not a single file
  bool closed_ = false;
  std::unique_ptr<Watch> watch_;
};

}  // namespace Quaril::H5
