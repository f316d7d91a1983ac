// Reports the use of privileges to the platform, in the name of the machine.
#pragma once

#include <rapidjson/document.h>

#include <boost/shared_ptr.hpp>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <utility>

#include "base/include/exceptions.h"
#include "base/include/logger.h"
#include "cloud/include/cloud_object.h"

namespace lumo {

// The processor cannot be had. Result code 0: the configuration has it switched off; 1: createProcessor has not been
// called.
LUMO_DECLARE_EXCEPTION(OPXException, Base_Exception);

// The machine's own client of the platform: one of the process, with one connection of its own outside the pool. Events
// are handed over on any thread by handleLogPrivEvent; all else runs on the one thread of the queue "opx", which the
// agent makes. Reporting is a best effort: an event is stored in memory until it is sent, and is given up when the
// platform or the session fails (see postLogPrivEvent).
//
// An agent calls UpdateCloudHttpProxy, then createProcessor, makes the queue OPX_RUN_QUEUE with one thread, and from
// then on handleLogPrivEvent. Logs by "OPX.processor" and "cloud.opx.processor".
class OPXProcessor : public CloudBase {
 public:
  // Name and value of each detail, in the order in which they are to be sent.
  using Event = std::list<std::pair<std::string, std::string>>;

  // Makes the process's processor anew; one that was there is destroyed. Not beside the queue "opx": the caller sees to
  // that.
  static void createProcessor();
  // At the agent's end, once its queues are shut down: no processor is there any more.
  static void destroyProcessor();
  // Throws OPXException as checkEnabled, and "OPX is not ready." (1). The process's; lives until the next
  // createProcessor.
  static OPXProcessor* getInstance();
  // Throws OPXException "OPX is disabled in config file." (0) unless `ferrod.cloud.log.privevent` is true.
  static void checkEnabled();

  // Call it only where checkEnabled passes: nobody takes the events away while the processor is switched off.
  // Stores the event and wakes the queue "opx"; where there is no such queue the event waits for the next one's.
  // Returns at once. Throws nothing: a failure is told at level 4.
  static void handleLogPrivEvent(const Event& event);

  // Prepares the connection: headers, platform, proxy. Throws CurlException, and what CloudConnectorLocator throws.
  void cloudSetup();
  // Signs the machine in at that platform: cloudSetup, cloudIWA, cloudSSO. Drops every event that waits. Throws nothing
  // that derives from LUMOException: what fails stands in the log at level 1.
  void initProc(const std::string& url);
  // The connector's one-time code for the machine's Kerberos ticket. A refusal shows in the log alone. Throws
  // CurlException, and CloudException for a reply without its members.
  void cloudIWA();
  // The session for the code. Throws CurlException, and CloudException where there is no code, no platform, or one
  // without TLS that the configuration does not name.
  void cloudSSO();

  // Sends the events that wait, after a sign-in where there is no session. Without events nothing is sent. After a
  // failed transfer all of them stay stored, those that were sent too.
  void postLogPrivEvent();
  // Sends what waits, one request for each event, and takes nothing of it away. Throws as cloudSSO, and
  // EndOfFileException between two of them where the queue is shutting down.
  void cloudLogPrivEvent();

  int processResult() override;
  ~OPXProcessor() override;

 private:
  OPXProcessor();

  static std::size_t waitingEvents();
  static void dropEvents();
  // Does the work; what it throws goes into the log.
  void guarded(const std::function<void()>& work);
  // Is the connector's reply a success?
  bool readSiteCheck();
  void trustPlatform();

  boost::shared_ptr<Logger> logger;
  std::string machineCookie;  // empty when not signed in
  std::string platformUrl;    // ends in "/"
  CloudProxyInfo webProxy;    // of the last cloudSetup
  rapidjson::Document document;
  std::unique_ptr<CurlObject> ownCurl;  // CloudBase::curl

  friend struct OPXProcessorAccess;
};

}  // namespace lumo
