#include "testsupport/private_host.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

namespace testsupport {
namespace {

namespace fs = std::filesystem;

std::vector<std::string> extraMounts;

void require(int result, const std::string& what) {
  if (result != 0) throw std::system_error(errno, std::generic_category(), what);
}

void mountTmpfs(const std::string& folder, const std::string& options) {
  fs::create_directories(folder);
  require(mount("tmpfs", folder.c_str(), "tmpfs", 0, options.c_str()), "mount a tmpfs on " + folder);
}

// What is written to the folder from now on goes to `scratch`; what the machine has there stays readable.
void mountCopyOnWrite(const std::string& folder, const std::string& scratch) {
  const std::string upper = scratch + folder + "/upper";
  const std::string work = scratch + folder + "/work";
  fs::create_directories(upper);
  fs::create_directories(work);
  const std::string options = "lowerdir=" + folder + ",upperdir=" + upper + ",workdir=" + work;
  require(mount("overlay", folder.c_str(), "overlay", 0, options.c_str()), "mount an overlay on " + folder);
}

void loopbackUp() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  require(fd < 0 ? -1 : 0, "open a socket");
  ifreq request{};
  request.ifr_name[0] = 'l';
  request.ifr_name[1] = 'o';
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  const int result = ioctl(fd, SIOCSIFFLAGS, &request);
  close(fd);
  require(result, "bring loopback up");
}

}  // namespace

void enterPrivateHost() {
  require(unshare(CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS), "make namespaces");
  require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "make mounts private");
  const std::string scratch = "/mnt";
  mountTmpfs(scratch, "mode=0700");
  mountCopyOnWrite("/etc", scratch);
  mountCopyOnWrite("/var", scratch);
  mountTmpfs("/run", "mode=0755");
  mountTmpfs("/var/tmp", "mode=1777");
  mountTmpfs("/etc/morvand", "mode=0755");
  mountTmpfs("/var/morvand", "mode=0755");
  loopbackUp();
  cleanPrivateHost();
  fs::remove("/etc/krb5.conf");
}

void hideMachineState() {
  require(unshare(CLONE_NEWNS), "make a mount namespace");
  require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "make mounts private");
  const std::string scratch = "/mnt";
  mountTmpfs(scratch, "mode=0700");
  for (const char* folder : {"/etc", "/var"}) {
    mountCopyOnWrite(folder, scratch);
    mountTmpfs(std::string(folder) + "/morvand", "mode=0755");
  }
}

void cleanPrivateHost() {
  while (!extraMounts.empty()) {
    umount2(extraMounts.back().c_str(), MNT_DETACH);
    extraMounts.pop_back();
  }
  for (const char* folder : {"/etc/morvand", "/var/morvand", "/run"}) {
    mount("none", folder, nullptr, MS_REMOUNT, "mode=0755");
    for (const auto& entry : fs::directory_iterator(folder)) fs::remove_all(entry.path());
    chmod(folder, 0755);
    if (chown(folder, 0, 0) != 0) throw std::system_error(errno, std::generic_category(), folder);
  }
  fs::remove("/etc/krb5.keytab");
}

void mountSmall(const std::string& folder, int kilobytes) {
  mountTmpfs(folder, "mode=0755,size=" + std::to_string(kilobytes) + "k");
  extraMounts.push_back(folder);
}

void mountReadOnly(const std::string& folder) {
  require(mount(folder.c_str(), folder.c_str(), nullptr, MS_BIND, nullptr), "bind " + folder);
  extraMounts.push_back(folder);
  require(mount("none", folder.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr), "read-only " + folder);
}

}  // namespace testsupport
