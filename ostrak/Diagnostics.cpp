#include "ostrak/Diagnostics.hpp"

#include <atomic>
#include <cstdio>
#include <mutex>

namespace Ostrak {
namespace {

std::mutex& sinkMutex() {
  static std::mutex mutex;
  return mutex;
}

DiagnosticsSink& installedSink() {
  static DiagnosticsSink sink;
  return sink;
}

const char* kindName(Diagnostic kind) {
  switch (kind) {
    case Diagnostic::InvalidPointer:
      return "invalid pointer";
    case Diagnostic::CancelledDestruction:
      return "cancelled destruction";
    case Diagnostic::HookException:
      return "exception in a hook";
  }
  return "diagnostic";
}

std::atomic<const char*> lastKnownSourceCodeLine{""};

}  // namespace

DiagnosticsSink setDiagnosticsSink(DiagnosticsSink sink) {
  std::lock_guard lock(sinkMutex());
  DiagnosticsSink previous = std::move(installedSink());
  installedSink() = std::move(sink);
  return previous;
}

void reportDiagnostic(Diagnostic kind, const std::string& text) noexcept {
  try {
    DiagnosticsSink sink;
    {
      std::lock_guard lock(sinkMutex());
      sink = installedSink();
    }
    if (sink) {
      sink(kind, text);
    } else {
      std::fprintf(stderr, "ostrak: %s: %s\n", kindName(kind), text.c_str());
    }
  } catch (...) {
    // A report must never turn into a failure of its own.
  }
}

void setLastKnownSourceCodeLine(const char* position) noexcept {
  lastKnownSourceCodeLine.store(position ? position : "", std::memory_order_relaxed);
}

const char* getLastKnownSourceCodeLine() noexcept {
  return lastKnownSourceCodeLine.load(std::memory_order_relaxed);
}

}  // namespace Ostrak
