// The processor's connection where the connectors say which platform and which road.
#include "cloud/events/tests/opx_processor_access.h"
#include "cloud/include/opx.h"
#include "cloud/route/tests/cloudconnectorlocator_waiting.h"

namespace {

using locatortest::POD;
using testing::ElementsAre;

// The process's locator, without a connector.
class OpxProcessor : public locatortest::LocatorTest {
 protected:
  OpxProcessor() {
    CloudConnectorLocatorAccess::resetProcess();
    UpdateCloudHttpProxy();
    CloudConnectorLocator::getInstance(POD)->resetState();
  }
  ~OpxProcessor() override { CloudConnectorLocatorAccess::resetProcess(); }

  lumo::OPXProcessorAccess processor;
};

}  // namespace

TEST_F(OpxProcessor, TakesThePlatformOfTheZoneAndGoesWithoutAProxyWhereThereIsNone) {
  CloudConnectorLocator::getInstance(POD)->setZoneCloudUrl("https://zone.example.test/");
  processor.processor.cloudSetup();
  EXPECT_EQ(processor.platformUrl, "https://zone.example.test/");
  EXPECT_THAT(log.newTexts("OPX.processor"), ElementsAre("DEBUG Cloud web proxy is not configured correctly."));
  EXPECT_EQ(processor.webProxy.proxyServer, "");
  EXPECT_EQ(processor.connection()->recordedOptions().count(CURLOPT_PROXY), 0U);
}

TEST_F(OpxProcessor, HasTheConnectorsLookedForWhereItHasNoPlatformYet) {
  const SettingsScope direct{{"ferrod.cloud.direct.connection", "true"}};
  processor.processor.cloudSetup();
  EXPECT_THAT(log.texts(), testing::Contains(testing::HasSubstr("getCloudConnector")));
}

TEST_F(OpxProcessor, SendsNothingWhereTheZoneHasNoPlatform) {
  const SettingsScope direct{{"ferrod.cloud.direct.connection", "true"}};
  CloudConnectorLocator::getInstance(POD)->setZoneCloudUrl("");
  processor.processor.cloudSetup();
  processor.document.Parse(R"({"otc":"c-1"})");
  const std::string why =
      "CloudException -1 The platform's URL is empty or has no scheme: set ferrod.legacyzone.mfa.cloudurl, or "
      "ferrod.zone.cloudurl for a hierarchical zone, beginning with https://";
  EXPECT_EQ(failureOf([this] { processor.processor.cloudSSO(); }), why);
  lumo::OPXProcessor::handleLogPrivEvent({{"User", "alice"}});
  EXPECT_EQ(failureOf([this] { processor.processor.cloudLogPrivEvent(); }), why);
  EXPECT_EQ(processor.waiting(), 1U);
}

TEST_F(OpxProcessor, KeepsThePlatformThatItHas) {
  processor.platformUrl = "https://platform.example.test/";
  processor.processor.cloudSetup();
  EXPECT_EQ(processor.platformUrl, "https://platform.example.test/");
}
