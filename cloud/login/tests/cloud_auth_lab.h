// A host of the private domain that logs its users in: connectors with their sign-in pages and proxies, and the
// platform simulator behind them. Tests with it run in a lab of their own, cloud_auth_lab_test: the platform of the
// other lab answers at its root, which nobody asks the simulator for.
#pragma once

#include <rapidjson/document.h>

#include <memory>
#include <string>
#include <vector>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/include/cloud_auth_handler.h"
#include "cloud/include/curl_object.h"
#include "cloud/rest/tests/cloudconnectorlocator_lab.h"

namespace labtest {

using Client = std::unique_ptr<CloudAuth>;

class CloudAuthLab : public ConnectorLab {
 protected:
  void SetUp() override {
    ASSERT_NE(lab("PLATFORM_CONTROL"), "") << "needs the lab with the platform (--with=connectors,platform)";
    tell(R"({"command":"reset"})");
    UpdateCloudConnectors();
    used = connectorInUse();
    ASSERT_THAT(used, testing::AnyOf(connector1, connector2));
    logged();
    flow();
    warned();
    m_roads = std::make_unique<Roads>();
  }
  void TearDown() override {
    if (lab("PLATFORM_CONTROL").empty()) return;
    EXPECT_THAT(list("surprises"), testing::IsEmpty());
  }

  // A command for the simulator, as JSON; its answer.
  static rapidjson::Document tell(const std::string& command) {
    CurlObject line;
    rapidjson::Document answer;
    answer.Parse(line.perform(lab("PLATFORM_CONTROL"), command, 1).second.c_str());
    EXPECT_TRUE(answer.IsObject() && answer["ok"].GetBool()) << command;
    return answer;
  }
  static Texts list(const char* what) {
    const rapidjson::Document answer = tell(std::string(R"({"command":")") + what + "\"}");
    Texts texts;
    for (const auto& text : answer[what].GetArray()) texts.emplace_back(text.GetString());
    return texts;
  }
  // What the platform was asked since the last reset: "METHOD ENDPOINT?QUERY COOKIE BODY: STATUS".
  static Texts asked() {
    const rapidjson::Document answer = tell(R"({"command":"requests"})");
    Texts texts;
    for (const auto& request : answer["requests"].GetArray()) {
      const auto part = [&request](const char* name, const std::string& before) {
        const std::string value = request[name].GetString();
        return value.empty() ? value : before + value;
      };
      texts.push_back(part("method", "") + part("endpoint", " ") + part("query", "?") + part("cookie", " ") +
                      part("body", " ") + ": " + std::to_string(request["status"].GetInt()));
    }
    return texts;
  }

  // The requests of a sign-in: the connector's code has that number, the cookies the next two.
  static Texts signIn(const std::string& user, int number) {
    return {"GET iwa/SiteCheck: 200", "GET security/sso?OneTimePass=" + id("OTC-", number) + ": 200",
            impersonation(user, id("MACHINE-", number + 1))};
  }
  static std::string impersonation(const std::string& user, const std::string& cookie, int status = 200) {
    return "POST security/startimpersonate " + cookie + " {\"username\":\"" + user + "\"}: " + std::to_string(status);
  }
  static std::string visit(const std::string& cookie, int status = 200) {
    return "GET qrsintegration/mfalogin " + cookie + ": " + std::to_string(status);
  }
  // One round of the proof by the user USER-000003, with that challenge of that round, and the visit behind it.
  static Texts proofRequests(const std::string& endpoint, int challenge, int round, const std::string& kind,
                             const std::string& payload = {}) {
    const std::string session = id("S", challenge + 1);
    const std::string end = "\"MechanismId\":\"" + session + ".0." + kind + "\",\"SessionId\":\"" + session +
                            "\",\"TenantId\":\"" + lab("TENANT") + "\"}: 200";
    const std::string advance = "POST security/AdvanceAuthentication USER-000003 {\"Action\":";
    const std::string number = std::to_string(round);
    return {"POST security/startchallenge USER-000003 {\"ChallengeStateId\":\"" + id("C", challenge) + "/" + number +
                "\",\"Version\":\"1.0\"}: 200",
            advance + "\"StartOOB\"," + end, advance + R"("Answer","Answer":"246810",)" + end,
            (payload.empty() ? "GET" : "POST") + (" qrsintegration/" + endpoint) +
                "?challengeId=" + id("C", challenge) + "%2F" + number + " USER-000003" +
                (payload.empty() ? "" : " " + payload) + ": 200"};
  }
  // A login whose cookies had both ended: made anew by the ticket.
  static Texts renewal(const std::string& user) {
    return joined({signIn(user, 1),
                   {visit("USER-000003"), visit("USER-000003", 401), impersonation(user, "MACHINE-000002", 401)},
                   signIn(user, 4),
                   {visit("USER-000006")}});
  }
  // A login that took two rounds of proof.
  static Texts twoRounds(const std::string& user) {
    return joined({signIn(user, 1),
                   {visit("USER-000003")},
                   proofRequests("mfalogin", 4, 0, "OTP"),
                   proofRequests("mfalogin", 6, 1, "SMS")});
  }
  // What the simulator counts up for all that it gives out.
  static std::string id(const std::string& kind, int number) { return VS("%s%06d", kind.c_str(), number); }
  static Texts joined(const std::vector<Texts>& parts) {
    Texts all;
    for (const Texts& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
  }

  static std::string connectorInUse() {
    const LocatorLock held;
    return CloudConnectorLocatorAccess(locator()).currentConnector;
  }
  std::string otherThan(const std::string& host) const { return host == connector1 ? connector2 : connector1; }
  static std::string squidOf(const std::string& host) { return "squid-" + nameOf(host); }

  // A client as an agent gets it, with a connection.
  static Client begin(const std::string& user, int profile = PROFILE_LOGIN, const std::string& uuid = {}) {
    Client client(getHandler(std::string(), user, uuid, &profile));
    client->getCurl(user, "test");
    return client;
  }
  // Gives the connection back; no tunnel stays open.
  static void end(Client& client) {
    client.reset();
    CloudCurlPool::getInstance().reapCurls();
  }

  // The flow's records since the last call, as "LEVEL TEXT".
  Texts flow() { return log.newTexts("cloud.object"); }
  // Those of them that tell of the login: neither of the pool nor of single replies.
  Texts steps() {
    return textsWith(flow(), {"X-MRV-", "HTTP code", "CURL connection", "cert store", "Set cloud web proxy"}, false);
  }
  // What anybody warned of since the last call, as "LEVEL LOGGER: TEXT".
  Texts warned() {
    Texts all = log.texts();
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(m_seen));
    m_seen += all.size();
    return textsWith(all, {"WARN ", "ERROR ", "FATAL "});
  }

