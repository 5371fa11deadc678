#include "formats/hdf5/mpi/Parallel.hpp"

#include <optional>

#include "formats/hdf5/detail/Hdf5.hpp"
#include "formats/hdf5/mpi/detail/Collective.hpp"
#include "formats/hdf5/mpi/detail/CollectiveSave.hpp"
#include "formats/hdf5/mpi/detail/CollectiveSeries.hpp"

namespace Quaril::H5 {

using namespace detail;
using Ostrak::StrongPtr;

Outcome saveCollectively(MPI_Comm comm, const Bundle& bundle, const std::string& filename,
                         const StrongPtr<StorageTransformations>& transformations,
                         const StrongPtr<Ostrak::LoaderProgress>& progress,
                         const StrongPtr<Ostrak::StringList>& gridNames) {
  Session session;
  return attempt(
      [&] { saveTogether(comm, bundle, filename, transformations, progress, gridNames); });
}

Outcome bindCollectively(MPI_Comm comm, Bundle& bundle, const std::string& filename,
                         const StrongPtr<StorageTransformations>& transformations,
                         const StrongPtr<Ostrak::LoaderProgress>& progress) {
  Session session;
  return attempt([&] { bindTogether(comm, bundle, filename, false, transformations, progress); });
}

Outcome continueCollectively(MPI_Comm comm, Bundle& bundle, const std::string& filename,
                             const StrongPtr<StorageTransformations>& transformations,
                             const StrongPtr<Ostrak::LoaderProgress>& progress) {
  Session session;
  return attempt([&] { bindTogether(comm, bundle, filename, true, transformations, progress); });
}

Outcome syncCollectively(MPI_Comm comm, const Bundle& bundle) {
  Session session;
  return syncTogether(comm, bundle);
}

Outcome loadCollectively(MPI_Comm comm, BundlePtr& bundle, const std::string& filename,
                         const StrongPtr<FragmentChoice>& choice) {
  return attempt([&] {
    Communicator communicator(comm);
    StrongPtr<FragmentChoice> chosen = choice ? choice
                                              : StrongPtr<FragmentChoice>(new FragmentsOfRank(
                                                    communicator.rank(), communicator.size()));
    const Outcome loaded = load(bundle, {filename}, chosen);
    auto agreed = agreeOnFailure(communicator.get(),
                                 loaded ? std::nullopt : std::optional<std::string>(loaded.error));
    if (agreed) throw Failure(*agreed);
  });
}

}  // namespace Quaril::H5
