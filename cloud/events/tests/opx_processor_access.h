// What is private in the processor of privilege events, for tests.
#pragma once

#include <functional>
#include <string>

#include "cloud/http/tests/cloud_object_pool_access.h"
#include "cloud/include/curl_object.h"
#include "cloud/include/opx_processor.h"

namespace lumo {

// The process's processor, switched on, in a scope that begins and ends without events.
struct OPXProcessorAccess {
  OPXProcessorAccess() { OPXProcessor::dropEvents(); }
  ~OPXProcessorAccess() {
    OPXProcessor::dropEvents();
    OPXProcessor::destroyProcessor();
  }
  OPXProcessorAccess(const OPXProcessorAccess&) = delete;
  OPXProcessorAccess& operator=(const OPXProcessorAccess&) = delete;

  const SettingsScope enabled{{"ferrod.cloud.log.privevent", "true"}};
  OPXProcessor& processor = fresh();
  std::string& machineCookie = processor.machineCookie;
  std::string& platformUrl = processor.platformUrl;
  std::string& certStore = processor.certStore;
  std::string& responseBody = processor.responseBody;
  CloudProxyInfo& webProxy = processor.webProxy;
  long& httpCode = processor.httpCode;
  rapidjson::Document& document = processor.document;
  CurlObject* connection() const { return processor.curl; }
  void guarded(const std::function<void()>& work) { processor.guarded(work); }

  static std::size_t waiting() { return OPXProcessor::waitingEvents(); }
  // How many there were; none is left.
  static std::size_t takeWaiting() {
    const std::size_t count = waiting();
    OPXProcessor::dropEvents();
    return count;
  }

 private:
  static OPXProcessor& fresh() {
    OPXProcessor::createProcessor();
    return *OPXProcessor::getInstance();
  }
};

}  // namespace lumo
