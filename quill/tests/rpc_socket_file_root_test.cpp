// The agent's socket on a host on which nobody has made its folder.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <filesystem>

#include "quill/rpc_socket_file.h"
#include "testsupport/private_host.h"
#include "testsupport/temp_folder.h"

namespace {

namespace fs = std::filesystem;

TEST(RpcSocketFileRoot, MakesTheStateFolderWhereItIsMissing) {
  constexpr char folder[] = "/var/morvand";
  testsupport::cleanPrivateHost();
  while (umount2(folder, MNT_DETACH) == 0) {
  }
  fs::remove_all(folder);
  const mode_t mask = umask(0077);
  {
    const lumo::RpcSocketFile socket("/var/morvand/daemon", 0666);
    EXPECT_EQ(testsupport::modeOf(folder), 0755U) << "callers pass to the socket";
    EXPECT_EQ(testsupport::modeOf("/var/morvand/daemon"), 0666U);
  }
  umask(mask);
  testsupport::cleanPrivateHost();
}

}  // namespace
