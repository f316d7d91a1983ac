// Are the reports whole that are read while everything changes?
#pragma once

#include <array>
#include <cstdlib>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace locatortest {

inline std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

inline bool beginsWith(const std::string& line, const std::string& text) {
  return line.compare(0, text.size(), text) == 0;
}

// The number behind the label; -1 where there is none.
inline long numberIn(const std::string& report, const std::string& label) {
  const std::size_t at = report.find(label);
  return at == std::string::npos ? -1 : std::atol(report.c_str() + at + label.size());
}

inline long countOf(const std::string& text, const std::string& what) {
  long count = 0;
  for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++count;
  return count;
}

// What is wrong with a report of connectors, empty when nothing is: the headings in their order, and whole blocks of
// connectors out of `fqdns`.
inline std::string faultOfReport(const std::string& report, const std::set<std::string>& fqdns) {
  static constexpr std::array<const char*, 12> HEADINGS = {
      "==============Morvane Identity Platform Instances/Morvane Connectors info============",
      "Morvane Identity Platform Instances:",
      "   Morvane Identity Platform Instances in zone: ",
      "Proxy to Morvane Identity Platform:",
      "   Proxy server: ",
      "   Proxy authentication method: ",
      "Morvane Connectors:",
      "   Current used connector: ",
      "   Morvane Connectors in current site:",
      "   Morvane Connectors in other site:",
      "   Morvane Connectors discarded:",
      "   Morvane Connectors in current site and unused:"};
  std::size_t at = 0;
  for (const char* heading : HEADINGS) {
    at = report.find(heading, at);
    if (at == std::string::npos) return std::string("no '") + heading + "' in its place in\n" + report;
  }
  const std::vector<std::string> lines = linesOf(report);
  static constexpr std::array<const char*, 8> BLOCK = {"      Morvane Connector: ",
                                                       "        Morvane Identity Platform URL: ",
                                                       "        Connector Site: ",
                                                       "        Connector FQDN: ",
                                                       "        Tenant ID: ",
                                                       "        Connector port: ",
                                                       "        Connector IWA HTTP port: ",
                                                       "        Connector IWA HTTPS port: "};
  for (std::size_t line = 0; line < lines.size(); ++line) {
    if (!beginsWith(lines[line], BLOCK[0])) continue;
    if (fqdns.count(lines[line].substr(std::string(BLOCK[0]).size())) != 1) return "the report tells of " + lines[line];
    for (std::size_t i = 1; i < BLOCK.size(); ++i) {
      const bool there = line + i < lines.size() && beginsWith(lines[line + i], BLOCK[i]);
      if (!there) return "a block is not whole in\n" + report;
    }
  }
  return report.back() == '\n' ? std::string() : "the report ends within a line";
}

// The same of a report of the pool, with so many connections at the most.
inline std::string faultOfPoolReport(const std::string& report, long limit) {
  const long occupied = numberIn(report, "Current occupied count: ");
  if (occupied < 0 || occupied > limit) return "so many connections are occupied:\n" + report;
  if (occupied != countOf(report, "       Occupied: Yes\n")) {
    return "the occupied are not those that are counted:\n" + report;
  }
  if (numberIn(report, "Current count: ") != countOf(report, "   Connection: ")) {
    return "the connections are not those that are counted:\n" + report;
  }
  const bool whole = countOf(report, "   Connection: ") == countOf(report, "       Expired: ");
  return whole ? std::string() : "not whole:\n" + report;
}

}  // namespace locatortest
