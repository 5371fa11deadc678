#pragma once
// Durable file-system operations, beneath everything of the format that
// writes: a new file made beside its target and renamed over it, positioned
// writes, flushes of a file and of its folder, whole texts read and written,
// and the lock that keeps a second writer off a bound series. Each throws a
// Failure carrying the system's reason.

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "formats/hdf5/detail/Failure.hpp"

namespace Quaril::H5::detail {

/// "what: " and the system's reason for the last failed system call.
std::string systemError(const std::string& what);
/// Throws a Failure with systemError(what) when `ok` is false. The reason is
/// read only then: an argument built beside the call that failed could be
/// evaluated before it, and carry an old reason.
void requireSystem(bool ok, const std::string& what);

/// Makes a new, empty file beside `path` (hidden, named after it) with the
/// permissions of `path`, or those of a new file; returns its name.
std::string makeTemporary(const std::string& path);
/// Flushes the file, or folder, `path` to disk.
void syncToDisk(const std::string& path, bool directory);
/// Flushes the folder that holds `path` to disk.
void syncFolderOf(const std::string& path);
/// Renames `temporary` over `path`.
void renameOver(const std::string& temporary, const std::string& path);

/// Writes the `size` bytes at `data` at `offset` of the file `fd`, all of
/// them; a failure names `what`.
void writeAt(int fd, const void* data, size_t size, uint64_t offset, const std::string& what);
/// Reads `size` bytes at `offset` of the file `fd` into `data`, all of them
/// unless the file ends first; returns how many it read. A failure says it
/// "cannot read `what`".
size_t readAt(int fd, void* data, size_t size, uint64_t offset, std::string_view what);
/// Everything from the current position of `fd` to its end; a failure says
/// it "cannot read `what`".
std::string readAll(int fd, const std::string& what);

/// Makes the file `path` anew: `fill` writes a new file (its argument)
/// beside it, which is flushed, renamed over `path`, and the folder flushed.
/// On failure the new file is removed, `path` is left as it was, and the
/// failure is thrown on. `whenReplaced` (may be empty) runs after the rename,
/// before the folder is flushed, for other renames in the same folder.
/// Without `flush`, nothing is flushed: the new file survives the program's
/// crash, not a power loss.
void replaceFile(const std::string& path, const std::function<void(const std::string&)>& fill,
                 const std::function<void()>& whenReplaced = nullptr, bool flush = true);

/// Writes `text` as the new file `path`; errors name the file `shownAs`.
void writeText(const std::string& path, const std::string& text, const std::string& shownAs);
/// Writes `text` as the file `path` through replaceFile.
void writeTextAtomically(const std::string& path, const std::string& text);
/// The whole file `path`.
std::string readText(const std::string& path);

/// A file open for reading and writing and locked against every other
/// LockedFile of it, in this process or another, while this lives. The lock
/// goes with the process, so a writer that was killed leaves none behind.
class LockedFile {
 public:
  /// Opens and locks `path`; when another holds the lock, fails with
  /// `whenHeld`.
  LockedFile(const std::string& path, const std::string& whenHeld);
  ~LockedFile();
  LockedFile(const LockedFile&) = delete;
  LockedFile& operator=(const LockedFile&) = delete;

  int descriptor() const noexcept { return fd_; }

 private:
  int fd_;
};

}  // namespace Quaril::H5::detail
