// A locator in a process with an agent, whose directory is in memory.
#pragma once

#include <gmock/gmock.h>

#include <boost/make_shared.hpp>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "basalt/ad_agent.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "base/include/string_helpers.h"
#include "cloud/route/tests/cloudconnectorlocator_access.h"
#include "testsupport/fake_credential_source.h"
#include "testsupport/log_capture.h"
#include "testsupport/memory_directory.h"
#include "testsupport/setting.h"
#include "testsupport/watched_directory.h"

namespace locatortest {

using Keywords = std::vector<std::string>;
using Texts = std::vector<std::string>;

inline std::string computerDn(const std::string& name) { return "CN=" + name + ",OU=Servers,DC=forest,DC=test"; }
inline std::string connectorDn(const std::string& name) { return "CN=proxy," + computerDn(name); }

// What a connector with both services says of itself.
inline Keywords bothServices(const std::string& url = "https://pod.example.test/", const std::string& site = "Berlin") {
  return {"morvane.core.cloudurl:" + url,       "morvane.core.webproxy.port:8080",
          "morvane.mobile.proxyScp:true",       "morvane.mobile.proxySite:" + site,
          "morvane.mobile.proxySysId:TENANT",   "morvane.mobile.proxyUri:https://uri.example.test:8443/path",
          "morvane.core.webproxyenabled:True",  "morvane.core.iwa.enabled:True",
          "morvane.core.iwa.hostname:iwa.test", "morvane.core.iwa.useHttps:True",
          "morvane.core.iwa.httpPort:8081",     "morvane.core.iwa.httpsPort:8443"};
}

// A keyword's value replaced, or the keyword left out where there is none.
inline Keywords with(Keywords keywords, const std::string& name, const char* value) {
  Keywords changed;
  bool known = false;
  for (auto& keyword : keywords) {
    if (keyword.substr(0, keyword.find(':')) != name) {
      changed.push_back(std::move(keyword));
      continue;
    }
    known = true;
    if (value != nullptr) changed.push_back(name + ":" + value);
  }
  if (!known && value != nullptr) changed.push_back(name + ":" + value);
  return changed;
}

// A connector's object as a search gives it.
inline ADObjectPtr connectorObject(const std::string& name, const Keywords& keywords) {
  auto object = boost::make_shared<lumo::ADObject>(connectorDn(name));
  object->set(AD_DN, {connectorDn(name)});
  object->set(AD_CN, {"proxy"});
  object->set(AD_OBJECT_CLASS, {"serviceConnectionPoint"});
  object->set(AD_OBJECT_GUID, {std::string("\xff\x19\x96\x6f\x86\x8b\x11\xd0\xb4\x2d\x00\xc0\x4f\xc9\x64\xff", 16)});
  if (!keywords.empty()) object->set(AD_KEYWORDS, keywords);
  return object;
}

using testsupport::Setting;

class AgentInForce {
 public:
  AgentInForce() {
    ADAgent::Options options;
    options.domain = "forest.test";
    ADAgent::start(options);
    g_adAgent = ADAgent::GetADAgent(false, true);
  }
  ~AgentInForce() {
    g_adAgent = nullptr;
    ADAgent::stop();
  }
  AgentInForce(const AgentInForce&) = delete;
  AgentInForce& operator=(const AgentInForce&) = delete;
};

// The site of the host is "Berlin".
class LocatorTest : public testing::Test {
 protected:
  testsupport::FakeCredentialSource credentials;
  testsupport::MemoryDirectory directory{"forest.test"};
  testsupport::WatchedDirectory watched{directory};
  testsupport::DirectoryInForce inForce{withSite()};
  testsupport::LogCapture log;
  AgentInForce agent;
  CloudConnectorLocatorAccess locator;

  LocatorTest() {
    // Whatever the machine itself remembers of connectors.
    locator.locator.resetState();
    locator.cloudUrl.clear();
    logged();
  }

  // A connector with its computer; without a DNS name where that is empty.
  void addConnector(const std::string& name, const Keywords& keywords, const std::string& dnsName) {
    directory.add(connectorDn(name),
                  {{AD_CN, {"proxy"}}, {AD_OBJECT_CLASS, {"serviceConnectionPoint"}}, {AD_KEYWORDS, keywords}});
    addComputer(name, dnsName);
  }
  void addConnector(const std::string& name, const Keywords& keywords) {
    addConnector(name, keywords, lower(name) + ".forest.test");
  }
  void addComputer(const std::string& name, const std::string& dnsName) {
    std::map<std::string, std::vector<std::string>> attributes = {{AD_CN, {name}}, {AD_OBJECT_CLASS, {"computer"}}};
    if (!dnsName.empty()) attributes[AD_DNS_NAME] = {dnsName};
    directory.add(computerDn(name), attributes);
  }

  // The locator's records since the last call, as "LEVEL TEXT".
  Texts logged() { return log.newTexts(LOCATOR_LOGGER); }
  // Those of them that contain the text.
  Texts loggedWith(const std::string& text) {
    Texts some;
    for (auto& record : logged()) {
      if (record.find(text) != std::string::npos) some.push_back(std::move(record));
    }
    return some;
  }

 private:
  DirectoryConnector& withSite() {
    directory.setSite("Berlin");
    return watched;
  }
};

}  // namespace locatortest
