#include "basalt/files/secure_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>

#include "basalt/files/posix_file.h"
#include "base/include/exceptions.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

constexpr char cannotWrite[] = "Cannot write";

struct FolderCloser {
  void operator()(DIR* folder) const { closedir(folder); }
};

// Temporary files of a target begin like this; a living writer holds a lock on its own.
std::string temporaryPrefix(const std::string& name) { return "." + name + ".tmp-"; }

bool isSameFile(int folder, const std::string& name, int fd) {
  struct stat byName {};
  struct stat byDescriptor {};
  return fstatat(folder, name.c_str(), &byName, AT_SYMLINK_NOFOLLOW) == 0 && fstat(fd, &byDescriptor) == 0 &&
         byName.st_ino == byDescriptor.st_ino && byName.st_dev == byDescriptor.st_dev;
}

// The temporary file of a writer that was killed is not locked any more.
void removeIfLeft(int folder, const std::string& name) {
  const FileDescriptor file(openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!file || flock(file.get(), LOCK_EX | LOCK_NB) != 0) return;
  if (isSameFile(folder, name, file.get())) unlinkat(folder, name.c_str(), 0);
}

void removeLeftOvers(int folder, const std::string& prefix) {
  const int again = openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const std::unique_ptr<DIR, FolderCloser> entries(again < 0 ? nullptr : fdopendir(again));
  if (!entries) {
    if (again >= 0) close(again);
    return;
  }
  while (const dirent* entry = readdir(entries.get())) {
    const std::string name = entry->d_name;
    if (startsWith(name, prefix, false, false)) removeIfLeft(folder, name);
  }
}

// A new file that nobody else has open, and that goes with this object unless it was put in the target's place.
class TemporaryFile {
 public:
  TemporaryFile(int folder, const std::string& path) : m_folder(folder), m_path(path) {
    for (int tries = 0; tries < 100; ++tries) {
      if (create()) return;
    }
    throwSystem(cannotWrite, path, EEXIST);
  }
  ~TemporaryFile() {
    if (m_file && !m_name.empty()) unlinkat(m_folder, m_name.c_str(), 0);
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  void fill(const void* bytes, std::size_t size, const FileOwnerMode& ownerMode) {
    const char* next = static_cast<const char*>(bytes);
    while (size > 0) {
      const ssize_t written = write(m_file.get(), next, size);
      if (written < 0 && errno == EINTR) continue;
      if (written < 0) throwSystem(cannotWrite, m_path, errno);
      next += written;
      size -= static_cast<std::size_t>(written);
    }
    if (fchown(m_file.get(), ownerMode.owner, ownerMode.group) != 0 || fchmod(m_file.get(), ownerMode.mode) != 0 ||
        fsync(m_file.get()) != 0) {
      throwSystem(cannotWrite, m_path, errno);
    }
  }

  void putInPlace() {
    if (renameat(m_folder, m_name.c_str(), m_folder, nameOf(m_path).c_str()) != 0) {
      throwSystem(cannotWrite, m_path, errno);
    }
    m_name.clear();
  }

 private:
  // False when another writer got between.
  bool create() {
    unsigned long long random = 0;
    if (getrandom(&random, sizeof random, 0) != sizeof random) throwSystem(cannotWrite, m_path, errno);
    m_name = temporaryPrefix(nameOf(m_path)) + uitoa(random, 36);
    m_file = FileDescriptor(
        openat(m_folder, m_name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    if (!m_file) {
      if (errno == EEXIST) return false;
      throwSystem(cannotWrite, m_path, errno);
    }
    // Before the lock was there, another writer may have taken the file for a left-over.
    return flock(m_file.get(), LOCK_EX | LOCK_NB) == 0 && isSameFile(m_folder, m_name, m_file.get());
  }

  int m_folder;
  std::string m_path;
  std::string m_name;
  FileDescriptor m_file;
};

void syncFolder(int folder, const std::string& path) {
  // Some file systems know no fsync of a folder.
  if (fsync(folder) != 0 && errno != EINVAL && errno != ENOTSUP) throwSystem(cannotWrite, path, errno);
}

}  // namespace

void replaceFile(const std::string& path, const void* bytes, std::size_t size, const FileOwnerMode& ownerMode) {
  const FileDescriptor folder(open(folderOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder) throwSystem(cannotWrite, path, errno);
  removeLeftOvers(folder.get(), temporaryPrefix(nameOf(path)));
  TemporaryFile temporary(folder.get(), path);
  temporary.fill(bytes, size, ownerMode);
  temporary.putInPlace();
  syncFolder(folder.get(), path);
}

std::string readAll(int fd, const std::string& path, std::size_t limit) {
  std::string content;
  char buffer[16384];
  for (;;) {
    const ssize_t got = read(fd, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throwSystem("Cannot read", path, errno);
    if (got == 0) break;
    if (content.size() + static_cast<std::size_t>(got) > limit) {
      LUMO_THROW(SystemException, EFBIG, "Cannot read %s: it is larger than %zu bytes", path.c_str(), limit);
    }
    content.append(buffer, static_cast<std::size_t>(got));
  }
  return content;
}

}  // namespace lumo
