#include "quill/rpc_socket_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <vector>

#include "base/include/exceptions.h"
#include "quill/tests/raw_peer.h"
#include "testsupport/failure_of.h"

namespace {

using lumo::FileDescriptor;
using lumo::IOException;
using lumo::RpcSocketFile;
using lumo::SystemException;
using testsupport::wordsOf;

class RpcSocketFileTest : public testing::Test {
 protected:
  testsupport::TempFolder folder;
  std::string path = folder.file("agent");
};

TEST_F(RpcSocketFileTest, TheSocketFileHasItsModeWhateverTheMask) {
  for (const mode_t mask : {mode_t{0}, mode_t{077}}) {
    const mode_t before = umask(mask);
    for (const mode_t mode : {mode_t{0600}, mode_t{0666}}) {
      const RpcSocketFile socket(path, mode);
      EXPECT_EQ(testsupport::modeOf(path), mode);
    }
    umask(before);
  }
  EXPECT_FALSE(testsupport::exists(path));
  EXPECT_FALSE(testsupport::exists(path + ".new"));
}

TEST_F(RpcSocketFileTest, AStaleSocketIsReplaced) {
  raw::listenAt(path);
  raw::listenAt(path + ".new");
  const RpcSocketFile socket(path, 0600);
  EXPECT_TRUE(raw::connectTo(path));
}

TEST_F(RpcSocketFileTest, AServedSocketIsLeftAlone) {
  const std::string served = "Another process serves " + path + " already";
  {
    const FileDescriptor other = raw::listenAt(path);
    EXPECT_EQ(wordsOf<IOException>([&] { RpcSocketFile(path, 0600); }), served);
    EXPECT_TRUE(raw::connectTo(path));
  }
  const RpcSocketFile socket(path, 0600);
  EXPECT_EQ(wordsOf<IOException>([&] { RpcSocketFile(path, 0600); }), served);
  EXPECT_TRUE(raw::connectTo(path));
}

TEST_F(RpcSocketFileTest, AServerThatHungWithAFullBacklogIsLeftAlone) {
  const FileDescriptor hung = raw::listenAt(path, 0);
  std::vector<FileDescriptor> waiting;
  do {
    waiting.push_back(raw::connectTo(path, SOCK_NONBLOCK));
  } while (waiting.back());
  EXPECT_EQ(wordsOf<IOException>([&] { RpcSocketFile(path, 0600); }), "Another process serves " + path + " already");
}

TEST_F(RpcSocketFileTest, AServerStartingAtTheSameMomentIsLeftAlone) {
  testsupport::writeFile(path + ".lock", "", 0600);
  const FileDescriptor lock(open((path + ".lock").c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(flock(lock.get(), LOCK_EX | LOCK_NB), 0);
  EXPECT_EQ(wordsOf<IOException>([&] { RpcSocketFile(path, 0600); }), "Another process serves " + path + " already");
  EXPECT_FALSE(testsupport::exists(path));
}

TEST_F(RpcSocketFileTest, WhatIsNoSocketIsLeftAloneAndNamed) {
  testsupport::writeFile(path, "precious");
  EXPECT_EQ(wordsOf<SystemException>([&] { RpcSocketFile(path, 0600); }),
            "Cannot serve " + path + ": something that is no socket stands there; remove it");
  EXPECT_EQ(testsupport::readFile(path), "precious");
}

TEST_F(RpcSocketFileTest, ASocketThatCannotBeMadeSaysWhy) {
  path = folder.file("missing/agent");
  EXPECT_EQ(wordsOf<SystemException>([&] { RpcSocketFile(path, 0600); }),
            "Cannot serve " + path + ": its lock file " + path + ".lock cannot be taken");
  path = folder.file(std::string(150, 'x'));
  EXPECT_EQ(wordsOf<SystemException>([&] { RpcSocketFile(path, 0600); }),
            "Cannot serve " + path + ": File name too long");
  EXPECT_EQ(wordsOf<SystemException>([] { RpcSocketFile("", 0600); }), "Cannot serve : No such file or directory");
  EXPECT_FALSE(testsupport::exists(".lock"));
}

TEST_F(RpcSocketFileTest, TakesAwayOnlyItsOwnFile) {
  {
    const RpcSocketFile socket(path, 0600);
    ASSERT_EQ(unlink(path.c_str()), 0);
    testsupport::writeFile(path, "another's");
  }
  EXPECT_EQ(testsupport::readFile(path), "another's");
}

}  // namespace
