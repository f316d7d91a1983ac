// JSON as text: what one side hands through to the other without looking into it.
#pragma once

#include <optional>
#include <string>

namespace lumo::rpc {

// Is it one JSON value in UTF-8, however deep?
bool isJson(const std::string& text);

// The value of the first member of that name, as it stands in the text of a JSON object; empty where there is none, or
// where the text is no JSON object.
std::optional<std::string> memberText(const std::string& object, const char* name);

}  // namespace lumo::rpc
