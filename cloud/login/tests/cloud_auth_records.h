// The records of a login as texts, and replies with one member changed.
#pragma once

#include <rapidjson/pointer.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "cloud/include/cloud_auth.h"

// "NAME|ID|SELECT|PROMPT|MESSAGE|TYPE|oob" or "...|in band".
inline std::string textOf(const CloudAuthMechanism& one) {
  return one.name + "|" + one.mechanismId + "|" + one.selectText + "|" + one.answerPrompt + "|" + one.message + "|" +
         std::to_string(one.answerType) + (one.outOfBand ? "|oob" : "|in band");
}

// "NAME: required, done by ID: NAME,NAME".
inline std::string textOf(const CloudAuthChallenge& one) {
  std::string text = one.name + (one.required ? ": required, " : ": optional, ");
  text += one.done ? "done" : "open";
  if (!one.selectedMechanism.empty()) text += " by " + one.selectedMechanism;
  const char* mark = ": ";
  for (const CloudAuthMechanism& mechanism : one.mechanisms) {
    text += mark + mechanism.name;
    mark = ",";
  }
  return text;
}

inline std::vector<std::string> textsOf(const std::vector<CloudAuthChallenge>& challenges) {
  std::vector<std::string> texts;
  for (const CloudAuthChallenge& one : challenges) texts.push_back(textOf(one));
  return texts;
}

inline rapidjson::Document jsonOf(const std::string& text) {
  rapidjson::Document document;
  document.Parse(text.data(), text.size());
  if (document.HasParseError()) throw std::invalid_argument("no JSON: " + text);
  return document;
}

// The text with the value at a JSON pointer (RFC 6901) replaced by JSON text; without it for an empty one.
inline std::string changed(const std::string& text, const std::string& pointer, const std::string& value) {
  rapidjson::Document document = jsonOf(text);
  const rapidjson::Pointer place(pointer.c_str());
  if (value.empty()) {
    if (!place.Erase(document)) throw std::invalid_argument("nothing at " + pointer);
  } else {
    place.Set(document, rapidjson::Value(jsonOf(value), document.GetAllocator()));
  }
  std::string out;
  CloudAuth::jsonToString(out, document);
  return out;
}
