#include "testsupport/process_memory.h"

#include <cstdio>
#include <fstream>

namespace testsupport {

std::vector<Mapping> mappings() {
  std::ifstream smaps("/proc/self/smaps");
  std::vector<Mapping> all;
  for (std::string line; std::getline(smaps, line);) {
    Mapping mapping;
    char access[8] = {};
    unsigned long start = 0;
    unsigned long end = 0;
    int nameAt = 0;
    if (std::sscanf(line.c_str(), "%lx-%lx %7s %*s %*s %*s %n", &start, &end, access, &nameAt) == 3) {
      mapping.start = start;
      mapping.end = end;
      mapping.access = access;
      mapping.name = nameAt > 0 ? line.substr(static_cast<std::size_t>(nameAt)) : "";
      all.push_back(mapping);
    } else if (line.rfind("VmFlags:", 0) == 0 && !all.empty()) {
      all.back().flags = line.substr(8) + " ";
    } else if (line.rfind("Locked:", 0) == 0 && !all.empty()) {
      all.back().lockedKb = std::stoul(line.substr(7));
    }
  }
  return all;
}

std::vector<Mapping> placesOf(unsigned length, const std::function<char(unsigned)>& characterAt) {
  std::vector<Mapping> places;
  const char first = characterAt(0);
  for (const Mapping& mapping : mappings()) {
    if (mapping.access[0] != 'r' || mapping.name.rfind("[v", 0) == 0) continue;
    const char* const end = reinterpret_cast<const char*>(mapping.end);
    for (const char* at = reinterpret_cast<const char*>(mapping.start); at + length <= end; ++at) {
      if (*at != first) continue;
      unsigned i = 1;
      while (i < length && at[i] == characterAt(i)) ++i;
      if (i == length) places.push_back(mapping);
    }
  }
  return places;
}

}  // namespace testsupport
