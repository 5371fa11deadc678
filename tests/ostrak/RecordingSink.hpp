#pragma once
// Collects the object core's diagnostics while it lives, then restores the
// sink that was installed before.

#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "ostrak/Diagnostics.hpp"

namespace OstrakTest {

class RecordingSink {
 public:
  struct Report {
    Ostrak::Diagnostic kind;
    std::string text;
  };
  RecordingSink()
      : previous_(
            Ostrak::setDiagnosticsSink([this](Ostrak::Diagnostic kind, const std::string& text) {
              std::lock_guard lock(mutex_);
              reports_.push_back({kind, text});
            })) {}
  ~RecordingSink() { Ostrak::setDiagnosticsSink(std::move(previous_)); }

  std::vector<Report> reports() const {
    std::lock_guard lock(mutex_);
    return reports_;
  }
  size_t count(Ostrak::Diagnostic kind) const {
    std::lock_guard lock(mutex_);
    size_t result = 0;
    for (const Report& report : reports_) result += report.kind == kind ? 1 : 0;
    return result;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<Report> reports_;
  Ostrak::DiagnosticsSink previous_;
};

}  // namespace OstrakTest
