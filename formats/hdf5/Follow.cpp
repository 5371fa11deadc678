#include "formats/hdf5/Follow.hpp"

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "formats/hdf5/Format.hpp"
#include "formats/hdf5/detail/Follow.hpp"
#include "formats/hdf5/detail/Journal.hpp"

namespace Quaril::H5 {

Outcome refresh(Bundle& bundle, SeriesUpdate& update) {
  return detail::attempt([&] { update = detail::refreshSeries(bundle); });
}

/// Waits for a change of one file: by inotify where the file system gives
/// it, by looking at the file's size and time of change otherwise.
struct Follower::Watch {
  Watch(const std::string& path, std::chrono::milliseconds poll) : path_(path), poll_(poll) {
    if (poll.count() > 0) {
      seen_ = stamp();
      return;
    }
    descriptor_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (descriptor_ >= 0 && inotify_add_watch(descriptor_, path.c_str(),
                                              IN_MODIFY | IN_ATTRIB | IN_CLOSE_WRITE |
                                                  IN_MOVE_SELF | IN_DELETE_SELF) < 0) {
      close(descriptor_);
      descriptor_ = -1;
    }
    seen_ = stamp();
  }
  ~Watch() {
    if (descriptor_ >= 0) close(descriptor_);
  }

  /// Returns when the file may have changed, at the latest after `timeout`.
  void wait(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return;
      // Notification may miss writes of other machines on a shared file
      // system: the file is looked at every second all the same.
      const auto step = std::min(left, descriptor_ >= 0    ? std::chrono::milliseconds(1000)
                                       : poll_.count() > 0 ? poll_
                                                           : std::chrono::milliseconds(20));
      if (descriptor_ >= 0) {
        pollfd polled{descriptor_, POLLIN, 0};
        if (poll(&polled, 1, static_cast<int>(step.count())) > 0) {
          drain();
          return;
        }
      } else {
        std::this_thread::sleep_for(step);
      }
      const Stamp now = stamp();
      if (now != seen_) {
        seen_ = now;
        return;
      }
    }
  }

 private:
  struct Stamp {
    off_t size = -1;
    struct timespec changed {};
    ino_t inode = 0;
    bool operator!=(const Stamp& other) const {
      return size != other.size || inode != other.inode || changed.tv_sec != other.changed.tv_sec ||
             changed.tv_nsec != other.changed.tv_nsec;
    }
  };
  Stamp stamp() const {
    struct stat status {};
    if (stat(path_.c_str(), &status) != 0) return {};
    return {status.st_size, status.st_mtim, status.st_ino};
  }
  void drain() {
    alignas(inotify_event) char events[4096];
    while (read(descriptor_, events, sizeof(events)) > 0) {
    }
    seen_ = stamp();
  }

  std::string path_;
  std::chrono::milliseconds poll_;
  int descriptor_ = -1;
  Stamp seen_;
};

Follower::Follower(std::string path, std::chrono::milliseconds poll) : path_(std::move(path)) {
  // Watched before it is read: a sync between the two is not missed.
  watch_ = std::make_unique<Watch>(path_, poll);
  opened_ = load(bundle_, {path_});
  series_ = opened_ && detail::isJournal(path_);
  closed_ = !series_;
  SeriesUpdate update;
  if (!closed_ && refresh(*bundle_, update)) closed_ = update.closed;
}

Follower::~Follower() = default;

Outcome Follower::wait(std::chrono::milliseconds timeout, SeriesUpdate& update) {
  update = {};
  if (!opened_) return opened_;
  // A single file is complete: nothing comes after it.
  if (!series_) {
    update.closed = true;
    return {true, ""};
  }
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    const Outcome refreshed = refresh(*bundle_, update);
    if (!refreshed) return refreshed;
    closed_ = update.closed;
    if (!update.empty() || update.closed) return refreshed;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return refreshed;
    watch_->wait(left);
  }
}

}  // namespace Quaril::H5
