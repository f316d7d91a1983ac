// The listening socket of a server and its file.
#pragma once

#include <sys/types.h>

#include <string>

#include "basalt/files/posix_file.h"

namespace lumo {

// A socket that listens at a path from construction to destruction; the path has one such owner at a time, also across
// processes. One thread.
class RpcSocketFile {
 public:
  // The file appears with its final mode and listening already. Throws IOException when somebody serves the path,
  // SystemException when the socket cannot be made.
  RpcSocketFile(const std::string& path, mode_t mode);
  // Removes the file, if it is still this object's, and gives up the path.
  ~RpcSocketFile();
  RpcSocketFile(const RpcSocketFile&) = delete;
  RpcSocketFile& operator=(const RpcSocketFile&) = delete;

  // Non-blocking.
  int fd() const { return m_socket.get(); }

 private:
  // Held for the life of the object, so that of two servers that find a stale socket only one replaces it.
  class PathLock {
   public:
    explicit PathLock(const std::string& path);
    ~PathLock();
    PathLock(const PathLock&) = delete;
    PathLock& operator=(const PathLock&) = delete;

   private:
    int m_handle;
  };

  std::string m_path;
  PathLock m_lock;
  FileDescriptor m_socket;
  dev_t m_device = 0;
  ino_t m_inode = 0;
};

}  // namespace lumo
