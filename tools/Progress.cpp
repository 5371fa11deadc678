#include "tools/Progress.hpp"

#include <unistd.h>

#include <algorithm>

namespace Quaril::Tools {

namespace {
constexpr auto Interval = std::chrono::milliseconds(100);
constexpr int Width = 30;
}  // namespace

TerminalProgress::TerminalProgress(std::string label, std::FILE* out,
                                   std::chrono::milliseconds delay)
    : label_(std::move(label)), out_(out), terminal_(isatty(fileno(out)) == 1), delay_(delay) {}

TerminalProgress::~TerminalProgress() {
  finish();
}

void TerminalProgress::progress(unsigned long long done, unsigned long long total) {
  if (!terminal_ || total == 0) return;
  const Clock::time_point now = Clock::now();
  if (now - start_ < delay_ || (drawn_ && now - lastDraw_ < Interval && done < total)) return;
  const double part = std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
  const int filled = static_cast<int>(part * Width);
  std::fprintf(out_, "\r%s [%s%s] %3d%%", label_.c_str(), std::string(filled, '#').c_str(),
               std::string(Width - filled, ' ').c_str(), static_cast<int>(part * 100));
  std::fflush(out_);
  drawn_ = true;
  lastDraw_ = now;
}

void TerminalProgress::message(const std::string& text) {
  finish();
  std::fprintf(out_, "%s\n", text.c_str());
}

void TerminalProgress::finish() {
  if (!drawn_) return;
  // Blank the line the bar took and return to its start.
  std::fprintf(out_, "\r%*s\r", static_cast<int>(label_.size()) + Width + 8, "");
  std::fflush(out_);
  drawn_ = false;
}

}  // namespace Quaril::Tools
