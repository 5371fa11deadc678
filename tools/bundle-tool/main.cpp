// bundle-tool: looks into, lists, follows, copies and demonstrates bundle files.
// Every command is a call of the tools library; this file only reads the
// command line and prints.

#include <CLI/CLI.hpp>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/Check.hpp"
#include "tools/Copy.hpp"
#include "tools/DemoData.hpp"
#include "tools/Progress.hpp"
#include "tools/Summary.hpp"
#include "tools/Watch.hpp"

namespace {

using namespace Quaril;

// Exit codes, as the README lists them.
constexpr int Done = 0;
constexpr int Failed = 1;
constexpr int Unreadable = 3;  // done, but parts of the files could not be read

int fail(const std::string& error) {
  std::fprintf(stderr, "bundle-tool: %s\n", error.c_str());
  return Failed;
}

/// Done, or Unreadable after naming on `out` what of `bundle`'s files could
/// not be read.
int doneWith(const Bundle& bundle, std::FILE* out) {
  const std::vector<H5::Problem> problems = H5::problems(bundle);
  if (problems.empty()) return Done;
  std::fprintf(out, "%s", Tools::formatUnreadable(problems).c_str());
  return Unreadable;
}

/// Opens `files` with a progress bar; null (and the error printed) on failure.
BundlePtr open(const std::vector<std::string>& files) {
  BundlePtr bundle;
  Ostrak::StrongPtr<Tools::TerminalProgress> progress(new Tools::TerminalProgress("reading"));
  const H5::Outcome opened = Tools::openFiles(bundle, files, progress);
  progress->finish();
  if (!opened) {
    fail(opened.error);
    return {};
  }
  return bundle;
}

/// Reads the structure of every step, so that the XML shows all of them.
void readStructure(const Bundle& bundle) {
  for (const auto& [time, slice] : bundle.getSlices()) {
    if (slice) slice->accessSlice();
  }
}

int demo(const std::string& folder) {
  std::error_code error;
  std::filesystem::create_directories(folder, error);
  if (error) return fail("cannot make the folder " + folder + ": " + error.message());
  const std::string file = (std::filesystem::path(folder) / "demo.qb.h5").string();
  std::printf("building the demo data set: 50 time steps of five grids\n");
  BundlePtr built = Tools::makeDemoBundle();
  Ostrak::StrongPtr<Tools::TerminalProgress> progress(new Tools::TerminalProgress("writing"));
  const H5::Outcome saved = H5::save(*built, file, {}, progress);
  progress->finish();
  if (!saved) return fail(saved.error);
  built.reset();
  std::printf("wrote %s (%s); ParaView and VisIt open %s.xmf\n", file.c_str(),
              Tools::formatBytes(std::filesystem::file_size(file, error)).c_str(), file.c_str());
  std::printf("reopened lazily; nothing is read until it is asked for:\n\n");
  BundlePtr reopened = open({file});
  if (!reopened) return Failed;
  std::printf("%s", Tools::formatSummary(Tools::summarize(*reopened)).c_str());
  return Done;
}

int info(const std::vector<std::string>& files, bool json) {
  BundlePtr bundle = open(files);
  if (!bundle) return Failed;
  const Tools::Summary summary = Tools::summarize(*bundle);
  std::printf("%s", (json ? Tools::summaryJson(summary) : Tools::formatSummary(summary)).c_str());
  return summary.unreadable.empty() ? Done : Unreadable;
}

int list(const std::string& file, const std::string& grid) {
  BundlePtr bundle = open({file});
  if (!bundle) return Failed;
  if (!grid.empty() && !bundle->getGridList()->find(grid)) {
    return fail(file + ": no grid \"" + grid + "\"");
  }
  std::printf("%s", Tools::formatListing(Tools::listSteps(*bundle, grid)).c_str());
  return doneWith(*bundle, stdout);
}

int xml(const std::string& file) {
  BundlePtr bundle = open({file});
  if (!bundle) return Failed;
  readStructure(*bundle);
  std::printf("%s", bundle->xml().c_str());
  return doneWith(*bundle, stderr);
}

int check(const std::vector<std::string>& files, bool json) {
  H5::registerFormat();
  if (const H5::Outcome readable = Tools::requireReadable(files); !readable) {
    return fail(readable.error);
  }
  std::vector<H5::CheckReport> reports;
  bool ok = true;
  for (const std::string& file : files) {
    Ostrak::StrongPtr<Tools::TerminalProgress> progress(new Tools::TerminalProgress(file));
    reports.push_back(H5::checkFile(file, progress));
    progress->finish();
    ok = ok && reports.back().ok();
    if (!json) std::printf("%s", Tools::formatCheckReport(reports.back()).c_str());
  }
  if (json) std::printf("%s", Tools::checkReportsJson(reports).c_str());
  return ok ? Done : Unreadable;
}

int watch(const Tools::WatchRequest& request) {
  std::vector<H5::Problem> problems;
  const H5::Outcome watched = Tools::watchSeries(
      request,
      [](const std::string& line) {
        std::fputs(line.c_str(), stdout);
        std::fflush(stdout);  // a line as soon as its step lands, also into a pipe
      },
      &problems);
  if (!watched) return fail(watched.error);
  if (problems.empty()) return Done;
  std::fprintf(stderr, "%s", Tools::formatUnreadable(problems).c_str());
  return Unreadable;
}

int xdmf(const std::string& file) {
  H5::registerFormat();
  const H5::Outcome written = H5::writeXdmf(file);
  if (!written) return fail(written.error);
  std::printf("wrote %s.xmf\n", file.c_str());
  return Done;
}

int copy(std::vector<std::string> paths, const std::vector<std::string>& grids,
         const std::string& times, const std::string& compression, bool noXdmf, bool skipDamaged) {
  Tools::CopyRequest request;
  request.output = paths.back();
  paths.pop_back();
  request.inputs = std::move(paths);
  request.grids = grids;
  if (!compression.empty()) {
    std::string error;
    const std::optional<Tools::Compression> parsed = Tools::parseCompression(compression, error);
    if (!parsed) return fail(error);
    request.compression = *parsed;
  }
  request.xdmf = !noXdmf;
  request.skipDamaged = skipDamaged;
  if (!times.empty()) {
    std::string error;
    request.times = Tools::parseTimeRange(times, error);
    if (!request.times) return fail(error);
  }
  Ostrak::StrongPtr<Tools::TerminalProgress> progress(new Tools::TerminalProgress("copying"));
  std::vector<H5::Problem> unreadable;
  const H5::Outcome copied = Tools::copyBundle(request, progress, &unreadable);
  progress->finish();
  if (!copied) return fail(copied.error);
  return unreadable.empty() ? Done : Unreadable;  // each was told as left out
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Looks into, lists, copies and demonstrates Quaril bundle files.", "bundle-tool"};
  app.set_version_flag("--version", std::string("bundle-tool ") + QUARIL_VERSION);
  app.require_subcommand(1);

  std::string folder = ".";
  CLI::App* demoCommand = app.add_subcommand(
      "demo", "Build a sample data set, save it as DIR/demo.qb.h5, reopen it and summarise it");
  demoCommand->add_option("DIR", folder, "Folder for the file (made when missing)");

  std::vector<std::string> infoFiles;
  bool json = false;
  CLI::App* infoCommand =
      app.add_subcommand("info", "Summarise files: time steps, grids, fields, memory");
  infoCommand->add_option("FILE", infoFiles, "Files, read as one bundle")->required();
  infoCommand->add_flag("--json", json, "Print the summary as JSON");

  std::string listFile, listGrid;
  CLI::App* listCommand =
      app.add_subcommand("ls", "List the time steps, or the steps that hold one grid");
  listCommand->add_option("FILE", listFile, "The file")->required();
  listCommand->add_option("--grid", listGrid,
                          "Only the steps that hold this grid, with its fields");

  std::string xmlFile;
  CLI::App* xmlCommand = app.add_subcommand("xml", "Print the bundle's XML description");
  xmlCommand->add_option("FILE", xmlFile, "The file")->required();

  std::vector<std::string> checkFiles;
  bool checkJson = false;
  CLI::App* checkCommand = app.add_subcommand(
      "check", "Read everything of files or series and report every problem, with where it is");
  checkCommand->add_option("FILE", checkFiles, "Files or series")->required();
  checkCommand->add_flag("--json", checkJson, "Print the reports as JSON");

  Tools::WatchRequest watchRequest;
  double idleSeconds = -1;
  CLI::App* watchCommand = app.add_subcommand(
      "watch",
      "Follow a series while it is written: a line per step, those there first, then each as "
      "its sync lands; ends when the writer releases the series");
  watchCommand->add_option("FILE", watchRequest.file, "The series (or a file)")->required();
  watchCommand->add_flag("--json", watchRequest.json, "A JSON object per line");
  watchCommand->add_option("--idle", idleSeconds,
                           "Also end after SECONDS without a new sync (a writer that was killed "
                           "leaves no end)");

  std::string xdmfFile;
  CLI::App* xdmfCommand = app.add_subcommand(
      "xdmf",
      "Write FILE.xmf anew, through which visualisation programs read FILE as a time series "
      "(saves and syncs write it by themselves)");
  xdmfCommand->add_option("FILE", xdmfFile, "The file or bound series")->required();

  std::vector<std::string> copyPaths, copyGrids;
  std::string copyTimes;
  std::string compression;
  CLI::App* copyCommand = app.add_subcommand(
      "copy", "Merge inputs (files or bound series) and save a selection as one file");
  copyCommand->add_option("IN... OUT", copyPaths, "Input files, then the output file")
      ->required()
      ->expected(2, -1);
  copyCommand->add_option("--grids", copyGrids, "Only these grids (comma-separated)")
      ->delimiter(',');
  copyCommand->add_option("--times", copyTimes, "Only the steps in T0:T1 (T0:, :T1 or T also)");
  copyCommand->add_option("--compress", compression,
                          "zstd[:LEVEL] (1-22), lz4, deflate[:LEVEL] (1-9), or a deflate level "
                          "0 to 9 (0: none); after byte shuffling");
  bool noXdmf = false;
  copyCommand->add_flag("--no-xdmf", noXdmf, "Do not write OUT.xmf for visualisation programs");
  bool skipDamaged = false;
  copyCommand->add_flag("--skip-damaged", skipDamaged,
                        "Leave out what cannot be read, naming each, instead of failing");

  const auto isCommand = [&app](const std::string& name) {
    for (const CLI::App* command : app.get_subcommands({})) {
      if (command->get_name() == name) return true;
    }
    return false;
  };
  if (argc > 1 && argv[1][0] != '-' && !isCommand(argv[1])) {
    std::fprintf(stderr, "bundle-tool: unknown command \"%s\" (see bundle-tool --help)\n", argv[1]);
    return 2;
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help);
  } catch (const CLI::CallForAllHelp& help) {
    return app.exit(help);
  } catch (const CLI::CallForVersion& version) {
    return app.exit(version);
  } catch (const CLI::ParseError& error) {
    std::fprintf(stderr, "bundle-tool: %s (see bundle-tool --help)\n", error.what());
    return 2;
  }
  if (demoCommand->parsed()) return demo(folder);
  if (infoCommand->parsed()) return info(infoFiles, json);
  if (listCommand->parsed()) return list(listFile, listGrid);
  if (xmlCommand->parsed()) return xml(xmlFile);
  if (xdmfCommand->parsed()) return xdmf(xdmfFile);
  if (watchCommand->parsed()) {
    if (watchCommand->count("--idle")) watchRequest.idle = idleSeconds;
    return watch(watchRequest);
  }
  if (checkCommand->parsed()) return check(checkFiles, checkJson);
  return copy(copyPaths, copyGrids, copyTimes, compression, noXdmf, skipDamaged);
}
