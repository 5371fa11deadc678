// The C++ side of the h5py interoperability test:
//   interop_helper write FILE   saves the sample bundle of the tests
//   interop_helper dump FILE    loads FILE and prints every value, one line each:
//     slice <time> / grid <name> <parent or -> / field <name> <type> <fragment or -> <values...>
//     / uniform <name> <origin> <spacing> <extents> / attribute <name> <value>

#include <cstdio>
#include <iostream>

#include "formats/hdf5/Format.hpp"
#include "tests/bundle/BundleFixture.hpp"

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

void dump(const Bundle& bundle) {
  for (const auto& [name, value] : bundle.attributes()) {
    if (auto* text = std::get_if<std::string>(&value))
      std::printf("attribute %s %s\n", name.c_str(), text->c_str());
    if (auto* number = std::get_if<double>(&value))
      std::printf("attribute %s %.17g\n", name.c_str(), *number);
  }
  for (const auto& [time, slice] : bundle.getSlices()) {
    std::printf("slice %.17g\n", time);
    slice->accessSlice();
    for (const auto& [id, grid] : slice->getGrids()) {
      const GridID* parent = id->getParent().get();
      std::printf("grid %s %s\n", id->getName().c_str(), parent ? parent->getName().c_str() : "-");
      grid->iterate([&](const SkeletonID&, const StrongPtr<Skeleton>& skeleton) {
        skeleton->iterate([&](const WeakPtr<BaseSpace>&, const StrongPtr<Representation>& rep) {
          rep->iterate([&](const StrongPtr<FieldID>& fieldId, const StrongPtr<Field>& field) {
            auto data = field->getData();
            if (!data) return true;
            if (auto* uniform = dynamic_cast<const UniformCartesianArray*>(data.get())) {
              auto e = uniform->extents();
              std::printf("uniform %s %.17g %.17g %.17g %.17g %.17g %.17g %llu %llu %llu\n",
                          fieldId->Name().c_str(), uniform->origin().x, uniform->origin().y,
                          uniform->origin().z, uniform->spacing().x, uniform->spacing().y,
                          uniform->spacing().z, static_cast<unsigned long long>(e[0]),
                          static_cast<unsigned long long>(e[1]),
                          static_cast<unsigned long long>(e[2]));
              return true;
            }
            std::printf("field %s %s", fieldId->Name().c_str(),
                        data->getTypeDescriptor().name().c_str());
            printValues(*data);
            std::printf("\n");
            return true;
          });
          return true;
        });
        return true;
      });
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: interop_helper write|dump FILE\n";
    return 2;
  }
  H5::registerFormat();
  const std::string mode = argv[1], file = argv[2];
  if (mode == "write") {
    H5::Outcome saved = H5::save(*Testing::makeSampleBundle(), file);
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
