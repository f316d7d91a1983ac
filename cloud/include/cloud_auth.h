// The root of the clients that sign somebody in: how the platform's replies are read.
#pragma once

#include <rapidjson/document.h>

#include <string>

#include "cloud/include/cloud_object.h"

// One thread at a time.
class CloudAuth : public CloudBase {
 public:
  using CloudBase::CloudBase;

  // 1 for status 200 and a body whose member "success" is the boolean true, else 0; the platform's words are then in
  // the log at level 1. The body of a 200 becomes the document, null when it is no JSON; with another status it stays.
  int processResult() override;

  // The string member of that name; `key` must match to the byte, the first one of a name counts. Throws
  // lumo::CloudException "Errors in parsing result from Json: '%s' does NOT exist"; `out` then stays.
  static void getJsonString(const rapidjson::Value& object, const std::string& key, std::string& out);
  // The same, empty where there is none.
  static void getJsonStringOptional(const rapidjson::Value& object, const std::string& key, std::string& out);
  // The member of that name, part of `object`; where there is none, a null value that lives as long as the process.
  static const rapidjson::Value& member(const rapidjson::Value& object, const std::string& key);
  // Replaces `out` by compact text, members in their order, however deep the value is.
  static void jsonToString(std::string& out, const rapidjson::Value& object);

 protected:
  // Logs the headers X-MRV-* of the last reply at level 1.
  void dumpMrvHeader();

  rapidjson::Document document;  // the body of the last reply with status 200
};
