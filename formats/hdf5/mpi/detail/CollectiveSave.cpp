#include "formats/hdf5/mpi/detail/CollectiveSave.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "formats/hdf5/detail/Files.hpp"
#include "formats/hdf5/detail/Layout.hpp"
#include "formats/hdf5/detail/Writer.hpp"
#include "formats/hdf5/detail/Xdmf.hpp"

namespace Quaril::H5::detail {

namespace {

using Ostrak::StrongPtr;

/// Where this rank's arrays go in the file: their place in its plan and
/// their offset.
using Places = std::vector<std::pair<size_t, haddr_t>>;

/// Creates the merged file `path` on every rank alike, as parallel HDF5 asks:
/// every group, attribute and data set, the data sets' space allocated but
/// not written, the index written by rank 0. Returns where this rank's
/// arrays go, or what failed on this rank.
std::optional<std::string> createTogether(MPI_Comm comm, const std::string& path,
                                          const Merged& merged, const std::vector<RankPlan>& plans,
                                          int rank, Places& places) {
  std::optional<File> file;
  if (auto failed = failureOf([&] {
        PropertyList access = mpioFileAccess(comm);
        file.emplace(H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, access.id()),
                     "cannot create " + path);
      })) {
    return failed;
  }
  haddr_t end = 0;  // of the space allocated to data sets
  std::optional<std::string> failed = failureOf([&] {
    writeRoot(file->id());
    Group arrays = createGroup(file->id(), layout::ArraysGroup);
    for (const MergedArray& array : merged.arrays) {
      const Plan::Array& planned =
          plans[static_cast<size_t>(array.rank)].plan.arrays[array.planned];
      // Contiguous and unfiltered, whatever the plan's chunks: the ranks
      // write the bytes themselves.
      Dataset dataset = writeArrayDataset(arrays.id(), layout::arrayName(array.entry, array.name),
                                          planned, nullptr, Storage{});
      // Parallel HDF5 allocates contiguous data sets when it creates them.
      const haddr_t offset = H5Dget_offset(dataset.id());
      if (offset != HADDR_UNDEF) {
        end = std::max<haddr_t>(end, offset + H5Dget_storage_size(dataset.id()));
      }
      if (array.rank == rank) places.emplace_back(array.planned, offset);
    }
    Group grids, slices;
    for (const auto& [row, held] : merged.gridAttributes) {
      writeAttributeGroup(file->id(), grids, layout::GridsGroup, row, held);
    }
    for (const auto& [row, held] : merged.sliceAttributes) {
      writeAttributeGroup(file->id(), slices, layout::SlicesGroup, row, held);
    }
    if (merged.bundleAttributes) {
      Group group = createGroup(file->id(), layout::BundleAttributes);
      writeAttributes(group.id(), *merged.bundleAttributes);
    }
    std::vector<const std::string*> structures;
    for (const std::string& text : merged.structures) structures.push_back(&text);
    writeIndexGroup(file->id(), merged.index, structures, rank == 0);
    if (!merged.checksums.empty() || merged.arrays.empty()) {
      writeChecksums(file->id(), merged.checksums, merged.index.entries.size(), rank == 0);
    }
  });
  // Every rank flushes and closes, whatever failed: both are collective. In
  // between, rank 0 makes the file as long as the space allocated, so that
  // closing need not grow it on every rank: a rank whose disk is full then
  // fails in its own writes, not inside HDF5's collective calls.
  auto flushed =
      failureOf([&] { check(H5Fflush(file->id(), H5F_SCOPE_GLOBAL), "cannot flush " + path); });
  if (!flushed && rank == 0) {
    flushed = failureOf([&] {
      struct stat status {};
      requireSystem(::stat(path.c_str(), &status) == 0, "cannot write " + path);
      if (static_cast<haddr_t>(status.st_size) < end) {
        requireSystem(::truncate(path.c_str(), static_cast<off_t>(end)) == 0,
                      "cannot write " + path);
      }
    });
  }
  const auto closed = failureOf([&] { file->close("cannot finish " + path); });
  return failed ? failed : flushed ? flushed : closed;
}

/// Writes this rank's arrays into the file `path` at `places`, and flushes
/// them to disk when `flush` (rank 0 flushes the whole file later). Plain
/// positioned writes, independent of the other ranks and of HDF5, so that
/// one rank's failure cannot leave HDF5's state on the ranks apart. Throws
/// Failure.
void writeArrays(const std::string& path, const Plan& plan, const Places& places, bool flush) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  requireSystem(fd >= 0, "cannot write " + path);
  try {
    std::vector<unsigned char> converted;
    for (const auto& [planned, offset] : places) {
      const Plan::Array& array = plan.arrays[planned];
      uint64_t count = 1;
      for (hsize_t extent : array.extents) count *= extent;
      if (count == 0) continue;
      require(offset != HADDR_UNDEF, "no place for an array in " + path);
      const void* bytes = array.data->rawData();
      const size_t size = count * H5Tget_size(array.fileType);
      if (H5Tequal(array.fileType, array.memoryType) <= 0) {
        // Doubles stored as floats: converted in a buffer that holds either.
        converted.assign(count * std::max(H5Tget_size(array.memoryType), size / count), 0);
        std::memcpy(converted.data(), bytes, count * H5Tget_size(array.memoryType));
        check(H5Tconvert(array.memoryType, array.fileType, count, converted.data(), nullptr,
                         H5P_DEFAULT),
              "cannot convert an array");
        bytes = converted.data();
      }
      writeAt(fd, bytes, size, offset, path);
    }
    if (flush && ::fsync(fd) != 0) throw Failure(systemError("cannot flush " + path));
  } catch (...) {
    ::close(fd);
    throw;
  }
  requireSystem(::close(fd) == 0, "cannot write " + path);
}

