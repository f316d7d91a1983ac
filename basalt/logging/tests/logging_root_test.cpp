#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <string>
#include <system_error>

#include "basalt/files/posix_file.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "testsupport/private_host.h"
#include "testsupport/temp_folder.h"

namespace fs = std::filesystem;
using lumo::Logger;

namespace {

void mustMount(const char* from, const std::string& to, const char* type, unsigned long flags) {
  if (mount(from, to.c_str(), type, flags, nullptr) != 0) {
    throw std::system_error(errno, std::generic_category(), "mount on " + to);
  }
}

// A /dev of the test's own, with the devices that a process needs and room for a socket.
void enterPrivateDevices() {
  static bool done = false;
  if (done) return;
  const std::string devices = "/mnt/dev";
  fs::create_directories(devices);
  mustMount("tmpfs", devices, "tmpfs", 0);
  for (const char* name : {"null", "zero", "full", "random", "urandom", "tty"}) {
    const std::string from = std::string("/dev/") + name;
    if (!fs::exists(from)) continue;
    testsupport::writeFile(devices + "/" + name, "");
    mustMount(from.c_str(), devices + "/" + name, nullptr, MS_BIND);
  }
  mustMount(devices.c_str(), "/dev", nullptr, MS_MOVE);
  done = true;
}

// The daemon's end of the system log.
class SystemLog : public testing::Test {
 protected:
  void SetUp() override {
    testsupport::cleanPrivateHost();
    enterPrivateDevices();
    unlink("/dev/log");
    m_socket = lumo::FileDescriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    fs::path("/dev/log").string().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(m_socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  }
  void TearDown() override {
    configure({});
    unlink("/dev/log");
  }

  void configure(const std::map<std::string, std::string>& values) {
    lumo::Properties settings;
    for (const auto& [key, value] : values) settings.setProperty(key, value);
    Logger::ReconfigureLevels(settings);
  }

  // The next datagram, without its time: "<PRIORITY>IDENT[PID]: TEXT"; empty when there is none.
  std::string next() {
    pollfd waiting{m_socket.get(), POLLIN, 0};
    if (poll(&waiting, 1, 0) != 1) return {};
    std::string record(65536, '\0');
    const ssize_t size = recv(m_socket.get(), record.data(), record.size(), 0);
    record.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    constexpr std::size_t timeSize = sizeof "Mar  1 09:30:00 " - 1;
    return record.erase(record.find('>') + 1, timeSize);
  }

  std::string from(int priority) const {
    return "<" + std::to_string(priority) + ">basalt_root_test[" + std::to_string(getpid()) + "]: ";
  }

  lumo::FileDescriptor m_socket;
};

constexpr int authpriv = 10 * 8;

TEST_F(SystemLog, WholeRecord) {
  configure({});
  getLogger("cli.ferrogate", false)->log(4, "cli/x.cpp", 12, "main2", "cannot %s\n", "go on");
  EXPECT_EQ(next(), from(authpriv + 3) + "ERROR cli.ferrogate: cannot go on [cli/x.cpp:12 main2]");
  EXPECT_EQ(next(), "");
}

TEST_F(SystemLog, PrioritiesOfTheLevels) {
  configure({{"log", "TRACE"}});
  const int priorities[] = {7, 7, 6, 4, 3, 2};
  const char* names[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"};
  for (int level = 0; level <= 5; ++level) {
    getLogger("a", false)->log(level, "f", 1, "g", "text");
    EXPECT_EQ(next(), from(authpriv + priorities[level]) + names[level] + " a: text [f:1 g]");
  }
}

TEST_F(SystemLog, ThresholdKeepsRecordsOut) {
  configure({{"log", "ERROR"}, {"log.cloud", "DEBUG"}});
  getLogger("base", false)->log(3, "f", 1, "g", "kept out even when nobody asked");
  EXPECT_EQ(next(), "");
  getLogger("cloud.object", false)->log(1, "f", 1, "g", "text");
  EXPECT_EQ(next(), from(authpriv + 7) + "DEBUG cloud.object: text [f:1 g]");
}

TEST_F(SystemLog, RecordIsOneLineAndNotCutByAZeroByte) {
  configure({});
  getLogger("a", false)->log(4, "f", 1, "g", "one\ntwo%c%%s %%n", '\0');
  EXPECT_EQ(next(), from(authpriv + 3) + "ERROR a: one\\ntwo\\x00%s %n [f:1 g]");
}

TEST_F(SystemLog, LongRecordIsShortenedBeforeItIsLost) {
  configure({});
  getLogger("a", false)->log(4, "f", 1, "g", "%s", std::string(300000, 'x').c_str());
  EXPECT_EQ(next(), from(authpriv + 3) + "ERROR a: " + std::string(8000, 'x') + "... [f:1 g]");
}

TEST_F(SystemLog, BrokenLevelNameIsToldHere) {
  configure({{"log", "LOUD"}});
  EXPECT_THAT(next(), testing::StartsWith(from(authpriv + 3) + "ERROR base.logger: The setting log is 'LOUD'; it must "
                                                               "be one of TRACE, DEBUG, INFO, WARN, ERROR, FATAL and "
                                                               "OFF ["));
}

TEST_F(SystemLog, MissingLogFileIsToldHere) {
  configure({{"logging.file", "/var/morvand/none/log"}});
  EXPECT_THAT(next(), testing::StartsWith(from(authpriv + 3) +
                                          "ERROR base.logger: No log file: Cannot write /var/morvand/none/log: No such "
                                          "file or directory ["));
}

TEST_F(SystemLog, FullLogFileLosesItsRecordAndTheSystemLogKeepsIt) {
  testsupport::mountSmall("/var/morvand/logs", 4);
  configure({{"logging.file", "/var/morvand/logs/log"}});
  const std::string text(3000, 'x');
  for (int i = 0; i < 4; ++i) getLogger("a", false)->log(4, "f", 1, "g", "%s", text.c_str());
  for (int i = 0; i < 4; ++i) EXPECT_EQ(next(), from(authpriv + 3) + "ERROR a: " + text + " [f:1 g]");
  EXPECT_LE(fs::file_size("/var/morvand/logs/log"), 4096U);
  configure({});
}

TEST_F(SystemLog, NoDaemonLosesTheRecordAndNothingElse) {
  configure({});
  m_socket = lumo::FileDescriptor();
  unlink("/dev/log");
  errno = EXDEV;
  for (int i = 0; i < 100; ++i) getLogger("a", false)->log(5, "f", 1, "g", "text");
  EXPECT_EQ(errno, EXDEV);
}

}  // namespace
