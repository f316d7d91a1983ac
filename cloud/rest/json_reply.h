// How the JSON of a reply is read and written. Any thread.
#pragma once

#include <rapidjson/document.h>

#include <boost/shared_ptr.hpp>
#include <string>
#include <string_view>

#include "base/include/logger.h"

namespace lumo {

// Replaces `out` by the document of the text; by null when the text is not JSON or exceeds JsonLimits.
void parseJson(rapidjson::Document& out, std::string_view text);
// Replaces `out` by compact text, members in their order, however deep the value is.
void jsonToString(std::string& out, const rapidjson::Value& object);

// The first member whose name is `key` to the byte; part of `object`. A null value with static lifetime where there is
// none.
const rapidjson::Value& jsonMember(const rapidjson::Value& object, std::string_view key);
// Copies that member's string. Throws CloudException "Errors in parsing result from Json: '%s' does NOT exist" when
// there is none or it is not a string; `out` is then unchanged.
void getJsonString(const rapidjson::Value& object, std::string_view key, std::string& out);
// The same; `out` is emptied where the other one throws.
void getJsonStringOptional(const rapidjson::Value& object, std::string_view key, std::string& out);

// Reads the body of a reply with status 200 into `document`. Returns 1 where its member "success" is true; else 0, and
// the platform's error members are logged at level 1.
int readReply(const boost::shared_ptr<Logger>& log, const std::string& body, rapidjson::Document& document);

}  // namespace lumo
