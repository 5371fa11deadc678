#include "formats/hdf5/detail/Workers.hpp"

#include <algorithm>

namespace Quaril::H5::detail {

Workers::Workers(unsigned threads) {
  if (threads == 0) threads = std::max(1u, std::thread::hardware_concurrency());
  for (unsigned t = 0; t < threads; ++t) threads_.emplace_back([this] { work(); });
}

Workers::~Workers() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
  }
  wake_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void Workers::work() {
  for (;;) {
    std::function<void()> job;
    {
      std::unique_lock<std::mutex> lock(mutex_);
      wake_.wait(lock, [&] { return ending_ || !jobs_.empty(); });
      if (jobs_.empty()) return;  // ending, with nothing left
      job = std::move(jobs_.front());
      jobs_.pop_front();
    }
    job();  // a packaged task: what it throws goes to its future
  }
}

}  // namespace Quaril::H5::detail
