// Files that are replaced as a whole.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace lumo {

struct FileOwnerMode {
  uid_t owner = 0;
  gid_t group = 0;
  mode_t mode = 0600;
};

// Replaces the file at path by the bytes: a temporary file in the same folder that was never open to others, fsync,
// owner and mode, rename, fsync of the folder. A reader and a crash at any moment see the old file or the new one;
// temporary files of a killed writer are removed by the next one. A symbolic link at path is replaced, not followed.
// Throws SystemException ("Cannot write PATH: REASON"); the old file is then whole and no temporary file stays.
void replaceFile(const std::string& path, const void* bytes, std::size_t size, const FileOwnerMode& ownerMode);

// The whole content of an open descriptor, at most `limit` bytes. Throws SystemException naming `path` when it cannot
// be read or is larger.
std::string readAll(int fd, const std::string& path, std::size_t limit);

}  // namespace lumo
