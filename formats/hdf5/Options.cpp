#include "formats/hdf5/Options.hpp"

namespace Quaril::H5 {

using Ostrak::StrongPtr;

const StorageOptions& StorageOptions::of(const StorageTransformations* policy) {
  static const StorageOptions defaults;
  const auto* options = dynamic_cast<const StorageOptions*>(policy);
  return options ? *options : defaults;
}

bool FragmentChoice::CreateFragment(const StrongPtr<GridID>&, double, const std::string&,
                                    const std::string&, const FragmentPlace&) {
  return true;
}

bool FragmentsOfRank::CreateFragment(const StrongPtr<GridID>&, double, const std::string&,
                                     const std::string& fragment, const FragmentPlace& place) {
  if (fragment.empty() || size_ <= 0) return true;
  if (place.ranks == size_) return place.rank == rank_;
  const auto first = [&](uint64_t rank) {
    return rank * place.count / static_cast<uint64_t>(size_);
  };
  const auto rank = static_cast<uint64_t>(rank_);
  return first(rank) <= place.position && place.position < first(rank + 1);
}

bool FragmentsNamed::CreateFragment(const StrongPtr<GridID>&, double, const std::string&,
                                    const std::string& fragment, const FragmentPlace&) {
  return fragment.empty() || names_.count(fragment) > 0;
}

}  // namespace Quaril::H5
