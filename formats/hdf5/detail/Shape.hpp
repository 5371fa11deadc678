#pragma once
// A grid structure of the format read and checked once. The slices of a time
// series share a few structures; walking their JSON again for every slice
// costs more than reading a small array, and most of it in cache misses.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "field/DynamicSize.hpp"
#include "field/QuarilType.hpp"
#include "formats/hdf5/Options.hpp"
#include "formats/hdf5/detail/Layout.hpp"

namespace Quaril::H5::detail {

/// What an entry's structure describes, with every check that does not need
/// the grid it is read into already made.
struct GridShape {
  struct Fragment {
    bool named = false;  ///< false: the field is not fragmented
    std::string name;
    FragmentPlace place;
    std::string what;  ///< how errors name it
    bool uniform = false;
    // Uniform positions.
    std::array<double, 3> origin{}, spacing{};
    std::array<uint64_t, 3> counts{};
    // A stored array.
    std::string dataset;
    DynamicSize size;
  };
  struct Field {
    std::string name;
    const QuarilTypeBase* type = nullptr;
    layout::StoredType stored;
    bool partial = false;  ///< adds its fragments to the field read before
    std::vector<Fragment> fragments;
  };
  struct Representation {
    bool onChart = false;
    std::string chart;
    int chartDimension = 0;
    bool cartesian = false;
    std::array<int, 2> skeleton{};  ///< relative to this skeleton otherwise
    std::vector<Field> fields;
  };
  struct Skeleton {
    int dimension = 0, index = 0;
    uint64_t elements = 0;
    int refinement = 1;
    std::vector<Representation> representations;
  };

  bool hasAttributes = false;
  bool partial = false;  ///< adds to the grid read before
  std::vector<Skeleton> skeletons;
};

/// Reads and checks a structure. Throws Failure naming the problem.
GridShape shapeOf(const nlohmann::json& structure);

/// What the JSON exception of `text` and `id` says, in our words: the key
/// that is missing, a value of the wrong kind, a text that is not JSON.
std::string jsonReason(std::string text, int id);

/// A name read from a file, as error texts quote it.
std::string inQuotes(const std::string& text);

}  // namespace Quaril::H5::detail
