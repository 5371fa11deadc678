#include "ostrak/SaveRegistry.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/ostrak/RecordingSink.hpp"

using Ostrak::InterfaceBase;
using Ostrak::SaveRegistry;
using Ostrak::StrongPtr;

namespace {

class Report : public Ostrak::ReferenceBase<Report>, public Ostrak::Intercube {};
class Memo : public Ostrak::ReferenceBase<Memo>, public Ostrak::Intercube {};

struct TextSaver {};
struct PdfSaver {};

enum class Mode { Create, Throw, Decline };

// Creates an interface of type `Tag`, or throws, or declines.
template <class Tag>
class Creator : public Ostrak::SaveInterfaceCreator<Report> {
 public:
  explicit Creator(Mode mode = Mode::Create) : mode_(mode) {}
  StrongPtr<InterfaceBase> create(Report&) const override {
    ++calls;
    if (mode_ == Mode::Throw) throw std::runtime_error("creator broke");
    if (mode_ == Mode::Decline) return {};
    return StrongPtr<InterfaceBase>(new Ostrak::Interface<Tag>);
  }
  mutable int calls = 0;

 private:
  Mode mode_;
};

}  // namespace

TEST(SaveRegistry, EachCreatorAttachesItsInterfaceOnceAndFailuresAreReported) {
  OstrakTest::RecordingSink sink;
  using Any = StrongPtr<Ostrak::SaveInterfaceCreator<Report>>;
  StrongPtr<Creator<TextSaver>> text(new Creator<TextSaver>);
  StrongPtr<Creator<PdfSaver>> pdf(new Creator<PdfSaver>);
  const std::vector<Any> creators = {text, Any(new Creator<PdfSaver>(Mode::Throw)),
                                     Any(new Creator<PdfSaver>(Mode::Decline)), pdf};
  SaveRegistry<Report>::add(text);  // registered twice, still one creator
  for (const Any& creator : creators) SaveRegistry<Report>::add(creator);

  Report report;
  EXPECT_EQ(SaveRegistry<Report>::traverseCreators(report), 2);
  EXPECT_EQ(text->calls + pdf->calls, 2);
  EXPECT_TRUE(report.findInterface<TextSaver>() && report.findInterface<PdfSaver>());
  EXPECT_EQ(sink.count(Ostrak::Diagnostic::HookException), 1u);

  // Creators for reports leave other types alone.
  Memo memo;
  EXPECT_EQ(Ostrak::SaveRegistryBase::traverseCreators(memo, typeid(Memo)), 0);
  EXPECT_EQ(Ostrak::SaveRegistryBase::traverseCreators(memo, typeid(Report)), 0);
  EXPECT_EQ(memo.numberOfInterfaces(), 0u);

  for (const Any& creator : creators) EXPECT_TRUE(SaveRegistry<Report>::remove(creator));
  EXPECT_FALSE(SaveRegistry<Report>::remove(text));
  Report fresh;
  EXPECT_EQ(SaveRegistry<Report>::traverseCreators(fresh), 0);
}
