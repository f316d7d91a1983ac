// The folder of the agent's own files, /var/morvand.
#pragma once

#include <sys/types.h>

#include <string>

namespace lumo {

// Makes the folder, of the caller and with this mode whatever the umask is; one that is there stays as it is. The
// folder above it must be there. Throws SystemException ("Cannot make PATH: REASON"). Any thread.
void makeFolder(const std::string& path, mode_t mode);

// Makes /var/morvand (mode 0755, as it is installed: callers of the agent pass to its socket) where `path` lies below
// it and it is missing. Nothing for any other path. Throws as makeFolder. Any thread.
void makeStateFolderFor(const std::string& path);

}  // namespace lumo
