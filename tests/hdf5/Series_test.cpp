// Bound series: each sync adds what is new, a reader sees every completed
// sync, a failed or killed sync loses nothing that was complete.

#include <cstring>
#include <random>

#include "tests/hdf5/FileFixture.hpp"

namespace Quaril::Testing {
namespace {

StrongPtr<Field> fieldOf(const BundlePtr& bundle, double t, const std::string& grid,
                         const std::string& name) {
  return gridIn(bundle, t, grid).getCartesianRepresentation()->findField(name);
}

TEST_F(FileTest, eachSyncAddsWhatIsNewAndTheSeriesLoadsAsTheBundle) {
  BundlePtr bundle;
  bundle.create();
  ASSERT_EQ(bundle->bindToNew(path("run.h5")).status, 1);
  StrongPtr<Grid> held;
  struct Edit {
    const char* what;
    std::function<void()> change;
    bool writes;
  };
  const std::vector<Edit> edits{
      {"new slices",
       [&] {
         for (double t : {1.0, 2.0}) {
           makePointCloud(gridIn(bundle, t, "points"), {{t, 0, 0}, {0, t, 0}});
           addVertexField(gridIn(bundle, t, "points"), "mass", std::vector<double>{t, 2 * t});
         }
       },
       true},
      {"nothing", [] {}, false},
      {"a grid in an old slice",
       [&] {
         makeUniformGrid(gridIn(bundle, 1, "box"), {2, 2, 2}, {0, 0, 0}, {1, 1, 1});
       },
       true},
      {"a field in an old grid",
       [&] {
         addVertexField(gridIn(bundle, 1, "points"), "speed", std::vector<float>{3, 4});
       },
       true},
      {"a fragment of an old field",
       [&] {
         Grid& blocks = gridIn(bundle, 2, "blocks");
         makeFragmentedUniformGrid(blocks, {{"west", {2, 1, 1}, {0, 0, 0}, {1, 1, 1}}});
         addVertexField(blocks, "id",
                        std::map<std::string, std::vector<int32_t>>{{"west", {1, 2}}});
       },
       true},
      {"",
       [&] {
         auto field = fieldOf(bundle, 2, "blocks", "id");
         field->setCreator(StrongPtr<CreativeArrayBase>(
                               new MemCreator(MemArray<1, int32_t>::create(DynamicSize{2}))),
                           StrongPtr<FragmentID>(new FragmentID("east")));
       },
       true},
      {"a field replaced",
       [&] {
         auto representation = gridIn(bundle, 2, "points").getCartesianRepresentation();
         representation->removeField(representation->findFieldID("mass"));
         addVertexField(gridIn(bundle, 2, "points"), "mass", std::vector<double>{-1, -2});
       },
       true},
      {"attributes set and removed",
       [&] {
         bundle->setAttribute("title", std::string("run"));
         (*bundle)[1.0]->setAttribute("cycle", int64_t{10});
         gridIn(bundle, 1, "box").setAttribute("solver", std::vector<double>{1, 2});
       },
       true},
      {"", [&] { (*bundle)[1.0]->removeAttribute("cycle"); }, true},
      {"a grid replaced",
       [&] {
         makePointCloud(*(*bundle)[1.0]->newGrid("points"), {{9, 9, 9}});
       },
       true},
      {"an empty slice", [&] { (*bundle)[3.0]; }, true},
      {"a grid held by two slices",
       [&] {
         makePointCloud(gridIn(bundle, 5, "static"), {{5, 5, 5}});
         held = (*(*bundle)[5.0])("static");
         (*bundle)[1.0]->insert("static", held);
       },
       true},
      // Found through the handle alone, syncs after the grid was written.
      {"a field in the grid both hold",
       [&] { addVertexField(*held, "height", std::vector<float>{7}); }, true},
      {"a later step, time and again",  // beyond the room its descriptor left
       [&] {
         const double t = 6 + static_cast<double>(bundle->getSlices().size());
         makePointCloud(gridIn(bundle, t, "points"), {{t, 0, 0}});
       },
       true},
  };
  size_t parts = partsOf(path("run.h5")).size();
  auto check = [&](const Edit& edit) {
    edit.change();
    ASSERT_EQ(bundle->sync(), 1) << edit.what << ": " << H5::lastSync(*bundle).error;
    EXPECT_EQ(partsOf(path("run.h5")).size(), parts + (edit.writes ? 1 : 0)) << edit.what;
    parts = partsOf(path("run.h5")).size();
    EXPECT_EQ(differences(*bundle, *loaded(path("run.h5"))), "") << edit.what;
    // The descriptor, kept up in place, says what one written anew says.
    EXPECT_EQ(withoutRoom(path("run.h5.xmf")), describedAnew(path("run.h5"))) << edit.what;
  };
  for (const Edit& edit : edits) check(edit);
  for (int again = 0; again < 25; ++again) check(edits.back());
  EXPECT_EQ(fieldOf(loaded(path("run.h5")), 2, "blocks", "id")->nFragments(), 2u);
  held.reset();

  // The end of life syncs once more; a consolidating save gives one file.
  makePointCloud(gridIn(bundle, 4, "points"), {{4, 4, 4}});
  BundlePtr expected = loaded(path("run.h5"));
  makePointCloud(gridIn(expected, 4, "points"), {{4, 4, 4}});
  bundle.reset();
  BundlePtr series = loaded(path("run.h5"));
  EXPECT_EQ(series->findMostRecentGrid(10, "static").slice.lock()->getTime(), 5.0);
  EXPECT_EQ(differences(*expected, *series), "");
  ASSERT_TRUE(H5::save(*series, path("one.h5")).ok);
  EXPECT_EQ(differences(*expected, *loaded(path("one.h5"))), "");
  EXPECT_TRUE(H5::check(path("run.h5")).ok) << H5::check(path("run.h5")).error;
}

TEST_F(FileTest, aSeriesOrASingleFileContinuesAndHasOneWriterAtATime) {
  ASSERT_TRUE(H5::save(*makeSampleBundle(), path("single.h5")).ok);
  for (const std::string name : {"single.h5", "single.h5"}) {  // converted, then a series
    BundlePtr writer;
    writer.create();
    ASSERT_EQ(writer->bindTo(path(name)).status, 1) << H5::lastSync(*writer).error;
    const double t = 5 + static_cast<double>(writer->getSlices().size());
    makePointCloud(gridIn(writer, t, "points"), {{t, 0, 0}});
    ASSERT_EQ(writer->sync(), 1);
    BundlePtr second;
    second.create();
    auto refused = second->bindTo(path(name));
    EXPECT_NE(refused.status, 1);
    EXPECT_NE(refused.text.find("bound already"), std::string::npos) << refused.text;
    EXPECT_EQ(differences(*writer, *loaded(path(name))), "");
  }
  BundlePtr absent;
  absent.create();
  EXPECT_NE(absent->bindTo(path("absent.h5")).text.find("no such file"), std::string::npos);
  BundlePtr all = loaded(path("single.h5"));
  EXPECT_EQ(all->getSlices().size(), 6u) << "the sample's four times and two more";
  // A bundle loaded from the series and bound to it writes only its news.
  BundlePtr reader = loaded(path("single.h5"));
  const size_t parts = partsOf(path("single.h5")).size();
  ASSERT_EQ(reader->bindTo(path("single.h5")).status, 1);
  for (const auto& [time, slice] : reader->getSlices()) slice->accessSlice();
  EXPECT_EQ(reader->sync(), 1);
  EXPECT_EQ(partsOf(path("single.h5")).size(), parts) << "nothing new to write";
  reader.reset();
  // Replacing the series it was read from keeps the parts the bundle reads.
  BundlePtr again = loaded(path("single.h5"));
  ASSERT_EQ(again->bindToNew(path("single.h5")).status, 1);
  EXPECT_EQ(differences(*again, *loaded(path("single.h5"))), "");
}

TEST_F(FileTest, aFailedSyncLeavesTheSeriesByteForByteAndSaysWhy) {
  StrongPtr<ThrowingPolicy> policy(new ThrowingPolicy);
  BundlePtr bundle;
  bundle.create();
  ASSERT_EQ(bundle->bindToNew(path("run.h5"), policy).status, 1);
  makePointCloud(gridIn(bundle, 0, "points"), {{0, 0, 0}});
  ASSERT_EQ(bundle->sync(), 1);
  const std::string journal = fileBytes(path("run.h5"));
  const std::string described = fileBytes(path("run.h5.xmf"));
  const std::vector<std::string> parts = partsOf(path("run.h5"));
  auto unchanged = [&](const std::string& what) {
    EXPECT_EQ(fileBytes(path("run.h5")), journal) << what;
    EXPECT_EQ(fileBytes(path("run.h5.xmf")), described) << what;
    EXPECT_EQ(partsOf(path("run.h5")), parts) << what;
    EXPECT_EQ(listing(), (std::vector<std::string>{"run.h5", "run.h5.parts", "run.h5.xmf"}))
        << what;
  };

  BundlePtr news = makeSampleBundle();
  for (const auto& [time, slice] : news->getSlices()) {
    for (const auto& [id, grid] : slice->getGrids()) (*bundle)[time]->insert(id->getName(), grid);
  }
  int k = 1;
  for (;; ++k) {
    policy->remaining = k;
    if (bundle->sync() == 1) break;
    EXPECT_NE(H5::lastSync(*bundle).error.find("hook failed"), std::string::npos);
    unchanged("fragment " + std::to_string(k));
  }
  EXPECT_GT(k, 10);
  policy->remaining = -1;

  // A full disk: the sync runs in a child whose files may not grow past 16 KiB.
  const std::string before = fileBytes(path("run.h5"));
  addBigGrid(bundle, 9);
  EXPECT_TRUE(onAFullDisk(16 << 10, [&] {
    return bundle->sync() == 0 && !H5::lastSync(*bundle).error.empty();
  })) << "the sync must fail with a reason";
  EXPECT_EQ(fileBytes(path("run.h5")), before);

  // A parts folder that cannot be written: a file in its place.
  std::filesystem::rename(path("run.h5.parts"), path("kept"));
  std::ofstream(path("run.h5.parts")) << "in the way";
  EXPECT_EQ(bundle->sync(), 0);
  EXPECT_NE(H5::lastSync(*bundle).error.find("cannot write"), std::string::npos)
      << H5::lastSync(*bundle).error;
  std::filesystem::remove(path("run.h5.parts"));
  std::filesystem::rename(path("kept"), path("run.h5.parts"));
  EXPECT_EQ(fileBytes(path("run.h5")), before);
  EXPECT_EQ(bundle->sync(), 1) << "what failed is written by the next sync";
  EXPECT_EQ(differences(*bundle, *loaded(path("run.h5"))), "");
}

/// Where each record of the journal `bytes` begins, and where the last ends.
std::vector<size_t> recordOffsets(const std::string& bytes) {
  std::vector<size_t> offsets;
  size_t at = 32;  // magic, version, token
  while (at + 12 <= bytes.size()) {
    offsets.push_back(at);
    uint32_t length = 0;
    std::memcpy(&length, bytes.data() + at + 4, sizeof(length));
    at += 12 + length;
  }
  offsets.push_back(at);
  return offsets;
}

TEST_F(FileTest, aDamagedJournalRecordCostsNoStepAndNoPart) {
  // Part 0 of the binding, then ten syncs of a step each (parts 1 to 10);
  // then the journal is damaged as the cases say.
  struct Case {
    const char* what;
    std::function<void(std::string& journal, const std::vector<size_t>& records)> damage;
    size_t steps;   // loaded afterwards
    bool reported;  // as a problem of the bundle
    bool lost;      // data missing from the bundle
  };
  const std::vector<Case> cases{
      {"a bit of the fourth record's payload",
       [](std::string& journal, const std::vector<size_t>& records) {
         journal[records[3] + 40] ^= 0x10;
       },
       10, true, false},
      {"the fourth record's header",
       [](std::string& journal, const std::vector<size_t>& records) {
         journal[records[3] + 1] ^= 0x01;
       },
       10, true, false},
      {"the last record, as a crash cuts it",
       [](std::string& journal, const std::vector<size_t>& records) {
         // A killed writer leaves no closing record (the last one here).
         journal.resize(records[records.size() - 3] + 20);
       },
       9, false, false},
      {"the closing record",
       [](std::string& journal, const std::vector<size_t>& records) {
         journal[records[records.size() - 2] + 14] ^= 0x01;
       },
       10, false, false},
      {"the fourth record and its part",
       [this](std::string& journal, const std::vector<size_t>& records) {
         journal[records[3] + 40] ^= 0x10;
         for (const std::string& part : partsOf(path("run.h5"))) {
           if (part.size() > 5 && part.substr(part.size() - 5) == "-3.h5") {
             std::filesystem::remove(path("run.h5.parts/" + part));
           }
         }
       },
       9, true, true}};
  for (const Case& test : cases) {
    std::filesystem::remove_all(path("run.h5.parts"));
    BundlePtr writer;
    writer.create();
    ASSERT_EQ(
        writer->bindToNew(path("run.h5"), StrongPtr<StorageTransformations>(new H5::StorageOptions))
            .status,
        1);
    for (int64_t step = 0; step < 10; ++step) {
      const double t = static_cast<double>(step);
      makePointCloud(gridIn(writer, t, "tracer"), {{t, 0, 0}});
      addVertexField(gridIn(writer, t, "tracer"), "id", std::vector<int64_t>{step});
      ASSERT_EQ(writer->sync(), 1);
    }
    writer.reset();
    std::string journal = fileBytes(path("run.h5"));
    test.damage(journal, recordOffsets(journal));
    std::ofstream(path("run.h5"), std::ios::binary | std::ios::trunc) << journal;

    BundlePtr bundle;
    ASSERT_TRUE(H5::load(bundle, {path("run.h5")}).ok) << test.what;
    EXPECT_EQ(bundle->getSlices().size(), test.steps) << test.what;
    for (const auto& [time, slice] : bundle->getSlices()) {
      auto ids = (*slice)("tracer")->getCartesianRepresentation()->findField("id")->getData();
      ASSERT_TRUE(ids) << test.what;
      EXPECT_EQ(static_cast<const int64_t*>(ids->rawData())[0], static_cast<int64_t>(time));
    }
    const std::vector<H5::Problem> problems = H5::problems(*bundle);
    ASSERT_EQ(problems.size(), test.reported ? 1u : 0u) << test.what;
    if (test.reported) {
      EXPECT_NE(problems[0].where.find("record of part 3"), std::string::npos)
          << problems[0].text();
      EXPECT_EQ(problems[0].lost, test.lost) << test.what;
      EXPECT_FALSE(H5::check(path("run.h5")).ok) << test.what;
    }
    // Going on with the series keeps every part a record names, damaged or not.
    const size_t parts = partsOf(path("run.h5")).size();
    ASSERT_EQ(bundle->bindTo(path("run.h5")).status, 1) << H5::lastSync(*bundle).error;
    makePointCloud(gridIn(bundle, 10, "tracer"), {{10, 0, 0}});
    addVertexField(gridIn(bundle, 10, "tracer"), "id", std::vector<int64_t>{10});
    ASSERT_EQ(bundle->sync(), 1) << test.what << ": " << H5::lastSync(*bundle).error;
    bundle.reset();
    const size_t kept = test.steps == 9 && !test.lost ? parts - 1 : parts;
    EXPECT_EQ(partsOf(path("run.h5")).size(), kept + 1) << test.what;
    BundlePtr again;
    ASSERT_TRUE(H5::load(again, {path("run.h5")}).ok) << test.what;
    EXPECT_EQ(again->getSlices().size(), test.steps + 1) << test.what;
  }
}

/// Binds a new series with `durability` and syncs steps one by one, telling
/// `report` the number of each step whose sync completed, until it is killed.
[[noreturn]] void writeSteps(const std::string& file, int report, H5::Durability durability) {
  BundlePtr bundle;
  bundle.create();
  StrongPtr<H5::StorageOptions> options(new H5::StorageOptions);
  options->setDurability(durability);
  if (bundle->bindToNew(file, options).status != 1) _exit(2);
  for (int64_t step = 0;; ++step) {
    const double t = static_cast<double>(step) * 0.25;
    makePointCloud(gridIn(bundle, t, "tracer"), {{t, -t, 1.0 / (t + 3)}});
    addVertexField(gridIn(bundle, t, "tracer"), "id", std::vector<int64_t>{step});
    if (bundle->sync() != 1) _exit(3);
    if (write(report, &step, sizeof(step)) != sizeof(step)) _exit(4);
  }
}

TEST_F(FileTest, aKilledWriterLosesNoCompletedSync) {
  std::mt19937 random(20261122);
  for (int trial = 0; trial < 200; ++trial) {
    const std::string file = path("killed" + std::to_string(trial) + ".h5");
    int report[2];
    ASSERT_EQ(pipe(report), 0);
    const pid_t child = fork();
    if (child == 0) {
      close(report[0]);
      // Either level survives a kill: only a power loss tells them apart.
      writeSteps(file, report[1], trial % 2 ? H5::Durability::Crash : H5::Durability::PowerLoss);
    }
    close(report[1]);
    usleep(std::uniform_int_distribution<useconds_t>(0, 30000)(random));
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    int64_t reported = -1, completed = -1;
    while (read(report[0], &reported, sizeof(reported)) == sizeof(reported)) completed = reported;
    close(report[0]);
    ASSERT_TRUE(WIFSIGNALED(status)) << "trial " << trial << ": the writer ended by itself";
    if (!std::filesystem::exists(file)) {
      ASSERT_EQ(completed, -1) << "trial " << trial;
      continue;
    }
    BundlePtr bundle;
    H5::Outcome read = H5::load(bundle, {file});
    ASSERT_TRUE(read.ok) << "trial " << trial << ": " << read.error;
    // Every completed step is there bit for bit; one more may be, whose
    // sync completed just before the kill could be reported.
    const int64_t held = static_cast<int64_t>(bundle->getSlices().size());
    ASSERT_TRUE(held == completed + 1 || held == completed + 2) << "trial " << trial;
    int64_t step = 0;
    for (const auto& [time, slice] : bundle->getSlices()) {
      ASSERT_EQ(time, static_cast<double>(step) * 0.25);
      auto grid = (*slice)("tracer");
      ASSERT_TRUE(grid) << "trial " << trial << " step " << step;
      auto ids = grid->getCartesianRepresentation()->findField("id")->getData();
      ASSERT_TRUE(ids) << "trial " << trial << " step " << step;
      EXPECT_EQ(static_cast<const int64_t*>(ids->rawData())[0], step);
      auto positions = grid->CartesianPositions()->getData();
      EXPECT_EQ(static_cast<const point*>(positions->rawData())[0].z, 1.0 / (time + 3));
      ++step;
    }
  }
}

}  // namespace
}  // namespace Quaril::Testing
