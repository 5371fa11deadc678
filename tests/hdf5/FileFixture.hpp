#pragma once
// A scratch folder per test and small file helpers for the format tests.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "formats/hdf5/Format.hpp"
#include "tests/bundle/BundleFixture.hpp"
#include "tests/hdf5/BundleCompare.hpp"

namespace Quaril::Testing {

/// Registers the format and gives each test an empty folder of its own.
class FileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    H5::registerFormat();
    std::string pattern = (std::filesystem::temp_directory_path() / "quaril-test-XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    folder_ = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::permissions(folder_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(folder_, ignored);
  }

  /// `name` inside the test's folder.
  std::string path(const std::string& name) const { return (folder_ / name).string(); }

  /// The names in the test's folder.
  std::vector<std::string> listing() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder_)) {
      names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  std::filesystem::path folder_;
};

/// The files in the parts folder of the series `journal`, in name order.
inline std::vector<std::string> partsOf(const std::string& journal) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(journal + ".parts")) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// A progress sink that keeps the messages it is told, one per line.
class MessageLog : public Ostrak::LoaderProgress {
 public:
  void message(const std::string& line) override { text += line + "\n"; }
  std::string text;
};

/// A policy that throws at the `remaining`-th fragment it is asked about
/// (never while it is negative).
class ThrowingPolicy : public StorageTransformations {
 public:
  explicit ThrowingPolicy(int k = -1) : remaining(k) {}
  bool isSaveableFragment(const StrongPtr<FragmentID>&, const StrongPtr<CreativeArrayBase>&,
                          const FieldID&, const Field&, const Ostrak::WeakPtr<Grid>&,
                          const std::string&, double, const std::string&,
                          const SkeletonID&) override {
    if (--remaining == 0) throw std::runtime_error("hook failed");
    return true;
  }
  int remaining;
};

inline std::string fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// The descriptor `path` without the room it leaves for later syncs, which
/// depends on its history.
inline std::string withoutRoom(const std::string& path) {
  std::string text = fileBytes(path), kept;
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
    if (text.compare(at, 27, "   <!-- room for more steps") != 0) kept.append(text, at, end - at);
    at = end;
  }
  return kept;
}

/// The descriptor of the series `journal` as written anew from its parts (of
/// a copy, which no binding holds), without room.
inline std::string describedAnew(const std::string& journal) {
  namespace fs = std::filesystem;
  const fs::path copy = fs::path(journal).parent_path() / "anew" / fs::path(journal).filename();
  fs::remove_all(copy.parent_path());
  fs::create_directories(copy.parent_path());
  fs::copy_file(journal, copy);
  fs::copy(journal + ".parts", copy.string() + ".parts");
  const H5::Outcome written = H5::writeXdmf(copy.string());
  EXPECT_TRUE(written.ok) << written.error;
  std::string text = withoutRoom(copy.string() + ".xmf");
  fs::remove_all(copy.parent_path());
  return text;
}

/// The modification time of `file`.
inline struct timespec modificationTime(const std::string& file) {
  struct stat status {};
  EXPECT_EQ(stat(file.c_str(), &status), 0) << file;
  return status.st_mtim;
}

/// Gives `file` the modification time `time`, as damage done by a disk
/// does: a saved file's directory is then still taken as its own.
inline void setModificationTime(const std::string& file, const struct timespec& time) {
  const struct timespec times[2] = {{0, UTIME_OMIT}, time};
  ASSERT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0) << file;
}

/// The file or series `path`, loaded.
inline BundlePtr loaded(const std::string& path) {
  BundlePtr bundle;
  H5::Outcome read = H5::load(bundle, {path});
  EXPECT_TRUE(read.ok) << read.error;
  return bundle;
}

/// `bundle` saved to `path` and loaded back into a new bundle.
inline BundlePtr roundTrip(const Bundle& bundle, const std::string& path) {
  H5::Outcome saved = H5::save(bundle, path);
  EXPECT_TRUE(saved.ok) << saved.error;
  BundlePtr loaded;
  H5::Outcome read = H5::load(loaded, {path});
  EXPECT_TRUE(read.ok) << read.error;
  return loaded;
}

/// Runs `failsWithReason` in a child process whose files may not grow past
/// `bytes` (a full disk, as writes see it); true when it answered true there.
inline bool onAFullDisk(rlim_t bytes, const std::function<bool()>& failsWithReason) {
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{bytes, bytes};
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(failsWithReason() ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// Adds the grid "big" at time `t`: 16,384 doubles, more than a small disk holds.
inline void addBigGrid(const BundlePtr& bundle, double t) {
  makeUniformGrid(gridIn(bundle, t, "big"), {32, 32, 16}, {0, 0, 0}, {1, 1, 1});
  addVertexField(gridIn(bundle, t, "big"), "values", std::vector<double>(32 * 32 * 16, 1.0));
}

}  // namespace Quaril::Testing
