// bundle-tool run as a user runs it: exit codes, output, JSON read back, and
// the library calls behind it.

#include <pty.h>

#include <array>
#include <functional>
#include <tuple>

#include <nlohmann/json.hpp>

#include "tests/hdf5/FileFixture.hpp"
#include "tools/Copy.hpp"
#include "tools/Progress.hpp"
#include "tools/Summary.hpp"

namespace Quaril::Testing {
namespace {

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

class ToolTest : public FileTest {
 protected:
  /// Runs bundle-tool with `arguments` (words for the shell) in the test's
  /// folder.
  ToolRun tool(const std::string& arguments) const {
    return shell(QUARIL_BUNDLE_TOOL " " + arguments);
  }

  /// Runs the shell command `line` in the test's folder.
  ToolRun shell(const std::string& line) const {
    const std::string command =
        "cd '" + folder_.string() + "' && " + line + " > out.txt 2> err.txt";
    const int status = std::system(command.c_str());
    ToolRun run{WIFEXITED(status) ? WEXITSTATUS(status) : -1, fileBytes(path("out.txt")),
                fileBytes(path("err.txt"))};
    std::filesystem::remove(path("out.txt"));
    std::filesystem::remove(path("err.txt"));
    return run;
  }

  /// A file of three steps: a triangle surface at each, a point cloud at 1
  /// and 2, "child" under "surface" at 2.
  void writeSample(const std::string& name) const {
    BundlePtr bundle;
    bundle.create();
    for (double t : {0.0, 1.0, 2.0}) {
      makeTriangleSurface(gridIn(bundle, t, "surface"), {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}},
                          {{0, 1, 2}});
      addCellField(gridIn(bundle, t, "surface"), "area", std::vector<float>{0.5f});
      if (t > 0) makePointCloud(gridIn(bundle, t, "points"), {{t, t, t}});
    }
    makePointCloud(*(*bundle)[2.0]->newGrid("child", "surface"), {{0, 0, 0}});
    ASSERT_TRUE(H5::save(*bundle, path(name)).ok);
  }
};

TEST_F(ToolTest, infoSummarisesInAFreshProcessAndItsJsonReadsBack) {
  writeSample("sample.h5");
  const ToolRun run = tool("info --json sample.h5");
  ASSERT_EQ(run.status, 0) << run.err;
  const nlohmann::json summary = nlohmann::json::parse(run.out);
  EXPECT_EQ(summary["times"], nlohmann::json({0.0, 1.0, 2.0}));
  std::map<std::string, nlohmann::json> grids;
  for (const auto& grid : summary["grids"]) grids[grid["name"]] = grid;
  ASSERT_EQ(grids.size(), 3u);
  EXPECT_EQ(grids["points"]["steps"], 2);
  EXPECT_EQ(grids["points"]["first"], 1.0);
  EXPECT_EQ(grids["child"]["parent"], "surface");
  EXPECT_TRUE(grids["surface"]["parent"].is_null());
  // The vertex triples are a type this process never made before reading.
  std::map<std::string, std::string> types;
  for (const auto& field : grids["surface"]["fields"]) types[field["name"]] = field["type"];
  EXPECT_EQ(types, (std::map<std::string, std::string>{
                       {"Positions", "point"}, {"Triangles", "uint32x3"}, {"area", "float"}}));
  EXPECT_EQ(summary["memory"]["resident"], 0) << "opening reads no field data";
  EXPECT_GT(summary["memory"]["total"], 0);
  EXPECT_EQ(run.err, "");
}

TEST_F(ToolTest, everyCommandAnswersWithItsExitStatusAndOneLineOnError) {
  writeSample("sample.h5");
  std::filesystem::create_directory(path("folder"));
  std::ofstream(path("garbage.h5")) << "not a bundle";
  struct Case {
    const char* arguments;
    int status;
    const char* inOutput;  // "" : no check
    const char* error;     // the whole of standard error
  };
  const std::vector<Case> cases{
      {"--version", 0, "bundle-tool 0.1.0", ""},
      {"copy --help", 0, "--times", ""},
      {"info sample.h5", 0, "3 time steps, from 0 to 2", ""},
      {"ls sample.h5", 0, "2            3", ""},
      {"ls sample.h5 --grid points", 0, "2            1", ""},
      {"xml sample.h5", 0, "<FIELD name=\"Triangles\" type=\"uint32x3\"", ""},
      {"xdmf sample.h5", 0, "wrote sample.h5.xmf", ""},
      {"info missing.h5", 1, "", "bundle-tool: missing.h5: no such file\n"},
      {"info folder", 1, "", "bundle-tool: folder: a folder, not a file\n"},
      {"ls sample.h5 --grid nothing", 1, "", "bundle-tool: sample.h5: no grid \"nothing\"\n"},
      {"copy sample.h5 out.h5 --grids nothing", 1, "",
       "bundle-tool: no grid \"nothing\" in the input\n"},
      {"copy sample.h5 out.h5 --times 2:1", 1, "",
       "bundle-tool: bad time range \"2:1\": it ends before it begins\n"},
      {"copy sample.h5 out.h5 --times 5:", 1, "", "bundle-tool: no time step in the range\n"},
      {"copy sample.h5 out.h5 --compress 10", 1, "",
       "bundle-tool: bad compression \"10\": expected zstd[:1-22], lz4, deflate[:1-9], none, or "
       "a deflate level 0 to 9\n"},
      {"copy sample.h5 zstd.h5 --compress zstd:5", 0, "", ""},
      {"copy sample.h5 lz4.h5 --compress lz4", 0, "", ""},
      {"copy sample.h5 out.h5 --compress zstd:23", 1, "", nullptr},
      {"copy sample.h5 out.h5 --compress lz4:2", 1, "", nullptr},
      {"watch sample.h5", 0, "2            3", ""},
      {"watch sample.h5 --json", 0, "{\"time\":1.0,\"grids\":[\"points\",\"surface\"]", ""},
      {"watch missing.h5", 1, "", nullptr},
      {"watch sample.h5 --idle -1", 1, "",
       "bundle-tool: the idle time must be a number of seconds, 0 or more\n"},
      {"frob", 2, "", "bundle-tool: unknown command \"frob\" (see bundle-tool --help)\n"},
      {"copy sample.h5", 2, "", nullptr},
      {"", 2, "", nullptr},
  };
  for (const Case& c : cases) {
    const ToolRun run = tool(c.arguments);
    EXPECT_EQ(run.status, c.status) << c.arguments << ": " << run.err;
    EXPECT_NE(run.out.find(c.inOutput), std::string::npos) << c.arguments << ": " << run.out;
    if (c.error) {
      EXPECT_EQ(run.err, c.error) << c.arguments;
    }
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), run.err.empty() ? 0 : 1)
        << c.arguments << ": " << run.err;
  }
  EXPECT_FALSE(std::filesystem::exists(path("out.h5"))) << "a failed copy writes nothing";
  const ToolRun garbage = tool("info garbage.h5");
  EXPECT_EQ(garbage.status, 1);
  EXPECT_NE(garbage.err.find("garbage.h5: not an HDF5 file"), std::string::npos) << garbage.err;
}

