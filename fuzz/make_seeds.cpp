// Writes the fuzzer's first inputs into the folder given: bundle files of
// every mesh kind, a file of many slices, a bound series' journal, and a few
// inputs that are no bundle at all.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "formats/hdf5/Format.hpp"
#include "tests/bundle/BundleFixture.hpp"

using namespace Quaril;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: fuzz_seeds FOLDER\n";
    return 2;
  }
  H5::registerFormat();
  const std::filesystem::path folder(argv[1]);
  std::filesystem::create_directories(folder);
  auto at = [&](const std::string& name) { return (folder / name).string(); };
  bool ok = H5::save(*Testing::makeSampleBundle(), at("sample.h5")).ok;
  BundlePtr steps;
  steps.create();
  for (int step = 0; step < 20; ++step) {
    makePointCloud(Testing::gridIn(steps, step, "p" + std::to_string(step % 3)),
                   {{double(step), 0, 0}});
  }
  ok = H5::save(*steps, at("steps.h5")).ok && ok;
  {
    BundlePtr series;
    series.create();
    ok = series->bindToNew(at("series.h5")).status == 1 && ok;
    makePointCloud(Testing::gridIn(series, 1, "p"), {{1, 2, 3}});
    ok = series->sync() == 1 && ok;
  }
  std::filesystem::remove_all(at("series.h5.parts"));
  std::ofstream(at("text.h5")) << "not a bundle\n";
  std::ofstream(at("empty.h5"));
  if (!ok) std::cerr << "fuzz_seeds: some seeds could not be written\n";
  return ok ? 0 : 1;
}
