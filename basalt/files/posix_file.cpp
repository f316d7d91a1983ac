#include "basalt/files/posix_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>

#include "base/include/exceptions.h"
#include "base/include/printable.h"

namespace lumo {
namespace {

[[noreturn]] void throwWords(const char* doing, const std::string& path, const std::string& words, int error) {
  LUMO_THROW(SystemException, error, "%s %s: %s", doing, printable(path).c_str(), words.c_str());
}

}  // namespace

void throwSystem(const char* doing, const std::string& path, int error) {
  throwWords(doing, path, std::generic_category().message(error), error);
}

FileDescriptor openRegular(const std::string& path, int flags, unsigned mode, const char* doing, bool missingIsFine) {
  FileDescriptor file(open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, mode));
  const int error = errno;
  struct stat status {};
  if (!file) {
    if (error == ENOENT && missingIsFine) return file;
    if (error == ELOOP && lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
      throwWords(doing, path, "it is a symbolic link", error);
    }
    // A pipe without a reader.
    if (error == ENXIO) throwWords(doing, path, "it is not a regular file", error);
    throwSystem(doing, path, error);
  }
  if (fstat(file.get(), &status) != 0) throwSystem(doing, path, errno);
  if (!S_ISREG(status.st_mode)) throwWords(doing, path, "it is not a regular file", EINVAL);
  return file;
}

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

std::string nameOf(const std::string& path) {
  const std::size_t slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

FileLock::FileLock(const std::string& path, std::chrono::milliseconds patience)
    : m_file(openRegular(path, O_RDWR | O_CREAT, 0600, "Cannot lock", false)) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (flock(m_file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) throwSystem("Cannot lock", path, errno);
    if (std::chrono::steady_clock::now() >= deadline) {
      throwWords("Cannot lock", path, "another process holds it; try again when it is done", EWOULDBLOCK);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

}  // namespace lumo
