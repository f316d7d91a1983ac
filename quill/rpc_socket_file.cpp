#include "quill/rpc_socket_file.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "basalt/files/lock_file.h"
#include "basalt/files/state_folder.h"
#include "base/include/exceptions.h"

namespace lumo {
namespace {

constexpr int BACKLOG = 64;

[[noreturn]] void fail(const std::string& path, int error) {
  LUMO_THROW(SystemException, error, "Cannot serve %s: %s", path.c_str(), strerror(error));
}

[[noreturn]] void failServed(const std::string& path) {
  LUMO_THROW(IOException, EADDRINUSE, "Another process serves %s already", path.c_str());
}

// What a new socket is called until it is complete.
constexpr char UNFINISHED[] = ".new";

const std::string& checkedPath(const std::string& path) {
  if (path.empty()) fail(path, ENOENT);
  if (path.size() + sizeof UNFINISHED > sizeof(sockaddr_un::sun_path)) fail(path, ENAMETOOLONG);
  return path;
}

sockaddr_un addressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  return address;
}

FileDescriptor unixSocket(const std::string& path) {
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) fail(path, errno);
  return socket;
}

// Only a socket that refuses is a leftover. What is no socket stays, and is named.
void requireFree(const std::string& path) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) {
    if (errno == ENOENT) return;
    fail(path, errno);
  }
  if (!S_ISSOCK(status.st_mode)) {
    LUMO_THROW(SystemException, EEXIST, "Cannot serve %s: something that is no socket stands there; remove it",
               path.c_str());
  }
  const sockaddr_un address = addressOf(path);
  const FileDescriptor probe = unixSocket(path);
  if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 || errno == EAGAIN) {
    failServed(path);
  }
  if (errno != ECONNREFUSED && errno != ENOENT) fail(path, errno);
}

}  // namespace

RpcSocketFile::PathLock::PathLock(const std::string& path) {
  makeStateFolderFor(path);
  int state = -1;
  m_handle = MvdLock((path + ".lock").c_str(), &state);
  if (m_handle < 0 || state == -1) {
    const int error = errno;
    if (m_handle >= 0) MvdUnlock(m_handle);
    LUMO_THROW(SystemException, error, "Cannot serve %s: its lock file %s.lock cannot be taken", path.c_str(),
               path.c_str());
  }
  if (state != 0) {
    MvdUnlock(m_handle);
    failServed(path);
  }
}

RpcSocketFile::PathLock::~PathLock() { MvdUnlock(m_handle); }

RpcSocketFile::RpcSocketFile(const std::string& path, mode_t mode)
    : m_path(checkedPath(path)), m_lock(path), m_socket(unixSocket(path)) {
  requireFree(path);
  // Made and opened to its callers under another name, then moved into place: nobody meets it half-made.
  const std::string temporary = path + UNFINISHED;
  const sockaddr_un address = addressOf(temporary);
  if (unlink(temporary.c_str()) != 0 && errno != ENOENT) fail(path, errno);
  // The file's mode is that of the unbound socket; until chmod below it is closed to all but the owner.
  if (fchmod(m_socket.get(), 0600) != 0) fail(path, errno);
  if (bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail(path, errno);
  struct stat status {};
  const bool placed = listen(m_socket.get(), BACKLOG) == 0 && chmod(temporary.c_str(), mode) == 0 &&
                      lstat(temporary.c_str(), &status) == 0 && rename(temporary.c_str(), path.c_str()) == 0;
  if (!placed) {
    const int error = errno;
    unlink(temporary.c_str());
    fail(path, error);
  }
  m_device = status.st_dev;
  m_inode = status.st_ino;
}

RpcSocketFile::~RpcSocketFile() {
  struct stat status {};
  if (lstat(m_path.c_str(), &status) == 0 && status.st_dev == m_device && status.st_ino == m_inode) {
    unlink(m_path.c_str());
  }
}

}  // namespace lumo