TEST_F(ToolTest, copyMergesSelectsAndTurnsASeriesIntoOneFile) {
  writeSample("sample.h5");
  BundlePtr series;
  series.create();
  makePointCloud(gridIn(series, 3.0, "points"), {{3, 3, 3}});
  ASSERT_EQ(series->bindToNew(path("run.h5")).status, 1);
  makePointCloud(gridIn(series, 4.0, "points"), {{4, 4, 4}});
  ASSERT_EQ(series->sync(), 1);

  const ToolRun run = tool("copy sample.h5 run.h5 out.h5 --grids points --times 1:3 --compress 4");
  ASSERT_EQ(run.status, 0) << run.err;
  BundlePtr copied, expected;
  ASSERT_TRUE(H5::load(copied, {path("out.h5")}).ok);
  ASSERT_TRUE(H5::load(expected, {path("sample.h5"), path("run.h5")}).ok);
  BundlePtr selected;
  selected.create();
  for (double t : {1.0, 2.0, 3.0}) (*selected)[t]->insert("points", (*(*expected)[t])("points"));
  EXPECT_EQ(differences(*selected, *copied), "");
  EXPECT_TRUE(std::filesystem::exists(path("out.h5.xmf")));
  // The series' descriptor is its binding's while it is bound.
  const ToolRun bound = tool("xdmf run.h5");
  EXPECT_EQ(bound.status, 1);
  EXPECT_NE(bound.err.find("bound already"), std::string::npos) << bound.err;
  series.reset();
  EXPECT_EQ(tool("xdmf run.h5").status, 0);
  ASSERT_EQ(tool("copy run.h5 whole.h5 --no-xdmf").status, 0);
  BundlePtr whole;
  ASSERT_TRUE(H5::load(whole, {path("whole.h5")}).ok);
  EXPECT_EQ(whole->getSlices().size(), 2u);
  EXPECT_FALSE(std::filesystem::exists(path("whole.h5.xmf")));
}

