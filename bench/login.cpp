// Times whole logins at the platform simulator beside the same requests sent by plain libcurl on one kept connection,
// and watches the memory of logins on several threads. The simulator is a process of its own.
//
// usage: login [ROUNDS]
// A line for each kind of work: name, median microseconds of ours and of plain libcurl over so many rounds (1000), and
// the median of the ratios round by round, separated by tabs. Each round does ours and theirs, in turn first.
// Then a line for the memory of 200 logins on 8 threads over a pool of 10, after as many to begin with: resident KiB
// after the first hundred, after the last, and the growth in percent.
#include <curl/curl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "cloud/cloud_auth_v1.h"
#include "cloud/cloud_auth_v1s.h"
#include "cloud/include/cloud_object_pool.h"
#include "lab/platform/platform_simulator.h"

namespace {

constexpr int THREADS = 8;
constexpr int LOGINS = 200;

void require(bool good, const char* what) {
  if (!good) throw std::runtime_error(what);
}

// Client and simulator keep to a processor each: where the system puts the server's thread of a connection would decide
// more than what the client does.
void keepTo(long processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(static_cast<size_t>(processor), &set);
  sched_setaffinity(0, sizeof set, &set);
}

// The simulator in a child process, which ends with this one.
class Platform {
 public:
  Platform() {
    char folder[] = "/tmp/bench-login.XXXXXX";
    require(mkdtemp(folder) != nullptr, "mkdtemp");
    m_folder = folder;
    m_certificate = testsupport::makeCertificate(m_folder, "platform", {});
    int ends[2];
    require(pipe(ends) == 0, "pipe");
    m_child = fork();
    require(m_child >= 0, "fork");
    if (m_child == 0) serve(ends[1]);
    close(ends[1]);
    char text[512] = {};
    require(read(ends[0], text, sizeof text - 1) > 0, "the simulator does not start");
    close(ends[0]);
    const std::string answer = text;
    m_url = answer.substr(0, answer.find(' '));
    m_code = answer.substr(answer.find(' ') + 1);
  }
  ~Platform() {
    kill(m_child, SIGTERM);
    waitpid(m_child, nullptr, 0);
    for (const auto& file : {m_certificate.certificateFile, m_certificate.keyFile}) unlink(file.c_str());
    rmdir(m_folder.c_str());
  }
  Platform(const Platform&) = delete;
  Platform& operator=(const Platform&) = delete;

  const std::string& url() const { return m_url; }
  const std::string& code() const { return m_code; }
  const std::string& bundle() const { return m_certificate.certificateFile; }

 private:
  [[noreturn]] void serve(int answer) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    keepTo(sysconf(_SC_NPROCESSORS_ONLN) - 1);
    ferrolab::PlatformOptions options;
    options.certificate = &m_certificate;
    options.keepsRecord = false;
    ferrolab::PlatformSimulator simulator(options);
    const std::string text = simulator.url() + " " + simulator.mintCode("HOST1$");
    if (write(answer, text.data(), text.size()) < 0) _exit(1);
    for (;;) pause();
  }

  std::string m_folder;
  testsupport::Certificate m_certificate;
  pid_t m_child = -1;
  std::string m_url;
  std::string m_code;
};

// What a caller writes who knows libcurl and needs no more than these requests.
class Plain {
 public:
  explicit Plain(const Platform& platform) : m_url(platform.url()) {
    for (const char* line :
         {"Content-Type: application/json", "X-MORVANE-NATIVE-CLIENT: 1", "X-MRV-SRC: QRS", "X-TZOFF: 0"}) {
      m_headers = curl_slist_append(m_headers, line);
    }
    curl_easy_setopt(m_curl, CURLOPT_HTTPHEADER, m_headers);
    curl_easy_setopt(m_curl, CURLOPT_CAINFO, platform.bundle().c_str());
    curl_easy_setopt(m_curl, CURLOPT_WRITEFUNCTION, &Plain::write);
    curl_easy_setopt(m_curl, CURLOPT_WRITEDATA, &m_reply);
    curl_easy_setopt(m_curl, CURLOPT_NOPROXY, "*");
  }
  ~Plain() {
    curl_easy_cleanup(m_curl);
    curl_slist_free_all(m_headers);
  }
  Plain(const Plain&) = delete;
  Plain& operator=(const Plain&) = delete;

  void login() {
    post("security/StartAuthentication", R"({"User":"bob","Version":"1.0"})");
    const std::string mark = R"("SessionId":")";
    const size_t at = m_reply.find(mark) + mark.size();
    const std::string session = m_reply.substr(at, m_reply.find('"', at) - at);
    answer(session, "0.UP", "bob-Pass1");
    answer(session, "1.SQ", "Rex");
    require(m_reply.find("LoginSuccess") != std::string::npos, "plain login");
  }
  void action(const std::string& cookie) {
    curl_easy_setopt(m_curl, CURLOPT_COOKIE, cookie.c_str());
    curl_easy_setopt(m_curl, CURLOPT_HTTPGET, 1L);
    perform("qrsintegration/mfalogin");
    curl_easy_setopt(m_curl, CURLOPT_COOKIE, nullptr);
    require(m_reply.find(R"("success":true)") != std::string::npos, "plain action");
  }

 private:
  static size_t write(char* data, size_t size, size_t count, void* reply) {
    static_cast<std::string*>(reply)->append(data, size * count);
    return size * count;
  }
  void answer(const std::string& session, const std::string& mechanism, const std::string& text) {
    post("security/AdvanceAuthentication", R"({"Action":"Answer","Answer":")" + text + R"(","MechanismId":")" +
                                               session + "." + mechanism + R"(","SessionId":")" + session +
                                               R"(","TenantId":"LAB0001"})");
  }
  void post(const std::string& path, const std::string& body) {
    curl_easy_setopt(m_curl, CURLOPT_POST, 1L);
    curl_easy_setopt(m_curl, CURLOPT_COPYPOSTFIELDS, body.c_str());
    perform(path);
  }
  void perform(const std::string& path) {
    m_reply.clear();
    curl_easy_setopt(m_curl, CURLOPT_URL, (m_url + path).c_str());
    require(curl_easy_perform(m_curl) == CURLE_OK, "plain transfer");
  }

  std::string m_url;
  CURL* m_curl = curl_easy_init();
  curl_slist* m_headers = nullptr;
  std::string m_reply;
};

