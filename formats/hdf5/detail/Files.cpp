#include "formats/hdf5/detail/Files.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace Quaril::H5::detail {

namespace fs = std::filesystem;

std::string systemError(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

void requireSystem(bool ok, const std::string& what) {
  if (!ok) throw Failure(systemError(what));
}

std::string makeTemporary(const std::string& path) {
  fs::path target(path);
  fs::path directory = target.parent_path().empty() ? fs::path(".") : target.parent_path();
  // Appended piece by piece: GCC 12 warns falsely about "." + name at -O3.
  std::string hidden(".");
  hidden.append(target.filename().string()).append(".tmp-XXXXXX");
  std::string pattern = (directory / hidden).string();
  std::vector<char> name(pattern.begin(), pattern.end());
  name.push_back('\0');
  int fd = mkstemp(name.data());
  requireSystem(fd >= 0, "cannot write in " + directory.string());
  // The new file gets the target's permissions, or the usual ones for a new file.
  struct stat existing {};
  mode_t mode;
  if (stat(path.c_str(), &existing) == 0) {
    mode = existing.st_mode & 07777;
  } else {
    mode_t mask = umask(0);
    umask(mask);
    mode = 0666 & ~mask;
  }
  fchmod(fd, mode);
  close(fd);
  return name.data();
}

void syncToDisk(const std::string& path, bool directory) {
  int fd = open(path.c_str(), directory ? O_RDONLY | O_DIRECTORY : O_RDONLY);
  requireSystem(fd >= 0, "cannot open " + path + " to flush it");
  int result = fsync(fd);
  int error = errno;
  close(fd);
  errno = error;
  requireSystem(result == 0, "cannot flush " + path);
}

void syncFolderOf(const std::string& path) {
  const fs::path directory = fs::path(path).parent_path();
  syncToDisk(directory.empty() ? "." : directory.string(), true);
}

void renameOver(const std::string& temporary, const std::string& path) {
  requireSystem(std::rename(temporary.c_str(), path.c_str()) == 0, "cannot replace " + path);
}

void writeAt(int fd, const void* data, size_t size, uint64_t offset, const std::string& what) {
  const auto* bytes = static_cast<const unsigned char*>(data);
  for (size_t done = 0; done < size;) {
    const ssize_t wrote = pwrite(fd, bytes + done, size - done, static_cast<off_t>(offset + done));
    if (wrote < 0 && errno == EINTR) continue;
    requireSystem(wrote > 0, "cannot write " + what);
    done += static_cast<size_t>(wrote);
  }
}

size_t readAt(int fd, void* data, size_t size, uint64_t offset, std::string_view what) {
  auto* bytes = static_cast<unsigned char*>(data);
  size_t done = 0;
  while (done < size) {
    const ssize_t got = pread(fd, bytes + done, size - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    requireSystem(got >= 0, "cannot read " + std::string(what));
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return done;
}

std::string readAll(int fd, const std::string& what) {
  std::string bytes;
  char buffer[1 << 16];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    requireSystem(got >= 0, "cannot read " + what);
    if (got == 0) return bytes;
    bytes.append(buffer, static_cast<size_t>(got));
  }
}

void replaceFile(const std::string& path, const std::function<void(const std::string&)>& fill,
                 const std::function<void()>& whenReplaced, bool flush) {
  const std::string temporary = makeTemporary(path);
  try {
    fill(temporary);
    if (flush) syncToDisk(temporary, false);
    renameOver(temporary, path);
  } catch (...) {
    std::remove(temporary.c_str());
    throw;
  }
  if (whenReplaced) whenReplaced();
  if (flush) syncFolderOf(path);
}

void writeText(const std::string& path, const std::string& text, const std::string& shownAs) {
  std::FILE* out = std::fopen(path.c_str(), "wb");
  requireSystem(out != nullptr, "cannot write " + shownAs);
  const bool written = std::fwrite(text.data(), 1, text.size(), out) == text.size();
  requireSystem(std::fclose(out) == 0 && written, "cannot write " + shownAs);
}

void writeTextAtomically(const std::string& path, const std::string& text) {
  replaceFile(path, [&](const std::string& temporary) { writeText(temporary, text, path); });
}

std::string readText(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  requireSystem(in.good() || in.eof(), "cannot read " + path);
  return text.str();
}

LockedFile::LockedFile(const std::string& path, const std::string& whenHeld)
    : fd_(open(path.c_str(), O_RDWR | O_CLOEXEC)) {
  requireSystem(fd_ >= 0, "cannot open");
  if (flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    close(fd_);
    require(error != EWOULDBLOCK, whenHeld);
    errno = error;
    throw Failure(systemError("cannot lock"));
  }
}

LockedFile::~LockedFile() {
  close(fd_);
}

}  // namespace Quaril::H5::detail
