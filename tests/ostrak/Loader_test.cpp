#include "ostrak/Loader.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

using Ostrak::LoaderParameters;
using Ostrak::LoaderRegistryBase;
using Ostrak::StrongPtr;

namespace {

struct Document : Ostrak::ReferenceBase<Document> {
  std::string content;
};
struct Drawing : Ostrak::ReferenceBase<Drawing> {};

using Target = Ostrak::Loader<Document>::ldrpar;
using Action = std::function<bool(LoaderParameters&, Target&)>;

class ScriptedLoader : public Ostrak::Loader<Document> {
 public:
  ScriptedLoader(std::string name, Action action, std::vector<std::string>& log)
      : name_(std::move(name)), action_(std::move(action)), log_(log) {}
  std::string name() const override {
    if (name_.empty()) throw std::runtime_error("nameless");
    return name_;
  }
  bool load(const StrongPtr<LoaderParameters>& request, Target& target) override {
    log_.push_back(name_);
    return action_(*request, target);
  }

 private:
  std::string name_;
  Action action_;
  std::vector<std::string>& log_;
};

class RecordingProgress : public Ostrak::LoaderProgress {
 public:
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
Action failWith(const std::string& reason) {
  return [reason](LoaderParameters& request, Target&) {
    request.setErrorText(reason);
    return false;
  };
}

// Registers loaders for Document and removes them again after each test, so
// that no test sees another's loaders.
class Loader : public ::testing::Test {
 protected:
  void add(const std::string& name, Action action, std::vector<std::string> patterns = {}) {
    StrongPtr<ScriptedLoader> loader(new ScriptedLoader(name, std::move(action), log));
    Ostrak::LoaderRegistry<Document>::add(loader, patterns);
    registered_.push_back(loader);
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
  std::string error() const { return request->getErrorText(); }

  std::vector<std::string> log;
  StrongPtr<LoaderParameters> request;
  StrongPtr<RecordingProgress> progress;
  Target target;

 private:
  std::vector<StrongPtr<ScriptedLoader>> registered_;
};

}  // namespace

TEST_F(Loader, NoMatchingLoaderFailsWithATextNamingTheFile) {
  EXPECT_FALSE(load({"runs/first.h5"}));
  EXPECT_NE(error().find("runs/first.h5"), std::string::npos) << error();
  EXPECT_NE(error().find("Document"), std::string::npos) << error();

  add("text", succeedWith("x"), {"*.txt"});
  EXPECT_FALSE(load({"runs/first.h5"}));
  EXPECT_NE(error().find("runs/first.h5"), std::string::npos) << error();
  EXPECT_TRUE(log.empty());
  EXPECT_FALSE(target.target);

  EXPECT_FALSE(load({}));
  EXPECT_TRUE(request->hasError());
  EXPECT_FALSE(
      LoaderRegistryBase::domain_load(StrongPtr<LoaderParameters>(), target, typeid(Document)));
}

TEST_F(Loader, ThrowingLoaderBecomesFalseWithTheExceptionText) {
  add("standard",
      [](LoaderParameters&, Target&) -> bool { throw std::runtime_error("disk on fire"); });
  add("literal", [](LoaderParameters&, Target&) -> bool { throw "bad magic number"; });
  add("anything", [](LoaderParameters&, Target&) -> bool { throw 42; });
  add("", succeedWith("never"));  // its name() throws
  bool loaded = true;
  EXPECT_NO_THROW(loaded = load({"broken.dat"}));
  EXPECT_FALSE(loaded);
  for (const char* part : {"broken.dat", "standard: disk on fire", "literal: bad magic number",
                           "anything: unknown exception", "nameless"}) {
    EXPECT_NE(error().find(part), std::string::npos) << part << " missing in: " << error();
  }
}

TEST_F(Loader, LoadersAreTriedInRegistrationOrderUntilOneSucceeds) {
  add("first", failWith("not mine"));
  add("second", succeedWith("from second"));
  add("third", succeedWith("from third"));
  ASSERT_TRUE(load({"a.dat"}));
  EXPECT_EQ(log, (std::vector<std::string>{"first", "second"}));
  ASSERT_TRUE(target.target);
  EXPECT_EQ(target.target->content, "from second");
  EXPECT_FALSE(request->hasError());

  // A loader given a target of another type fails cleanly.
  Ostrak::Loader<Drawing>::ldrpar wrongTarget;
  StrongPtr<LoaderParameters> wrongRequest(new LoaderParameters("a.dat"));
  EXPECT_FALSE(LoaderRegistryBase::domain_load(wrongRequest, wrongTarget, typeid(Document)));
  EXPECT_NE(wrongRequest->getErrorText().find("a.dat"), std::string::npos);
}

TEST_F(Loader, PatternsMatchTheBaseNameWithoutCase) {
  struct Case {
    const char* pattern;
    const char* file;
    bool matches;
  };
  const Case cases[] = {
      {"*.h5", "runs/one.H5", true},
      {"*.h5", "runs.h5/one", false},
      {"run?.dat", "run7.dat", true},
      {"run?.dat", "run17.dat", false},
      {"*a*b", "xaybzb", true},
      {"*a*b", "xaybz", false},
      {"*", "", true},
      {"a*", "", false},
      {"*.*", "noextension", false},
      {"", "x", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(LoaderRegistryBase::matches(c.pattern, c.file), c.matches)
        << c.pattern << " against " << c.file;
  }

  // Every file of a request must be accepted by one of the loader's patterns.
  add("h5only", succeedWith("h5"), {"*.h5"});
  EXPECT_FALSE(load({"a.h5", "b.txt"}));
  add("both", succeedWith("both"), {"*.h5", "*.TXT"});
  ASSERT_TRUE(load({"a.h5", "b.txt"}));
  EXPECT_EQ(target.target->content, "both");
}

TEST_F(Loader, ProgressSinkMayDeclineLoaders) {
  add("first", succeedWith("first"));
  add("second", succeedWith("second"));
  progress = StrongPtr<RecordingProgress>(new RecordingProgress);
  progress->veto = "first";
  ASSERT_TRUE(load({"a.dat"}));
  EXPECT_EQ(target.target->content, "second");
  EXPECT_EQ(progress->offered, (std::vector<std::string>{"first", "second"}));

  progress->veto = "*";
  EXPECT_FALSE(load({"a.dat"}));
  EXPECT_NE(error().find("declined"), std::string::npos) << error();
}
