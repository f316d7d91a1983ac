// Times whole logins at the platform simulator beside the same requests sent by plain libcurl on one kept connection,
// and watches the memory of logins on several threads. The simulator is a process of its own.
//
// usage: login [ROUNDS]
// A line for each kind of work: name, median microseconds of ours over so many rounds (1000); those of plain libcurl
// and the median of the ratios round by round; for work with bodies the same once more for plain libcurl that hands
// them out by a callback as ours does, which makes a body a packet of its own. Tabs separate. Who begins changes with
// each round. Then a line for the memory of 200 logins on 8 threads over a pool of 10, after as many to begin with:
// resident KiB after the first hundred, after the last, and the growth in percent.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "bench/plain_curl.h"
#include "bench/platform.h"
#include "bench/rounds.h"
#include "cloud/include/cloud_object_pool.h"
#include "cloud/login/cloud_auth_v1.h"
#include "cloud/login/cloud_auth_v1s.h"

namespace {

constexpr int THREADS = 8;
constexpr int LOGINS = 200;

void plainLogin(PlainCurl& curl) {
  const std::string& start = curl.post("security/StartAuthentication", R"({"User":"bob","Version":"1.0"})");
  const std::string mark = R"("SessionId":")";
  const size_t at = start.find(mark) + mark.size();
  const std::string session = start.substr(at, start.find('"', at) - at);
  const auto answer = [&](const std::string& mechanism, const std::string& text) -> const std::string& {
    return curl.post("security/AdvanceAuthentication",
                     R"({"Action":"Answer","Answer":")" + text + R"(","MechanismId":")" + session + "." + mechanism +
                         R"(","SessionId":")" + session + R"(","TenantId":"LAB0001"})");
  };
  answer("0.UP", "bob-Pass1");
  require(answer("1.SQ", "Rex").find("LoginSuccess") != std::string::npos, "plain login");
}

void plainAction(PlainCurl& curl) {
  require(curl.get("qrsintegration/mfalogin").find(R"("success":true)") != std::string::npos, "plain action");
}

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

// Ours, and what it is beside either plain loop.
void compare(const char* name, int rounds, const std::vector<Work>& works) {
  const auto times = timesOf(works, rounds);
  std::printf("%-32s\t%.1f", name, median(times[0]));
  for (size_t plain = 1; plain < times.size(); ++plain) {
    std::printf("\t%.1f\t%.3f", median(times[plain]), medianRatio(times[0], times[plain]));
  }
  std::printf("\n");
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
      PlainCurl plain(platform, PlainCurl::AsFields);
      PlainCurl byCallback(platform, PlainCurl::ByCallback);
      compare("login of two challenges", rounds,
              {[&] { login(platform.url()); }, [&] { plainLogin(plain); }, [&] { plainLogin(byCallback); }});
      const std::string cookie = userCookie(platform);
      plain.useSession(cookie);
      const auto visit = [&] {
        const auto client = visitor(platform);
        client->setCookie(COOKIE_USER, cookie);
        require(client->startAuthentication() == AUTH_DONE, "action");
      };
      compare("warm privileged action", rounds, {visit, [&] { plainAction(plain); }});
    }
    watchMemory(platform.url());
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "%s\n", failure.what());
    return 1;
  }
  return 0;
}