/// More bytes than rank 0 writes of the merged file's metadata: its data set
/// headers, groups, attributes and index.
uint64_t metadataBound(const Merged& merged) {
  uint64_t bytes = (uint64_t{1} << 16) + 4096 * merged.arrays.size();
  for (const std::string& text : merged.structures) bytes += 2 * text.size();
  for (const std::string& name : merged.index.names) bytes += 2 * name.size() + 64;
  return bytes + 64 * (merged.index.times.size() + merged.index.entries.size());
}

/// Makes sure that the folder of `path`, the empty file rank 0 made, has
/// room for `bytes`: space is set aside for it, and given back. Rank 0 alone
/// writes the metadata in HDF5's collective flush, which cannot fail on one
/// rank without leaving the others waiting. Throws Failure.
void requireRoom(const std::string& path, uint64_t bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  requireSystem(fd >= 0, "cannot write " + path);
  const int failed = posix_fallocate(fd, 0, static_cast<off_t>(bytes));
  const int given = ::ftruncate(fd, 0) == 0 ? 0 : errno;
  ::close(fd);
  errno = failed;
  requireSystem(failed == 0 || failed == EOPNOTSUPP || failed == EINVAL, "no room for " + path);
  errno = given;
  requireSystem(given == 0, "cannot write " + path);
}

}  // namespace

Together planTogether(MPI_Comm ranks, int rank, const Bundle& bundle, const std::string& path,
                      WriteRequest request) {
  RankPlan mine;
  request.written = &mine.index;
  request.structures = &mine.structures;
  request.plan = &mine.plan;
  std::string encoded;
  auto agreed = collectively(ranks, [&] {
    require(!path.empty(), "no file name");
    planBundle(bundle, path, request);
    encoded = encode(mine);
  });
  if (agreed) throw Failure(*agreed);
  Together together;
  agreed = collectively(ranks, [&] {
    const std::vector<std::string> texts = allGatherText(ranks, encoded);
    for (size_t from = 0; from < texts.size(); ++from) {
      if (static_cast<int>(from) == rank) {
        together.plans.push_back(std::move(mine));
      } else {
        together.plans.push_back(decode(texts[from]));
      }
    }
    together.merged = merge(together.plans);
  });
  if (agreed) throw Failure(*agreed);
  return together;
}

void writeTogether(MPI_Comm ranks, int rank, const std::string& path, const Together& together,
                   const std::function<void(const std::string&)>& replace) {
  std::string temporary;
  auto agreed = onRankZero(ranks, rank, [&] {
    temporary = makeTemporary(path);
    try {
      requireRoom(temporary, metadataBound(together.merged));
    } catch (...) {
      std::remove(temporary.c_str());
      throw;
    }
  });
  if (agreed) throw Failure(*agreed);
  temporary = broadcastText(ranks, temporary, 0);
  const Plan& plan = together.plans[static_cast<size_t>(rank)].plan;
  Places places;
  agreed = agreeOnFailure(
      ranks, createTogether(ranks, temporary, together.merged, together.plans, rank, places));
  if (!agreed) {
    agreed = collectively(ranks, [&] { writeArrays(temporary, plan, places, rank != 0); });
  }
  if (!agreed) {
    agreed = collectively(ranks, [&] {
      for (const auto& saved : plan.whenWritten) saved();
    });
  }
  if (!agreed) {
    agreed = onRankZero(ranks, rank, [&] {
      syncToDisk(temporary, false);
      replace(temporary);
    });
  }
  if (rank == 0) std::remove(temporary.c_str());  // gone after a rename
  if (agreed) throw Failure(*agreed);
}

RankZeroTarget targetOfRankZero(MPI_Comm ranks, const std::string& filename,
                                const StorageTransformations* policy) {
  return {broadcastText(ranks, filename, 0),
          broadcastText(ranks, StorageOptions::of(policy).getWriteXdmf() ? "1" : "", 0) == "1"};
}

void saveTogether(MPI_Comm comm, const Bundle& bundle, const std::string& filename,
                  const StrongPtr<StorageTransformations>& transformations,
                  const StrongPtr<Ostrak::LoaderProgress>& progress,
                  const StrongPtr<Ostrak::StringList>& gridNames) {
  Communicator ranks(comm);
  const RankZeroTarget target = targetOfRankZero(ranks.get(), filename, transformations.get());
  const Together together = planTogether(ranks.get(), ranks.rank(), bundle, target.path,
                                         {transformations, progress, gridNames});
  writeTogether(ranks.get(), ranks.rank(), target.path, together,
                [&](const std::string& temporary) {
                  std::optional<DescriptorBeside> descriptor;
                  if (target.xdmf) {
                    descriptor.emplace(target.path);
                    descriptor->write(together.merged.index, together.merged.structures);
                  }
                  renameOver(temporary, target.path);
                  if (descriptor) descriptor->replace();
                  syncFolderOf(target.path);
                });
}

}  // namespace Quaril::H5::detail