// One client, as an agent makes it.
void login(const std::string& url) {
  CloudAuthV1 client(url, "1.0", "bob");
  client.getCurl("bob", "login");
  require(client.startAuthentication() == AUTH_NEXT_CHALLENGE, "start");
  int status = AUTH_NEXT_CHALLENGE;
  for (const auto& [name, text] : {std::pair<const char*, const char*>{"UP", "bob-Pass1"}, {"SQ", "Rex"}}) {
    CloudAuthChallenge challenge;
    require(client.nextChallenge(challenge) == 1, "challenge");
    const auto chosen = std::find_if(challenge.mechanisms.begin(), challenge.mechanisms.end(),
                                     [name = name](const auto& one) { return one.name == name; });
    require(chosen != challenge.mechanisms.end(), "mechanism");
    status = client.advanceAuthentication(chosen->mechanismId, ACTION_ANSWER, text);
  }
  require(status == AUTH_DONE, "login");
}

class Visitor : public CloudAuthV1S {
 public:
  using CloudAuthV1S::CloudAuthV1S;
  using CloudAuthV1S::sso;
};

std::unique_ptr<Visitor> visitor(const Platform& platform) {
  const int profile = PROFILE_LOGIN;
  auto made = std::make_unique<Visitor>(platform.url(), "1.0S", "alice", "", "", "", &profile);
  made->getCurl("alice", "login");
  return made;
}

std::string userCookie(const Platform& platform) {
  const auto client = visitor(platform);
  require(client->sso(platform.code()) == 1 && client->startAuthentication() == AUTH_DONE, "the user's cookie");
  return client->getCookie(COOKIE_USER);
}

double microseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

double median(std::vector<double> values) {
  std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2), values.end());
  return values[values.size() / 2];
}

void compare(const char* name, int rounds, const std::function<void()>& ours, const std::function<void()>& theirs) {
  std::vector<double> our;
  std::vector<double> their;
  std::vector<double> ratio;
  for (int i = -rounds / 10; i < rounds; ++i) {
    const bool oursFirst = i % 2 == 0;
    double one = oursFirst ? microseconds(ours) : 0;
    const double other = microseconds(theirs);
    if (!oursFirst) one = microseconds(ours);
    if (i < 0) continue;
    our.push_back(one);
    their.push_back(other);
    ratio.push_back(one / other);
  }
  std::printf("%-32s\t%.1f\t%.1f\t%.3f\n", name, median(our), median(their), median(ratio));
  std::fflush(stdout);
}

long residentKib() {
  std::ifstream status("/proc/self/statm");
  long whole = 0;
  long resident = 0;
  status >> whole >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// So many logins on all threads together.
void loginsOnThreads(const std::string& url, int count) {
  std::atomic<int> left{count};
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  for (int i = 0; i < THREADS; ++i) {
    threads.emplace_back([&left, &url] {
      while (left-- > 0) login(url);
    });
  }
  for (auto& thread : threads) thread.join();
}

void watchMemory(const std::string& url) {
  loginsOnThreads(url, LOGINS / 2);
  const long first = residentKib();
  loginsOnThreads(url, LOGINS / 2);
  const long last = residentKib();
  std::printf("%-32s\t%ld\t%ld\t%.2f\n", "memory of 200 logins", first, last,
              100.0 * static_cast<double>(last - first) / static_cast<double>(first));
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::atoi(argv[1]) : 1000;
  if (rounds < 1) {
    std::fprintf(stderr, "usage: login [ROUNDS]\n");
    return 2;
  }
  try {
    const Platform platform;
    lumo::Props(false, true).setProperty(lumo::PN::FERROD_CLOUD_CERT_STORE, platform.bundle());
    lumo::Props(false, true).setProperty(lumo::PN::CLOUD_DIRECT_CONNECTION, "true");
    keepTo(0);
    {
      Plain plain(platform);
      compare(
          "login of two challenges", rounds, [&] { login(platform.url()); }, [&] { plain.login(); });
      const std::string cookie = userCookie(platform);
      const std::string header = ".ASPXAUTH=" + cookie + ";";
      const auto visit = [&] {
        const auto client = visitor(platform);
        client->setCookie(COOKIE_USER, cookie);
        require(client->startAuthentication() == AUTH_DONE, "action");
      };
      compare("warm privileged action", rounds, visit, [&] { plain.action(header); });
    }
    watchMemory(platform.url());
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
  return 0;
}
