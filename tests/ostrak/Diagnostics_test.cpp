#include "ostrak/Diagnostics.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "ostrak/ReferenceBase.hpp"
#include "tests/ostrak/RecordingSink.hpp"

using Ostrak::Diagnostic;
using Ostrak::StrongPtr;

namespace {

// Keeps itself alive from its last rites through an outside handle.
class Clinging : public Ostrak::ReferenceBase<Clinging> {
 public:
  explicit Clinging(StrongPtr<Clinging>& rescue) : rescue_(rescue) {}
  void extremeUnction() override { rescue_ = Ostrak::strongFromThis(this); }

 private:
  StrongPtr<Clinging>& rescue_;
};

}  // namespace

TEST(Diagnostics, ReplaceableSinkReceivesReportsNamingTheSourcePosition) {
  const char* before = Ostrak::getLastKnownSourceCodeLine();
  {
    OstrakTest::RecordingSink sink;
    StrongPtr<Clinging> rescue;
    {
      Ostrak::SourceCodeLineGuard guard("ostrak/Example.cpp:12");
      EXPECT_STREQ(Ostrak::getLastKnownSourceCodeLine(), "ostrak/Example.cpp:12");
      StrongPtr<Clinging>(new Clinging(rescue)).reset();
    }
    EXPECT_STREQ(Ostrak::getLastKnownSourceCodeLine(), before);
    rescue.reset();
    auto reports = sink.reports();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].kind, Diagnostic::CancelledDestruction);
    EXPECT_NE(reports[0].text.find("ostrak/Example.cpp:12"), std::string::npos) << reports[0].text;
  }

  // The marker is restored on an exceptional exit too.
  try {
    Ostrak::SourceCodeLineGuard guard("ostrak/Example.cpp:99");
    throw std::runtime_error("leaving");
  } catch (const std::runtime_error&) {
  }
  EXPECT_STREQ(Ostrak::getLastKnownSourceCodeLine(), before);

  // A sink that throws never turns a report into a failure.
  Ostrak::DiagnosticsSink previous =
      Ostrak::setDiagnosticsSink([](Diagnostic, const std::string&) { throw 1; });
  EXPECT_NO_THROW(Ostrak::reportDiagnostic(Diagnostic::InvalidPointer, "ignored"));
  Ostrak::DiagnosticsSink throwing = Ostrak::setDiagnosticsSink(std::move(previous));
  EXPECT_TRUE(throwing);
}
