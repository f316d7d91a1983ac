// Logins of several users side by side, over one pool.
#include <atomic>
#include <map>
#include <mutex>
#include <thread>

#include "cloud/login/tests/cloud_auth_platform.h"

namespace {

using namespace platformtest;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int THREADS = 8;
constexpr int LOGINS = 200;

// Leads the dialogue to its end as a user who knows everything.
int lead(CloudAuth& login, const std::string& user, const CloudAuth::Payload* payload) {
  int status = login.startAuthentication(payload);
  CloudAuthChallenge open;
  while (status == AUTH_NEXT_CHALLENGE && login.nextChallenge(open) == 1) {
    // Of several the security question, which stands last, or else the first.
    const bool isAsked = open.mechanisms.back().name == "SQ";
    const CloudAuthMechanism& chosen = isAsked ? open.mechanisms.back() : open.mechanisms.front();
    if (chosen.name == "UP" || chosen.name == "SQ") {
      const std::string text = chosen.name == "UP" ? user + "-Pass1" : "Rex";
      status = login.advanceAuthentication(chosen.mechanismId, ACTION_ANSWER, text);
    } else {
      login.advanceAuthentication(chosen.mechanismId, ACTION_START_OOB, "");
      status = login.advanceAuthentication(chosen.mechanismId, ACTION_ANSWER, "246810");
    }
  }
  return status;
}

class SideBySide : public PlatformTest {
 protected:
  // Which user a cookie is of, as the clients were told.
  void note(const std::string& user, CloudAuth& login) {
    const std::lock_guard<std::mutex> lock(mutex);
    owners[login.getCookie(COOKIE_USER)] = user;
  }
  int newest(const std::string& user, const std::string& machine) {
    const auto login = client1S(user, PROFILE_ELEVATION, machine);
    const CloudAuth::Payload payload{{"user", user}};
    const int status = lead(*login, user, &payload);
    note(user, *login);
    return status;
  }
  int older(const std::string& version, const std::string& user) {
    if (version == "0") return lead(*client<Client0>("0", user), user, nullptr);
    return lead(*client<Client1>("1.0", user), user, nullptr);
  }

  // No request has a cookie but the machine's or that of the user whom it is made for.
  void expectOwnCookies(const std::string& machine) {
    int asUser = 0;
    for (const auto& request : platform.requests()) {
      const std::string line = lineOf(request, platform.podHost());
      if (request.endpoint == "security/startimpersonate") {
        EXPECT_EQ(request.cookie, machine) << line;
      } else if (request.endpoint == "qrsintegration/ferrosuexecute") {
        ASSERT_EQ(owners.count(request.cookie), 1U) << line;
        EXPECT_EQ(request.body, R"({"user":")" + owners[request.cookie] + "\"}") << line;
        ++asUser;
      } else if (request.endpoint != "security/startchallenge" &&
                 request.endpoint != "security/AdvanceAuthentication") {
        EXPECT_EQ(request.cookie, "") << line;
      } else {
        // The simulator knows whose the session is.
        EXPECT_TRUE(request.cookie.empty() || owners.count(request.cookie) == 1) << line;
      }
    }
    EXPECT_GT(asUser, 0);
    EXPECT_THAT(platform.surprises(), IsEmpty());
  }

  std::mutex mutex;
  std::map<std::string, std::string> owners;
};

TEST_F(SideBySide, TwoUsersStepByStep) {
  const std::string machine = machineCookie();
  const size_t before = platform.requests().size();
  const auto grace = client1S("grace", PROFILE_LOGIN, machine);
  const auto heidi = client1S("heidi", PROFILE_LOGIN, machine);
  ASSERT_EQ(grace->startAuthentication(), AUTH_NEXT_CHALLENGE);
  ASSERT_EQ(heidi->startAuthentication(), AUTH_NEXT_CHALLENGE);
  CloudAuthChallenge ofGrace;
  CloudAuthChallenge ofHeidi;
  ASSERT_EQ(grace->nextChallenge(ofGrace), 1);
  ASSERT_EQ(heidi->nextChallenge(ofHeidi), 1);
  EXPECT_EQ(heidi->advanceAuthentication(ofHeidi.mechanisms[0].mechanismId, ACTION_ANSWER, "heidi-Pass1"), AUTH_DONE);
  EXPECT_EQ(grace->advanceAuthentication(ofGrace.mechanisms[0].mechanismId, ACTION_ANSWER, "Rex"), AUTH_DONE);
  EXPECT_EQ(grace->getCookie(COOKIE_USER), "USER-000003");
  EXPECT_EQ(heidi->getCookie(COOKIE_USER), "USER-000006");
  const auto endpointsWith = [&](const std::string& cookie) {
    Texts found;
    const auto all = platform.requests();
    for (size_t i = before; i < all.size(); ++i) {
      if (all[i].cookie == cookie) found.push_back(all[i].endpoint);
    }
    return found;
  };
  for (const auto* user : {&grace, &heidi}) {
    EXPECT_THAT(endpointsWith((*user)->getCookie(COOKIE_USER)),
                ElementsAre("qrsintegration/mfalogin", "security/startchallenge", "security/AdvanceAuthentication",
                            "qrsintegration/mfalogin"));
  }
  EXPECT_EQ(endpointsWith(machine).size(), 2U);
  EXPECT_EQ(platform.requests().size(), before + 10);
  EXPECT_THAT(platform.surprises(), IsEmpty());
  EXPECT_EQ(access.occupiedCount, 2U);
}

// One connection serves them all in turn.
TEST_F(SideBySide, OneConnectionInTurn) {
  const std::string machine = machineCookie();
  access.maxConnections = 1;
  for (const std::string user : {"alice", "bob", "grace", "carol"}) {
    EXPECT_EQ(newest(user, machine), AUTH_DONE) << user;
    EXPECT_EQ(older("1.0", user), AUTH_DONE) << user;
    EXPECT_EQ(older("0", user), AUTH_DONE) << user;
  }
  EXPECT_EQ(access.connections.size(), 1U);
  expectOwnCookies(machine);
}

TEST_F(SideBySide, ManyUsersOnManyThreads) {
  static const std::vector<std::string> USERS{"alice", "bob", "grace", "carol", "heidi", "frank"};
  static const std::vector<std::string> VERSIONS{"0", "1.0", "1.0S", "1.0S"};
  const std::string machine = machineCookie();
  const int before = platform.connections();
  std::atomic<int> next{0};
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  threads.reserve(THREADS);
  for (int i = 0; i < THREADS; ++i) {
    threads.emplace_back([&] {
      for (int number = next++; number < LOGINS; number = next++) {
        const std::string& version = VERSIONS[static_cast<size_t>(number) % VERSIONS.size()];
        std::string user = USERS[static_cast<size_t>(number) / VERSIONS.size() % USERS.size()];
        if (user == "heidi" && version != "1.0S") user = "alice";  // would change the password
        done += (version == "1.0S" ? newest(user, machine) : older(version, user)) == AUTH_DONE ? 1 : 0;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(done, LOGINS);
  EXPECT_EQ(access.occupiedCount, 0U);
  EXPECT_LE(access.connections.size(), static_cast<size_t>(THREADS));
  EXPECT_LE(platform.connections(), before + THREADS) << "connections are kept";
  expectOwnCookies(machine);
}

}  // namespace
