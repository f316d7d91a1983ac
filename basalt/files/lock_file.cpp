#include "basalt/files/lock_file.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "basalt/files/posix_file.h"
#include "base/include/exceptions.h"

int MvdLock(const char* path, int* state) {
  *state = -1;
  try {
    lumo::FileDescriptor file = lumo::openRegular(path, O_RDWR | O_CREAT, 0600, "Cannot lock", false);
    if (flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
      *state = 0;
    } else if (errno == EWOULDBLOCK) {
      *state = 1;
    } else {
      return -1;
    }
    return file.release();
  } catch (const LUMOException&) {
    return -1;
  }
}

void MvdUnlock(int handle) {
  if (handle >= 0) close(handle);
}
