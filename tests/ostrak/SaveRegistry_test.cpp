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

// Creates an interface of type `Tag`, or throws, or declines.
template <class Tag>
class Creator : public Ostrak::SaveInterfaceCreator<Report> {
 public:
  enum class Mode { Create, Throw, Decline };
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

TEST(SaveRegistry, TraverseCreatorsAttachesEachCreatorsInterfaceOnce) {
  OstrakTest::RecordingSink sink;
  StrongPtr<Creator<TextSaver>> text(new Creator<TextSaver>);
  StrongPtr<Creator<PdfSaver>> pdf(new Creator<PdfSaver>);
  using Mode = Creator<PdfSaver>::Mode;
  StrongPtr<Creator<PdfSaver>> broken(new Creator<PdfSaver>(Mode::Throw));
  StrongPtr<Creator<PdfSaver>> declining(new Creator<PdfSaver>(Mode::Decline));
  SaveRegistry<Report>::add(text);
  SaveRegistry<Report>::add(text);  // registered twice, still one creator
  SaveRegistry<Report>::add(broken);
  SaveRegistry<Report>::add(declining);
  SaveRegistry<Report>::add(pdf);

  Report report;
  EXPECT_EQ(SaveRegistry<Report>::traverseCreators(report), 2);
  EXPECT_EQ(text->calls, 1);
  EXPECT_EQ(pdf->calls, 1);
  EXPECT_EQ(report.numberOfInterfaces(), 2u);
  EXPECT_TRUE(report.findInterface<TextSaver>());
  EXPECT_TRUE(report.findInterface<PdfSaver>());
  EXPECT_EQ(sink.count(Ostrak::Diagnostic::HookException), 1u);

  // Creators for reports leave other types alone.
  Memo memo;
  EXPECT_EQ(Ostrak::SaveRegistryBase::traverseCreators(memo, typeid(Memo)), 0);
  EXPECT_EQ(Ostrak::SaveRegistryBase::traverseCreators(memo, typeid(Report)), 0);
  EXPECT_EQ(memo.numberOfInterfaces(), 0u);

  for (const auto& creator : {StrongPtr<Ostrak::SaveInterfaceCreator<Report>>(text),
                              StrongPtr<Ostrak::SaveInterfaceCreator<Report>>(pdf),
                              StrongPtr<Ostrak::SaveInterfaceCreator<Report>>(broken),
                              StrongPtr<Ostrak::SaveInterfaceCreator<Report>>(declining)}) {
    EXPECT_TRUE(SaveRegistry<Report>::remove(creator));
  }
  EXPECT_FALSE(SaveRegistry<Report>::remove(text));
  Report fresh;
  EXPECT_EQ(SaveRegistry<Report>::traverseCreators(fresh), 0);
}

TEST(SaveRegistry, SaveItemIsFoundByTheTypeOfItsValue) {
  using Item = Ostrak::SaveItem<StrongPtr<Memo>>;
  StrongPtr<Memo> memo(new Memo);
  Ostrak::SaveParameters parameters("out.dat");
  parameters.addInterface(StrongPtr<Item>(new Item(memo)));

  StrongPtr<Item> found = parameters.findInterface<StrongPtr<Memo>, Item>();
  ASSERT_TRUE(found);
  EXPECT_TRUE(found->item == memo);
  EXPECT_EQ(memo.strongCount(), 2);
  EXPECT_FALSE(
      (parameters.findInterface<StrongPtr<Report>, Ostrak::SaveItem<StrongPtr<Report>>>()));
  EXPECT_FALSE((parameters.findInterface<Memo, Item>()));
}