TEST_F(ToolTest, demoWritesTheSampleAndSummarisesItReopenedLazily) {
  const ToolRun run = tool("demo demo");
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_NE(run.out.find("50 time steps, from 0 to 0.98"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("grid \"refined\" (child of \"fluid\")"), std::string::npos);
  EXPECT_NE(run.out.find("memory: 0 B resident of"), std::string::npos);
  EXPECT_TRUE(H5::check(path("demo/demo.qb.h5")).ok);
}

TEST(TerminalProgress, drawsOnATerminalOnlyAfterItsDelayAndClearsItsLine) {
  int terminal = -1, device = -1;
  ASSERT_EQ(openpty(&terminal, &device, nullptr, nullptr, nullptr), 0);
  std::FILE* onTerminal = fdopen(device, "w");
  std::FILE* inFile = std::tmpfile();
  using std::chrono::milliseconds;
  {
    Tools::TerminalProgress waiting("slow", onTerminal, milliseconds(60000));
    Tools::TerminalProgress drawing("reading", onTerminal, milliseconds(0));
    Tools::TerminalProgress redirected("copying", inFile, milliseconds(0));
    for (auto* sink : {&waiting, &drawing, &redirected}) sink->progress(1, 2);
  }
  std::fclose(onTerminal);
  // The terminal hands its bytes over in pieces; it ends once its other side is closed.
  std::string drawn;
  char bytes[256];
  for (ssize_t got; (got = read(terminal, bytes, sizeof bytes)) > 0;) {
    drawn.append(bytes, static_cast<size_t>(got));
  }
  EXPECT_NE(drawn.find("reading [###############               ]  50%"), std::string::npos)
      << drawn;
  EXPECT_EQ(drawn.find("slow"), std::string::npos) << "drawn before its delay";
  EXPECT_EQ(drawn.back(), '\r') << "the line is cleared at the end";
  EXPECT_EQ(std::ftell(inFile), 0) << "nothing drawn into a file";
  std::fclose(inFile);
  close(terminal);
}

TEST(TimeRange, readsBothEndsOneEndOrOneTimeAndRefusesTheRest) {
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    const char* text;
    bool ok;
    double first, last;
  };
  for (const Case& c : std::vector<Case>{{"0.5:2", true, 0.5, 2},
                                         {"-1e3:", true, -1e3, inf},
                                         {":7", true, -inf, 7},
                                         {"3", true, 3, 3},
                                         {"2:2", true, 2, 2},
                                         {":", false, 0, 0},
                                         {"", false, 0, 0},
                                         {"a:b", false, 0, 0},
                                         {"1:2:3", false, 0, 0},
                                         {"nan:1", false, 0, 0},
                                         {"1e999", false, 0, 0},
                                         {"3:1", false, 0, 0}}) {
    std::string error;
    const std::optional<Tools::TimeRange> range = Tools::parseTimeRange(c.text, error);
    EXPECT_EQ(range.has_value(), c.ok) << c.text;
    EXPECT_EQ(error.empty(), c.ok) << c.text;
    if (range) {
      EXPECT_TRUE(range->first == c.first && range->last == c.last) << c.text;
    }
  }
}

TEST_F(ToolTest, aDamagedGridIsListedAsUnreadableAndNoCommandDropsItSilently) {
  writeSample("sample.h5");
  std::string bytes = fileBytes(path("sample.h5"));
  const size_t at = bytes.find("\"elements\"");  // in the structure of "surface"
  ASSERT_NE(at, std::string::npos);
  bytes.replace(at, 10, "\"elementz\"");
  std::ofstream(path("damaged.h5"), std::ios::binary) << bytes;
  const std::string unreadable = "unreadable: damaged.h5: grid \"surface\" at time 0: ";
  struct Case {
    const char* command;
    int status;
    std::string out, err;  // what each must hold
  };
  const std::vector<Case> cases{
      {"info damaged.h5", 3, unreadable, ""},
      {"info --json damaged.h5", 3, "\"where\": \"grid \\\"surface\\\" at time 0\"", ""},
      {"ls damaged.h5", 3, unreadable, ""},
      {"xml damaged.h5", 3, "", unreadable},
      {"check sample.h5 damaged.h5", 3,
       "sample.h5: ok (6 grids, 12 arrays, 336 B read)\n"
       "damaged.h5: 3 problems (3 grids, 3 arrays, 72 B read)\n"
       "  damaged.h5: grid \"surface\" at time 0: its structure: the key \"elements\" is missing\n"
       "  damaged.h5: grid \"surface\" at time 1: its structure: the key \"elements\" is missing\n",
       ""},
      {"check --json damaged.h5", 3,
       "\"reason\": \"its structure: the key \\\"elements\\\" is missing\"", ""},
      {"check sample.h5", 0, "sample.h5: ok", ""},
      {"copy damaged.h5 damaged.h5", 1, "", "refused: it would lose what could not be read"},
      {"copy --skip-damaged damaged.h5 kept.h5", 3, "", "left out, " + unreadable}};
  for (const Case& test : cases) {
    const ToolRun run = tool(test.command);
    EXPECT_EQ(run.status, test.status) << test.command << ": " << run.err;
    EXPECT_NE(run.out.find(test.out), std::string::npos) << test.command << ": " << run.out;
    EXPECT_NE(run.err.find(test.err), std::string::npos) << test.command << ": " << run.err;
    EXPECT_EQ(fileBytes(path("damaged.h5")), bytes) << test.command;
  }
  BundlePtr kept;
  ASSERT_TRUE(H5::load(kept, {path("kept.h5")}).ok);
  EXPECT_EQ(kept->getSlices().size(), 3u);
  EXPECT_EQ(gridIn(kept, 2, "points").CartesianPositions()->getData()->nElements(), 1u)
      << "what could be read is copied";
  EXPECT_TRUE(H5::problems(*kept).empty());
}

