// Other roads of a login: another page, a web proxy in the way, two users at once.
#include <condition_variable>
#include <mutex>
#include <regex>
#include <thread>

#include "basalt/kerberos/protected_credential.h"
#include "cloud/login/tests/cloud_auth_lab.h"

using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using namespace labtest;

namespace {

// A web proxy with Negotiate in the way.
class CloudAuthProxyLab : public CloudAuthLab {
 protected:
  void useProxyAs(const std::string& user, const std::string& password) {
    lumo::ProtectedCredential credential("httpproxy");
    credential.setCred(user, lumo::Shredder2(password));
    credential.storeToFile();
    UpdateCloudHttpProxy();
  }
  static std::string byProxyAs(const std::string& user) {
    return "negotiate proxy " + user + " 200 CONNECT " + lab("PLATFORM") + ":443";
  }

  const testsupport::Setting server{lumo::PN::CLOUD_PROXY_SERVER, lab("PROXY_NEGOTIATE")};
  const testsupport::Setting required{lumo::PN::CLOUD_PROXY_AUTH_REQUIRED, "true"};
  const testsupport::Setting scheme{lumo::PN::CLOUD_PROXY_AUTH_TYPE, "Negotiate"};
};

// Threads that take each step together.
class Meeting {
 public:
  explicit Meeting(int count) : m_count(count) {}
  void meet() {
    std::unique_lock<std::mutex> lock(m_mutex);
    const int round = m_round;
    if (++m_here == m_count) {
      m_here = 0;
      ++m_round;
      m_changed.notify_all();
    }
    EXPECT_TRUE(m_changed.wait_for(lock, std::chrono::seconds(30), [&] { return m_round != round; }));
  }

 private:
  const int m_count;
  int m_here = 0;
  int m_round = 0;
  std::mutex m_mutex;
  std::condition_variable m_changed;
};

// One of two logins.
struct Side {
  std::string user;
  int profile;
  std::string machineCookie = {}, userCookie = {}, failure = {};
  std::vector<int> results = {};
};

class CloudAuthRoadsLab : public CloudAuthLab {
 protected:
  static void logIn(Side& side, Meeting& meeting) {
    side.failure = failureOf([&] {
      meeting.meet();
      const Client client = begin(side.user, side.profile);
      meeting.meet();
      side.results.push_back(client->startAuthentication());
      side.machineCookie = client->getCookie(COOKIE_MACHINE);
      side.userCookie = client->getCookie(COOKIE_USER);
      for (int round = 0; round < 2; ++round) {
        meeting.meet();
        side.results.push_back(prove(*client));
      }
      meeting.meet();
    });
  }
  static Texts withoutNumbers(Texts texts) {
    static const std::regex NUMBER("[0-9]{6}");
    // The code of the users is one too, but the same for both.
    for (std::string& text : texts) text = std::regex_replace(text, NUMBER, "#");
    return texts;
  }
  static Texts requestsOf(const Side& side) {
    return withoutNumbers(textsWith(asked(), {" " + side.machineCookie + " ", " " + side.userCookie}));
  }
};

}  // namespace

TEST_F(CloudAuthRoadsLab, PageOfTheSettingIsUsedInPlaceOfTheConnectors) {
  const testsupport::Setting page(lumo::PN::CLOUD_IWA_URL_OVERRIDE, "https://" + branch1 + ":443/");
  Client client = begin("alice");
  EXPECT_THAT(logged(),
              ElementsAre("DEBUG getCloudConnector: current cloud connector host DC FQDN=" + used,
                          "DEBUG getCloudConnector: current cloud connector host DC FQDN=" + used,
                          "DEBUG GetSPNFromIwaURL searches with filter '(objectCategory=computer)(dNSHostName=" +
                              branch1 + ")'"));
  EXPECT_THAT(textsWith(steps(), {"IWA URL"}), ElementsAre("DEBUG IWA URL is: https://" + branch1 +
                                                           ":443/. SPN = HTTP/" + branch1 + "@" + lab("REALM") + "."));
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  end(client);
  EXPECT_THAT(came(2), ElementsAre(atPage(branch1), byProxy(used)));
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthProxyLab, WebProxyWithNegotiateIsOnTheWayToThePlatformAlone) {
  useProxyAs(MACHINE_MARKER, "");
  Client client = begin("frank");
  EXPECT_EQ(client->startAuthentication(), AUTH_NEXT_CHALLENGE);
  EXPECT_EQ(prove(*client), AUTH_NEXT_CHALLENGE);
  EXPECT_EQ(prove(*client), AUTH_DONE);
  end(client);
  EXPECT_THAT(asked(), ElementsAreArray(twoRounds("frank")));
  EXPECT_THAT(came(2), ElementsAre(atPage(used), byProxyAs(machine)));
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthProxyLab, UserOfTheWebProxyAndTheMachineAtThePageAreKeptApart) {
  useProxyAs("alice", lab("PASSWORD_ALICE"));
  Client client = begin("dave");
  EXPECT_EQ(client->startAuthentication(), AUTH_DONE);
  end(client);
  EXPECT_THAT(came(2), ElementsAre(atPage(used), byProxyAs("alice@" + lab("REALM"))));
  EXPECT_THAT(warned(), IsEmpty());
}

TEST_F(CloudAuthRoadsLab, TwoUsersSideBySideHaveEachTheirOwn) {
  tell(R"({"command":"user","user":{"name":"alice","mobile":"+15550923","serverLogin":["otp","sms"]}})");
  Side frank{"frank", PROFILE_ELEVATION};
  Side alice{"alice", PROFILE_LOGIN};
  Meeting meeting(2);
  std::thread other([&] { logIn(frank, meeting); });
  logIn(alice, meeting);
  other.join();
  CloudCurlPool::getInstance().reapCurls();
  for (const Side* side : {&frank, &alice}) {
    EXPECT_EQ(side->failure, "nothing thrown");
    EXPECT_THAT(side->results, ElementsAre(AUTH_NEXT_CHALLENGE, AUTH_NEXT_CHALLENGE, AUTH_DONE)) << side->user;
    const std::string endpoint = side->profile == PROFILE_ELEVATION ? "ferrosuexecute" : "mfalogin";
    EXPECT_THAT(requestsOf(*side),
                ElementsAreArray(withoutNumbers(joined({{impersonation(side->user, "MACHINE-000002"),
                                                         "GET qrsintegration/" + endpoint + " USER-000003: 200"},
                                                        proofRequests(endpoint, 4, 0, "OTP"),
                                                        proofRequests(endpoint, 6, 1, "SMS")}))));
  }
  const Texts all = withoutNumbers(asked());
  EXPECT_THAT(all, testing::SizeIs(24));
  EXPECT_THAT(all, Contains("GET iwa/SiteCheck: 200").Times(2));
  EXPECT_THAT(all, Contains("GET security/sso?OneTimePass=OTC-#: 200").Times(2));
  EXPECT_THAT(came(4), ElementsAre(atPage(used), atPage(used), byProxy(used), byProxy(used)));
  EXPECT_THAT(warned(), IsEmpty());
}
