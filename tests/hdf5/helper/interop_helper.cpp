// The C++ side of the h5py interoperability test:
//   interop_helper write FILE [zstd|lz4]   saves the sample bundle of the tests
//   interop_helper dump FILE    loads FILE and prints it, one line each: "attribute <name>
//     <text>", "slice <time>", "grid-attribute <name> <text>", "grid <name> <parent or ->", "field <name> <type> <values>",
//     "uniform <name> <origin> <spacing> <extents>"

#include <cstdio>
#include <iostream>

#include "formats/hdf5/Format.hpp"
#include "tests/bundle/BundleFixture.hpp"
#include "tests/hdf5/BundleCompare.hpp"

using namespace Quaril;

namespace {

/// Prints the values of an array of doubles or floats (of any component count).
void printValues(const MemBase& data) {
  const QuarilTypeBase& type = data.getTypeDescriptor();
  const uint64_t count = data.nElements() * static_cast<uint64_t>(type.components());
  const bool isFloat = type.componentType().is<float>();
  for (uint64_t i = 0; i < count; ++i) {
    std::printf(" %.17g", isFloat ? static_cast<const float*>(data.rawData())[i]
                                  : static_cast<const double*>(data.rawData())[i]);
  }
}

/// Prints the text attributes, one line each: "<kind> <name> <text>".
void printTexts(const char* kind, const Ostrak::Attributes& attributes) {
  for (const auto& [name, value] : attributes.attributes()) {
    if (auto* text = std::get_if<std::string>(&value)) {
      std::printf("%s %s %s\n", kind, name.c_str(), text->c_str());
    }
  }
}

void dump(const Bundle& bundle) {
  printTexts("attribute", bundle);
  for (const auto& [time, slice] : bundle.getSlices()) {
    std::printf("slice %.17g\n", time);
    slice->accessSlice();
    for (const auto& [id, grid] : slice->getGrids()) {
      const GridID* parent = id->getParent().get();
      std::printf("grid %s %s\n", id->getName().c_str(), parent ? parent->getName().c_str() : "-");
      printTexts("grid-attribute", *grid);
      std::string shape;
      for (const auto& [where, field] : Testing::detail::fieldsOf(*grid, shape)) {
        auto data = field->getData();
        const std::string name = where.substr(where.rfind(" / ") + 3);
        if (auto* uniform = dynamic_cast<const UniformCartesianArray*>(data.get())) {
          std::printf("uniform %s", name.c_str());
          const auto origin = uniform->origin();
          const auto spacing = uniform->spacing();
          for (double v : {origin.x, origin.y, origin.z, spacing.x, spacing.y, spacing.z}) {
            std::printf(" %.17g", v);
          }
          for (uint64_t extent : uniform->extents())
            std::printf(" %llu", (unsigned long long)extent);
        } else if (data) {
          std::printf("field %s %s", name.c_str(), data->getTypeDescriptor().name().c_str());
          printValues(*data);
        }
        std::printf("\n");
      }
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::cerr << "usage: interop_helper write FILE [zstd|lz4] | dump FILE\n";
    return 2;
  }
  H5::registerFormat();
  const std::string mode = argv[1], file = argv[2];
  if (mode == "write") {
    Ostrak::StrongPtr<H5::StorageOptions> options(new H5::StorageOptions);
    const std::string codec = argc == 4 ? argv[3] : "";
    if (codec == "zstd") options->setCompression(H5::Codec::Zstd);
    if (codec == "lz4") options->setCompression(H5::Codec::Lz4);
    H5::Outcome saved = H5::save(*Testing::makeSampleBundle(), file, options);
    if (!saved) std::cerr << saved.error << "\n";
    return saved ? 0 : 1;
  }
  BundlePtr bundle;
  H5::Outcome loaded = H5::load(bundle, {file});
  if (!loaded) {
    std::cerr << loaded.error << "\n";
    return 1;
  }
  dump(*bundle);
  return 0;
}