TEST_F(ToolTest, everyFileTheFuzzerFoundEndsWithOneLineAndNoNoise) {
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(QUARIL_FUZZ_CRASHES)) {
    if (entry.path().extension() != ".h5") continue;
    ++files;
    for (const std::string command : {"info", "ls", "xml"}) {
      // A hang would be killed by timeout (status 124).
      const ToolRun run = shell("timeout 60 " QUARIL_BUNDLE_TOOL " " + command + " '" +
                                entry.path().string() + "'");
      EXPECT_EQ(run.status, 1) << command << " " << entry.path() << ": " << run.err;
      EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1)
          << command << " " << entry.path() << ": " << run.err;
      EXPECT_EQ(run.err.find("HDF5"), run.err.find("HDF5 bundle")) << run.err;
    }
  }
  EXPECT_GE(files, 3u);
}

// A person or a script follows a run: a line per step as its sync lands,
// and the end when the writer releases the series.
TEST_F(ToolTest, watchFollowsASeriesUntilItsWriterLetsGo) {
  BundlePtr writer;
  writer.create();
  const auto addStep = [&](double t) { makePointCloud(gridIn(writer, t, "points"), {{t, 0, 0}}); };
  addStep(0.1);
  ASSERT_EQ(writer->bindToNew(path("run.h5")).status, 1);
  std::FILE* watching = popen(
      ("cd '" + folder_.string() + "' && " QUARIL_BUNDLE_TOOL " watch run.h5 --json --idle 20")
          .c_str(),
      "r");
  ASSERT_NE(watching, nullptr);
  const auto nextLine = [&] {
    std::array<char, 4096> line{};
    return std::fgets(line.data(), line.size(), watching) ? nlohmann::json::parse(line.data())
                                                          : nlohmann::json();
  };
  // Each step as it lands, times exactly as written; a step added to, as changed.
  const std::vector<std::function<void()>> syncs{
      [] {},
      [&] {
        addStep(1e-300);
        addStep(2.0 / 3);
      },
      [&] { addVertexField(gridIn(writer, 2.0 / 3, "points"), "mass", std::vector<double>{1}); },
      [&] {
        makePointCloud(gridIn(writer, 7, "other"), {{0, 0, 0}});
      }};
  const std::vector<std::tuple<double, std::vector<std::string>, bool>> expected{
      {0.1, {"points"}, false},
      {1e-300, {"points"}, false},
      {2.0 / 3, {"points"}, false},
      {2.0 / 3, {"points"}, true},
      {7, {"other"}, false}};
  size_t seen = 0;
  for (size_t sync = 0; sync < syncs.size(); ++sync) {
    syncs[sync]();
    if (sync > 0) {
      ASSERT_EQ(writer->sync(), 1);
    }
    const size_t lines = sync == 0 ? 1 : sync == 1 ? 2 : 1;
    for (size_t line = 0; line < lines; ++line, ++seen) {
      const nlohmann::json step = nextLine();
      ASSERT_TRUE(step.is_object()) << "line " << seen;
      EXPECT_EQ(step["time"].get<double>(), std::get<0>(expected[seen])) << step.dump();
      EXPECT_EQ(step["grids"].get<std::vector<std::string>>(), std::get<1>(expected[seen]));
      EXPECT_EQ(step["changed"].get<bool>(), std::get<2>(expected[seen])) << step.dump();
    }
  }
  writer.reset();  // released: the closing record ends the watch at once
  EXPECT_TRUE(nextLine().is_null()) << "no line after the last step";
  const int status = pclose(watching);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace Quaril::Testing
