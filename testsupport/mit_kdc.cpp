#include "testsupport/mit_kdc.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <thread>
#include <utility>

#include "testsupport/process.h"

namespace testsupport {
namespace {

constexpr int KERBEROS_PORT = 88;

void require(const ProcessResult& result, const std::string& what) {
  if (result.status != 0) throw std::runtime_error(what + " failed: " + result.out + result.err);
}

bool answers() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(KERBEROS_PORT);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  close(fd);
  return connected;
}

}  // namespace

MitKdc::MitKdc(std::string realm) : m_realm(std::move(realm)) {
  m_environment = {{"KRB5_KDC_PROFILE", m_folder.file("kdc.conf")}, {"KRB5_CONFIG", "/etc/krb5.conf"}};
  writeConfiguration();
  ProcessOptions options;
  options.environment = m_environment;
  require(run({"kdb5_util", "-r", m_realm, "create", "-s", "-P", "master"}, options), "kdb5_util create");
  start();
}

MitKdc::~MitKdc() {
  stop();
  unlink("/etc/krb5.conf");
}

void MitKdc::writeConfiguration() const {
  writeFile("/etc/krb5.conf", "[libdefaults]\n default_realm = " + m_realm +
                                  "\n dns_lookup_kdc = false\n dns_lookup_realm = false\n rdns = false\n"
                                  " dns_canonicalize_hostname = false\n[realms]\n " +
                                  m_realm + " = {\n  kdc = 127.0.0.1\n }\n");
  writeFile(m_folder.file("kdc.conf"),
            "[kdcdefaults]\n kdc_listen = 127.0.0.1:88\n kdc_tcp_listen = 127.0.0.1:88\n[realms]\n " + m_realm +
                " = {\n  database_name = " + m_folder.file("principal") +
                "\n  key_stash_file = " + m_folder.file("stash") + "\n  acl_file = " + m_folder.file("acl") +
                "\n  max_life = 10h 0m 0s\n  default_principal_flags = +preauth\n }\n[logging]\n kdc = FILE:" +
                m_folder.file("kdc.log") + "\n");
}

void MitKdc::start(int timeOffset) {
  stop();
  std::vector<std::string> argv{"krb5kdc", "-n", "-r", m_realm, "-P", m_folder.file("pid")};
  if (timeOffset != 0) {
    argv.push_back("-T");
    argv.push_back(std::to_string(timeOffset));
  }
  std::vector<char*> pointers;
  for (auto& word : argv) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  const pid_t parent = getpid();
  m_pid = fork();
  if (m_pid < 0) throw std::runtime_error("fork failed");
  if (m_pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that dies takes its KDC along
    if (getppid() != parent) _exit(1);
    for (const auto& [name, value] : m_environment) setenv(name.c_str(), value.c_str(), 1);
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd : {0, 1, 2}) dup2(nothing, fd);
    execvp(pointers[0], pointers.data());
    _exit(127);
  }
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!answers()) {
    if (std::chrono::steady_clock::now() > deadline || waitpid(m_pid, nullptr, WNOHANG) != 0) {
      throw std::runtime_error("krb5kdc does not start: " + log());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

void MitKdc::stop() {
  if (m_pid <= 0) return;
  kill(m_pid, SIGKILL);
  waitpid(m_pid, nullptr, 0);
  m_pid = -1;
}

void MitKdc::admin(const std::vector<std::string>& query) {
  std::vector<std::string> argv{"kadmin.local", "-r", m_realm};
  argv.insert(argv.end(), query.begin(), query.end());
  ProcessOptions options;
  options.environment = m_environment;
  const ProcessResult result = run(argv, options);
  require(result, "kadmin.local " + query.front());
}

void MitKdc::addUser(const std::string& name, const std::string& password, const std::vector<std::string>& options) {
  std::vector<std::string> query{"addprinc"};
  query.insert(query.end(), options.begin(), options.end());
  query.insert(query.end(), {"-pw", password, name});
  admin(query);
}

void MitKdc::addWithKeytab(const std::string& name, const std::string& keytab) {
  admin({"addprinc", "-randkey", name});
  admin({"ktadd", "-norandkey", "-k", keytab, name});
}

void MitKdc::rotateKey(const std::string& name, const std::string& keytab) {
  if (keytab.empty()) {
    admin({"cpw", "-randkey", name});
  } else {
    admin({"ktadd", "-k", keytab, name});
  }
}

std::string MitKdc::log() const {
  return exists(m_folder.file("kdc.log")) ? readFile(m_folder.file("kdc.log")) : std::string();
}

}  // namespace testsupport
