// A host of the private domain that looks for its connectors: a process with an agent, a run queue and the web proxy's
// setting, as an agent's process is.
#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "basalt/ad_agent.h"
#include "basalt/run_queue.h"
#include "basalt/settings/settings_store.h"
#include "base/include/parameter_names.h"
#include "cloud/http/tests/lab.h"
#include "cloud/include/cloud_object.h"
#include "cloud/include/opx.h"
#include "cloud/route/tests/cloudconnectorlocator_access.h"
#include "testsupport/log_capture.h"
#include "testsupport/setting.h"

namespace labtest {

using Texts = std::vector<std::string>;

// The texts in which one of the words stands, or none of them.
inline Texts textsWith(const Texts& texts, const Texts& words, bool has = true) {
  Texts some;
  for (const auto& text : texts) {
    const auto stands = [&](const std::string& word) { return text.find(word) != std::string::npos; };
    if (std::any_of(words.begin(), words.end(), stands) == has) some.push_back(text);
  }
  return some;
}

// A connector's host name, and its name in the lab's variables.
inline std::string hostOf(const std::string& name) { return name + "." + lab("DOMAIN"); }
inline std::string labelOf(const std::string& host) { return upper(host.substr(0, host.find('.'))); }

class ConnectorLab : public testing::Test {
 protected:
  // The zone's URL is the lab's platform; nothing is remembered of earlier.
  ConnectorLab() {
    lumo::saveSetting(SETTING_CLOUD_CONNECTORS, "");
    startProcess();
  }
  ~ConnectorLab() override {
    mend();
    endProcess();
  }

  static void startProcess() {
    ADAgent::Options options;
    options.domain = lab("DOMAIN");
    options.keytab = "/etc/krb5.keytab";
    options.ccache = "/var/morvand/machine.ccache";
    ADAgent::start(options);
    lumo::RunQueue::getRunQueue(lumo::MAIN_RUN_QUEUE, true, 1);
    UpdateCloudHttpProxy();
  }
  // Nothing in memory outlives it.
  static void endProcess() {
    lumo::RunQueue::shutdownAll();
    CloudConnectorLocatorAccess::resetProcess();
    ADAgent::stop();
    CloudCurlPool::getInstance().reapCurls();
    CloudBase::setProxy(CloudProxyInfo());
  }

  // Changes the lab until the test ends.
  void change(const std::vector<std::string>& command, std::vector<std::string> back) {
    m_back.push_back(std::move(back));
    control(command);
  }
  void stop(const std::vector<std::string>& services, const std::string& how = "stop") {
    std::vector<std::string> command = {how};
    std::vector<std::string> back = {"start"};
    command.insert(command.end(), services.begin(), services.end());
    back.insert(back.end(), services.begin(), services.end());
    change(command, back);
  }
  // The lab as it was.
  void mend() {
    for (; !m_back.empty(); m_back.pop_back()) control(m_back.back());
  }

  static CloudConnectorLocator& locator() { return *CloudConnectorLocator::getInstance(lab("PLATFORM_URL")); }
  // The locator's records since the last call, as "LEVEL TEXT".
  Texts logged() { return log.newTexts(LOCATOR_LOGGER); }
  // Those of them that do not tell of single connectors.
  Texts loggedRoad() {
    return textsWith(logged(),
                     {"loadAttributes:", "got FQDN from", "push in ", "Invalid cloud connector", "because",
                      "which is different", "Inserting cloud connectors", "is unavailable:"},
                     false);
  }

  testsupport::LogCapture log;
  testsupport::Setting zone{lumo::PN::LEGACYZONE_CLOUDURL, lab("PLATFORM_URL")};
  testsupport::Setting trust{lumo::PN::FERROD_CLOUD_CERT_STORE, lab("CA")};

  const std::string connector1 = lab("CONNECTOR1");
  const std::string connector2 = lab("CONNECTOR2");
  const std::string branch1 = lab("BRANCH1");

 private:
  std::vector<std::vector<std::string>> m_back;
};

}  // namespace labtest
