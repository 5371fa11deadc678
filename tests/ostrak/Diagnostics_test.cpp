#include "ostrak/Diagnostics.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

TEST(Diagnostics, GuardRestoresThePositionOnEveryExitAndAThrowingSinkIsHarmless) {
  const char* before = Ostrak::getLastKnownSourceCodeLine();
  {
    Ostrak::SourceCodeLineGuard guard("ostrak/Example.cpp:12");
    EXPECT_STREQ(Ostrak::getLastKnownSourceCodeLine(), "ostrak/Example.cpp:12");
  }
  EXPECT_STREQ(Ostrak::getLastKnownSourceCodeLine(), before);
  try {
    Ostrak::SourceCodeLineGuard guard("ostrak/Example.cpp:99");
    throw std::runtime_error("leaving");
  } catch (const std::runtime_error&) {
  }
  EXPECT_STREQ(Ostrak::getLastKnownSourceCodeLine(), before);

  Ostrak::DiagnosticsSink previous =
      Ostrak::setDiagnosticsSink([](Ostrak::Diagnostic, const std::string&) { throw 1; });
  EXPECT_NO_THROW(Ostrak::reportDiagnostic(Ostrak::Diagnostic::InvalidPointer, "ignored"));
  EXPECT_TRUE(Ostrak::setDiagnosticsSink(std::move(previous)));
}
