#pragma once
// A few threads, one per core, that run jobs handed to them in order: the
// compression of arrays a save writes while the saving thread goes on with
// libhdf5. Jobs never call libhdf5.

#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace Quaril::H5::detail {

class Workers {
 public:
  /// `threads` threads (0: one per core).
  explicit Workers(unsigned threads = 0);
  /// Waits for the jobs handed over, then ends the threads.
  ~Workers();
  Workers(const Workers&) = delete;
  Workers& operator=(const Workers&) = delete;

  unsigned size() const noexcept { return static_cast<unsigned>(threads_.size()); }

  /// Runs `job` on a worker; its result, or what it threw, comes through the
  /// future.
  template <class Result>
  std::future<Result> run(std::function<Result()> job) {
    auto task = std::make_shared<std::packaged_task<Result()>>(std::move(job));
    std::future<Result> result = task->get_future();
    {
      std::lock_guard<std::mutex> lock(mutex_);
      jobs_.emplace_back([task] { (*task)(); });
    }
    wake_.notify_one();
    return result;
  }

 private:
  void work();

  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> jobs_;
  bool ending_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace Quaril::H5::detail
