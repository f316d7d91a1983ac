// Checks on files that root trusts, and on their folders.
#pragma once

#include <sys/types.h>

#include <string>

namespace lumo {

// Who may have access to a file beside its owner, root.
enum class FileSecrecy {
  Trusted,  // others may read, nobody else may write
  Secret    // no access at all for group and others
};

// Opens a file for reading without following a symbolic link, and judges the open descriptor: a regular file, owner
// root, modes by `secrecy`, every folder above it owned by root and writable by nobody else (sticky folders excepted).
// Returns the descriptor, close-on-exec, which the caller closes; -1 when the file does not exist. Throws
// FileSecurityException with words that name the path and the fault, SystemException for any other failure.
int openChecked(const std::string& path, FileSecrecy secrecy);

// Judges the file of a Unix socket, without following a symbolic link: a socket, in folders that are writable by nobody
// but their owner (sticky folders excepted); with `requireRoot` file and folders belong to root. The socket's own mode
// is not judged: it says who may connect. Throws FileSecurityException with words that name the path and the fault,
// SystemException for any other failure.
void checkSocketFile(const std::string& path, bool requireRoot);

// The command line when its program may safely be run by root, empty when not: the first word must be an absolute path
// to a regular executable file, owner root, writable by nobody else, every folder above likewise. `allowMissing` lets a
// program pass that is not there, `requireRoot` judges owners, `commandLine` says that arguments may follow the path.
// Never throws for a bad file.
std::string FileSecurityCheck(const std::string& path, bool allowMissing, bool requireRoot, bool commandLine);

// The narrower check: is the file, or a folder above it, writable by everyone (sticky folders excepted)? A path that
// cannot be looked at counts as writable.
bool WorldWritableCheck(const std::string& path);

}  // namespace lumo

// The size of a file in bytes. Throws lumo::SystemException when it cannot be looked at or opened for reading.
off_t GetFileSize(const std::string& path);
