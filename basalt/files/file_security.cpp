#include "basalt/files/file_security.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <deque>
#include <memory>

#include "basalt/files/posix_file.h"
#include "basalt/process/child_process.h"
#include "base/include/exceptions.h"
#include "base/include/printable.h"
#include "base/include/string_helpers.h"

namespace lumo {
namespace {

constexpr int mostLinks = 40;

[[noreturn]] void throwUnsafe(const std::string& words) {
  LUMO_THROW(FileSecurityException, -1, "%s", printable(words).c_str());
}

struct Judge {
  bool requireRoot = true;

  void owner(const std::string& what, const struct stat& status) const {
    if (!requireRoot || status.st_uid == 0) return;
    throwUnsafe(
        VS("%s belongs to user %u, not to root; run: chown root '%s'", what.c_str(), status.st_uid, what.c_str()));
  }

  void folder(const std::string& what, const struct stat& status) const {
    owner(what, status);
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0 && (status.st_mode & S_ISVTX) == 0) {
      throwUnsafe(VS("The folder %s can be written by others than its owner (mode %04o); run: chmod go-w '%s'",
                     what.c_str(), status.st_mode & 07777U, what.c_str()));
    }
  }

  void file(const std::string& what, const struct stat& status, mode_t forbidden) const {
    if (S_ISLNK(status.st_mode)) throwUnsafe(what + " is a symbolic link, where a regular file is expected");
    if (!S_ISREG(status.st_mode)) throwUnsafe(what + " is not a regular file");
    owner(what, status);
    if ((status.st_mode & forbidden) == 0) return;
    const bool secret = (forbidden & S_IRGRP) != 0;
    throwUnsafe(VS("%s can be %s by others than its owner (mode %04o); run: chmod %s '%s'", what.c_str(),
                   secret ? "used" : "written", status.st_mode & 07777U, secret ? "go-rwx" : "go-w", what.c_str()));
  }
};

// Goes down to the folder of a file, one descriptor at a time, so that what was judged is what is used. Symbolic links
// on the way (as /bin on most hosts) are followed when they lie in safe folders and belong to root.
class SafeFolder {
 public:
  SafeFolder(const std::string& path, const Judge& judge) : m_judge(judge) {
    if (path.empty() || path.front() != '/' || contains(path, std::string(1, '\0')))
      throwUnsafe("'" + path + "' is not an absolute path");
    std::vector<std::string> parts;
    StringSplit('/', path, parts);
    m_name = parts.back();
    m_left.assign(parts.begin(), parts.end() - 1);
    atRoot();
    while (m_there && !m_left.empty()) step();
  }

  bool there() const { return m_there; }
  int fd() const { return m_folder.get(); }
  const std::string& name() const { return m_name; }

 private:
  void atRoot() {
    m_folder = FileDescriptor(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    m_path.clear();
    enter("/");
  }

  void enter(const std::string& what) {
    struct stat status {};
    if (!m_folder || fstat(m_folder.get(), &status) != 0) throwSystem("Cannot look at", what, errno);
    m_judge.folder(what, status);
  }

  void step() {
    const std::string part = m_left.front();
    m_left.pop_front();
    if (part.empty() || part == ".") return;
    const std::string what = m_path + "/" + part;
    FileDescriptor next(openat(m_folder.get(), part.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (!next && errno == ENOENT) {
      m_there = false;
      return;
    }
    struct stat status {};
    if (!next || fstat(next.get(), &status) != 0) throwSystem("Cannot look at", what, errno);
    if (S_ISLNK(status.st_mode)) return follow(what, next, status);
    if (!S_ISDIR(status.st_mode)) throwSystem("Cannot look at", what, ENOTDIR);
    m_folder = std::move(next);
    m_path = what;
    enter(what);
  }

  void follow(const std::string& what, const FileDescriptor& link, const struct stat& status) {
    m_judge.owner(what, status);
    if (++m_links > mostLinks) throwSystem("Cannot look at", what, ELOOP);
    char target[PATH_MAX];
    const ssize_t length = readlinkat(link.get(), "", target, sizeof target);
    if (length <= 0) throwSystem("Cannot look at", what, errno);
    std::vector<std::string> parts;
    StringSplit('/', std::string(target, static_cast<std::size_t>(length)), parts);
    m_left.insert(m_left.begin(), parts.begin(), parts.end());
    if (target[0] == '/') atRoot();
  }

  Judge m_judge;
  FileDescriptor m_folder;
  std::string m_path;
  std::deque<std::string> m_left;
  std::string m_name;
  bool m_there = true;
  int m_links = 0;
};

// Judges program or file by name and fills its status; false when it is not there.
bool judgeFile(const SafeFolder& folder, const std::string& path, const Judge& judge, mode_t forbidden,
               struct stat& status) {
  if (!folder.there()) return false;
  if (fstatat(folder.fd(), folder.name().c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT && !folder.name().empty()) return false;
    throwSystem("Cannot look at", path, errno);
  }
  judge.file(path, status, forbidden);
  return true;
}

constexpr mode_t forbiddenModes(FileSecrecy secrecy) {
  return secrecy == FileSecrecy::Secret ? S_IRWXG | S_IRWXO : S_IWGRP | S_IWOTH;
}

}  // namespace

int openChecked(const std::string& path, FileSecrecy secrecy) {
  const Judge judge;
  const SafeFolder folder(path, judge);
  const mode_t forbidden = forbiddenModes(secrecy);
  struct stat status {};
  // By name first: opening a device or a pipe would be felt at its other end.
  if (!judgeFile(folder, path, judge, forbidden, status)) return -1;
  FileDescriptor file(
      openat(folder.fd(), folder.name().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file && errno == ENOENT) return -1;
  if (!file || fstat(file.get(), &status) != 0) throwSystem("Cannot read", path, errno);
  judge.file(path, status, forbidden);
  return file.release();
}

void checkSocketFile(const std::string& path, bool requireRoot) {
  const Judge judge{requireRoot};
  const SafeFolder folder(path, judge);
  struct stat status {};
  if (!folder.there() || fstatat(folder.fd(), folder.name().c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    throwSystem("Cannot look at", path, folder.there() ? errno : ENOENT);
  }
  if (!S_ISSOCK(status.st_mode)) throwUnsafe(path + " is not a socket; find out who put it there, and remove it");
  judge.owner(path, status);
}

std::string FileSecurityCheck(const std::string& path, bool allowMissing, bool requireRoot, bool commandLine) {
  try {
    const std::string program = commandLine ? ArgV(path).cmd() : path;
    const Judge judge{requireRoot};
    const SafeFolder folder(program, judge);
    struct stat status {};
    if (!judgeFile(folder, program, judge, forbiddenModes(FileSecrecy::Trusted), status)) {
      return allowMissing ? path : std::string();
    }
    return (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0 ? path : std::string();
  } catch (const LUMOException&) {
    return {};
  }
}

bool WorldWritableCheck(const std::string& path) {
  const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
  if (!real) return true;
  std::string current = real.get();
  for (;;) {
    struct stat status {};
    if (stat(current.c_str(), &status) != 0) return true;
    const bool sticky = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    if ((status.st_mode & S_IWOTH) != 0 && !sticky) return true;
    if (current == "/") return false;
    current = folderOf(current);
  }
}

}  // namespace lumo

off_t GetFileSize(const std::string& path) {
  const lumo::FileDescriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!file || fstat(file.get(), &status) != 0) lumo::throwSystem("Cannot read", path, errno);
  return status.st_size;
}
