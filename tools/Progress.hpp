#pragma once
// A progress bar for loads and saves that take longer than a moment.

#include <chrono>
#include <cstdio>
#include <string>

#include "ostrak/Loader.hpp"

namespace Quaril::Tools {

/// Draws "label [#####     ]  50%" on `out` once an operation has run for
/// `delay` (half a second by default), redrawn at most ten times a second,
/// and clears it at the end. Draws nothing when `out` is not a terminal.
/// Messages go to `out` as lines of their own.
class TerminalProgress : public Ostrak::LoaderProgress {
 public:
  explicit TerminalProgress(std::string label, std::FILE* out = stderr,
                            std::chrono::milliseconds delay = std::chrono::milliseconds(500));
  ~TerminalProgress() override;

  void progress(unsigned long long done, unsigned long long total) override;
  void message(const std::string& text) override;
  /// Clears the bar; a later progress draws it again.
  void finish();

 private:
  using Clock = std::chrono::steady_clock;

  std::string label_;
  std::FILE* out_;
  bool terminal_;
  std::chrono::milliseconds delay_;
  bool drawn_ = false;
  Clock::time_point start_ = Clock::now();
  Clock::time_point lastDraw_{};
};

}  // namespace Quaril::Tools
