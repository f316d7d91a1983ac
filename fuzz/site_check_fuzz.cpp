// Answers of a connector: the object that is cut out of them, what is read in it, and the URL that is made of its code.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cloud/include/cloud_auth.h"
#include "cloud/rest/machine_sign_in.h"

namespace {

void require(bool holds) {
  if (!holds) std::abort();
}

// The slow way, brace by brace.
std::string objectOf(const std::string& text, char& missing) {
  std::string object;
  std::size_t complete = 0;
  for (const char c : text) {
    if (!object.empty() || c == '{') object += c;
    if (!object.empty() && c == '}') complete = object.size();
  }
  missing = object.empty() ? '{' : complete == 0 ? '}' : '\0';
  return object.substr(0, complete);
}

// The code alone, whatever it is: no other parameter, no part of a URL.
void checkUrl(const std::string& code) {
  const std::string begin = "https://pod.test/security/sso?OneTimePass=";
  const CodeUrl url("https://pod.test/security/sso", code);
  require(url.whole().compare(0, begin.size(), begin) == 0 && url.shown() == begin + "(hidden)");
  std::string decoded;
  for (std::size_t i = begin.size(); i < url.whole().size(); ++i) {
    const char c = url.whole()[i];
    require(std::isalnum(static_cast<unsigned char>(c)) != 0 || std::strchr("-._~%", c) != nullptr);
    decoded += c == '%' ? static_cast<char>(std::stoi(url.whole().substr(i + 1, 2), nullptr, 16)) : c;
    if (c == '%') i += 2;
  }
  require(decoded == code);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  char missing = '\0';
  const std::string object = objectOf(text, missing);
  const EmbeddedObject found = findEmbeddedObject(text);
  require(found.text == object && found.missing == missing);
  if (missing != '\0') return 0;

  rapidjson::Document document;
  CloudAuth::parseJson(document, found.text);
  require(document.IsNull() || document.IsObject());
  for (const char* key : {SITE_CHECK_RESULT, SITE_CHECK_CODE}) {
    std::string value = "before";
    try {
      CloudAuth::getJsonString(document, key, value);
    } catch (const lumo::CloudException&) {
      require(value == "before");
    }
    checkUrl(value);
  }
  return 0;
}
