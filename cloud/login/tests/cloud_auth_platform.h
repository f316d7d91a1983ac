// Logins from end to end: the platform simulator over HTTPS, one for all tests of a suite, and a caller that leads the
// dialogue step by step.
#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/http/tests/curl_object_fixture.h"
#include "cloud/login/tests/cloud_auth_v0_client.h"
#include "cloud/login/tests/cloud_auth_v1_client.h"
#include "cloud/login/tests/cloud_auth_v1s_client.h"
#include "lab/platform/platform_simulator.h"
#include "testsupport/http_server.h"
#include "testsupport/temp_folder.h"

namespace platformtest {

using Texts = std::vector<std::string>;

using Client0 = V0Client;
using Client1 = V1Client;
using Client1S = V1SClient;

// A step of the caller's: a mechanism of the open challenge by the end of its identifier, and what comes of it.
struct Step {
  enum { APPROVE = 100, DENY };  // what the user does meanwhile

  std::string mechanism;
  int action = ACTION_ANSWER;
  std::string answer;
  int result = 0;
};

inline Step answer(const std::string& mechanism, const std::string& text, int result) {
  return {mechanism, ACTION_ANSWER, text, result};
}
inline Step startOob(const std::string& mechanism) { return {mechanism, ACTION_START_OOB, "", AUTH_PENDING}; }
inline Step poll(const std::string& mechanism, int result) { return {mechanism, ACTION_POLL, "", result}; }
inline Step approve() { return {"", Step::APPROVE, "", 0}; }
inline Step deny() { return {"", Step::DENY, "", 0}; }

// The request in one line: "POST PATH?QUERY [COOKIE] BODY"; what stands in brackets and behind only where there is any.
inline std::string lineOf(const ferrolab::PlatformRequest& request, const std::string& podHost) {
  std::string line = request.host == podHost ? "pod " : "";
  line += request.method + " " + request.endpoint.substr(request.endpoint.rfind('/') + 1);
  if (!request.query.empty()) line += "?" + request.query;
  if (!request.cookie.empty()) line += " [" + request.cookie + "]";
  if (!request.body.empty()) line += " " + request.body;
  return line;
}

class PlatformTest : public CurlObjectTest {
 public:
  static constexpr const char* POD = "127.0.0.1";

  static void SetUpTestSuite() { shared = std::make_unique<Shared>(); }
  static void TearDownTestSuite() { shared.reset(); }

 protected:
  struct Shared {
    static ferrolab::PlatformOptions optionsWith(const testsupport::Certificate& certificate) {
      ferrolab::PlatformOptions options;
      options.certificate = &certificate;
      options.podHost = POD;
      return options;
    }

    testsupport::TempFolder folder;
    testsupport::Certificate certificate = testsupport::makeCertificate(folder.path(), "platform", {"localhost", POD});
    ferrolab::PlatformSimulator platform{optionsWith(certificate)};
    // A pod has no port of its own: what goes to that of its scheme arrives at the simulator's.
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> podRoute{
        curl_slist_append(nullptr, (std::string(POD) + ":443:localhost:" + std::to_string(platform.port())).c_str()),
        &curl_slist_free_all};
    // A connector that takes everybody for HOST1$.
    testsupport::HttpServer connector{
        [this](const testsupport::HttpRequest&) { return platform.siteCheckHttp("HOST1$"); }};
  };

  PlatformTest() {
    platform.reset();
    access.maxConnections = 10;
    access.occupiedTimeout = 900;
  }

  // No connection of the pool knows the way to this suite's pod any more.
  ~PlatformTest() override { access.pool.reapCurls(); }

  // Nobody sent what no client should send.
  void TearDown() override { EXPECT_THAT(platform.surprises(), testing::IsEmpty()); }

  template <class Client>
  std::unique_ptr<Client> client(const std::string& version, const std::string& user) {
    auto made = std::make_unique<Client>(platform.url(), version, user);
    made->getCurl(user, "login");
    made->curl->setOpt(CURLOPT_CONNECT_TO, static_cast<void*>(shared->podRoute.get()));
    return made;
  }
  // Of the newest version; with the cookies that are not empty.
  std::unique_ptr<Client1S> client1S(const std::string& user, int profile, const std::string& machineCookie,
                                     const std::string& userCookie = {}) {
    const std::string uuid = user == "alice" ? "11111111-2222-3333-4444-555555555555" : "";
    auto made =
        std::make_unique<Client1S>(platform.url(), "1.0S", user, uuid, connectorUrl(), "HTTP/localhost", &profile);
    made->setCookie(COOKIE_MACHINE, machineCookie);
    made->setCookie(COOKIE_USER, userCookie);
    made->getCurl(user, "login");
    return made;
  }
  std::string connectorUrl() const { return "http://" + shared->connector.address() + "/"; }

  // The machine's cookie for a new code: MACHINE-000002 after a reset.
  std::string machineCookie(const std::string& machine = "HOST1$") {
    const auto signedIn = client1S("nobody", PROFILE_LOGIN, "");
    EXPECT_EQ(signedIn->sso(platform.mintCode(machine)), 1);
    return signedIn->getCookie(COOKIE_MACHINE);
  }

  // The mechanism by the end of its identifier.
  static std::vector<CloudAuthMechanism>::const_iterator findByEnd(const CloudAuthChallenge& open,
                                                                   const std::string& name) {
    const std::string end = "." + name;
    return std::find_if(open.mechanisms.begin(), open.mechanisms.end(), [&end](const auto& one) {
      const std::string id = "." + one.mechanismId;
      return id.size() >= end.size() && id.compare(id.size() - end.size(), end.size(), end) == 0;
    });
  }

  // Takes the step, the next challenge before it where none is open.
  void take(CloudAuth& login, const std::string& user, int& status, CloudAuthChallenge& open, const Step& step) {
    if (step.action == Step::APPROVE) return platform.approve(user);
    if (step.action == Step::DENY) return platform.deny(user);
    if (status == AUTH_NEXT_CHALLENGE) {
      ASSERT_EQ(login.nextChallenge(open), 1);
    }
    const auto chosen = findByEnd(open, step.mechanism);
    ASSERT_NE(chosen, open.mechanisms.end()) << step.mechanism << " is not offered";
    status = login.advanceAuthentication(chosen->mechanismId, step.action, step.answer);
    EXPECT_EQ(status, step.result) << step.mechanism << " action " << step.action;
  }

  // The dialogue, and the whole list of requests that it made.
  Texts requestsOf(CloudAuth& login, const std::string& user, int started, const std::vector<Step>& steps) {
    const size_t before = platform.requests().size();
    int status = login.startAuthentication();
    EXPECT_EQ(status, started);
    CloudAuthChallenge open;
    for (const Step& step : steps) take(login, user, status, open, step);
    return requestsFrom(before);
  }
  Texts requestsFrom(size_t first) const {
    Texts lines;
    const auto all = platform.requests();
    for (size_t i = first; i < all.size(); ++i) lines.push_back(lineOf(all[i], platform.podHost()));
    return lines;
  }

  static inline std::unique_ptr<Shared> shared;
  ferrolab::PlatformSimulator& platform = shared->platform;
  CloudCurlPoolAccess access;
  SettingsScope settings{{"ferrod.cloud.cert.store", shared->certificate.certificateFile},
                         {"ferrod.cloud.direct.connection", "true"},
                         {"ferrod.cloud.iwa.url", connectorUrl()}};
};

}  // namespace platformtest
