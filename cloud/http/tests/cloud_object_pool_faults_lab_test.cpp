// Hand-outs in a process with an agent, through a proxy that asks for Negotiate, while the domain's catalogue is away.
#include <gmock/gmock.h>

#include <future>

#include "basalt/ad_agent.h"
#include "base/include/parameter_names.h"
#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/http/tests/lab.h"
#include "testsupport/log_capture.h"
#include "testsupport/manual_clock.h"

using std::chrono::seconds;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using namespace labtest;

namespace {

class PoolFaultLab : public testing::Test {
 protected:
  PoolFaultLab() {
    ADAgent::start({});
    access.pool.setProxy(withNegotiate());
  }
  // Connections go before the agent that they ask.
  ~PoolFaultLab() override {
    access.reset();
    ADAgent::stop();
    control({"start", "gc", "ldap"});
  }

  static CloudProxyInfo withNegotiate() { return proxyInfo(lab("PROXY_NEGOTIATE"), "negotiate", MACHINE_MARKER); }
  static CloudProxyInfo open() { return proxyInfo(lab("PROXY_OPEN")); }

  CurlObject* handOut() { return access.pool.getCurl("alice", "login"); }
  // Status of a GET of the platform over this connection.
  static long exchange(CurlObject* curl) {
    curl->setOpt(CURLOPT_CAINFO, lab("CA"));
    return curl->perform(lab("PLATFORM_URL"), "", 0).first;
  }
  void expectLetIn(const LogTail& tail) {
    access.reset();  // a tunnel's line is written when the tunnel closes
    EXPECT_THAT(tail.letIn(1), ElementsAre(lab("MACHINE") + "@" + lab("REALM")));
  }

  std::vector<std::string> told(const std::string& logger) const { return recordsOf(log.texts(), logger); }
  // The realm stands in the canonical name only: the plain one has none.
  void expectNameFromController() {
    const auto directory = told("base.directory");
    EXPECT_THAT(directory, Contains(testing::StartsWith(askedInstead))) << "the catalogue was asked first";
    EXPECT_THAT(directory, Not(Contains(HasSubstr("cannot be looked up"))));
    EXPECT_EQ(ADAgent::GetADAgent(false, true)->canonicalServiceName(plainName), plainName + "@" + lab("REALM"));
    EXPECT_THAT(told("cloud.proxy.gss"), Contains("TRACE " + usedInRealm + "'" + lab("REALM") + "'"));
  }
  bool isApplied(const std::string& proxy) const {
    return log.text().find("Set CURL web proxy to: '" + proxy + "'") != std::string::npos;
  }

  const std::string plainName = "HTTP/" + lab("PROXY_NEGOTIATE").substr(0, lab("PROXY_NEGOTIATE").find(':'));
  const std::string askedInstead = "DEBUG The catalogue cannot be asked for the service name " + plainName +
                                   ", asking the domain '" + lab("DOMAIN") + "': ";
  const std::string usedInRealm = "CurlProxyNegotiateHelper::setAllowableEtypes for realm ";
  testsupport::LogCapture log{"TRACE"};
  testsupport::ManualClock clock;  // stands still: neither a name nor a pause ends by itself
  CloudCurlPoolAccess access;
};

}  // namespace

TEST_F(PoolFaultLab, CatalogueThatRefusesLeavesTheNameToTheController) {
  control({"stop", "gc"});
  const LogTail tail("NEGOTIATE");
  EXPECT_EQ(exchange(handOut()), 200);
  expectNameFromController();
  expectLetIn(tail);
}

TEST_F(PoolFaultLab, CatalogueThatRefusesFromTheStartOnDoesToo) {
  ADAgent::stop();
  control({"stop", "gc"});
  ADAgent::start({});
  const LogTail tail("NEGOTIATE");
  EXPECT_EQ(exchange(handOut()), 200);
  expectNameFromController();
  expectLetIn(tail);
}

TEST_F(PoolFaultLab, CatalogueThatHangsHoldsNoOtherClientUp) {
  control({"hang", "gc"});
  const LogTail tail("NEGOTIATE");
  auto first = std::async(std::launch::async, [this] { return handOut(); });
  EXPECT_TRUE(comesTrue([this] { return isApplied(lab("PROXY_NEGOTIATE")); }, seconds(60)));
  // A second client, by another proxy: the name of this one is what the first waits for.
  access.pool.setProxy(open());
  CurlObject* const second = handOut();
  EXPECT_EQ(exchange(second), 200);
  access.pool.releaseCurl(second);
  access.pool.setProxy(withNegotiate());
  EXPECT_EQ(first.wait_for(seconds(0)), std::future_status::timeout) << "the catalogue is still waited for";
  EXPECT_EQ(exchange(first.get()), 200);
  expectNameFromController();
  expectLetIn(tail);
}

TEST_F(PoolFaultLab, KnownNameIsHandedOutWithoutTheDirectory) {
  control({"stop", "gc"});
  CurlObject* const first = handOut();
  control({"hang", "gc", "ldap"});
  const auto before = told("base.directory");
  const LogTail tail("NEGOTIATE");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(exchange(handOut()), 200);
  access.pool.releaseCurl(first);
  EXPECT_EQ(exchange(handOut()), 200);
  EXPECT_EQ(told("base.directory"), before) << "nobody was asked";
  access.reset();
  EXPECT_THAT(tail.letIn(4), testing::Each(lab("MACHINE") + "@" + lab("REALM")));
}

// The KDC knows the plain name as well.
TEST_F(PoolFaultLab, PlainNameIsUsedWhereNoServerCanBeAsked) {
  control({"stop", "gc", "ldap"});
  const LogTail tail("NEGOTIATE");
  EXPECT_EQ(exchange(handOut()), 200);
  EXPECT_THAT(told("base.directory"),
              Contains(testing::StartsWith("WARN The service name " + plainName + " cannot be looked up: ")));
  EXPECT_THAT(told("cloud.proxy.gss"), Contains("TRACE " + usedInRealm + "''"));
  expectLetIn(tail);
}