  // Who came to the connectors since the test's start: "CONNECTOR page USER STATUS METHOD URL" and, once its tunnel is
  // closed, "CONNECTOR proxy USER STATUS METHOD URL". Waits for so many.
  Texts came(std::size_t count) const {
    Texts found;
    EXPECT_TRUE(comesTrue([&] { return (found = m_roads->came()).size() >= count; }, std::chrono::seconds(60)));
    return found;
  }

  // The road of a login: the page straight, the platform by the proxy.
  Texts road(const std::string& host) const { return {atPage(host), byProxy(host)}; }
  std::string atPage(const std::string& host) const {
    return nameOf(host) + " page " + machine + " 200 GET /iwa/SiteCheck";
  }
  static std::string byProxy(const std::string& host) {
    return nameOf(host) + " proxy - 200 CONNECT " + lab("PLATFORM") + ":443";
  }
  static std::string nameOf(const std::string& host) { return host.substr(0, host.find('.')); }

  // One step of the open challenge by its first mechanism, with the code that the user has got.
  static int prove(CloudAuth& client, const std::string& code = "246810") {
    CloudAuthChallenge challenge;
    EXPECT_EQ(client.nextChallenge(challenge), 1);
    const std::string& mechanism = challenge.mechanisms.at(0).mechanismId;
    EXPECT_EQ(client.advanceAuthentication(mechanism, ACTION_START_OOB, ""), AUTH_PENDING);
    return client.advanceAuthentication(mechanism, ACTION_ANSWER, code);
  }

  std::string used;  // the connector in use
  const std::string machine = lab("MACHINE") + "@" + lab("REALM");

 private:
  struct Roads {
    Texts came() const {
      Texts found;
      for (std::size_t i = 0; i < names.size(); ++i) {
        for (const Entry& entry : logs[i].entries(0)) {
          found.push_back(names[i] + " " + entry.user + " " + entry.status + " " + entry.method + " " + entry.url);
        }
      }
      return found;
    }

    const std::vector<std::string> names = {"connector1 page",  "connector2 page", "branch1 page",   "connector1 proxy",
                                            "connector2 proxy", "branch1 proxy",   "negotiate proxy"};
    const std::vector<LogTail> logs = {LogTail("CONNECTOR1", "IWA_LOG_"),
                                       LogTail("CONNECTOR2", "IWA_LOG_"),
                                       LogTail("BRANCH1", "IWA_LOG_"),
                                       LogTail("CONNECTOR1"),
                                       LogTail("CONNECTOR2"),
                                       LogTail("BRANCH1"),
                                       LogTail("NEGOTIATE")};
  };

  const testsupport::Setting trustsConnectors{lumo::PN::FERROSEC_CERT_DIR, lab("CA_FOLDER")};
  const CloudCurlPoolAccess pool;
  std::unique_ptr<Roads> m_roads;
  std::size_t m_seen = 0;
};

}  // namespace labtest
