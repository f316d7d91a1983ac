#include "basalt/files/state_folder.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "basalt/files/posix_file.h"
#include "base/include/parameter_names.h"
#include "base/include/string_helpers.h"

namespace lumo {

void makeFolder(const std::string& path, mode_t mode) {
  if (mkdir(path.c_str(), mode) != 0) {
    if (errno == EEXIST) return;
    throwSystem("Cannot make", path, errno);
  }
  const FileDescriptor folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder || fchmod(folder.get(), mode) != 0) throwSystem("Cannot make", path, errno);
}

void makeStateFolderFor(const std::string& path) {
  if (startsWith(path, path::STATE_FOLDER, false, false)) makeFolder(folderOf(path::STATE_FOLDER), 0755);
}

}  // namespace lumo
