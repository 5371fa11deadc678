#pragma once
// Process-wide diagnostics of the object core: the replaceable sink that
// receives handle misuse reports, and the last known source position.

#include <functional>
#include <string>

namespace Ostrak {

/// What went wrong with a reference-counted object.
enum class Diagnostic {
  InvalidPointer,        ///< a count was already invalid when a handle used it
  CancelledDestruction,  ///< strong handles were taken during end of life and kept
  HookException,         ///< a hook (extremeUnction, deferred initialisation, a creator) threw
};

/// Receives every report; `text` describes the event and names the last known
/// source position.
using DiagnosticsSink = std::function<void(Diagnostic kind, const std::string& text)>;

/// Installs `sink` (an empty function restores the default, which writes to
/// standard error) and returns the sink that was installed before.
DiagnosticsSink setDiagnosticsSink(DiagnosticsSink sink);

/// Sends one report to the installed sink. Never throws.
void reportDiagnostic(Diagnostic kind, const std::string& text) noexcept;

/// The process-wide source-position marker ("folder/File.cpp:27"). The text
/// must outlive its use as the marker; string literals are the normal case.
void setLastKnownSourceCodeLine(const char* position) noexcept;
/// The current marker, or the empty string when none was set.
const char* getLastKnownSourceCodeLine() noexcept;

/// Sets the marker for a scope and restores the previous one on every exit,
/// exceptional ones included.
class SourceCodeLineGuard {
 public:
  explicit SourceCodeLineGuard(const char* position) noexcept
      : previous_(getLastKnownSourceCodeLine()) {
    setLastKnownSourceCodeLine(position);
  }
  ~SourceCodeLineGuard() { setLastKnownSourceCodeLine(previous_); }
  SourceCodeLineGuard(const SourceCodeLineGuard&) = delete;
  SourceCodeLineGuard& operator=(const SourceCodeLineGuard&) = delete;

 private:
  const char* previous_;
};

}  // namespace Ostrak
