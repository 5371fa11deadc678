#include "ostrak/Loader.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

using Ostrak::LoaderParameters;
using Ostrak::LoaderRegistryBase;
using Ostrak::StrongPtr;

namespace {

struct Document : Ostrak::ReferenceBase<Document> {
  std::string content;
};

using Target = Ostrak::Loader<Document>::ldrpar;
using Action = std::function<bool(LoaderParameters&, Target&)>;

// A loader whose load() logs its label and runs `action`; an empty label
// makes name() throw.
struct ScriptedLoader : Ostrak::Loader<Document> {
  ScriptedLoader(std::string label, Action action, std::vector<std::string>& log)
      : label(std::move(label)), action(std::move(action)), log(log) {}
  std::string name() const override {
    return label.empty() ? throw std::runtime_error("nameless") : label;
  }
  bool load(const StrongPtr<LoaderParameters>& request, Target& target) override {
    log.push_back(label);
    return action(*request, target);
  }
  std::string label;
  Action action;
  std::vector<std::string>& log;
};

struct VetoingProgress : Ostrak::LoaderProgress {
  bool tryLoader(const std::string& name) override {
    offered.push_back(name);
    return name != veto && veto != "*";
  }
  std::string veto;
  std::vector<std::string> offered;
};

Action succeedWith(const std::string& content) {
  return [content](LoaderParameters&, Target& target) {
    target.target = StrongPtr<Document>(new Document);
    target.target->content = content;
    return true;
  };
}

// Registers loaders for Document and removes them after each test, so that
// no test sees another's loaders.
class Loader : public ::testing::Test {
 protected:
  void add(const std::string& name, Action action, std::vector<std::string> patterns = {}) {
    registered_.emplace_back(new ScriptedLoader(name, std::move(action), log));
    Ostrak::LoaderRegistry<Document>::add(registered_.back(), patterns);
  }
  void TearDown() override {
    for (const auto& loader : registered_)
      EXPECT_TRUE(Ostrak::LoaderRegistry<Document>::remove(loader));
    EXPECT_EQ(LoaderRegistryBase::numberOfLoaders(typeid(Document)), 0u);
  }
  bool load(const std::list<std::string>& files) {
    request = StrongPtr<LoaderParameters>(new LoaderParameters(files));
    if (progress) request->addInterface(progress);
    target = Target();
    return LoaderRegistryBase::domain_load(request, target, typeid(Document));
  }
  bool errorNames(const std::string& part) const {
    return request->getErrorText().find(part) != std::string::npos;
  }

  std::vector<std::string> log;
  StrongPtr<LoaderParameters> request;
  StrongPtr<VetoingProgress> progress;
  Target target;

 private:
  std::vector<StrongPtr<ScriptedLoader>> registered_;
};

}  // namespace

TEST_F(Loader, FailureNeverThrowsAndItsTextNamesTheFileAndEachLoadersReason) {
  EXPECT_FALSE(load({"runs/first.h5"}));
  EXPECT_TRUE(errorNames("runs/first.h5") && errorNames("Document")) << request->getErrorText();
  EXPECT_FALSE(load({}));
  EXPECT_TRUE(request->hasError());
  EXPECT_FALSE(LoaderRegistryBase::domain_load({}, target, typeid(Document)));

  add("standard", [](LoaderParameters&, Target&) -> bool { throw std::runtime_error("on fire"); });
  add("literal", [](LoaderParameters&, Target&) -> bool { throw "bad magic number"; });
  add("anything", [](LoaderParameters&, Target&) -> bool { throw 42; });
  add("", succeedWith("never"));  // its name() throws
  bool loaded = true;
  EXPECT_NO_THROW(loaded = load({"broken.dat"}));
  EXPECT_FALSE(loaded);
  for (const char* part : {"broken.dat", "standard: on fire", "literal: bad magic number",
                           "anything: unknown exception", "nameless"})
    EXPECT_TRUE(errorNames(part)) << part << " missing in: " << request->getErrorText();
}

TEST_F(Loader, LoadersAreTriedInRegistrationOrderUntilOneSucceedsUnlessDeclined) {
  add("first", [](LoaderParameters& request, Target&) {
    request.setErrorText("not mine");
    return false;
  });
  add("second", succeedWith("from second"));
  add("third", succeedWith("from third"));
  ASSERT_TRUE(load({"a.dat"}));
  EXPECT_EQ(log, (std::vector<std::string>{"first", "second"}));
  EXPECT_EQ(target.target->content, "from second");
  EXPECT_FALSE(request->hasError());

  progress = StrongPtr<VetoingProgress>(new VetoingProgress);
  progress->veto = "second";
  ASSERT_TRUE(load({"a.dat"}));
  EXPECT_EQ(target.target->content, "from third");
  EXPECT_EQ(progress->offered, (std::vector<std::string>{"first", "second", "third"}));
  progress->veto = "*";
  EXPECT_FALSE(load({"a.dat"}));
  EXPECT_TRUE(errorNames("declined")) << request->getErrorText();
}

TEST_F(Loader, PatternsMatchTheBaseNameWithoutCaseAndMustAcceptEveryFile) {
  // pattern, file, whether they match
  const std::vector<std::tuple<const char*, const char*, bool>> cases = {
      {"*.h5", "runs/one.H5", true},
      {"*.h5", "runs.h5/one", false},
      {"run?.dat", "run7.dat", true},
      {"run?.dat", "run17.dat", false},
      {"*a*b", "xaybzb", true},
      {"*a*b", "xaybz", false},
      {"*", "", true},
      {"a*", "", false},
      {"*.*", "noextension", false},
      {"", "x", false}};
  for (const auto& [pattern, file, matches] : cases)
    EXPECT_EQ(LoaderRegistryBase::matches(pattern, file), matches) << pattern << " " << file;

  add("text", succeedWith("text"), {"*.txt"});
  EXPECT_FALSE(load({"a.h5", "b.txt"}));
  EXPECT_TRUE(log.empty());
  add("both", succeedWith("both"), {"*.h5", "*.TXT"});
  ASSERT_TRUE(load({"a.h5", "b.txt"}));
  EXPECT_EQ(target.target->content, "both");
}
