#include "cloud/route/cloudconnectorlocator_refresh.h"

#include <algorithm>
#include <boost/make_shared.hpp>
#include <chrono>
#include <climits>
#include <exception>

#include "basalt/process/clock.h"
#include "basalt/settings/zone_hierarchy.h"
#include "base/include/logger.h"
#include "base/include/parameter_names.h"
#include "base/include/properties.h"
#include "cloud/include/cloud_object_pool.h"
#include "cloud/include/cloudconnectorlocator.h"
#include "cloud/route/cloudconnectorlocator_record.h"

namespace {

constexpr long DEFAULT_REFRESH_HOURS = 8;

long secondsNow() { return static_cast<long>(std::chrono::system_clock::to_time_t(lumo::Clock::getInstance().now())); }

// A queue that is shutting down needs no refresh any more; everything else is told.
template <class Queue>
void enqueueRefresh(Queue& queue, long due, const char* failureText) {
  try {
    queue.enqueue(boost::make_shared<lumo::CloudConnectorsRefresh>(due));
  } catch (const lumo::EndOfFileException&) {
  } catch (const std::exception& failure) {
    LUMO_LOG(getLogger(LOCATOR_LOGGER, false), lumo::level::Error, failureText, failure.what());
  }
}

void queueNextRefresh() {
  const auto queue = lumo::TimeQueue::getTimeQueue(lumo::MAIN_RUN_QUEUE, false, 0);
  if (!queue) return;
  const long configured =
      lumo::Props(false, false).getTime(lumo::PN::CLOUD_CONNECTOR_REFRESH_INTERVAL, 'h', DEFAULT_REFRESH_HOURS);
  // Beyond the end of time lies the past: searches would follow each other without a pause.
  const long interval = std::min(configured, static_cast<long>(INT_MAX));
  if (interval == 0) {
    LUMO_LOG(getLogger(LOCATOR_LOGGER, false), lumo::level::Warn,
             "Background task of refreshing Morvane Connectors has been suspended due to the interval being set to 0.");
    return;
  }
  enqueueRefresh(*queue, secondsNow() + interval, "UpdateCloudConnectors failed: %s");
}

}  // namespace

void lumo::CloudConnectorsRefresh::run() { UpdateCloudConnectors(); }

void SetRefresh(unsigned seconds) {
  const auto queue = lumo::RunQueue::getRunQueue(lumo::MAIN_RUN_QUEUE, false, 0);
  if (!queue) return;
  const long due = secondsNow() + static_cast<long>(seconds);
  LUMO_LOG(getLogger(LOCATOR_LOGGER, false), lumo::level::Debug,
           "SetRefresh: refresh task is scheduled to execute in %d seconds", static_cast<int>(seconds));
  enqueueRefresh(*queue, due, "SetRefresh failed: %s");
}

bool RefreshCloudConnectorsInfo() {
  const auto logger = getLogger(LOCATOR_LOGGER, false);
  try {
    const std::string version = lumo::Props(false, false).getProperty(lumo::PN::CLOUD_REST_VERSION);
    const bool iwaRequired = version != "0" && version != "1.0";
    const std::string url = lumo::ZoneHierarchy::GetZoneHierarchy()->getCloudUrl();
    LUMO_LOG(logger, lumo::level::Debug, "Refresh cloud connector information for cloudurl '%s' with IWA %s",
             url.c_str(), iwaRequired ? "enabled" : "disabled");
    CloudConnectorLocator::getInstance(url)->searchCloudConnetors(url, iwaRequired);
    LUMO_LOG(logger, lumo::level::Debug, "Refresh cloud connectors info done");
    CloudCurlPool::getInstance().reapCurls();
    return true;
  } catch (const LUMOException& failure) {
    LUMO_LOG(logger, lumo::level::Error, "Fail to refresh Morvane Connector information: %s", failure.what());
    return false;
  }
}

void UpdateCloudConnectors() {
  try {
    RefreshCloudConnectorsInfo();
  } catch (...) {
    // One search that ran out of memory must not be the last.
    queueNextRefresh();
    throw;
  }
  queueNextRefresh();
}
